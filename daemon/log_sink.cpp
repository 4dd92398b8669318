#include "daemon/log_sink.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Record.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace scsipoold {

namespace {

struct Priority_Words {
  ACE_Log_Priority priority;
  const char* name;
  char journal;  // as in syslog(3)
};

const Priority_Words PRIORITIES[] = {
    {LM_TRACE, "TRACE", '7'},       {LM_DEBUG, "DEBUG", '7'},     {LM_INFO, "INFO", '6'},
    {LM_NOTICE, "NOTICE", '5'},     {LM_WARNING, "WARNING", '4'}, {LM_ERROR, "ERROR", '3'},
    {LM_CRITICAL, "CRITICAL", '2'}, {LM_ALERT, "ALERT", '1'},     {LM_EMERGENCY, "EMERGENCY", '0'},
};

const Priority_Words& words_of(ACE_Log_Priority priority) {
  for (const Priority_Words& one : PRIORITIES) {
    if (one.priority == priority) return one;
  }
  return PRIORITIES[2];
}

std::string time_text(double seconds) {
  const std::time_t whole = static_cast<std::time_t>(std::floor(seconds));
  const int milliseconds = static_cast<int>((seconds - std::floor(seconds)) * 1000);
  std::tm parts{};
  gmtime_r(&whole, &parts);
  char date[32], text[48];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text, sizeof text, "%s.%03dZ ", date, milliseconds);
  return text;
}

// "/build/platform/lio/lio_lun.cpp" is shown as "lio_lun.cpp:12".
std::string source_of_this_record() {
  const ACE_Log_Msg* log = ACE_Log_Msg::instance();
  const char* file = const_cast<ACE_Log_Msg*>(log)->file();
  if (file == nullptr || *file == '\0') return "";
  const char* slash = std::strrchr(file, '/');
  return std::string(slash == nullptr ? file : slash + 1) + ":" +
         std::to_string(const_cast<ACE_Log_Msg*>(log)->linenum());
}

bool journal_on_stderr() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  return stream != nullptr && *stream != '\0';
}

}  // namespace

std::string format_line(ACE_Log_Priority priority, double seconds_since_epoch, const std::string& source,
                        const std::string& message, bool journal) {
  const Priority_Words& words = words_of(priority);
  const std::string mark = journal ? std::string("<") + words.journal + ">" : "";
  std::string line = mark;
  if (!journal) line += time_text(seconds_since_epoch) + words.name + " ";
  if (!source.empty()) line += source + ": ";
  const std::size_t end = message.find_last_not_of("\r\n");
  for (std::size_t i = 0; end != std::string::npos && i <= end; ++i) {
    const char c = message[i];
    if (c == '\n') {
      line += "\n" + mark + "    ";
    } else {
      line += (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f ? '?' : c;
    }
  }
  return line + "\n";
}

ssize_t Log_Sink::log(ACE_Log_Record& record) {
  const ACE_Log_Priority priority = static_cast<ACE_Log_Priority>(record.type());
  if (priority < level_) return 0;
  const ACE_Time_Value time = record.time_stamp();
  const std::string line = format_line(priority, static_cast<double>(time.sec()) + time.usec() / 1e6,
                                       source_of_this_record(), record.msg_data(), journal_);
  return ::write(fd_, line.data(), line.size());
}

void Log_Sink::install(ACE_Log_Priority level) {
  // Never destroyed: threads may log until the process ends.
  static Log_Sink* const sink = new Log_Sink(STDERR_FILENO, level, journal_on_stderr());
  ACE_Log_Msg::msg_backend(sink);
  ACE_Log_Msg::instance()->open("scsipoold", ACE_Log_Msg::CUSTOM | ACE_Log_Msg::MSG_CALLBACK, "scsipoold");
}

}  // namespace scsipoold
