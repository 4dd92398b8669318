#pragma once
// Cuts a stream of bytes into lines.

#include <cstddef>
#include <string>

namespace platform {

class Line_Splitter {
 public:
  // A line longer than this is handed on in pieces.
  static constexpr std::size_t LONGEST = 1024 * 1024;

  // Calls `function(const std::string& line)` for each line that is complete, without its line end, until it
  // returns false; returns false then.
  template <typename Function>
  bool add(const char* data, std::size_t size, Function function) {
    const char* const end = data + size;
    for (const char* at = data; at != end;) {
      const char* line_end = at;
      while (line_end != end && *line_end != '\n')
        ++line_end;
      rest_.append(at, line_end);
      at = line_end;
      if (at == end && rest_.size() < LONGEST) break;
      if (at != end) ++at;
      if (!hand_on(function)) return false;
    }
    return true;
  }

  // The last line, when the stream ended without a line end.
  template <typename Function>
  bool finish(Function function) {
    return rest_.empty() || hand_on(function);
  }

 private:
  template <typename Function>
  bool hand_on(Function& function) {
    const std::string line = std::move(rest_);
    rest_.clear();
    return function(line);
  }

  std::string rest_;
};

}  // namespace platform
