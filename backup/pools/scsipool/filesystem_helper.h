#pragma once
// The kinds of pool filesystem with their text names, and lookups in driver records.

#include <ace/Basic_Types.h>

#include <string>

#include "backup/pools/scsipool/fs_info.h"
#include "platform/base/key2_value.h"

namespace scsi_pool {

enum FS_TYPE : ACE_UINT32 { FS_UNKNOWN = 0, FS_BTRFS = 1, FS_ZFS = 2 };

extern const platform::Key2_Value_T<FS_TYPE> fs_name[];

// The type whose name is the first `len` characters of `str` (all of them when `len` is negative), compared
// exactly; FS_UNKNOWN when there is none.
FS_TYPE fs_type_to_value(const char* str, int len);
// Null for FS_UNKNOWN and anything else without a name.
const char* fs_value_to_type(FS_TYPE type);

// True when the record holds the key with a value of that JSON type; else `value` is untouched.
bool get_info_entry(const FS_Info_Item& item, const char* key, std::string& value);
bool get_info_entry(const FS_Info_Item& item, const char* key, bool& value);
bool get_info_entry(const FS_Info_Item& item, const char* key, ACE_UINT64& value);

}  // namespace scsi_pool
