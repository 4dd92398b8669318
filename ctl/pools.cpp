#include "ctl/pools.h"

#include <vector>

#include "platform/base/uuid.h"

namespace ctl {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

// The records whose `key` is that name.
std::vector<Object> of_name(const Value& pools, const char* key, const std::string& name) {
  std::vector<Object> found;
  const Array* array = json_spirit::get_array(pools);
  for (std::size_t i = 0; array != nullptr && i < array->size(); ++i) {
    const Object* pool = json_spirit::get_object((*array)[i]);
    std::string own;
    if (pool != nullptr && json_spirit::object_find(*pool, key, own) && own == name) found.push_back(*pool);
  }
  return found;
}

bool only_one(Session& session, const std::vector<Object>& found, const std::string& name, Object& pool) {
  if (found.size() != 1) {
    session.failed(found.empty() ? "there is no pool '" + name + "'"
                                 : "there are several pools '" + name + "': give the id");
    return false;
  }
  pool = found[0];
  return true;
}

}  // namespace

bool find_pool(Session& session, const std::string& id_or_name, Object& pool) {
  const bool by_id = platform::is_uuid(id_or_name);
  Query query{{"type", "scsi"}};
  if (by_id) query.emplace_back("pool_id", id_or_name);
  Value pools;
  if (!session.request("GET", "/svc/r/pool", query, nullptr, pools)) return false;
  if (!by_id) return only_one(session, of_name(pools, "pool_name", id_or_name), id_or_name, pool);
  const Array* array = json_spirit::get_array(pools);
  const Object* first = array == nullptr || array->empty() ? nullptr : json_spirit::get_object((*array)[0]);
  if (first == nullptr) {
    session.failed("there is no pool '" + id_or_name + "'");
    return false;
  }
  pool = *first;
  return true;
}

bool find_pool_id(Session& session, const std::string& id_or_name, std::string& id) {
  id = id_or_name;
  if (platform::is_uuid(id_or_name)) return true;
  Value health;
  Object pool;
  if (!session.request("GET", "/svc/r/health", {}, nullptr, health)) return false;
  const Object* report = json_spirit::get_object(health);
  Array pools;
  if (report != nullptr) json_spirit::object_find(*report, "pools", pools);
  return only_one(session, of_name(pools, "pool_name", id_or_name), id_or_name, pool) &&
         (json_spirit::object_find(pool, "pool_id", id) ||
          session.failed("the daemon's answer has no pool_id") == DONE);
}

bool find_known_pool_id(Session& session, const std::string& id_or_name, std::string& id) {
  id = id_or_name;
  if (platform::is_uuid(id_or_name)) return true;
  Value pools;
  Object pool;
  return session.request("GET", "/svc/r/scsipool/peer", {}, nullptr, pools) &&
         only_one(session, of_name(pools, "name", id_or_name), id_or_name, pool) &&
         (json_spirit::object_find(pool, "uuid", id) ||
          session.failed("the daemon's answer has no uuid") == DONE);
}

}  // namespace ctl
