#include "ctl/commands.h"
#include "ctl/table.h"

namespace ctl {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

std::string text_of(const Object& object, const char* key) {
  std::string text;
  json_spirit::object_find(object, key, text);
  return text;
}

void print_pools(const Array& pools, std::ostream& out) {
  Table table;
  for (const char* heading : {"NAME", "ID", "FILESYSTEM", "STATE", "WHAT TO DO"})
    table.column(heading);
  for (const Value& value : pools) {
    const Object* pool = json_spirit::get_object(value);
    if (pool == nullptr) continue;
    table.row({text_of(*pool, "pool_name"), text_of(*pool, "pool_id"), text_of(*pool, "fs_type"),
               text_of(*pool, "state"), text_of(*pool, "message")});
  }
  if (!table.empty()) table.print(out);
}

void print_lines(const Object& report, const char* key, const std::string& before, std::ostream& out) {
  Array lines;
  json_spirit::object_find(report, key, lines);
  for (const Value& line : lines) {
    if (line.is_string()) out << before << printable(line.get<std::string>()) << "\n";
  }
}

// Exit status 1 when something is wrong, so that a monitor needs no parsing.
int health(Session& session) {
  Value answer;
  if (!session.request("GET", "/svc/r/health", {}, nullptr, answer)) return FAILED;
  const Object* report = json_spirit::get_object(answer);
  if (report == nullptr) return session.failed("the daemon's answer is no health report");
  const std::string status = text_of(*report, "status");
  if (session.json) {
    session.print_json(answer);
  } else {
    Array pools;
    session.out << "status: " << printable(status) << " (scsipoold " << printable(text_of(*report, "version"))
                << ")\n";
    json_spirit::object_find(*report, "pools", pools);
    print_pools(pools, session.out);
    print_lines(*report, "problems", "problem: ", session.out);
    print_lines(*report, "orphans", "orphaned backing file (see pool delete --orphan): ", session.out);
  }
  return status == "ok" ? DONE : FAILED;
}

}  // namespace

void add_health_commands(CLI::App& app, Action& action) {
  auto* command = app.add_subcommand("health", "Show what is wrong; exit status 1 when something is");
  command->callback([&action] { action = health; });
}

}  // namespace ctl
