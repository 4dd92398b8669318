#pragma once
// What records from outside must look like before the storage catalog takes them. Pure: no database.
// Everything here is false with the reason in `why` when a record is refused.

#include <ace/Basic_Types.h>

#include <string>

#include "platform/json/json_spirit.h"

namespace catalog_records {

struct Pool {
  std::string uuid, name, url;
  json_spirit::Object extended_attrs;
};

struct Catalog {
  std::string uuid, snapshot_id;
  json_spirit::Object extended_attrs;
};

// Where a pool is served.
struct Address {
  std::string host;
  ACE_UINT16 port = 0;
  bool ssl = false;
};

bool refused(std::string& why, const std::string& text);

bool read_pool(const json_spirit::Object& record, Pool& pool, std::string& why);
bool read_catalog(const json_spirit::Object& record, Catalog& catalog, std::string& why);

// The address of a pool record: "host", "port" and "ssl" of its attributes when it has a "host", otherwise
// its "url".
bool read_address(const json_spirit::Object& pool, Address& address, std::string& why);

// "max_seconds_retry" (0 to 65535) and "rate_limiting" (windows with "max_bytes_per_second", "start_time" and
// "end_time"), both optional, nothing else.
bool check_replicate_attrs(const json_spirit::Object& attrs, std::string& why);

}  // namespace catalog_records
