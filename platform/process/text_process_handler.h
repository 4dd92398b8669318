#pragma once
// Runs a tool to its end and hands its standard output on, line by line. One object for one run, used by one
// thread.
//
//   class Names : public Text_Process_Handler { int handle_stdout_line(const char* line, size_t len)
//   override; ... }; platform::Tool_Options options("zfs list -H -o name"); if (Names(out).call(8, options)
//   != 0) ...

#include <ace/Process.h>

#include <cstddef>
#include <string>

class Text_Process_Handler {
 public:
  enum Flag {
    TPHF_LOG_CMD = 1,               // log the command line at debug priority before the run
    TPHF_LOG_CVT_LOCAL_TO_UTF8 = 2  // standard error text is in the locale's character set: log it as UTF-8
  };

  explicit Text_Process_Handler(int flags = 0) : flags_(flags) {}
  virtual ~Text_Process_Handler() = default;

  // One line without its line end, followed by a NUL. Returns 0 to go on; anything else ends the tool and the
  // run.
  virtual int handle_stdout_line(const char* line, std::size_t len) = 0;

  // Runs the tool; results as in subprocess.h, and -1 with ECANCELED when handle_stdout_line ended it or
  // ETIMEDOUT when the time limit did (the tool and its process group are then killed). The first `log_lines`
  // lines of standard error are logged at notice priority with the command line.
  int call(unsigned int log_lines, ACE_Process_Options& options);

  // What the last run printed on standard error (at most 64 KiB).
  const std::string& errors() const { return errors_; }

  // For tools that only read: seconds after which a run is ended; 0, the default, is no limit.
  void time_limit(unsigned int seconds) { time_limit_ = seconds; }

 private:
  Text_Process_Handler(const Text_Process_Handler&) = delete;
  Text_Process_Handler& operator=(const Text_Process_Handler&) = delete;

  const int flags_;
  unsigned int time_limit_ = 0;
  std::string errors_;
};
