// GET, POST, PUT and DELETE /svc/r/scsipool/snapshot (of LUNs) and /svc/r/scsipool/fs/snapshot (of sub
// filesystems); POST and DELETE /svc/r/scsipool/snapshot/export and .../snapshot/acl.

#include <algorithm>
#include <map>

#include "daemon/arguments.h"
#include "daemon/datasets.h"
#include "daemon/demo_mode.h"
#include "daemon/handlers.h"
#include "daemon/peer_check.h"
#include "daemon/pool_request.h"
#include "platform/base/names.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

// LUNs and sub filesystems differ in what names a dataset and in the manager's operations.
struct Kind {
  bool of_lun;
  const char* one;   // "lun_id" or "name"
  const char* many;  // the same for several
};

constexpr ACE_UINT16 ALL_EXPORTS = 65535;  // in place of a LUN number
constexpr Kind LUN_KIND = {true, "lun_id", "lun_ids"};
constexpr Kind FS_KIND = {false, "name", "names"};

Arguments& dataset(Arguments& arguments, const Kind& kind, std::string& out) {
  return kind.of_lun ? arguments.uuid(kind.one, out) : arguments.name(kind.one, out);
}

bool list_one(const Kind& kind, const std::string& pool_id, Array& list, const char* id) {
  return kind.of_lun ? manager()->list_snapshot(pool_id, list, id)
                     : manager()->list_filesystem_snapshot(pool_id, list, id);
}

Reply list_snapshots(Context& context, const Request& request, const Kind& kind) {
  Reply reply;
  std::string pool_id, parent, snapshot_id;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).required("pool_id").uuid("snapshot_id", snapshot_id);
  if (!dataset(arguments, kind, parent).finish(reply) || !find_pool(context, pool_id, reply)) return reply;
  Array list;
  bool listed = false;
  if (!snapshot_id.empty()) {
    if (!find_snapshot(context, pool_id, snapshot_id, kind.of_lun, reply)) return reply;
    listed = list_one(kind, pool_id, list, snapshot_id.c_str());
  } else if (parent.empty()) {
    listed = list_one(kind, pool_id, list, nullptr);
  } else if (kind.of_lun) {
    if (!find_lun(context, pool_id, parent, reply)) return reply;
    listed = manager()->list_lun_snapshots(pool_id, parent, list);
  } else {
    if (!find_filesystem(context, pool_id, parent, reply)) return reply;
    listed = manager()->list_filesystem_snapshots(pool_id, parent, list);
  }
  if (!listed) return failure(request, "the snapshots cannot be listed");
  add_demo_mode(list);
  return {200, list};
}

// The datasets to take snapshots of: one under its own key, or several in an array.
void read_datasets(const Kind& kind, Arguments& arguments, std::vector<std::string>& datasets) {
  std::string one;
  Array many;
  dataset(arguments, kind, one);
  arguments.array(kind.many, many);
  if (!one.empty()) datasets.push_back(one);
  for (const Value& value : many) {
    std::string name, why;
    if (value.is_string()) name = value.get<std::string>();
    if (kind.of_lun ? !read_pool_id(std::string(name), name) : !platform::valid_dataset_name(name, why))
      return arguments.refuse(kind.many, kind.of_lun ? "must be an array of UUIDs, not " + value.dump()
                                                     : value.dump() + ": " + why);
    if (std::find(datasets.begin(), datasets.end(), name) != datasets.end())
      return arguments.refuse(kind.many, "names " + quoted_name(name) + " twice");
    datasets.push_back(name);
  }
  if (datasets.empty()) arguments.refuse(kind.one, "is missing");
}

Reply create_snapshots(Context& context, const Request& request, const Kind& kind) {
  Reply reply;
  std::string pool_id, catalog_uuid;
  bool recycle = true;
  std::vector<std::string> datasets;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id)
      .required("pool_id")
      .uuid("catalog_uuid", catalog_uuid)
      .flag("recycle", recycle);
  read_datasets(kind, arguments, datasets);
  if (!arguments.finish(reply) || !find_pool(context, pool_id, reply)) return reply;
  for (const std::string& name : datasets)
    if (kind.of_lun ? !find_lun(context, pool_id, name, reply)
                    : !find_filesystem(context, pool_id, name, reply))
      return reply;
  request.log->clear();
  std::map<std::string, std::string> ids;
  const bool taken =
      kind.of_lun ? manager()->create_snapshots(pool_id, datasets, catalog_uuid, ids, recycle)
                  : manager()->create_filesystem_snapshots(pool_id, datasets, catalog_uuid, ids, recycle);
  Array list;
  for (const auto& one : ids)
    list.push_back(Object{{"parent_id", one.first}, {"id", one.second}});
  if (taken) return {200, list};
  reply = failure(request, "the snapshots cannot be taken");
  if (!list.empty()) reply.body["error"]["taken"] = list;
  return reply;
}

Reply update_snapshot(Context& context, const Request& request, const Kind& kind) {
  Reply reply;
  std::string pool_id, snapshot_id;
  bool recycle = false;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id)
      .required("pool_id")
      .uuid("snapshot_id", snapshot_id)
      .required("snapshot_id");
  arguments.flag("recycle", recycle).required("recycle");
  if (!arguments.finish(reply) || !find_snapshot(context, pool_id, snapshot_id, kind.of_lun, reply))
    return reply;
  const bool updated = kind.of_lun
                           ? manager()->update_snapshot_recycle(pool_id, snapshot_id, recycle)
                           : manager()->update_filesystem_snapshot_recycle(pool_id, snapshot_id, recycle);
  if (!updated) return failure(request, "the snapshot cannot be changed");
  return {200, Object{{"pool_id", pool_id}, {"snapshot_id", snapshot_id}, {"recycle", recycle}}};
}

// Exports of a snapshot are clones and go when it is deleted by force; no other clone does. False, with the
// refusal in `reply`, when there is one.
bool only_exports_depend(Context& context, const Request& request, const std::string& pool_id,
                         const std::string& lun_id, const std::string& snapshot_id, Reply& reply) {
  std::vector<std::string> clones;
  Array exports;
  if (!manager()->dependent_clones(pool_id, lun_id, snapshot_id, true, clones) ||
      !context.catalog.list_export_by_snapshot(pool_id, snapshot_id, exports)) {
    reply = failure(request, "it cannot be told what depends on the snapshot");
    return false;
  }
  for (const std::string& clone : clones) {
    const std::string leaf = clone.substr(clone.rfind('/') + 1);
    const auto is_it = [&leaf](const Value& row) { return row["export_snapshot_uuid"] == leaf; };
    if (std::any_of(exports.begin(), exports.end(), is_it)) continue;
    reply =
        refusal(409, "the snapshot has a dependent clone: " + clone + "; its exports were left as they are");
    return false;
  }
  return true;
}

Reply delete_snapshot(Context& context, const Request& request, const Kind& kind) {
  const char* empty_key = kind.of_lun ? "delete_empty_lun" : "delete_empty_fs";
  Reply reply;
  std::string pool_id, parent, snapshot_id;
  bool force = false, delete_empty = false;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id)
      .required("pool_id")
      .uuid("snapshot_id", snapshot_id)
      .required("snapshot_id");
  dataset(arguments, kind, parent).flag("force", force).flag(empty_key, delete_empty);
  if (!arguments.finish(reply) || !find_snapshot(context, pool_id, snapshot_id, kind.of_lun, reply))
    return reply;
  std::string owner;
  const bool owned = kind.of_lun ? manager()->get_snapshot_parent_id(pool_id, snapshot_id, owner)
                                 : manager()->get_filesystem_snapshot_parent(pool_id, snapshot_id, owner);
  if (!owned) return failure(request, "the snapshot's owner cannot be read");
  if (!parent.empty() && parent != owner) return refusal(409, "the snapshot belongs to '" + owner + "'");
  if (!target_takes_key(pool_id, reply)) return reply;
  const auto turn = delete_empty ? take_turn(context, pool_id, kind.of_lun, owner, reply) : nullptr;
  if (delete_empty && !turn) return reply;
  // Only LUN snapshots can be exported; with force their exports go first.
  if (force && kind.of_lun && manager()->snapshot_exported(pool_id, snapshot_id)) {
    if (!only_exports_depend(context, request, pool_id, owner, snapshot_id, reply)) return reply;
    if (!manager()->unexport_snapshot(pool_id, snapshot_id, ALL_EXPORTS))
      return failure(request, "the snapshot cannot be unexported");
  }
  const bool deleted = kind.of_lun
                           ? manager()->delete_snapshot(pool_id, snapshot_id, delete_empty)
                           : manager()->delete_filesystem_snapshot(pool_id, snapshot_id, delete_empty);
  if (!deleted) return failure(request, "the snapshot cannot be deleted");
  return {200, Object{{"pool_id", pool_id}, {"snapshot_id", snapshot_id}}};
}

Reply snapshot_record(const Request& request, const std::string& pool_id, const std::string& snapshot_id) {
  Array list;
  if (!manager()->list_snapshot(pool_id, list, snapshot_id.c_str()) || list.empty())
    return failure(request, "the snapshot cannot be listed");
  add_demo_mode(list);
  return {200, list};
}

Reply export_snapshot(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, snapshot_id, type_text, target;
  bool only_once = true;
  LIO_ACLs acls;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id)
      .required("pool_id")
      .uuid("snapshot_id", snapshot_id)
      .required("snapshot_id");
  arguments.flag("only_once", only_once).target_type("type", type_text).text("target", target);
  LIO_Target_Type type = pool_target_type(context, pool_id);
  if (!type_text.empty()) lio_target_string_to_type(type_text, type);
  arguments.acls("acls", type, acls);
  if (arguments.has("type") != arguments.has("target")) arguments.refuse("target", "goes together with type");
  std::string why;
  if (!target.empty() && !normal_initiator(type, target, why)) arguments.refuse("target", why);
  if (!arguments.finish(reply) || !find_snapshot(context, pool_id, snapshot_id, true, reply)) return reply;
  ACE_UINT16 lun_num = 0;
  if (!manager()->export_snapshot(pool_id, snapshot_id, acls, lun_num, only_once, type_text.c_str(),
                                  target.c_str()))
    return failure(request, "the snapshot cannot be exported");
  return snapshot_record(request, pool_id, snapshot_id);
}

// The clone behind the snapshot's export with that LUN number, or behind its first one. False with the
// refusal in `reply` when there is none.
bool find_export(Context& context, const std::string& pool_id, const std::string& snapshot_id,
                 std::uint64_t lun_num, std::string& clone, Reply& reply) {
  Array exports;
  context.catalog.list_export_by_snapshot(pool_id, snapshot_id, exports);
  for (const Value& value : exports) {
    const Object& row = *json_spirit::get_object(value);
    std::uint64_t number = 0;
    if (json_spirit::object_find(row, "lun_num", number) && (lun_num == ALL_EXPORTS || lun_num == number) &&
        json_spirit::object_find(row, "export_snapshot_uuid", clone))
      return true;
  }
  reply = refusal(lun_num == ALL_EXPORTS ? 409 : 404,
                  lun_num == ALL_EXPORTS
                      ? "the snapshot is not exported"
                      : "the snapshot has no export with LUN number " + std::to_string(lun_num));
  return false;
}

Reply unexport_snapshot(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, snapshot_id;
  std::uint64_t lun_num = ALL_EXPORTS;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id)
      .required("pool_id")
      .uuid("snapshot_id", snapshot_id)
      .required("snapshot_id");
  if (!arguments.number("lun_num", 0, 65535, lun_num).finish(reply) ||
      !find_snapshot(context, pool_id, snapshot_id, true, reply))
    return reply;
  std::string clone;
  if (lun_num != ALL_EXPORTS && !find_export(context, pool_id, snapshot_id, lun_num, clone, reply))
    return reply;
  if (!manager()->unexport_snapshot(pool_id, snapshot_id, static_cast<ACE_UINT16>(lun_num)))
    return failure(request, "the snapshot cannot be unexported");
  return {200, Object{{"pool_id", pool_id}, {"snapshot_id", snapshot_id}}};
}

Reply change_acls(Context& context, const Request& request, bool add) {
  const char* key = add ? "acls" : "initiator";
  Reply reply;
  std::string pool_id, snapshot_id;
  std::uint64_t lun_num = ALL_EXPORTS;
  LIO_ACLs acls;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id)
      .required("pool_id")
      .uuid("snapshot_id", snapshot_id)
      .required("snapshot_id");
  arguments.number("lun_num", 0, 65535, lun_num)
      .acls(key, pool_target_type(context, pool_id), acls)
      .required(key);
  if (!arguments.finish(reply) || !find_snapshot(context, pool_id, snapshot_id, true, reply)) return reply;
  std::string clone;
  if (!find_export(context, pool_id, snapshot_id, lun_num, clone, reply)) return reply;
  if (!manager()->update_snapshot_acls(pool_id, snapshot_id, static_cast<int>(lun_num), acls, add))
    return failure(request, "the initiators cannot be changed");
  if (!check_acls_changed(request, pool_id, clone, acls, add, reply)) return reply;
  return snapshot_record(request, pool_id, snapshot_id);
}

void add_kind(Router& router, Context& context, const std::string& path, const Kind& kind) {
  const auto with = [&context, kind](Reply (*handler)(Context&, const Request&, const Kind&)) {
    return [&context, kind, handler](const Request& request) { return handler(context, request, kind); };
  };
  router.add("GET", path, {"pool_id", kind.one, "snapshot_id"}, with(list_snapshots));
  router.add("POST", path, with(create_snapshots));
  router.add("PUT", path, with(update_snapshot));
  router.add(
      "DELETE", path,
      {"pool_id", kind.one, "snapshot_id", "force", kind.of_lun ? "delete_empty_lun" : "delete_empty_fs"},
      with(delete_snapshot));
}

}  // namespace

void add_snapshot_handlers(Router& router, Context& context) {
  const std::string path = "/svc/r/scsipool/snapshot";
  add_kind(router, context, path, LUN_KIND);
  add_kind(router, context, "/svc/r/scsipool/fs/snapshot", FS_KIND);
  router.add("POST", path + "/export",
             [&context](const Request& request) { return export_snapshot(context, request); });
  router.add("DELETE", path + "/export", {"pool_id", "snapshot_id", "lun_num"},
             [&context](const Request& request) { return unexport_snapshot(context, request); });
  router.add("POST", path + "/acl",
             [&context](const Request& request) { return change_acls(context, request, true); });
  router.add("DELETE", path + "/acl", {"pool_id", "snapshot_id", "lun_num", "initiator"},
             [&context](const Request& request) { return change_acls(context, request, false); });
}

}  // namespace scsipoold
