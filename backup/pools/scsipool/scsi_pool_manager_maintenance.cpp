// Upkeep of pools: trimming, the initiators of all exports, copies elsewhere, Fibre Channel targets.

#include <memory>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/utils.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/lio/lio.h"
#include "platform/process/fstrim.h"
#include "platform/rpc/json_rpc.h"

namespace scsi_pool {

using json_spirit::Array;
using json_spirit::get_array;
using json_spirit::get_object;
using json_spirit::Object;
using json_spirit::object_find;
using json_spirit::Value;

bool SCSI_Pool_Manager::trim_backstore(const std::string& pool_id, const std::string& lun_id) {
  Object attrs;
  if (!get_pool_ext_attrs(pool_id, attrs)) {
    return LOG_FAILURE("Failed to trim backstore: Cannot get pool '%s' extended attributes\n",
                       pool_id.c_str());
  }
  bool wanted = false;
  if (!object_find(attrs, "backstore_trim", wanted) || !wanted) return true;
  std::string fs_type, global_dev;
  if (!get_pool_backstore_info(pool_id, fs_type, global_dev)) {
    return LOG_FAILURE("Failed to trim backstore: get pool '%s' backstore info error\n", pool_id.c_str());
  }
  if (fs_type != "zfs") return true;
  const SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr(pool_id));
  if (!backstore) return LOG_FAILURE("Failed to trim backstore.\n");
  std::string dataset;
  if (!backstore->get_volume_dataset(lun_id, dataset)) {
    return LOG_FAILURE("Failed to trim backstore: get dataset error\n");
  }
  // Two at once would each find the LUN unexported by the other, and one of them mounted.
  const platform::Turns::Turn turn(trim_turns_, dataset_key(pool_id, true, lun_id));
  Sub_Volume_Exporter::Export_Info info;
  if (!lun_exported(pool_id, lun_id, info)) {
    return LOG_FAILURE("Failed to trim backstore: get LUN state error\n");
  }
  if (info.status && !unexport_lun(pool_id, lun_id, true)) {
    return LOG_FAILURE("Failed to trim backstore: unexport LUN error\n");
  }
  FAULT_POINT("trim.unexport");
  const bool trimmed = platform::fstrim_all(dataset);
  if (info.status && !export_lun(pool_id, lun_id, info)) {
    LOG_FAILURE("Failed to trim backstore: LUN '%s' was exported and is not any more\n", lun_id.c_str());
  }
  return trimmed;
}

bool SCSI_Pool_Manager::list_pools_acls(LIO_ACLs& acls, const char* pool_uuid) {
  Array rows;
  if (!has_catalog()) return false;
  if (!sqlite_impl_->list_acls(rows, pool_uuid)) return LOG_FAILURE("Failed to list pool acls\n");
  for (const Value& value : rows) {
    const Object* row = get_object(value);
    std::string text;
    Value parsed;
    if (row == nullptr || !object_find(*row, "acls", text) || !loads_json(text, parsed) ||
        !parsed.is_array()) {
      continue;
    }
    if (!(acls << *get_array(parsed))) {
      return LOG_FAILURE("Failed to list pool acls: failed to parse array acls\n");
    }
  }
  return true;
}

bool SCSI_Pool_Manager::remove_copy(const char* pool_id, const char* snapshot_id) {
  if (pool_id == nullptr || *pool_id == '\0') return LOG_VIOLATION("pool_id is NULL or \"\"");
  if (snapshot_id == nullptr || *snapshot_id == '\0') return LOG_VIOLATION("snapshot_id is NULL or \"\"");
  const Object parameters{{"action", "remove"},
                          {"params", Object{{"pool_uuid", pool_id}, {"snapshot_uuid", snapshot_id}}}};
  JSON_RPC_Session session(Global_JSON_RPC_Channel::instance());
  JSON_RPC_Object request, response;
  const bool answered = session.make_rpc_request("cdm.copy.request", parameters, request) &&
                        session.request(request, response, 0);
  return (answered && response.type() == JSON_RPC_Object::TYPE_RESPONSE) ||
         LOG_FAILURE("Failed to remove snapshot '%s' in CDM\n", snapshot_id);
}

bool SCSI_Pool_Manager::add_lio_fc_target(const char* target) {
  const LIO_Target_Manager_var manager = LIO_Target_Manager_Factory::get_manager("FC");
  if (!manager) return LOG_FAILURE("Failed to create FC target: Failed to create target manager\n");
  const LIO_Target_var made = manager->create_or_get_target(target != nullptr ? target : "");
  if (!made) return LOG_FAILURE("Failed to create FC target: Failed to create target\n");
  const Target_Port_Group_var group = made->create_or_get_tpg(1);
  if (!group) return LOG_FAILURE("Failed to create target port group\n");
  return group->enable(true);
}

}  // namespace scsi_pool
