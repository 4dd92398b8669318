// Pools: the catalog and the storage together.

#include <gtest/gtest.h>

#include "platform/base/uuid.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_pool.h"
#include "tests/support/temp_catalog.h"

namespace {

using json_spirit::Array;
using json_spirit::Object;
using scsi_pool::SCSI_Pool_Manager;

const std::string POOL = "aaaaaaaa-0000-4000-8000-000000000001";
const std::string OTHER = "aaaaaaaa-0000-4000-8000-000000000002";
const std::string LUN = "bbbbbbbb-0000-4000-8000-00000000000";  // and a digit
const std::string SNAPSHOT = "cccccccc-0000-4000-8000-00000000000";
const std::string CLONE = "dddddddd-0000-4000-8000-000000000001";

class Pools : public testing::Test {
 protected:
  SCSI_Pool_Manager::Pool_Option option() {
    SCSI_Pool_Manager::Pool_Option option;
    option.size = 1000;
    option.fs_type = "zfs";
    option.compression = "lz4";
    option.lun_type = TYPE_ISCSI;
    option.target = "iqn.2026-01.org.example:t1";
    option.retention = 7;
    option.ext_attrs = {{"async", true}};
    return option;
  }
  void make(std::string id, const std::string& name) {
    ASSERT_TRUE(manager_.create_pool(id, name, option())) << log_.dump();
    pools_[id].calls.clear();
  }
  void add_lun(const std::string& digit) {
    scsi_pool::SCSI_Pool_Sqlite_Manager::Volume_Info row;
    row.uuid = LUN + digit;
    row.pool_uuid = POOL;
    row.snapshot_uuid = platform::zero_uuid();
    row.size = 100;
    ASSERT_TRUE(catalog_.rows().add_volume(row));
    pools_[POOL].volumes[row.uuid];
  }
  void add_snapshot(const std::string& lun, const std::string& digit) {
    ASSERT_TRUE(catalog_.rows().add_snapshot(SNAPSHOT + digit, LUN + lun, POOL, "", 1, false, nullptr));
    pools_[POOL].volumes[LUN + lun].snapshots.push_back(SNAPSHOT + digit);
  }
  void export_snapshot(const std::string& digit) {
    scsi_pool::SCSI_Pool_Sqlite_Manager::Volume_Info row;
    row.uuid = CLONE;
    row.pool_uuid = POOL;
    row.snapshot_uuid = SNAPSHOT + digit;
    row.size = 100;
    ASSERT_TRUE(catalog_.rows().add_volume(row));
    ASSERT_TRUE(catalog_.rows().add_export(CLONE, POOL, 3, "[]", "iSCSI", "iqn.2026-01.org.example:t1"));
  }
  Object record(const std::string& id) {
    Array found;
    EXPECT_TRUE(manager_.list_pools(found, id.c_str())) << log_.dump();
    return found.size() == 1 ? *json_spirit::get_object(found[0]) : Object{};
  }

  Memory_Pools pools_;
  Temp_Catalog catalog_;
  SCSI_Pool_Manager& manager_ = catalog_.manager();
  Log_Capture log_;
};

TEST_F(Pools, create_makes_storage_and_record) {
  std::string id = POOL;
  auto wanted = option();
  wanted.thin_provision = true;
  wanted.global_dev = "tank";
  ASSERT_TRUE(manager_.create_pool(id, "first", wanted)) << log_.dump();
  EXPECT_EQ(id, POOL);
  const std::vector<std::string> steps{"open tank", "backstore.create 1000 thin",
                                       R"(backstore.mount {"compression":"lz4"})"};
  EXPECT_EQ(pools_[POOL].calls, steps);
  pools_[POOL].used = 5;
  EXPECT_EQ(JSON_Dump(record(POOL)),
            R"({"compression":"lz4","dedup":false,"extended_attrs":{"async":true},"fs_type":"zfs",)"
            R"("global_dev":"tank","pool_id":"aaaaaaaa-0000-4000-8000-000000000001","pool_name":"first",)"
            R"("retention":7,"snapshot_mounted":false,"target":"iqn.2026-01.org.example:t1",)"
            R"("thin_provision":true,"total_size":1000,"type":"iSCSI","used_size":5})");
}

TEST_F(Pools, create_fills_an_empty_id_and_stores_no_transport_as_null) {
  std::string id;
  auto wanted = option();
  wanted.lun_type = TYPE_UNKNOWN;
  ASSERT_TRUE(manager_.create_pool(id, "first", wanted));
  EXPECT_TRUE(platform::is_uuid(id)) << id;
  EXPECT_EQ(record(id)["type"], "null");
}

TEST_F(Pools, create_refuses_before_anything_is_made) {
  make(POOL, "first");
  std::string id = OTHER, no_uuid = "pool-1";
  EXPECT_FALSE(manager_.create_pool(id, "first", option()));
  EXPECT_FALSE(manager_.create_pool(no_uuid, "second", option()));
  EXPECT_EQ(log_.errors(),
            "Failed to create SCSI pool: pool with name first is exist\n"
            "Failed to create SCSI pool: 'pool-1' is not a UUID\n");
  EXPECT_TRUE(pools_[OTHER].calls.empty() && pools_[no_uuid].calls.empty());
}

TEST_F(Pools, create_writes_no_record_when_the_storage_fails) {
  for (const char* step : {"backstore.create", "backstore.mount"}) {
    std::string id = POOL;
    pools_[POOL].failing = {step};
    EXPECT_FALSE(manager_.create_pool(id, "first", option())) << step;
    EXPECT_FALSE(catalog_.rows().pool_exist(POOL)) << step;
  }
}

TEST_F(Pools, list_leaves_out_what_does_not_answer) {
  make(POOL, "first");
  make(OTHER, "second");
  pools_[POOL].exists = false;
  Array found;
  ASSERT_TRUE(manager_.list_pools(found, nullptr));
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]["pool_id"], OTHER);
  pools_[OTHER].failing = {"backstore.get_used_size"};
  found.clear();
  EXPECT_TRUE(manager_.list_pools(found, ""));
  EXPECT_TRUE(found.empty());
  EXPECT_FALSE(manager_.pool_exist(POOL));
  EXPECT_TRUE(manager_.pool_exist(OTHER));
  EXPECT_FALSE(manager_.pool_exist(""));
}

TEST_F(Pools, list_reads_attributes) {
  make(POOL, "first");
  ASSERT_TRUE(catalog_.rows().update_pool(POOL, 1, "first", ""));
  EXPECT_EQ(record(POOL)["extended_attrs"], Object{});
  ASSERT_TRUE(catalog_.rows().update_pool(POOL, 1, "first", "{broken"));
  Array found;
  EXPECT_FALSE(manager_.list_pools(found, nullptr));
  EXPECT_EQ(log_.errors(), "Failed to list scsi pool: load extended attributes error\n");
}

TEST_F(Pools, update_merges_and_keeps) {
  make(POOL, "first");
  ASSERT_TRUE(manager_.update_pool(POOL, 0, "", {{"async", false}, {"more", 1}}));
  Object now = record(POOL);
  EXPECT_EQ(JSON_Dump(now["extended_attrs"]), R"({"async":false,"more":1})");
  EXPECT_EQ(now["retention"], 7u);
  EXPECT_EQ(now["pool_name"], "first");
  ASSERT_TRUE(manager_.update_pool(POOL, 9, "renamed", {}));
  now = record(POOL);
  EXPECT_EQ(now["retention"], 9u);
  EXPECT_EQ(now["pool_name"], "renamed");
  EXPECT_EQ(JSON_Dump(now["extended_attrs"]), R"({"async":false,"more":1})");
  EXPECT_FALSE(manager_.update_pool(OTHER, 1, "", {}));
  EXPECT_EQ(log_.errors(), "Failed to update '" + OTHER + "' SCSI pool: SCSI pool does not exist\n");
}

TEST_F(Pools, attributes_must_be_an_object) {
  make(POOL, "first");
  ASSERT_TRUE(catalog_.rows().update_pool(POOL, 1, "first", "[1]"));
  Object attrs;
  EXPECT_FALSE(manager_.get_pool_ext_attrs(POOL, attrs));
  EXPECT_FALSE(manager_.get_pool_ext_attrs(OTHER, attrs));
  EXPECT_EQ(log_.errors(),
            "Failed to get pool extended attribute: get extended_attrs error\n"
            "Failed to get pool extended attribute: get pool info error\n");
}

TEST_F(Pools, space_remains_up_to_the_last_byte) {
  make(POOL, "first");
  pools_[POOL].used = 1000;
  EXPECT_TRUE(manager_.verify_remaing_space(POOL));
  pools_[POOL].used = 1001;
  EXPECT_FALSE(manager_.verify_remaing_space(POOL));
  EXPECT_EQ(log_.errors(), "");
  EXPECT_FALSE(manager_.verify_remaing_space(""));
  EXPECT_FALSE(manager_.verify_remaing_space(OTHER));
  EXPECT_EQ(log_.errors(),
            "Failed to check pool free space enough: pool id is empty\n"
            "Failed to check pool free space enough: get pool '" +
                OTHER + "' info error\n");
}

TEST_F(Pools, delete_goes_through_the_luns_backwards) {
  make(POOL, "first");
  add_lun("1");
  add_lun("2");
  ASSERT_TRUE(manager_.delete_pool(POOL, false)) << log_.dump();
  std::vector<std::string> destroyed;
  for (const std::string& call : pools_[POOL].calls) {
    if (call.find("destroy") != std::string::npos) destroyed.push_back(call);
  }
  EXPECT_EQ(destroyed,
            (std::vector<std::string>{"destroy " + LUN + "2", "destroy " + LUN + "1", "backstore.destroy"}));
  EXPECT_FALSE(catalog_.rows().pool_exist(POOL));
}

TEST_F(Pools, delete_stops_at_the_first_failure) {
  EXPECT_FALSE(manager_.delete_pool(POOL, true));
  EXPECT_EQ(log_.errors(), "Failed to delete '" + POOL + "' SCSI pool: SCSI pool does not exist\n");
  make(POOL, "first");
  add_lun("1");
  pools_[POOL].failing = {"destroy"};
  EXPECT_FALSE(manager_.delete_pool(POOL, true));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to delete '" + POOL + "' SCSI pool: delete LUN error\n"));
  EXPECT_EQ(pools_[POOL].count("backstore.destroy"), 0u);
  pools_[POOL].failing = {"backstore.destroy"};
  EXPECT_FALSE(manager_.delete_pool(POOL, true));
  EXPECT_TRUE(
      log_.has(LM_ERROR, "Failed to delete '" + POOL + "' SCSI pool: delete SCSI pool backstore error\n"));
  EXPECT_TRUE(catalog_.rows().pool_exist(POOL));
}

TEST_F(Pools, storage_with_an_exported_volume_is_not_destroyed) {
  make(POOL, "first");
  ASSERT_TRUE(catalog_.rows().add_export(CLONE, POOL, 3, "[]", "iSCSI", "iqn.2026-01.org.example:t1"));
  EXPECT_FALSE(manager_.delete_pool(POOL, true));
  EXPECT_EQ(log_.errors(), "Failed to delete '" + POOL + "' SCSI pool: a volume of it is still exported\n");
  EXPECT_EQ(pools_[POOL].count("backstore.destroy"), 0u);
}

TEST_F(Pools, busy_while_a_snapshot_is_exported) {
  make(POOL, "first");
  add_lun("1");
  add_lun("2");
  add_snapshot("1", "1");
  add_snapshot("2", "2");
  EXPECT_FALSE(manager_.pool_busy(POOL));
  export_snapshot("2");
  EXPECT_TRUE(manager_.pool_busy(POOL)) << log_.dump();
  EXPECT_EQ(record(POOL)["snapshot_mounted"], true);
  pools_[POOL].volumes[LUN + "2"].snapshots.clear();  // gone from the storage
  EXPECT_FALSE(manager_.pool_busy(POOL));
  EXPECT_FALSE(manager_.pool_busy(OTHER));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to check '" + OTHER + "' SCSI pool: SCSI pool does not exist\n"));
}

TEST_F(Pools, snapshots_cost_a_listing_nothing) {
  make(POOL, "first");
  const auto cost = [&] {
    pools_[POOL].calls.clear();
    record(POOL);
    return pools_[POOL].calls;
  };
  const auto empty = cost();
  for (const char* lun : {"1", "2", "3"}) {
    add_lun(lun);
    add_snapshot(lun, lun);
  }
  ASSERT_TRUE(catalog_.rows().add_export(LUN + "1", POOL, 0, "[]", "iSCSI", "iqn.2026-01.org.example:t1"));
  EXPECT_EQ(cost(), empty);
}

}  // namespace
