#pragma once
// One thread that waits for lines on any number of handles. It starts with the first handle and is joined by
// stop(). Any thread.

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/process/auto_handle.h"
#include "platform/process/line_splitter.h"

class Line_Reactor {
 public:
  // Called on the reactor's thread with one line without its line end (NUL-terminated). Must not block.
  using Line_Function = std::function<void(const std::string& line)>;

  Line_Reactor() = default;
  ~Line_Reactor() { stop(); }
  Line_Reactor(const Line_Reactor&) = delete;
  Line_Reactor& operator=(const Line_Reactor&) = delete;

  // Reads the handle to its end and closes it. False with errno when the thread cannot be started or the
  // reactor has been stopped; the handle is then closed.
  bool add(Auto_Handle handle, Line_Function function);

  // Hands on what is there already, closes all handles and joins the thread. Nothing can be added afterwards.
  void stop();

 private:
  struct Source {
    Auto_Handle handle;
    Line_Function function;
    platform::Line_Splitter lines;
  };
  using Sources = std::list<Source>;

  bool start();
  void run();
  void wake();
  bool take_new(Sources& sources);
  static bool read_once(Source& source);
  static void drain(Source& source);

  std::mutex lock_;
  bool stopping_ = false;  // guarded by lock_, as is new_
  Sources new_;
  Auto_Handle wake_;  // an eventfd
  std::thread thread_;
};
