#include <strings.h>

#include <algorithm>

#include "platform/http/http_session.h"

namespace {

bool same_name(const std::string& one, const std::string& other) {
  return strcasecmp(one.c_str(), other.c_str()) == 0;
}

bool valid_name(const std::string& name) {
  static const char allowed[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!#$%&'*+-.^_`|~";
  return !name.empty() && name.find_first_not_of(allowed) == std::string::npos;
}

// A line break in a value would let it forge further fields.
bool valid_value(const std::string& value) {
  return std::all_of(value.begin(), value.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte == '\t' || (byte >= 0x20 && byte != 0x7f);
  });
}

}  // namespace

const char* HTTP_Headers::name_of(int known) {
  return known == ACCESS_KEY ? "X-Access-Key" : nullptr;
}

bool HTTP_Headers::put(int known, const std::string& value, bool replace) {
  const char* name = name_of(known);
  return name != nullptr && put(std::string(name), value, replace);
}

bool HTTP_Headers::put(const std::string& name, const std::string& value, bool replace) {
  if (!valid_name(name) || !valid_value(value)) return false;
  if (replace) remove(name);
  fields_.emplace_back(name, value);
  return true;
}

void HTTP_Headers::remove(const std::string& name) {
  fields_.erase(std::remove_if(fields_.begin(), fields_.end(),
                               [&](const auto& field) { return same_name(field.first, name); }),
                fields_.end());
}

const std::string* HTTP_Headers::find(const std::string& name) const {
  for (const auto& field : fields_) {
    if (same_name(field.first, name)) return &field.second;
  }
  return nullptr;
}

const std::string* HTTP_Headers::find(int known) const {
  const char* name = name_of(known);
  return name == nullptr ? nullptr : find(std::string(name));
}
