#include "platform/http/rate_control.h"

#include <gtest/gtest.h>

namespace {

constexpr ACE_UINT32 hour(int hours) {
  return static_cast<ACE_UINT32>(hours * 3600);
}

TEST(RateControl, WindowsByTheTimeOfDay) {
  const std::vector<Rate_Control_Entry> entries = {
      {hour(22), hour(6), 100},   // across midnight
      {hour(8), hour(18), 1000},  //
      {hour(9), hour(10), 500},   // the lower of two holds
      {hour(20), hour(21), 0},    // no limit
      {hour(23), hour(24), 50},   //
  };
  const struct {
    ACE_UINT32 second;
    std::size_t limit;
  } cases[] = {{0, 100},        {hour(6) - 1, 100}, {hour(6), 0},      {hour(8) - 1, 0}, {hour(8), 1000},
               {hour(9), 500},  {hour(10), 1000},   {hour(18), 0},     {hour(20), 0},    {hour(22) - 1, 0},
               {hour(22), 100}, {hour(23), 50},     {hour(24) - 1, 50}};
  for (const auto& one : cases)
    EXPECT_EQ(rate_limit_at(entries, one.second), one.limit) << one.second;
  EXPECT_EQ(rate_limit_at({{hour(5), hour(5), 7}}, hour(4)), 7u);
  EXPECT_EQ(rate_limit_at({}, 0), 0u);
}

// Sends `bytes` in pieces by a clock that only the limiter's waits move; returns the seconds taken.
double seconds_to_send(Rate_Limiter& limiter, std::size_t bytes, double& now, double day_offset) {
  const double begin = now;
  for (std::size_t sent = 0; sent < bytes; sent += 65536) {
    double wait = 0;
    while ((wait = limiter.delay(now, static_cast<ACE_UINT32>(now + day_offset) % 86400)) > 0) {
      EXPECT_LE(wait, 1.0);
      now += wait;
    }
    limiter.charge(65536);
  }
  return now - begin;
}

TEST(RateControl, KeepsTheRate) {
  Rate_Limiter limiter({{0, 0, 5 * 1024 * 1024}});
  double now = 1000;
  EXPECT_NEAR(seconds_to_send(limiter, 50 * 1024 * 1024, now, 0), 10, 0.1);
  now += 3600;  // of a pause only a moment is saved up
  EXPECT_NEAR(seconds_to_send(limiter, 5 * 1024 * 1024, now, 0), 0.8, 0.02);
}

TEST(RateControl, AChangeTakesEffectWithinASecond) {
  // 1 KiB a second until midnight; a chunk of 64 KiB would take 64 seconds, midnight comes after 10.
  Rate_Limiter limiter({{hour(12), hour(24), 1024}});
  double now = 0;
  EXPECT_LE(seconds_to_send(limiter, 10 * 1024 * 1024, now, hour(24) - 10), 11);
}

}  // namespace
