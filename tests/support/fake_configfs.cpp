#include "tests/support/fake_configfs.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

bool ends(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::vector<std::string> split(const std::string& path) {
  std::vector<std::string> parts;
  for (const fs::path& part : fs::path(path))
    parts.push_back(part.string());
  return parts;
}

bool starts(const std::string& text, const std::string& start) {
  return text.rfind(start, 0) == 0;
}

std::string option(const std::string& control, const std::string& key) {
  const std::size_t at = control.find(key + "=");
  if (at == std::string::npos) return "";
  const std::size_t from = at + key.size() + 1;
  return control.substr(from, control.find(',', from) - from);
}

}  // namespace

Fake_Configfs::Fake_Configfs(const std::string& root) : Configfs(root) {
  fs::create_directories(full("core"));
}

void Fake_Configfs::fail(const std::string& operation, const std::string& end, int error, int times) {
  failures_.push_back({operation, end, error, times});
}

void Fake_Configfs::reboot() {
  for (const auto& entry : fs::directory_iterator(full("")))
    fs::remove_all(entry);
  fs::create_directories(full("core"));
}

std::string Fake_Configfs::listing() const {
  std::vector<std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(full(""))) {
    const std::string name = entry.path().filename().string();
    const bool made = starts(name, "lun_") || starts(name, "tpgt_") || starts(name, "scsipool-") ||
                      starts(name, "iqn.") || name.find(":3260") != std::string::npos || entry.is_symlink();
    if (made) found.push_back(entry.path().string().substr(full("").size()));
  }
  std::sort(found.begin(), found.end());
  std::string text;
  for (const std::string& line : found)
    text += line + "\n";
  return text;
}

int Fake_Configfs::enter(const std::string& operation, const std::string& path, const std::string& value) {
  changes_.push_back(operation + " " + path + (value.empty() ? "" : "=" + value));
  for (Failure& failure : failures_) {
    if (failure.operation != operation || !ends(path, failure.end) || failure.times == 0) continue;
    if (failure.times > 0) --failure.times;
    return failure.error;
  }
  return 0;
}

void Fake_Configfs::put(const std::string& path, const std::string& text) const {
  fs::create_directories(fs::path(full(path)).parent_path());
  std::ofstream(full(path)) << text << "\n";
}

void Fake_Configfs::populate(const std::string& path) {
  const std::vector<std::string> parts = split(path);
  const std::string& last = parts.back();
  if (parts[0] == "core" && parts.size() == 3) {
    for (const char* file : {"/control", "/udev_path", "/info", "/wwn/vpd_unit_serial"})
      put(path + file, "");
    put(path + "/enable", "0");
    put(path + "/attrib/emulate_tpu", "0");
  }
  if (parts[0] == "iscsi" && parts.size() == 2) put(path + "/fabric_statistics/iscsi_instance/sessions", "0");
  if (starts(last, "tpgt_") && parts[0] == "iscsi") {
    for (const char* name : {"generate_node_acls", "cache_dynamic_acls"})
      put(path + "/attrib/" + name, groups_open_ ? "1" : "0");
    put(path + "/attrib/prod_mode_write_protect", "0");
    for (const char* name : {"authentication", "demo_mode_write_protect", "demo_mode_discovery"})
      put(path + "/attrib/" + name, "1");
    put(path + "/enable", "0");
    fs::create_directory(full(path + "/np"));
  }
  if (starts(last, "tpgt_"))
    for (const char* folder : {"/lun", "/acls"})
      fs::create_directory(full(path + folder));
  if (starts(last, "lun_")) fs::create_directory(full(path + "/statistics"));
  if (starts(last, "lun_") && parts.size() > 4 && parts[3] == "acls") put(path + "/write_protect", "0");
}

int Fake_Configfs::make_folder(const std::string& path) {
  if (const int error = enter("mkdir", path, "")) return error;
  if (split(path).size() == 1 && path != "iscsi" && path != "loopback") return EINVAL;
  if (exists(path)) return EEXIST;
  const int error = Configfs::make_folder(path);
  if (error == 0) populate(path);
  return error;
}

bool Fake_Configfs::linked(const std::string& part) const {
  for (const auto& entry : fs::recursive_directory_iterator(full("")))
    if (entry.is_symlink() && ends(fs::read_symlink(entry.path()).string(), "/" + part)) return true;
  return false;
}

// Why the kernel would not remove the folder; 0 when it would.
int Fake_Configfs::refusal(const std::string& path) const {
  const std::string last = split(path).back();
  if (linked(path)) return EBUSY;
  for (const auto& entry : fs::directory_iterator(full(path))) {
    const std::string name = entry.path().filename().string();
    if (entry.is_symlink() || starts(name, "lun_") || starts(name, "tpgt_")) return ENOTEMPTY;
  }
  if (starts(last, "tpgt_"))
    for (const char* folder : {"/lun", "/acls", "/np"})
      if (fs::exists(full(path + folder)) && !fs::is_empty(full(path + folder))) return ENOTEMPTY;
  return 0;
}

int Fake_Configfs::remove_folder(const std::string& path) {
  if (const int error = enter("rmdir", path, "")) return error;
  if (!exists(path)) return ENOENT;
  if (const int error = refusal(path)) return error;
  fs::remove_all(full(path));
  return 0;
}

int Fake_Configfs::make_link(const std::string& to, const std::string& path) {
  if (const int error = enter("symlink", path, "")) return error;
  if (starts(to, "core/") && value(to + "/enable") != "1") return ENODEV;
  return Configfs::make_link(to, path);
}

int Fake_Configfs::remove_link(const std::string& path) {
  if (const int error = enter("unlink", path, "")) return error;
  return Configfs::remove_link(path);
}

int Fake_Configfs::enable_backstore(const std::string& folder) {
  const std::string control = value(folder + "/control");
  const std::string file = option(control, "fd_dev_name");
  const std::string mode = control.find("fd_buffered_io=1") == std::string::npos ? "O_DSYNC" : "Buffered-WCE";
  put(folder + "/info", "TCM FILEIO ID: 0  File: " + file + "  Size: " + option(control, "fd_dev_size") +
                            "  Mode: " + mode + " Async: 0");
  if (starts(folder, "core/iblock")) put(folder + "/info", "UDEV PATH: " + option(control, "udev_path"));
  put(folder + "/enable", "1");
  return 0;
}

int Fake_Configfs::write(const std::string& path, const std::string& value) {
  if (const int error = enter("write", path, value)) return error;
  if (!exists(path)) return ENOENT;
  const std::string folder = path.substr(0, path.rfind('/'));
  if (starts(path, "core/") && ends(path, "/enable")) return enable_backstore(folder);
  if (starts(path, "core/") && path.find("/attrib/") != std::string::npos)
    died_ = died_ || this->value(path.substr(0, path.find("/attrib/")) + "/enable") != "1";
  if (ends(path, "/vpd_unit_serial")) return put(path, "T10 VPD Unit Serial Number: " + value), 0;
  if (ends(path, "/cache_dynamic_acls") && this->value(folder + "/generate_node_acls") == "1") return 0;
  if (ends(path, "/generate_node_acls") && value == "1") put(folder + "/cache_dynamic_acls", "1");
  put(path, value);
  return 0;
}
