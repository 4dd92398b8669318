#include "ctl/record.h"

#include "ctl/size_text.h"

namespace ctl {

using json_spirit::Object;

std::string text_of(const Object& record, const char* key, const std::string& missing) {
  std::string text;
  return json_spirit::object_find(record, key, text) ? text : missing;
}

std::string size_of(const Object& record, const char* key) {
  std::uint64_t bytes = 0;
  return json_spirit::object_find(record, key, bytes) ? print_size(bytes) : "?";
}

std::string number_of(const Object& record, const char* key, const std::string& missing) {
  std::int64_t number = 0;
  return json_spirit::object_find(record, key, number) ? std::to_string(number) : missing;
}

std::string flag_of(const Object& record, const char* key) {
  bool flag = false;
  if (!json_spirit::object_find(record, key, flag)) return "?";
  return flag ? "yes" : "no";
}

}  // namespace ctl
