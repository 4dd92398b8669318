#pragma once
// A JSON session to the host that serves a peer pool, with this host's access key. Used by one thread; keeps
// its connection for later calls. A request succeeds only with status 200.

#include <ace/Basic_Types.h>

#include <string>

#include "platform/http/json_http_session.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

// Where a pool is served: the storage catalog's record of it names the host itself or the pool's URL does.
bool get_pool_host(const std::string& pool_uuid, std::string& host, ACE_UINT16& port, bool& ssl);

class Peer_Session {
 public:
  Peer_Session();

  // Looks the pool's host up.
  bool resolve(const std::string& pool_uuid);
  void address(const std::string& host, ACE_UINT16 port, bool ssl);
  const std::string& host() const { return host_; }
  ACE_UINT16 port() const { return port_; }

  // Makes the session; the reason of a failure is logged.
  bool connect();
  // Can the host be reached now? One attempt, of which nothing is logged.
  bool reachable() const;
  bool usable() const { return static_cast<bool>(session_); }

  // One request each; query parameters are sent in their order. What went wrong, and the text of a refusal,
  // is logged by the session. `reply` is untouched unless the status is 200.
  bool get(const std::string& path, const Query& query, json_spirit::Value& reply);
  bool post(const std::string& path, const json_spirit::Object& body);
  bool put(const std::string& path, const json_spirit::Object& body);
  bool del(const std::string& path, const Query& query);
  // Did the peer answer the last request, with whatever status?
  bool answered() const { return answered_; }

 private:
  bool accepted(bool answered, int status);

  std::string host_;
  ACE_UINT16 port_ = 0;
  bool ssl_ = false;
  bool answered_ = false;
  JSON_HTTP_Session session_;
};

}  // namespace scsi_pool
