#include "platform/process/subprocess.h"

#include <cerrno>
#include <cstdarg>
#include <limits>

#include "platform/base/log.h"
#include "platform/process/run.h"
#include "platform/process/tool_options.h"

namespace subprocess {

namespace {

constexpr unsigned int ALL_LINES = std::numeric_limits<unsigned int>::max();

int run_shell(const std::string& command, bool c_locale, std::string& errors) {
  platform::Run run;
  run.command = command;
  run.start = [&](const platform::Child::Handles& handles) {
    return platform::Child::start_shell(command, c_locale, handles);
  };
  return platform::run_to_end(run, errors);
}

void log_no_start(int status, const std::string& command) {
  if (status == -1) LOG_NOTICE("'%s': cannot be run: %m\n", command.substr(0, 512).c_str());
}

}  // namespace

int call(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string command = platform::format_command_v(format, arguments);
  va_end(arguments);
  std::string errors;
  const int status = run_shell(command, false, errors);
  platform::log_errors(command, errors, ALL_LINES, nullptr);
  log_no_start(status, command);
  return status;
}

int call(ACE_Process_Options& options, std::shared_ptr<ACE_Log_Msg_Callback> callback) {
  platform::Run run;
  run.command = options.command_line_buf();
  run.start = [&](const platform::Child::Handles& handles) {
    return platform::Child::start(options, handles);
  };
  std::string errors;
  const int status = platform::run_to_end(run, errors);
  platform::log_errors(run.command, errors, ALL_LINES, callback.get());
  log_no_start(status, run.command);
  return status;
}

int call_stderr(std::string& errors, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string command = platform::format_command_v(format, arguments);
  va_end(arguments);
  return run_shell(command, true, errors);
}

}  // namespace subprocess
