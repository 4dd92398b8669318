#pragma once
// What the ZFS drivers share: checked names, commands with what the tool said, snapshots of volumes and
// filesystems alike. Stateless; any thread.

#include <initializer_list>
#include <string>

#include "backup/pools/scsipool/snapshot.h"

class ACE_Process_Ex;

namespace scsi_pool {

// Are all of these fit to stand in a command? `zpool` may be a path of names; null and "" are not fit. Logs
// the reason.
bool zfs_names_ok(const std::string& zpool, std::initializer_list<const char*> names);

// The text as one word of a command line: in double quotes only where it needs them.
std::string zfs_quoted(const std::string& text);

// Has the shell run a command line and returns its exit status, with its standard error text in `errors` and
// in the log (notice). After a failure errno tells a busy dataset (EBUSY) from one that others depend on
// (ENOTEMPTY) where the text does.
int zfs_call(const std::string& command, std::string& errors);
int zfs_call(const std::string& command);

// Logs who holds `path`, the device of `dataset` or a file in it.
void zfs_log_holder(const std::string& dataset, const std::string& path);

// Is there a snapshot `snapshot` of <zpool>/<name>? Nothing is logged when not.
bool zfs_snapshot_exist(const std::string& zpool, const std::string& name, const char* snapshot);
// Null when there is none, which is logged.
Snapshot* zfs_get_snapshot(const std::string& zpool, const std::string& name, const char* snapshot);
// Adds the sizes of all snapshots of <zpool>/<name>, with one run of the tool.
Sizes_Read zfs_add_snapshot_sizes(const std::string& zpool, const std::string& name, Snapshot_Sizes& sizes);
// A new snapshot object, or null with ENOMEM.
Snapshot* zfs_new_snapshot(const std::string& zpool, const std::string& name, const char* snapshot);

// Spawns a streaming command in `proc` and returns its process id, or -1.
int zfs_spawn(const std::string& command, ACE_Process_Ex* proc);
bool zfs_receive(const std::string& zpool, const std::string& name, const char* snapshot, bool force,
                 ACE_Process_Ex* proc);

}  // namespace scsi_pool
