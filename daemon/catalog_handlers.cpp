// The storage catalog: GET, POST and DELETE /svc/r/scsipool/peer, GET .../peer/check, GET, PUT and DELETE
// /svc/r/scsipool/replication, GET, PUT and DELETE /svc/r/catalog.

#include "daemon/arguments.h"
#include "daemon/datasets.h"
#include "daemon/handlers.h"
#include "daemon/peer_check.h"
#include "platform/services/storage_catalog.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

Storage_Catalog_Manager* catalog() {
  return Storage_Catalog_Manager::instance();
}

Reply list_peers(Context&, const Request& request) {
  Reply reply;
  std::string pool_id;
  if (!Arguments(request).uuid("pool_id", pool_id).finish(reply)) return reply;
  Array pools;
  if (!catalog()->list_pools(pools, pool_id.c_str())) return failure(request, "the pools cannot be listed");
  if (!pool_id.empty() && pools.empty()) return refusal(404, "there is no pool '" + pool_id + "'");
  return {200, pools};
}

Reply add_peer(Context&, const Request& request) {
  std::string why;
  if (!catalog()->add_pool(request.body, why)) return refusal(400, why);
  return {200, request.body};
}

Reply remove_peer(Context&, const Request& request) {
  Reply reply;
  std::string pool_id, why;
  if (!Arguments(request).uuid("pool_id", pool_id).required("pool_id").finish(reply)) return reply;
  Object pool;
  if (!catalog()->find_pool(pool_id, pool)) return refusal(404, "there is no peer's pool '" + pool_id + "'");
  if (!catalog()->remove_pool(pool_id, why)) return refusal(409, why);
  return {200, Object{{"pool_id", pool_id}}};
}

// With "source" the filesystem types of that local pool and the peer's are compared.
Reply show_check(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, source;
  Arguments arguments(request);
  if (!arguments.uuid("pool_id", pool_id).required("pool_id").uuid("source", source).finish(reply))
    return reply;
  if (!source.empty() && !find_pool(context, source, reply)) return reply;
  const Array steps = check_peer(pool_id, source.empty() ? "" : pool_fs_type(context, source));
  bool good = true;
  for (const Value& one : steps)
    good = good && one["ok"].get<bool>();
  return {200, Object{{"pool_id", pool_id}, {"ok", good}, {"steps", steps}}};
}

Reply show_replication(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id;
  if (!Arguments(request).uuid("pool_id", pool_id).required("pool_id").finish(reply) ||
      !find_pool(context, pool_id, reply))
    return reply;
  Object info;
  if (!catalog()->find_replicate(pool_id, info)) return failure(request, "the setting cannot be read");
  return {200, info};
}

Reply set_replication(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, target, why;
  Object attrs;
  Arguments arguments(request);
  arguments.uuid("pool_id", pool_id).required("pool_id").uuid("target_uuid", target).required("target_uuid");
  if (!arguments.object("extended_attrs", attrs).finish(reply) || !find_pool(context, pool_id, reply))
    return reply;
  if (!catalog()->set_replicate(pool_id, target, attrs, why)) return refusal(409, why);
  return {200, Object{{"pool_id", pool_id}, {"target_uuid", target}, {"extended_attrs", attrs}}};
}

Reply clear_replication(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, why;
  if (!Arguments(request).uuid("pool_id", pool_id).required("pool_id").finish(reply)) return reply;
  Object setting;
  if (!context.catalog.pool_exist(pool_id) && catalog()->find_replicate(pool_id, setting) && setting.empty())
    return refusal(404, "there is no pool " + quoted_name(pool_id));
  if (!catalog()->clear_replicate(pool_id, why)) return refusal(500, why);
  return {200, Object{{"pool_id", pool_id}}};
}

Reply list_catalogs(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id;
  if (!Arguments(request).uuid("pool_id", pool_id).required("pool_id").finish(reply) ||
      !find_pool(context, pool_id, reply))
    return reply;
  Array catalogs;
  if (!catalog()->query_catalog(pool_id, catalogs)) return failure(request, "the catalogs cannot be listed");
  return {200, catalogs};
}

Reply add_catalog(Context& context, const Request& request) {
  Reply reply;
  std::string pool_id, uuid, why;
  Object attrs;
  Arguments arguments(request);
  arguments.uuid("pool_uuid", pool_id).required("pool_uuid").uuid("uuid", uuid).required("uuid");
  if (!arguments.object("extended_attrs", attrs).finish(reply) || !find_pool(context, pool_id, reply))
    return reply;
  if (!catalog()->add_catalog(pool_id, {{"uuid", uuid}, {"extended_attrs", attrs}}, why))
    return refusal(400, why);
  return {200, request.body};
}

Reply remove_catalog(Context&, const Request& request) {
  Reply reply;
  std::string uuid, why;
  if (!Arguments(request).uuid("uuid", uuid).required("uuid").finish(reply)) return reply;
  if (!catalog()->remove_catalog(uuid, why)) return refusal(404, why);
  return {200, Object{{"uuid", uuid}}};
}

}  // namespace

void add_catalog_handlers(Router& router, Context& context) {
  const auto with = [&context](Reply (*handler)(Context&, const Request&)) {
    return [&context, handler](const Request& request) { return handler(context, request); };
  };
  const char PEER[] = "/svc/r/scsipool/peer";
  const char REPLICATION[] = "/svc/r/scsipool/replication";
  const char CATALOG[] = "/svc/r/catalog";
  router.add("GET", PEER, {"pool_id"}, with(list_peers));
  router.add("POST", PEER, with(add_peer));
  router.add("DELETE", PEER, {"pool_id"}, with(remove_peer));
  router.add("GET", "/svc/r/scsipool/peer/check", {"pool_id", "source"}, with(show_check));
  router.add("GET", REPLICATION, {"pool_id"}, with(show_replication));
  router.add("PUT", REPLICATION, with(set_replication));
  router.add("DELETE", REPLICATION, {"pool_id"}, with(clear_replication));
  router.add("GET", CATALOG, {"pool_id"}, with(list_catalogs));
  router.add("PUT", CATALOG, with(add_catalog));
  router.add("DELETE", CATALOG, {"uuid"}, with(remove_catalog));
}

}  // namespace scsipoold
