#include "platform/base/random.h"

#include <sys/random.h>

#include <cerrno>
#include <random>

namespace platform {

unsigned random_number() {
  unsigned number = 0;
  ssize_t got;
  do {
    got = getrandom(&number, sizeof number, 0);
  } while (got == -1 && errno == EINTR);
  if (got == static_cast<ssize_t>(sizeof number)) return number;
  return std::random_device()();
}

}  // namespace platform
