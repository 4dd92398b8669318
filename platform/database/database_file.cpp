#include "platform/database/database_file.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/base/file.h"

namespace database::sql {

namespace {

constexpr int BUSY_TIMEOUT = 10 * 1000;  // milliseconds
constexpr std::size_t MAX_IDLE = 16;
constexpr mode_t FILE_MODE = 0600;

std::string system_error(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

int keep_first_column(void* out, int columns, char** values, char**) {
  if (columns > 0 && values[0] != nullptr) *static_cast<std::string*>(out) = values[0];
  return 0;
}

// Runs fixed SQL text; `answer` takes the first column of its last row.
bool run_text(sqlite3* handle, const std::string& text, std::string& answer, std::string& error) {
  if (sqlite3_exec(handle, text.c_str(), keep_first_column, &answer, nullptr) == SQLITE_OK) return true;
  error = sqlite3_errmsg(handle);
  return false;
}

bool run_text(sqlite3* handle, const std::string& text, std::string& error) {
  std::string answer;
  return run_text(handle, text, answer, error);
}

}  // namespace

void Close_Handle::operator()(sqlite3* handle) const {
  sqlite3_close_v2(handle);
}

Database::Database(const std::string& name, const std::string& path, const std::string& key,
                   const std::vector<std::string>& versions)
    : name_(name), path_(path), key_(key), versions_(versions) {}

// SQLite gives its side files the mode of the main file, so making that one closed to others is enough. A
// file that exists is never opened here: closing it would drop the locks that SQLite holds on it in this
// process.
bool Database::create_file(std::string& error) const {
  struct stat status;
  if (::stat(path_.c_str(), &status) == 0) {
    if ((status.st_mode & 07777) == FILE_MODE || ::chmod(path_.c_str(), FILE_MODE) == 0) return true;
    error = system_error("cannot restrict its mode");
    return false;
  }
  const int handle = platform::open_cloexec(path_, O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW, FILE_MODE);
  if (handle == -1 && errno != EEXIST) {
    error = system_error("cannot create it");
    return false;
  }
  if (handle != -1) ::close(handle);
  return true;
}

bool Database::set_key(sqlite3* handle, std::string& error) const {
#ifdef SQLITE_HAS_CODEC
  if (key_.empty()) return true;
  if (sqlite3_key(handle, key_.data(), static_cast<int>(key_.size())) == SQLITE_OK) return true;
  error = sqlite3_errmsg(handle);
  return false;
#else
  (void)handle;
  if (!key_.empty()) error = "a key is configured, but this build cannot encrypt";
  return key_.empty();
#endif
}

Handle_var Database::open_handle(std::string& error) const {
  if (!create_file(error)) return nullptr;
  sqlite3* opened = nullptr;
  const int result =
      sqlite3_open_v2(path_.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  Handle_var handle(opened);
  if (result != SQLITE_OK) {
    error = opened != nullptr ? sqlite3_errmsg(opened) : sqlite3_errstr(result);
    return nullptr;
  }
  sqlite3_busy_timeout(opened, BUSY_TIMEOUT);
  if (!set_key(opened, error)) return nullptr;
  // The first statement that reads the file shows whether it is one and the key fits.
  if (!run_text(opened, "SELECT count(*) FROM sqlite_master", error)) {
    if (sqlite3_errcode(opened) == SQLITE_NOTADB)
      error += key_.empty() ? " (damaged, or encrypted and no key is configured)"
                            : " (damaged, not encrypted, or encrypted with another key)";
    return nullptr;
  }
  if (!run_text(opened, "PRAGMA synchronous=FULL; PRAGMA foreign_keys=OFF", error)) return nullptr;
  return handle;
}

bool Database::upgrade(sqlite3* handle, std::size_t from, std::string& error) const {
  if (!run_text(handle, "BEGIN IMMEDIATE", error)) return false;
  bool done = true;
  for (std::size_t version = from; done && version < versions_.size(); ++version)
    done = run_text(handle, versions_[version], error);
  done = done && run_text(handle, "PRAGMA user_version=" + std::to_string(versions_.size()), error) &&
         run_text(handle, "COMMIT", error);
  std::string ignored;
  if (!done) run_text(handle, "ROLLBACK", ignored);
  return done;
}

bool Database::check_and_upgrade(sqlite3* handle, std::string& error) const {
  std::string answer;
  if (!run_text(handle, "PRAGMA quick_check(1)", answer, error)) return false;
  if (answer != "ok") {
    error = "damaged: " + answer;
    return false;
  }
  if (!run_text(handle, "PRAGMA journal_mode=WAL", answer, error)) return false;
  if (answer != "wal") {
    error = "write-ahead mode is not possible here, the mode is '" + answer + "'";
    return false;
  }
  if (!run_text(handle, "PRAGMA user_version", answer, error)) return false;
  const std::size_t version = std::strtoul(answer.c_str(), nullptr, 10);
  if (version > versions_.size()) {
    error = "it is of version " + answer + ", made by a newer program; this one knows version " +
            std::to_string(versions_.size());
    return false;
  }
  return version == versions_.size() || upgrade(handle, version, error);
}

// Makes the first connection. The caller holds lock_.
bool Database::make_ready(std::string& error) {
  Handle_var handle = open_handle(error);
  if (!handle || !check_and_upgrade(handle.get(), error)) return false;
  std::unique_ptr<Connection> connection(new (std::nothrow) Connection(nullptr, handle.get()));
  if (!connection) {
    error = "out of memory";
    return false;
  }
  handle.release();
  idle_.push_back(std::move(connection));
  ready_ = true;
  return true;
}

Connection_var Database::hand_out(std::unique_ptr<Connection> connection) {
  connection->database_ = shared_from_this();
  return Connection_var(connection.release());
}

Connection_var Database::connect(std::string& error) {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (!ready_ && !make_ready(error)) return Connection_var();
    if (!idle_.empty()) {
      std::unique_ptr<Connection> connection = std::move(idle_.back());
      idle_.pop_back();
      return hand_out(std::move(connection));
    }
  }
  Handle_var handle = open_handle(error);
  if (!handle) return Connection_var();
  std::unique_ptr<Connection> connection(new (std::nothrow) Connection(nullptr, handle.get()));
  if (!connection) {
    error = "out of memory";
    return Connection_var();
  }
  handle.release();
  return hand_out(std::move(connection));
}

void Database::give_back(Connection* connection) {
  std::unique_ptr<Connection> owned(connection);
  const std::shared_ptr<Database> keep_alive = std::move(owned->database_);
  const std::lock_guard<std::mutex> guard(lock_);
  if (!retired_ && idle_.size() < MAX_IDLE) idle_.push_back(std::move(owned));
}

void Database::retire() {
  const std::lock_guard<std::mutex> guard(lock_);
  retired_ = true;
  idle_.clear();
}

}  // namespace database::sql
