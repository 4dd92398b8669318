#pragma once
// The daemon's side of HTTP: which addresses, and who may ask.

#include <string>

#include "daemon/config.h"
#include "daemon/router.h"
#include "platform/http/http_server.h"

namespace scsipoold {

// What the HTTP server is started with: the Unix socket for root alone, TCP for those who show the access
// key.
HTTP_Server_Options server_options(const Config& config);

// Whether the request may be handled: it came over the Unix socket or carries the access key. False with the
// answer filled in otherwise.
bool admit(const Server_Request& request, Server_Response& response);

// Reads the access key and the authorities for TLS that the configuration names. False with the reason in
// `error`.
bool load_credentials(const Config& config, std::string& error);

}  // namespace scsipoold
