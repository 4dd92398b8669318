#pragma once
// Brings the saved target configuration back into the kernel: at start, and again as long as some LUN could
// not be rebuilt (its pool came late, a device was missing). Nothing is ever dropped from what is saved.

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace scsipoold {

class LIO_Restorer {
 public:
  ~LIO_Restorer() { stop(); }

  // Restores once, and starts a thread that tries again every half minute while something is missing. False,
  // logged, when something was.
  bool start();
  void stop();
  // What could not be rebuilt at the last try, one line each.
  std::vector<std::string> missing() const;

 private:
  bool restore();
  void retry();

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::vector<std::string> missing_;  // guarded by mutex_
  bool stopping_ = false;             // guarded by mutex_
  std::thread thread_;
};

}  // namespace scsipoold
