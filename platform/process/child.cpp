#include "platform/process/child.h"

#include <ace/Process.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "platform/base/log.h"

namespace platform {

namespace {

constexpr int FOR_EVER = -1;
constexpr int UNKNOWN_STATUS = 255;
constexpr std::chrono::seconds AFTER_KILL(5);

// Killed processes that wait in the kernel for a device that does not answer. They are reaped when they have
// ended, as other children start.
class Hanging {
 public:
  static Hanging& instance() {
    static Hanging hanging;
    return hanging;
  }
  void add(pid_t pid) {
    const std::lock_guard<std::mutex> guard(lock_);
    pids_.push_back(pid);
  }
  void reap() {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto ended = [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; };
    pids_.erase(std::remove_if(pids_.begin(), pids_.end(), ended), pids_.end());
  }

 private:
  std::mutex lock_;
  std::vector<pid_t> pids_;
};

// The words of a command line. Blanks part them; quotes of either kind keep a word together and are dropped.
std::vector<std::string> split_words(const char* line) {
  std::vector<std::string> words;
  std::string word;
  bool in_word = false;
  char quote = '\0';
  for (; *line != '\0'; ++line) {
    if (quote != '\0' ? *line == quote : *line == '"' || *line == '\'') {
      quote = quote != '\0' ? '\0' : *line;
      in_word = true;
    } else if (quote == '\0' && (*line == ' ' || *line == '\t')) {
      if (in_word) words.push_back(std::exchange(word, {}));
      in_word = false;
    } else {
      word += *line;
      in_word = true;
    }
  }
  if (in_word) words.push_back(word);
  return words;
}

bool is_variable(const std::string& entry, const std::string& name) {
  return entry.compare(0, name.size(), name) == 0 && entry.size() > name.size() && entry[name.size()] == '=';
}

void set_variable(std::vector<std::string>& environment, const std::string& entry) {
  const std::string name = entry.substr(0, entry.find('='));
  for (std::string& old : environment) {
    if (!is_variable(old, name)) continue;
    old = entry;
    return;
  }
  environment.push_back(entry);
}

// This process's environment for a child. POSIXLY_CORRECT is left out: with it the tools no longer take
// options that stand after a name.
std::vector<std::string> own_environment() {
  std::vector<std::string> environment;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (!is_variable(*entry, "POSIXLY_CORRECT")) environment.emplace_back(*entry);
  }
  return environment;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> list;
  for (std::string& text : texts)
    list.push_back(text.data());
  list.push_back(nullptr);
  return list;
}

// The attributes and file actions of posix_spawn, freed at the end.
class Spawn_Plan {
 public:
  Spawn_Plan() {
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_init(&actions_);
  }
  ~Spawn_Plan() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  Spawn_Plan(const Spawn_Plan&) = delete;
  Spawn_Plan& operator=(const Spawn_Plan&) = delete;

  // 0, or an errno value.
  int prepare(const Child::Handles& handles, const char* folder) {
    if (const int error = set_signals_and_group()) return error;
    if (const int error = set_handle(handles.in, STDIN_FILENO, O_RDONLY)) return error;
    if (const int error = set_handle(handles.out, STDOUT_FILENO, O_WRONLY)) return error;
    if (handles.err != ACE_INVALID_HANDLE) {
      if (const int error = posix_spawn_file_actions_adddup2(&actions_, handles.err, STDERR_FILENO))
        return error;
    }
    if (const int error = posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1))
      return error;
    return folder != nullptr && *folder != '\0' ? posix_spawn_file_actions_addchdir_np(&actions_, folder) : 0;
  }

  int spawn(pid_t& pid, const char* program, char* const argv[], char* const environment[]) {
    return posix_spawnp(&pid, program, &actions_, &attributes_, argv, environment);
  }

 private:
  int set_signals_and_group() {
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    if (const int error = posix_spawnattr_setsigmask(&attributes_, &none)) return error;
    if (const int error = posix_spawnattr_setsigdefault(&attributes_, &all)) return error;
    if (const int error = posix_spawnattr_setpgroup(&attributes_, 0)) return error;
    return posix_spawnattr_setflags(&attributes_,
                                    POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }

  int set_handle(ACE_HANDLE handle, int target, int flags) {
    if (handle != ACE_INVALID_HANDLE) return posix_spawn_file_actions_adddup2(&actions_, handle, target);
    return posix_spawn_file_actions_addopen(&actions_, target, "/dev/null", flags, 0);
  }

  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t actions_;
};

int decode(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : UNKNOWN_STATUS;
}

// Waits until the handle is readable. False when the time is over.
bool wait_readable(ACE_HANDLE handle, std::chrono::milliseconds time) {
  const bool for_ever = time.count() < 0;
  const auto end = std::chrono::steady_clock::now() + time;
  while (true) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    pollfd entry{handle, POLLIN, 0};
    const int ready = ::poll(&entry, 1, for_ever ? FOR_EVER : static_cast<int>(left > 0 ? left : 0));
    if (ready > 0) return true;
    if (ready == 0 && (for_ever || left > 0)) continue;
    if (ready == 0 || errno != EINTR) return false;
  }
}

}  // namespace

std::shared_ptr<Child> Child::start(ACE_Process_Options& options, const Handles& handles) {
  std::size_t room = 0;
  const char* line = options.command_line_buf(&room);
  // ACE cuts a command that does not fit its buffer without a word.
  if (line == nullptr || std::strlen(line) + 1 >= room) {
    errno = E2BIG;
    return nullptr;
  }
  std::vector<std::string> words = split_words(line);
  if (words.empty()) {
    errno = EINVAL;
    return nullptr;
  }
  std::vector<std::string> environment;
  if (options.inherit_environment()) environment = own_environment();
  for (char* const* entry = options.env_argv(); entry != nullptr && *entry != nullptr; ++entry)
    set_variable(environment, *entry);
  return spawn(words[0].c_str(), pointers(words).data(), environment, options.working_directory(), handles);
}

std::shared_ptr<Child> Child::start_shell(const std::string& command, bool c_locale, const Handles& handles) {
  // A pipe is run by a shell that sees the failure of each of its stages, not only of the last.
  std::vector<std::string> words = {"sh", "-c", command};
  if (command.find('|') != std::string::npos) words = {"bash", "-o", "pipefail", "-c", command};
  std::vector<std::string> environment = own_environment();
  if (c_locale) set_variable(environment, "LC_ALL=C");
  return spawn(words[0].c_str(), pointers(words).data(), environment, nullptr, handles);
}

std::shared_ptr<Child> Child::spawn(const char* program, char* const argv[],
                                    const std::vector<std::string>& environment, const char* folder,
                                    const Handles& handles) {
  Hanging::instance().reap();
  std::vector<std::string> entries = environment;
  Spawn_Plan plan;
  pid_t pid = -1;
  int error = plan.prepare(handles, folder);
  if (error == 0) error = plan.spawn(pid, program, argv, pointers(entries).data());
  if (error != 0) {
    errno = error;
    return nullptr;
  }
  Auto_Handle pidfd(static_cast<ACE_HANDLE>(::syscall(SYS_pidfd_open, pid, 0)));
  if (pidfd.valid()) return std::shared_ptr<Child>(new Child(pid, std::move(pidfd)));
  const int cause = errno;
  ::kill(-pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  errno = cause;
  return nullptr;
}

Child::~Child() {
  terminate(std::chrono::milliseconds(0));
}

bool Child::running() {
  int status = 0;
  return !wait(std::chrono::milliseconds(0), status);
}

bool Child::wait(std::chrono::milliseconds time, int& status) {
  if (!wait_readable(pidfd_.get(), time)) return false;
  status = reap(false);
  return true;
}

void Child::wait(int& status) {
  wait(std::chrono::milliseconds(FOR_EVER), status);
}

void Child::terminate(std::chrono::milliseconds grace) {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (reaped_) return;
    if (grace.count() > 0) ::kill(-pid_, SIGTERM);
  }
  if (grace.count() > 0) wait_readable(pidfd_.get(), grace);
  reap(true);
}

// The id is the child's own until it is reaped, so both the kill and the reaping happen under the lock.
int Child::reap(bool kill_group) {
  if (kill_group) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (reaped_) return status_;
    ::kill(-pid_, SIGKILL);
  }
  const bool ended = wait_readable(pidfd_.get(), AFTER_KILL);
  const std::lock_guard<std::mutex> guard(lock_);
  if (reaped_) return status_;
  reaped_ = true;
  status_ = UNKNOWN_STATUS;
  if (!ended) {
    LOG_NOTICE("Process %d does not end, although it was killed: it hangs in the kernel\n",
               static_cast<int>(pid_));
    Hanging::instance().add(pid_);
    return status_;
  }
  int status = 0;
  pid_t got;
  do {
    got = ::waitpid(pid_, &status, 0);
  } while (got == -1 && errno == EINTR);
  if (got == pid_) status_ = decode(status);
  return status_;
}

}  // namespace platform
