#pragma once
// The databases of the process, by name: one file each in the data folder, "<folder>/<name>.db", readable by
// its owner only. A database is created, or brought up to its schema's version, when it is first used. Files
// are in write-ahead mode; a change is on disk when the statement returns; foreign keys are off. Any thread
// may call.

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/database/connection.h"

namespace database::sql {

class Legacy_Manager {
 public:
  static Legacy_Manager* instance();

  // Whether the file holds a key as configure() takes it; if not, `why` says what is wrong with it.
  static bool usable_key_file(const std::string& key_file, std::string& why);

  // Sets the folder of the files (made when it is missing) and the file with the key: 64 hexadecimal digits,
  // the 256-bit key itself; an empty name means not encrypted. Connections made before stay as they are;
  // later ones go to the new place. False with a log line when the folder cannot be made or the key not be
  // read: then no connection can be had until a later call succeeds.
  bool configure(const std::string& data_folder, const std::string& key_file);

  // Declares a database and its schema. The schema is SQL text cut by lines "-- version N" (1, 2, ...); what
  // precedes the first such line is version 1. A new file runs all sections, a file of version N those after
  // N, as one transaction. `version` is the last section's number. A second call with the same name replaces
  // the first, for files not opened yet. False with a log line when the name is not of [a-z0-9_]+ or the
  // sections do not fit the version.
  bool register_database(const std::string& name, const std::string& schema, int version);

  // A connection to the named database, or an empty handle with a log line (error priority) that names the
  // file and the cause: a wrong key, a damaged file, a file of a newer version, ...
  Connection_var get_connection_r(const std::string& name);

  // Closes the connections that are not in use and forgets the rest, as a new configure() does; the place
  // stays configured.
  void close();

 private:
  Legacy_Manager() = default;
  ~Legacy_Manager();
  Legacy_Manager(const Legacy_Manager&) = delete;
  Legacy_Manager& operator=(const Legacy_Manager&) = delete;

  std::shared_ptr<Database> find_database(const std::string& name);
  void forget_databases();

  std::mutex mutex_;
  std::string folder_;  // empty: not configured
  std::string key_;     // as SQLCipher takes a raw key; empty: not encrypted
  std::map<std::string, std::vector<std::string>> schemas_;  // sections by version
  std::map<std::string, std::shared_ptr<Database>> databases_;
};

}  // namespace database::sql
