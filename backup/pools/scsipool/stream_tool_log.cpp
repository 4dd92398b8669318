#include "backup/pools/scsipool/stream_tool_log.h"

#include <ace/Log_Record.h>

#include <string>

#include "platform/base/log.h"

namespace scsi_pool {

namespace {

class Stream_Tool_Log : public ACE_Log_Msg_Callback {
 public:
  void log(ACE_Log_Record& record) override {
    const std::string line = record.msg_data();
    const bool healthy = line.compare(0, 10, "At subvol ") == 0 || line.compare(0, 12, "At snapshot ") == 0;
    platform::log_at(__FILE__, __LINE__, healthy ? LM_DEBUG : LM_ERROR, "%s", line.c_str());
  }
};

}  // namespace

std::shared_ptr<ACE_Log_Msg_Callback> stream_tool_log() {
  return std::make_shared<Stream_Tool_Log>();
}

}  // namespace scsi_pool
