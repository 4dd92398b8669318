#include "platform/zfs/zfs_host.h"

#include <fcntl.h>
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

namespace zfs {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds POLL_STEP(20);

bool is_block_device(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
}

template <typename Done>
bool poll_until(std::chrono::milliseconds limit, Done done) {
  const Clock::time_point deadline = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(POLL_STEP);
  }
  return true;
}

// "v1-part2" is the link of a partition inside volume v1.
bool is_partition(const std::string& name) {
  const std::size_t at = name.rfind("-part");
  if (at == std::string::npos || at + 5 == name.size()) return false;
  return name.find_first_not_of("0123456789", at + 5) == std::string::npos;
}

// A label is 256 KiB; its configuration, an XDR name-value list, starts after 16 KiB and takes 112 KiB.
// A device carries two labels in front and two at its end.
constexpr std::size_t LABEL_SIZE = 256 * 1024;
constexpr std::size_t CONFIG_OFFSET = 16 * 1024;
constexpr std::size_t CONFIG_SIZE = 112 * 1024;
constexpr unsigned STATE_DESTROYED = 2;

// The value of "state" in a label's configuration; false when there is no configuration.
bool label_state(const std::string& config, unsigned& state) {
  // Name length 5, the name padded to 8, data type 8 (a 64 bit number), one element; the number follows.
  static const std::string key("\0\0\0\5state\0\0\0\0\0\0\10\0\0\0\1", 20);
  constexpr char XDR = 1;
  if (config.empty() || config[0] != XDR) return false;
  const std::size_t at = config.find(key);
  if (at == std::string::npos || at + key.size() + 8 > config.size()) return false;
  state = static_cast<unsigned char>(config[at + key.size() + 7]);
  return true;
}

bool live_label_at(int fd, off_t offset) {
  std::string config(CONFIG_SIZE, '\0');
  const ssize_t got = pread(fd, &config[0], config.size(), offset + static_cast<off_t>(CONFIG_OFFSET));
  if (got <= 0) return false;
  config.resize(static_cast<std::size_t>(got));
  unsigned state = 0;
  return label_state(config, state) && state != STATE_DESTROYED;
}

}  // namespace

Host_Paths& host_paths() {
  static Host_Paths paths;
  return paths;
}

std::string zvol_path(const std::string& dataset) {
  return host_paths().dev + "/zvol/" + dataset;
}

bool is_volume_device(const std::string& path) {
  const Host_Paths& paths = host_paths();
  return paths.is_device ? paths.is_device(path) : is_block_device(path);
}

bool wait_for_device(const std::string& path, unsigned seconds) {
  return poll_until(std::chrono::seconds(seconds), [&path] { return is_volume_device(path); });
}

bool wait_until_gone(const std::string& path, unsigned milliseconds) {
  return poll_until(std::chrono::milliseconds(milliseconds), [&path] {
    struct stat status = {};
    return lstat(path.c_str(), &status) != 0;
  });
}

bool exclusive_open_succeeds(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return errno != EBUSY;
  close(fd);
  return true;
}

Pool_Presence pool_presence(const std::string& zpool) {
  const std::string pools = host_paths().proc + "/spl/kstat/zfs";
  std::error_code ignored;
  if (!fs::is_directory(pools, ignored)) return Pool_Presence::unknown;
  return fs::is_directory(pools + "/" + zpool, ignored) ? Pool_Presence::imported : Pool_Presence::absent;
}

std::vector<std::string> linked_volumes(const std::string& zpool) {
  std::vector<std::string> volumes;
  std::error_code ended;
  for (fs::directory_iterator entry(zvol_path(zpool), ended), last; !ended && entry != last;
       entry.increment(ended)) {
    const std::string name = entry->path().filename();
    std::error_code ignored;
    if (entry->is_symlink(ignored) && !is_partition(name)) volumes.push_back(name);
  }
  std::sort(volumes.begin(), volumes.end());
  return volumes;
}

std::vector<std::string> mounted_datasets(const std::string& zpool) {
  std::vector<std::string> datasets;
  const std::string table = host_paths().proc + "/self/mounts";
  const std::unique_ptr<FILE, int (*)(FILE*)> mounts(setmntent(table.c_str(), "re"), endmntent);
  if (!mounts) return datasets;
  mntent entry = {};
  char line[8192];
  while (getmntent_r(mounts.get(), &entry, line, sizeof line)) {
    const std::string source = entry.mnt_fsname;
    const bool inside = source == zpool || source.compare(0, zpool.size() + 1, zpool + "/") == 0;
    if (inside && std::strcmp(entry.mnt_type, "zfs") == 0) datasets.push_back(source);
  }
  std::reverse(datasets.begin(), datasets.end());
  return datasets;
}

bool carries_pool_label(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const off_t label = static_cast<off_t>(LABEL_SIZE);
  const off_t end = lseek(fd, 0, SEEK_END) / label * label;
  bool live = false;
  if (end >= 4 * label) {
    for (const off_t at : {off_t{0}, label, end - 2 * label, end - label})
      live = live || live_label_at(fd, at);
  }
  close(fd);
  return live;
}

}  // namespace zfs
