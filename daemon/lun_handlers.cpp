// GET, POST, PUT and DELETE /svc/r/scsipool/lun; POST and DELETE .../lun/export and .../lun/acl; GET
// /svc/r/scsipool/acl; POST /svc/r/scsipool/trim.

#include <limits>

#include "daemon/arguments.h"
#include "daemon/datasets.h"
#include "daemon/demo_mode.h"
#include "daemon/handlers.h"
#include "daemon/peer_check.h"
#include "platform/base/log.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using scsi_pool::SCSI_Pool_Manager;
using scsi_pool::SCSI_Pool_Sqlite_Manager;
using Export_Info = scsi_pool::Sub_Volume_Exporter::Export_Info;

namespace {

constexpr std::uint64_t SMALLEST_SIZE = 512;  // one block: the kernel shows less than one as 16 EiB
constexpr std::uint64_t LARGEST_SIZE = std::numeric_limits<std::int64_t>::max() - 1024 * 1024;
constexpr std::uint64_t LARGEST_BLOCK = 1024 * 1024;

Reply lun_record(const Request& request, const std::string& pool_id, const std::string& lun_id) {
  Array luns;
  if (!manager()->list_lun(pool_id, luns, lun_id.c_str()) || luns.empty())
    return failure(request, "the LUN cannot be listed");
  add_demo_mode(luns);
  return {200, luns.front()};
}

Reply list_luns(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, lun_id;
  if (!Arguments(request).uuid("pool_id", pool_id).required("pool_id").uuid("lun_id", lun_id).finish(reply) ||
      !find_pool(context, pool_id, reply))
    return reply;
  if (!lun_id.empty() && !find_lun(context, pool_id, lun_id, reply)) return reply;
  Array luns;
  if (!manager()->list_lun(pool_id, luns, lun_id.empty() ? nullptr : lun_id.c_str()))
    return failure(request, "the LUNs cannot be listed");
  add_demo_mode(luns);
  return {200, luns};
}

struct LUN_Creation {
  std::string pool_id, lun_id, snapshot_id;
  SCSI_Pool_Manager::LUN_Option option;
};

bool read_creation(Context& context, const Request& request, LUN_Creation& creation, Reply& reply) {
  std::uint64_t block_size = 0;
  std::string retention_type;
  SCSI_Pool_Manager::LUN_Option& option = creation.option;
  Arguments arguments(request);
  arguments.uuid("pool_id", creation.pool_id).required("pool_id");
  arguments.uuid("lun_id", creation.lun_id).uuid("snapshot_id", creation.snapshot_id);
  arguments.number("lun_size", SMALLEST_SIZE, LARGEST_SIZE, option.size);
  arguments.flag("export", option.lun_export).flag("link_clone", option.link_clone);
  arguments.number("block_size", 0, LARGEST_BLOCK, block_size);
  arguments.text("retention_type", retention_type).object("extended_attrs", option.ext_attrs);
  arguments.acls("acls", pool_target_type(context, creation.pool_id), option.acls);
  if (creation.snapshot_id.empty()) {
    arguments.required("lun_size");
    if (arguments.has("link_clone")) arguments.refuse("link_clone", "goes with snapshot_id only");
  } else if (arguments.has("lun_size")) {
    arguments.refuse("lun_size", "is the snapshot's when snapshot_id is given");
  }
  if (!option.acls.empty() && !option.lun_export) arguments.refuse("acls", "go with an export only");
  option.block_size = static_cast<ACE_UINT32>(block_size);
  return arguments.finish(reply) && add_retention_type(retention_type, option.ext_attrs, reply);
}

Reply create_lun(Context& context, const Request& request) {
  LUN_Creation creation;
  Reply reply;
  if (!read_creation(context, request, creation, reply) || !find_pool(context, creation.pool_id, reply))
    return reply;
  if (!creation.lun_id.empty() && context.catalog.lun_exist(creation.pool_id, creation.lun_id))
    return refusal(409, "there is a LUN '" + creation.lun_id + "' already");
  if (!creation.snapshot_id.empty() &&
      !find_snapshot(context, creation.pool_id, creation.snapshot_id, true, reply))
    return reply;
  request.log->clear();
  ACE_UINT16 lun_num = 0;
  const bool made = creation.snapshot_id.empty()
                        ? manager()->create_lun(creation.pool_id, creation.option, creation.lun_id, lun_num)
                        : manager()->create_lun(creation.pool_id, creation.snapshot_id, creation.option,
                                                creation.lun_id, lun_num);
  if (made) return lun_record(request, creation.pool_id, creation.lun_id);
  reply = failure(request, "the LUN cannot be created");
  // A failed export leaves the new LUN in the pool: its user must know.
  if (!creation.lun_id.empty() && context.catalog.lun_exist(creation.pool_id, creation.lun_id))
    reply.body["error"]["left_behind"] = creation.lun_id;
  return reply;
}

Reply roll_back_lun(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, lun_id, snapshot_id;
  bool force = false;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).required("pool_id").uuid("lun_id", lun_id).required("lun_id");
  if (!arguments.flag("force", force).finish(reply) || !find_lun(context, pool_id, lun_id, reply))
    return reply;
  const auto turn = take_turn(context, pool_id, true, lun_id, reply);
  if (!turn) return reply;
  ACE_UINT16 lun_num = 0;
  if (!manager()->update_lun_with_snapshot(pool_id, lun_id, lun_num, snapshot_id, force))
    return failure(request, "the LUN cannot be rolled back");
  reply = lun_record(request, pool_id, lun_id);
  if (reply.status == 200) reply.body["snapshot_id"] = snapshot_id;
  return reply;
}

Reply delete_lun(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, lun_id;
  bool force = false;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).required("pool_id").uuid("lun_id", lun_id).required("lun_id");
  if (!arguments.flag("force", force).finish(reply) || !find_lun(context, pool_id, lun_id, reply))
    return reply;
  Array snapshots;
  context.catalog.list_lun_snapshots(pool_id, lun_id, snapshots, SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL);
  if (!snapshots.empty() && !target_takes_key(pool_id, reply)) return reply;
  const auto turn = take_turn(context, pool_id, true, lun_id, reply);
  if (!turn) return reply;
  if (!manager()->delete_lun(pool_id, lun_id, force)) return failure(request, "the LUN cannot be deleted");
  return {200, Object{{"pool_id", pool_id}, {"lun_id", lun_id}}};
}

Reply export_lun(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, lun_id;
  Export_Info info;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).required("pool_id").uuid("lun_id", lun_id).required("lun_id");
  arguments.target_type("type", info.type).text("target", info.target);
  LIO_Target_Type type = pool_target_type(context, pool_id);
  if (!info.type.empty()) lio_target_string_to_type(info.type, type);
  arguments.acls("acls", type, info.acls);
  if (arguments.has("type") != arguments.has("target")) arguments.refuse("target", "goes together with type");
  std::string why;
  if (!info.target.empty() && !normal_initiator(type, info.target, why)) arguments.refuse("target", why);
  if (!arguments.finish(reply) || !find_lun(context, pool_id, lun_id, reply)) return reply;
  // Initiators would see its content change under them.
  const auto turn = take_turn(context, pool_id, true, lun_id, reply);
  if (!turn) return reply;
  if (!manager()->export_lun(pool_id, lun_id, info)) return failure(request, "the LUN cannot be exported");
  return lun_record(request, pool_id, lun_id);
}

// A LUN that is not exported has nothing to take away.
Reply unexport_lun(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, lun_id;
  bool force = false;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).required("pool_id").uuid("lun_id", lun_id).required("lun_id");
  if (!arguments.flag("force", force).finish(reply) || !find_lun(context, pool_id, lun_id, reply))
    return reply;
  if (!manager()->unexport_lun(pool_id, lun_id, force))
    return failure(request, "the LUN cannot be unexported");
  return {200, Object{{"pool_id", pool_id}, {"lun_id", lun_id}}};
}

Reply change_acls(Context& context, const Request& request, bool add) {
  const char* key = add ? "acls" : "initiator";
  Reply reply;
  std::string pool_id, lun_id;
  LIO_ACLs acls;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).required("pool_id").uuid("lun_id", lun_id).required("lun_id");
  arguments.acls(key, pool_target_type(context, pool_id), acls).required(key);
  if (!arguments.finish(reply) || !find_lun(context, pool_id, lun_id, reply)) return reply;
  Export_Info info;
  if (!manager()->lun_exported(pool_id, lun_id, info))
    return failure(request, "the LUN's export cannot be read");
  if (!info.status) return refusal(409, "the LUN is not exported: it has no initiators");
  if (!manager()->update_lun_acls(pool_id, lun_id, acls, add))
    return failure(request, "the initiators cannot be changed");
  if (!check_acls_changed(request, pool_id, lun_id, acls, add, reply)) return reply;
  return lun_record(request, pool_id, lun_id);
}

Reply list_acls(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id;
  if (!Arguments(request).uuid("pool_id", pool_id).finish(reply)) return reply;
  if (!pool_id.empty() && !find_pool(context, pool_id, reply)) return reply;
  LIO_ACLs acls;
  Array array;
  if (!manager()->list_pools_acls(acls, pool_id.empty() ? nullptr : pool_id.c_str()))
    return failure(request, "the initiators cannot be listed");
  acls >> array;
  return {200, array};
}

Reply trim(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, lun_id;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).required("pool_id").uuid("lun_id", lun_id).required("lun_id");
  if (!arguments.finish(reply) || !find_lun(context, pool_id, lun_id, reply)) return reply;
  Object attrs;
  bool wanted = false;
  if (manager()->get_pool_ext_attrs(pool_id, attrs))
    json_spirit::object_find(attrs, "backstore_trim", wanted);
  if (!wanted || pool_fs_type(context, pool_id) != "zfs")
    return refusal(409, "only ZFS pools with the attribute \"backstore_trim\": true are trimmed");
  // An exported LUN is unexported meanwhile.
  const auto turn = take_turn(context, pool_id, true, lun_id, reply);
  if (!turn) return reply;
  if (!manager()->trim_backstore(pool_id, lun_id)) return failure(request, "the LUN cannot be trimmed");
  return {200, Object{{"pool_id", pool_id}, {"lun_id", lun_id}}};
}

}  // namespace

void add_lun_handlers(Router& router, Context& context) {
  const auto with = [&context](Reply (*handler)(Context&, const Request&)) {
    return [&context, handler](const Request& request) { return handler(context, request); };
  };
  const char LUN[] = "/svc/r/scsipool/lun";
  const char EXPORT[] = "/svc/r/scsipool/lun/export";
  const char ACL[] = "/svc/r/scsipool/lun/acl";
  router.add("GET", LUN, {"pool_id", "lun_id"}, with(list_luns));
  router.add("POST", LUN, with(create_lun));
  router.add("PUT", LUN, with(roll_back_lun));
  router.add("DELETE", LUN, {"pool_id", "lun_id", "force"}, with(delete_lun));
  router.add("POST", EXPORT, with(export_lun));
  router.add("DELETE", EXPORT, {"pool_id", "lun_id", "force"}, with(unexport_lun));
  router.add("POST", ACL, [&context](const Request& request) { return change_acls(context, request, true); });
  router.add("DELETE", ACL, {"pool_id", "lun_id", "initiator"},
             [&context](const Request& request) { return change_acls(context, request, false); });
  router.add("GET", "/svc/r/scsipool/acl", {"pool_id"}, with(list_acls));
  router.add("POST", "/svc/r/scsipool/trim", with(trim));
}

}  // namespace scsipoold
