#pragma once
// The options of a tool run: sized for the command (ACE's default buffers of 1024 bytes and 128 arguments
// would cut a long one), no inherited handles, LC_ALL=C for untranslated text and numbers. Used as
// ACE_Process_Options:
//
//   platform::Tool_Options options("btrfs subvolume list -pu \"/mnt\"");
//
// The words of the command are split at blanks; single or double quotes keep a word together. No shell is
// involved.

#include <ace/Process.h>

#include <cstdarg>
#include <string>

namespace platform {

// ACE_Process_Options with room for the command, the command set and handle inheritance off; nothing else.
class Sized_Process_Options : public ACE_Process_Options {
 public:
  explicit Sized_Process_Options(const std::string& command);
};

class Tool_Options : public Sized_Process_Options {
 public:
  explicit Tool_Options(const std::string& command);
};

// printf into a string of any length.
std::string format_command(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string format_command_v(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

}  // namespace platform
