// Sub volumes with their catalog records, and their attributes.

#include "backup/pools/scsipool/sub_volume_attr.h"
#include "platform/base/uuid.h"
#include "tests/support/lun_fixture.h"

namespace {

using scsi_pool::Sub_Volume_Attr;
using scsi_pool::Sub_Volume_Manager;

class Sub_Volumes : public Lun_Fixture {
 protected:
  Sub_Volumes() : volumes_(POOL) {
    opts_.size = SIZE;
    EXPECT_TRUE(volumes_.open()) << log_.dump();
  }
  bool make(std::string id) { return volumes_.create(opts_, id); }

  Sub_Volume_Manager volumes_;
  Sub_Volume_Manager::Volume_Opts opts_;
};

TEST_F(Sub_Volumes, create_needs_all_pool_attributes_and_clone_does_not) {
  std::string fresh, id = B;
  ASSERT_TRUE(volumes_.create(opts_, fresh)) << log_.dump();
  EXPECT_TRUE(platform::is_uuid(fresh)) << fresh;
  opts_.block_size = 512;
  ASSERT_TRUE(make(A)) << log_.dump();
  EXPECT_EQ(
      JSON_Dump(pool().volumes[A].made_with),
      R"({"async":true,"block_size":512,"checksum":true,"compression":"lz4","dedup":false,"size":1048576})");
  EXPECT_EQ(pool().volumes[fresh].made_with["block_size"], 8192u);
  add_snapshot(A, SNAPSHOT, 1);
  opts_.block_size = 0;
  for (const char* attributes :
       {"", "[]", R"({"async":true,"checksum":true})", R"({"async":1,"checksum":true,"block_size":1})"}) {
    log_.clear();
    ASSERT_TRUE(rows().update_pool(POOL, 1, "pool", attributes));
    EXPECT_FALSE(make(B)) << attributes;
    EXPECT_TRUE(log_.has(LM_ERROR, "Failed to create sub volume: failed to get attributes from pool\n"));
  }
  ASSERT_TRUE(volumes_.clone(SNAPSHOT, true, opts_, id, false)) << log_.dump();
  EXPECT_EQ(JSON_Dump(pool().volumes[B].made_with),
            R"({"async":false,"checksum":true,"clone_type":"link","compression":"","dedup":false})");
}

TEST_F(Sub_Volumes, pool_attributes_fill_only_what_they_hold) {
  scsi_pool::SCSI_Pool_Backstore_Manager::volume_ext_attrs attrs;
  attrs.checksum = false;
  ASSERT_TRUE(rows().update_pool(POOL, 1, "pool", R"({"async":true,"checksum":"on","block_size":512})"));
  ASSERT_TRUE(manager_.set_volume_ext_attrs(POOL, attrs)) << log_.dump();
  EXPECT_TRUE(attrs.async && !attrs.checksum);
  EXPECT_EQ(attrs.block_size, 512u);
}

TEST_F(Sub_Volumes, what_cannot_be_recorded_or_has_no_room_is_not_made) {
  EXPECT_FALSE(make("no-uuid"));
  opts_.size = 0;
  EXPECT_FALSE(make(A));
  EXPECT_TRUE(pool().volumes.empty()) << log_.dump();
  opts_.size = SIZE;
  ASSERT_TRUE(make(A));
  add_snapshot(A, SNAPSHOT, 1);
  log_.clear();
  pool().used = 1000001;
  std::string id = B;
  EXPECT_FALSE(make(B));
  EXPECT_FALSE(volumes_.clone(SNAPSHOT, true, opts_, id, false));
  EXPECT_EQ(log_.errors(), "Failed to create sub volume: no free space to create sub volume in '" + POOL +
                               "'\nFailed to clone sub volume: no free space to create sub volume in '" +
                               POOL + "'\n");
}

TEST_F(Sub_Volumes, a_clone_has_the_size_of_the_snapshot_and_its_origin_when_asked) {
  ASSERT_TRUE(make(A));
  add_snapshot(A, SNAPSHOT, 1);
  opts_.size = 7;
  std::string related = B, unrelated;
  ASSERT_TRUE(volumes_.clone(SNAPSHOT, true, opts_, related, true)) << log_.dump();
  ASSERT_TRUE(volumes_.clone(SNAPSHOT, false, opts_, unrelated, false));
  Array listed;
  ASSERT_TRUE(volumes_.list(listed, B.c_str()) && volumes_.list(listed, unrelated.c_str()));
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0]["id"], SNAPSHOT);
  EXPECT_EQ(listed[0]["max_size"], SIZE);
  EXPECT_EQ(listed[0]["origin_snapshot"], SNAPSHOT);
  EXPECT_EQ(listed[1].count("id"), 0u);
  EXPECT_FALSE(volumes_.clone(B, false, opts_, unrelated, false));
  EXPECT_TRUE(log_.has(
      LM_ERROR, "Failed to clone sub volume: snapshot '" + B + "' does not exist in pool '" + POOL + "'\n"));
}

TEST_F(Sub_Volumes, a_volume_with_snapshots_is_not_removed) {
  ASSERT_TRUE(make(A));
  add_snapshot(A, SNAPSHOT, 1);
  EXPECT_FALSE(volumes_.remove(A));
  EXPECT_EQ(log_.errors(), "Failed to delete sub volume: " + A + " sub volume has snapshots\n");
  ASSERT_TRUE(rows().del_snapshot(POOL, SNAPSHOT));
  EXPECT_TRUE(volumes_.remove(A));
  EXPECT_FALSE(volumes_.exist(A) || rows().lun_exist(POOL, A));
}

TEST_F(Sub_Volumes, rollback_goes_to_the_newest_snapshot) {
  ASSERT_TRUE(make(A));
  std::string snapshot;
  EXPECT_FALSE(volumes_.rollback(A, snapshot));
  EXPECT_EQ(log_.errors(), "Failed to rollback sub volume:failed to get snapshot\n");
  add_snapshot(A, B, 2);  // any UUID will do
  add_snapshot(A, SNAPSHOT, 1);
  ASSERT_TRUE(volumes_.rollback(A, snapshot)) << log_.dump();
  EXPECT_EQ(snapshot, B);
  EXPECT_EQ(pool().count("rollback " + A + "@" + B), 1u);
}

TEST_F(Sub_Volumes, attributes_come_from_the_storage_and_the_catalog) {
  opts_.ext_attrs = {{"retention_type", "newest"}, {"mine", 1}};
  ASSERT_TRUE(make(A));
  Sub_Volume_Attr attr(POOL, A);
  ASSERT_TRUE(attr.open());
  Object all, extended{{"stale", true}};
  EXPECT_TRUE(attr.update_attr("dedup", "verify"));
  ASSERT_TRUE(attr.get_attr(all));
  EXPECT_EQ(JSON_Dump(all), R"({"compression":"lz4","dedup":true})");
  pool().failing = {"get_attr", "set_info"};
  EXPECT_FALSE(attr.get_attr(all) || attr.update_attr("dedup", "off"));
  EXPECT_TRUE(log_.has(
      LM_ERROR, "Failed to get subvolume '" + A + "' attribute 'compression' in pool '" + POOL + "'\n"));
  EXPECT_TRUE(attr.is_valid_attr("dedup") && attr.is_valid_ext_attr("retention_type"));
  EXPECT_FALSE(attr.is_valid_attr("retention_type") || attr.is_valid_ext_attr("dedup"));
  ASSERT_TRUE(attr.update_ext_attr({{"retention_type", "normal"}})) << log_.dump();
  ASSERT_TRUE(attr.get_ext_attr(extended));
  EXPECT_EQ(JSON_Dump(extended), R"({"mine":1,"retention_type":"normal"})");
  ASSERT_TRUE(rows().update_volume_ext_attrs(POOL, A, "[1]"));
  EXPECT_FALSE(attr.get_ext_attr(extended));
  EXPECT_TRUE(log_.contains(LM_ERROR, "extended attributes is not object type\n"));
}

}  // namespace
