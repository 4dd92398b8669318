#pragma once
// One open connection to a database. It comes from Legacy_Manager::get_connection_r() and goes back to be
// used again when the last handle is dropped. One thread at a time; threads that work at the same time take a
// connection each. Nothing throws.

#include <ace/Intrusive_Auto_Ptr.h>

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/database/sql.h"

struct sqlite3;
struct sqlite3_stmt;

namespace database::sql {

class Database;

class Connection {
 public:
  // Runs one insert, update or delete as a transaction of its own: when this returns true the change is on
  // disk. Waits up to ten seconds for another writer. False with the cause in the log at notice priority;
  // nothing is changed then. Zero matching rows is a success.
  bool execute(const SQL& statement);

  // The row id that the last insert through this connection was given.
  std::int64_t last_insert_row_id() const;

  ~Connection();

 private:
  friend class Database;
  friend class Legacy_Cursor;

  Connection(std::shared_ptr<Database> database, sqlite3* handle);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // A statement with all its values bound, ready to step; null with the cause in `error`. Give it back with
  // release(). The text is the key under which it is kept.
  sqlite3_stmt* prepare(const SQL& statement, std::string& text, std::string& error);
  void release(const std::string& text, sqlite3_stmt* statement);
  bool run(const SQL& statement, std::string& error);
  void log_failure(const std::string& error) const;

  static void intrusive_add_ref(Connection* connection);
  static void intrusive_remove_ref(Connection* connection);
  friend class ACE_Intrusive_Auto_Ptr<Connection>;

  std::shared_ptr<Database> database_;
  sqlite3* handle_;
  std::atomic<int> references_{0};
  std::unordered_map<std::string, sqlite3_stmt*> statements_;  // prepared and idle, by text
};

using Connection_var = ACE_Intrusive_Auto_Ptr<Connection>;

}  // namespace database::sql
