#pragma once
// Where the daemon's log lines go: standard error, with time, priority and source; or, when standard error is
// the journal's socket, with the "<N>" priority prefix that the journal reads. Any thread may log.

#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Priority.h>

#include <string>

namespace scsipoold {

class Log_Sink : public ACE_Log_Msg_Backend {
 public:
  // Takes over the process's log. Lines below `level` are dropped here, not earlier, because a request that
  // fails shows its user more than the log keeps. The object must outlive all logging.
  static void install(ACE_Log_Priority level);

  Log_Sink(int fd, ACE_Log_Priority level, bool journal) : fd_(fd), level_(level), journal_(journal) {}

  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }
  ssize_t log(ACE_Log_Record& record) override;

 private:
  const int fd_;
  const ACE_Log_Priority level_;
  const bool journal_;
};

// One record as it is written, with its final newline. Further lines of a message are indented (or, for the
// journal, prefixed again), so that no text from outside can look like a record of its own.
std::string format_line(ACE_Log_Priority priority, double seconds_since_epoch, const std::string& source,
                        const std::string& message, bool journal);

}  // namespace scsipoold
