#pragma once
// Everything above the storage drivers reaches a pool's storage through a backstore manager: it knows where
// the backing store lies, creates, mounts and removes it, and turns requests about volumes, sub filesystems
// and their snapshots (by name) into calls on the pool's driver. Made by SCSI_Pool_Backstore_Factory for one
// request, opened once, used by one thread, dropped. All operations return true on success (or "yes") and log
// one line on failure; nothing that an earlier step did is undone. A name that platform::valid_dataset_name()
// refuses is a failure, with no tool run.

#include <ace/Basic_Types.h>

#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "backup/pools/scsipool/filesystem.h"
#include "backup/pools/scsipool/filesystem_helper.h"
#include "backup/pools/scsipool/fs_info.h"
#include "backup/pools/scsipool/scsipool_export.h"

class ACE_Process_Ex;

namespace scsi_pool {

class SCSIPOOL_Export SCSI_Pool_Backstore_Manager {
 public:
  // Options of a new volume.
  struct volume_ext_attrs {
    bool async = false;
    bool checksum = true;
    bool dedup = false;
    ACE_UINT32 block_size = 0;  // bytes; 0 takes the pool manager's block size
    std::string compression;    // empty leaves it to the driver
  };

  virtual ~SCSI_Pool_Backstore_Manager() = default;

  // Builds the drivers and applies the configuration. Must come before the operations below.
  virtual bool open(FS_TYPE fs_type) = 0;
  virtual bool open(const std::string& fs_type_str) = 0;
  // Makes the backing store of `size` bytes; `thin` reserves no space. A half-made store stays on failure.
  virtual bool create(ACE_UINT64 size, bool thin) = 0;
  // Removes the backing store and all that is in it.
  virtual bool destroy() = 0;
  virtual bool mount(const FS_Info_Item& info) = 0;
  virtual bool umount() = 0;
  virtual bool mounted() const = 0;
  virtual bool exist() const = 0;
  // Bytes in use.
  virtual bool get_used_size(ACE_UINT64& size) const = 0;

  // Flushes everything written so far to the backing store.
  bool sync() const { return driver_present() && fs_mgr_->sync(); }

  // Volumes (scsi_pool_backstore_manager_volume.cpp).
  bool create_volume(const std::string& name, ACE_UINT64 size, const volume_ext_attrs& ext_attrs);
  // `name` becomes a clone of snapshot `snapshot` of volume `snapshot_parent`; linked to it, or a full copy.
  bool clone_volume(const std::string& name, const std::string& snapshot_parent, const std::string& snapshot,
                    const volume_ext_attrs& ext_attrs, bool link_clone);
  bool destroy_volume(const std::string& name);
  bool volume_rollback(const std::string& volume, const std::string& snapshot);
  bool get_volume_info(const std::string& volume, FS_Info_Item& info);
  // The bytes in use, not the nominal size.
  bool get_volume_size(const std::string& name, ACE_UINT64& size);
  // Both of the above for the cost of one.
  bool get_volume_info(const std::string& volume, FS_Info_Item& info, ACE_UINT64& used);
  bool set_volume_attr(const std::string& name, const std::string& attr, const std::string& val);
  bool get_volume_attr(const std::string& name, const std::string& attr, std::string& val);
  bool volume_exist(const std::string& name);
  // The path by which the volume's data is reached: a block device, or a folder.
  bool get_volume_dataset(const std::string& name, std::string& path);

  // Snapshots of volumes (scsi_pool_backstore_manager_volume.cpp).
  bool create_snapshot(const std::string& volume, const std::string& name);
  bool destroy_snapshot(const std::string& volume, const std::string& name);
  bool get_snapshot_info(const std::string& volume, const std::string& name, FS_Info_Item& info);
  bool get_snapshot_size(const std::string& volume, const std::string& name, ACE_UINT64& size);
  // Exclusive and referenced bytes.
  bool get_snapshot_size(const std::string& volume, const std::string& name, ACE_UINT64& excl,
                         ACE_UINT64& rfer);
  // The same for several snapshots of a volume, measured together where the driver can do that. Those that
  // cannot be measured are left out, each with a message. False when the storage does not answer at all.
  bool get_snapshot_sizes(const std::string& volume, const std::set<std::string>& names,
                          Snapshot_Sizes& sizes);
  bool snapshot_exist(const std::string& volume, const std::string& name);
  // As Snapshot::received_uuid.
  bool get_received_uuid(const std::string& volume, const std::string& name, std::string& uuid);
  // Spawns the sending (receiving) tool in `proc`; the caller reads (feeds) the stream and waits.
  bool send_snapshot(const std::string& volume, const std::string& name,
                     const std::vector<std::string>& increments, ACE_Process_Ex* proc);
  bool receive_snapshot(const std::string& volume, const std::string& name, bool force, ACE_Process_Ex* proc);

  // Sub filesystems (scsi_pool_backstore_manager_filesystem.cpp). A null or empty `mount_point` leaves it to
  // the driver.
  bool create_sub_filesystem(const char* name, const char* mount_point);
  bool mount_sub_filesystem(const char* name);
  bool umount_sub_filesystem(const char* name);
  bool sub_filesystem_mounted(const char* name);
  // Without a message when there is none of that name.
  bool sub_filesystem_mounted(const std::string& name);
  bool destroy_sub_filesystem(const char* name, bool force);
  bool sub_filesystem_exist(const std::string& name);
  bool get_filesystem_info(const std::string& name, FS_Info_Item& info);
  bool get_sub_filesystem_mount_point(const char* name, std::string& mount_point);
  bool set_sub_filesystem_mount_point(const char* name, const std::string& mount_point);
  bool filesystem_rollback(const std::string& name, const std::string& snapshot_id);
  bool clone_filesystem(const std::string& target_name, const std::string& source_name,
                        const std::string& snapshot_id, const std::string& mount_point, bool link_clone);

  // Snapshots of sub filesystems (scsi_pool_backstore_manager_filesystem.cpp).
  bool create_filesystem_snapshot(const char* name, const char* snapshot_id);
  bool destroy_filesystem_snapshot(const std::string& name, const std::string& snapshot_id);
  bool get_filesystem_snapshot_info(const std::string& name, const std::string& snapshot_id,
                                    FS_Info_Item& info);
  bool filesystem_snapshot_exist(const std::string& name, const std::string& snapshot_id);
  bool get_filesystem_snapshot_size(const std::string& name, const std::string& snapshot_id,
                                    ACE_UINT64& size);
  bool get_filesystem_snapshot_size(const std::string& name, const std::string& snapshot_id, ACE_UINT64& excl,
                                    ACE_UINT64& rfer);
  bool get_filesystem_snapshot_sizes(const std::string& name, const std::set<std::string>& snapshot_ids,
                                     Snapshot_Sizes& sizes);
  bool send_filesystem_snapshot(const std::string& filesystem_name, const std::string& snapshot_id,
                                const std::vector<std::string>& increments, ACE_Process_Ex* proc);
  bool receive_filesystem_snapshot(const std::string& filesystem_name, const std::string& snapshot_id,
                                   bool force, ACE_Process_Ex* proc);

  // Reads scsi_pool_mgr.conf, when there is one, and hands its settings to the driver. False for a file that
  // is not a JSON object.
  bool load_config();

 protected:
  SCSI_Pool_Backstore_Manager() = default;
  SCSI_Pool_Backstore_Manager(const SCSI_Pool_Backstore_Manager&) = delete;
  SCSI_Pool_Backstore_Manager& operator=(const SCSI_Pool_Backstore_Manager&) = delete;

  // Is the driver there? Logs a violation and returns false otherwise.
  bool driver_present() const;
  // May the names be used? Logs the first that may not and returns false.
  static bool usable(std::initializer_list<const std::string*> names);
  static bool usable(const std::vector<std::string>& names);
  bool ready(std::initializer_list<const std::string*> names) const {
    return driver_present() && usable(names);
  }
  // The same for a sub filesystem named by a C string: null or empty is a violation.
  bool filesystem_ready(const char* name) const;

  std::string pool_id_;
  std::string mount_point_;  // the pool's mount point or dataset path
  Filesystem_var fs_mgr_;    // the driver of the pool's own filesystem; empty until open()

 private:
  // The dataset or snapshot of that name; null, without a message from here, when it cannot be opened.
  Sub_Volume_var volume(const std::string& name) const;
  Sub_Filesystem_var sub_filesystem(const std::string& name) const;
  Snapshot_var volume_snapshot(const std::string& volume_name, const std::string& name) const;
  Snapshot_var filesystem_snapshot(const std::string& filesystem_name, const std::string& name) const;
  // `what` is the message for one that is not there or cannot be opened.
  static void pick(const Snapshot_Sizes& all, const std::set<std::string>& names, const char* what,
                   Snapshot_Sizes& sizes);
  template <typename Dataset>
  void measure(const Dataset* parent, const std::string& name, const std::set<std::string>& names,
               const char* what, Snapshot_Sizes& sizes) const;
};

using SCSI_Pool_Backstore_Manager_var = std::unique_ptr<SCSI_Pool_Backstore_Manager>;

}  // namespace scsi_pool
