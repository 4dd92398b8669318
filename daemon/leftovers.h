#pragma once
// What a crash in the middle of a pool's creation or deletion leaves behind, and the administrator's way out:
// an orphan is a backing file without a pool in the catalog; a pool without its backing file can be
// forgotten.

#include <string>
#include <vector>

namespace scsi_pool {
class SCSI_Pool_Sqlite_Manager;
}

namespace scsipoold {

// Where the pool's backing file lies.
std::string backing_file(const std::string& pool_id);

// The ids of the orphans, sorted. Only regular files named by a UUID count: others are not this system's.
// False, logged, when the catalog or the folder cannot be read (a missing folder has no orphans).
bool find_orphans(scsi_pool::SCSI_Pool_Sqlite_Manager& catalog, std::vector<std::string>& ids);

// Is there a backing file of that id without a pool in the catalog?
bool is_orphan(scsi_pool::SCSI_Pool_Sqlite_Manager& catalog, const std::string& id);

// Unmounts and removes an orphan, with all that is in it. False, logged, when it is none, when somebody has
// the file open, or when a step fails. Not while a pool is being created.
bool remove_orphan(scsi_pool::SCSI_Pool_Sqlite_Manager& catalog, const std::string& id);

// Removes the catalog's records of the filesystems of a pool that is gone, and their mount folders. False,
// logged, when a record cannot be removed.
bool forget_filesystems(scsi_pool::SCSI_Pool_Sqlite_Manager& catalog, const std::string& pool_id);

// Removes the catalog's records of a pool whose backing file is gone, with those of its volumes, snapshots,
// exports and filesystems. False, logged, when the file is there or a record cannot be removed.
bool forget_pool(scsi_pool::SCSI_Pool_Sqlite_Manager& catalog, const std::string& pool_id);

}  // namespace scsipoold
