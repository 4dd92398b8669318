#include "platform/database/connection.h"

#include <sqlite3.h>

#include <mutex>

#include "platform/base/log.h"
#include "platform/database/database_file.h"

namespace database::sql {

namespace {

// Statement texts come from the program and hold no values, so there are few; this only bounds the memory.
constexpr std::size_t MAX_STATEMENTS = 256;

bool bind_all(sqlite3_stmt* statement, const SQL::Parameters& parameters, std::string& error) {
  if (static_cast<std::size_t>(sqlite3_bind_parameter_count(statement)) != parameters.size()) {
    error = "the statement's parameters and the bound values differ in number";
    return false;
  }
  for (const auto& [name, value] : parameters) {
    const int index = sqlite3_bind_parameter_index(statement, name.c_str());
    if (index == 0) {
      error = "the statement has no parameter '" + name + "'";
      return false;
    }
    if (!value.bind(statement, index, error)) return false;
  }
  return true;
}

}  // namespace

Connection::Connection(std::shared_ptr<Database> database, sqlite3* handle)
    : database_(std::move(database)), handle_(handle) {}

Connection::~Connection() {
  for (const auto& [text, statement] : statements_)
    sqlite3_finalize(statement);
  Close_Handle()(handle_);
}

sqlite3_stmt* Connection::prepare(const SQL& statement, std::string& text, std::string& error) {
  if (!statement.text(text, error)) return nullptr;
  sqlite3_stmt* prepared = nullptr;
  const auto kept = statements_.find(text);
  if (kept != statements_.end()) {
    prepared = kept->second;
    statements_.erase(kept);
  } else if (sqlite3_prepare_v2(handle_, text.data(), static_cast<int>(text.size()), &prepared, nullptr) !=
             SQLITE_OK) {
    error = std::string(sqlite3_errmsg(handle_)) + " in \"" + text + "\"";
    return nullptr;
  }
  if (bind_all(prepared, statement.parameters(), error)) return prepared;
  error += " in \"" + text + "\"";
  release(text, prepared);
  return nullptr;
}

void Connection::release(const std::string& text, sqlite3_stmt* statement) {
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  if (statements_.size() >= MAX_STATEMENTS || !statements_.emplace(text, statement).second)
    sqlite3_finalize(statement);
}

bool Connection::run(const SQL& statement, std::string& error) {
  std::string text;
  sqlite3_stmt* prepared = prepare(statement, text, error);
  if (prepared == nullptr) return false;
  int result;
  {
    const std::lock_guard<std::mutex> guard(database_->write_lock());
    result = sqlite3_step(prepared);
    if (result != SQLITE_DONE)
      error = result == SQLITE_ROW ? "a statement that returns rows was run as a change"
                                   : sqlite3_errmsg(handle_);
    sqlite3_reset(prepared);
  }
  release(text, prepared);
  return result == SQLITE_DONE;
}

bool Connection::execute(const SQL& statement) {
  std::string error;
  if (run(statement, error)) return true;
  log_failure(error);
  return false;
}

void Connection::log_failure(const std::string& error) const {
  LOG_NOTICE("Statement on database '%s' failed: %s\n", database_->path().c_str(), error.c_str());
}

std::int64_t Connection::last_insert_row_id() const {
  return sqlite3_last_insert_rowid(handle_);
}

void Connection::intrusive_add_ref(Connection* connection) {
  if (connection != nullptr) ++connection->references_;
}

void Connection::intrusive_remove_ref(Connection* connection) {
  if (connection == nullptr || --connection->references_ != 0) return;
  const std::shared_ptr<Database> database = connection->database_;
  database->give_back(connection);
}

}  // namespace database::sql
