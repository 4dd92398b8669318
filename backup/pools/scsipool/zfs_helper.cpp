#include "backup/pools/scsipool/zfs_helper.h"

#include <ace/OS_NS_errno.h>

#include <algorithm>
#include <boost/algorithm/string.hpp>
#include <new>
#include <vector>

#include "backup/pools/scsipool/zfs_snapshot.h"
#include "platform/base/log.h"
#include "platform/base/names.h"
#include "platform/process/holder.h"
#include "platform/process/process_ex.h"
#include "platform/process/process_manager.h"
#include "platform/process/subprocess.h"
#include "platform/process/tool_options.h"
#include "platform/zfs/zfs_dataset.h"
#include "platform/zfs/zfs_parse.h"
#include "platform/zfs/zfs_tool.h"

namespace scsi_pool {

namespace {

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// What stands in the way is listed in lines of its own, which belong to the message.
std::string one_line(std::string text) {
  while (!text.empty() && text.back() == '\n')
    text.pop_back();
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

}  // namespace

bool zfs_names_ok(const std::string& zpool, std::initializer_list<const char*> names) {
  std::string why;
  if (!platform::valid_dataset_path(zpool, why)) {
    return LOG_FAILURE("Failed to use ZFS '%s': %s\n", zpool.c_str(), why.c_str());
  }
  for (const char* name : names) {
    if (platform::valid_dataset_name(name ? name : "", why)) continue;
    return LOG_FAILURE("Failed to use the name '%s' in ZFS '%s': %s\n", name ? name : "", zpool.c_str(),
                       why.c_str());
  }
  return true;
}

std::string zfs_quoted(const std::string& text) {
  return text.find_first_of(" #~[]{}!") == std::string::npos ? text : '"' + text + '"';
}

int zfs_call(const std::string& command, std::string& errors) {
  const int status = subprocess::call_stderr(errors, "%s", command.c_str());
  const int cause = errno;
  if (!errors.empty()) LOG_NOTICE("%s: %s\n", command.c_str(), one_line(errors).c_str());
  if (status == 0) return 0;
  errno = cause;
  if (contains(errors, "busy")) errno = EBUSY;
  if (contains(errors, "has children") || contains(errors, "dependent clones")) errno = ENOTEMPTY;
  return status;
}

int zfs_call(const std::string& command) {
  std::string errors;
  return zfs_call(command, errors);
}

void zfs_log_holder(const std::string& dataset, const std::string& path) {
  const int cause = errno;
  const std::string holders = platform::device_holders(path);
  const char* words = holders.empty() ? "the kernel, as a LUN export does" : holders.c_str();
  LOG_NOTICE("ZFS '%s' is held by %s\n", dataset.c_str(), words);
  errno = cause;
}

bool zfs_snapshot_exist(const std::string& zpool, const std::string& name, const char* snapshot) {
  if (!zfs_names_ok(zpool, {name.c_str(), snapshot})) return false;
  return ZFS_Dataset(zpool + "/" + name + "@" + snapshot, false).open();
}

Snapshot* zfs_get_snapshot(const std::string& zpool, const std::string& name, const char* snapshot) {
  if (!zfs_names_ok(zpool, {name.c_str(), snapshot})) return nullptr;
  ZFS_Dataset dataset(zpool + "/" + name + "@" + snapshot, false);
  if (!dataset.open()) {
    LOG_FAILURE("Failed to get zfs snapshot: snapshot not exist\n");
    return nullptr;
  }
  // What the existence test has read serves the snapshot, too.
  dataset.set_log(true);
  Snapshot* object = new (std::nothrow) ZFS_Snapshot(zpool, name, snapshot, dataset);
  if (!object) errno = ENOMEM;
  return object;
}

Sizes_Read zfs_add_snapshot_sizes(const std::string& zpool, const std::string& name, Snapshot_Sizes& sizes) {
  if (!zfs_names_ok(zpool, {name.c_str()})) return Sizes_Read::TOLD;
  const std::string dataset = zpool + "/" + name;
  const std::vector<std::string> argv = {
      "zfs", "list", "-Hp", "-d", "1", "-t", "snapshot", "-o", "name,used,referenced", dataset};
  zfs::Tool_Result result;
  if (!zfs::run_tool(argv, zfs::READ_LIMIT, result)) {
    LOG_FAILURE("Failed to list the snapshots of ZFS '%s': %s\n", dataset.c_str(),
                zfs::failure_words(argv, result).c_str());
    // Only a dataset that is gone surely has none.
    const bool gone = result.errors.find("does not exist") != std::string::npos;
    return gone ? Sizes_Read::TOLD : Sizes_Read::NO_ANSWER;
  }
  for (const std::string& line : result.lines) {
    std::vector<std::string> columns;
    boost::split(columns, line, boost::is_any_of("\t"));
    Snapshot_Size size;
    if (columns.size() != 3 || columns[0].compare(0, dataset.size() + 1, dataset + "@") != 0 ||
        !zfs::parse_unsigned(columns[1], size.excl) || !zfs::parse_unsigned(columns[2], size.rfer)) {
      LOG_FAILURE("Failed to list the snapshots of ZFS '%s': '%s'\n", dataset.c_str(), line.c_str());
      continue;
    }
    sizes[columns[0].substr(dataset.size() + 1)] = size;
  }
  return Sizes_Read::TOLD;
}

Snapshot* zfs_new_snapshot(const std::string& zpool, const std::string& name, const char* snapshot) {
  Snapshot* object = new (std::nothrow) ZFS_Snapshot(zpool.c_str(), name.c_str(), snapshot);
  if (!object) errno = ENOMEM;
  return object;
}

int zfs_spawn(const std::string& command, ACE_Process_Ex* proc) {
  platform::Tool_Options options(command);
  return Process_Manager::instance()->spawn(proc, options, nullptr);
}

bool zfs_receive(const std::string& zpool, const std::string& name, const char* snapshot, bool force,
                 ACE_Process_Ex* proc) {
  if (!zfs_names_ok(zpool, {name.c_str(), snapshot})) return false;
  const std::string quote = zfs_quoted(zpool + name + snapshot)[0] == '"' ? "\"" : "";
  const std::string command =
      platform::format_command("zfs receive %s %s/%s@%s", force ? "-F" : "", (quote + zpool).c_str(),
                               name.c_str(), (snapshot + quote).c_str());
  LOG_DEBUG("Receive snapshot: %s\n", command.c_str());
  if (zfs_spawn(command, proc) != -1) return true;
  return LOG_FAILURE("Failed to receive ZFS snapshot, run '%s', errno=%d, %m\n", command.c_str(), errno);
}

}  // namespace scsi_pool
