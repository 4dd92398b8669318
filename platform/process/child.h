#pragma once
// One child process, shared between those who may wait for it. The process is reaped exactly once and its
// status kept, so that nobody ever asks the kernel about a process id that belongs to somebody else by now.
// Any thread.

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/process/auto_handle.h"

class ACE_Process_Options;

namespace platform {

class Child {
 public:
  // What the child gets as its standard handles; an invalid one means /dev/null (for `err`: this process's
  // own).
  struct Handles {
    ACE_HANDLE in = ACE_INVALID_HANDLE;
    ACE_HANDLE out = ACE_INVALID_HANDLE;
    ACE_HANDLE err = ACE_INVALID_HANDLE;
  };

  // Starts the program named by the first word of the options' command line (found on PATH), or `sh -c
  // command`. Null with errno on failure.
  static std::shared_ptr<Child> start(ACE_Process_Options& options, const Handles& handles);
  static std::shared_ptr<Child> start_shell(const std::string& command, bool c_locale,
                                            const Handles& handles);

  // Kills the process group and reaps it when nobody has waited for it.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  // Readable (poll) once the process has ended. Stays open as long as the object.
  ACE_HANDLE end_handle() const { return pidfd_.get(); }
  bool running();
  // True once it has ended, with its exit status (128 + signal number when a signal ended it); false after
  // the time.
  bool wait(std::chrono::milliseconds time, int& status);
  void wait(int& status);
  // SIGTERM to the whole process group, SIGKILL after `grace`, then reaps it. What stays of the group is
  // killed as well.
  void terminate(std::chrono::milliseconds grace);

 private:
  Child(pid_t pid, Auto_Handle pidfd) : pid_(pid), pidfd_(std::move(pidfd)) {}
  static std::shared_ptr<Child> spawn(const char* program, char* const argv[],
                                      const std::vector<std::string>& environment, const char* folder,
                                      const Handles& handles);
  int reap(bool kill_group);

  const pid_t pid_;
  const Auto_Handle pidfd_;
  std::mutex lock_;
  bool reaped_ = false;  // guarded by lock_
  int status_ = 0;
};

}  // namespace platform
