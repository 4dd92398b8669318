#include "backup/pools/scsipool/filesystem_helper.h"

#include <cstring>

namespace scsi_pool {

const platform::Key2_Value_T<FS_TYPE> fs_name[] = {
    {"btrfs", 5, FS_BTRFS}, {"zfs", 3, FS_ZFS}, {nullptr, 0, FS_UNKNOWN}};

FS_TYPE fs_type_to_value(const char* str, int len) {
  if (str == nullptr) return FS_UNKNOWN;
  const std::size_t length = len < 0 ? std::strlen(str) : static_cast<std::size_t>(len);
  const platform::Key2_Value_T<FS_TYPE>* row = fs_name;
  while (row->key != nullptr && (row->len != length || std::strncmp(row->key, str, length) != 0))
    ++row;
  return row->value;
}

const char* fs_value_to_type(FS_TYPE type) {
  const platform::Key2_Value_T<FS_TYPE>* row = fs_name;
  while (row->key != nullptr && row->value != type)
    ++row;
  return row->key;
}

bool get_info_entry(const FS_Info_Item& item, const char* key, std::string& value) {
  return json_spirit::object_find(item, key, value);
}

bool get_info_entry(const FS_Info_Item& item, const char* key, bool& value) {
  return json_spirit::object_find(item, key, value);
}

bool get_info_entry(const FS_Info_Item& item, const char* key, ACE_UINT64& value) {
  return json_spirit::object_find(item, key, value);
}

}  // namespace scsi_pool
