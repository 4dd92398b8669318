#pragma once
// Runs `zfs` or `zpool` with arguments (no shell) and collects what they print. Any thread.

#include <string>
#include <vector>

namespace zfs {

struct Tool_Result {
  int status = -1;                 // exit status; -1 when the tool was not run to its end
  bool missing = false;            // there is no such tool on PATH
  bool timed_out = false;          // it ran longer than it may and was killed
  std::vector<std::string> lines;  // standard output
  std::string errors;              // standard error
};

// Longest run, in seconds, of a tool that only reads.
constexpr unsigned READ_LIMIT = 60;

// Runs argv[0] (looked up on PATH) with LC_ALL=C; it is killed after `limit_seconds` (0: no limit). An
// argument that holds both kinds of quotes is refused. True for exit status 0.
bool run_tool(const std::vector<std::string>& argv, unsigned limit_seconds, Tool_Result& result);

// The tool or the kernel module is missing, or the tool did not answer.
bool is_host_failure(const Tool_Result& result);

// Why the run failed, in words for the log: a missing tool or module is called by its name.
std::string failure_words(const std::vector<std::string>& argv, const Tool_Result& result);

}  // namespace zfs
