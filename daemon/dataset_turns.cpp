#include "daemon/dataset_turns.h"

namespace scsipoold {

Dataset_Turns::Turn::Turn(Dataset_Turns& owner, const std::string& key, std::chrono::seconds patience)
    : owner_(owner), key_(key) {
  std::unique_lock<std::mutex> lock(owner_.mutex_);
  taken_ = owner_.ended_.wait_for(lock, patience, [&] { return owner_.taken_.count(key_) == 0; });
  if (taken_) owner_.taken_.insert(key_);
}

Dataset_Turns::Turn::~Turn() {
  if (!taken_) return;
  const std::lock_guard<std::mutex> lock(owner_.mutex_);
  owner_.taken_.erase(key_);
  owner_.ended_.notify_all();
}

}  // namespace scsipoold
