#include "backup/pools/scsipool/sub_filesystem_attr.h"

#include <cerrno>
#include <new>

#include "backup/pools/scsipool/attr_table.h"
#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "platform/base/log.h"

namespace scsi_pool {

Sub_Filesystem_Attr::Sub_Filesystem_Attr(std::string pool_id, std::string filesystem)
    : pool_id_(std::move(pool_id)), filesystem_(std::move(filesystem)) {}

bool Sub_Filesystem_Attr::open() {
  sqlite_impl_.reset(new (std::nothrow) SCSI_Pool_Sqlite_Manager_Impl);
  if (!sqlite_impl_) {
    errno = ENOMEM;
    return false;
  }
  if (!sqlite_impl_->open())
    return LOG_FAILURE("Failed to init sub filesystem attr: failed to open database\n");
  std::string fs_type, global_dev;
  if (!SCSI_Pool_Manager::instance()->get_pool_backstore_info(pool_id_, fs_type, global_dev))
    return LOG_FAILURE("Failed to init sub filesystem attr: failed to get backstore info\n");
  back_mgr_.reset(SCSI_Pool_Backstore_Factory::create(pool_id_, global_dev));
  if (!back_mgr_ || !back_mgr_->open(fs_type))
    return LOG_FAILURE("Failed to init sub filesystem attr: Failed to init backstore manager\n");
  return true;
}

bool Sub_Filesystem_Attr::get_ext_attr(json_spirit::Object& attrs) {
  json_spirit::Array filesystems;
  if (!sqlite_impl_->list_filesystem(pool_id_, filesystems, filesystem_.c_str()) || filesystems.empty() ||
      !filesystems.front().is_object())
    return LOG_FAILURE(
        "Failed to get sub filesystem '%s':extended attributes in pool '%s': failed to get sub filesystem "
        "info\n",
        filesystem_.c_str(), pool_id_.c_str());
  std::string text;
  if (!json_spirit::object_find(*json_spirit::get_object(filesystems.front()), "extended_attrs", text))
    return LOG_FAILURE(
        "Failed to get sub filesystem '%s':extended attributes in pool '%s': failed to get extended "
        "attributes\n",
        filesystem_.c_str(), pool_id_.c_str());
  json_spirit::Value parsed;
  if (!loads_json(text, parsed) || !parsed.is_object())
    return LOG_FAILURE(
        "Failed to get sub filesystem '%s':extended attributes in pool '%s': extended attributes is not "
        "object type\n",
        filesystem_.c_str(), pool_id_.c_str());
  attrs = *json_spirit::get_object(parsed);
  return true;
}

bool Sub_Filesystem_Attr::is_valid_attr(const std::string& name) const {
  return in_table(attr_key_table, name);
}

bool Sub_Filesystem_Attr::is_valid_ext_attr(const std::string& name) const {
  return in_table(extended_attr_key_table, name);
}

}  // namespace scsi_pool
