#pragma once
// What the commands for LUNs, snapshots and the rest share.

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "ctl/commands.h"
#include "ctl/table.h"

namespace ctl {

// Sends one request; then prints the answer as JSON, or `done` (a line for people).
int send(Session& session, const std::string& method, const std::string& path, const Query& query,
         const json_spirit::Object* body, const std::string& done);

// Gets a list and prints it as JSON or as a table; `fill` makes a row of each record. `none` is said of an
// empty list.
using Fill_Row = std::function<void(Table&, const json_spirit::Object&)>;
int show_list(Session& session, const std::string& path, const Query& query, Table table,
              const Fill_Row& fill, const std::string& none);

// --acl INITIATOR[=HOST], to the array that requests carry. An initiator's name holds no '='.
json_spirit::Array acl_array(const std::vector<std::string>& texts);

CLI::Validator size_check();
// `hint` says where the ids are found.
CLI::Validator uuid_check(const std::string& hint);

// A subcommand whose first argument is a pool: `run` gets the pool's id.
using Pool_Run = std::function<int(Session&, const std::string& pool_id)>;
CLI::App* pool_command(CLI::App& parent, Action& action, const char* name, const char* help, Pool_Run run);

}  // namespace ctl
