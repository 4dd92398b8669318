#include "backup/pools/scsipool/peer_session.h"

#include "platform/base/log.h"
#include "platform/http/uri.h"
#include "platform/services/host_manager.h"
#include "platform/services/storage_catalog.h"

namespace scsi_pool {

bool get_pool_host(const std::string& pool_uuid, std::string& host, ACE_UINT16& port, bool& ssl) {
  json_spirit::Object pool;
  if (!Storage_Catalog_Utils::get_pool(pool_uuid, pool, 0))
    return LOG_FAILURE("Failed to get pool host info:get pool info error\n");
  json_spirit::Object attrs;
  if (json_spirit::object_find(pool, "extended_attrs", attrs) &&
      json_spirit::object_find(attrs, "host", host)) {
    if (!json_spirit::object_find(attrs, "port", port) || !json_spirit::object_find(attrs, "ssl", ssl))
      return LOG_FAILURE("Failed to get pool host info:get lanfree host info error\n");
    return true;
  }
  Pool_URL_Info url(pool_uuid);
  if (!url.init()) return LOG_FAILURE("Failed to get pool host info:query storaged catalog error\n");
  host = url.uri().host();
  port = url.uri().port();
  ssl = url.uri().is_ssl();
  return true;
}

Peer_Session::Peer_Session() : session_(5, 300) {}

bool Peer_Session::resolve(const std::string& pool_uuid) {
  return get_pool_host(pool_uuid, host_, port_, ssl_);
}

void Peer_Session::address(const std::string& host, ACE_UINT16 port, bool ssl) {
  host_ = host;
  port_ = port;
  ssl_ = ssl;
}

bool Peer_Session::connect() {
  session_.session(
      HTTP_Session_Factory::create(host_, port_, ssl_, nullptr, 3, nullptr, false, 120, 120, 0, 0));
  if (!usable()) return false;
  session_.headers().put(HTTP_Headers::ACCESS_KEY, Host_Manager::instance()->access_key(), true);
  return true;
}

bool Peer_Session::reachable() const {
  constexpr unsigned SECONDS = 15;
  HTTP_Failure failure;
  return HTTP_Session_Factory::try_create(host_, port_, ssl_, nullptr, SECONDS, failure) != nullptr;
}

bool Peer_Session::accepted(bool answered, int status) {
  answered_ = answered;
  return answered && status == 200;
}

bool Peer_Session::get(const std::string& path, const Query& query, json_spirit::Value& reply) {
  json_spirit::Value answer;
  int status = 0;
  const bool answered = session_.get(path, query, answer, status);
  if (!accepted(answered, status)) return false;
  reply = std::move(answer);
  return true;
}

bool Peer_Session::post(const std::string& path, const json_spirit::Object& body) {
  json_spirit::Value answer;
  int status = 0;
  const bool answered = session_.post(path, body, answer, status);
  return accepted(answered, status);
}

bool Peer_Session::put(const std::string& path, const json_spirit::Object& body) {
  json_spirit::Value answer;
  int status = 0;
  const bool answered = session_.put(path, body, answer, status);
  return accepted(answered, status);
}

bool Peer_Session::del(const std::string& path, const Query& query) {
  json_spirit::Value answer;
  int status = 0;
  const bool answered = session_.del(path, query, answer, status);
  return accepted(answered, status);
}

}  // namespace scsi_pool
