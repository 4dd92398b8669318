#include "daemon/peer_check.h"

#include "platform/http/http_session.h"
#include "platform/http/http_wire.h"
#include "platform/services/catalog_records.h"
#include "platform/services/host_manager.h"
#include "platform/services/storage_catalog.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr unsigned TIMEOUT_SECONDS = 15;

// Adds a step and returns whether it was good.
bool step(Array& steps, const char* name, bool good, const std::string& message) {
  steps.push_back(Object{{"step", name}, {"ok", good}, {"message", message}});
  return good;
}

bool find_address(Array& steps, const std::string& pool_id, catalog_records::Address& address) {
  Object pool;
  std::string why;
  const bool known = Storage_Catalog_Utils::get_pool(pool_id, pool, &why) &&
                     catalog_records::read_address(pool, address, why);
  return step(steps, "address", known, known ? address.host + ":" + std::to_string(address.port) : why);
}

// Connects and asks for the pool's record.
bool ask(Array& steps, const std::string& pool_id, const catalog_records::Address& address,
         HTTP_Response& response) {
  HTTP_Failure failure;
  const auto session = HTTP_Session_Factory::try_create(address.host, address.port, address.ssl, nullptr,
                                                        TIMEOUT_SECONDS, failure);
  HTTP_Request request;
  request.path = "/svc/r/pool";
  request.query = {{"type", "scsi"}, {"pool_id", pool_id}};
  request.headers.put(HTTP_Headers::ACCESS_KEY, Host_Manager::instance()->access_key(), true);
  const bool answered = session != nullptr && session->send(request, response, failure);
  if (answered)
    return step(steps, "connection", true,
                address.ssl ? "connected, certificate verified" : "connected, without TLS");
  // One side speaks TLS and the other does not: neither can say so.
  std::string text = failure.text;
  if (address.ssl && session == nullptr && failure.temporary && text.rfind("TLS handshake", 0) == 0)
    text += " (a host without TLS has an address that begins with http:)";
  if (!address.ssl && session != nullptr) text += " (a host with TLS has an address that begins with https:)";
  return step(steps, "connection", false, text);
}

bool read_pool(Array& steps, const HTTP_Response& response, std::string& fs_type) {
  if (response.status != 200) return step(steps, "pool", false, http_wire::refusal_text(response));
  Value body;
  const bool is_list = loads_json(response.body, body) && body.is_array();
  const Object* pool = is_list && !body.empty() ? json_spirit::get_object(body.front()) : nullptr;
  const bool there = pool != nullptr && json_spirit::object_find(*pool, "fs_type", fs_type);
  return step(steps, "pool", there, there ? "it is there" : "the answer is no record of a pool");
}

}  // namespace

Array check_peer(const std::string& pool_id, const std::string& wanted_fs) {
  Array steps;
  catalog_records::Address address;
  HTTP_Response response;
  std::string fs_type;
  if (!find_address(steps, pool_id, address) || !ask(steps, pool_id, address, response)) return steps;
  const bool refused = response.status == 401;
  if (!step(steps, "access key", !refused,
            refused ? "refused: both hosts need the same access key" : "accepted") ||
      !read_pool(steps, response, fs_type))
    return steps;
  const bool same = wanted_fs.empty() || wanted_fs == fs_type;
  step(steps, "filesystem type", same, same ? fs_type : fs_type + " there, " + wanted_fs + " here");
  return steps;
}

bool target_takes_key(const std::string& pool_id, Reply& reply) {
  Object setting;
  std::string target;
  if (!Storage_Catalog_Manager::instance()->find_replicate(pool_id, setting) ||
      !json_spirit::object_find(setting, "target_uuid", target))
    return true;
  const Array steps = check_peer(target, "");
  if (steps.back()["step"] != "access key") return true;
  reply = refusal(409, "nothing was deleted: " + steps.front()["message"].get<std::string>() +
                           ", which the pool replicates to, refuses this host's access key");
  return false;
}

}  // namespace scsipoold
