#include "daemon/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace scsipoold {

void notify(const char* state) {
  const char* path = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  if (path == nullptr || (path[0] != '/' && path[0] != '@')) return;
  const std::size_t length = std::strlen(path);
  if (length < 2 || length >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path, length);
  if (path[0] == '@') address.sun_path[0] = '\0';  // the abstract name space
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd == -1) return;
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  ::sendto(fd, state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), size);
  ::close(fd);
}

}  // namespace scsipoold
