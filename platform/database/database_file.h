#pragma once
// One database file and its connections. Used by Legacy_Manager and Connection only. Any thread.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/database/connection.h"

namespace database::sql {

struct Close_Handle {
  void operator()(sqlite3* handle) const;
};
using Handle_var = std::unique_ptr<sqlite3, Close_Handle>;

class Database : public std::enable_shared_from_this<Database> {
 public:
  // `key`: as SQLCipher takes a raw key, or empty. `versions`: the sections of the schema.
  Database(const std::string& name, const std::string& path, const std::string& key,
           const std::vector<std::string>& versions);

  // A connection that was given back before, or a new one; the first one makes or upgrades the file. Empty
  // with the cause in `error`.
  Connection_var connect(std::string& error);
  // Keeps a connection that nobody uses any more for the next connect(), or destroys it.
  void give_back(Connection* connection);
  // Closes the idle connections and, once they are given back, the others.
  void retire();

  // Held while a statement changes the file: threads queue up here in turn instead of polling in SQLite.
  std::mutex& write_lock() { return write_lock_; }
  const std::string& name() const { return name_; }
  const std::string& path() const { return path_; }

 private:
  bool create_file(std::string& error) const;
  Handle_var open_handle(std::string& error) const;
  bool set_key(sqlite3* handle, std::string& error) const;
  bool make_ready(std::string& error);
  bool check_and_upgrade(sqlite3* handle, std::string& error) const;
  bool upgrade(sqlite3* handle, std::size_t from, std::string& error) const;
  Connection_var hand_out(std::unique_ptr<Connection> connection);

  const std::string name_;
  const std::string path_;
  const std::string key_;
  const std::vector<std::string> versions_;

  std::mutex write_lock_;
  std::mutex lock_;  // the members below
  bool ready_ = false;
  bool retired_ = false;
  std::vector<std::unique_ptr<Connection>> idle_;
};

}  // namespace database::sql
