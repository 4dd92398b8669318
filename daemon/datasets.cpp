#include "daemon/datasets.h"

#include "backup/pools/scsipool/utils.h"
#include "daemon/members.h"

namespace scsipoold {

using json_spirit::Object;

namespace {

std::string pool_text(Context& context, const std::string& pool_id, const char* key) {
  Object row;
  std::string text;
  if (context.catalog.get_pool_info(pool_id, row)) json_spirit::object_find(row, key, text);
  return text;
}

}  // namespace

bool find_pool(Context& context, const std::string& pool_id, Reply& reply) {
  if (!context.catalog.pool_exist(pool_id)) {
    reply = refusal(404, "there is no pool " + quoted_name(pool_id));
  } else if (!manager()->pool_exist(pool_id)) {
    reply = refusal(503, "the storage of pool " + quoted_name(pool_id) + " is missing: see health");
  } else {
    return true;
  }
  return false;
}

bool find_lun(Context& context, const std::string& pool_id, const std::string& lun_id, Reply& reply) {
  if (!find_pool(context, pool_id, reply)) return false;
  if (manager()->lun_exist(pool_id, lun_id)) return true;
  reply = refusal(404, "there is no LUN " + quoted_name(lun_id) + " in pool " + quoted_name(pool_id));
  return false;
}

bool find_filesystem(Context& context, const std::string& pool_id, const std::string& name, Reply& reply) {
  if (!find_pool(context, pool_id, reply)) return false;
  if (manager()->filesystem_exist(pool_id, name)) return true;
  reply =
      refusal(404, "there is no sub filesystem " + quoted_name(name) + " in pool " + quoted_name(pool_id));
  return false;
}

bool find_snapshot(Context& context, const std::string& pool_id, const std::string& snapshot_id, bool of_lun,
                   Reply& reply) {
  if (!find_pool(context, pool_id, reply)) return false;
  if (of_lun ? manager()->snapshot_exist(pool_id, snapshot_id)
             : manager()->filesystem_snapshot_exist(pool_id, snapshot_id))
    return true;
  reply =
      refusal(404, "there is no snapshot " + quoted_name(snapshot_id) + " in pool " + quoted_name(pool_id));
  return false;
}

std::unique_ptr<platform::Turns::Turn> take_turn(Context& context, const std::string& pool_id, bool is_lun,
                                                 const std::string& dataset, Reply& reply) {
  // A transfer has been answered a moment before its turn ends.
  constexpr std::chrono::seconds PATIENCE{2};
  auto turn = std::make_unique<platform::Turns::Turn>(
      context.turns, scsi_pool::dataset_key(pool_id, is_lun, dataset), PATIENCE);
  if (*turn) return turn;
  reply =
      refusal(409, "a snapshot is being received into " + std::string(is_lun ? "LUN " : "sub filesystem ") +
                       quoted_name(dataset) + ", or another change of it has not ended");
  return nullptr;
}

LIO_Target_Type pool_target_type(Context& context, const std::string& pool_id) {
  LIO_Target_Type type = TYPE_UNKNOWN;
  lio_target_string_to_type(pool_text(context, pool_id, "type"), type);
  return type;
}

std::string pool_fs_type(Context& context, const std::string& pool_id) {
  return pool_text(context, pool_id, "fs_type");
}

bool add_retention_type(const std::string& retention_type, Object& ext_attrs, Reply& reply) {
  if (retention_type.empty()) return true;
  if (!scsi_pool::SCSI_Pool_Manager::lun_retention_valid(retention_type)) {
    reply = refusal(400, "member 'retention_type': must be newest or normal");
    return false;
  }
  ext_attrs["retention_type"] = retention_type;
  return true;
}

}  // namespace scsipoold
