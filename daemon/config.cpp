#include "daemon/config.h"

#include <cerrno>
#include <cstring>

#include "daemon/members.h"
#include "platform/base/file.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

const struct {
  const char* name;
  ACE_Log_Priority level;
} LEVELS[] = {
    {"debug", LM_DEBUG},     {"info", LM_INFO},   {"notice", LM_NOTICE},
    {"warning", LM_WARNING}, {"error", LM_ERROR},
};

constexpr std::uint64_t LARGEST_BLOCK = 1024 * 1024;

bool absolute(const std::string& path) {
  return path.empty() || path[0] == '/';
}

// An entry of the service configurator knows no escapes: blanks part the options and quotes end them.
bool fits_entry(const std::string& text) {
  return text.find_first_of(" \t\r\n\"'\\") == std::string::npos;
}

void read_level(Members& members, ACE_Log_Priority& level) {
  std::string name = "info";
  members.text("log_level", name);
  for (const auto& one : LEVELS) {
    if (name == one.name) {
      level = one.level;
      return;
    }
  }
  members.refuse("log_level", "must be debug, info, notice, warning or error");
}

bool read_listen(const Array& entries, Config& config, std::string& error) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const std::string where = "listen[" + std::to_string(i) + "]";
    const Object* entry = json_spirit::get_object(entries[i]);
    if (entry == nullptr) {
      error = "member '" + where + "': must be an object";
      return false;
    }
    HTTP_Listen_Address address;
    std::uint64_t port = 0;
    Members members(*entry, where + ".");
    members.text("address", address.host).required("port").number("port", 1, 65535, port);
    if (!members.finish(error)) return false;
    address.port = static_cast<ACE_UINT16>(port);
    config.listen.push_back(address);
  }
  return true;
}

bool read_tls(const Object& object, Config& config, std::string& error) {
  Members members(object, "tls.");
  members.text("certificate", config.tls_certificate).text("key", config.tls_key).text("ca", config.tls_ca);
  if (config.tls_certificate.empty() != config.tls_key.empty()) {
    members.refuse(config.tls_key.empty() ? "key" : "certificate",
                   "is missing: certificate and key belong together");
  }
  return members.finish(error);
}

bool read_module(const Object& object, Module_Config& module, std::string& error) {
  Members members(object, "module.");
  members.text("library", module.library).text("svc_conf", module.svc_conf);
  members.text("filesystem", module.filesystem).number("block_size", 0, LARGEST_BLOCK, module.block_size);
  members.text("global_device", module.global_device).text("mount_point", module.mount_point);
  const std::pair<const char*, const std::string*> in_entry[] = {{"library", &module.library},
                                                                 {"global_device", &module.global_device},
                                                                 {"mount_point", &module.mount_point}};
  for (const auto& one : in_entry) {
    if (!fits_entry(*one.second)) members.refuse(one.first, "must hold no blank, quote or backslash");
  }
  if (module.filesystem != "zfs" && module.filesystem != "btrfs") {
    members.refuse("filesystem", "must be zfs or btrfs");
  }
  if (module.library.empty()) members.refuse("library", "must not be empty");
  if (module.mount_point.empty() || !absolute(module.mount_point)) {
    members.refuse("mount_point", "must be an absolute path");
  }
  for (const char* option : {"filesystem", "block_size", "global_device", "mount_point"}) {
    if (!module.svc_conf.empty() && members.has(option)) {
      members.refuse(option, "cannot go with svc_conf, which holds the options itself");
    }
  }
  return members.finish(error);
}

bool read_lio(const Object& object, Config& config, std::string& error) {
  Members members(object, "lio.");
  members.text("lock_file", config.lio_lock_file).text("saved_config", config.lio_saved_config);
  return members.finish(error);
}

bool check_paths(const Config& config, std::string& error) {
  const std::pair<const char*, const std::string*> paths[] = {
      {"socket", &config.socket},
      {"access_key_file", &config.access_key_file},
      {"tls.certificate", &config.tls_certificate},
      {"tls.key", &config.tls_key},
      {"tls.ca", &config.tls_ca},
      {"data_folder", &config.data_folder},
      {"catalog_key_file", &config.catalog_key_file},
      {"copy_manager_socket", &config.copy_manager_socket},
      {"module.svc_conf", &config.module.svc_conf},
      {"lio.lock_file", &config.lio_lock_file},
      {"lio.saved_config", &config.lio_saved_config},
  };
  for (const auto& one : paths) {
    if (absolute(*one.second)) continue;
    error = std::string("member '") + one.first + "': must be an absolute path";
    return false;
  }
  if (config.socket.empty() || config.data_folder.empty()) {
    error =
        std::string("member '") + (config.socket.empty() ? "socket" : "data_folder") + "': must not be empty";
    return false;
  }
  return true;
}

void use_tls(Config& config) {
  if (config.tls_certificate.empty()) return;
  for (HTTP_Listen_Address& address : config.listen) {
    address.tls = true;
    address.certificate_file = config.tls_certificate;
    address.key_file = config.tls_key;
  }
}

}  // namespace

bool parse_config(const Value& value, Config& config, std::string& error) {
  const Object* object = json_spirit::get_object(value);
  if (object == nullptr) {
    error = "the configuration must be a JSON object";
    return false;
  }
  Array listen;
  Object tls, module, lio;
  Members members(*object);
  members.text("socket", config.socket)
      .array("listen", listen)
      .text("access_key_file", config.access_key_file);
  members.object("tls", tls).text("data_folder", config.data_folder);
  members.text("catalog_key_file", config.catalog_key_file).object("module", module).object("lio", lio);
  members.text("copy_manager_socket", config.copy_manager_socket);
  read_level(members, config.log_level);
  if (!members.finish(error)) return false;
  if (!read_listen(listen, config, error) || !read_tls(tls, config, error)) return false;
  if (!read_module(module, config.module, error) || !read_lio(lio, config, error)) return false;
  if (!check_paths(config, error)) return false;
  if (!config.listen.empty() && config.access_key_file.empty()) {
    error = "member 'access_key_file': is missing: requests over TCP need an access key";
    return false;
  }
  if (config.lio_saved_config.empty()) config.lio_saved_config = config.data_folder + "/lio.json";
  use_tls(config);
  return true;
}

bool load_config(const std::string& path, Config& config, std::string& error) {
  std::string text;
  if (!platform::read_file(path, text)) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  try {
    if (parse_config(Value::parse(text), config, error)) return true;
  } catch (const Value::parse_error& bad) {
    // After a tag of the library: "parse error at line 3, column 5: ...".
    const std::string what = bad.what();
    error = "is not JSON: " + what.substr(what.find("parse error"));
  }
  error = path + ": " + error;
  return false;
}

std::string service_directive(const Module_Config& module) {
  std::string options = "-f " + module.filesystem + " -b " + std::to_string(module.block_size);
  if (!module.global_device.empty()) options += " -g " + module.global_device;
  options += " -d " + module.mount_point;
  return "dynamic SCSI_Pool_Manager_Service Service_Object * " + module.library +
         ":_make_SCSI_Pool_Manager_Service() \"" + options + "\"";
}

}  // namespace scsipoold
