#include "platform/database/binding_value.h"

#include <sqlite3.h>

#include <limits>

namespace database::sql {

namespace {

// The statement may outlive the builder that owns the value, so SQLite copies it.
int bind_text(sqlite3_stmt* statement, int index, const std::string& text) {
  return sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

int bind_bytes(sqlite3_stmt* statement, int index, const std::string& bytes) {
  return sqlite3_bind_blob64(statement, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT);
}

}  // namespace

Binding_Value::Binding_Value(const char* value) {
  if (value != nullptr) value_ = std::string(value);
}

bool Binding_Value::bind(sqlite3_stmt* statement, int index, std::string& error) const {
  int result = SQLITE_OK;
  if (const auto* number = std::get_if<std::int64_t>(&value_)) {
    result = sqlite3_bind_int64(statement, index, *number);
  } else if (const auto* wide = std::get_if<std::uint64_t>(&value_)) {
    if (*wide > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      error = "number " + std::to_string(*wide) + " is too large to store";
      return false;
    }
    result = sqlite3_bind_int64(statement, index, static_cast<std::int64_t>(*wide));
  } else if (const auto* text = std::get_if<std::string>(&value_)) {
    result = bind_text(statement, index, *text);
  } else if (const auto* bytes = std::get_if<Bytes>(&value_)) {
    result = bind_bytes(statement, index, bytes->bytes);
  } else {
    result = sqlite3_bind_null(statement, index);
  }
  if (result != SQLITE_OK) error = sqlite3_errstr(result);
  return result == SQLITE_OK;
}

}  // namespace database::sql
