#include "platform/process/tool_options.h"

#include <algorithm>
#include <cstdio>

namespace platform {

namespace {

constexpr std::size_t ENVIRONMENT_SIZE = 16384;
constexpr std::size_t ENVIRONMENT_ENTRIES = 512;
constexpr std::size_t SLACK = 64;

std::size_t blanks(const std::string& command) {
  return static_cast<std::size_t>(std::count(command.begin(), command.end(), ' '));
}

}  // namespace

Sized_Process_Options::Sized_Process_Options(const std::string& command)
    : ACE_Process_Options(true, std::max<std::size_t>(1024, command.size() + SLACK), ENVIRONMENT_SIZE,
                          ENVIRONMENT_ENTRIES, std::max<std::size_t>(128, blanks(command) + SLACK)) {
  handle_inheritance(0);
  command_line("%s", command.c_str());
}

Tool_Options::Tool_Options(const std::string& command) : Sized_Process_Options(command) {
  setenv("LC_ALL", "%s", "C");
}

std::string format_command(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = format_command_v(format, arguments);
  va_end(arguments);
  return text;
}

std::string format_command_v(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

}  // namespace platform
