#include "ctl/table.h"

#include <algorithm>

namespace ctl {

namespace {

std::size_t width_of(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](unsigned char c) { return (c & 0xc0) != 0x80; }));
}

}  // namespace

std::string printable(const std::string& text) {
  std::string shown = text;
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return shown;
}

void Table::column(const std::string& heading, Align align) {
  headings_.push_back(heading);
  aligns_.push_back(align);
}

void Table::row(std::vector<std::string> cells) {
  for (std::string& cell : cells)
    cell = printable(cell);
  cells.resize(headings_.size());
  rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
  std::vector<std::size_t> widths;
  for (const std::string& heading : headings_)
    widths.push_back(width_of(heading));
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], width_of(row[i]));
  }
  const auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      const std::string padding(widths[i] - width_of(cells[i]), ' ');
      if (i != 0) text += "  ";
      text += aligns_[i] == RIGHT ? padding + cells[i] : cells[i] + padding;
    }
    text.erase(text.find_last_not_of(' ') + 1);
    out << text << "\n";
  };
  line(headings_);
  for (const auto& row : rows_)
    line(row);
}

}  // namespace ctl
