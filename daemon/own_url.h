#pragma once
// Where peers reach this daemon.

#include <string>

#include "daemon/config.h"

namespace scsipoold {

// The address of the first TCP listener, TLS preferred; for one that listens on all addresses, this host's
// name. Without a listener an address that nobody serves, because a pool's record always has one.
std::string own_url(const Config& config);

}  // namespace scsipoold
