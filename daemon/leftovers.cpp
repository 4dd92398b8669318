#include "daemon/leftovers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>

#include "backup/pools/scsipool/btrfs_filesystem.h"
#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"
#include "backup/pools/scsipool/zfs_import.h"
#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/base/uuid.h"
#include "platform/lio/lio_saved_config.h"
#include "platform/process/holder.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using scsi_pool::SCSI_Pool_Sqlite_Manager;

namespace {

const char BACKING_FOLDER[] = "/orbistor/scsipool_backstore";
const char MOUNT_FOLDER[] = "/orbistor/scsipool/";

// A link by the name of a pool is not this system's either.
bool plain_file(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Every id of the catalog. A catalog that cannot be read must not look like an empty one: files of living
// pools would be taken for orphans.
bool catalog_ids(SCSI_Pool_Sqlite_Manager& catalog, std::set<std::string>& ids) {
  Array rows;
  if (!catalog.list_pools(rows, nullptr)) return false;
  for (const Value& row : rows) {
    const Object* object = json_spirit::get_object(row);
    std::string id;
    if (object != nullptr && json_spirit::object_find(*object, "uuid", id)) ids.insert(id);
  }
  return true;
}

bool holds_btrfs(const std::string& path) {
  constexpr off_t MAGIC_OFFSET = 0x10040;
  const char MAGIC[] = "_BHRfS_M";
  const int fd = platform::open_cloexec(path, O_RDONLY);
  if (fd == -1) return false;
  char found[sizeof MAGIC - 1] = {};
  const ssize_t got = ::pread(fd, found, sizeof found, MAGIC_OFFSET);
  ::close(fd);
  return got == static_cast<ssize_t>(sizeof found) && std::memcmp(found, MAGIC, sizeof found) == 0;
}

bool zpool_imported(const std::string& id) {
  std::string state;
  if (!platform::is_directory("/sys/module/zfs")) return false;
  scsi_pool::pool_health(id, state);
  return state != "absent";
}

bool destroy_backstore(const std::string& id, const char* fs_type) {
  scsi_pool::SCSI_Pool_Backstore_Manager_var manager(scsi_pool::SCSI_Pool_Backstore_Factory::create(id, ""));
  return manager != nullptr && manager->open(std::string(fs_type)) && manager->destroy();
}

bool mounted_btrfs(const std::string& id) {
  scsi_pool::SCSI_Pool_Backstore_Manager_var manager(scsi_pool::SCSI_Pool_Backstore_Factory::create(id, ""));
  return manager != nullptr && manager->open(std::string("btrfs")) && manager->mounted();
}

// The text member `key` of each row.
std::vector<std::string> column(const Array& rows, const char* key) {
  std::vector<std::string> values;
  for (const Value& row : rows) {
    const Object* object = json_spirit::get_object(row);
    std::string value;
    if (object != nullptr && json_spirit::object_find(*object, key, value)) values.push_back(value);
  }
  return values;
}

bool forget_volumes(SCSI_Pool_Sqlite_Manager& catalog, const std::string& pool_id) {
  Array exports, snapshots, volumes;
  bool good = catalog.list_export(pool_id, exports, nullptr) &&
              catalog.list_snapshots(pool_id, snapshots, nullptr) &&
              catalog.list_volume(pool_id, volumes, nullptr);
  for (const std::string& id : column(exports, "uuid"))
    good = good && catalog.del_export(pool_id, id);
  for (const std::string& id : column(snapshots, "uuid"))
    good = good && catalog.del_snapshot(pool_id, id);
  for (const std::string& id : column(volumes, "uuid")) {
    good = good && catalog.del_export(pool_id, id) && catalog.del_volume(pool_id, id);
  }
  return good;
}

// Exports of the pool that are still to be restored would be tried for ever.
bool forget_saved_exports(const std::string& pool_id) {
  std::vector<LIO_Export> saved;
  if (!LIO_Saved_Config::list_saved(saved)) return false;
  return std::all_of(saved.begin(), saved.end(), [&](const LIO_Export& one) {
    return one.path.find("/" + pool_id + "/") == std::string::npos || LIO_Saved_Config::forget(one.path);
  });
}

// A mount that lost its file, and the entry that the next boot would stop at.
bool forget_mount(const std::string& pool_id) {
  const std::string folder = MOUNT_FOLDER + pool_id;
  scsi_pool::Btrfs_Filesystem mount(backing_file(pool_id).c_str(), folder.c_str());
  if (!mount.umount() || !mount.edit_fstab(true, nullptr)) return false;
  ::rmdir(folder.c_str());
  return true;
}

}  // namespace

std::string backing_file(const std::string& pool_id) {
  return std::string(BACKING_FOLDER) + "/" + pool_id;
}

bool find_orphans(SCSI_Pool_Sqlite_Manager& catalog, std::vector<std::string>& ids) {
  std::set<std::string> known;
  if (!catalog_ids(catalog, known))
    return LOG_FAILURE("Failed to look for orphaned backing files: catalog error\n");
  std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(BACKING_FOLDER), &::closedir);
  if (folder == nullptr) {
    return errno == ENOENT ||
           LOG_FAILURE("Failed to look for orphaned backing files: %s: %m\n", BACKING_FOLDER);
  }
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (platform::is_uuid(name) && known.count(name) == 0 && plain_file(backing_file(name)))
      ids.push_back(name);
  }
  std::sort(ids.begin(), ids.end());
  return true;
}

bool is_orphan(SCSI_Pool_Sqlite_Manager& catalog, const std::string& id) {
  std::set<std::string> known;
  return platform::is_uuid(id) && plain_file(backing_file(id)) && catalog_ids(catalog, known) &&
         known.count(id) == 0;
}

bool remove_orphan(SCSI_Pool_Sqlite_Manager& catalog, const std::string& id) {
  if (!is_orphan(catalog, id)) {
    return LOG_FAILURE("Failed to remove orphan '%s': there is no backing file without a pool of that id\n",
                       id.c_str());
  }
  const std::string path = backing_file(id);
  if (mounted_btrfs(id)) return destroy_backstore(id, "btrfs");
  if (zpool_imported(id)) return destroy_backstore(id, "zfs");
  // A formatting tool may outlive the daemon that was killed.
  const std::string holders = platform::device_holders(path);
  if (!holders.empty()) {
    return LOG_FAILURE("Failed to remove orphan '%s': in use by %s\n", id.c_str(), holders.c_str());
  }
  if (holds_btrfs(path)) return destroy_backstore(id, "btrfs");
  if (::unlink(path.c_str()) != 0) return LOG_FAILURE("Failed to remove orphan '%s': %m\n", id.c_str());
  return true;
}

bool forget_filesystems(SCSI_Pool_Sqlite_Manager& catalog, const std::string& pool_id) {
  Array filesystems, snapshots;
  bool good = catalog.list_filesystem(pool_id, filesystems, nullptr) &&
              catalog.list_all_filesystem_snapshots(pool_id, snapshots, nullptr);
  for (const std::string& id : column(snapshots, "snapshot_uuid")) {
    good = good && catalog.del_filesystem_snapshot(pool_id, id);
  }
  for (const std::string& name : column(filesystems, "name")) {
    good = good && catalog.del_filesystem(pool_id, name);
  }
  // Empty ones go; one that is in use or holds anything stays.
  for (const std::string& path : column(filesystems, "mountpoint")) {
    if (::rmdir(path.c_str()) == 0) ::rmdir(platform::dirname_string(path).c_str());
  }
  return good || LOG_FAILURE("Failed to forget the filesystems of pool '%s'\n", pool_id.c_str());
}

bool forget_pool(SCSI_Pool_Sqlite_Manager& catalog, const std::string& pool_id) {
  if (platform::path_exists(backing_file(pool_id))) {
    return LOG_FAILURE("Failed to forget pool '%s': its backing file is there\n", pool_id.c_str());
  }
  if (!forget_mount(pool_id)) {
    return LOG_FAILURE("Failed to forget pool '%s': it is still mounted or in /etc/fstab\n", pool_id.c_str());
  }
  if (!forget_saved_exports(pool_id) || !forget_volumes(catalog, pool_id) ||
      !forget_filesystems(catalog, pool_id) || !catalog.del_pool(pool_id)) {
    return LOG_FAILURE("Failed to forget pool '%s': its records cannot all be removed\n", pool_id.c_str());
  }
  LOG_NOTICE("Forgot pool '%s', whose backing file is gone\n", pool_id.c_str());
  return true;
}

}  // namespace scsipoold
