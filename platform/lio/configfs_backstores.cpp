#include "platform/lio/configfs_backstores.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/lio/configfs_objects.h"
#include "platform/lio/lio_names.h"

namespace lio {

namespace {

constexpr unsigned long BLOCK = 512;
const char* const FILE_ADAPTER = "fileio_0";
const char* const BLOCK_ADAPTER = "iblock_0";
const char* const SERIAL_PREFIX = "T10 VPD Unit Serial Number: ";

std::string name_of(const std::string& backstore) {
  return backstore.substr(backstore.find('/') + 1);
}

bool starts(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

// The kernel would create a missing file and export zeros, so it is opened here first.
bool check_file(Volume& volume) {
  const char* path = volume.path.c_str();
  if (starts(volume.path, "/dev/"))
    return LOG_FAILURE("Failed to create backstore: '%s' is a file where devices belong\n", path);
  const int handle = platform::open_cloexec(volume.path, O_RDWR | O_NONBLOCK);
  if (handle < 0) return LOG_FAILURE("Failed to create backstore: cannot open '%s': %m\n", path);
  struct stat status;
  bool good = ::fstat(handle, &status) == 0 && S_ISREG(status.st_mode);
  if (!good) LOG_FAILURE("Failed to create backstore: '%s' is no regular file\n", path);
  const unsigned long there = good ? static_cast<unsigned long>(status.st_size) : 0;
  const unsigned long wanted = (std::max(there, volume.size) + BLOCK - 1) / BLOCK * BLOCK;
  if (good && there < wanted && ::ftruncate(handle, static_cast<off_t>(wanted)) != 0)
    good = LOG_FAILURE("Failed to create backstore: cannot grow '%s' to %Q bytes: %m\n", path,
                       ACE_UINT64(wanted));
  ::close(handle);
  volume.size = wanted;
  return good;
}

bool identity_of(const std::string& path, std::pair<unsigned long, unsigned long>& identity) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  identity = {status.st_dev, status.st_ino};
  return true;
}

}  // namespace

LIO_Backstore::Type Backstores::type(const std::string& backstore) {
  return starts(backstore, "iblock_") ? LIO_Backstore::block : LIO_Backstore::file;
}

std::string Backstores::filesystem(const std::string& path) {
  struct statfs status;
  if (::statfs(path.c_str(), &status) != 0) return "";
  // The other half of the identity differs among the subvolumes of one Btrfs.
  int halves[2];
  static_assert(sizeof(halves) == sizeof(status.f_fsid), "a filesystem's identity has two halves");
  std::memcpy(halves, &status.f_fsid, sizeof(halves));
  char text[40];
  std::snprintf(text, sizeof(text), "%lx-%x", static_cast<unsigned long>(status.f_type),
                static_cast<unsigned>(halves[0]));
  return text;
}

std::string Backstores::path(const std::string& backstore) const {
  return context_->tree().value("core/" + backstore + "/udev_path");
}

std::string Backstores::file(const std::string& backstore) const {
  const std::string info = context_->tree().value("core/" + backstore + "/info");
  const std::size_t from = info.find("File: ");
  const std::size_t to = info.rfind("  Size: ");
  if (from == std::string::npos || to == std::string::npos || to < from) return path(backstore);
  return info.substr(from + 6, to - from - 6);
}

std::string Backstores::serial(const std::string& backstore) const {
  const std::string text = context_->tree().value("core/" + backstore + "/wwn/vpd_unit_serial");
  return starts(text, SERIAL_PREFIX) ? text.substr(std::strlen(SERIAL_PREFIX)) : text;
}

unsigned long Backstores::size(const std::string& backstore) const {
  const std::string info = context_->tree().value("core/" + backstore + "/info");
  const std::size_t at = info.find("  Size: ");
  return at == std::string::npos ? 0 : std::strtoul(info.c_str() + at + 8, nullptr, 10);
}

std::map<std::string, Folder_State> Backstores::states() const {
  std::map<std::string, Folder_State> states;
  for (const std::string& adapter : context_->tree().names("core")) {
    unsigned number = 0;
    if (numbered_name(adapter, "fileio_", number) || numbered_name(adapter, "iblock_", number))
      states[adapter] = context_->tree().state("core/" + adapter);
  }
  return states;
}

std::vector<std::string> Backstores::all() const {
  std::vector<std::string> found;
  for (const auto& adapter : states()) {
    std::vector<std::string> names;
    context_->tree().list("core/" + adapter.first, names);
    for (const std::string& name : names)
      if (name != "hba_info" && name != "hba_mode") found.push_back(adapter.first + "/" + name);
  }
  return found;
}

// Brings what is known of the backstores up to date.
void Backstores::look() {
  std::map<std::string, Folder_State> now = states();
  if (now == seen_) return;
  seen_.swap(now);
  const std::vector<std::string> found = all();
  known_ = std::set<std::string>(found.begin(), found.end());
  by_file_.clear();
  std::map<std::string, Identity> files;
  for (const std::string& backstore : known_) {
    const auto before = files_.find(backstore);
    Identity identity;
    if (before != files_.end())
      identity = before->second;
    else if (type(backstore) == LIO_Backstore::block || !identity_of(file(backstore), identity))
      continue;
    files[backstore] = identity;
    by_file_.emplace(identity, backstore);
  }
  files_.swap(files);
}

std::vector<std::string> Backstores::own() const {
  std::vector<std::string> found;
  for (const std::string& backstore : all())
    if (own_backstore(backstore)) found.push_back(backstore);
  return found;
}

bool Backstores::find(const std::string& name, std::string& backstore) const {
  if (name.empty() || name.find('/') != std::string::npos) return false;
  for (const char* adapter : {FILE_ADAPTER, BLOCK_ADAPTER}) {
    backstore = std::string(adapter) + "/" + name;
    if (context_->tree().exists("core/" + backstore)) return true;
  }
  for (const std::string& one : all()) {
    backstore = one;
    if (name_of(one) == name) return true;
  }
  return false;
}

bool Backstores::remove(const std::string& backstore) {
  Configfs& tree = context_->tree();
  if (!own_backstore(backstore))
    return LOG_FAILURE("Failed to remove backstore '%s': it was not made by this system\n",
                       backstore.c_str());
  const int error = tree.remove_folder("core/" + backstore);
  if (error == EBUSY) {
    const std::vector<std::string> users = users_of(*context_, backstore);
    return LOG_FAILURE("Failed to remove backstore '%s': it is used by '%s'\n", backstore.c_str(),
                       users.empty() ? "the kernel" : users[0].c_str());
  }
  if (!tree.clear_folder("core/" + backstore)) return false;
  files_.erase(backstore);
  FAULT_POINT("lio.backstore_removed");
  return true;
}

bool Backstores::check(Volume& volume) const {
  std::string why;
  if (!valid_backstore_path(volume.path, why))
    return LOG_FAILURE("Failed to create backstore: path '%s': %s\n", volume.path.c_str(), why.c_str());
  if (volume.type == LIO_Backstore::block) {
    volume.size = 0;
    if (platform::is_block_device(volume.path)) return true;
    return LOG_FAILURE("Failed to create backstore: '%s' is no block device\n", volume.path.c_str());
  }
  if (volume.size == 0)
    return LOG_FAILURE("Failed to create backstore: '%s' would have a size of 0\n", volume.path.c_str());
  return check_file(volume);
}

// The folder that was just made needs no new look, if it is the only one.
void Backstores::remember(const Volume& volume, const std::string& backstore) {
  Identity identity;
  if (identity_of(volume.path, identity)) {
    files_[backstore] = identity;
    by_file_.emplace(identity, backstore);
  }
  const std::string adapter = backstore.substr(0, backstore.find('/'));
  const Folder_State now = context_->tree().state("core/" + adapter);
  const auto seen = seen_.find(adapter);
  if (seen == seen_.end() || now.links != seen->second.links + 1) return;
  seen->second = now;
  known_.insert(backstore);
}

// Two devices with one identity are one disk to an initiator, whose data then mix.
bool Backstores::serial_free(const Volume& volume, const std::string& serial) const {
  const std::string identity = device_identity(serial);
  // Our names carry the serial, and nearly all differ in its first group, which saves reading it.
  const std::string own_start = std::string("/") + BACKSTORE_MARK + serial.substr(0, 8);
  for (const std::string& backstore : known_) {
    const std::size_t slash = backstore.find('/');
    if (own_backstore(backstore) && backstore.compare(slash, own_start.size(), own_start) != 0) continue;
    const std::string other = this->serial(backstore);
    if (!other.empty() && device_identity(other) == identity && path(backstore) != volume.path) return false;
  }
  return true;
}

bool Backstores::choose_serial(const Volume& volume, std::string& serial) const {
  const std::string recorded = context_->record().serial_of(volume.path);
  for (const std::string& one : {serial, recorded, serial_of_path(volume.path), path_serial(volume.path)}) {
    if (one.empty() || !serial_free(volume, one)) continue;
    serial = one;
    return true;
  }
  return LOG_FAILURE("Failed to create backstore: '%s' would have the serial number of another device\n",
                     volume.path.c_str());
}

// A backstore of that name over the same path is a leftover unless a LUN uses it.
bool Backstores::clear_leftover(const Volume& volume, const std::string& backstore) {
  if (!context_->tree().exists("core/" + backstore)) return true;
  const std::vector<std::string> users = users_of(*context_, backstore);
  if (!users.empty())
    return LOG_FAILURE("Failed to create backstore: '%s' is exported already as '%s'\n", volume.path.c_str(),
                       users[0].c_str());
  return remove(backstore);
}

// The kernel accepts the same file in two backstores, which silently corrupts it.
bool Backstores::used_elsewhere(const Volume& volume) {
  Identity mine;
  if (volume.type == LIO_Backstore::block || !identity_of(volume.path, mine)) return false;
  std::vector<std::string> same;
  const auto range = by_file_.equal_range(mine);
  for (auto one = range.first; one != range.second; ++one) {
    Identity its;  // a file may have been replaced since
    if (identity_of(file(one->second), its) && its == mine) same.push_back(one->second);
  }
  for (const std::string& backstore : same)
    if (!own_backstore(backstore) || !clear_leftover(volume, backstore)) {
      LOG_FAILURE("Failed to create backstore: '%s' is the file of backstore '%s' already\n",
                  volume.path.c_str(), backstore.c_str());
      return true;
    }
  return false;
}

bool Backstores::create(LIO_Backstore::Type type, const std::string& path, unsigned long size,
                        const std::string& wanted_serial, std::string& backstore) {
  const Change change(context_);
  if (!change.held()) return false;
  Volume volume{type, path, size};
  std::string serial = wanted_serial;
  if (!check(volume)) return false;
  look();
  if (used_elsewhere(volume) || !choose_serial(volume, serial)) return false;
  const std::string adapter = type == LIO_Backstore::block ? BLOCK_ADAPTER : FILE_ADAPTER;
  backstore = adapter + "/" + BACKSTORE_MARK + serial;
  if (!clear_leftover(volume, backstore)) return false;
  if (!context_->tree().ensure_folder("core/" + adapter)) return false;
  if (!build(volume, serial, backstore)) return false;
  remember(volume, backstore);
  return true;
}

bool Backstores::build(const Volume& volume, const std::string& serial, const std::string& backstore) {
  Configfs& tree = context_->tree();
  const std::string folder = "core/" + backstore;
  if (!tree.ensure_folder(folder)) return false;
  FAULT_POINT("lio.backstore_made");
  if (!configure(volume, serial, backstore) || !check_built(volume, backstore)) {
    LOG_FAILURE("Failed to create backstore over '%s'\n", volume.path.c_str());
    tree.clear_folder(folder);
    return false;
  }
  // Only an enabled device may be asked for it: before, the kernel dies of it. A device that cannot give
  // space back refuses, and is no worse for it.
  const int error = tree.write(folder + "/attrib/emulate_tpu", "1");
  if (error != 0)
    LOG_INFO("'%s' does not give back unused space: %s\n", volume.path.c_str(), std::strerror(error));
  FAULT_POINT("lio.backstore_tuned");
  return true;
}

bool Backstores::configure(const Volume& volume, const std::string& serial, const std::string& backstore) {
  Configfs& tree = context_->tree();
  const std::string folder = "core/" + backstore;
  // Buffered: the initiator is told of a write cache, and its flushes and forced writes reach the file.
  const std::string control = volume.type == LIO_Backstore::block
                                  ? "udev_path=" + volume.path
                                  : "fd_dev_name=" + volume.path +
                                        ",fd_dev_size=" + std::to_string(volume.size) + ",fd_buffered_io=1";
  if (!tree.set(folder + "/control", control)) return false;
  FAULT_POINT("lio.backstore_controlled");
  if (!tree.set(folder + "/wwn/vpd_unit_serial", serial)) return false;
  if (!tree.set(folder + "/udev_path", volume.path)) return false;
  FAULT_POINT("lio.backstore_named");
  if (!tree.set(folder + "/enable", "1")) return false;
  FAULT_POINT("lio.backstore_enabled");
  return true;
}

bool Backstores::check_built(const Volume& volume, const std::string& backstore) const {
  const Configfs& tree = context_->tree();
  const std::string folder = "core/" + backstore;
  if (tree.value(folder + "/enable") != "1")
    return LOG_FAILURE("Failed to enable '%s'\n", tree.full(folder).c_str());
  const std::string info = tree.value(folder + "/info");
  const std::string wanted = volume.type == LIO_Backstore::block
                                 ? "UDEV PATH: " + volume.path
                                 : "File: " + volume.path + "  Size: " + std::to_string(volume.size);
  if (info.find(wanted) == std::string::npos)
    return LOG_FAILURE("Failed to check backstore: the kernel shows '%s' and not '%s'\n", info.c_str(),
                       wanted.c_str());
  return true;
}

}  // namespace lio
