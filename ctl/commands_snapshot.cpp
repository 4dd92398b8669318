// snapshot create|list|show|delete|export|unexport|recycle and snapshot acl add|remove; the same for sub
// filesystems under fs snapshot (without exports).

#include <memory>

#include "ctl/record.h"
#include "ctl/requests.h"

namespace ctl {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

struct Kind {
  std::string path;
  const char* one;   // names one dataset in requests
  const char* many;  // the same for several
  const char* word;  // for people
};

const Kind LUN_KIND = {"/svc/r/scsipool/snapshot", "lun_id", "lun_ids", "LUN"};
const Kind FS_KIND = {"/svc/r/scsipool/fs/snapshot", "name", "names", "FILESYSTEM"};

struct Options {
  std::string dataset, snapshot, catalog, type, target, initiator, mark;
  std::vector<std::string> datasets, acls;
  int number = -1;
  bool keep = false, again = false, force = false, yes = false, delete_empty = false;
};

Table snapshot_table(const Kind& kind) {
  Table table;
  table.column("SNAPSHOT");
  table.column(kind.word);
  table.column("SEQ", Table::RIGHT);
  table.column("CREATED");
  table.column("OWN SIZE", Table::RIGHT);
  table.column("RECYCLE");
  table.column("EXPORTED AS");
  return table;
}

std::string export_of(const Object& snapshot) {
  if (snapshot.find("lun_num") == snapshot.end()) return "-";
  return number_of(snapshot, "lun_num") + " on " + text_of(snapshot, "target") +
         (flag_of(snapshot, "demo_mode") == "yes" ? " (demo mode: EVERY INITIATOR MAY WRITE)" : "");
}

void snapshot_row(Table& table, const Object& snapshot) {
  table.row({text_of(snapshot, "id"), text_of(snapshot, "parent_id"), number_of(snapshot, "seq"),
             text_of(snapshot, "ctime"), size_of(snapshot, "excl_size"), flag_of(snapshot, "recycle"),
             export_of(snapshot)});
}

int list(Session& session, const Kind& kind, const Query& query) {
  return show_list(session, kind.path, query, snapshot_table(kind), snapshot_row, "no snapshots");
}

int create(Session& session, const Kind& kind, const std::string& pool, const Options& options) {
  Object body{{"pool_id", pool}, {kind.many, options.datasets}, {"recycle", !options.keep}};
  if (!options.catalog.empty()) body["catalog_uuid"] = options.catalog;
  Value answer;
  if (!session.request("POST", kind.path, {}, &body, answer)) return FAILED;
  if (session.json) return session.print_json(answer);
  Table table;
  table.column("SNAPSHOT");
  table.column(kind.word);
  for (const Value& value : answer)
    if (const Object* one = json_spirit::get_object(value))
      table.row({text_of(*one, "id"), text_of(*one, "parent_id")});
  table.print(session.out);
  return DONE;
}

int remove(Session& session, const Kind& kind, const std::string& pool, const Options& options) {
  if (!options.yes && !session.confirm("Delete snapshot " + options.snapshot + "?")) return FAILED;
  Query query{{"pool_id", pool}, {"snapshot_id", options.snapshot}};
  if (options.force) query.emplace_back("force", "true");
  if (options.delete_empty)
    query.emplace_back(&kind == &LUN_KIND ? "delete_empty_lun" : "delete_empty_fs", "true");
  return send(session, "DELETE", kind.path, query, nullptr, "deleted snapshot " + options.snapshot);
}

int recycle(Session& session, const Kind& kind, const std::string& pool, const Options& options) {
  const Object body{{"pool_id", pool}, {"snapshot_id", options.snapshot}, {"recycle", options.mark == "on"}};
  return send(session, "PUT", kind.path, {}, &body,
              "recycling of snapshot " + options.snapshot + " is " + options.mark);
}

// A command about one snapshot of a pool.
template <typename Run>
CLI::App* snapshot_command(CLI::App& parent, Action& action, const char* name, const char* help,
                           std::shared_ptr<Options> options, Run run) {
  CLI::App* command = pool_command(
      parent, action, name, help,
      [options, run](Session& session, const std::string& pool) { return run(session, pool, *options); });
  command->add_option("SNAPSHOT", options->snapshot, "UUID of the snapshot")
      ->required()
      ->check(uuid_check("snapshot list"));
  return command;
}

// What both kinds have.
void add_common(CLI::App& snapshot, Action& action, const Kind& kind) {
  auto created = std::make_shared<Options>();
  CLI::App* command = pool_command(snapshot, action, "create", "Take snapshots",
                                   [created, &kind](Session& session, const std::string& pool) {
                                     return create(session, kind, pool, *created);
                                   });
  auto* datasets = command->add_option(kind.word, created->datasets, "What to take snapshots of")->required();
  if (&kind == &LUN_KIND) datasets->check(uuid_check("lun list"));
  command->add_flag("--keep", created->keep, "Do not mark them for recycling");
  command->add_option("--catalog", created->catalog, "UUID of the backup catalog to replicate with them");

  auto listed = std::make_shared<Options>();
  command = pool_command(snapshot, action, "list", "List snapshots",
                         [listed, &kind](Session& session, const std::string& pool) {
                           Query query{{"pool_id", pool}};
                           if (!listed->dataset.empty()) query.emplace_back(kind.one, listed->dataset);
                           return list(session, kind, query);
                         });
  datasets = command->add_option(kind.word, listed->dataset, "Only its snapshots");
  if (&kind == &LUN_KIND) datasets->check(uuid_check("lun list"));

  snapshot_command(snapshot, action, "show", "Show one snapshot", std::make_shared<Options>(),
                   [&kind](Session& session, const std::string& pool, const Options& options) {
                     return list(session, kind, {{"pool_id", pool}, {"snapshot_id", options.snapshot}});
                   });

  auto deleted = std::make_shared<Options>();
  command =
      snapshot_command(snapshot, action, "delete", "Delete a snapshot, on the replication target too",
                       deleted, [&kind](Session& session, const std::string& pool, const Options& options) {
                         return remove(session, kind, pool, options);
                       });
  command->add_flag("--yes", deleted->yes, "Do not ask");
  if (&kind == &LUN_KIND) command->add_flag("--force", deleted->force, "Unexport it first");
  command->add_flag("--delete-empty", deleted->delete_empty,
                    "Delete what it belongs to with its last snapshot");

  auto marked = std::make_shared<Options>();
  snapshot_command(snapshot, action, "recycle", "Mark a snapshot for recycling, or not", marked,
                   [&kind](Session& session, const std::string& pool, const Options& options) {
                     return recycle(session, kind, pool, options);
                   })
      ->add_option("MARK", marked->mark, "on or off")
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
}

int show_answer(Session& session, const Value& answer) {
  if (session.json) return session.print_json(answer);
  Table table = snapshot_table(LUN_KIND);
  for (const Value& value : answer)
    if (const Object* one = json_spirit::get_object(value)) snapshot_row(table, *one);
  table.print(session.out);
  return DONE;
}

int do_export(Session& session, const std::string& pool, const Options& options) {
  Object body{{"pool_id", pool},
              {"snapshot_id", options.snapshot},
              {"acls", acl_array(options.acls)},
              {"only_once", !options.again}};
  if (!options.type.empty()) body["type"] = options.type == "fc" ? "FC" : "iSCSI";
  if (!options.target.empty()) body["target"] = options.target;
  Value answer;
  if (!session.request("POST", LUN_KIND.path + "/export", {}, &body, answer)) return FAILED;
  return show_answer(session, answer);
}

int unexport(Session& session, const std::string& pool, const Options& options) {
  Query query{{"pool_id", pool}, {"snapshot_id", options.snapshot}};
  if (options.number >= 0) query.emplace_back("lun_num", std::to_string(options.number));
  return send(session, "DELETE", LUN_KIND.path + "/export", query, nullptr,
              "unexported snapshot " + options.snapshot);
}

int add_initiators(Session& session, const std::string& pool, const Options& options) {
  Object body{{"pool_id", pool}, {"snapshot_id", options.snapshot}, {"acls", acl_array(options.acls)}};
  if (options.number >= 0) body["lun_num"] = options.number;
  Value answer;
  if (!session.request("POST", LUN_KIND.path + "/acl", {}, &body, answer)) return FAILED;
  return show_answer(session, answer);
}

int remove_initiator(Session& session, const std::string& pool, const Options& options) {
  Query query{{"pool_id", pool}, {"snapshot_id", options.snapshot}, {"initiator", options.initiator}};
  if (options.number >= 0) query.emplace_back("lun_num", std::to_string(options.number));
  Value answer;
  if (!session.request("DELETE", LUN_KIND.path + "/acl", query, nullptr, answer)) return FAILED;
  return show_answer(session, answer);
}

void add_number(CLI::App* command, Options& options) {
  command->add_option("--number", options.number, "Only the export with this LUN number")
      ->check(CLI::Range(0, 65534));
}

void add_snapshot_exports(CLI::App& snapshot, Action& action) {
  auto exporting = std::make_shared<Options>();
  auto* command = snapshot_command(snapshot, action, "export", "Export a snapshot as a LUN of its own",
                                   exporting, do_export);
  command
      ->add_option("--acl", exporting->acls,
                   "Initiator that may use it, INITIATOR[=HOST]; without any, all may")
      ->allow_extra_args(false);
  command->add_flag("--again", exporting->again, "Another export beside one that is there");
  auto* type = command->add_option("--type", exporting->type, "Another kind of target than the pool's")
                   ->check(CLI::IsMember({"iscsi", "fc"}));
  command->add_option("--target", exporting->target, "Another target than the pool's")->needs(type);

  auto unexported = std::make_shared<Options>();
  add_number(snapshot_command(snapshot, action, "unexport", "Take the exports of a snapshot away", unexported,
                              unexport),
             *unexported);

  auto* acl = snapshot.add_subcommand("acl", "Initiators that may use an exported snapshot");
  acl->require_subcommand(1);
  acl->fallthrough();
  auto added = std::make_shared<Options>();
  command = snapshot_command(*acl, action, "add", "Add initiators", added, add_initiators);
  command->add_option("INITIATOR", added->acls, "INITIATOR[=HOST]")->required();
  add_number(command, *added);
  auto removed = std::make_shared<Options>();
  command = snapshot_command(*acl, action, "remove", "Remove an initiator", removed, remove_initiator);
  command->add_option("INITIATOR", removed->initiator, "Its name")->required();
  add_number(command, *removed);
}

CLI::App* snapshot_group(CLI::App& parent, const char* help) {
  auto* group = parent.add_subcommand("snapshot", help);
  group->require_subcommand(1);
  group->fallthrough();
  return group;
}

}  // namespace

void add_snapshot_commands(CLI::App& app, Action& action) {
  CLI::App* snapshot = snapshot_group(app, "Snapshots of LUNs");
  add_common(*snapshot, action, LUN_KIND);
  add_snapshot_exports(*snapshot, action);
}

void add_filesystem_snapshot_commands(CLI::App& fs, Action& action) {
  add_common(*snapshot_group(fs, "Snapshots of sub filesystems"), action, FS_KIND);
}

}  // namespace ctl
