#include "platform/process/pipe.h"

#include <fcntl.h>
#include <unistd.h>

namespace platform {

namespace {

bool move_up(Auto_Handle& handle) {
  if (handle.get() > STDERR_FILENO) return true;
  const int moved = ::fcntl(handle.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved == -1) return false;
  handle.reset(moved);
  return true;
}

}  // namespace

bool make_pipe(Auto_Handle& read_end, Auto_Handle& write_end) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  read_end.reset(ends[0]);
  write_end.reset(ends[1]);
  return move_up(read_end) && move_up(write_end);
}

void widen_pipe(const Auto_Handle& end) {
  ::fcntl(end.get(), F_SETPIPE_SZ, 1 << 20);
}

}  // namespace platform
