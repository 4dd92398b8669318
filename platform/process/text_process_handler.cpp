#include "platform/process/text_process_handler.h"

#include <iconv.h>
#include <langinfo.h>

#include <cerrno>

#include "platform/base/log.h"
#include "platform/process/run.h"

namespace {

// Text in the locale's character set as UTF-8; as it is when it cannot be converted.
std::string to_utf8(const std::string& text) {
  iconv_t converter = ::iconv_open("UTF-8", ::nl_langinfo(CODESET));
  if (converter == reinterpret_cast<iconv_t>(-1)) return text;
  std::string input = text;
  std::string output(text.size() * 4, '\0');
  char* from = input.data();
  char* to = output.data();
  std::size_t from_left = input.size();
  std::size_t to_left = output.size();
  const bool done = ::iconv(converter, &from, &from_left, &to, &to_left) != static_cast<std::size_t>(-1);
  ::iconv_close(converter);
  output.resize(output.size() - to_left);
  return done ? output : text;
}

}  // namespace

int Text_Process_Handler::call(unsigned int log_lines, ACE_Process_Options& options) {
  platform::Run run;
  run.command = options.command_line_buf();
  run.start = [&](const platform::Child::Handles& handles) {
    return platform::Child::start(options, handles);
  };
  run.on_line = [this](const std::string& line) {
    return handle_stdout_line(line.c_str(), line.size()) == 0;
  };
  run.time_limit = time_limit_;
  if ((flags_ & TPHF_LOG_CMD) != 0) LOG_DEBUG("Run '%s'\n", run.command.c_str());
  const int status = platform::run_to_end(run, errors_);
  const bool convert = (flags_ & TPHF_LOG_CVT_LOCAL_TO_UTF8) != 0;
  platform::log_errors(run.command, convert ? to_utf8(errors_) : errors_, log_lines, nullptr);
  if (status == -1) LOG_NOTICE("'%s': the run was not finished: %m\n", run.command.c_str());
  return status;
}
