#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"

#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/base/names.h"
#include "platform/base/path_conf.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {
namespace {

constexpr char CONFIG_FOLDER[] = "/etc/opt/norvale/tarnkit3/$COMPONENT";
constexpr char CONFIG_FILE[] = "scsi_pool_mgr.conf";
constexpr mode_t CONFIG_FOLDER_MODE = 0750;

bool usable_name(const std::string& name) {
  std::string why;
  return platform::valid_dataset_name(name, why) ||
         LOG_FAILURE("Failed to use the name '%s': %s\n", name.c_str(), why.c_str());
}

}  // namespace

bool SCSI_Pool_Backstore_Manager::driver_present() const {
  return fs_mgr_ != nullptr || LOG_VIOLATION("fs_mgr_.get() is NULL");
}

bool SCSI_Pool_Backstore_Manager::usable(std::initializer_list<const std::string*> names) {
  for (const std::string* name : names) {
    if (!usable_name(*name)) return false;
  }
  return true;
}

bool SCSI_Pool_Backstore_Manager::usable(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (!usable_name(name)) return false;
  }
  return true;
}

bool SCSI_Pool_Backstore_Manager::filesystem_ready(const char* name) const {
  if (!driver_present()) return false;
  if (name == nullptr || *name == '\0') return LOG_VIOLATION("name is NULL or \"\"");
  return usable_name(name);
}

Sub_Volume_var SCSI_Pool_Backstore_Manager::volume(const std::string& name) const {
  return Sub_Volume_var(fs_mgr_->get_sub_volume(name.c_str()));
}

Sub_Filesystem_var SCSI_Pool_Backstore_Manager::sub_filesystem(const std::string& name) const {
  return Sub_Filesystem_var(fs_mgr_->get_sub_filesystem(name.c_str()));
}

Snapshot_var SCSI_Pool_Backstore_Manager::volume_snapshot(const std::string& volume_name,
                                                          const std::string& name) const {
  const Sub_Volume_var parent = volume(volume_name);
  return Snapshot_var(parent ? parent->get_snapshot(name.c_str()) : nullptr);
}

Snapshot_var SCSI_Pool_Backstore_Manager::filesystem_snapshot(const std::string& filesystem_name,
                                                              const std::string& name) const {
  const Sub_Filesystem_var parent = sub_filesystem(filesystem_name);
  return Snapshot_var(parent ? parent->get_snapshot(name.c_str()) : nullptr);
}

void SCSI_Pool_Backstore_Manager::pick(const Snapshot_Sizes& all, const std::set<std::string>& names,
                                       const char* what, Snapshot_Sizes& sizes) {
  for (const std::string& one : names) {
    const auto found = all.find(one);
    if (found != all.end()) {
      sizes.insert(*found);
    } else {
      LOG_FAILURE("%s", what);
    }
  }
}

template <typename Dataset>
void SCSI_Pool_Backstore_Manager::measure(const Dataset* parent, const std::string& name,
                                          const std::set<std::string>& names, const char* what,
                                          Snapshot_Sizes& sizes) const {
  for (const std::string& one : names) {
    if (!usable({&one})) continue;
    const Snapshot_var found(parent != nullptr ? parent->get_snapshot(one.c_str()) : nullptr);
    Snapshot_Size size;
    if (!found) {
      LOG_FAILURE("%s", what);
    } else if (found->size(size.excl, size.rfer)) {
      sizes[one] = size;
    } else {
      LOG_FAILURE("Failed to get snapshot size: get '%s/%s' size error in pool '%s'\n", name.c_str(),
                  one.c_str(), pool_id_.c_str());
    }
  }
}

template void SCSI_Pool_Backstore_Manager::measure(const Sub_Volume*, const std::string&,
                                                   const std::set<std::string>&, const char*,
                                                   Snapshot_Sizes&) const;
template void SCSI_Pool_Backstore_Manager::measure(const Sub_Filesystem*, const std::string&,
                                                   const std::set<std::string>&, const char*,
                                                   Snapshot_Sizes&) const;

bool SCSI_Pool_Backstore_Manager::load_config() {
  const std::string file = platform::Path_Conf(CONFIG_FOLDER, CONFIG_FOLDER_MODE).path(CONFIG_FILE);
  if (!platform::is_regular_file(file)) return true;
  json_spirit::Value config;
  if (!load_json(file, config) || !config.is_object()) {
    return LOG_FAILURE("Failed to load '%s': it holds no JSON object\n", file.c_str());
  }
  unsigned int timeout = 0;
  if (driver_present() &&
      json_spirit::object_find(*json_spirit::get_object(config), "check_block_dev_timeout", timeout)) {
    fs_mgr_->check_block_dev_timeout(timeout);
  }
  return true;
}

}  // namespace scsi_pool
