// export check [--repair].

#include <memory>

#include "ctl/record.h"
#include "ctl/requests.h"

namespace ctl {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

const char CHECK_PATH[] = "/svc/r/scsipool/export/check";

// Done when all agree, failed otherwise, so that a script sees it.
int show_check(Session& session, const Value& answer) {
  const Object* check = json_spirit::get_object(answer);
  bool good = false;
  Array exports, findings;
  if (check == nullptr || !json_spirit::object_find(*check, "ok", good) ||
      !json_spirit::object_find(*check, "exports", exports) ||
      !json_spirit::object_find(*check, "findings", findings))
    return session.failed("the daemon's answer is no check");
  if (session.json) {
    session.print_json(answer);
    return good ? DONE : FAILED;
  }
  Table table;
  table.column("LUN");
  table.column("TARGET");
  for (const char* heading : {"CATALOG", "SAVED", "KERNEL"})
    table.column(heading, Table::RIGHT);
  table.column("DIFFERENCE");
  for (const Value& value : exports) {
    const Object* one = json_spirit::get_object(value);
    if (one == nullptr) continue;
    const std::string lun = text_of(*one, "lun_id");
    table.row({lun.empty() ? text_of(*one, "path") : lun, text_of(*one, "target"),
               number_of(*one, "catalog", "-"), number_of(*one, "saved", "-"), number_of(*one, "kernel", "-"),
               text_of(*one, "difference")});
  }
  if (!table.empty()) table.print(session.out);
  for (const Value& value : findings)
    if (const Object* finding = json_spirit::get_object(value))
      session.out << printable(text_of(*finding, "kind") + ": " + text_of(*finding, "text")) << "\n";
  session.out << (good ? "all exports are as they should be" : "the exports differ: --repair mends them")
              << "\n";
  return good ? DONE : FAILED;
}

}  // namespace

void add_export_commands(CLI::App& app, Action& action) {
  auto* group = app.add_subcommand("export", "Exports of all pools");
  group->require_subcommand(1);
  group->fallthrough();
  auto repair = std::make_shared<bool>(false);
  auto* command = group->add_subcommand(
      "check", "Compare the catalog, the saved target configuration and the kernel; fails when they differ");
  command->add_flag("--repair", *repair,
                    "Make the kernel what the catalog says, and remove what a crash left behind");
  command->callback([repair, &action] {
    action = [repair](Session& session) {
      const Object body{{"repair", true}};
      Value answer;
      const bool answered = *repair ? session.request("POST", CHECK_PATH, {}, &body, answer)
                                    : session.request("GET", CHECK_PATH, {}, nullptr, answer);
      return answered ? show_check(session, answer) : FAILED;
    };
  });
}

}  // namespace ctl
