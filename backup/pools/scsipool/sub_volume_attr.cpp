#include "backup/pools/scsipool/sub_volume_attr.h"

#include <cerrno>
#include <new>
#include <utility>

#include "backup/pools/scsipool/attr_table.h"
#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "platform/base/log.h"

namespace scsi_pool {

using json_spirit::Array;
using json_spirit::get_object;
using json_spirit::Object;
using json_spirit::object_find;
using json_spirit::Value;

Sub_Volume_Attr::Sub_Volume_Attr(const std::string& pool_id, const std::string& vol_id)
    : pool_id_(pool_id), vol_id_(vol_id) {}

bool Sub_Volume_Attr::open() {
  sqlite_impl_.reset(new (std::nothrow) SCSI_Pool_Sqlite_Manager_Impl);
  if (!sqlite_impl_) {
    errno = ENOMEM;
    return false;
  }
  if (!sqlite_impl_->open()) return LOG_FAILURE("Failed to init sub volume attr: failed to open database\n");
  std::string fs_type, global_dev;
  if (!SCSI_Pool_Manager::instance()->get_pool_backstore_info(pool_id_, fs_type, global_dev)) {
    return LOG_FAILURE("Failed to init sub volume attr: failed to get backstore info\n");
  }
  back_mgr_.reset(SCSI_Pool_Backstore_Factory::create(pool_id_, global_dev));
  return (back_mgr_ && back_mgr_->open(fs_type)) ||
         LOG_FAILURE("Failed to init sub volume attr: Failed to init backstore manager\n");
}

bool Sub_Volume_Attr::get_attr(Object& attr) {
  for (const Attr_Key* entry = attr_key_table; entry->key != nullptr; ++entry) {
    std::string value;
    if (!get_attr(entry->key, value)) return false;
    if (entry->value == "bool") {
      attr[entry->key] = value != "off";
    } else {
      attr[entry->key] = value;
    }
  }
  return true;
}

bool Sub_Volume_Attr::get_attr(const std::string& name, std::string& value) {
  return back_mgr_->get_volume_attr(vol_id_, name, value) ||
         LOG_FAILURE("Failed to get subvolume '%s' attribute '%s' in pool '%s'\n", vol_id_.c_str(),
                     name.c_str(), pool_id_.c_str());
}

bool Sub_Volume_Attr::update_attr(const std::string& name, const std::string& value) {
  return back_mgr_->set_volume_attr(vol_id_, name, value) ||
         LOG_FAILURE("Failed to update subvolume '%s' attribute '%s' to '%s' in pool '%s'\n", vol_id_.c_str(),
                     name.c_str(), value.c_str(), pool_id_.c_str());
}

bool Sub_Volume_Attr::get_ext_attr(Object& attrs) {
  Array luns;
  const bool listed = sqlite_impl_->list_lun(pool_id_, luns, vol_id_.c_str());
  const Object* record = luns.empty() ? nullptr : get_object(luns.front());
  if (!listed || record == nullptr) {
    return LOG_FAILURE(
        "Failed to get sub volume '%s':externded attributes in pool '%s': failed to get sub volume info\n",
        vol_id_.c_str(), pool_id_.c_str());
  }
  std::string text;
  if (!object_find(*record, "extended_attrs", text)) {
    return LOG_FAILURE(
        "Failed to get sub volume '%s':externded attributes in pool '%s': failed to get extended "
        "attributes\n",
        vol_id_.c_str(), pool_id_.c_str());
  }
  Value parsed;
  if (!loads_json(text, parsed) || !parsed.is_object()) {
    return LOG_FAILURE(
        "Failed to get sub volume '%s':externded attributes in pool '%s': extended attributes is not object "
        "type\n",
        vol_id_.c_str(), pool_id_.c_str());
  }
  attrs = *get_object(parsed);
  return true;
}

bool Sub_Volume_Attr::update_ext_attr(const Object& attr) {
  Object merged;
  if (!get_ext_attr(merged)) {
    return LOG_FAILURE(
        "Failed to update sub volume extended attributes in pool '%s': failed to get extended attributes\n",
        pool_id_.c_str());
  }
  for (const auto& [key, value] : attr)
    merged[key] = value;
  return sqlite_impl_->update_volume_ext_attrs(pool_id_, vol_id_, JSON_Dump(merged)) ||
         LOG_FAILURE("Failed to update sub volumeextended attributes in pool '%s' \n", pool_id_.c_str());
}

bool Sub_Volume_Attr::is_valid_attr(const std::string& name) const {
  return in_table(attr_key_table, name);
}

bool Sub_Volume_Attr::is_valid_ext_attr(const std::string& name) const {
  return in_table(extended_attr_key_table, name);
}

}  // namespace scsi_pool
