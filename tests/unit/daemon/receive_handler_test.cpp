#include "daemon/receive_handler.h"

#include <gtest/gtest.h>

namespace {

TEST(Receive_Handler, TheNearestNumberIsMeant) {
  struct Case {
    ACE_UINT16 low;
    ACE_UINT64 newest, whole;
  };
  for (const Case& one :
       {Case{1, 0, 1}, Case{4464, 0, 4464}, Case{4465, 70000, 70001}, Case{4463, 70000, 69999},
        Case{0, 65535, 65536}, Case{65535, 65536, 65535}, Case{65535, 131072, 131071},
        Case{5, 131071, 131077}, Case{0, 0, 65536}, Case{7, 7, 7}, Case{40000, 5, 40000}}) {
    EXPECT_EQ(scsipoold::whole_sequence_number(one.low, one.newest), one.whole)
        << one.low << " " << one.newest;
  }
}

}  // namespace
