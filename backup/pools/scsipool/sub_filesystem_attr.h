#pragma once
// Reads a sub filesystem's extended attributes. Built for one request and dropped.

#include <memory>
#include <string>

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"
#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

class Sub_Filesystem_Attr {
 public:
  Sub_Filesystem_Attr(std::string pool_id, std::string filesystem);

  // Must come before every other call.
  bool open();
  // Replaces `attrs`.
  bool get_ext_attr(json_spirit::Object& attrs);
  // Is it one of the storage attributes, or of the extended ones, that a sub filesystem has?
  bool is_valid_attr(const std::string& name) const;
  bool is_valid_ext_attr(const std::string& name) const;

 private:
  std::string pool_id_;
  std::string filesystem_;
  std::unique_ptr<SCSI_Pool_Sqlite_Manager> sqlite_impl_;
  SCSI_Pool_Backstore_Manager_var back_mgr_;
};

}  // namespace scsi_pool
