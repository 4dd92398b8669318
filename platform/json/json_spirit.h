#pragma once
// JSON values behind the names that the pool module uses. A Value is any JSON value, an Object a map from
// string to Value (ordered by key), an Array a vector of Values. Plain values: no locks, one thread at a
// time.

#include <cstdint>
#include <ctime>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace json_spirit {

using Value = nlohmann::json;
using Object = nlohmann::json::object_t;
using Array = nlohmann::json::array_t;

// Thrown by object_get and by the strict conversions; what() names the key, the type wanted and the type
// found.
class JSON_Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The JSON type of a value as words: "string", "boolean", "unsigned integer", "null", ...
const char* type_words(const Value& value);

namespace detail {

template <typename T>
struct Reader;  // static const char* name(); static bool read(const Value&, T&);

template <>
struct Reader<std::string> {
  static const char* name() { return "string"; }
  static bool read(const Value& value, std::string& out);
};
template <>
struct Reader<bool> {
  static const char* name() { return "boolean"; }
  static bool read(const Value& value, bool& out);
};
template <>
struct Reader<Object> {
  static const char* name() { return "object"; }
  static bool read(const Value& value, Object& out);
};
template <>
struct Reader<Array> {
  static const char* name() { return "array"; }
  static bool read(const Value& value, Array& out);
};

bool read_unsigned(const Value& value, std::uint64_t highest, std::uint64_t& out);
bool read_signed(const Value& value, std::int64_t lowest, std::int64_t highest, std::int64_t& out);

// Integers: the value must be a JSON integer that fits T; a negative number is not an unsigned one.
template <typename T>
struct Integer_Reader {
  static const char* name() { return std::is_unsigned<T>::value ? "unsigned integer" : "integer"; }
  static bool read(const Value& value, T& out) {
    if constexpr (std::is_unsigned<T>::value) {
      std::uint64_t number = 0;
      if (!read_unsigned(value, std::numeric_limits<T>::max(), number)) return false;
      out = static_cast<T>(number);
    } else {
      std::int64_t number = 0;
      if (!read_signed(value, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), number))
        return false;
      out = static_cast<T>(number);
    }
    return true;
  }
};
template <>
struct Reader<unsigned short> : Integer_Reader<unsigned short> {};
template <>
struct Reader<unsigned int> : Integer_Reader<unsigned int> {};
template <>
struct Reader<unsigned long> : Integer_Reader<unsigned long> {};
template <>
struct Reader<unsigned long long> : Integer_Reader<unsigned long long> {};
template <>
struct Reader<int> : Integer_Reader<int> {};
template <>
struct Reader<long> : Integer_Reader<long> {};
template <>
struct Reader<long long> : Integer_Reader<long long> {};

[[noreturn]] void throw_missing(const std::string& key);
[[noreturn]] void throw_type(const std::string& key, const char* wanted, const Value& found);

}  // namespace detail

// Reads the member `key` as exactly the JSON type of T into `out`. False, with `out` untouched, when the
// object has no such member or it is of another type (null included).
template <typename T>
bool object_find(const Object& object, const std::string& key, T& out) {
  const auto found = object.find(key);
  return found != object.end() && detail::Reader<T>::read(found->second, out);
}

// The member `key` as exactly the JSON type of T; throws JSON_Error naming the key and what was found.
template <typename T>
T object_get(const Object& object, const std::string& key) {
  const auto found = object.find(key);
  if (found == object.end()) detail::throw_missing(key);
  T out{};
  if (!detail::Reader<T>::read(found->second, out))
    detail::throw_type(key, detail::Reader<T>::name(), found->second);
  return out;
}

// Reads an ISO 8601 time text (platform::POSIX_Time_To_ISO8601 writes it) as seconds since the epoch. False,
// with `out` untouched, when there is no such member or it is no such text.
bool object_get_time_t(const Object& object, const std::string& key, std::time_t& out);

// The value's object or array, or null when it is of another type. The pointer lives as long as the value.
const Object* get_object(const Value& value);
const Array* get_array(const Value& value);

}  // namespace json_spirit

// Parses JSON text. False, with `value` untouched, when the text is not JSON (nothing may follow it).
bool loads_json(const std::string& text, json_spirit::Value& value);

// Reads and parses a file. False, with `value` untouched and errno set for a file that cannot be read
// (EINVAL for text that is not JSON).
bool load_json(const std::string& path, json_spirit::Value& value);

// The value as JSON text: compact, or indented when `pretty`. Text that is not UTF-8 is written with the
// replacement character: never throws.
std::string JSON_Dump(const json_spirit::Value& value, bool pretty = false);
