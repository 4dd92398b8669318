#include "daemon/members.h"

namespace scsipoold {

using json_spirit::Value;

namespace {
constexpr std::size_t LONGEST_SHOWN = 64;
}

std::string quoted_name(const std::string& name) {
  std::string shown = name.substr(0, LONGEST_SHOWN);
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  if (name.size() > LONGEST_SHOWN) shown += "...";
  return "'" + shown + "'";
}

Members::Members(const json_spirit::Object& object, std::string prefix)
    : object_(object), prefix_(std::move(prefix)) {}

void Members::refuse(const std::string& key, const std::string& why) {
  if (error_.empty()) error_ = "member " + quoted_name(prefix_ + key) + ": " + why;
}

const Value* Members::take(const char* key) {
  known_.insert(key);
  const auto found = object_.find(key);
  return found == object_.end() ? nullptr : &found->second;
}

void Members::wrong_type(const char* key, const char* wanted, const Value& found) {
  refuse(key, std::string("must be ") + wanted + ", not " + json_spirit::type_words(found));
}

Members& Members::text(const char* key, std::string& out) {
  if (const Value* value = take(key)) {
    if (value->is_string()) {
      out = value->get<std::string>();
    } else {
      wrong_type(key, "a string", *value);
    }
  }
  return *this;
}

Members& Members::flag(const char* key, bool& out) {
  if (const Value* value = take(key)) {
    if (value->is_boolean()) {
      out = value->get<bool>();
    } else {
      wrong_type(key, "true or false", *value);
    }
  }
  return *this;
}

Members& Members::number(const char* key, std::uint64_t lowest, std::uint64_t highest, std::uint64_t& out) {
  const Value* value = take(key);
  if (value == nullptr) return *this;
  const std::string range = std::to_string(lowest) + " to " + std::to_string(highest);
  if (!value->is_number()) {
    wrong_type(key, ("a whole number from " + range).c_str(), *value);
    return *this;
  }
  if (!value->is_number_unsigned() || value->get<std::uint64_t>() < lowest ||
      value->get<std::uint64_t>() > highest) {
    refuse(key, "must be a whole number from " + range + ", not " + value->dump());
    return *this;
  }
  out = value->get<std::uint64_t>();
  return *this;
}

Members& Members::object(const char* key, json_spirit::Object& out) {
  if (const Value* value = take(key)) {
    if (value->is_object()) {
      out = value->get_ref<const json_spirit::Object&>();
    } else {
      wrong_type(key, "an object", *value);
    }
  }
  return *this;
}

Members& Members::array(const char* key, json_spirit::Array& out) {
  if (const Value* value = take(key)) {
    if (value->is_array()) {
      out = value->get_ref<const json_spirit::Array&>();
    } else {
      wrong_type(key, "an array", *value);
    }
  }
  return *this;
}

Members& Members::any(const char* key) {
  take(key);
  return *this;
}

Members& Members::required(const char* key) {
  if (!has(key)) refuse(key, "is missing");
  return *this;
}

bool Members::has(const char* key) const {
  return object_.find(key) != object_.end();
}

bool Members::finish(std::string& error) {
  for (const auto& member : object_) {
    if (known_.count(member.first) == 0) refuse(member.first, "is unknown");
  }
  if (error_.empty()) return true;
  error = error_;
  return false;
}

}  // namespace scsipoold
