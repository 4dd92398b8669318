#pragma once
// A pool filesystem on Btrfs: made on a file or block device, mounted through a loop device with quota on,
// and recorded in /etc/fstab so that it is mounted again at boot. Same rules as Filesystem.

#include <ace/RW_Thread_Mutex.h>

#include <string>

#include "backup/pools/scsipool/filesystem.h"
#include "backup/pools/scsipool/scsipool_export.h"

namespace scsi_pool {

class SCSIPOOL_Export Btrfs_Filesystem : public Filesystem {
 public:
  Btrfs_Filesystem(const char* device, const char* mount_point);

  // Reads `Label`. A device too small for the tool's normal layout is made with mixed block groups.
  bool make(const FS_Info_Item& opts) override;
  // Does nothing: the backing file belongs to the backstore manager.
  bool destroy() override;
  // Reads `compression`. When the quota or fstab step fails the filesystem stays mounted.
  bool mount(const FS_Info_Item& opts) override;
  // When the fstab step fails the filesystem stays unmounted.
  bool umount() override;
  bool mounted() const override;
  bool sync() const override;
  bool verify() const override;
  bool get_used_size(ACE_UINT64& size) const override;
  // These four read nothing of `info`.
  Sub_Volume* create_sub_volume(const char* name, const FS_Info_Item& info) override;
  Sub_Volume* clone_sub_volume(const char* name, const char* snapshot_parent, const char* snapshot,
                               const FS_Info_Item& info) override;
  Sub_Filesystem* create_sub_filesystem(const char* name, const FS_Info_Item& info) override;
  // Not offered: always null.
  Sub_Filesystem* clone_sub_filesystem(const char* target_name, const char* source_name,
                                       const char* snapshot_id, const FS_Info_Item& info) override;
  Sub_Volume* get_sub_volume(const char* name) const override;
  bool sub_volume_exist(const char* name) const override;
  Sub_Filesystem* get_sub_filesystem(const char* name) const override;
  bool sub_filesystem_exist(const char* name) const override;

  // Has fstab an entry whose file system is `dev`?
  bool fstab_entry_exist(const char* dev);
  // Adds this pool's entry with the options `opts`, or removes it. Replaces the file as a whole; comment
  // lines are lost. On failure the old file is as it was.
  bool edit_fstab(bool remove, const char* opts);
  bool get_loop_device_name(std::string& name) const;
  // The compression to mount with; null for none. Logs one that Btrfs does not know.
  const char* check_compression_type(const char* type) const;

  // The file that edit_fstab changes ("/etc/fstab" unless set), for tests. Set before other threads run.
  static void fstab_path(const std::string& path);

 private:
  using lock_type = ACE_RW_Thread_Mutex;

  bool is_there() const;
  bool make_mixed(const std::string& label_option) const;
  bool mount_device(std::string& compression) const;
  bool run_mount(const std::string& compression) const;

  const std::string device_;
  const std::string mount_point_;
  mutable lock_type lock_;
};

}  // namespace scsi_pool
