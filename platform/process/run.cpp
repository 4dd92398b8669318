#include "platform/process/run.h"

#include <ace/Log_Record.h>
#include <ace/OS_NS_sys_time.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/base/log.h"
#include "platform/process/line_splitter.h"
#include "platform/process/pipe.h"

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t ERRORS_KEPT = 64 * 1024;
constexpr std::size_t COMMAND_SHOWN = 512;
constexpr int NOT_FOUND_STATUS = 127;  // of the shell
// How long the pipes are still read after the tool has ended, when something that it left behind holds them
// open.
constexpr std::chrono::seconds AFTER_END(1);
constexpr std::chrono::seconds KILL_GRACE(2);

// Reads the pipes of one running tool.
class Reader {
 public:
  Reader(const Run& run, Child& child, Auto_Handle out, Auto_Handle err, std::string& errors)
      : run_(run), child_(child), out_(std::move(out)), err_(std::move(err)), errors_(errors) {
    if (run.time_limit != 0) end_ = Clock::now() + std::chrono::seconds(run.time_limit);
  }

  // 0 when the tool has ended and its output was read, else the errno value of what ended it.
  int read_to_end() {
    while (out_.valid() || err_.valid() || !ended_) {
      const int wait = milliseconds_left();
      if (wait == 0 && !ended_) return ETIMEDOUT;
      if (wait == 0) break;
      pollfd entries[] = {{out_.get(), POLLIN, 0}, {err_.get(), POLLIN, 0}, {-1, POLLIN, 0}};
      if (!ended_) entries[2].fd = child_.end_handle();
      if (::poll(entries, 3, wait) == -1 && errno != EINTR) return errno;
      if (entries[0].revents != 0 && !take_output()) return ECANCELED;
      if (entries[1].revents != 0) take_errors();
      if (entries[2].revents != 0) note_end();
    }
    return lines_.finish(deliver()) ? 0 : ECANCELED;
  }

 private:
  // -1 for no limit; never 0 while there is time.
  int milliseconds_left() const {
    if (end_ == Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
  }

  void note_end() {
    ended_ = true;
    end_ = Clock::now() + AFTER_END;
  }

  std::function<bool(const std::string&)> deliver() const {
    return [this](const std::string& line) { return run_.on_line(line); };
  }

  bool take_output() {
    const ssize_t got = ::read(out_.get(), buffer_, sizeof buffer_);
    if (got > 0) return lines_.add(buffer_, static_cast<std::size_t>(got), deliver());
    if (got == 0 || errno != EINTR) out_.reset();
    return true;
  }

  void take_errors() {
    const ssize_t got = ::read(err_.get(), buffer_, sizeof buffer_);
    if (got > 0)
      errors_.append(buffer_, std::min(static_cast<std::size_t>(got), ERRORS_KEPT - errors_.size()));
    if (got == 0 || (got == -1 && errno != EINTR)) err_.reset();
  }

  const Run& run_;
  Child& child_;
  Auto_Handle out_;
  Auto_Handle err_;
  std::string& errors_;
  Line_Splitter lines_;
  Clock::time_point end_ = Clock::time_point::max();
  bool ended_ = false;
  char buffer_[16384];
};

std::string shown(const std::string& command) {
  return command.size() <= COMMAND_SHOWN ? command : command.substr(0, COMMAND_SHOWN) + "...";
}

void log_one(const std::string& text, ACE_Log_Msg_Callback* callback) {
  if (callback == nullptr) {
    LOG_NOTICE("%s\n", text.c_str());
    return;
  }
  ACE_Log_Record record(LM_NOTICE, ACE_OS::gettimeofday(), ::getpid());
  record.msg_data((text + "\n").c_str());
  callback->log(record);
}

int set_errno_and_return(int error, int result) {
  errno = error;
  return result;
}

}  // namespace

int run_to_end(const Run& run, std::string& errors) {
  errors.clear();
  Auto_Handle out;
  Auto_Handle out_child;
  Auto_Handle err;
  Auto_Handle err_child;
  if (!make_pipe(err, err_child) || (run.on_line && !make_pipe(out, out_child))) return -1;
  Child::Handles handles;
  handles.out = out_child.get();
  handles.err = err_child.get();
  const std::shared_ptr<Child> child = run.start(handles);
  if (child == nullptr) return -1;
  out_child.reset();
  err_child.reset();
  const int failure = Reader(run, *child, std::move(out), std::move(err), errors).read_to_end();
  if (failure != 0) {
    child->terminate(KILL_GRACE);
    return set_errno_and_return(failure, -1);
  }
  int status = 0;
  child->wait(status);
  if (status != 0) errno = status == NOT_FOUND_STATUS ? ENOENT : errno_of_text(errors);
  return status;
}

void log_errors(const std::string& command, const std::string& errors, unsigned int limit,
                ACE_Log_Msg_Callback* callback) {
  const int error = errno;
  unsigned int count = 0;
  const auto log_line = [&](const std::string& line) {
    if (!line.empty() && ++count <= limit) log_one("'" + shown(command) + "': " + line, callback);
    return true;
  };
  Line_Splitter lines;
  lines.add(errors.data(), errors.size(), log_line);
  lines.finish(log_line);
  if (count > limit && limit > 0)
    log_one("'" + shown(command) + "': " + std::to_string(count - limit) + " more lines", callback);
  errno = error;
}

int errno_of_text(const std::string& errors) {
  int best = EIO;
  std::size_t best_length = 0;
  for (int error = 1; error <= EHWPOISON; ++error) {
    const char* text = ::strerrordesc_np(error);
    if (text == nullptr || errors.find(text) == std::string::npos) continue;
    if (std::strlen(text) > best_length) best = error;
    best_length = std::max(best_length, std::strlen(text));
  }
  return best;
}

}  // namespace platform
