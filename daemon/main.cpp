#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

#include "daemon/config.h"
#include "daemon/daemon.h"
#include "daemon/log_sink.h"
#include "daemon/server.h"
#include "daemon/version.h"

int main(int argc, char** argv) {
  CLI::App app{"The SCSI pool daemon", "scsipoold"};
  std::string path = "/etc/scsipool/scsipool.json";
  bool check = false;
  app.add_option("--config", path, "Configuration file")->capture_default_str();
  app.add_flag("--check", check, "Check the configuration and the files that it names, and end");
  app.set_version_flag("--version", scsipoold::VERSION);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  scsipoold::Config config;
  std::string error;
  if (!scsipoold::load_config(path, config, error) ||
      (check && !scsipoold::load_credentials(config, error))) {
    std::cerr << "scsipoold: " << error << "\n";
    return 1;
  }
  if (check) {
    std::cout << path << ": the configuration is fine\n";
    return 0;
  }
  scsipoold::Log_Sink::install(config.log_level);
  return scsipoold::run_daemon(config);
}
