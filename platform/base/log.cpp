#include "platform/base/log.h"

#include <cerrno>
#include <cstdarg>

namespace platform {

bool log_at(const char* file, int line, ACE_Log_Priority priority, const char* format, ...) {
  const int error = errno;
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  log->conditional_set(file, line, -1, error);
  va_list arguments;
  va_start(arguments, format);
  log->log(format, priority, arguments);
  va_end(arguments);
  errno = error;
  return false;
}

}  // namespace platform
