#include "platform/process/holder.h"

#include <mntent.h>
#include <sys/stat.h>

#include <cstdio>

#include <filesystem>
#include <system_error>
#include <vector>

#include "platform/base/file.h"

namespace platform {

namespace {

namespace fs = std::filesystem;

bool is_same(const struct stat& wanted, const std::string& path) {
  struct stat other;
  if (::stat(path.c_str(), &other) != 0) return false;
  if (S_ISBLK(wanted.st_mode)) return S_ISBLK(other.st_mode) && other.st_rdev == wanted.st_rdev;
  return other.st_dev == wanted.st_dev && other.st_ino == wanted.st_ino;
}

std::vector<std::string> entries_of(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error))
    names.push_back(at->path().filename().string());
  return names;
}

bool has_open(const std::string& pid, const struct stat& wanted) {
  const std::string folder = "/proc/" + pid + "/fd";
  for (const std::string& handle : entries_of(folder)) {
    if (is_same(wanted, folder + "/" + handle)) return true;
  }
  return false;
}

std::string first_line(const std::string& path) {
  std::string text;
  if (!read_file(path, text)) return "";
  return text.substr(0, text.find('\n'));
}

void add_processes(const struct stat& wanted, std::vector<std::string>& holders) {
  for (const std::string& pid : entries_of("/proc")) {
    if (pid.find_first_not_of("0123456789") != std::string::npos || !has_open(pid, wanted)) continue;
    holders.push_back(first_line("/proc/" + pid + "/comm") + " (pid " + pid + ")");
  }
}

void add_mounts(const struct stat& wanted, std::vector<std::string>& holders) {
  FILE* table = ::setmntent("/proc/mounts", "re");
  if (table == nullptr) return;
  mntent entry;
  char buffer[16384];
  while (::getmntent_r(table, &entry, buffer, sizeof buffer) != nullptr) {
    if (entry.mnt_fsname[0] == '/' && is_same(wanted, entry.mnt_fsname))
      holders.push_back(std::string("mounted on ") + entry.mnt_dir);
  }
  ::endmntent(table);
}

void add_loop_devices(const struct stat& wanted, std::vector<std::string>& holders) {
  for (const std::string& name : entries_of("/sys/block")) {
    const std::string backing = first_line("/sys/block/" + name + "/loop/backing_file");
    if (!backing.empty() && is_same(wanted, backing)) holders.push_back("loop device /dev/" + name);
  }
}

}  // namespace

std::string device_holders(const std::string& path) {
  struct stat wanted;
  if (::stat(path.c_str(), &wanted) != 0) return "";
  std::vector<std::string> holders;
  add_processes(wanted, holders);
  if (S_ISBLK(wanted.st_mode)) add_mounts(wanted, holders);
  add_loop_devices(wanted, holders);
  std::string text;
  for (const std::string& holder : holders)
    text += (text.empty() ? "" : ", ") + holder;
  return text;
}

}  // namespace platform
