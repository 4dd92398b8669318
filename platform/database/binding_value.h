#pragma once
// One value that a statement binds. A plain value.

#include <cstdint>
#include <string>
#include <variant>

struct sqlite3_stmt;

namespace database::sql {

class Binding_Value {
 public:
  Binding_Value(bool value) : value_(static_cast<std::int64_t>(value)) {}
  Binding_Value(int value) : value_(static_cast<std::int64_t>(value)) {}
  Binding_Value(long value) : value_(static_cast<std::int64_t>(value)) {}
  Binding_Value(unsigned short value) : value_(static_cast<std::int64_t>(value)) {}
  Binding_Value(unsigned int value) : value_(static_cast<std::int64_t>(value)) {}
  // The database's integers are signed: a statement with a value above 2^63 - 1 fails.
  Binding_Value(unsigned long value) : value_(value) {}
  Binding_Value(const std::string& value) : value_(value) {}
  // A null pointer is the SQL NULL.
  Binding_Value(const char* value);
  // Any other pointer would silently be a boolean.
  template <typename T>
  Binding_Value(T* value) = delete;

  // Bytes, such as a binary UUID.
  static Binding_Value blob(const std::string& bytes) { return Binding_Value(Bytes{bytes}); }

  // Binds the value to the parameter at `index` (from 1). False with the cause in `error`.
  bool bind(sqlite3_stmt* statement, int index, std::string& error) const;

 private:
  struct Bytes {
    std::string bytes;
  };
  explicit Binding_Value(Bytes bytes) : value_(std::move(bytes)) {}

  std::variant<std::monostate, std::int64_t, std::uint64_t, std::string, Bytes> value_;
};

}  // namespace database::sql
