// lun create|list|show|delete|export|unexport|rollback|trim and lun acl add|remove|list.

#include <memory>

#include "ctl/pools.h"
#include "ctl/record.h"
#include "ctl/requests.h"
#include "ctl/size_text.h"

namespace ctl {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

const char LUN_PATH[] = "/svc/r/scsipool/lun";
const char EXPORT_PATH[] = "/svc/r/scsipool/lun/export";
const char ACL_PATH[] = "/svc/r/scsipool/lun/acl";

bool exported(const Object& lun) {
  return lun.find("lun_num") != lun.end();
}

// Who may use the LUN. Without initiators every one may write: that must be seen at once.
std::string initiators_of(const Object& lun) {
  Array acls;
  if (!exported(lun)) return "-";
  json_spirit::object_find(lun, "acls", acls);
  if (flag_of(lun, "demo_mode") == "yes") return "EVERY INITIATOR MAY WRITE (demo mode)";
  if (acls.empty()) return "none";
  std::string text;
  for (const Value& value : acls)
    if (const Object* acl = json_spirit::get_object(value))
      text += (text.empty() ? "" : ", ") + text_of(*acl, "initiator");
  return text;
}

void lun_row(Table& table, const Object& lun) {
  table.row({text_of(lun, "lun_id"), size_of(lun, "max_size"), size_of(lun, "size"),
             number_of(lun, "lun_num", "-"), exported(lun) ? text_of(lun, "target") : "-",
             initiators_of(lun)});
}

Table lun_table() {
  Table table;
  table.column("LUN");
  table.column("SIZE", Table::RIGHT);
  table.column("USED", Table::RIGHT);
  table.column("NUMBER", Table::RIGHT);
  table.column("TARGET");
  table.column("INITIATORS");
  return table;
}

int show_lun(Session& session, const Value& record) {
  if (session.json) return session.print_json(record);
  const Object* lun = json_spirit::get_object(record);
  if (lun == nullptr) return session.failed("the daemon's answer is no LUN");
  Table table;
  table.column("LUN");
  table.column(text_of(*lun, "lun_id"));
  table.row({"size", size_of(*lun, "max_size")});
  table.row({"used", size_of(*lun, "size")});
  table.row({"attributes", text_of(*lun, "extended_attrs")});
  if (lun->find("origin_snap") != lun->end())
    table.row({"clone of", text_of(*lun, "origin_lun") + "@" + text_of(*lun, "origin_snap")});
  table.row({"exported", exported(*lun) ? "yes" : "no"});
  table.row({"type", text_of(*lun, "type")});
  table.row({"target", text_of(*lun, "target")});
  if (exported(*lun)) {
    table.row({"number", number_of(*lun, "lun_num")});
    table.row({"initiators", initiators_of(*lun)});
    table.row({"serial number", text_of(*lun, "vpd_serial_number", "?")});
  }
  table.print(session.out);
  return DONE;
}

int request_lun(Session& session, const std::string& method, const std::string& path, const Object& body) {
  Value answer;
  if (!session.request(method, path, {}, &body, answer)) return FAILED;
  return show_lun(session, answer);
}

struct Options {
  std::string lun, size, id, retention_type, snapshot, type, target, initiator;
  std::vector<std::string> acls;
  std::uint64_t block_size = 0;
  bool do_export = false, link_clone = false, force = false, yes = false;
};

void add_acls(CLI::App* command, Options& options) {
  command
      ->add_option("--acl", options.acls,
                   "Initiator that may use the LUN, INITIATOR[=HOST]; without any, all may")
      ->allow_extra_args(false);
}

int create(Session& session, const std::string& pool, const Options& options) {
  Object body{{"pool_id", pool}, {"export", options.do_export || !options.acls.empty()}};
  std::uint64_t bytes = 0;
  std::string why;
  if (!options.size.empty() && parse_size(options.size, bytes, why)) body["lun_size"] = bytes;
  if (!options.id.empty()) body["lun_id"] = options.id;
  if (!options.snapshot.empty()) {
    body["snapshot_id"] = options.snapshot;
    body["link_clone"] = options.link_clone;
  }
  if (options.block_size != 0) body["block_size"] = options.block_size;
  if (!options.retention_type.empty()) body["retention_type"] = options.retention_type;
  if (!options.acls.empty()) body["acls"] = acl_array(options.acls);
  return request_lun(session, "POST", LUN_PATH, body);
}

void add_create(CLI::App& lun, Action& action) {
  auto options = std::make_shared<Options>();
  CLI::App* command = pool_command(
      lun, action, "create", "Make a LUN",
      [options](Session& session, const std::string& pool) { return create(session, pool, *options); });
  auto* source = command->add_option_group("source");
  source->add_option("--size", options->size, "Size, such as 10G")->check(size_check());
  auto* snapshot = source->add_option("--snapshot", options->snapshot, "Make it from this LUN snapshot");
  source->require_option(1);
  command
      ->add_flag("--link", options->link_clone, "With --snapshot: share its blocks instead of copying them")
      ->needs(snapshot);
  command->add_option("--id", options->id, "UUID of the LUN (default: a new one)");
  command->add_flag("--export", options->do_export, "Export it at once");
  add_acls(command, *options);
  command->add_option("--block-size", options->block_size, "Block size in bytes (default: the pool's)");
  command->add_option("--retention-type", options->retention_type, "Which snapshots recycling keeps")
      ->check(CLI::IsMember({"newest", "normal"}));
}

// A command about one LUN of a pool.
template <typename Run>
CLI::App* lun_command(CLI::App& parent, Action& action, const char* name, const char* help,
                      std::shared_ptr<Options> options, Run run) {
  CLI::App* command = pool_command(
      parent, action, name, help,
      [options, run](Session& session, const std::string& pool) { return run(session, pool, *options); });
  command->add_option("LUN", options->lun, "UUID of the LUN")->required();
  return command;
}

int show_one(Session& session, const std::string& pool, const Options& options) {
  Value answer;
  if (!session.request("GET", LUN_PATH, {{"pool_id", pool}, {"lun_id", options.lun}}, nullptr, answer))
    return FAILED;
  if (!answer.is_array() || answer.empty()) return session.failed("the daemon's answer is no LUN");
  return show_lun(session, answer.front());
}

int remove(Session& session, const std::string& pool, const Options& options) {
  if (!options.yes && !session.confirm("Delete LUN " + options.lun + " with all its snapshots?"))
    return FAILED;
  Query query{{"pool_id", pool}, {"lun_id", options.lun}};
  if (options.force) query.emplace_back("force", "true");
  return send(session, "DELETE", LUN_PATH, query, nullptr, "deleted LUN " + options.lun);
}

int do_export(Session& session, const std::string& pool, const Options& options) {
  Object body{{"pool_id", pool}, {"lun_id", options.lun}, {"acls", acl_array(options.acls)}};
  if (!options.type.empty()) body["type"] = options.type == "fc" ? "FC" : "iSCSI";
  if (!options.target.empty()) body["target"] = options.target;
  return request_lun(session, "POST", EXPORT_PATH, body);
}

int unexport(Session& session, const std::string& pool, const Options& options) {
  Query query{{"pool_id", pool}, {"lun_id", options.lun}};
  if (options.force) query.emplace_back("force", "true");
  return send(session, "DELETE", EXPORT_PATH, query, nullptr, "unexported LUN " + options.lun);
}

int rollback(Session& session, const std::string& pool, const Options& options) {
  if (!options.yes && !session.confirm("Roll LUN " + options.lun + " back to its newest snapshot?"))
    return FAILED;
  return request_lun(session, "PUT", LUN_PATH,
                     {{"pool_id", pool}, {"lun_id", options.lun}, {"force", options.force}});
}

int trim(Session& session, const std::string& pool, const Options& options) {
  const Object body{{"pool_id", pool}, {"lun_id", options.lun}};
  return send(session, "POST", "/svc/r/scsipool/trim", {}, &body, "trimmed LUN " + options.lun);
}

int add_initiators(Session& session, const std::string& pool, const Options& options) {
  return request_lun(session, "POST", ACL_PATH,
                     {{"pool_id", pool}, {"lun_id", options.lun}, {"acls", acl_array(options.acls)}});
}

int remove_initiator(Session& session, const std::string& pool, const Options& options) {
  Value answer;
  const Query query{{"pool_id", pool}, {"lun_id", options.lun}, {"initiator", options.initiator}};
  if (!session.request("DELETE", ACL_PATH, query, nullptr, answer)) return FAILED;
  return show_lun(session, answer);
}

void add_acl_commands(CLI::App& lun, Action& action) {
  auto* acl = lun.add_subcommand("acl", "Initiators that may use a LUN");
  acl->require_subcommand(1);
  acl->fallthrough();
  auto added = std::make_shared<Options>();
  lun_command(*acl, action, "add", "Add initiators", added, add_initiators)
      ->add_option("INITIATOR", added->acls, "INITIATOR[=HOST]")
      ->required();
  auto removed = std::make_shared<Options>();
  lun_command(*acl, action, "remove", "Remove an initiator", removed, remove_initiator)
      ->add_option("INITIATOR", removed->initiator, "Its name")
      ->required();
  auto pool = std::make_shared<std::string>();
  auto* list = acl->add_subcommand("list", "List the initiators of every export");
  list->add_option("POOL", *pool, "Id or name of the pool (default: all)");
  list->callback([pool, &action] {
    action = [pool](Session& session) {
      std::string id;
      Query query;
      if (!pool->empty() && !find_pool_id(session, *pool, id)) return FAILED;
      if (!id.empty()) query.emplace_back("pool_id", id);
      Table table;
      table.column("INITIATOR");
      table.column("HOST");
      return show_list(
          session, "/svc/r/scsipool/acl", query, table,
          [](Table& rows, const Object& one) {
            rows.row({text_of(one, "initiator"), text_of(one, "host_uuid", "-")});
          },
          "no initiators");
    };
  });
}

}  // namespace

void add_lun_commands(CLI::App& app, Action& action) {
  auto* lun = app.add_subcommand("lun", "LUNs");
  lun->require_subcommand(1);
  lun->fallthrough();
  add_create(*lun, action);
  pool_command(*lun, action, "list", "List the LUNs of a pool",
               [](Session& session, const std::string& pool) {
                 return show_list(session, LUN_PATH, {{"pool_id", pool}}, lun_table(), lun_row, "no LUNs");
               });
  lun_command(*lun, action, "show", "Show one LUN", std::make_shared<Options>(), show_one);

  auto deleted = std::make_shared<Options>();
  auto* command = lun_command(*lun, action, "delete", "Delete a LUN with all its snapshots", deleted, remove);
  command->add_flag("--force", deleted->force, "Also while initiators use it");
  command->add_flag("--yes", deleted->yes, "Do not ask");

  auto exporting = std::make_shared<Options>();
  command = lun_command(*lun, action, "export", "Export a LUN", exporting, do_export);
  add_acls(command, *exporting);
  auto* type = command->add_option("--type", exporting->type, "Another kind of target than the pool's")
                   ->check(CLI::IsMember({"iscsi", "fc"}));
  command->add_option("--target", exporting->target, "Another target than the pool's")->needs(type);

  auto unexported = std::make_shared<Options>();
  lun_command(*lun, action, "unexport", "Take the export of a LUN away", unexported, unexport)
      ->add_flag("--force", unexported->force, "Also while initiators use it");

  auto rolled = std::make_shared<Options>();
  command =
      lun_command(*lun, action, "rollback", "Bring a LUN back to its newest snapshot", rolled, rollback);
  command->add_flag("--force", rolled->force, "Also while initiators use it");
  command->add_flag("--yes", rolled->yes, "Do not ask");

  lun_command(*lun, action, "trim", "Give unused blocks of a LUN back to the pool",
              std::make_shared<Options>(), trim);
  add_acl_commands(*lun, action);
}

}  // namespace ctl
