#pragma once
// Where the lines go that a sending or receiving tool prints on standard error.

#include <ace/Log_Msg_Callback.h>

#include <memory>

namespace scsi_pool {

// Logs each line at error priority, but what a healthy run of btrfs says ("At subvol ...", "At snapshot ...")
// at debug priority. For log_line_handle.
std::shared_ptr<ACE_Log_Msg_Callback> stream_tool_log();

}  // namespace scsi_pool
