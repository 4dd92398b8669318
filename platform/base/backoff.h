#pragma once
// Sequences of growing delays: slot, 2 x slot, 4 x slot, ... never above the cap.
//
//   for (unsigned delay : platform::exponential_backoff(1, 10, 5, false)) { try again; sleep(delay); }
//
// Plain values, one thread at a time.

#include <cstddef>
#include <iterator>

namespace platform {

class Exponential_Backoff_Iterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = unsigned;
  using difference_type = std::ptrdiff_t;
  using pointer = const unsigned*;
  using reference = unsigned;

  // The end of any sequence.
  Exponential_Backoff_Iterator() = default;
  // `retry_limit` delays in all (the largest unsigned value: without a limit). With `jitter` each delay is a
  // random one between the slot and the value that it would have without.
  Exponential_Backoff_Iterator(unsigned slot, unsigned retry_limit, unsigned cap, bool jitter);

  unsigned operator*() const { return delay_; }
  Exponential_Backoff_Iterator& operator++();
  // Only good for "at the end or not".
  bool operator==(const Exponential_Backoff_Iterator& other) const { return left_ == 0 && other.left_ == 0; }
  bool operator!=(const Exponential_Backoff_Iterator& other) const { return !(*this == other); }

 private:
  void choose();

  unsigned slot_ = 0;
  unsigned cap_ = 0;
  unsigned left_ = 0;
  unsigned step_ = 0;  // the delay without jitter
  unsigned delay_ = 0;
  bool jitter_ = false;
};

class Exponential_Backoff {
 public:
  explicit Exponential_Backoff(const Exponential_Backoff_Iterator& first) : first_(first) {}
  Exponential_Backoff_Iterator begin() const { return first_; }
  Exponential_Backoff_Iterator end() const { return {}; }

 private:
  Exponential_Backoff_Iterator first_;
};

// Delays from `first` up to `ceiling`, `limit` of them.
Exponential_Backoff exponential_backoff(unsigned first, unsigned ceiling, unsigned limit, bool jitter);

}  // namespace platform
