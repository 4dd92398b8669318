#include "daemon/lio_restorer.h"

#include <chrono>

#include "platform/base/log.h"
#include "platform/lio/lio_saved_config.h"

namespace scsipoold {

namespace {

constexpr std::chrono::seconds RETRY_DELAY{30};

}  // namespace

bool LIO_Restorer::start() {
  std::vector<LIO_Export> saved;
  // Without exports the kernel's target is not touched: most hosts that only keep pools have none.
  if (LIO_Saved_Config::list_saved(saved) && saved.empty()) return true;
  const bool whole = restore();
  if (!whole) thread_ = std::thread([this] { retry(); });
  return whole;
}

void LIO_Restorer::stop() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

std::vector<std::string> LIO_Restorer::missing() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return missing_;
}

bool LIO_Restorer::restore() {
  LIO_Report report;
  const bool whole = LIO_Saved_Config::restore(report);
  std::vector<std::string> missing;
  for (const LIO_Finding& finding : report) {
    if (finding.mended) continue;
    missing.push_back(finding.text);
    LOG_NOTICE("Not exported again yet: %s\n", finding.text.c_str());
  }
  if (!whole && missing.empty())
    missing.push_back("the target configuration cannot be restored: see the log");
  const std::lock_guard<std::mutex> guard(mutex_);
  missing_ = missing;
  return whole;
}

void LIO_Restorer::retry() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_for(lock, RETRY_DELAY, [this] { return stopping_; })) {
    lock.unlock();
    const bool whole = restore();
    if (whole) LOG_INFO("All exports are back\n");
    lock.lock();
    if (whole) return;
  }
}

}  // namespace scsipoold
