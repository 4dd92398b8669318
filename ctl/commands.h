#pragma once
// The commands, one file for each area. A file adds its subcommands to the command line; the one that is
// chosen puts what it does into `action`, which is run when the whole line has been understood.

#include <CLI/CLI.hpp>
#include <functional>

#include "ctl/session.h"

namespace ctl {

using Action = std::function<int(Session&)>;  // returns the exit status

void add_pool_commands(CLI::App& app, Action& action);
void add_health_commands(CLI::App& app, Action& action);
void add_lun_commands(CLI::App& app, Action& action);
void add_snapshot_commands(CLI::App& app, Action& action);
void add_fs_commands(CLI::App& app, Action& action);
void add_filesystem_snapshot_commands(CLI::App& fs, Action& action);
void add_export_commands(CLI::App& app, Action& action);
void add_replication_commands(CLI::App& app, Action& action);
void add_job_commands(CLI::App& app, Action& action);
// All of them.
void add_all_commands(CLI::App& app, Action& action);

// Understands and runs one command line (without the program's name). Returns the exit status.
int run(std::vector<std::string> arguments, Session& session);

}  // namespace ctl
