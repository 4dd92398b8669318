// Pools: the catalog and the storage together.

#include "tests/support/dataset_fixture.h"

namespace {

using scsi_pool::SCSI_Pool_Manager;

class Pools : public Dataset_Fixture {
 protected:
  const std::string OTHER = "aaaaaaaa-0000-4000-8000-000000000002";

  bool make(std::string id, const std::string& name) {
    SCSI_Pool_Manager::Pool_Option option;
    option.size = 1000;
    option.fs_type = "zfs";
    option.compression = "lz4";
    option.lun_type = TYPE_ISCSI;
    option.target = TARGET;
    return manager_.create_pool(id, name, option);
  }
  Object record(const std::string& id) {
    Array found;
    EXPECT_TRUE(manager_.list_pools(found, id.c_str())) << log_.dump();
    return found.size() == 1 ? *json_spirit::get_object(found[0]) : Object{};
  }
};

TEST_F(Pools, create_refuses_before_anything_is_made) {
  EXPECT_FALSE(make(OTHER, "pool") || make("pool-1", "second"));
  EXPECT_EQ(log_.errors(),
            "Failed to create SCSI pool: pool with name pool is exist\n"
            "Failed to create SCSI pool: 'pool-1' is not a UUID\n");
  EXPECT_TRUE(pools_[OTHER].calls.empty() && pools_["pool-1"].calls.empty());
}

TEST_F(Pools, create_writes_no_record_when_the_storage_fails) {
  for (const char* step : {"backstore.create", "backstore.mount"}) {
    pools_[OTHER].failing = {step};
    EXPECT_FALSE(make(OTHER, "second")) << step;
    EXPECT_FALSE(rows().pool_exist(OTHER)) << step;
  }
  EXPECT_EQ(pools_[OTHER].count(R"(backstore.mount {"compression":"lz4"})"), 1u);
}

TEST_F(Pools, list_leaves_out_what_does_not_answer) {
  ASSERT_TRUE(make(OTHER, "second"));
  pool().exists = false;
  Array found;
  ASSERT_TRUE(manager_.list_pools(found, nullptr));
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]["pool_id"], OTHER);
  pools_[OTHER].failing = {"backstore.get_used_size"};
  found.clear();
  EXPECT_TRUE(manager_.list_pools(found, ""));
  EXPECT_TRUE(found.empty());
  EXPECT_TRUE(manager_.pool_exist(OTHER));
  EXPECT_FALSE(manager_.pool_exist(POOL) || manager_.pool_exist(""));
}

TEST_F(Pools, attributes_must_be_an_object) {
  ASSERT_TRUE(rows().update_pool(POOL, 1, "pool", ""));
  EXPECT_EQ(record(POOL)["extended_attrs"], Object{});
  ASSERT_TRUE(rows().update_pool(POOL, 1, "pool", "{broken"));
  Array found;
  Object attrs;
  EXPECT_FALSE(manager_.list_pools(found, nullptr));
  ASSERT_TRUE(rows().update_pool(POOL, 1, "pool", "[1]"));
  EXPECT_FALSE(manager_.get_pool_ext_attrs(POOL, attrs));
  EXPECT_EQ(log_.errors(),
            "Failed to list scsi pool: load extended attributes error\n"
            "Failed to get pool extended attribute: get extended_attrs error\n");
}

TEST_F(Pools, update_merges_and_keeps) {
  ASSERT_TRUE(rows().update_pool(POOL, 7, "pool", R"({"async":true})"));
  ASSERT_TRUE(manager_.update_pool(POOL, 0, "", {{"async", false}, {"more", 1}}));
  EXPECT_EQ(JSON_Dump(record(POOL)["extended_attrs"]), R"({"async":false,"more":1})");
  EXPECT_EQ(record(POOL)["retention"], 7u);
  EXPECT_EQ(record(POOL)["pool_name"], "pool");
  ASSERT_TRUE(manager_.update_pool(POOL, 9, "renamed", {}));
  EXPECT_EQ(record(POOL)["retention"], 9u);
  EXPECT_EQ(record(POOL)["pool_name"], "renamed");
  EXPECT_EQ(JSON_Dump(record(POOL)["extended_attrs"]), R"({"async":false,"more":1})");
  EXPECT_FALSE(manager_.update_pool(OTHER, 1, "", {}));
  EXPECT_EQ(log_.errors(), "Failed to update '" + OTHER + "' SCSI pool: SCSI pool does not exist\n");
}

TEST_F(Pools, space_remains_up_to_the_last_byte) {
  pool().used = 1000000;
  EXPECT_TRUE(manager_.verify_remaing_space(POOL));
  pool().used = 1000001;
  EXPECT_FALSE(manager_.verify_remaing_space(POOL));
  EXPECT_EQ(log_.errors(), "");
  EXPECT_FALSE(manager_.verify_remaing_space("") || manager_.verify_remaing_space(OTHER));
  EXPECT_EQ(log_.errors(),
            "Failed to check pool free space enough: pool id is empty\n"
            "Failed to check pool free space enough: get pool '" +
                OTHER + "' info error\n");
}

TEST_F(Pools, delete_goes_through_the_luns_backwards_and_stops_at_the_first_failure) {
  add_lun(A);
  add_lun(B);
  const std::string failed = "Failed to delete '" + POOL + "' SCSI pool: ";
  pool().failing = {"destroy"};
  EXPECT_FALSE(manager_.delete_pool(POOL, true));
  EXPECT_TRUE(log_.has(LM_ERROR, failed + "delete LUN error\n"));
  EXPECT_EQ(pool().count("destroy " + A) + pool().count("backstore.destroy"), 0u);
  pool().failing = {"backstore.destroy"};
  EXPECT_FALSE(manager_.delete_pool(POOL, true));
  EXPECT_TRUE(log_.has(LM_ERROR, failed + "delete SCSI pool backstore error\n"));
  EXPECT_TRUE(rows().pool_exist(POOL));
  std::vector<std::string> destroyed;
  for (const std::string& call : pool().calls)
    if (call.find("destroy") != std::string::npos) destroyed.push_back(call);
  EXPECT_EQ(destroyed,
            (std::vector<std::string>{"destroy " + B, "destroy " + B, "destroy " + A, "backstore.destroy"}));
  pool().failing.clear();
  EXPECT_TRUE(manager_.delete_pool(POOL, false)) << log_.dump();
  EXPECT_FALSE(manager_.delete_pool(POOL, true) || rows().pool_exist(POOL));
  EXPECT_TRUE(log_.has(LM_ERROR, failed + "SCSI pool does not exist\n"));
}

TEST_F(Pools, storage_with_an_exported_volume_is_not_destroyed) {
  ASSERT_TRUE(rows().add_export(id(9), POOL, 3, "[]", "iSCSI", TARGET.c_str()));
  EXPECT_FALSE(manager_.delete_pool(POOL, true));
  EXPECT_EQ(log_.errors(), "Failed to delete '" + POOL + "' SCSI pool: a volume of it is still exported\n");
  EXPECT_EQ(pool().count("backstore.destroy"), 0u);
}

TEST_F(Pools, busy_while_a_snapshot_is_exported) {
  add_lun(A);
  add_lun(B);
  add_snapshots(A, 1, 1);
  add_snapshots(B, 2, 2);
  EXPECT_FALSE(manager_.pool_busy(POOL));
  ASSERT_TRUE(manager_.export_snapshot(POOL, id(2), acls(HOST), number_, true, nullptr, nullptr));
  EXPECT_TRUE(manager_.pool_busy(POOL)) << log_.dump();
  EXPECT_EQ(record(POOL)["snapshot_mounted"], true);
  pool().volumes[B].snapshots.clear();  // gone from the storage
  EXPECT_FALSE(manager_.pool_busy(POOL) || manager_.pool_busy(OTHER));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to check '" + OTHER + "' SCSI pool: SCSI pool does not exist\n"));
}

}  // namespace
