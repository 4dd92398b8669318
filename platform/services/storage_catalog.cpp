#include "platform/services/storage_catalog.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/base/log.h"
#include "platform/base/time_text.h"
#include "platform/base/uuid.h"
#include "platform/services/catalog_records.h"
#include "platform/services/daemon_database.h"

using namespace database::sql;
using catalog_records::refused;

namespace {

using Keys = std::vector<std::pair<const char*, std::string>>;
using Columns = std::vector<std::pair<const char*, Binding_Value>>;

bool exists(const char* table, const Keys& keys, bool& found) {
  Select_SQL statement(table);
  for (const auto& [column, value] : keys)
    statement.and_filter()->add_kv_eq_item(column, value);
  json_spirit::Array rows;
  if (!daemon_database::rows(statement, rows, "look up a record")) return false;
  found = !rows.empty();
  return true;
}

// Changes the row that has these keys, or adds it. One statement, so that a crash leaves the old row or the
// new.
bool put_row(const char* table, const Keys& keys, const Columns& columns, const char* what) {
  bool found = false;
  if (!exists(table, keys, found)) return false;
  Insert_SQL insert(table);
  Update_SQL update(table);
  for (const auto& [name, value] : keys) {
    insert.value(name, value);
    update.and_filter()->add_kv_eq_item(name, value);
  }
  for (const auto& [name, content] : columns) {
    insert.value(name, content);
    update.set(name, content);
  }
  if (found) return daemon_database::run(update, what);
  return daemon_database::run(insert, what);
}

}  // namespace

Storage_Catalog_Manager* Storage_Catalog_Manager::instance() {
  static Storage_Catalog_Manager manager;
  return &manager;
}

void Storage_Catalog_Manager::local_pool_source(Local_Pool_Source source) {
  const std::lock_guard<std::mutex> guard(mutex_);
  source_ = std::move(source);
}

bool Storage_Catalog_Manager::local_pools(const std::string& pool_uuid, json_spirit::Array& pools) {
  Local_Pool_Source source;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    source = source_;
  }
  if (!source) return true;
  json_spirit::Array found;
  if (!source(pool_uuid, found)) return LOG_FAILURE("Failed to list the local pools\n");
  for (json_spirit::Value& pool : found) {
    if (!pool.is_object()) continue;
    pool["local"] = true;
    pools.push_back(std::move(pool));
  }
  return true;
}

bool Storage_Catalog_Manager::add_pool(const json_spirit::Object& record, std::string& why) {
  catalog_records::Pool pool;
  if (!catalog_records::read_pool(record, pool, why)) return false;
  if (is_local(pool.uuid)) return refused(why, "pool '" + pool.uuid + "' is a pool of this host");
  const Columns columns = {
      {"name", pool.name}, {"url", pool.url}, {"extended_attrs", JSON_Dump(pool.extended_attrs)}};
  return put_row("peer_pool", {{"uuid", pool.uuid}}, columns, "store a peer's pool") ||
         refused(why, "the record cannot be stored");
}

bool Storage_Catalog_Manager::remove_pool(const std::string& pool_uuid, std::string& why) {
  bool known = false, used = false;
  if (!exists("peer_pool", {{"uuid", pool_uuid}}, known) ||
      !exists("pool_replicate", {{"target_uuid", pool_uuid}}, used))
    return refused(why, "the records cannot be read");
  if (!known) return refused(why, "there is no peer's pool '" + pool_uuid + "'");
  if (used) return refused(why, "a pool replicates to '" + pool_uuid + "'");
  Delete_SQL statement("peer_pool");
  statement.and_filter()->add_kv_eq_item("uuid", pool_uuid);
  return daemon_database::run(statement, "remove a peer's pool") ||
         refused(why, "the record cannot be removed");
}

bool Storage_Catalog_Manager::list_pools(json_spirit::Array& pools, const char* pool_uuid) {
  const std::string wanted = pool_uuid != nullptr ? pool_uuid : "";
  json_spirit::Array found, rows;
  Select_SQL statement("peer_pool");
  if (!wanted.empty()) statement.and_filter()->add_kv_eq_item("uuid", wanted);
  statement.order_by("name");
  if (!local_pools(wanted, found) || !daemon_database::rows(statement, rows, "list the peers' pools"))
    return false;
  for (json_spirit::Value& value : rows) {
    json_spirit::Object row = value.get<json_spirit::Object>();
    row["extended_attrs"] = daemon_database::object_of(row, "extended_attrs");
    row["local"] = false;
    found.push_back(row);
  }
  std::move(found.begin(), found.end(), std::back_inserter(pools));
  return true;
}

bool Storage_Catalog_Manager::find_pool(const std::string& pool_uuid, json_spirit::Object& pool) {
  json_spirit::Array pools;
  if (pool_uuid.empty() || !list_pools(pools, pool_uuid.c_str()) || pools.empty()) return false;
  pool = pools[0].get<json_spirit::Object>();
  return true;
}

bool Storage_Catalog_Manager::is_local(const std::string& pool_uuid) {
  json_spirit::Array pools;
  return local_pools(pool_uuid, pools) && !pools.empty();
}

bool Storage_Catalog_Manager::set_replicate(const std::string& pool_uuid, const std::string& target_uuid,
                                            const json_spirit::Object& extended_attrs, std::string& why) {
  json_spirit::Object target;
  if (!is_local(pool_uuid)) return refused(why, "'" + pool_uuid + "' is no pool of this host");
  if (pool_uuid == target_uuid) return refused(why, "a pool cannot replicate to itself");
  if (!find_pool(target_uuid, target))
    return refused(why, "the target pool '" + target_uuid + "' is not known; add it as a peer's pool first");
  catalog_records::Address address;
  if (!catalog_records::read_address(target, address, why)) return false;
  if (!catalog_records::check_replicate_attrs(extended_attrs, why)) return false;
  const Columns columns = {{"target_uuid", target_uuid}, {"extended_attrs", JSON_Dump(extended_attrs)}};
  return put_row("pool_replicate", {{"pool_uuid", pool_uuid}}, columns, "store a replication setting") ||
         refused(why, "the setting cannot be stored");
}

bool Storage_Catalog_Manager::clear_replicate(const std::string& pool_uuid, std::string& why) {
  Delete_SQL statement("pool_replicate");
  statement.and_filter()->add_kv_eq_item("pool_uuid", pool_uuid);
  return daemon_database::run(statement, "remove a replication setting") ||
         refused(why, "the setting cannot be removed");
}

bool Storage_Catalog_Manager::find_replicate(const std::string& pool_uuid, json_spirit::Object& info) {
  Select_SQL statement("pool_replicate");
  statement.and_filter()->add_kv_eq_item("pool_uuid", pool_uuid);
  json_spirit::Array rows;
  if (!daemon_database::rows(statement, rows, "read a replication setting")) return false;
  info.clear();
  if (rows.empty()) return true;
  const json_spirit::Object row = rows[0].get<json_spirit::Object>();
  info["target_uuid"] = daemon_database::text_of(row, "target_uuid");
  info["extended_attrs"] = daemon_database::object_of(row, "extended_attrs");
  return true;
}

bool Storage_Catalog_Manager::add_catalog(const std::string& pool_uuid, const json_spirit::Object& record,
                                          std::string& why) {
  catalog_records::Catalog catalog;
  json_spirit::Object pool;
  if (!catalog_records::read_catalog(record, catalog, why)) return false;
  if (!find_pool(pool_uuid, pool)) return refused(why, "there is no pool '" + pool_uuid + "'");
  const Columns columns = {{"snapshot_id", catalog.snapshot_id},
                           {"extended_attrs", JSON_Dump(catalog.extended_attrs)},
                           {"ctime", static_cast<long>(std::time(nullptr))}};
  // The same catalog may be of a pool and of the one that it replicates to.
  const Keys keys = {{"uuid", catalog.uuid}, {"pool_uuid", pool_uuid}};
  return put_row("pool_catalog", keys, columns, "store a backup catalog") ||
         refused(why, "the catalog cannot be stored");
}

bool Storage_Catalog_Manager::remove_catalog(const std::string& catalog_uuid, std::string& why) {
  bool known = false;
  if (!exists("pool_catalog", {{"uuid", catalog_uuid}}, known))
    return refused(why, "the catalogs cannot be read");
  if (!known) return refused(why, "there is no catalog '" + catalog_uuid + "'");
  Delete_SQL statement("pool_catalog");
  statement.and_filter()->add_kv_eq_item("uuid", catalog_uuid);
  return daemon_database::run(statement, "remove a backup catalog") ||
         refused(why, "the catalog cannot be removed");
}

bool Storage_Catalog_Manager::query_catalog(const std::string& pool_uuid, json_spirit::Array& catalogs,
                                            const char* catalog_uuid, ACE_INT64 limit, ACE_INT64 offset) {
  Select_SQL statement("pool_catalog");
  statement.select("uuid, pool_uuid, extended_attrs, ctime");
  statement.and_filter()->add_kv_eq_item("pool_uuid", pool_uuid);
  if (catalog_uuid != nullptr) statement.and_filter()->add_kv_eq_item("uuid", std::string(catalog_uuid));
  statement.order_by("id");
  // SQLite knows an offset only together with a limit.
  statement.limit(limit == 0 && offset > 0 ? INT64_MAX : limit);
  statement.offset(offset);
  json_spirit::Array rows;
  if (!daemon_database::rows(statement, rows, "query the backup catalogs")) return false;
  for (json_spirit::Value& value : rows) {
    json_spirit::Object row = value.get<json_spirit::Object>();
    std::int64_t ctime = 0;
    json_spirit::object_find(row, "ctime", ctime);
    row["ctime"] = platform::POSIX_Time_To_ISO8601(ctime);
    row["extended_attrs"] = daemon_database::object_of(row, "extended_attrs");
    catalogs.push_back(row);
  }
  return true;
}

bool Storage_Catalog_Manager::remove_catalogs_of_snapshot(const std::string& pool_uuid,
                                                          const std::string& snapshot_id) {
  Delete_SQL statement("pool_catalog");
  statement.and_filter()->add_kv_eq_item("pool_uuid", pool_uuid);
  statement.and_filter()->add_kv_eq_item("snapshot_id", snapshot_id);
  return daemon_database::run(statement, "remove the backup catalogs of a snapshot");
}

bool Storage_Catalog_Manager::forget_pool(const std::string& pool_uuid) {
  for (const char* table : {"pool_catalog", "pool_replicate"}) {
    Delete_SQL statement(table);
    statement.and_filter()->add_kv_eq_item("pool_uuid", pool_uuid);
    if (!daemon_database::run(statement, "forget a pool")) return false;
  }
  return true;
}
