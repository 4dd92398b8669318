#pragma once
// A process whose pipes carry a stream. Made by the caller, started through Process_Manager::spawn. One
// thread at a time, but for pid() and running(), which any thread may call once it is started.

#include <sys/types.h>

#include <memory>
#include <string>

#include "platform/process/auto_handle.h"

namespace platform {
class Child;
}

class ACE_Process_Ex {
 public:
  enum Redirect { REDIRECT_STDIN = 1, REDIRECT_STDOUT = 2, REDIRECT_STDERR = 4 };
  enum Option {
    OPTION_NONE = 0,        // redirect() says what is piped
    OPTION_READ_STDOUT = 2  // standard output and standard error are piped
  };

  // `program` names the owner in log lines; may be null.
  explicit ACE_Process_Ex(int option = OPTION_NONE, const char* program = nullptr);
  // Closes the pipes, which ends a healthy tool. One that still runs two seconds later is killed with its
  // process group; it is reaped in any case.
  ~ACE_Process_Ex();
  ACE_Process_Ex(const ACE_Process_Ex&) = delete;
  ACE_Process_Ex& operator=(const ACE_Process_Ex&) = delete;

  // Which standard streams become pipes, a mask of Redirect. Before the start. Streams that are not piped are
  // /dev/null, standard error is this process's own.
  void redirect(int mask) { mask_ = mask; }
  int redirect() const { return mask_; }
  const std::string& program() const { return program_; }

  // This process's ends of the pipes: written to (stdin) or read from. Invalid when not piped, closed or
  // detached. The object keeps and closes them.
  ACE_HANDLE stdin_handle() const { return stdin_.get(); }
  ACE_HANDLE stdout_handle() const { return stdout_.get(); }
  ACE_HANDLE stderr_handle() const { return stderr_.get(); }
  // Ends the child's input.
  void close_stdin() { stdin_.reset(); }
  // Hands the handle to the caller, who closes it.
  ACE_HANDLE detach_stdin() { return stdin_.release(); }
  ACE_HANDLE detach_stdout() { return stdout_.release(); }
  ACE_HANDLE detach_stderr() { return stderr_.release(); }

  // -1 before the start.
  pid_t pid() const;
  pid_t getpid() const { return pid(); }
  bool running() const;

 private:
  friend class Process_Manager;

  int mask_;
  std::string program_;
  Auto_Handle stdin_, stdout_, stderr_;
  std::shared_ptr<platform::Child> child_;
};
