#pragma once
// The daemon's configuration: one JSON file. Unknown members and wrong types are errors that name the member.

#include <ace/Log_Priority.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/http/http_server.h"

namespace scsipoold {

struct Module_Config {
  std::string library = "libscsipool.so";  // name for the dynamic linker, or a path
  // Either the options of the service's entry ...
  std::string filesystem = "zfs";                  // -f
  std::uint64_t block_size = 0;                    // -b, bytes; 0 leaves it to the driver
  std::string global_device;                       // -g
  std::string mount_point = "/orbistor/scsipool";  // -d
  // ... or a service configuration file that holds the entry.
  std::string svc_conf;
};

struct Config {
  std::string socket = "/run/scsipool/scsipoold.sock";  // local administration; root only
  std::vector<HTTP_Listen_Address> listen;              // none: no TCP
  std::string access_key_file;                          // needed when anything is listened on
  std::string tls_certificate, tls_key;  // both or none; with them every TCP address speaks TLS
  std::string tls_ca;                    // authorities that certificates of peers are checked with
  std::string data_folder = "/var/lib/scsipool";
  std::string catalog_key_file;     // empty: the catalog is not encrypted
  std::string copy_manager_socket;  // of the backup server's copy manager, JSON-RPC; empty: there is none
  Module_Config module;
  ACE_Log_Priority log_level = LM_INFO;
  std::string lio_lock_file = "/run/lock/scsipool-lio.lock";
  std::string lio_saved_config;  // default: "lio.json" in the data folder
};

// Reads the configuration. False, with a message that names the file and the member, otherwise; `config` is
// then of no use. Looks at no other file.
bool load_config(const std::string& path, Config& config, std::string& error);
bool parse_config(const json_spirit::Value& value, Config& config, std::string& error);

// The ACE service configurator entry that loads the module with these options.
std::string service_directive(const Module_Config& module);

}  // namespace scsipoold
