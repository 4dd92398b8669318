#include "daemon/server.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "daemon/receive_handler.h"
#include "platform/database/legacy_manager.h"
#include "platform/http/transport.h"
#include "platform/services/host_manager.h"

namespace scsipoold {

namespace {

bool bad_member(const char* member, const std::string& why, std::string& error) {
  error = std::string("member '") + member + "': " + why;
  return false;
}

bool readable(const char* member, const std::string& path, std::string& error) {
  if (path.empty() || ::access(path.c_str(), R_OK) == 0) return true;
  return bad_member(member, path + ": " + std::strerror(errno), error);
}

}  // namespace

bool admit(const Server_Request& request, Server_Response& response) {
  if (request.local) return true;
  const std::string* key = request.headers.find(HTTP_Headers::ACCESS_KEY);
  if (key != nullptr && Host_Manager::instance()->access_key_matches(*key)) return true;
  response.error(401, key == nullptr ? "the request carries no access key" : "the access key is wrong");
  return false;
}

HTTP_Server_Options server_options(const Config& config) {
  HTTP_Server_Options options;
  options.unix_socket = config.socket;
  options.addresses = config.listen;
  options.admit = admit;
  options.streams = [](const Server_Request& request) {
    return request.method == "POST" && Receive_Handler::takes(request);
  };
  return options;
}

bool load_credentials(const Config& config, std::string& error) {
  if (!readable("tls.certificate", config.tls_certificate, error) ||
      !readable("tls.key", config.tls_key, error) || !readable("tls.ca", config.tls_ca, error)) {
    return false;
  }
  std::string why;
  const bool has_certificate = !config.tls_certificate.empty() && !config.tls_key.empty();
  if (has_certificate && !http_transport::server_context(config.tls_certificate, config.tls_key, why))
    return bad_member("tls.certificate", why, error);
  if (!config.tls_ca.empty() && !http_transport::usable_ca_file(config.tls_ca, why))
    return bad_member("tls.ca", why, error);
  if (!readable("module.svc_conf", config.module.svc_conf, error)) return false;
  const std::string& catalog_key = config.catalog_key_file;
  if (!catalog_key.empty() && !database::sql::Legacy_Manager::usable_key_file(catalog_key, why))
    return bad_member("catalog_key_file", catalog_key + ": " + why, error);
  if (!config.tls_ca.empty()) {
    TLS_Settings settings = TLS_Settings::get();
    settings.ca_file = config.tls_ca;
    TLS_Settings::set(settings);
  }
  if (config.access_key_file.empty()) return true;
  return Host_Manager::instance()->load_access_key(config.access_key_file, why) ||
         bad_member("access_key_file", why, error);
}

}  // namespace scsipoold
