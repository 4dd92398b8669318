#include "platform/zfs/zfs_tool.h"

#include <algorithm>
#include <cerrno>

#include "platform/process/text_process_handler.h"
#include "platform/process/tool_options.h"

namespace zfs {

namespace {

class Line_Collector : public Text_Process_Handler {
 public:
  explicit Line_Collector(std::vector<std::string>& lines) : lines_(lines) {}
  int handle_stdout_line(const char* line, std::size_t len) override {
    lines_.emplace_back(line, len);
    return 0;
  }

 private:
  std::vector<std::string>& lines_;
};

// The options take the words in one text. False when no kind of quotes keeps the word together.
bool append_word(std::string& command, const std::string& word) {
  const char quote = word.find('"') == std::string::npos ? '"' : '\'';
  if (word.find(quote) != std::string::npos) return false;
  const bool plain = !word.empty() && word.find_first_of(" \t'\"") == std::string::npos;
  if (!command.empty()) command += ' ';
  command += plain ? word : quote + word + quote;
  return true;
}

bool module_missing(const Tool_Result& result) {
  return result.errors.find("modules are not loaded") != std::string::npos;
}

}  // namespace

bool run_tool(const std::vector<std::string>& argv, unsigned limit_seconds, Tool_Result& result) {
  result = Tool_Result();
  std::string command;
  for (const std::string& word : argv) {
    if (append_word(command, word)) continue;
    result.errors = "an argument holds both kinds of quotes";
    return false;
  }
  platform::Tool_Options options(command);
  Line_Collector collector(result.lines);
  collector.time_limit(limit_seconds);
  // No line of standard error is logged here: the caller knows what it means.
  result.status = collector.call(0, options);
  result.missing = result.status == 127 || (result.status == -1 && errno == ENOENT);
  result.timed_out = result.status == -1 && errno == ETIMEDOUT;
  result.errors = collector.errors();
  return result.status == 0;
}

bool is_host_failure(const Tool_Result& result) {
  return result.missing || result.timed_out || module_missing(result);
}

std::string failure_words(const std::vector<std::string>& argv, const Tool_Result& result) {
  const std::string tool = argv.empty() ? "zfs" : argv[0];
  if (result.missing) return "the tool '" + tool + "' is not installed";
  if (result.timed_out) return "the tool '" + tool + "' did not answer in time, the pool may be suspended";
  if (module_missing(result)) return "the ZFS kernel module is not loaded";
  if (result.errors.empty()) return "exit status " + std::to_string(result.status);
  std::string words = result.errors;
  while (!words.empty() && words.back() == '\n')
    words.pop_back();
  std::replace(words.begin(), words.end(), '\n', ' ');
  return words;
}

}  // namespace zfs
