#pragma once
// Removal of the backup metadata that refers to snapshots. Any thread.

#include <string>

class Recycling_Manager {
 public:
  // Removes the backup catalogs that name this snapshot from the storage catalog. True when none is left,
  // also when there was none; false, logged, when the database cannot be changed.
  static bool recycle_scsi_metadata(const std::string& pool_uuid, const std::string& snapshot_id);
};
