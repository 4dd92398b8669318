// peer add|list|remove|check, replication set|show|clear, replicate run, retention explain.

#include <algorithm>
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

const char PEER_PATH[] = "/svc/r/scsipool/peer";
const char REPLICATION_PATH[] = "/svc/r/scsipool/replication";

struct Options {
  std::string id, name, url, source, to, dataset;
  std::vector<std::string> limits, datasets;
  unsigned max_retry = 0;
};

int list_peers(Session& session) {
  Table table;
  for (const char* heading : {"NAME", "ID", "URL", "LOCAL"})
    table.column(heading);
  return show_list(
      session, PEER_PATH, {}, table,
      [](Table& rows, const Object& pool) {
        rows.row(
            {text_of(pool, "name"), text_of(pool, "uuid"), text_of(pool, "url"), flag_of(pool, "local")});
      },
      "no pools");
}

int check_peer(Session& session, const Options& options) {
  std::string id, source;
  if (!find_known_pool_id(session, options.id, id)) return FAILED;
  Query query{{"pool_id", id}};
  if (!options.source.empty() && !find_pool_id(session, options.source, source)) return FAILED;
  if (!source.empty()) query.emplace_back("source", source);
  Value answer;
  if (!session.request("GET", std::string(PEER_PATH) + "/check", query, nullptr, answer)) return FAILED;
  const Object* check = json_spirit::get_object(answer);
  bool good = false;
  Array steps;
  if (check == nullptr || !json_spirit::object_find(*check, "ok", good) ||
      !json_spirit::object_find(*check, "steps", steps))
    return session.failed("the daemon's answer is no check");
  if (session.json) {
    session.print_json(answer);
    return good ? DONE : FAILED;
  }
  Table table;
  for (const char* heading : {"STEP", "OK", "RESULT"})
    table.column(heading);
  for (const Value& value : steps)
    if (const Object* step = json_spirit::get_object(value))
      table.row({text_of(*step, "step"), flag_of(*step, "ok"), text_of(*step, "message")});
  table.print(session.out);
  return good ? DONE : FAILED;
}

void add_peer_commands(CLI::App& app, Action& action) {
  auto* peer = app.add_subcommand("peer", "Pools on other hosts");
  peer->require_subcommand(1);
  peer->fallthrough();

  auto added = std::make_shared<Options>();
  auto* command = peer->add_subcommand("add", "Make a pool of another host known");
  command->add_option("ID", added->id, "UUID of the pool there")
      ->required()
      ->check(uuid_check("pool list on its host"));
  command->add_option("URL", added->url, "Where it is served, such as https://host:8443/")->required();
  command->add_option("--name", added->name, "What to call it here")->required();
  command->callback([added, &action] {
    action = [added](Session& session) {
      const Object body{{"uuid", added->id}, {"name", added->name}, {"url", added->url}};
      return send(session, "POST", PEER_PATH, {}, &body, "added pool " + added->name);
    };
  });

  peer->add_subcommand("list", "List the pools that are known")->callback([&action] { action = list_peers; });

  auto removed = std::make_shared<Options>();
  command = peer->add_subcommand("remove", "Forget a pool of another host");
  command->add_option("PEER", removed->id, "Id or name of the pool")->required();
  command->callback([removed, &action] {
    action = [removed](Session& session) {
      std::string id;
      if (!find_known_pool_id(session, removed->id, id)) return FAILED;
      return send(session, "DELETE", PEER_PATH, {{"pool_id", id}}, nullptr, "removed pool " + removed->id);
    };
  });

  auto checked = std::make_shared<Options>();
  command = peer->add_subcommand("check", "Connect to the pool's host and say what is wrong");
  command->add_option("PEER", checked->id, "Id or name of the pool")->required();
  command->add_option("--from", checked->source, "Local pool to compare the filesystem type with");
  command->callback(
      [checked, &action] { action = [checked](Session& session) { return check_peer(session, *checked); }; });
}

// 08:00-18:00=20MiB
bool read_limit(const std::string& text, Object& limit, std::string& why) {
  const std::size_t dash = text.find('-');
  const std::size_t equals = text.find('=');
  std::uint64_t bytes = 0;
  if (dash == std::string::npos || equals == std::string::npos || dash > equals) {
    why = "'" + text + "' is not START-END=SIZE, such as 08:00-18:00=20MiB";
    return false;
  }
  if (!parse_size(text.substr(equals + 1), bytes, why)) return false;
  limit = Object{{"start_time", text.substr(0, dash)},
                 {"end_time", text.substr(dash + 1, equals - dash - 1)},
                 {"max_bytes_per_second", bytes}};
  return true;
}

CLI::Validator limit_check() {
  return CLI::Validator(
      [](std::string& text) {
        Object limit;
        std::string why;
        read_limit(text, limit, why);
        return why;
      },
      "START-END=SIZE");
}

int set_replication(Session& session, const std::string& pool, const Options& options) {
  Array limits;
  for (const std::string& text : options.limits) {
    Object limit;
    std::string why;
    if (read_limit(text, limit, why)) limits.push_back(limit);
  }
  Object attrs;
  if (options.max_retry != 0) attrs["max_seconds_retry"] = options.max_retry;
  if (!limits.empty()) attrs["rate_limiting"] = limits;
  std::string target;
  if (!find_known_pool_id(session, options.to, target)) return FAILED;
  const Object body{{"pool_id", pool}, {"target_uuid", target}, {"extended_attrs", attrs}};
  return send(session, "PUT", REPLICATION_PATH, {}, &body, "the pool replicates to " + options.to);
}

int show_replication(Session& session, const std::string& pool) {
  Value answer;
  if (!session.request("GET", REPLICATION_PATH, {{"pool_id", pool}}, nullptr, answer)) return FAILED;
  if (session.json) return session.print_json(answer);
  const Object* info = json_spirit::get_object(answer);
  if (info == nullptr || info->empty()) {
    session.out << "the pool does not replicate\n";
    return DONE;
  }
  const auto attrs = info->find("extended_attrs");
  session.out << "replicates to " << printable(text_of(*info, "target_uuid")) << "\n";
  if (attrs != info->end()) session.out << "settings " << printable(JSON_Dump(attrs->second)) << "\n";
  return DONE;
}

void add_replication_setting(CLI::App& app, Action& action) {
  auto* group = app.add_subcommand("replication", "Where a pool replicates to");
  group->require_subcommand(1);
  group->fallthrough();
  auto set = std::make_shared<Options>();
  auto* command = pool_command(
      *group, action, "set", "Replicate a pool",
      [set](Session& session, const std::string& pool) { return set_replication(session, pool, *set); });
  command->add_option("--to", set->to, "Id or name of the target pool, which peer add has made known")
      ->required();
  command->add_option("--max-retry-seconds", set->max_retry, "How long to try to connect")
      ->check(CLI::Range(1, 65535));
  command->add_option("--limit", set->limits, "Bandwidth by the time of day")
      ->check(limit_check())
      ->allow_extra_args(false);
  pool_command(*group, action, "show", "Show where a pool replicates to", show_replication);
  pool_command(*group, action, "clear", "Replicate a pool no more",
               [](Session& session, const std::string& pool) {
                 return send(session, "DELETE", REPLICATION_PATH, {{"pool_id", pool}}, nullptr,
                             "the pool does not replicate");
               });
}

// The values of one key in a list of the daemon's.
bool names_of(Session& session, const char* path, const std::string& pool, const char* key,
              std::vector<std::string>& names) {
  Value answer;
  if (!session.request("GET", path, {{"pool_id", pool}}, nullptr, answer)) return false;
  for (const Value& value : answer)
    if (const Object* record = json_spirit::get_object(value)) names.push_back(text_of(*record, key));
  return true;
}

bool holds(const std::vector<std::string>& list, const std::string& one) {
  return std::find(list.begin(), list.end(), one) != list.end();
}

int no_dataset(Session& session, const std::string& dataset) {
  return session.failed("there is no LUN or sub filesystem '" + dataset + "' in the pool");
}

// The ids of all LUNs and the names of all sub filesystems.
bool datasets_of(Session& session, const std::string& pool, std::vector<std::string>& luns,
                 std::vector<std::string>& filesystems) {
  return names_of(session, "/svc/r/scsipool/lun", pool, "lun_id", luns) &&
         names_of(session, "/svc/r/scsipool/fs", pool, "name", filesystems);
}

bool take(Session& session, const char* path, const std::string& pool, const char* key,
          const std::vector<std::string>& names) {
  if (names.empty()) return true;
  const Object body{{"pool_id", pool}, {key, names}, {"recycle", true}};
  Value answer;
  return session.request("POST", path, {}, &body, answer);
}

// Takes snapshots of the datasets, which submits the jobs.
int run_replication(Session& session, const std::string& pool, const Options& options) {
  std::vector<std::string> luns, filesystems, all_luns, all_filesystems;
  Value setting;
  if (!session.request("GET", REPLICATION_PATH, {{"pool_id", pool}}, nullptr, setting)) return FAILED;
  if (setting.empty()) return session.failed("the pool does not replicate: see replication set");
  if (!datasets_of(session, pool, all_luns, all_filesystems)) return FAILED;
  for (const std::string& dataset : options.datasets) {
    if (holds(all_luns, dataset))
      luns.push_back(dataset);
    else if (holds(all_filesystems, dataset))
      filesystems.push_back(dataset);
    else
      return no_dataset(session, dataset);
  }
  if (options.datasets.empty()) {
    luns = all_luns;
    filesystems = all_filesystems;
  }
  if (luns.empty() && filesystems.empty()) return session.failed("there is nothing in the pool to replicate");
  if (!take(session, "/svc/r/scsipool/snapshot", pool, "lun_ids", luns) ||
      !take(session, "/svc/r/scsipool/fs/snapshot", pool, "names", filesystems))
    return FAILED;
  if (session.json) return session.print_json(Object{{"luns", luns}, {"filesystems", filesystems}});
  session.out << "took " << luns.size() + filesystems.size()
              << " snapshots and submitted them; see job list\n";
  return DONE;
}

int explain(Session& session, const std::string& pool, const Options& options) {
  std::vector<std::string> luns, filesystems;
  if (!datasets_of(session, pool, luns, filesystems)) return FAILED;
  const bool lun = holds(luns, options.dataset);
  if (!lun && !holds(filesystems, options.dataset)) return no_dataset(session, options.dataset);
  Table table;
  for (const char* heading : {"SNAPSHOT", "NEXT RECYCLING", "WHY"})
    table.column(heading);
  return show_list(
      session, "/svc/r/scsipool/retention", {{"pool_id", pool}, {lun ? "lun_id" : "name", options.dataset}},
      table,
      [](Table& rows, const Object& one) {
        rows.row({text_of(one, "id"), flag_of(one, "remove") == "yes" ? "removes it" : "keeps it",
                  text_of(one, "reason")});
      },
      "no snapshots");
}

}  // namespace

void add_replication_commands(CLI::App& app, Action& action) {
  add_peer_commands(app, action);
  add_replication_setting(app, action);

  auto* replicate = app.add_subcommand("replicate", "Replication now");
  replicate->require_subcommand(1);
  replicate->fallthrough();
  auto run = std::make_shared<Options>();
  pool_command(
      *replicate, action, "run", "Take snapshots and replicate them",
      [run](Session& session, const std::string& pool) { return run_replication(session, pool, *run); })
      ->add_option("DATASET", run->datasets, "LUNs and sub filesystems (default: all)");

  auto* retention = app.add_subcommand("retention", "What recycling keeps");
  retention->require_subcommand(1);
  retention->fallthrough();
  auto explained = std::make_shared<Options>();
  pool_command(
      *retention, action, "explain", "Say what the next recycling would do with each snapshot, and why",
      [explained](Session& session, const std::string& pool) { return explain(session, pool, *explained); })
      ->add_option("DATASET", explained->dataset, "LUN or sub filesystem")
      ->required();
}

}  // namespace ctl
