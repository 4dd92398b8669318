#pragma once
// Records that carry options into a driver operation and information out of one. An operation ignores the
// keys that it does not know.

#include "platform/json/json_spirit.h"

namespace scsi_pool {

using FS_Info_Item = json_spirit::Object;
using FS_Info_List = json_spirit::Array;

}  // namespace scsi_pool
