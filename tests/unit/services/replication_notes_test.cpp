#include "platform/services/replication_notes.h"

#include "tests/unit/services/services_fixture.h"

namespace {

using Replication_Notes = Services;

TEST_F(Replication_Notes, KnowWhatIsNotSettled) {
  const Unsettled_Snapshot lun{"p", true, "d", "s"}, filesystem{"p", false, "d", "s"};
  EXPECT_TRUE(note_unsettled(lun) && note_unsettled(filesystem));
  EXPECT_TRUE(forget_unsettled(filesystem));
  std::vector<Unsettled_Snapshot> left;
  ASSERT_TRUE(list_unsettled(left));
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].pool_id + left[0].dataset + left[0].snapshot_id, "pds");
  EXPECT_TRUE(left[0].lun);
}

}  // namespace
