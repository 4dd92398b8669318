#pragma once
// Reads and writes a LUN's storage attributes and its extended attributes. Built for one request and dropped.

#include <memory>
#include <string>

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"
#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

class Sub_Volume_Attr {
 public:
  Sub_Volume_Attr(const std::string& pool_id, const std::string& vol_id);

  // Must come before every other call.
  bool open();
  // All storage attributes; a switch comes as a boolean.
  bool get_attr(json_spirit::Object& attr);
  // One storage attribute, as the storage spells it.
  bool get_attr(const std::string& name, std::string& value);
  bool update_attr(const std::string& name, const std::string& value);
  // The extended attributes; replaces `attrs`.
  bool get_ext_attr(json_spirit::Object& attrs);
  // Merges `attr` into the stored extended attributes.
  bool update_ext_attr(const json_spirit::Object& attr);
  // Is it one of the storage attributes, or of the extended ones, that a LUN has?
  bool is_valid_attr(const std::string& name) const;
  bool is_valid_ext_attr(const std::string& name) const;

 private:
  std::string pool_id_;
  std::string vol_id_;
  std::unique_ptr<SCSI_Pool_Sqlite_Manager> sqlite_impl_;
  SCSI_Pool_Backstore_Manager_var back_mgr_;
};

}  // namespace scsi_pool
