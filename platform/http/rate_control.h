#pragma once
// Bandwidth limits by the time of day.

#include <ace/Basic_Types.h>

#include <cstddef>
#include <vector>

// One window of bandwidth limiting. Times are seconds since local midnight, the end not included. A window
// whose end lies before its start goes across midnight; one whose end equals its start is the whole day.
struct Rate_Control_Entry {
  Rate_Control_Entry() = default;
  Rate_Control_Entry(ACE_UINT32 start, ACE_UINT32 end, std::size_t max_bytes)
      : start_time(start), end_time(end), max_bytes_per_second(max_bytes) {}

  ACE_UINT32 start_time = 0;
  ACE_UINT32 end_time = 0;
  std::size_t max_bytes_per_second = 0;  // 0 = no limit

  // Whether the window holds this second of the day (0 to 86399).
  bool contains(ACE_UINT32 second_of_day) const;
};

// The lowest limit of the windows that hold this second of the day, 0 when there is none.
std::size_t rate_limit_at(const std::vector<Rate_Control_Entry>& entries, ACE_UINT32 second_of_day);

// The second of the local day.
ACE_UINT32 current_second_of_day();

// Spreads a transfer over time: charge() what was sent, then wait as long as delay() says and ask again,
// until it says 0. A limit that changes meanwhile takes effect at the next question. Times are seconds of any
// clock that does not go backwards. One thread at a time.
class Rate_Limiter {
 public:
  explicit Rate_Limiter(std::vector<Rate_Control_Entry> entries = {}) : entries_(std::move(entries)) {}

  void charge(std::size_t bytes) { debt_ += static_cast<double>(bytes); }
  // Seconds to wait before the next question, at most 1; 0 when more may be sent now.
  double delay(double now, ACE_UINT32 second_of_day);

 private:
  std::vector<Rate_Control_Entry> entries_;
  double debt_ = 0;  // bytes sent and not yet paid for with time; below 0: a little time that was not used
  double last_ = -1;
};
