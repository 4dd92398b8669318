#pragma once
// The attributes that a LUN or sub filesystem has: key, its length and the name of the value's type. Each
// table ends with a null key.

#include <string>

#include "platform/base/key2_value.h"

namespace scsi_pool {

using Attr_Key = platform::Key2_Value_T<std::string>;

// Storage attributes, read from the storage itself.
extern const Attr_Key attr_key_table[];
// Extended attributes, kept in the catalog.
extern const Attr_Key extended_attr_key_table[];

// Does the table have this key?
bool in_table(const Attr_Key* table, const std::string& key);

}  // namespace scsi_pool
