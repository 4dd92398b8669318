#pragma once
// How every library here reports what went wrong: one line through ACE_Log_Msg, with source file and line.
// Formats are ACE's (%s, %d, %u, %hu, %Q unsigned 64 bit, %q signed 64 bit, %m error text, %? stack trace).
// Any thread may log. errno is kept.

#include <ace/Log_Msg.h>

namespace platform {

// Logs one message at the given priority and returns false, so that a failing step is `return
// LOG_FAILURE(...)`.
bool log_at(const char* file, int line, ACE_Log_Priority priority, const char* format, ...);

}  // namespace platform

// A failure, at error priority. Evaluates to false.
#define LOG_FAILURE(...) ::platform::log_at(__FILE__, __LINE__, LM_ERROR, __VA_ARGS__)

// A violated precondition, at emergency priority with a stack trace. WHAT is a literal such as
// "name is NULL or \"\"". Evaluates to false.
#define LOG_VIOLATION(WHAT) \
  ::platform::log_at(__FILE__, __LINE__, LM_EMERGENCY, "Unexpected error in %N:%l, " WHAT ":\n%?\n")

#define LOG_NOTICE(...) ::platform::log_at(__FILE__, __LINE__, LM_NOTICE, __VA_ARGS__)
#define LOG_INFO(...) ::platform::log_at(__FILE__, __LINE__, LM_INFO, __VA_ARGS__)
#define LOG_DEBUG(...) ::platform::log_at(__FILE__, __LINE__, LM_DEBUG, __VA_ARGS__)
