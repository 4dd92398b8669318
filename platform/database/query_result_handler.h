#pragma once
// How a column's value is turned into JSON.

#include <ace/Basic_Types.h>

#include "platform/base/key2_value.h"

namespace database::sql {

struct Query_Result_Handler {
  enum Val_Tran_Type {
    VTT_NONE = 0,
    VTT_BOOL = 1,      // integer to boolean
    VTT_UUID_STR = 5,  // binary UUID to text
  };
  struct Val_Tran {
    Val_Tran_Type type;
    ACE_UINT32 flags;  // 0; all ones in the entry that ends a table
  };
  // A table of these ends with an entry whose key is null. Keys are column names or aliases.
  using Val_Tran_Entry = platform::Key2_Value_T<Val_Tran>;
};

}  // namespace database::sql
