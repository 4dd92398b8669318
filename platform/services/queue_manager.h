#pragma once
// A durable queue of messages, kept in the daemon's database. Any thread.

#include <ace/Basic_Types.h>
#include <ace/Time_Value.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct Queue_Message {
  ACE_INT64 id = 0;
  std::string queue;
  std::string type;
  std::string text;
};

class Queue_Manager {
 public:
  // What becomes of a message. DONE: it is deleted. KEPT: it stays and is handed out again when the queue is
  // started anew, as after a restart of the process (for a handler that is stopped in the middle). LATER: it
  // is handed out again after LATER_SECONDS; others go on meanwhile.
  enum Outcome { DONE, KEPT, LATER };
  static constexpr unsigned LATER_SECONDS = 5;

  // Runs one message. An exception counts as DONE and is logged.
  using Handler = std::function<Outcome(const Queue_Message&)>;

  static Queue_Manager* instance();
  static void close_instance();  // stop() first

  Queue_Manager();
  ~Queue_Manager();

  // Stores a message; once this is true it survives a crash until its handler is done. `delay` null = at
  // once. False, logged, when the database cannot store it.
  bool enqueue(const std::string& queue, const std::string& type, const char* text, std::size_t length,
               const ACE_Time_Value* delay);

  // Starts `slots` threads that run the queue's messages in the order of their arrival, but for those that
  // are to come later. A message is with one
  // thread at a time; those left by an earlier process are handed out again. One call a queue: false for a
  // second one, for 0 slots and for a null handler.
  bool start(const std::string& queue, Handler handler, unsigned slots);

  // Hands out nothing more, waits for the handlers that run, and joins their threads. Messages that are left
  // are kept.
  void stop();

  // Number of messages in a queue, the ones being worked on included. False, logged, when the database cannot
  // be read.
  bool length(const std::string& queue, ACE_UINT64& messages);

  // The texts of all messages of a queue, the oldest first. False, logged, when the database cannot be read.
  bool texts(const std::string& queue, std::vector<std::string>& texts);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};
