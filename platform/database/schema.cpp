#include "platform/database/schema.h"

#include <sstream>

namespace database::sql {

namespace {

const std::string MARK = "-- version ";

}  // namespace

bool split_schema(const std::string& text, std::vector<std::string>& versions) {
  std::vector<std::string> sections(1);
  bool first_line_seen = false;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, MARK.size(), MARK) != 0) {
      sections.back() += line + "\n";
      continue;
    }
    const std::string number = line.substr(MARK.size());
    if (number == "1" && !first_line_seen && sections.size() == 1) {
      first_line_seen = true;  // what stands above it stays in the section
    } else if (number == std::to_string(sections.size() + 1)) {
      sections.emplace_back();
    } else {
      return false;
    }
  }
  versions = std::move(sections);
  return true;
}

}  // namespace database::sql
