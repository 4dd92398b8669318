#pragma once
// Runs a command to its end and returns its exit status. The child gets /dev/null as standard input, a
// process group of its own, default signals and no descriptor of this process but its standard output
// (/dev/null) and standard error. Its standard error lines go to the log at notice priority with the command
// line. Any thread; never throws.
//
// Results: the exit status (0 is success); 128 + the signal's number when a signal ended it; -1 with errno
// when it could not be started. After any other failure errno is the cause that the tool printed, when it is
// one that the system knows ("No space left on device"), else EIO.

#include <ace/Log_Msg_Callback.h>
#include <ace/Process.h>

#include <memory>
#include <string>

namespace subprocess {

// Formats the command line like printf and has the shell run it; it may hold a pipe. Names in it stand in
// double quotes and have passed platform::valid_dataset_name or valid_path.
int call(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Runs prepared options (platform::Tool_Options or Sized_Process_Options) without a shell, with the
// environment entries set in them. With a callback the standard error lines go to it, as records of notice
// priority, in place of the log.
int call(ACE_Process_Options& options, std::shared_ptr<ACE_Log_Msg_Callback> callback);

// As the first, with LC_ALL=C, and with the standard error text in `errors` in place of the log (at most 64
// KiB).
int call_stderr(std::string& errors, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace subprocess
