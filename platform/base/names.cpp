#include "platform/base/names.h"

#include <cstring>

namespace platform {

namespace {

constexpr std::size_t LONGEST_NAME = 255;
constexpr std::size_t LONGEST_PATH = 4095;
constexpr const char* REFUSED = "\"'\\$`;&|<>()*?";

// How many bytes the UTF-8 character at the start of `text` takes; 0 when it is none.
std::size_t utf8_length(const unsigned char* text, std::size_t left) {
  const unsigned char first = text[0];
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || length > left) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xc0) != 0x80) return 0;
  }
  // Overlong forms, surrogates and what lies beyond the last character.
  if ((first == 0xe0 && text[1] < 0xa0) || (first == 0xed && text[1] > 0x9f) ||
      (first == 0xf0 && text[1] < 0x90) || (first == 0xf4 && text[1] > 0x8f)) {
    return 0;
  }
  return length;
}

// Null when every character may stand in a name, else why not.
const char* bad_character(const std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char* at = reinterpret_cast<const unsigned char*>(text.data()) + i;
    const std::size_t length = utf8_length(at, text.size() - i);
    if (length == 0) return "it is not UTF-8 text";
    // C1 control characters are U+0080 to U+009F.
    if (*at < 0x20 || *at == 0x7f || (*at == 0xc2 && at[1] < 0xa0)) return "it holds a control character";
    if (std::strchr(REFUSED, *at) != nullptr) return "it holds one of \" ' \\ $ ` ; & | < > ( ) * ?";
    i += length;
  }
  return nullptr;
}

const char* part_problem(const std::string& part) {
  if (part.size() > LONGEST_NAME) return "it is longer than 255 bytes";
  if (part == "." || part == "..") return "\".\" and \"..\" are no names";
  if (part[0] == '-') return "it begins with '-'";
  return bad_character(part);
}

const char* name_problem(const std::string& name) {
  if (name.empty()) return "it is empty";
  if (const char* problem = part_problem(name)) return problem;
  return name.find_first_of("/@") == std::string::npos ? nullptr : "it holds '/' or '@'";
}

bool decide(const char* problem, std::string& why) {
  if (problem != nullptr) why = problem;
  return problem == nullptr;
}

}  // namespace

bool valid_dataset_name(const std::string& name, std::string& why) {
  return decide(name_problem(name), why);
}

bool valid_dataset_path(const std::string& path, std::string& why) {
  if (path.size() > LONGEST_PATH) return decide("it is longer than 4095 bytes", why);
  for (std::size_t begin = 0;;) {
    const std::size_t slash = path.find('/', begin);
    const char* problem = name_problem(path.substr(begin, slash - begin));
    if (problem != nullptr) return decide(problem, why);
    if (slash == std::string::npos) return true;
    begin = slash + 1;
  }
}

bool valid_path(const std::string& path, std::string& why) {
  if (path.empty() || path[0] != '/') return decide("it is not an absolute path", why);
  if (path.size() > LONGEST_PATH) return decide("it is longer than 4095 bytes", why);
  for (std::size_t begin = 1; begin < path.size();) {
    std::size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    const char* problem = end == begin ? nullptr : part_problem(path.substr(begin, end - begin));
    if (problem != nullptr) return decide(problem, why);
    begin = end + 1;
  }
  return true;
}

}  // namespace platform
