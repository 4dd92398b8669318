#pragma once
// The steps that the Btrfs drivers share, each around one command.

#include <ace/Basic_Types.h>

#include <string>

class ACE_Process_Ex;

namespace scsi_pool {

// May `name` be the name of a subvolume? As everywhere, but without blanks: the listing of the tool cannot
// tell where such a name ends, and its volume would never be found again. Logs a refusal.
bool valid_btrfs_name(const char* name);

std::string btrfs_path(const std::string& mount_point, const std::string& name);

// May the pool's folder be used? Not when it is a plain folder of another Btrfs, as when /orbistor is on one
// and the pool is not mounted: what is made would land there. Logs a refusal.
bool is_pool_root(const std::string& mount_point);

// Mounts again without discards. Asynchronous discard, the default since Linux 6.2, gives freed blocks back
// through the loop device, which punches holes into the backing file: blocks that were reserved for a pool
// would go to others.
void btrfs_keep_blocks(const std::string& mount_point);

// Flushes the filesystem.
bool btrfs_sync(const std::string& mount_point);

// Makes the snapshot or writable copy `target` of the subvolume `source`, both below the mount point. False
// with EEXIST, and nothing run, when there is something at the target already: the tool would go inside it.
bool btrfs_snapshot(const std::string& mount_point, const std::string& source, const std::string& target,
                    bool read_only);

// Removes a subvolume and its quota group. `read_only` looks for it among the read-only subvolumes. Logs
// failures; when the quota group cannot be removed nothing is deleted. The space comes back in the
// background.
bool remove_btrfs_subvolume(const std::string& mount_point, const std::string& name, bool read_only);

// What `btrfs subvolume show` says; texts it does not say are empty. Logs nothing.
bool show_btrfs_subvolume(const std::string& mount_point, const std::string& name, std::string& ctime,
                          std::string& flags, std::string& name_shown);

// From the same output: the UUID of the subvolume that this one was received from; empty for none.
bool read_btrfs_received_uuid(const std::string& mount_point, const std::string& name, std::string& uuid);

enum class Btrfs_Sizes { DONE, NO_GROUP, NO_FIGURES };
// Exclusive and referenced bytes from the quota group.
Btrfs_Sizes get_btrfs_sizes(const std::string& mount_point, const std::string& name, ACE_UINT64& excl,
                            ACE_UINT64& rfer);

// Starts a streaming tool in `proc`. False with errno on failure.
bool spawn_btrfs_stream(const std::string& command, ACE_Process_Ex* proc);

}  // namespace scsi_pool
