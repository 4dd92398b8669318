#pragma once
// Starts streaming processes and waits for or ends them by id. Any thread, but for instance creation and
// close().

#include <ace/Process.h>
#include <ace/Time_Value.h>
#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>

#include "platform/process/line_reactor.h"
#include "platform/process/process_ex.h"

class ACE_Event_Handler;

class Process_Manager {
 public:
  static Process_Manager* instance();
  // Stops the thread behind reactor() and forgets the instance. No other thread uses it then. Processes that
  // still run stay with their ACE_Process_Ex, whose destructor ends them.
  static void close();

  // Starts the command of the options in `process` without waiting, with the pipes that `process` asks for.
  // The child's other handles are closed, it has default signals and a process group of its own. `handler`
  // must be null (ends are not announced). Returns the process id, or -1 with errno; `process` is then as
  // before.
  pid_t spawn(ACE_Process_Ex* process, ACE_Process_Options& options, ACE_Event_Handler* handler);

  // Waits for a process started by spawn. Returns its id with its exit status in *status (128 + signal number
  // when a signal ended it; may be asked again), 0 with ETIME when it still runs after `timeout` (a span;
  // ACE_Time_Value::max_time is for ever), -1 with ECHILD when this manager does not know it.
  pid_t wait(pid_t pid, const ACE_Time_Value& timeout, ACE_exitcode* status);

  // Ends the process with its whole process group (SIGTERM, two seconds later SIGKILL) and reaps it. 0, also
  // when it had ended already; -1 with ESRCH when this manager does not know it.
  int terminate(pid_t pid);

  // For log_line_handle.
  Line_Reactor* reactor() { return &reactor_; }

 private:
  void remember(const std::shared_ptr<platform::Child>& child);
  std::shared_ptr<platform::Child> find(pid_t pid);

  std::mutex lock_;
  std::map<pid_t, std::weak_ptr<platform::Child>> children_;  // guarded by lock_
  Line_Reactor reactor_;
};
