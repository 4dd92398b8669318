#pragma once
// What the libraries log on this thread while a request is handled: the cause that its user is shown.

#include <ace/Log_Msg_Callback.h>

#include <mutex>
#include <string>
#include <vector>

namespace scsipoold {

// Collects the lines of the thread that made it, from notices (what tools say on standard error) upwards,
// until it is destroyed on the same thread. The daemon's own log, and a callback that was set before, still
// get every line. log() may be called by other threads too.
class Request_Log : public ACE_Log_Msg_Callback {
 public:
  Request_Log();
  ~Request_Log() override;
  Request_Log(const Request_Log&) = delete;
  Request_Log& operator=(const Request_Log&) = delete;

  void log(ACE_Log_Record& record) override;

  // The last failure (error priority or above), without stack trace; empty when there was none.
  std::string failure() const;
  // All lines in their order; long ones are cut, and after many the rest is left out.
  std::vector<std::string> lines() const;
  // Forgets what was collected.
  void clear();

 private:
  ACE_Log_Msg_Callback* const previous_;
  mutable std::mutex mutex_;
  std::string failure_;
  std::vector<std::string> lines_;
};

}  // namespace scsipoold
