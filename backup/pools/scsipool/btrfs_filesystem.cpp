#include "backup/pools/scsipool/btrfs_filesystem.h"

#include <ace/Guard_T.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <cerrno>
#include <mutex>
#include <new>

#include "backup/pools/scsipool/btrfs_commands.h"
#include "backup/pools/scsipool/btrfs_line_handler.h"
#include "backup/pools/scsipool/btrfs_quota.h"
#include "backup/pools/scsipool/btrfs_sub_filesystem.h"
#include "backup/pools/scsipool/btrfs_sub_volume.h"
#include "backup/pools/scsipool/filesystem_helper.h"
#include "backup/pools/scsipool/fstab.h"
#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/base/names.h"
#include "platform/process/auto_handle.h"
#include "platform/process/subprocess.h"
#include "platform/process/tool_options.h"

namespace scsi_pool {

namespace {

constexpr unsigned int LOGGED_LINES = 8;
// The tool's own limit for its normal layout, which keeps metadata twice.
constexpr off_t SMALLEST_NORMAL = 114294784;

Fstab_Files& fstab_files() {
  static Fstab_Files files{"/etc/fstab", "/etc/fstab.scsipool"};
  return files;
}

// Each request has a driver object of its own, so the object's lock alone would not keep two of them from
// reading the same old table and losing one of their entries.
std::mutex& fstab_lock() {
  static std::mutex lock;
  return lock;
}

bool usable_path(const std::string& path) {
  std::string why;
  if (platform::valid_path(path, why)) return true;
  return LOG_FAILURE("Failed to use the path '%s' for Btrfs: %s\n", path.c_str(), why.c_str());
}

// Bytes of a file or device; -1 when it cannot be opened.
off_t size_of(const std::string& path) {
  const Auto_Handle file(platform::open_cloexec(path, O_RDONLY));
  return file.valid() ? ::lseek(file.get(), 0, SEEK_END) : -1;
}

// Is it a file whose blocks are all allocated?
bool is_reserved(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_blocks * 512 >= info.st_size;
}

// The source of what is mounted exactly there. False with `source` untouched when nothing is; logs an
// unreadable table.
bool mount_source(const std::string& folder, std::string& source) {
  FILE* table = ::setmntent("/proc/mounts", "re");
  if (table == nullptr) return LOG_FAILURE("Failed to get backstore mount status\n");
  bool found = false;
  mntent entry;
  char buffer[16384];
  while (!found && ::getmntent_r(table, &entry, buffer, sizeof buffer) != nullptr) {
    found = folder == entry.mnt_dir;
    if (found) source = entry.mnt_fsname;
  }
  ::endmntent(table);
  return found;
}

std::string mount_options(const std::string& compression) {
  return compression.empty() ? "loop,noatime" : "loop,noatime,compress=" + compression;
}

template <typename T>
T* checked(T* object) {
  if (object == nullptr) errno = ENOMEM;
  return object;
}

}  // namespace

Btrfs_Filesystem::Btrfs_Filesystem(const char* device, const char* mount_point)
    : device_(device != nullptr ? device : ""), mount_point_(mount_point != nullptr ? mount_point : "") {}

void Btrfs_Filesystem::fstab_path(const std::string& path) {
  fstab_files() = {path, path + ".scsipool"};
}

bool Btrfs_Filesystem::make(const FS_Info_Item& opts) {
  std::string label;
  get_info_entry(opts, "Label", label);
  if (!usable_path(device_) || (!label.empty() && !valid_btrfs_name(label.c_str()))) return false;
  const std::string option = label.empty() ? "" : platform::format_command("-L \"%s\"", label.c_str());
  if (subprocess::call("mkfs.btrfs -f %s \"%s\"", option.c_str(), device_.c_str()) == 0 || make_mixed(option))
    return true;
  return LOG_FAILURE("Failed to make Btrfs filesystem in '%s'\n", device_.c_str());
}

// Below a limit of the tool only data and metadata mixed in one kind of chunk fit.
bool Btrfs_Filesystem::make_mixed(const std::string& label_option) const {
  const off_t size = size_of(device_);
  if (size < 0 || size >= SMALLEST_NORMAL) return false;
  return subprocess::call("mkfs.btrfs -f -M %s \"%s\"", label_option.c_str(), device_.c_str()) == 0;
}

bool Btrfs_Filesystem::destroy() {
  return true;
}

bool Btrfs_Filesystem::mount(const FS_Info_Item& opts) {
  if (mounted()) return true;
  if (!usable_path(device_) || !usable_path(mount_point_)) return false;
  if (!platform::is_regular_file(device_) && !platform::is_block_device(device_)) {
    return LOG_FAILURE("Failed to mount Btrfs: source '%s' does not exist\n", device_.c_str());
  }
  if (!platform::mkdir_p(mount_point_, 0750)) {
    return LOG_FAILURE("Failed to mount Btrfs: create '%s' error\n", mount_point_.c_str());
  }
  std::string requested;
  get_info_entry(opts, "compression", requested);
  const char* known = check_compression_type(requested.c_str());
  std::string compression = known != nullptr ? known : "";
  if (!mount_device(compression)) {
    return LOG_FAILURE("Failed to mount '%s' btrfs filesystem to '%s'\n", device_.c_str(),
                       mount_point_.c_str());
  }
  Btrfs_Quota quota(mount_point_.c_str());
  if (!quota.enable(true)) return LOG_FAILURE("Failed to enable quota in '%s'\n", mount_point_.c_str());
  quota.clear_stale();
  if (!edit_fstab(false, mount_options(compression).c_str())) {
    return LOG_FAILURE("Failed to add device '%s' to fstab\n", device_.c_str());
  }
  std::string loop;
  if (get_loop_device_name(loop)) {
    LOG_INFO("'%s' is mounted on '%s' by '%s'. \n", device_.c_str(), mount_point_.c_str(), loop.c_str());
  }
  return true;
}

// Kernels know the compressions in lower case only: a text that does not mount is tried so, and `compression`
// becomes what was mounted.
bool Btrfs_Filesystem::mount_device(std::string& compression) const {
  const bool reserved = is_reserved(device_);
  bool done = run_mount(compression);
  const std::string lower = boost::algorithm::to_lower_copy(compression);
  if (!done && lower != compression) {
    done = run_mount(lower);
    compression = lower;
  }
  if (done && reserved) btrfs_keep_blocks(mount_point_);
  return done;
}

bool Btrfs_Filesystem::run_mount(const std::string& compression) const {
  const std::string option = compression.empty() ? "" : "-o compress=" + compression + " ";
  return subprocess::call("mount -o loop,noatime %s\"%s\" \"%s\"", option.c_str(), device_.c_str(),
                          mount_point_.c_str()) == 0;
}

bool Btrfs_Filesystem::umount() {
  if (!mounted()) return true;
  if (!usable_path(mount_point_)) return false;
  if (subprocess::call("umount \"%s\"", mount_point_.c_str()) != 0) {
    return LOG_FAILURE("Failed to umount btrfs '%s'\n", mount_point_.c_str());
  }
  if (edit_fstab(true, nullptr)) return true;
  return LOG_FAILURE("Failed to umount btrfs '%s': delete fstab entry error\n", mount_point_.c_str());
}

bool Btrfs_Filesystem::mounted() const {
  std::string source;
  return mount_source(mount_point_, source);
}

// A global device is whatever the administrator has put there.
bool Btrfs_Filesystem::is_there() const {
  return device_.empty() || is_pool_root(mount_point_);
}

bool Btrfs_Filesystem::get_loop_device_name(std::string& name) const {
  return mount_source(mount_point_, name);
}

bool Btrfs_Filesystem::sync() const {
  return usable_path(mount_point_) && btrfs_sync(mount_point_);
}

bool Btrfs_Filesystem::verify() const {
  unsigned long type = 0;
  if (!platform::get_filesystem_type(mount_point_.c_str(), type)) {
    return LOG_FAILURE("Failed to statfs %s, errno=%d\n", mount_point_.c_str(), errno);
  }
  return type == BTRFS_SUPER_MAGIC;
}

bool Btrfs_Filesystem::get_used_size(ACE_UINT64& size) const {
  size = 0;
  if (!usable_path(mount_point_) || !is_there()) return false;
  platform::Tool_Options options(
      platform::format_command("btrfs filesystem df \"%s\"", mount_point_.c_str()));
  Btrfs_Df_Line_Handler handler(size);
  if (handler.call(LOGGED_LINES, options) != 0) {
    return LOG_FAILURE("Failed to get filesystem df info, errno=%d, %m\n", errno);
  }
  return size != 0;
}

const char* Btrfs_Filesystem::check_compression_type(const char* type) const {
  if (type == nullptr || *type == '\0' || boost::algorithm::iequals(type, "none")) return nullptr;
  if (boost::algorithm::iequals(type, "lzo") || boost::algorithm::iequals(type, "zlib")) return type;
  LOG_FAILURE("Btrfs not support compression %s\n", type);
  return nullptr;
}

Sub_Volume* Btrfs_Filesystem::create_sub_volume(const char* name, const FS_Info_Item&) {
  if (name == nullptr || *name == '\0') {
    LOG_VIOLATION("name is NULL or \"\"");
    return nullptr;
  }
  if (!usable_path(mount_point_) || !valid_btrfs_name(name) || !is_there()) return nullptr;
  if (subprocess::call("btrfs subvolume create \"%s\"", btrfs_path(mount_point_, name).c_str()) != 0) {
    LOG_FAILURE("Failed to crate btrfs subvolume: %m\n");
    return nullptr;
  }
  sync();
  return checked(new (std::nothrow) Btrfs_Sub_Volume(mount_point_.c_str(), name));
}

Sub_Volume* Btrfs_Filesystem::clone_sub_volume(const char* name, const char* snapshot_parent,
                                               const char* snapshot, const FS_Info_Item&) {
  if (name == nullptr || *name == '\0') {
    LOG_VIOLATION("name is NULL or \"\"");
    return nullptr;
  }
  if (snapshot_parent == nullptr || *snapshot_parent == '\0') {
    LOG_VIOLATION("snapshot_parent is NULL or \"\"");
    return nullptr;
  }
  if (snapshot == nullptr || *snapshot == '\0') {
    LOG_VIOLATION("snapshot is NULL or \"\"");
    return nullptr;
  }
  if (!valid_btrfs_name(name)) return nullptr;
  const Sub_Volume_var parent(get_sub_volume(snapshot_parent));
  if (parent == nullptr || !parent->snapshot_exist(snapshot)) {
    LOG_FAILURE("Failed to create btrfs subvolume base on snapshot: snapshot does not exist\n");
    return nullptr;
  }
  if (!btrfs_snapshot(mount_point_, snapshot, name, false)) {
    LOG_FAILURE("Failed to crate btrfs subvolume base  on snapshot: %m\n");
    return nullptr;
  }
  sync();
  return checked(new (std::nothrow) Btrfs_Sub_Volume(mount_point_.c_str(), name));
}

Sub_Volume* Btrfs_Filesystem::get_sub_volume(const char* name) const {
  if (!sub_volume_exist(name)) return nullptr;
  return checked(new (std::nothrow) Btrfs_Sub_Volume(mount_point_.c_str(), name));
}

bool Btrfs_Filesystem::sub_volume_exist(const char* name) const {
  if (name == nullptr || *name == '\0') return LOG_VIOLATION("name is NULL or \"\"");
  if (!usable_path(mount_point_) || !valid_btrfs_name(name)) return false;
  platform::Tool_Options options(
      platform::format_command("btrfs subvolume list -pu \"%s\"", mount_point_.c_str()));
  FS_Info_List volumes;
  List_Subvolume_Line_Handler handler(volumes);
  if (handler.call(LOGGED_LINES, options) != 0) return LOG_FAILURE("Failed to list btrfs snapshot\n");
  for (const json_spirit::Value& value : volumes) {
    const json_spirit::Object* volume = json_spirit::get_object(value);
    std::string path;
    if (volume != nullptr && get_info_entry(*volume, "path", path) && path == name) return true;
  }
  return false;
}

Sub_Filesystem* Btrfs_Filesystem::create_sub_filesystem(const char* name, const FS_Info_Item&) {
  if (name == nullptr || *name == '\0') {
    LOG_VIOLATION("name is NULL or \"\"");
    return nullptr;
  }
  if (!usable_path(mount_point_) || !valid_btrfs_name(name) || !is_there()) return nullptr;
  if (!verify()) {
    LOG_FAILURE("Failed to create Btrfs sub filesystem: filesystem verify error\n");
    return nullptr;
  }
  if (!Btrfs_Quota(mount_point_.c_str()).enable(true)) {
    LOG_FAILURE("Failed to create Btrfs sub filesystem: failed to enable quota\n");
    return nullptr;
  }
  if (subprocess::call("btrfs subvolume create \"%s\"", btrfs_path(mount_point_, name).c_str()) != 0) {
    LOG_FAILURE("Failed to crate btrfs sub fileseystem: %m\n");
    return nullptr;
  }
  return checked(new (std::nothrow) Btrfs_Sub_Filesystem(mount_point_.c_str(), name));
}

Sub_Filesystem* Btrfs_Filesystem::clone_sub_filesystem(const char*, const char*, const char*,
                                                       const FS_Info_Item&) {
  return nullptr;
}

Sub_Filesystem* Btrfs_Filesystem::get_sub_filesystem(const char* name) const {
  if (!sub_filesystem_exist(name)) return nullptr;
  return checked(new (std::nothrow) Btrfs_Sub_Filesystem(mount_point_.c_str(), name));
}

bool Btrfs_Filesystem::sub_filesystem_exist(const char* name) const {
  return sub_volume_exist(name);
}

bool Btrfs_Filesystem::fstab_entry_exist(const char* dev) {
  if (dev == nullptr || *dev == '\0') return LOG_VIOLATION("dev is NULL or \"\"");
  ACE_Read_Guard<lock_type> guard(lock_);
  return guard.locked() != 0 && fstab_has(fstab_files(), dev);
}

bool Btrfs_Filesystem::edit_fstab(bool remove, const char* opts) {
  const std::lock_guard<std::mutex> process_guard(fstab_lock());
  if (fstab_entry_exist(device_.c_str()) != remove) return true;
  ACE_Write_Guard<lock_type> guard(lock_);
  if (guard.locked() == 0) return false;
  if (remove) return fstab_remove(fstab_files(), device_);
  return fstab_add(fstab_files(), {device_, mount_point_, "btrfs", opts != nullptr ? opts : ""});
}

}  // namespace scsi_pool
