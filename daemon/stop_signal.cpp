#include "daemon/stop_signal.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace scsipoold {

namespace {

int signal_pipe[2] = {-1, -1};

extern "C" void remember_signal(int number) {
  const int error = errno;
  const char byte = static_cast<char>(number);
  // A full pipe holds signals enough already.
  [[maybe_unused]] const ssize_t written = ::write(signal_pipe[1], &byte, 1);
  errno = error;
}

bool handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  return ::sigaction(number, &action, nullptr) == 0;
}

}  // namespace

bool catch_stop_signals() {
  if (signal_pipe[0] == -1 && ::pipe2(signal_pipe, O_CLOEXEC) != 0) return false;
  ::fcntl(signal_pipe[1], F_SETFL, O_NONBLOCK);
  return handle(SIGTERM, remember_signal) && handle(SIGINT, remember_signal) && handle(SIGPIPE, SIG_IGN);
}

int wait_for_stop_signal() {
  char byte = 0;
  while (::read(signal_pipe[0], &byte, 1) != 1) {
  }
  return byte;
}

}  // namespace scsipoold
