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

}  // namespace
