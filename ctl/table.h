#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace ctl {

// A table for people: columns as wide as their longest cell (counted in characters, not bytes), two blanks
// between them. Control characters in cells are shown as '?', so that no name can write on the terminal.
class Table {
 public:
  enum Align { LEFT, RIGHT };

  void column(const std::string& heading, Align align = LEFT);
  // As many cells as there are columns.
  void row(std::vector<std::string> cells);
  bool empty() const { return rows_.empty(); }
  void print(std::ostream& out) const;

 private:
  std::vector<std::string> headings_;
  std::vector<Align> aligns_;
  std::vector<std::vector<std::string>> rows_;
};

// The text with control characters replaced.
std::string printable(const std::string& text);

}  // namespace ctl
