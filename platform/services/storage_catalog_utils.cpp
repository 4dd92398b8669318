// What the pool module asks of the storage catalog.

#include "platform/base/log.h"
#include "platform/base/time_text.h"
#include "platform/http/json_http_session.h"
#include "platform/services/catalog_records.h"
#include "platform/services/host_manager.h"
#include "platform/services/storage_catalog.h"

namespace {

Storage_Catalog_Manager& manager() {
  return *Storage_Catalog_Manager::instance();
}

std::string snapshot_of(const json_spirit::Object& catalog) {
  json_spirit::Object attrs;
  std::string snapshot;
  if (json_spirit::object_find(catalog, "extended_attrs", attrs))
    json_spirit::object_find(attrs, "snapshot_id", snapshot);
  return snapshot;
}

// Puts catalogs into the storage catalog of the target pool's host.
bool copy_catalogs(const json_spirit::Array& catalogs, const std::string& target_uuid, std::string& why) {
  json_spirit::Object target;
  catalog_records::Address address;
  if (!Storage_Catalog_Utils::get_pool(target_uuid, target, &why)) return false;
  if (!catalog_records::read_address(target, address, why)) return false;
  JSON_HTTP_Session session(HTTP_Session_Factory::create(address.host, address.port, address.ssl));
  if (!session) return catalog_records::refused(why, "no connection to the target pool's host");
  session.headers().put(HTTP_Headers::ACCESS_KEY, Host_Manager::instance()->access_key(), true);
  for (const json_spirit::Value& catalog : catalogs) {
    const json_spirit::Object body = {{"pool_uuid", target_uuid},
                                      {"uuid", catalog.at("uuid")},
                                      {"extended_attrs", catalog.at("extended_attrs")}};
    json_spirit::Value reply;
    int status = 0;
    if (!session.put("/svc/r/catalog", body, reply, status) || status != 200)
      return catalog_records::refused(why, session.error());
  }
  return true;
}

}  // namespace

bool Storage_Catalog_Utils::get_replicate(const std::string& pool_uuid, json_spirit::Object& info) {
  return manager().find_replicate(pool_uuid, info);
}

bool Storage_Catalog_Utils::get_pool(const std::string& pool_uuid, json_spirit::Object& pool,
                                     std::string* why) {
  if (manager().find_pool(pool_uuid, pool)) return true;
  if (why != nullptr) *why = "there is no pool '" + pool_uuid + "' in the storage catalog";
  return false;
}

bool Storage_Catalog_Utils::get_master_device(const std::string& pool_uuid, json_spirit::Object& device) {
  json_spirit::Object pool;
  std::string name, url;
  if (!get_pool(pool_uuid, pool) || !json_spirit::object_find(pool, "url", url)) return false;
  json_spirit::object_find(pool, "name", name);
  device = {{"pool_uuid", pool_uuid}, {"name", name}, {"url", url}};
  return true;
}

bool Storage_Catalog_Utils::collect_snapshots_id_from_catalog(const std::string& pool_uuid,
                                                              const std::set<std::string>& ids,
                                                              std::set<std::string>& found, std::time_t since,
                                                              unsigned& count) {
  json_spirit::Array catalogs;
  if (!manager().query_catalog(pool_uuid, catalogs)) return false;
  found.clear();
  count = static_cast<unsigned>(catalogs.size());
  if (catalogs.empty()) {
    found = ids;
    return true;
  }
  for (const json_spirit::Value& value : catalogs) {
    const json_spirit::Object catalog = value.get<json_spirit::Object>();
    std::time_t made = 0;
    json_spirit::object_get_time_t(catalog, "ctime", made);
    const std::string snapshot = snapshot_of(catalog);
    if (made >= since && ids.count(snapshot) != 0) found.insert(snapshot);
  }
  return true;
}

bool Storage_Catalog_Utils::replicate_lanfree_metadata(const std::string& catalog_uuid, ACE_INT64 job_id,
                                                       const std::string& source_pool_uuid,
                                                       const std::string& target_pool_uuid) {
  json_spirit::Array catalogs;
  std::string why = "there is no such catalog";
  const bool known =
      manager().query_catalog(source_pool_uuid, catalogs, catalog_uuid.c_str()) && !catalogs.empty();
  if (known && copy_catalogs(catalogs, target_pool_uuid, why)) return true;
  return LOG_FAILURE("Failed to replicate catalog '%s' to pool '%s' (job %q): %s\n", catalog_uuid.c_str(),
                     target_pool_uuid.c_str(), job_id, why.c_str());
}

bool Storage_Catalog_Utils::replicate_scsi_metadata(const std::string& source_pool_uuid,
                                                    const std::set<std::string>& snapshot_ids) {
  json_spirit::Array catalogs, wanted;
  if (!manager().query_catalog(source_pool_uuid, catalogs)) return false;
  for (const json_spirit::Value& catalog : catalogs) {
    if (snapshot_ids.count(snapshot_of(catalog.get<json_spirit::Object>())) != 0) wanted.push_back(catalog);
  }
  if (wanted.empty()) return true;
  json_spirit::Object setting;
  std::string target, why = "the pool does not replicate";
  const bool replicates = manager().find_replicate(source_pool_uuid, setting) &&
                          json_spirit::object_find(setting, "target_uuid", target);
  if (replicates && copy_catalogs(wanted, target, why)) return true;
  return LOG_FAILURE("Failed to replicate the catalogs of pool '%s': %s\n", source_pool_uuid.c_str(),
                     why.c_str());
}

bool Pool_URL_Info::init() {
  json_spirit::Object pool;
  std::string url, why = "there is no such pool";
  if (manager().find_pool(pool_uuid_, pool) && json_spirit::object_find(pool, "url", url) &&
      uri_.parse(url, why))
    return true;
  return LOG_FAILURE("Failed to find where pool '%s' is served: %s\n", pool_uuid_.c_str(), why.c_str());
}
