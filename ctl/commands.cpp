#include "ctl/commands.h"

#include <algorithm>

namespace ctl {

namespace {

void add_connection_options(CLI::App& app, Session& session) {
  auto* socket =
      app.add_option("--socket", session.socket, "Unix socket of the daemon")->capture_default_str();
  auto* url =
      app.add_option("--url", session.url, "Address of a daemon: https://host:port")->excludes(socket);
  app.add_option("--key-file", session.key_file, "File with the access key, for --url")->needs(url);
  app.add_option("--ca", session.ca_file, "File with the authorities to trust, for --url")->needs(url);
  app.add_flag("--json", session.json, "Print the daemon's answer as it is");
}

// What is missing is looked for before what is too much, which would hide a mistyped command.
int explain(const CLI::App& app, const CLI::ParseError& error, Session& session) {
  const std::vector<std::string> unknown = app.remaining(true);
  if (dynamic_cast<const CLI::RequiredError*>(&error) == nullptr || unknown.empty())
    return app.exit(error, session.out, session.err) == 0 ? DONE : USAGE;
  app.exit(CLI::ExtrasError(unknown), session.out, session.err);
  return USAGE;
}

}  // namespace

void add_all_commands(CLI::App& app, Action& action) {
  add_pool_commands(app, action);
  add_lun_commands(app, action);
  add_snapshot_commands(app, action);
  add_fs_commands(app, action);
  add_export_commands(app, action);
  add_replication_commands(app, action);
  add_job_commands(app, action);
  add_health_commands(app, action);
}

int run(std::vector<std::string> arguments, Session& session) {
  Action action;
  CLI::App app{"Administers the SCSI pools of a scsipoold", "scsipoolctl"};
  app.require_subcommand(1);
  app.fallthrough();
  app.set_version_flag("--version", SCSIPOOL_VERSION);
  add_connection_options(app, session);
  add_all_commands(app, action);
  std::reverse(arguments.begin(), arguments.end());  // as CLI11 takes them
  try {
    app.parse(arguments);
  } catch (const CLI::ParseError& e) {
    return explain(app, e, session);
  }
  return action(session);
}

}  // namespace ctl
