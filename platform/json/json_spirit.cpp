#include "platform/json/json_spirit.h"

#include <cerrno>
#include <fstream>
#include <sstream>

#include "platform/base/time_text.h"

namespace json_spirit {

const char* type_words(const Value& value) {
  switch (value.type()) {
    case Value::value_t::null:
      return "null";
    case Value::value_t::object:
      return "object";
    case Value::value_t::array:
      return "array";
    case Value::value_t::string:
      return "string";
    case Value::value_t::boolean:
      return "boolean";
    case Value::value_t::number_integer:
      return value.get<std::int64_t>() < 0 ? "negative integer" : "integer";
    case Value::value_t::number_unsigned:
      return "unsigned integer";
    case Value::value_t::number_float:
      return "fraction";
    default:
      return "unknown type";
  }
}

namespace detail {

bool Reader<std::string>::read(const Value& value, std::string& out) {
  if (!value.is_string()) return false;
  out = value.get_ref<const std::string&>();
  return true;
}

bool Reader<bool>::read(const Value& value, bool& out) {
  if (!value.is_boolean()) return false;
  out = value.get<bool>();
  return true;
}

bool Reader<Object>::read(const Value& value, Object& out) {
  if (!value.is_object()) return false;
  out = value.get_ref<const Object&>();
  return true;
}

bool Reader<Array>::read(const Value& value, Array& out) {
  if (!value.is_array()) return false;
  out = value.get_ref<const Array&>();
  return true;
}

bool read_unsigned(const Value& value, std::uint64_t highest, std::uint64_t& out) {
  if (!value.is_number_integer()) return false;
  if (!value.is_number_unsigned() && value.get<std::int64_t>() < 0) return false;
  const std::uint64_t number = value.get<std::uint64_t>();
  if (number > highest) return false;
  out = number;
  return true;
}

bool read_signed(const Value& value, std::int64_t lowest, std::int64_t highest, std::int64_t& out) {
  if (!value.is_number_integer()) return false;
  if (value.is_number_unsigned() && value.get<std::uint64_t>() > static_cast<std::uint64_t>(highest))
    return false;
  const std::int64_t number = value.get<std::int64_t>();
  if (number < lowest || number > highest) return false;
  out = number;
  return true;
}

void throw_missing(const std::string& key) {
  throw JSON_Error("member '" + key + "' is missing");
}

void throw_type(const std::string& key, const char* wanted, const Value& found) {
  throw JSON_Error("member '" + key + "' is not of type " + wanted + ": found " + type_words(found));
}

}  // namespace detail

bool object_get_time_t(const Object& object, const std::string& key, std::time_t& out) {
  std::string text;
  return object_find(object, key, text) && platform::ISO8601_To_POSIX_Time(text, out);
}

const Object* get_object(const Value& value) {
  return value.is_object() ? &value.get_ref<const Object&>() : nullptr;
}

const Array* get_array(const Value& value) {
  return value.is_array() ? &value.get_ref<const Array&>() : nullptr;
}

}  // namespace json_spirit

namespace {

// Values are copied, written and destroyed by recursion: a deep one, from whoever may send text, ends the
// stack.
bool too_deep(const std::string& text) {
  constexpr int DEEPEST = 256;
  int depth = 0;
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted && c == '\\') {
      ++i;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (!quoted && (c == '[' || c == '{')) {
      if (++depth > DEEPEST) return true;
    } else if (!quoted && (c == ']' || c == '}')) {
      --depth;
    }
  }
  return false;
}

}  // namespace

bool loads_json(const std::string& text, json_spirit::Value& value) {
  if (too_deep(text)) return false;
  json_spirit::Value parsed = json_spirit::Value::parse(text, nullptr, false);
  if (parsed.is_discarded()) return false;
  value = std::move(parsed);
  return true;
}

bool load_json(const std::string& path, json_spirit::Value& value) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  std::ostringstream text;
  text << file.rdbuf();
  if (loads_json(text.str(), value)) return true;
  errno = EINVAL;
  return false;
}

std::string JSON_Dump(const json_spirit::Value& value, bool pretty) {
  return value.dump(pretty ? 2 : -1, ' ', false, json_spirit::Value::error_handler_t::replace);
}
