#include "platform/database/legacy_manager.h"

#include <cctype>
#include <cerrno>
#include <cstring>

#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/database/database_file.h"
#include "platform/database/schema.h"

namespace database::sql {

namespace {

constexpr std::size_t KEY_DIGITS = 64;

bool valid_name(const std::string& name) {
  return !name.empty() &&
         name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_") == std::string::npos;
}

// Reads the key in the form x'...', which SQLCipher takes as the key itself, without deriving one.
bool load_key(const std::string& path, std::string& key, std::string& why) {
  std::string text;
  if (!platform::read_file(path, text)) {
    why = std::strerror(errno);
    return false;
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
    text.pop_back();
  if (text.size() != KEY_DIGITS || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    why = "it must hold 64 hexadecimal digits";
    return false;
  }
  key = "x'" + text + "'";
  return true;
}

}  // namespace

bool Legacy_Manager::usable_key_file(const std::string& key_file, std::string& why) {
  std::string key;
  return load_key(key_file, key, why);
}

Legacy_Manager* Legacy_Manager::instance() {
  static Legacy_Manager manager;
  return &manager;
}

Legacy_Manager::~Legacy_Manager() {
  forget_databases();
}

void Legacy_Manager::forget_databases() {
  for (const auto& [name, database] : databases_)
    database->retire();
  databases_.clear();
}

bool Legacy_Manager::configure(const std::string& data_folder, const std::string& key_file) {
  const std::lock_guard<std::mutex> guard(mutex_);
  forget_databases();
  folder_.clear();
  key_.clear();
  if (data_folder.empty()) return LOG_VIOLATION("data_folder is NULL or \"\"");
  if (!platform::mkdir_p(data_folder, 0700))
    return LOG_FAILURE("Failed to create database folder '%s': %m\n", data_folder.c_str());
  std::string why;
  if (!key_file.empty() && !load_key(key_file, key_, why))
    return LOG_FAILURE("Failed to read database key file '%s': %s\n", key_file.c_str(), why.c_str());
  folder_ = data_folder;
  return true;
}

bool Legacy_Manager::register_database(const std::string& name, const std::string& schema, int version) {
  std::vector<std::string> versions;
  if (!valid_name(name)) return LOG_FAILURE("Failed to register database '%s': invalid name\n", name.c_str());
  if (!split_schema(schema, versions) || versions.size() != static_cast<std::size_t>(version))
    return LOG_FAILURE("Failed to register database '%s': the schema's sections do not end with version %d\n",
                       name.c_str(), version);
  const std::lock_guard<std::mutex> guard(mutex_);
  schemas_[name] = std::move(versions);
  return true;
}

std::shared_ptr<Database> Legacy_Manager::find_database(const std::string& name) {
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto known = databases_.find(name);
  if (known != databases_.end()) return known->second;
  const auto schema = schemas_.find(name);
  if (folder_.empty() || schema == schemas_.end()) {
    LOG_FAILURE("Failed to open database '%s': %s\n", name.c_str(),
                folder_.empty() ? "no data folder is configured" : "it is not registered");
    return nullptr;
  }
  auto database = std::make_shared<Database>(name, folder_ + "/" + name + ".db", key_, schema->second);
  databases_[name] = database;
  return database;
}

Connection_var Legacy_Manager::get_connection_r(const std::string& name) {
  const std::shared_ptr<Database> database = find_database(name);
  if (!database) return Connection_var();
  std::string error;
  Connection_var connection = database->connect(error);
  if (connection.get() == nullptr)
    LOG_FAILURE("Failed to open database '%s': %s\n", database->path().c_str(), error.c_str());
  return connection;
}

void Legacy_Manager::close() {
  const std::lock_guard<std::mutex> guard(mutex_);
  forget_databases();
}

}  // namespace database::sql
