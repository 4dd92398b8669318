#include "daemon/own_url.h"

#include <unistd.h>

#include "platform/http/uri.h"

namespace scsipoold {

namespace {

std::string host_of(const HTTP_Listen_Address& address) {
  if (!address.host.empty() && address.host != "*" && address.host != "::" && address.host != "0.0.0.0")
    return address.host;
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 && name[0] != '\0' ? name : "localhost";
}

}  // namespace

std::string own_url(const Config& config) {
  const HTTP_Listen_Address* chosen = nullptr;
  for (const HTTP_Listen_Address& address : config.listen)
    if (chosen == nullptr || (address.tls && !chosen->tls)) chosen = &address;
  if (chosen == nullptr) return "http://localhost:1/";
  return URI(chosen->tls ? "https" : "http", host_of(*chosen), chosen->port, "/").str();
}

}  // namespace scsipoold
