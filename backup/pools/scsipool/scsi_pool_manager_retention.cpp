// SCSI_Pool_Manager: which snapshots recycling keeps of a LUN or sub filesystem.

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sub_filesystem_attr.h"
#include "backup/pools/scsipool/sub_volume_attr.h"
#include "platform/base/log.h"

namespace scsi_pool {

namespace {

// Anything but "newest" is the normal type.
SCSI_Pool_Manager::LUN_RETENTION_TYPE retention_type_of(const json_spirit::Object& attrs) {
  std::string text;
  json_spirit::object_find(attrs, "retention_type", text);
  return text == "newest" ? SCSI_Pool_Manager::RETENTION_TYPE_NEWEST
                          : SCSI_Pool_Manager::RETENTION_TYPE_NORMAL;
}

}  // namespace

bool SCSI_Pool_Manager::lun_retention_type(const std::string& pool_id, const std::string& lun_id,
                                           LUN_RETENTION_TYPE& type) {
  Sub_Volume_Attr attr(pool_id, lun_id);
  if (!attr.open()) return LOG_FAILURE("Failed to get LUN retention type in '%s'\n", lun_id.c_str());
  json_spirit::Object attrs;
  if (!attr.get_ext_attr(attrs))
    return LOG_FAILURE("Failed to get LUN retention type in '%s': failed to get extended attributes\n",
                       lun_id.c_str());
  type = retention_type_of(attrs);
  return true;
}

bool SCSI_Pool_Manager::filesystem_retention_type(const std::string& pool_id, const std::string& name,
                                                  LUN_RETENTION_TYPE& type) {
  Sub_Filesystem_Attr attr(pool_id, name);
  if (!attr.open()) return LOG_FAILURE("Failed to get filesystem retention type in '%s'\n", name.c_str());
  json_spirit::Object attrs;
  if (!attr.get_ext_attr(attrs))
    return LOG_FAILURE("Failed to get filesystem retention type in '%s': failed to get extended attributes\n",
                       name.c_str());
  type = retention_type_of(attrs);
  return true;
}

bool SCSI_Pool_Manager::lun_retention_valid(const std::string& type) {
  return type == "newest" || type == "normal";
}

}  // namespace scsi_pool
