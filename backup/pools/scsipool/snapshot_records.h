#pragma once
// What the listings of LUN and of sub filesystem snapshots share. Stateless; any thread.

#include <map>
#include <set>
#include <string>

#include "backup/pools/scsipool/snapshot.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

// The "snapshot_uuid" of catalog rows by their dataset, which stands under `dataset_key`. Rows that lack one
// of them are left out.
std::map<std::string, std::set<std::string>> snapshots_by_dataset(const json_spirit::Array& rows,
                                                                  const char* dataset_key);

// Is this the dataset's only snapshot? `measured` is the listing, which leaves out what the storage cannot
// measure, `recorded` the catalog's rows.
bool is_only_snapshot(const json_spirit::Array& measured, const json_spirit::Array& recorded,
                      const std::string& snapshot_id);

// Adds the members that tell the size.
void add_sizes(const Snapshot_Size& size, json_spirit::Object& record);

}  // namespace scsi_pool
