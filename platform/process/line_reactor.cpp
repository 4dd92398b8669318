#include "platform/process/line_reactor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

bool Line_Reactor::add(Auto_Handle handle, Line_Function function) {
  const std::lock_guard<std::mutex> guard(lock_);
  if (stopping_) {
    errno = ESHUTDOWN;
    return false;
  }
  if (!thread_.joinable() && !start()) return false;
  new_.push_back(Source{std::move(handle), std::move(function), {}});
  wake();
  return true;
}

void Line_Reactor::stop() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
    if (!thread_.joinable()) return;
    wake();
  }
  thread_.join();
}

bool Line_Reactor::start() {
  wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake_.valid()) return false;
  // Signals are the main thread's.
  sigset_t all;
  sigset_t old;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &old);
  bool started = true;
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error& error) {
    errno = error.code().value();
    started = false;
  }
  ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return started;
}

void Line_Reactor::wake() {
  ::eventfd_write(wake_.get(), 1);
}

void Line_Reactor::run() {
  Sources sources;
  for (bool stopping = false; !stopping;) {
    std::vector<pollfd> entries = {{wake_.get(), POLLIN, 0}};
    for (const Source& source : sources)
      entries.push_back({source.handle.get(), POLLIN, 0});
    if (::poll(entries.data(), entries.size(), -1) == -1) continue;
    std::size_t at = 1;
    for (auto source = sources.begin(); source != sources.end(); ++at) {
      const bool open = entries[at].revents == 0 || read_once(*source);
      source = open ? std::next(source) : sources.erase(source);
    }
    if (entries[0].revents != 0) stopping = take_new(sources);
  }
  for (Source& source : sources)
    drain(source);
}

bool Line_Reactor::take_new(Sources& sources) {
  eventfd_t count = 0;
  ::eventfd_read(wake_.get(), &count);
  const std::lock_guard<std::mutex> guard(lock_);
  sources.splice(sources.end(), new_);
  return stopping_;
}

bool Line_Reactor::read_once(Source& source) {
  const auto hand_on = [&source](const std::string& line) {
    source.function(line);
    return true;
  };
  char buffer[4096];
  const ssize_t got = ::read(source.handle.get(), buffer, sizeof buffer);
  if (got > 0) return source.lines.add(buffer, static_cast<std::size_t>(got), hand_on);
  if (got == -1 && (errno == EINTR || errno == EAGAIN)) return true;
  source.lines.finish(hand_on);
  return false;
}

void Line_Reactor::drain(Source& source) {
  // Bounded, because a tool that never stops talking must not keep the daemon from stopping.
  for (int round = 0; round < 64; ++round) {
    pollfd entry{source.handle.get(), POLLIN, 0};
    if (::poll(&entry, 1, 0) != 1 || !read_once(source)) return;
  }
}
