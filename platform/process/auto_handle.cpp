#include "platform/process/auto_handle.h"

#include <unistd.h>

#include <cerrno>

void Auto_Handle::reset(ACE_HANDLE handle) {
  if (handle_ != ACE_INVALID_HANDLE && handle_ != handle) {
    const int error = errno;
    ::close(handle_);
    errno = error;
  }
  handle_ = handle;
}
