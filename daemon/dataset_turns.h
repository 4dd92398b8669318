#pragma once
// One thing at a time with a dataset: a snapshot that is received into it, or the export of its LUN. Any
// thread.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

namespace scsipoold {

class Dataset_Turns {
 public:
  static std::string key(const std::string& pool_id, bool lun, const std::string& dataset) {
    return pool_id + (lun ? "/1/" : "/0/") + dataset;
  }

  // Holds the turn while it lives; false when it was not free for as long as was waited.
  class Turn {
   public:
    Turn(Dataset_Turns& owner, const std::string& key, std::chrono::seconds patience);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    explicit operator bool() const { return taken_; }

   private:
    Dataset_Turns& owner_;
    const std::string key_;
    bool taken_ = false;
  };

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  std::set<std::string> taken_;
};

}  // namespace scsipoold
