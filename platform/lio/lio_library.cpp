#include "platform/lio/lio_library.h"

#include <mutex>

#include "platform/base/log.h"
#include "platform/lio/configfs_library.h"
#include "platform/lio/lio_saved_config.h"

namespace {

std::mutex installed_lock;
std::shared_ptr<LIO_Library>& installed_library() {
  static std::shared_ptr<LIO_Library> library;
  return library;
}

}  // namespace

void LIO_Library::install(std::shared_ptr<LIO_Library> library) {
  // The old one ends, if nobody else has it, after the lock.
  std::lock_guard<std::mutex> guard(installed_lock);
  installed_library().swap(library);
}

std::shared_ptr<LIO_Library> LIO_Library::installed() {
  std::lock_guard<std::mutex> guard(installed_lock);
  if (!installed_library()) installed_library() = over_configfs(LIO_Options());
  return installed_library();
}

std::shared_ptr<LIO_Library> LIO_Library::over_configfs(const LIO_Options& options) {
  return std::make_shared<lio::Configfs_Library>(options,
                                                 std::make_shared<lio::Configfs>(options.configfs_root));
}

LIO_Target_Manager_var LIO_Target_Manager_Factory::get_manager(const char* type) {
  LIO_Target_Type kind = TYPE_UNKNOWN;
  if (!type || !lio_target_string_to_type(type, kind)) {
    LOG_FAILURE("Failed to get LIO target manager: '%s' is no target type\n", type ? type : "");
    return nullptr;
  }
  return LIO_Library::installed()->manager(kind);
}

LIO_Lun_var LIO_Target_Manager_Factory::get_lun(const char* type, const char* target, unsigned short tpg,
                                                unsigned short lun) {
  const LIO_Target_Manager_var manager = get_manager(type);
  if (!manager) return nullptr;
  const LIO_Target_var found = manager->create_or_get_target(target);
  if (!found) return nullptr;
  const Target_Port_Group_var group = found->get_tpg(tpg);
  return group ? group->get_lun(lun) : nullptr;
}

LIO_Backstore_var LIO_Backstore_Manager::create_backstore(LIO_Backstore::Type type, const char* path,
                                                          unsigned long size) {
  if (!path || !*path) {
    LOG_VIOLATION("path is NULL or \"\"");
    return nullptr;
  }
  return LIO_Library::installed()->create_backstore(type, path, size);
}

LIO_Backstore_var LIO_Backstore_Manager::find_backstore(const char* name) {
  if (!name || !*name) {
    LOG_VIOLATION("name is NULL or \"\"");
    return nullptr;
  }
  return LIO_Library::installed()->find_backstore(name);
}

bool LIO_Backstore_Manager::remove_backstore(const char* name, bool force) {
  if (!name || !*name) return LOG_VIOLATION("name is NULL or \"\"");
  return LIO_Library::installed()->remove_backstore(name, force);
}

bool LIO_Saved_Config::list_saved(std::vector<LIO_Export>& exports) {
  return LIO_Library::installed()->list_saved(exports);
}

bool LIO_Saved_Config::list_kernel(std::vector<LIO_Export>& exports) {
  return LIO_Library::installed()->list_kernel(exports);
}

bool LIO_Saved_Config::restore(LIO_Report& report) {
  return LIO_Library::installed()->restore(report);
}

bool LIO_Saved_Config::compare(LIO_Report& report) {
  return LIO_Library::installed()->compare(report);
}

bool LIO_Saved_Config::repair(LIO_Report& report) {
  return LIO_Library::installed()->repair(report);
}

bool LIO_Saved_Config::forget(const std::string& path) {
  return LIO_Library::installed()->forget(path);
}

const char* lio_finding_name(LIO_Finding::Kind kind) {
  static const char* const NAMES[] = {
      "missing_target", "missing_lun",     "other_lun",       "wrong_serial",      "wrong_mode",
      "wrong_enable",   "missing_portal",  "missing_acl",     "extra_acl",         "unfinished_lun",
      "leftover_lun",   "leftover_folder", "leftover_target", "leftover_backstore"};
  return NAMES[kind];
}
