#include "backup/pools/scsipool/btrfs_quota.h"

#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>

#include "backup/pools/scsipool/btrfs_line_handler.h"
#include "backup/pools/scsipool/filesystem_helper.h"
#include "platform/base/log.h"
#include "platform/process/run.h"
#include "platform/process/subprocess.h"
#include "platform/process/tool_options.h"

namespace scsi_pool {

namespace {

constexpr unsigned int LOGGED_LINES = 8;
constexpr std::chrono::minutes RESCAN_INTERVAL(10);

bool holds(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// True at most once in the interval for each filesystem.
bool rescan_is_due(const std::string& mount_point) {
  static std::mutex lock;
  static std::map<std::string, std::chrono::steady_clock::time_point> last;
  const auto now = std::chrono::steady_clock::now();
  const std::lock_guard<std::mutex> guard(lock);
  const auto found = last.find(mount_point);
  if (found != last.end() && now - found->second < RESCAN_INTERVAL) return false;
  last[mount_point] = now;
  return true;
}

}  // namespace

bool Btrfs_Quota::enable(bool val) {
  if (mount_point_.empty()) return LOG_VIOLATION("mount_point_ is empty");
  const char* verb = val ? "enable" : "disable";
  if (subprocess::call("btrfs quota %s \"%s\"", verb, mount_point_.c_str()) == 0) return true;
  return LOG_FAILURE("Failed to %s '%s' btrfs quota\n", verb, mount_point_.c_str());
}

bool Btrfs_Quota::create_qgroup(bool create, ACE_UINT16 qgroup_level, ACE_UINT16 qgroup_id) {
  if (mount_point_.empty()) return LOG_VIOLATION("mount_point_ is empty");
  return subprocess::call("btrfs qgroup %s %hu/%hu \"%s\"", create ? "create" : "destroy", qgroup_level,
                          qgroup_id, mount_point_.c_str()) == 0;
}

bool Btrfs_Quota::show_qgroup(const char* sub_path, FS_Info_Item& info) const {
  if (sub_path == nullptr || *sub_path == '\0') return LOG_VIOLATION("sub_path is NULL or \"\"");
  if (mount_point_.empty()) return LOG_VIOLATION("mount_point_ is empty");
  FS_Info_List groups;
  QuotaGroup_Line_Handler handler(groups);
  platform::Tool_Options options(
      platform::format_command("btrfs qgroup show -pc -f \"%s/%s\"", mount_point_.c_str(), sub_path));
  if (handler.call(LOGGED_LINES, options) != 0) {
    return LOG_FAILURE("Failed to list btrfs qgroup, errno=%d, %m\n", errno);
  }
  rescan_if_advised(handler.errors());
  for (const json_spirit::Value& value : groups) {
    const json_spirit::Object* group = json_spirit::get_object(value);
    std::string level;
    std::string rfer;
    std::string excl;
    if (group == nullptr || !get_info_entry(*group, "level", level) ||
        !get_info_entry(*group, "rfer", rfer) || !get_info_entry(*group, "excl", excl)) {
      continue;
    }
    info["level"] = level;
    info["rfer"] = rfer;
    info["excl"] = excl;
    return true;
  }
  return false;
}

Btrfs_Quota::Removal Btrfs_Quota::remove_subvolume_qgroup(ACE_UINT64 id) {
  std::string errors;
  const int status = subprocess::call_stderr(errors, "btrfs qgroup destroy 0/%llu \"%s\"",
                                             static_cast<unsigned long long>(id), mount_point_.c_str());
  if (status == 0) return Removal::REMOVED;
  if (holds(errors, "Device or resource busy")) return Removal::REFUSED;
  if (holds(errors, "No such file or directory") || holds(errors, "quota not enabled") ||
      holds(errors, "not connected")) {
    return Removal::NOTHING_THERE;
  }
  platform::log_errors("btrfs qgroup destroy", errors, LOGGED_LINES, nullptr);
  return Removal::FAILED;
}

void Btrfs_Quota::clear_stale() {
  std::string errors;
  subprocess::call_stderr(errors, "btrfs qgroup clear-stale \"%s\"", mount_point_.c_str());
  rescan_if_advised(errors);
}

void Btrfs_Quota::rescan_if_advised(const std::string& errors) const {
  if (!holds(errors, "rescan recommended") || !rescan_is_due(mount_point_)) return;
  LOG_NOTICE("Quota figures of '%s' are inconsistent, rescan started\n", mount_point_.c_str());
  // Fails when one is running already.
  std::string ignored;
  subprocess::call_stderr(ignored, "btrfs quota rescan \"%s\"", mount_point_.c_str());
}

}  // namespace scsi_pool
