#include "platform/http/rate_control.h"

#include <algorithm>
#include <ctime>

bool Rate_Control_Entry::contains(ACE_UINT32 second_of_day) const {
  if (start_time == end_time) return true;
  if (start_time < end_time) return second_of_day >= start_time && second_of_day < end_time;
  return second_of_day >= start_time || second_of_day < end_time;
}

std::size_t rate_limit_at(const std::vector<Rate_Control_Entry>& entries, ACE_UINT32 second_of_day) {
  std::size_t limit = 0;
  for (const Rate_Control_Entry& entry : entries) {
    if (entry.max_bytes_per_second == 0 || !entry.contains(second_of_day)) continue;
    limit = limit == 0 ? entry.max_bytes_per_second : std::min(limit, entry.max_bytes_per_second);
  }
  return limit;
}

ACE_UINT32 current_second_of_day() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return static_cast<ACE_UINT32>(local.tm_hour * 3600 + local.tm_min * 60 + std::min(local.tm_sec, 59));
}

namespace {

// How much time may be saved up for later: what the scheduler takes away between two pieces is made up for, a
// pause is not.
constexpr double SAVED_SECONDS = 0.2;

}  // namespace

double Rate_Limiter::delay(double now, ACE_UINT32 second_of_day) {
  const double elapsed = last_ < 0 ? 0 : std::max(0.0, now - last_);
  last_ = now;
  const std::size_t limit = rate_limit_at(entries_, second_of_day);
  if (limit == 0) {
    debt_ = 0;
    return 0;
  }
  const double rate = static_cast<double>(limit);
  debt_ = std::max(-SAVED_SECONDS * rate, debt_ - elapsed * rate);
  // Less than a byte is rounding, and might be too short a time for the clock to move.
  return debt_ < 1 ? 0 : std::min(1.0, debt_ / rate);
}
