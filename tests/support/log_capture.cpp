#include "tests/support/log_capture.h"

#include <ace/Log_Record.h>

#include <algorithm>

Log_Capture::Log_Capture() : old_callback_(ACE_LOG_MSG->msg_callback()), old_flags_(ACE_LOG_MSG->flags()) {
  ACE_LOG_MSG->msg_callback(this);
  ACE_LOG_MSG->clr_flags(old_flags_);
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
}

Log_Capture::~Log_Capture() {
  ACE_LOG_MSG->clr_flags(ACE_LOG_MSG->flags());
  ACE_LOG_MSG->set_flags(old_flags_);
  ACE_LOG_MSG->msg_callback(old_callback_);
}

void Log_Capture::log(ACE_Log_Record& record) {
  const std::lock_guard<std::mutex> guard(lock_);
  lines_.push_back({static_cast<ACE_Log_Priority>(record.type()), record.msg_data()});
}

std::vector<Log_Capture::Line> Log_Capture::lines() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return lines_;
}

void Log_Capture::clear() {
  const std::lock_guard<std::mutex> guard(lock_);
  lines_.clear();
}

bool Log_Capture::has(ACE_Log_Priority priority, const std::string& text) const {
  const std::vector<Line> all = lines();
  return std::any_of(all.begin(), all.end(),
                     [&](const Line& line) { return line.priority == priority && line.text == text; });
}

bool Log_Capture::contains(ACE_Log_Priority priority, const std::string& part) const {
  const std::vector<Line> all = lines();
  return std::any_of(all.begin(), all.end(), [&](const Line& line) {
    return line.priority == priority && line.text.find(part) != std::string::npos;
  });
}

std::size_t Log_Capture::count(ACE_Log_Priority priority) const {
  const std::vector<Line> all = lines();
  return static_cast<std::size_t>(
      std::count_if(all.begin(), all.end(), [&](const Line& line) { return line.priority == priority; }));
}

std::string Log_Capture::errors() const {
  std::string text;
  for (const Line& line : lines()) {
    if (line.priority >= LM_ERROR) text += line.text;
  }
  return text;
}

std::string Log_Capture::dump() const {
  std::string text;
  for (const Line& line : lines()) {
    text += std::string(ACE_Log_Record::priority_name(line.priority)) + " " + line.text;
    if (text.back() != '\n') text += '\n';
  }
  return text;
}
