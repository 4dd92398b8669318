#include "ctl/requests.h"

#include <memory>

#include "ctl/pools.h"
#include "ctl/size_text.h"
#include "platform/base/uuid.h"

namespace ctl {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

int send(Session& session, const std::string& method, const std::string& path, const Query& query,
         const Object* body, const std::string& done) {
  Value answer;
  if (!session.request(method, path, query, body, answer)) return FAILED;
  if (session.json) return session.print_json(answer);
  session.out << printable(done) << "\n";
  return DONE;
}

int show_list(Session& session, const std::string& path, const Query& query, Table table,
              const Fill_Row& fill, const std::string& none) {
  Value answer;
  if (!session.request("GET", path, query, nullptr, answer)) return FAILED;
  if (session.json) return session.print_json(answer);
  const Array* list = json_spirit::get_array(answer);
  if (list == nullptr) return session.failed("the daemon's answer is no list");
  for (const Value& value : *list)
    if (const Object* record = json_spirit::get_object(value)) fill(table, *record);
  if (table.empty())
    session.out << none << "\n";
  else
    table.print(session.out);
  return DONE;
}

Array acl_array(const std::vector<std::string>& texts) {
  Array acls;
  for (const std::string& text : texts) {
    const std::size_t equals = text.find('=');
    Object acl{{"initiator", text.substr(0, equals)}};
    if (equals != std::string::npos) acl["host_uuid"] = text.substr(equals + 1);
    acls.push_back(std::move(acl));
  }
  return acls;
}

CLI::Validator size_check() {
  return CLI::Validator(
      [](std::string& text) {
        std::uint64_t bytes = 0;
        std::string why;
        parse_size(text, bytes, why);
        return why;
      },
      "SIZE");
}

CLI::Validator uuid_check(const std::string& hint) {
  return CLI::Validator(
      [hint](std::string& text) {
        return platform::is_uuid(text) ? "" : "'" + text + "' is no UUID: see " + hint;
      },
      "UUID");
}

CLI::App* pool_command(CLI::App& parent, Action& action, const char* name, const char* help, Pool_Run run) {
  auto pool = std::make_shared<std::string>();
  CLI::App* command = parent.add_subcommand(name, help);
  command->add_option("POOL", *pool, "Id or name of the pool")->required();
  command->callback([pool, run, &action] {
    action = [pool, run](Session& session) {
      std::string id;
      return find_pool_id(session, *pool, id) ? run(session, id) : FAILED;
    };
  });
  return command;
}

}  // namespace ctl
