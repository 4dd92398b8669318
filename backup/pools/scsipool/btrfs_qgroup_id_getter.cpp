#include "backup/pools/scsipool/btrfs_qgroup_id_getter.h"

#include "backup/pools/scsipool/btrfs_line_handler.h"
#include "backup/pools/scsipool/filesystem_helper.h"
#include "platform/base/log.h"
#include "platform/base/natoi.h"
#include "platform/process/tool_options.h"

namespace scsi_pool {

namespace {

constexpr unsigned int LOGGED_LINES = 8;

// Path and id of one record of the listing.
bool read_record(const json_spirit::Value& value, std::string& path, ACE_UINT64& id) {
  const json_spirit::Object* record = json_spirit::get_object(value);
  std::string digits;
  if (record == nullptr || !get_info_entry(*record, "path", path) ||
      !get_info_entry(*record, "subvol_id", digits))
    return false;
  id = platform::natoi(digits.c_str(), digits.size());
  return true;
}

}  // namespace

bool Btrfs_Qgroup_ID_Getter::list(FS_Info_List& records) {
  platform::Tool_Options options(platform::format_command("btrfs subvolume list -pu%s \"%s\"",
                                                          list_read_only_ ? "r" : "", mount_point_.c_str()));
  List_Subvolume_Line_Handler handler(records);
  if (handler.call(LOGGED_LINES, options) == 0) return true;
  return LOG_FAILURE("Failed to list btrfs snapshot\n");
}

bool Btrfs_Qgroup_ID_Getter::get_ids(Name_ID_Map& maps) {
  FS_Info_List records;
  if (!list(records)) return false;
  for (const json_spirit::Value& value : records) {
    std::string path;
    ACE_UINT64 id = 0;
    if (read_record(value, path, id)) maps[path] = static_cast<ACE_UINT16>(id);
  }
  return true;
}

ACE_UINT16 Btrfs_Qgroup_ID_Getter::get_id(const std::string& name) {
  Name_ID_Map maps;
  if (!get_ids(maps)) {
    LOG_FAILURE("Failed to get qgroup id\n");
    return 0;
  }
  const auto found = maps.find(name);
  return found != maps.end() ? found->second : ACE_UINT16(0);
}

ACE_UINT64 Btrfs_Qgroup_ID_Getter::get_full_id(const std::string& name) {
  FS_Info_List records;
  if (!list(records)) {
    LOG_FAILURE("Failed to get qgroup id\n");
    return 0;
  }
  for (const json_spirit::Value& value : records) {
    std::string path;
    ACE_UINT64 id = 0;
    if (read_record(value, path, id) && path == name) return id;
  }
  return 0;
}

}  // namespace scsi_pool
