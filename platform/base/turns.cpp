#include "platform/base/turns.h"

namespace platform {

Turns::Turn::Turn(Turns& owner, const std::string& key) : owner_(owner), key_(key) {
  std::unique_lock<std::mutex> lock(owner_.mutex_);
  owner_.ended_.wait(lock, [&] { return owner_.taken_.count(key_) == 0; });
  taken_ = owner_.taken_.insert(key_).second;
}

Turns::Turn::Turn(Turns& owner, const std::string& key, std::chrono::seconds patience)
    : owner_(owner), key_(key) {
  std::unique_lock<std::mutex> lock(owner_.mutex_);
  taken_ = owner_.ended_.wait_for(lock, patience, [&] { return owner_.taken_.count(key_) == 0; });
  if (taken_) owner_.taken_.insert(key_);
}

Turns::Turn::~Turn() {
  if (!taken_) return;
  const std::lock_guard<std::mutex> lock(owner_.mutex_);
  owner_.taken_.erase(key_);
  owner_.ended_.notify_all();
}

}  // namespace platform
