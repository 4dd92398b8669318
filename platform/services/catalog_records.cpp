#include "platform/services/catalog_records.h"

#include <algorithm>
#include <initializer_list>

#include "platform/base/time_text.h"
#include "platform/base/uuid.h"
#include "platform/http/uri.h"

namespace catalog_records {
namespace {

bool only_members(const json_spirit::Object& record, std::initializer_list<const char*> known,
                  std::string& why) {
  for (const auto& [name, value] : record) {
    const bool is_known =
        std::any_of(known.begin(), known.end(), [&](const char* one) { return name == one; });
    if (!is_known) return refused(why, "unknown member '" + name + "'");
  }
  return true;
}

constexpr ACE_UINT64 LOWEST_RATE = 1024;  // less would look like a stalled stream to the peer

void to_lower(std::string& uuid) {
  for (char& c : uuid) {
    if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
  }
}

bool read_uuid(const json_spirit::Object& record, std::string& uuid, std::string& why) {
  if (!json_spirit::object_find(record, "uuid", uuid)) return refused(why, "'uuid' is missing");
  if (!platform::is_uuid(uuid)) return refused(why, "'uuid': '" + uuid + "' is no UUID");
  to_lower(uuid);
  return true;
}

bool read_attrs(const json_spirit::Object& record, json_spirit::Object& attrs, std::string& why) {
  if (record.count("extended_attrs") == 0 || json_spirit::object_find(record, "extended_attrs", attrs))
    return true;
  return refused(why, "'extended_attrs' is no object");
}

bool is_lanfree(const std::string& url) {
  return url.rfind("lanfree://", 0) == 0 || url.rfind("lanfrees://", 0) == 0;
}

bool check_window(const json_spirit::Value& value, std::string& why) {
  const json_spirit::Object* window = json_spirit::get_object(value);
  if (window == nullptr) return refused(why, "a member of 'rate_limiting' is no object");
  if (!only_members(*window, {"max_bytes_per_second", "start_time", "end_time"}, why)) return false;
  ACE_UINT64 limit = 0;
  if (!json_spirit::object_find(*window, "max_bytes_per_second", limit))
    return refused(why, "'max_bytes_per_second' is no unsigned integer");
  if (limit != 0 && limit < LOWEST_RATE)
    return refused(why, "'max_bytes_per_second': the lowest limit is " + std::to_string(LOWEST_RATE) +
                            "; 0 is no limit");
  for (const char* name : {"start_time", "end_time"}) {
    std::string text;
    unsigned seconds = 0;
    if (!json_spirit::object_find(*window, name, text) ||
        !platform::relative_time_to_seconds(text, seconds) || seconds > 86400)
      return refused(why, std::string("'") + name + "': '" + text + "' is no time of day");
  }
  return true;
}

}  // namespace

bool refused(std::string& why, const std::string& text) {
  why = text;
  return false;
}

bool read_pool(const json_spirit::Object& record, Pool& pool, std::string& why) {
  if (!only_members(record, {"uuid", "name", "url", "extended_attrs"}, why)) return false;
  if (!read_uuid(record, pool.uuid, why) || !read_attrs(record, pool.extended_attrs, why)) return false;
  if (!json_spirit::object_find(record, "name", pool.name) || pool.name.empty())
    return refused(why, "'name' is missing or empty");
  if (!json_spirit::object_find(record, "url", pool.url)) return refused(why, "'url' is missing");
  Address address;
  return read_address(record, address, why);
}

bool read_catalog(const json_spirit::Object& record, Catalog& catalog, std::string& why) {
  if (!only_members(record, {"uuid", "extended_attrs", "pool_uuid"}, why)) return false;
  if (!read_uuid(record, catalog.uuid, why) || !read_attrs(record, catalog.extended_attrs, why)) return false;
  if (!json_spirit::object_find(catalog.extended_attrs, "snapshot_id", catalog.snapshot_id) ||
      catalog.snapshot_id.empty())
    return refused(why, "'extended_attrs' has no 'snapshot_id'");
  // As the pool's catalog spells it: a snapshot that a backup refers to is found by this text.
  if (platform::is_uuid(catalog.snapshot_id)) to_lower(catalog.snapshot_id);
  catalog.extended_attrs["snapshot_id"] = catalog.snapshot_id;
  return true;
}

bool read_address(const json_spirit::Object& pool, Address& address, std::string& why) {
  json_spirit::Object attrs;
  json_spirit::object_find(pool, "extended_attrs", attrs);
  if (json_spirit::object_find(attrs, "host", address.host)) {
    if (!address.host.empty() && json_spirit::object_find(attrs, "port", address.port) && address.port != 0 &&
        json_spirit::object_find(attrs, "ssl", address.ssl))
      return true;
    return refused(why, "'extended_attrs' has a 'host' but no 'port' or 'ssl'");
  }
  std::string url;
  json_spirit::object_find(pool, "url", url);
  if (is_lanfree(url))
    return refused(why, "a LAN-free pool needs 'host', 'port' and 'ssl' in 'extended_attrs'");
  URI uri;
  if (!uri.parse(url, why)) return refused(why, "'url' is no http or https address: " + why);
  if (uri.target() != "/")
    return refused(why, "'url' must end with the host and the port: http://host:port/ or https://host:port/");
  address = {uri.host(), uri.port(), uri.is_ssl()};
  return true;
}

bool check_replicate_attrs(const json_spirit::Object& attrs, std::string& why) {
  if (!only_members(attrs, {"max_seconds_retry", "rate_limiting"}, why)) return false;
  ACE_UINT16 seconds = 0;
  if (attrs.count("max_seconds_retry") != 0 && !json_spirit::object_find(attrs, "max_seconds_retry", seconds))
    return refused(why, "'max_seconds_retry' is not 0 to 65535");
  json_spirit::Array windows;
  if (attrs.count("rate_limiting") != 0 && !json_spirit::object_find(attrs, "rate_limiting", windows))
    return refused(why, "'rate_limiting' is no array");
  return std::all_of(windows.begin(), windows.end(),
                     [&why](const json_spirit::Value& window) { return check_window(window, why); });
}

}  // namespace catalog_records
