#include "platform/process/process_manager.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <limits>

#include "platform/base/log.h"
#include "platform/process/child.h"
#include "platform/process/pipe.h"

namespace {

std::mutex instance_lock;
Process_Manager* the_instance = nullptr;  // guarded by instance_lock

constexpr std::chrono::seconds TERMINATE_GRACE(2);

// One standard stream of the child: the two ends of its pipe when it has one.
struct Stream {
  Auto_Handle own;
  Auto_Handle childs;

  // `reads` is what this process does with its end.
  bool open(bool wanted, bool reads) {
    if (!wanted) return true;
    return reads ? platform::make_pipe(own, childs) : platform::make_pipe(childs, own);
  }
  // For the streams that carry data.
  bool open_wide(bool wanted, bool reads) {
    if (!open(wanted, reads)) return false;
    if (wanted) platform::widen_pipe(own);
    return true;
  }
};

// A write to a tool that has gone must be an error of that write, not the end of the daemon.
void ignore_broken_pipes() {
  struct sigaction now;
  if (::sigaction(SIGPIPE, nullptr, &now) == 0 && now.sa_handler == SIG_DFL) ::signal(SIGPIPE, SIG_IGN);
}

}  // namespace

Process_Manager* Process_Manager::instance() {
  const std::lock_guard<std::mutex> guard(instance_lock);
  if (the_instance == nullptr) the_instance = new Process_Manager;
  return the_instance;
}

void Process_Manager::close() {
  const std::lock_guard<std::mutex> guard(instance_lock);
  delete the_instance;
  the_instance = nullptr;
}

pid_t Process_Manager::spawn(ACE_Process_Ex* process, ACE_Process_Options& options,
                             ACE_Event_Handler* handler) {
  if (process == nullptr || handler != nullptr || process->running()) {
    errno = EINVAL;
    return -1;
  }
  ignore_broken_pipes();
  Stream in;
  Stream out;
  Stream err;
  const int mask = process->redirect();
  if (!in.open_wide((mask & ACE_Process_Ex::REDIRECT_STDIN) != 0, false) ||
      !out.open_wide((mask & ACE_Process_Ex::REDIRECT_STDOUT) != 0, true) ||
      !err.open((mask & ACE_Process_Ex::REDIRECT_STDERR) != 0, true)) {
    return -1;
  }
  platform::Child::Handles handles;
  handles.in = in.childs.get();
  handles.out = out.childs.get();
  handles.err = err.childs.get();
  std::shared_ptr<platform::Child> child = platform::Child::start(options, handles);
  if (child == nullptr) return -1;
  process->stdin_ = std::move(in.own);
  process->stdout_ = std::move(out.own);
  process->stderr_ = std::move(err.own);
  remember(child);
  process->child_ = child;
  return child->pid();
}

void Process_Manager::remember(const std::shared_ptr<platform::Child>& child) {
  const std::lock_guard<std::mutex> guard(lock_);
  for (auto entry = children_.begin(); entry != children_.end();)
    entry = entry->second.expired() ? children_.erase(entry) : std::next(entry);
  children_[child->pid()] = child;
}

std::shared_ptr<platform::Child> Process_Manager::find(pid_t pid) {
  const std::lock_guard<std::mutex> guard(lock_);
  const auto found = children_.find(pid);
  return found != children_.end() ? found->second.lock() : nullptr;
}

pid_t Process_Manager::wait(pid_t pid, const ACE_Time_Value& timeout, ACE_exitcode* status) {
  const std::shared_ptr<platform::Child> child = find(pid);
  if (child == nullptr) {
    errno = ECHILD;
    return -1;
  }
  int result = 0;
  if (timeout == ACE_Time_Value::max_time) {
    child->wait(result);
  } else if (!child->wait(std::chrono::milliseconds(timeout.msec()), result)) {
    errno = ETIME;
    return 0;
  }
  if (status != nullptr) *status = result;
  return pid;
}

int Process_Manager::terminate(pid_t pid) {
  const std::shared_ptr<platform::Child> child = find(pid);
  if (child == nullptr) {
    errno = ESRCH;
    return -1;
  }
  child->terminate(TERMINATE_GRACE);
  return 0;
}
