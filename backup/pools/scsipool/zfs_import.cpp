#include "backup/pools/scsipool/zfs_import.h"

#include <chrono>
#include <vector>

#include "backup/pools/scsipool/zfs_helper.h"
#include "platform/base/log.h"
#include "platform/process/tool_options.h"
#include "platform/zfs/zfs_host.h"
#include "platform/zfs/zfs_tool.h"

namespace scsi_pool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds LINKS_LIMIT(30);
constexpr unsigned HEALTH_LIMIT = 10;  // seconds

bool is_imported(const std::string& zpool) {
  const zfs::Pool_Presence presence = zfs::pool_presence(zpool);
  if (presence != zfs::Pool_Presence::unknown) return presence == zfs::Pool_Presence::imported;
  std::string state;
  return pool_health(zpool, state);
}

bool run_import(const std::string& pool_id, const std::string& folder) {
  std::string errors;
  const std::string place = zfs_quoted(folder);
  if (zfs_call(platform::format_command("zpool import -d %s -N \"%s\"", place.c_str(), pool_id.c_str()),
               errors) == 0) {
    return true;
  }
  // The file lies on this host: only the host's own identity has changed.
  const bool other_host = errors.find("in use from another system") != std::string::npos ||
                          errors.find("last accessed by another system") != std::string::npos ||
                          errors.find("The pool can be imported, use 'zpool import -f'") != std::string::npos;
  if (!other_host) return false;
  return zfs_call(platform::format_command("zpool import -d %s -N -f \"%s\"", place.c_str(),
                                           pool_id.c_str())) == 0;
}

// udev makes the links of all volumes at the same time, so one limit is for all.
void wait_for_links(const std::string& pool_id) {
  zfs::Tool_Result listed;
  if (!zfs::run_tool({"zfs", "list", "-H", "-r", "-t", "volume", "-o", "name", pool_id}, zfs::READ_LIMIT,
                     listed)) {
    LOG_FAILURE("Failed to list the volumes of ZFS '%s'\n", pool_id.c_str());
    return;
  }
  const Clock::time_point deadline = Clock::now() + LINKS_LIMIT;
  for (const std::string& volume : listed.lines) {
    const auto left = std::chrono::duration_cast<std::chrono::seconds>(deadline - Clock::now()).count();
    const std::string path = zfs::zvol_path(volume);
    if (zfs::wait_for_device(path, left > 0 ? static_cast<unsigned>(left) : 0)) continue;
    LOG_FAILURE("Failed to find the device '%s' of an imported ZFS pool\n", path.c_str());
  }
}

}  // namespace

bool import_pool(const std::string& pool_id, const std::string& backing_folder) {
  if (!zfs_names_ok(pool_id, {pool_id.c_str()})) return false;
  if (!is_imported(pool_id) && !run_import(pool_id, backing_folder)) {
    return LOG_FAILURE("Failed to import ZFS pool '%s' from '%s'\n", pool_id.c_str(), backing_folder.c_str());
  }
  wait_for_links(pool_id);
  return true;
}

bool import_pool(const std::string& pool_id) {
  return import_pool(pool_id, "/orbistor/scsipool_backstore");
}

bool pool_health(const std::string& zpool, std::string& state) {
  // A dataset on the global device is as healthy as the device.
  const std::string pool = zpool.substr(0, zpool.find('/'));
  if (!zfs_names_ok(pool, {pool.c_str()})) return false;
  zfs::Tool_Result result;
  const bool answered = zfs::run_tool({"zpool", "list", "-H", "-o", "health", pool}, HEALTH_LIMIT, result);
  if (answered && result.lines.size() == 1) {
    state = result.lines[0];
    return true;
  }
  state = result.errors.find("no such pool") != std::string::npos ? "absent" : "unknown";
  return false;
}

}  // namespace scsi_pool
