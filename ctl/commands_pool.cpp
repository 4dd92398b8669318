#include <memory>

#include "ctl/commands.h"
#include "ctl/pools.h"
#include "ctl/size_text.h"
#include "ctl/table.h"

namespace ctl {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

const char POOL_PATH[] = "/svc/r/pool";

// --attr KEY=JSON; a value that is not JSON is an error, not text: "true" and true must not be mixed up.
bool read_attributes(const std::vector<std::string>& texts, Object& attributes, std::string& why) {
  for (const std::string& text : texts) {
    const std::size_t equals = text.find('=');
    Value value;
    if (equals == std::string::npos || equals == 0 || !loads_json(text.substr(equals + 1), value)) {
      why = "'" + text + "' is not KEY=JSON (a text needs its double quotes: key='\"text\"')";
      return false;
    }
    attributes[text.substr(0, equals)] = value;
  }
  return true;
}

CLI::Validator attribute_check() {
  return CLI::Validator(
      [](std::string& text) {
        Object attributes;
        std::string why;
        read_attributes({text}, attributes, why);
        return why;
      },
      "KEY=JSON");
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

std::string size_of(const Object& pool, const char* key) {
  std::uint64_t bytes = 0;
  return json_spirit::object_find(pool, key, bytes) ? print_size(bytes) : "?";
}

std::string text_of(const Object& pool, const char* key) {
  std::string text;
  json_spirit::object_find(pool, key, text);
  return text;
}

std::string flag_of(const Object& pool, const char* key) {
  bool flag = false;
  if (!json_spirit::object_find(pool, key, flag)) return "?";
  return flag ? "yes" : "no";
}

std::string number_of(const Object& pool, const char* key) {
  std::uint64_t number = 0;
  return json_spirit::object_find(pool, key, number) ? std::to_string(number) : "?";
}

// One pool, a line for each member.
int show_pool(Session& session, const Value& record) {
  if (session.json) return session.print_json(record);
  const Object* pool = json_spirit::get_object(record);
  if (pool == nullptr) return session.failed("the daemon's answer is no pool");
  const std::string device = text_of(*pool, "global_dev");
  Table table;
  table.column("POOL");
  table.column(text_of(*pool, "pool_name"));
  table.row({"id", text_of(*pool, "pool_id")});
  table.row({"filesystem", text_of(*pool, "fs_type")});
  table.row({"on", device.empty() ? "a file of its own" : device});
  table.row({"size", size_of(*pool, "total_size")});
  table.row({"used", size_of(*pool, "used_size")});
  table.row({"thin", flag_of(*pool, "thin_provision")});
  table.row({"compression", text_of(*pool, "compression")});
  table.row({"dedup", flag_of(*pool, "dedup")});
  table.row({"LUN type", text_of(*pool, "type")});
  table.row({"target", text_of(*pool, "target")});
  table.row({"retention", number_of(*pool, "retention")});
  table.row({"snapshot exported", flag_of(*pool, "snapshot_mounted")});
  const auto attributes = pool->find("extended_attrs");
  table.row({"attributes", attributes == pool->end() ? "" : JSON_Dump(attributes->second)});
  table.print(session.out);
  return DONE;
}

int list_all(Session& session) {
  Value answer;
  if (!session.request("GET", POOL_PATH, {{"type", "scsi"}}, nullptr, answer)) return FAILED;
  if (session.json) return session.print_json(answer);
  const Array* pools = json_spirit::get_array(answer);
  if (pools == nullptr) return session.failed("the daemon's answer is no list of pools");
  Table table;
  for (const char* heading : {"NAME", "ID", "FILESYSTEM"})
    table.column(heading);
  for (const char* heading : {"SIZE", "USED"})
    table.column(heading, Table::RIGHT);
  for (const char* heading : {"THIN", "LUN TYPE", "TARGET"})
    table.column(heading);
  for (const Value& value : *pools) {
    const Object* pool = json_spirit::get_object(value);
    if (pool == nullptr) continue;
    table.row({text_of(*pool, "pool_name"), text_of(*pool, "pool_id"), text_of(*pool, "fs_type"),
               size_of(*pool, "total_size"), size_of(*pool, "used_size"), flag_of(*pool, "thin_provision"),
               text_of(*pool, "type"), text_of(*pool, "target")});
  }
  if (table.empty()) {
    session.out << "no pools\n";
  } else {
    table.print(session.out);
  }
  return DONE;
}

int list_one(Session& session, const std::string& id_or_name) {
  Object pool;
  if (!find_pool(session, id_or_name, pool)) return FAILED;
  return session.json ? session.print_json(Array{pool}) : show_pool(session, pool);
}

struct Creation {
  std::string name, size, fs, id, device, compression, target;
  std::string type = "iscsi";
  bool thin = false, dedup = false, replace_orphan = false;
  unsigned retention = 0;
  std::vector<std::string> attributes;
  CLI::Option* retention_given = nullptr;
};

Object creation_body(const Creation& options) {
  std::uint64_t bytes = 0;
  std::string why;
  Object attributes;
  parse_size(options.size, bytes, why);
  read_attributes(options.attributes, attributes, why);
  Object body{{"pool_name", options.name},
              {"total_size", bytes},
              {"thin_provision", options.thin},
              {"dedup", options.dedup},
              {"type", options.type == "fc" ? "FC" : "iSCSI"},
              {"extended_attrs", attributes}};
  const std::pair<const char*, const std::string*> texts[] = {{"fs_type", &options.fs},
                                                              {"pool_id", &options.id},
                                                              {"global_dev", &options.device},
                                                              {"compression", &options.compression},
                                                              {"target", &options.target}};
  for (const auto& text : texts) {
    if (!text.second->empty()) body[text.first] = *text.second;
  }
  if (options.retention_given->count() > 0) body["retention"] = options.retention;
  if (options.replace_orphan) body["replace_orphan"] = true;
  return body;
}

void add_create(CLI::App& pool, Action& action) {
  auto options = std::make_shared<Creation>();
  auto* command = pool.add_subcommand("create", "Make a pool");
  command->add_option("NAME", options->name, "Name of the pool")->required();
  command->add_option("--size", options->size, "Size, such as 10G or 512MiB")
      ->required()
      ->check(size_check());
  command->add_option("--fs", options->fs, "Filesystem (default: the daemon's)")
      ->check(CLI::IsMember({"btrfs", "zfs"}));
  auto* id = command->add_option("--id", options->id, "UUID of the pool (default: a new one)");
  command->add_option("--global-dev", options->device,
                      "Place it on this device instead of a file of its own");
  command->add_flag("--thin", options->thin, "Reserve no space");
  command->add_option("--compression", options->compression, "Compression of the filesystem");
  command->add_flag("--dedup", options->dedup, "Deduplicate volumes");
  command->add_option("--lun-type", options->type, "How LUNs are exported")
      ->check(CLI::IsMember({"iscsi", "fc"}))
      ->capture_default_str();
  command->add_option("--target", options->target,
                      "SCSI target of the LUNs (default: made from host and pool name)");
  options->retention_given =
      command->add_option("--retention", options->retention, "Snapshots that recycling keeps")
          ->check(CLI::Range(0, 65535));
  command->add_option("--attr", options->attributes, "Extended attribute")
      ->check(attribute_check())
      ->allow_extra_args(false);
  command->add_flag("--replace-orphan", options->replace_orphan, "Remove what a crash left under this id")
      ->needs(id);
  command->callback([options, &action] {
    action = [options](Session& session) {
      const Object body = creation_body(*options);
      Value answer;
      if (!session.request("POST", POOL_PATH, {}, &body, answer)) return FAILED;
      return show_pool(session, answer);
    };
  });
}

void add_list(CLI::App& pool, Action& action) {
  auto name = std::make_shared<std::string>();
  auto* command = pool.add_subcommand("list", "List pools, or show one");
  command->add_option("POOL", *name, "Id or name");
  command->callback([name, &action] {
    action = [name](Session& session) {
      return name->empty() ? list_all(session) : list_one(session, *name);
    };
  });
}

struct Change {
  std::string pool, name;
  unsigned retention = 0;
  std::vector<std::string> attributes;
};

int update(Session& session, const Change& options) {
  std::string id, why;
  Object attributes;
  Value answer;
  if (!find_pool_id(session, options.pool, id)) return FAILED;
  read_attributes(options.attributes, attributes, why);
  Object body{{"pool_id", id}};
  if (!options.name.empty()) body["pool_name"] = options.name;
  if (options.retention != 0) body["retention"] = options.retention;
  if (!attributes.empty()) body["extended_attrs"] = attributes;
  if (!session.request("PUT", POOL_PATH, {}, &body, answer)) return FAILED;
  return show_pool(session, answer);
}

void add_update(CLI::App& pool, Action& action) {
  auto options = std::make_shared<Change>();
  auto* command = pool.add_subcommand("update", "Change name, retention or extended attributes");
  command->add_option("POOL", options->pool, "Id or name")->required();
  auto* changes = command->add_option_group("changes");
  changes->add_option("--name", options->name, "New name");
  changes->add_option("--retention", options->retention, "Snapshots that recycling keeps")
      ->check(CLI::Range(1, 65535));
  changes->add_option("--attr", options->attributes, "Extended attribute to add or replace")
      ->check(attribute_check())
      ->allow_extra_args(false);
  changes->require_option(1, 0);
  command->callback(
      [options, &action] { action = [options](Session& session) { return update(session, *options); }; });
}

struct Deletion {
  std::string pool;
  bool force = false, yes = false, orphan = false;
};

int remove(Session& session, const Deletion& options) {
  std::string id;
  Value answer;
  if (options.orphan) {
    id = options.pool;
  } else if (!find_pool_id(session, options.pool, id)) {
    return FAILED;
  }
  const std::string what = options.orphan ? "the orphaned backing file " : "pool ";
  if (!options.yes && !session.confirm("Delete " + what + options.pool + " with all that is in it?"))
    return FAILED;
  Query query{{"type", "scsi"}, {"pool_id", id}};
  if (options.force) query.emplace_back("force", "true");
  if (options.orphan) query.emplace_back("orphan", "true");
  if (!session.request("DELETE", POOL_PATH, query, nullptr, answer)) return FAILED;
  if (session.json) return session.print_json(answer);
  session.out << "deleted " << what << printable(options.pool) << "\n";
  return DONE;
}

void add_delete(CLI::App& pool, Action& action) {
  auto options = std::make_shared<Deletion>();
  auto* command = pool.add_subcommand("delete", "Delete a pool with all that is in it");
  command->add_option("POOL", options->pool, "Id or name")->required();
  auto* force = command->add_flag("--force", options->force,
                                  "Also with LUNs in use, or when the pool's storage is gone already");
  command->add_flag("--yes", options->yes, "Do not ask");
  command->add_flag("--orphan", options->orphan, "POOL is the id of a backing file that a crash left behind")
      ->excludes(force);
  command->callback(
      [options, &action] { action = [options](Session& session) { return remove(session, *options); }; });
}

}  // namespace

void add_pool_commands(CLI::App& app, Action& action) {
  auto* pool = app.add_subcommand("pool", "Pools");
  pool->require_subcommand(1);
  pool->fallthrough();
  add_create(*pool, action);
  add_list(*pool, action);
  add_update(*pool, action);
  add_delete(*pool, action);
}

}  // namespace ctl
