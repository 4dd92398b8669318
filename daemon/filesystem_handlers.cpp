// GET, POST, PUT and DELETE /svc/r/scsipool/fs; POST and DELETE .../fs/mount; PUT .../fs/mount_point.

#include "daemon/arguments.h"
#include "daemon/datasets.h"
#include "daemon/handlers.h"
#include "daemon/peer_check.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using scsi_pool::SCSI_Pool_Manager;
using scsi_pool::SCSI_Pool_Sqlite_Manager;

namespace {

// Which one a request is about; false with the refusal in `reply`.
bool read_filesystem(Context& context, Arguments& arguments, std::string& pool_id, std::string& name,
                     Reply& reply) {
  arguments.uuid("pool_id", pool_id).required("pool_id").name("name", name).required("name");
  return arguments.finish(reply) && find_filesystem(context, pool_id, name, reply);
}

// Adds "mounted" to the manager's records, which a user wants to see.
Reply filesystem_records(const Request& request, const std::string& pool_id, const char* name) {
  Array list;
  if (!manager()->list_filesystem(pool_id, list, name))
    return failure(request, "the sub filesystems cannot be listed");
  for (Value& record : list) {
    bool mounted = false;
    manager()->filesystem_mounted(pool_id, record["name"].get_ref<const std::string&>(), mounted);
    record["mounted"] = mounted;
  }
  return {200, list};
}

Reply one_record(const Request& request, const std::string& pool_id, const std::string& name) {
  Reply reply = filesystem_records(request, pool_id, name.c_str());
  if (reply.status == 200 && !reply.body.empty()) reply.body = Value(reply.body.front());
  return reply;
}

Reply list_filesystems(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, name;
  if (!Arguments(request).uuid("pool_id", pool_id).required("pool_id").name("name", name).finish(reply) ||
      !find_pool(context, pool_id, reply))
    return reply;
  if (!name.empty() && !find_filesystem(context, pool_id, name, reply)) return reply;
  return filesystem_records(request, pool_id, name.empty() ? nullptr : name.c_str());
}

// Mounted at one folder, one of two sub filesystems would hide the other.
bool mount_point_free(const Request& request, const std::string& pool_id, const std::string& name,
                      const std::string& leaf, Reply& reply) {
  Array list;
  if (!manager()->list_filesystem(pool_id, list, nullptr)) {
    reply = failure(request, "the sub filesystems cannot be listed");
    return false;
  }
  for (const Value& record : list) {
    const std::string path = record["mountpoint"], other = record["name"];
    if (other == name || path.substr(path.rfind('/') + 1) != leaf) continue;
    reply = refusal(
        409, "the mount point " + quoted_name(leaf) + " is that of sub filesystem " + quoted_name(other));
    return false;
  }
  return true;
}

Reply create_filesystem(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, name, snapshot_id, retention_type;
  SCSI_Pool_Manager::FS_Option option;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).required("pool_id").name("name", name).required("name");
  arguments.uuid("snapshot_id", snapshot_id).name("mount_point", option.mount_point);
  arguments.flag("link_clone", option.link_clone).object("extended_attrs", option.ext_attrs);
  arguments.text("retention_type", retention_type);
  if (!arguments.finish(reply) || !add_retention_type(retention_type, option.ext_attrs, reply) ||
      !find_pool(context, pool_id, reply))
    return reply;
  if (pool_fs_type(context, pool_id) != "zfs") return refusal(409, "sub filesystems need a ZFS pool");
  if (context.catalog.filesystem_exist(pool_id, name))
    return refusal(409, "there is a sub filesystem '" + name + "' already");
  if (!snapshot_id.empty() && !find_snapshot(context, pool_id, snapshot_id, false, reply)) return reply;
  const std::string& leaf = option.mount_point.empty() ? name : option.mount_point;
  if (!mount_point_free(request, pool_id, name, leaf, reply)) return reply;
  request.log->clear();
  const bool made = snapshot_id.empty() ? manager()->create_filesystem(pool_id, option, name)
                                        : manager()->create_filesystem(pool_id, snapshot_id, option, name);
  if (!made) return failure(request, "the sub filesystem cannot be created");
  return one_record(request, pool_id, name);
}

Reply roll_back_filesystem(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, name, snapshot_id;
  Arguments arguments(request);
  if (!read_filesystem(context, arguments, pool_id, name, reply)) return reply;
  const auto turn = take_turn(context, pool_id, false, name, reply);
  if (!turn) return reply;
  if (!manager()->rollback_filesystem_to_newest(pool_id, name, snapshot_id))
    return failure(request, "the sub filesystem cannot be rolled back");
  return {200, Object{{"pool_id", pool_id}, {"name", name}, {"snapshot_id", snapshot_id}}};
}

Reply delete_filesystem(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, name;
  Arguments arguments(request);
  if (!read_filesystem(context, arguments, pool_id, name, reply)) return reply;
  Array snapshots;
  context.catalog.list_filesystem_snapshots(pool_id, name, snapshots,
                                            SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL);
  if (!snapshots.empty() && !target_takes_key(pool_id, reply)) return reply;
  const auto turn = take_turn(context, pool_id, false, name, reply);
  if (!turn) return reply;
  if (!manager()->delete_filesystem(pool_id, name))
    return failure(request, "the sub filesystem cannot be deleted");
  return {200, Object{{"pool_id", pool_id}, {"name", name}}};
}

Reply mount_filesystem(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, name;
  Arguments arguments(request);
  if (!read_filesystem(context, arguments, pool_id, name, reply)) return reply;
  if (!manager()->mount_filesystem(pool_id, name))
    return failure(request, "the sub filesystem cannot be mounted");
  return one_record(request, pool_id, name);
}

Reply umount_filesystem(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, name;
  Arguments arguments(request);
  if (!read_filesystem(context, arguments, pool_id, name, reply)) return reply;
  if (!manager()->umount_filesystem(pool_id, name))
    return failure(request, "the sub filesystem cannot be unmounted");
  return one_record(request, pool_id, name);
}

Reply set_mount_point(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, name, leaf;
  Arguments arguments(request);
  arguments.name("mount_point", leaf).required("mount_point");
  if (!read_filesystem(context, arguments, pool_id, name, reply) ||
      !mount_point_free(request, pool_id, name, leaf, reply))
    return reply;
  if (!manager()->set_filesystem_mount_point(pool_id, name, leaf))
    return failure(request, "the mount point cannot be set");
  return one_record(request, pool_id, name);
}

}  // namespace

void add_filesystem_handlers(Router& router, Context& context) {
  const auto with = [&context](Reply (*handler)(Context&, const Request&)) {
    return [&context, handler](const Request& request) { return handler(context, request); };
  };
  const char FS[] = "/svc/r/scsipool/fs";
  router.add("GET", FS, {"pool_id", "name"}, with(list_filesystems));
  router.add("POST", FS, with(create_filesystem));
  router.add("PUT", FS, with(roll_back_filesystem));
  router.add("DELETE", FS, {"pool_id", "name"}, with(delete_filesystem));
  router.add("POST", "/svc/r/scsipool/fs/mount", with(mount_filesystem));
  router.add("DELETE", "/svc/r/scsipool/fs/mount", {"pool_id", "name"}, with(umount_filesystem));
  router.add("PUT", "/svc/r/scsipool/fs/mount_point", with(set_mount_point));
}

}  // namespace scsipoold
