#include "platform/base/backoff.h"

#include <algorithm>
#include <limits>

#include "platform/base/random.h"

namespace platform {

Exponential_Backoff_Iterator::Exponential_Backoff_Iterator(unsigned slot, unsigned retry_limit, unsigned cap,
                                                           bool jitter)
    : slot_(std::min(slot, cap)), cap_(cap), left_(retry_limit), step_(slot_), jitter_(jitter) {
  choose();
}

Exponential_Backoff_Iterator& Exponential_Backoff_Iterator::operator++() {
  if (left_ == 0) return *this;
  if (left_ != std::numeric_limits<unsigned>::max()) --left_;
  step_ = step_ > cap_ / 2 ? cap_ : step_ * 2;
  choose();
  return *this;
}

void Exponential_Backoff_Iterator::choose() {
  delay_ = jitter_ && step_ > slot_ ? slot_ + random_number() % (step_ - slot_ + 1) : step_;
}

Exponential_Backoff exponential_backoff(unsigned first, unsigned ceiling, unsigned limit, bool jitter) {
  return Exponential_Backoff(Exponential_Backoff_Iterator(first, limit, ceiling, jitter));
}

}  // namespace platform
