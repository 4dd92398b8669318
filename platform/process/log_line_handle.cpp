#include "platform/process/log_line_handle.h"

#include <ace/Log_Record.h>
#include <ace/OS_NS_sys_time.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/base/log.h"

namespace {

void log_line(ACE_Log_Priority priority, const std::string& text, ACE_Log_Msg_Callback* callback) {
  if (callback == nullptr) {
    platform::log_at(__FILE__, __LINE__, priority, "%s\n", text.c_str());
    return;
  }
  ACE_Log_Record record(priority, ACE_OS::gettimeofday(), ::getpid());
  record.msg_data((text + "\n").c_str());
  callback->log(record);
}

}  // namespace

bool log_line_handle(ACE_Log_Priority priority, ACE_HANDLE handle, bool close, Line_Reactor* reactor,
                     const char* prefix, std::shared_ptr<ACE_Log_Msg_Callback> callback) {
  if (reactor == nullptr) {
    errno = EINVAL;
    return false;
  }
  // The reactor always reads its own duplicate, so that a handle closed by its owner is never one that the
  // reactor's thread still reads (its number could belong to another file by then).
  Auto_Handle own(::fcntl(handle, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!own.valid()) return false;
  const std::string before = prefix != nullptr ? prefix : "";
  const auto function = [priority, before, callback](const std::string& line) {
    log_line(priority, before + line, callback.get());
  };
  if (!reactor->add(std::move(own), function)) return false;
  if (close) ::close(handle);
  return true;
}
