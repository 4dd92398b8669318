#pragma once
// Runs one command to its end: what the simple and the parsed style share.

#include <ace/Log_Msg_Callback.h>

#include <functional>
#include <memory>
#include <string>

#include "platform/process/child.h"

namespace platform {

struct Run {
  std::string command;  // for the log
  std::function<std::shared_ptr<Child>(const Child::Handles&)> start;
  std::function<bool(const std::string& line)> on_line;  // false ends the run; none: output goes to /dev/null
  unsigned int time_limit = 0;                           // seconds, 0 is none
};

// Results as in subprocess.h and text_process_handler.h. `errors` becomes the standard error text (at most 64
// KiB).
int run_to_end(const Run& run, std::string& errors);

// Logs up to `limit` lines of it at notice priority with the command, or hands them to the callback.
void log_errors(const std::string& command, const std::string& errors, unsigned int limit,
                ACE_Log_Msg_Callback* callback);

// The errno value whose text the tool printed; EIO when there is none.
int errno_of_text(const std::string& errors);

}  // namespace platform
