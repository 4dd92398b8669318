#include "platform/zfs/zfs_dataset.h"

#include <gtest/gtest.h>

#include "platform/zfs/zfs_host.h"
#include "platform/zfs/zfs_tool.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_tools.h"

namespace {

const std::string GET = "zfs get -Hp -o property,value all ";

std::string recorded(const std::string& name) {
  return recording("zfs-2.1.11/" + name);
}

class Zfs_Dataset : public testing::Test {
 protected:
  Zfs_Dataset() { zfs::host_paths().proc = proc_.path(); }
  ~Zfs_Dataset() override { zfs::host_paths() = zfs::Host_Paths(); }

  Temp_Dir proc_;  // shows no pools: presence unknown
  Log_Capture log_;
};

TEST_F(Zfs_Dataset, One_Run_Answers_All_Reads) {
  Scripted_Tools tools({"zfs"});
  tools.expect(GET + "pa/c1").output(recorded("get-all-clone.txt"));
  ZFS_Dataset dataset("pa/c1", true);
  EXPECT_FALSE(dataset);
  ASSERT_TRUE(dataset.open());
  EXPECT_TRUE(dataset);
  std::string origin, compression;
  ACE_UINT64 guid = 0;
  bool mounted = true, readonly = true;
  EXPECT_TRUE(dataset.get_prop("origin", origin, true));
  EXPECT_EQ(origin, "pa/v1@s1");
  EXPECT_TRUE(dataset.get_prop("guid", guid, true));
  EXPECT_EQ(guid, 10592101912057153122ULL);
  EXPECT_TRUE(dataset.get_prop("readonly", readonly, true));
  EXPECT_FALSE(readonly);
  EXPECT_TRUE(dataset.get_prop("mounted", mounted, true)) << "a volume has no such property";
  EXPECT_FALSE(mounted);
  EXPECT_FALSE(dataset.get_prop("compressratio", guid, true)) << "1.00 is no integer";
}

TEST_F(Zfs_Dataset, A_Write_Ends_What_Was_Read) {
  Scripted_Tools tools({"zfs"});
  tools.expect(GET + "pa").output("type\tfilesystem\nmountpoint\tnone\n");
  tools.expect("zfs set mountpoint=/mnt/x pa");
  tools.expect(GET + "pa").output("type\tfilesystem\nmountpoint\t/mnt/x\n");
  ZFS_Dataset dataset("pa", true);
  ASSERT_TRUE(dataset.open());
  std::string value;
  EXPECT_TRUE(dataset.set_prop("mountpoint", "/mnt/x", true));
  EXPECT_TRUE(dataset.get_prop("mountpoint", value, true));
  EXPECT_EQ(value, "/mnt/x");
}

TEST_F(Zfs_Dataset, Values_Are_Written_As_Zfs_Takes_Them) {
  Scripted_Tools tools({"zfs"});
  tools.expect("zfs set compression=lz4 'my pool/a %s b'");
  tools.expect("zfs set 'note:x=Upper $(id) 100%' 'my pool/a %s b'");
  tools.expect("zfs set quota=none 'my pool/a %s b'");
  tools.expect("zfs set reservation=0 'my pool/a %s b'");
  tools.expect("zfs set quota=18446744073709551615 'my pool/a %s b'");
  ZFS_Dataset dataset("my pool/a %s b", true);
  dataset.open_when_needed();
  EXPECT_TRUE(dataset.set_prop("compression", "LZ4", true));
  EXPECT_TRUE(dataset.set_prop("note:x", "Upper $(id) 100%", true));
  EXPECT_TRUE(dataset.set_prop("quota", ACE_UINT64{0}, true));
  EXPECT_TRUE(dataset.set_prop("reservation", ACE_UINT64{0}, true));
  EXPECT_TRUE(dataset.set_prop("quota", ACE_UINT64{18446744073709551615ULL}, true));
  EXPECT_FALSE(dataset.set_prop("a b", "x", true));
  EXPECT_FALSE(dataset.set_prop("-r", "x", true));
}

TEST_F(Zfs_Dataset, What_Is_Missing_Is_Said) {
  Scripted_Tools tools({"zfs"});
  ZFS_Dataset dataset("pa/none", true);
  tools.expect(GET + "pa/none").status(1).errors(recorded("get-missing.err.txt"));
  EXPECT_FALSE(dataset.open());
  EXPECT_TRUE(log_.contains(LM_NOTICE, "dataset does not exist")) << log_.dump();
  EXPECT_FALSE(dataset.set_prop("atime", "off", true)) << "it is not open";

  log_.clear();
  dataset.set_log(false);
  tools.expect(GET + "pa/none").status(1).errors(recorded("get-missing.err.txt"));
  EXPECT_FALSE(dataset.open());
  EXPECT_TRUE(log_.lines().empty()) << log_.dump();

  tools.expect(GET + "pa/none").status(1).errors(recorded("module-not-loaded.err.txt"));
  EXPECT_FALSE(dataset.open());
  EXPECT_TRUE(log_.contains(LM_ERROR, "the ZFS kernel module is not loaded")) << log_.dump();
}

TEST_F(Zfs_Dataset, A_Tool_That_Hangs_Is_Ended) {
  Scripted_Tools tools({"zpool"});
  tools.expect("zpool list").runs("sleep 60");
  zfs::Tool_Result result;
  EXPECT_FALSE(zfs::run_tool({"zpool", "list"}, 1, result));
  EXPECT_TRUE(result.timed_out);
  EXPECT_NE(zfs::failure_words({"zpool"}, result).find("did not answer"), std::string::npos);
}

}  // namespace
