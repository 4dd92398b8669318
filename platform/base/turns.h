#pragma once
// One user at a time for each of any number of things that have a name. Any thread.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

namespace platform {

class Turns {
 public:
  // Holds the turn while it lives.
  class Turn {
   public:
    // Waits for as long as it takes.
    Turn(Turns& owner, const std::string& key);
    // False when it was not free for as long as was waited.
    Turn(Turns& owner, const std::string& key, std::chrono::seconds patience);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    explicit operator bool() const { return taken_; }

   private:
    Turns& owner_;
    const std::string key_;
    bool taken_ = false;
  };

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  std::set<std::string> taken_;
};

}  // namespace platform
