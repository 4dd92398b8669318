#pragma once
// The storage catalog: which pools there are, here and on peers, where they are served, to which pool each
// replicates and which backups refer to their snapshots. Kept in the daemon's database. Any thread.
//
// Pool record: "uuid", "name", "url" (strings; "http://host:port/" or "https://..."; LAN-free pools
// "lanfree://..."), "extended_attrs" (object; may hold "host", "port", "ssl"), "local" (bool). Local pools
// come from the Local_Pool_Source and are never stored; the pools of peers are added by the administrator.
//
// Catalog record (a backup that refers to a snapshot): "uuid", "pool_uuid", "extended_attrs" (object with
// "snapshot_id"), "ctime" (ISO 8601).

#include <ace/Basic_Types.h>

#include <ctime>
#include <functional>
#include <mutex>
#include <set>
#include <string>

#include "platform/http/uri.h"
#include "platform/json/json_spirit.h"

// Appends the records of this host's pools (of one of them when `pool_uuid` is not empty). False when they
// cannot be read. Called often and on any thread: it must not start tools, nor call the storage catalog.
using Local_Pool_Source = std::function<bool(const std::string& pool_uuid, json_spirit::Array& pools)>;

// The administrator's side. Operations return false with the reason in `why` (or logged, where there is
// none).
class Storage_Catalog_Manager {
 public:
  static Storage_Catalog_Manager* instance();

  void local_pool_source(Local_Pool_Source source);

  // Adds a peer's pool, or replaces its record. Refused: a malformed "uuid" or "url", an empty name, a local
  // pool's uuid, unknown members.
  bool add_pool(const json_spirit::Object& record, std::string& why);
  // Refused while a pool replicates to it.
  bool remove_pool(const std::string& pool_uuid, std::string& why);
  // All pools, local ones first; `pool_uuid` null or empty = all.
  bool list_pools(json_spirit::Array& pools, const char* pool_uuid = nullptr);

  // Sets where a local pool replicates to. Refused when either pool is unknown, they are the same, the target
  // is one without an address, or `extended_attrs` ("max_seconds_retry", "rate_limiting") is malformed.
  bool set_replicate(const std::string& pool_uuid, const std::string& target_uuid,
                     const json_spirit::Object& extended_attrs, std::string& why);
  // True also when there was no setting.
  bool clear_replicate(const std::string& pool_uuid, std::string& why);

  // Adds a backup catalog of a pool, or replaces it ("uuid" and "extended_attrs" of the record).
  bool add_catalog(const std::string& pool_uuid, const json_spirit::Object& record, std::string& why);
  bool remove_catalog(const std::string& catalog_uuid, std::string& why);
  // The catalogs of a pool, oldest first. `catalog_uuid` null = all, `limit` 0 = no limit. False, logged,
  // when the database cannot be read.
  bool query_catalog(const std::string& pool_uuid, json_spirit::Array& catalogs,
                     const char* catalog_uuid = nullptr, ACE_INT64 limit = 0, ACE_INT64 offset = 0);

  // One pool's record, local or of a peer. False, not logged, when there is none.
  bool find_pool(const std::string& pool_uuid, json_spirit::Object& pool);
  bool is_local(const std::string& pool_uuid);
  // The stored replication setting: "target_uuid" and "extended_attrs", empty when there is none.
  bool find_replicate(const std::string& pool_uuid, json_spirit::Object& info);
  // Removes the catalog records that name this snapshot.
  bool remove_catalogs_of_snapshot(const std::string& pool_uuid, const std::string& snapshot_id);
  // Drops what is stored about a pool that was deleted: its replication setting and its catalogs.
  bool forget_pool(const std::string& pool_uuid);

 private:
  bool local_pools(const std::string& pool_uuid, json_spirit::Array& pools);

  std::mutex mutex_;
  Local_Pool_Source source_;
};

// What the pool module asks. All are false, logged, when the database cannot be read.
class Storage_Catalog_Utils {
 public:
  // The pool's replication setting: "target_uuid" (string) and "extended_attrs" (object); empty when it does
  // not replicate.
  static bool get_replicate(const std::string& pool_uuid, json_spirit::Object& info);

  // One pool's record. False when it is unknown; the reason in `why` when that is given.
  static bool get_pool(const std::string& pool_uuid, json_spirit::Object& pool, std::string* why = nullptr);

  // The device that holds the pool: "pool_uuid", "name" and "url". False when the pool is unknown.
  static bool get_master_device(const std::string& pool_uuid, json_spirit::Object& device);

  // Which of `ids` the pool's backup catalogs name, into `found`, and how many catalogs there are, into
  // `count`. A pool without any catalogs has nobody to wait for: all of `ids` are found and `count` is 0.
  // `since` leaves out catalogs made before that time; 0 = none.
  static bool collect_snapshots_id_from_catalog(const std::string& pool_uuid,
                                                const std::set<std::string>& ids,
                                                std::set<std::string>& found, std::time_t since,
                                                unsigned& count);

  // Copies the backup catalog of a LAN-free pool to the target pool's host. False with a clear reason when
  // there is no such catalog or the target cannot take it.
  static bool replicate_lanfree_metadata(const std::string& catalog_uuid, ACE_INT64 job_id,
                                         const std::string& source_pool_uuid,
                                         const std::string& target_pool_uuid);

  // Copies the catalogs that name these snapshots to the replication target's host: PUT /svc/r/catalog with
  // "pool_uuid" (the target pool), "uuid" and "extended_attrs" for each. True when there are none.
  static bool replicate_scsi_metadata(const std::string& source_pool_uuid,
                                      const std::set<std::string>& snapshot_ids);
};

// Where a pool is served.
class Pool_URL_Info {
 public:
  explicit Pool_URL_Info(std::string pool_uuid) : pool_uuid_(std::move(pool_uuid)) {}
  // False, logged, when the pool is unknown or its "url" is no http or https address.
  bool init();
  const URI& uri() const { return uri_; }

 private:
  std::string pool_uuid_;
  URI uri_;
};
