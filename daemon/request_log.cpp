#include "daemon/request_log.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Record.h>

namespace scsipoold {

namespace {

constexpr std::size_t LONGEST_LINE = 2048;
constexpr std::size_t MOST_LINES = 100;

void deliver_to_callbacks() {
  static std::once_flag once;
  std::call_once(once, [] { ACE_Log_Msg::instance()->set_flags(ACE_Log_Msg::MSG_CALLBACK); });
}

// The stack trace of a violated precondition follows on further lines and is for the log alone. A tool's
// message ends its last line itself.
std::string first_line(const char* message) {
  std::string text(message);
  const std::size_t end = text.find_first_of("\r\n");
  if (end != std::string::npos) text.resize(end);
  if (text.size() > LONGEST_LINE) text.resize(LONGEST_LINE);
  while (!text.empty() && text.back() == ' ')
    text.pop_back();
  return text;
}

}  // namespace

Request_Log::Request_Log() : previous_(ACE_Log_Msg::instance()->msg_callback(this)) {
  deliver_to_callbacks();
}

Request_Log::~Request_Log() {
  ACE_Log_Msg::instance()->msg_callback(previous_);
}

void Request_Log::log(ACE_Log_Record& record) {
  if (previous_ != nullptr) previous_->log(record);
  if (record.type() < LM_NOTICE) return;
  const std::string line = first_line(record.msg_data());
  if (line.empty()) return;
  const std::lock_guard<std::mutex> guard(mutex_);
  if (record.type() >= LM_ERROR) failure_ = line;
  if (lines_.size() < MOST_LINES) lines_.push_back(line);
}

std::string Request_Log::failure() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return failure_;
}

std::vector<std::string> Request_Log::lines() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return lines_;
}

void Request_Log::clear() {
  const std::lock_guard<std::mutex> guard(mutex_);
  failure_.clear();
  lines_.clear();
}

}  // namespace scsipoold
