// Sub filesystems and their snapshots.
#include "platform/base/uuid.h"
#include "tests/unit/catalog/catalog_fixture.h"

namespace {

using platform::zero_uuid;
using Catalog = scsi_pool::SCSI_Pool_Sqlite_Manager;

class Filesystem_Catalog_Test : public Catalog_Fixture {
 protected:
  bool add_snapshot(int id, ACE_UINT64 seq, bool recycle, int pool = 1, const char* name = "fs") {
    return catalog_.add_filesystem_snapshot(uuid(id), name, uuid(pool), "c", seq, recycle, nullptr);
  }
  // "state/standby/recycle" of a snapshot.
  std::string marks(int pool, int id) {
    Object state;
    if (!catalog_.get_filesystem_snapshot_state_info(uuid(pool), uuid(id), state)) return "failed";
    Array rows;
    if (!catalog_.list_all_filesystem_snapshots(uuid(pool), rows, uuid(id).c_str())) return "failed";
    return state["state"].get<std::string>() + "/" + state["standby"].dump() + "/" +
           rows.at(0).at("recycle").dump();
  }
};

TEST_P(Filesystem_Catalog_Test, a_filesystem_is_known_by_its_name_in_its_pool) {
  ASSERT_TRUE(add_filesystem(uuid(1), "it's", false, zero_uuid()));
  ASSERT_TRUE(add_filesystem(uuid(1), "b", true, uuid(20)));
  ASSERT_TRUE(add_filesystem(uuid(2), "b", true, zero_uuid()));
  EXPECT_TRUE(catalog_.filesystem_exist(uuid(1), "it's"));
  EXPECT_FALSE(catalog_.filesystem_exist(uuid(2), "it's"));
  ASSERT_TRUE(catalog_.update_mounted_info(uuid(1), "it's", true));
  ASSERT_TRUE(catalog_.update_mountpoint(uuid(1), "it's", "/other"));
  ASSERT_TRUE(catalog_.update_filesystem_ctime(uuid(1), "it's", "now"));
  Array rows;
  ASSERT_TRUE(catalog_.list_filesystem(uuid(1), rows, "it's"));
  EXPECT_EQ(Value(rows), Value::array({{{"name", "it's"},
                                        {"mountpoint", "/other"},
                                        {"snapshot_uuid", zero_uuid()},
                                        {"mounted", true},
                                        {"pool_uuid", uuid(1)},
                                        {"extended_attrs", "{}"}}}));
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    ASSERT_TRUE(catalog_.list_filesystem(uuid(1), rows, name));
    EXPECT_EQ(rows.size(), 2u);
  }
  ASSERT_TRUE(catalog_.del_filesystem(uuid(1), "b"));
  EXPECT_FALSE(catalog_.filesystem_exist(uuid(1), "b"));
  EXPECT_TRUE(catalog_.filesystem_exist(uuid(2), "b"));
}

TEST_P(Filesystem_Catalog_Test, mounted_filesystems_are_found_in_one_pool_or_all) {
  ASSERT_TRUE(add_filesystem(uuid(1), "a", true, zero_uuid()));
  ASSERT_TRUE(add_filesystem(uuid(1), "b", false, zero_uuid()));
  ASSERT_TRUE(add_filesystem(uuid(2), "a", true, zero_uuid()));
  ASSERT_TRUE(add_filesystem(uuid(2), "c", true, zero_uuid()));
  const struct {
    std::string pool, name;
    std::size_t wanted;
  } cases[] = {{"", "", 3},  {uuid(1), "", 1},  {uuid(2), "", 2},
               {"", "a", 2}, {uuid(1), "b", 0}, {uuid(2), "c", 1}};
  for (const auto& one : cases) {
    Array rows;
    ASSERT_TRUE(catalog_.get_mounted_info(one.pool, one.name, rows));
    EXPECT_EQ(rows.size(), one.wanted) << one.pool << " " << one.name;
  }
  Array rows;
  ASSERT_TRUE(catalog_.get_mounted_info(uuid(1), "a", rows));
  EXPECT_EQ(Value(rows), Value::array({{{"name", "a"}, {"mountpoint", "/m/a"}, {"pool_uuid", uuid(1)}}}));
}

TEST_P(Filesystem_Catalog_Test, snapshots_are_numbered_filtered_and_outlive_their_filesystem) {
  ASSERT_TRUE(add_pool(uuid(1)));
  ASSERT_TRUE(add_filesystem(uuid(1), "fs", true, zero_uuid()));
  ACE_UINT64 seq = 9;
  EXPECT_TRUE(catalog_.get_last_filesystem_seq(uuid(1), "fs", seq));
  EXPECT_EQ(seq, 0u);
  ASSERT_TRUE(add_snapshot(22, 3, true));
  ASSERT_TRUE(add_snapshot(20, 1, false));
  ASSERT_TRUE(add_snapshot(21, 2, true));
  EXPECT_TRUE(catalog_.get_last_filesystem_seq(uuid(1), "fs", seq));
  EXPECT_EQ(seq, 3u);
  const struct {
    Catalog::Snapshot_List_Mode mode;
    const char* wanted;
  } lists[] = {{Catalog::SNAPSHOT_LIST_ALL, "1 2 3 "},
               {Catalog::SNAPSHOT_LIST_RECYCLE, "2 3 "},
               {Catalog::SNAPSHOT_LIST_NOT_RECYCLE, "1 "}};
  for (const auto& one : lists) {
    Array rows;
    ASSERT_TRUE(catalog_.list_filesystem_snapshots(uuid(1), "fs", rows, one.mode));
    std::string seqs;
    for (const Value& row : rows)
      seqs += row.at("seq").dump() + " ";
    EXPECT_EQ(seqs, one.wanted);
  }
  const Value wanted = {{"snapshot_id", 3},
                        {"snapshot_uuid", uuid(21)},
                        {"filesystem_name", "fs"},
                        {"pool_uuid", uuid(1)},
                        {"ctime", "c"},
                        {"recycle", true},
                        {"seq", 2}};
  Object info;
  ASSERT_TRUE(catalog_.get_filesystem_snapshot_info(uuid(1), uuid(21), info));
  EXPECT_EQ(Value(info), wanted);
  info.clear();
  ASSERT_TRUE(catalog_.get_filesystem_snapshot_info(uuid(1), "fs", ACE_UINT64(2), info));
  EXPECT_EQ(Value(info), wanted);

  ASSERT_TRUE(catalog_.del_filesystem(uuid(1), "fs"));
  EXPECT_FALSE(catalog_.get_filesystem_snapshot_info(uuid(1), uuid(21), info));
  EXPECT_FALSE(catalog_.get_filesystem_snapshot_info(uuid(1), "fs", ACE_UINT64(2), info));
  Array rows;
  ASSERT_TRUE(catalog_.list_all_filesystem_snapshots(uuid(1), rows, uuid(21).c_str()));
  EXPECT_EQ(Value(rows), Value::array({{{"pool_uuid", uuid(1)},
                                        {"snapshot_uuid", uuid(21)},
                                        {"name", "fs"},
                                        {"recycle", true},
                                        {"seq", 2},
                                        {"ctime", "c"}}}));
  ASSERT_TRUE(catalog_.del_filesystem_snapshot(uuid(1), uuid(21)));
  EXPECT_FALSE(catalog_.filesystem_snapshot_exist(uuid(1), uuid(21)));
  EXPECT_TRUE(catalog_.filesystem_snapshot_exist(uuid(1), uuid(20)));
}

TEST_P(Filesystem_Catalog_Test, marks_change_only_what_is_given) {
  ASSERT_TRUE(add_snapshot(20, 1, false));
  ASSERT_TRUE(add_snapshot(21, 2, false));
  ASSERT_TRUE(add_snapshot(20, 1, false, 2));
  const struct {
    std::string id;
    Object info;
    const char *first, *second;
  } cases[] = {
      {uuid(20), {{"state", "sending"}}, "sending/0/false", "idle/0/false"},
      {uuid(20), {{"standby", 2}, {"recycle", true}}, "sending/2/true", "idle/0/false"},
      {uuid(21), {{"standby", 7}, {"recycle", 1}, {"state", nullptr}}, "sending/2/true", "idle/7/false"},
      {"", {{"state", "depend"}}, "depend/2/true", "depend/7/false"},
  };
  for (const auto& one : cases) {
    ASSERT_TRUE(catalog_.update_filesystem_snapshot_info(uuid(1), one.id, one.info));
    EXPECT_EQ(marks(1, 20), one.first);
    EXPECT_EQ(marks(1, 21), one.second);
    EXPECT_EQ(marks(2, 20), "idle/0/false");
  }
  for (const Object& nothing :
       {Object{}, Object{{"other", 1}}, Object{{"standby", 65536}, {"recycle", "x"}}}) {
    EXPECT_FALSE(catalog_.update_filesystem_snapshot_info(uuid(1), "", nothing));
    EXPECT_EQ(marks(1, 20), "depend/2/true");
  }
}

CATALOG_TESTS(Filesystem_Catalog_Test);

}  // namespace
