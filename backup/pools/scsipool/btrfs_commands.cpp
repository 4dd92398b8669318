#include "backup/pools/scsipool/btrfs_commands.h"

#include <linux/magic.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "backup/pools/scsipool/btrfs_line_handler.h"
#include "backup/pools/scsipool/btrfs_qgroup_id_getter.h"
#include "backup/pools/scsipool/btrfs_quota.h"
#include "backup/pools/scsipool/filesystem_helper.h"
#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/base/names.h"
#include "platform/process/process_manager.h"
#include "platform/process/subprocess.h"
#include "platform/process/tool_options.h"

namespace scsi_pool {

namespace {

constexpr unsigned int LOGGED_LINES = 8;
constexpr int SHOW_ATTEMPTS = 3;

}  // namespace

bool valid_btrfs_name(const char* name) {
  std::string why;
  if (platform::valid_dataset_name(name, why)) {
    if (std::string(name).find(' ') == std::string::npos) return true;
    why = "a name on Btrfs cannot hold blanks";
  }
  errno = EINVAL;
  return LOG_FAILURE("Failed to use the name '%s' on Btrfs: %s\n", name, why.c_str());
}

std::string btrfs_path(const std::string& mount_point, const std::string& name) {
  return mount_point + '/' + name;
}

bool is_pool_root(const std::string& mount_point) {
  constexpr ino_t SUBVOLUME_ROOT = 256;
  unsigned long type = 0;
  struct stat status {};
  if (!platform::get_filesystem_type(mount_point.c_str(), type) || type != BTRFS_SUPER_MAGIC ||
      ::stat(mount_point.c_str(), &status) != 0 || status.st_ino == SUBVOLUME_ROOT)
    return true;  // anything else the tools refuse
  errno = ENODEV;
  return LOG_FAILURE("Failed to use '%s': no pool is mounted there\n", mount_point.c_str());
}

void btrfs_keep_blocks(const std::string& mount_point) {
  subprocess::call("mount -o remount,nodiscard \"%s\"", mount_point.c_str());
}

bool btrfs_sync(const std::string& mount_point) {
  return subprocess::call("btrfs filesystem sync \"%s\"", mount_point.c_str()) == 0;
}

bool btrfs_snapshot(const std::string& mount_point, const std::string& source, const std::string& target,
                    bool read_only) {
  if (platform::path_exists(btrfs_path(mount_point, target))) {
    errno = EEXIST;
    return false;
  }
  if (read_only) {
    return subprocess::call("btrfs subvolume snapshot -r \"%s/%s\" \"%s/%s\"", mount_point.c_str(),
                            source.c_str(), mount_point.c_str(), target.c_str()) == 0;
  }
  return subprocess::call("btrfs subvolume snapshot \"%s\" \"%s\"", btrfs_path(mount_point, source).c_str(),
                          btrfs_path(mount_point, target).c_str()) == 0;
}

bool remove_btrfs_subvolume(const std::string& mount_point, const std::string& name, bool read_only) {
  if (!valid_btrfs_name(name.c_str())) return false;
  const ACE_UINT64 id = Btrfs_Qgroup_ID_Getter(mount_point, read_only).get_full_id(name);
  Btrfs_Quota quota(mount_point.c_str());
  Btrfs_Quota::Removal removal = Btrfs_Quota::Removal::NOTHING_THERE;
  if (id != 0) removal = quota.remove_subvolume_qgroup(id);
  if (removal == Btrfs_Quota::Removal::FAILED) {
    return LOG_FAILURE("Failed to remove qgroup %hu/%hu in %s\n", 0, static_cast<ACE_UINT16>(id),
                       mount_point.c_str());
  }
  const std::string path = btrfs_path(mount_point, name);
  if (subprocess::call("btrfs subvolume delete \"%s\"", path.c_str()) != 0) {
    if (read_only) return LOG_FAILURE("Failed to delete btrfs snapshot '%s'\n", path.c_str());
    return LOG_FAILURE("Failed to delete btrfs subvolume '%s'\n", path.c_str());
  }
  btrfs_sync(mount_point);
  if (removal == Btrfs_Quota::Removal::REFUSED) quota.clear_stale();
  return true;
}

namespace {

bool show_subvolume(const std::string& mount_point, const std::string& name, Text_Process_Handler& handler) {
  platform::Tool_Options options(
      platform::format_command("btrfs subvolume show \"%s\"", btrfs_path(mount_point, name).c_str()));
  // While others are removed the tool may not find one that is there, whose record would be dropped as lost.
  for (int left = SHOW_ATTEMPTS; left > 0; --left) {
    if (handler.call(LOGGED_LINES, options) == 0) return true;
    const int error = errno;
    const bool there = platform::is_directory(btrfs_path(mount_point, name));
    errno = error;
    if (!there) break;
  }
  return false;
}

}  // namespace

bool show_btrfs_subvolume(const std::string& mount_point, const std::string& name, std::string& ctime,
                          std::string& flags, std::string& name_shown) {
  Btrfs_Show_Line_Handler handler(ctime, flags, name_shown);
  return show_subvolume(mount_point, name, handler);
}

bool read_btrfs_received_uuid(const std::string& mount_point, const std::string& name, std::string& uuid) {
  uuid.clear();
  Btrfs_Received_Line_Handler handler(uuid);
  return show_subvolume(mount_point, name, handler);
}

Btrfs_Sizes get_btrfs_sizes(const std::string& mount_point, const std::string& name, ACE_UINT64& excl,
                            ACE_UINT64& rfer) {
  FS_Info_Item info;
  if (!Btrfs_Quota(mount_point.c_str()).show_qgroup(name.c_str(), info)) return Btrfs_Sizes::NO_GROUP;
  std::string excl_text;
  std::string rfer_text;
  if (!get_info_entry(info, "rfer", rfer_text) || !get_info_entry(info, "excl", excl_text))
    return Btrfs_Sizes::NO_FIGURES;
  excl = std::strtoull(excl_text.c_str(), nullptr, 10);
  rfer = std::strtoull(rfer_text.c_str(), nullptr, 10);
  return Btrfs_Sizes::DONE;
}

bool spawn_btrfs_stream(const std::string& command, ACE_Process_Ex* proc) {
  platform::Tool_Options options(command);
  return Process_Manager::instance()->spawn(proc, options, nullptr) != -1;
}

}  // namespace scsi_pool
