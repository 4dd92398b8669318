// The LUN operations of the pool manager, and pool maintenance.

#include "tests/support/lun_fixture.h"

namespace {

using scsi_pool::SCSI_Pool_Manager;

class Luns : public Lun_Fixture {
 protected:
  Array list(const char* id = nullptr) {
    Array found;
    EXPECT_TRUE(manager_.list_lun(POOL, found, id)) << log_.dump();
    return found;
  }
};

TEST_F(Luns, list_shows_exports_and_origins_and_skips_the_vanished) {
  ASSERT_TRUE(make_lun(A, acls(HOST)) && make_lun(B)) << log_.dump();
  const auto exported = list(A.c_str()).at(0);
  EXPECT_EQ(JSON_Dump(list(B.c_str()).at(0)),
            R"({"extended_attrs":"{\"retention_type\":\"newest\"}","lun_id":")" + B +
                R"(","max_size":1048576,"size":4096,"target":")" + TARGET + R"(","type":"iSCSI"})");
  EXPECT_EQ(exported["lun_num"], 0u);
  EXPECT_EQ(exported["acls"][0]["initiator"], HOST);
  EXPECT_EQ(exported["vpd_serial_number"], A);

  add_snapshot(A, SNAPSHOT, 1);
  SCSI_Pool_Manager::LUN_Option option;
  option.link_clone = true;
  std::string id;
  ASSERT_TRUE(manager_.create_lun(POOL, SNAPSHOT, option, id, number_)) << log_.dump();
  const auto clone = list(id.c_str()).at(0);
  EXPECT_EQ(clone["origin_lun"], A);
  EXPECT_EQ(clone["origin_snap"], SNAPSHOT);
  EXPECT_EQ(clone["max_size"], SIZE);

  pool().volumes.erase(B);
  EXPECT_EQ(list().size(), 2u);
  Array found;
  EXPECT_FALSE(manager_.list_lun(A, found, nullptr));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to list '" + A + "' SCSI pool LUN:pool does not exist\n"));
}

TEST_F(Luns, a_failed_export_keeps_a_new_lun_and_removes_a_clone) {
  lio_.tree().fail("write", "tpgt_1/enable", EIO);
  EXPECT_FALSE(make_lun(A, acls(HOST)));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to create LUN: export LUN error\n"));
  EXPECT_TRUE(manager_.lun_exist(POOL, A));
  add_snapshot(A, SNAPSHOT, 1);
  SCSI_Pool_Manager::LUN_Option option;
  option.lun_export = true;
  std::string id = B;
  EXPECT_FALSE(manager_.create_lun(POOL, SNAPSHOT, option, id, number_));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to create LUN with snapshot: export LUN error\n"));
  EXPECT_FALSE(manager_.lun_exist(POOL, B));
  EXPECT_EQ(pool().volumes.count(B), 0u);
}

TEST_F(Luns, rollback_unexports_first_and_exports_again) {
  ASSERT_TRUE(make_lun(A, acls(HOST)));
  std::string snapshot;
  EXPECT_FALSE(manager_.update_lun_with_snapshot(POOL, A, number_, snapshot, true));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to update LUN with snapshot:failed to get snapshot\n"));
  EXPECT_TRUE(exported(A).status);
  add_snapshot(A, SNAPSHOT, 1);
  lio_.set_busy(TARGET, true);
  EXPECT_FALSE(manager_.update_lun_with_snapshot(POOL, A, number_, snapshot, false));
  EXPECT_EQ(pool().count("rollback"), 0u);
  ASSERT_TRUE(manager_.update_lun_with_snapshot(POOL, A, number_, snapshot, true)) << log_.dump();
  EXPECT_EQ(snapshot, SNAPSHOT);
  EXPECT_EQ(pool().count("rollback " + A + "@" + SNAPSHOT), 1u);
  const auto info = exported(A);
  EXPECT_TRUE(info.status);
  EXPECT_EQ(info.lun_num, number_);
  EXPECT_EQ(info.acls.at(0).initiator, HOST);
  pool().failing = {"rollback"};
  EXPECT_FALSE(manager_.update_lun_with_snapshot(POOL, A, number_, snapshot, true));
  EXPECT_FALSE(exported(A).status);
}

TEST_F(Luns, a_busy_target_stops_a_deletion_unless_forced) {
  ASSERT_TRUE(make_lun(A, acls(HOST)));
  lio_.set_busy(TARGET, true);
  EXPECT_FALSE(manager_.delete_lun(POOL, A, false));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to unexport lun\n"));
  EXPECT_TRUE(manager_.lun_exist(POOL, A));
  ASSERT_TRUE(manager_.delete_lun(POOL, A, true)) << log_.dump();
  EXPECT_FALSE(rows().lun_exist(POOL, A));
  EXPECT_FALSE(lio_.has_target(TARGET));
}

TEST_F(Luns, operations_on_a_lun_that_is_not_there) {
  Exporter::Export_Info info;
  EXPECT_FALSE(manager_.export_lun(POOL, A, info) || manager_.unexport_lun(POOL, A, true) ||
               manager_.lun_exported(POOL, A, info) || manager_.update_lun_acls(POOL, A, {}, true) ||
               manager_.lun_exist(POOL, A) || manager_.delete_lun(POOL, A, true));
  EXPECT_EQ(log_.errors(), "Failed to export LUN: '" + A +
                               "' does not exist\nFailed to unexport subvol: subvol '" + A +
                               "' does not exist\nFailed to check lun exported: lun does not exist\n" +
                               "Failed to update LUN ACL: subvol '" + A +
                               "' does not exist\nFailed to delete LUN: LUN '" + A + "' does not exist\n");
}

TEST_F(Luns, trim_is_for_pools_that_ask_and_brings_the_export_back_whatever_came_of_it) {
  ASSERT_TRUE(make_lun(B, acls(HOST)) && make_lun(A, acls(HOST)));
  lio_.tree().clear_changes();
  EXPECT_TRUE(manager_.trim_backstore(POOL, A));
  EXPECT_TRUE(lio_.tree().changes().empty());
  EXPECT_FALSE(manager_.trim_backstore(B, A));
  EXPECT_TRUE(
      log_.has(LM_ERROR, "Failed to trim backstore: Cannot get pool '" + B + "' extended attributes\n"));
  ASSERT_TRUE(rows().update_pool(POOL, 1, "pool", R"({"backstore_trim":true})"));
  EXPECT_FALSE(manager_.trim_backstore(POOL, A));  // an image without a filesystem
  EXPECT_FALSE(lio_.tree().changes().empty());
  const auto info = exported(A);
  EXPECT_TRUE(info.status);
  EXPECT_EQ(info.lun_num, 1);
  EXPECT_EQ(info.acls.at(0).initiator, HOST);
  ASSERT_TRUE(manager_.unexport_lun(POOL, A, true));
  EXPECT_FALSE(manager_.trim_backstore(POOL, A));
  EXPECT_FALSE(exported(A).status);
}

TEST_F(Luns, all_initiators_of_all_pools) {
  ASSERT_TRUE(make_lun(A, acls(HOST)) && make_lun(B, acls(HOST)));
  LIO_ACLs found;
  ASSERT_TRUE(manager_.list_pools_acls(found, nullptr));
  EXPECT_EQ(found.size(), 2u);
  ASSERT_TRUE(rows().update_export_acls(POOL, B, "[1]"));
  EXPECT_FALSE(manager_.list_pools_acls(found, ""));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to list pool acls: failed to parse array acls\n"));
}

TEST_F(Luns, fc_pools_make_their_target_first) {
  SCSI_Pool_Manager::Pool_Option option;
  option.fs_type = "zfs";
  option.lun_type = TYPE_FC;
  option.target = "naa.5001405aabbccdd1";
  lio_.tree().fail("mkdir", "tpgt_1", EIO, 1);
  std::string id = B;
  EXPECT_FALSE(manager_.create_pool(id, "fc", option));
  EXPECT_TRUE(
      log_.has(LM_ERROR, "Failed to create SCSI pool: failed to create FC target '" + option.target + "'\n"));
  EXPECT_TRUE(pools_[B].calls.empty());
  EXPECT_TRUE(manager_.create_pool(id, "fc", option)) << log_.dump();
  EXPECT_TRUE(manager_.add_lio_fc_target(option.target.c_str())) << "once more";
  EXPECT_FALSE(manager_.add_lio_fc_target(nullptr));
}

}  // namespace
