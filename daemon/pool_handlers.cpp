// GET, POST, PUT and DELETE /svc/r/pool.

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "daemon/handlers.h"
#include "daemon/leftovers.h"
#include "daemon/members.h"
#include "daemon/pool_request.h"
#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/services/storage_catalog.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using scsi_pool::SCSI_Pool_Manager;

namespace {

const char POOL_PATH[] = "/svc/r/pool";

bool check_type(const Request& request, std::string& why) {
  const std::string* type = request.find_query("type");
  if (type == nullptr || *type == "scsi") return true;
  why = "query parameter 'type': must be scsi";
  return false;
}

// An absent parameter leaves `out` as it is.
bool query_flag(const Request& request, const char* name, bool& out, std::string& why) {
  const std::string* text = request.find_query(name);
  if (text == nullptr) return true;
  if (*text != "true" && *text != "false") {
    why = "query parameter " + quoted_name(name) + ": must be true or false";
    return false;
  }
  out = *text == "true";
  return true;
}

bool query_pool_id(const Request& request, std::string& id, std::string& why) {
  const std::string* text = request.find_query("pool_id");
  if (text == nullptr || read_pool_id(*text, id)) return true;
  why = "query parameter 'pool_id': must be a UUID";
  return false;
}

Reply no_such_pool(const std::string& id) {
  return refusal(404, "there is no pool '" + id + "'");
}

// The pool's record, or what is known of it when it cannot be listed.
Reply pool_record(const std::string& id) {
  Array pools;
  if (SCSI_Pool_Manager::instance()->list_pools(pools, id.c_str()) && !pools.empty()) return {200, pools[0]};
  return {200, Object{{"pool_id", id}}};
}

Reply list_pools(Context& context, const Request& request) {
  std::string id, why;
  if (!check_type(request, why) || !query_pool_id(request, id, why)) return refusal(400, why);
  Array pools;
  if (!SCSI_Pool_Manager::instance()->list_pools(pools, id.empty() ? nullptr : id.c_str())) {
    return failure(request, "the pools cannot be listed");
  }
  if (!id.empty() && pools.empty()) {
    if (!context.catalog.pool_exist(id)) return no_such_pool(id);
    return failure(request, "the storage of pool '" + id + "' is missing: see health");
  }
  return {200, pools};
}

// The name's holder is somebody else than `id`.
bool name_taken(Context& context, const std::string& name, const std::string& id) {
  Array rows;
  if (!context.catalog.pool_exist_by_name(name)) return false;
  if (id.empty() || !context.catalog.list_pools(rows, id.c_str()) || rows.empty()) return true;
  const Object* row = json_spirit::get_object(rows[0]);
  std::string own;
  return row == nullptr || !json_spirit::object_find(*row, "name", own) || own != name;
}

// A failed creation leaves its backing file: the manager undoes nothing. It was not there before, so it goes.
void clean_up(Context& context, const Request& request, const Pool_Creation& creation, Reply& reply) {
  if (!creation.option.global_dev.empty()) {
    reply.body["error"]["left_behind"] = creation.option.global_dev + "/" + creation.id;
  } else if (is_orphan(context.catalog, creation.id) && !remove_orphan(context.catalog, creation.id)) {
    reply.body["error"]["left_behind"] = backing_file(creation.id);
    reply.body["error"]["left_behind_why"] = request.log->failure();
  }
}

Reply check_free(Context& context, const Request& request, const Pool_Creation& creation) {
  if (name_taken(context, creation.name, "")) {
    return refusal(409, "Failed to create SCSI pool: pool with name " + creation.name + " is exist");
  }
  if (creation.id.empty()) return {};
  if (context.catalog.pool_exist(creation.id))
    return refusal(409, "there is a pool '" + creation.id + "' already");
  if (!creation.option.global_dev.empty() || !platform::path_exists(backing_file(creation.id))) return {};
  if (!creation.replace_orphan) {
    return refusal(409, "the backing file " + backing_file(creation.id) +
                            " is there already and belongs to no pool: \"replace_orphan\" (--replace-orphan) "
                            "removes it with all that is in it");
  }
  return remove_orphan(context.catalog, creation.id) ? Reply{}
                                                     : failure(request, "the orphan cannot be removed");
}

Reply create_pool(Context& context, const Request& request) {
  Pool_Creation creation;
  std::string default_fs = "zfs", why;
  SCSI_Pool_Manager::instance()->get_global_filesystem(default_fs);
  if (!read_pool_creation(request.body, default_fs, creation, why)) return refusal(400, why);

  const std::lock_guard<std::mutex> guard(context.pools_changing);
  Reply refused = check_free(context, request, creation);
  if (refused.status != 200) return refused;
  request.log->clear();
  if (SCSI_Pool_Manager::instance()->create_pool(creation.id, creation.name, creation.option)) {
    LOG_INFO("Created pool '%s' (%s)\n", creation.name.c_str(), creation.id.c_str());
    return pool_record(creation.id);
  }
  Reply reply = failure(request, "the pool cannot be created");
  clean_up(context, request, creation, reply);
  return reply;
}

Reply update_pool(Context& context, const Request& request) {
  Pool_Change change;
  std::string why;
  if (!read_pool_change(request.body, change, why)) return refusal(400, why);

  const std::lock_guard<std::mutex> guard(context.pools_changing);
  if (!context.catalog.pool_exist(change.id)) return no_such_pool(change.id);
  if (!change.name.empty() && name_taken(context, change.name, change.id)) {
    return refusal(409, "there is a pool of the name '" + change.name + "' already");
  }
  if (!SCSI_Pool_Manager::instance()->update_pool(change.id, change.retention, change.name,
                                                  change.ext_attrs)) {
    return failure(request, "the pool cannot be changed");
  }
  return pool_record(change.id);
}

Reply delete_orphan(Context& context, const Request& request, const std::string& id) {
  if (context.catalog.pool_exist(id)) return refusal(409, "'" + id + "' is a pool, not an orphan");
  if (!is_orphan(context.catalog, id)) return refusal(404, "there is no orphan '" + id + "'");
  if (!remove_orphan(context.catalog, id)) return failure(request, "the orphan cannot be removed");
  LOG_NOTICE("Removed the orphaned backing file of '%s'\n", id.c_str());
  return {200, Object{{"pool_id", id}}};
}

Reply delete_pool(Context& context, const Request& request) {
  std::string id, why;
  bool force = false, orphan = false;
  if (!check_type(request, why) || !query_pool_id(request, id, why) ||
      !query_flag(request, "force", force, why) || !query_flag(request, "orphan", orphan, why)) {
    return refusal(400, why);
  }
  if (id.empty()) return refusal(400, "query parameter 'pool_id': is missing");

  const std::lock_guard<std::mutex> guard(context.pools_changing);
  if (orphan) return delete_orphan(context, request, id);
  if (!context.catalog.pool_exist(id)) return no_such_pool(id);
  SCSI_Pool_Manager* const manager = SCSI_Pool_Manager::instance();
  const bool removed =
      force && !manager->pool_exist(id) ? forget_pool(context.catalog, id) : manager->delete_pool(id, force);
  if (!removed) return failure(request, "the pool cannot be deleted");
  forget_filesystems(context.catalog, id);
  Storage_Catalog_Manager::instance()->forget_pool(id);
  LOG_INFO("Deleted pool '%s'\n", id.c_str());
  return {200, Object{{"pool_id", id}}};
}

}  // namespace

void add_pool_handlers(Router& router, Context& context) {
  router.add("GET", POOL_PATH, {"type", "pool_id"},
             [&context](const Request& request) { return list_pools(context, request); });
  router.add("POST", POOL_PATH, [&context](const Request& request) { return create_pool(context, request); });
  router.add("PUT", POOL_PATH, [&context](const Request& request) { return update_pool(context, request); });
  router.add("DELETE", POOL_PATH, {"type", "pool_id", "force", "orphan"},
             [&context](const Request& request) { return delete_pool(context, request); });
}

}  // namespace scsipoold
