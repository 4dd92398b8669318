#pragma once
// Keeps what this thread logs, for assertions on words and priority. While it lives nothing of it reaches
// standard error. Threads made during its life log to it as well when they inherit the log (ACE threads do);
// others do not.

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>

#include <mutex>
#include <string>
#include <vector>

class Log_Capture : public ACE_Log_Msg_Callback {
 public:
  struct Line {
    ACE_Log_Priority priority;
    std::string text;  // as logged, with its line end if it has one
  };

  Log_Capture();
  ~Log_Capture() override;

  void log(ACE_Log_Record& record) override;

  std::vector<Line> lines() const;
  void clear();

  // Is there a line of that priority that equals, or contains, the text?
  bool has(ACE_Log_Priority priority, const std::string& text) const;
  bool contains(ACE_Log_Priority priority, const std::string& part) const;
  std::size_t count(ACE_Log_Priority priority) const;
  // The texts at LM_ERROR and above, joined.
  std::string errors() const;
  // Everything, one "PRIORITY text" a line, to print beside a failed assertion.
  std::string dump() const;

 private:
  mutable std::mutex lock_;
  std::vector<Line> lines_;
  ACE_Log_Msg_Callback* old_callback_;
  unsigned long old_flags_;
};
