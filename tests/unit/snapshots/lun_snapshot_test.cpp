// LUN snapshots: numbers, listing, deletion, exports, state and standby counts.

#include "platform/services/storage_catalog.h"
#include "tests/support/dataset_fixture.h"
#include "tests/support/scripted_peer.h"

namespace {

using scsi_pool::SCSI_Pool_Manager;

class Lun_Snapshots : public Dataset_Fixture {
 protected:
  Lun_Snapshots() { add_lun(A); }
  Object record(const std::string& snapshot_id) {
    Array list;
    EXPECT_TRUE(manager_.list_snapshot(POOL, list, snapshot_id.c_str())) << log_.dump();
    return list.empty() ? Object{} : *json_spirit::get_object(list.back());
  }
  std::string take(bool recycle = false) {
    std::string made = "whatever was there";
    EXPECT_TRUE(manager_.create_snapshot(POOL, A, made, recycle)) << log_.dump();
    EXPECT_TRUE(platform::is_uuid(made));
    return made;
  }
};

TEST_F(Lun_Snapshots, NumbersRiseFromOneOrFromTheGivenOne) {
  EXPECT_EQ(record(take(true))["seq"], 1u);
  const Object second = record(take());
  EXPECT_EQ(second.at("seq"), 2u);
  EXPECT_EQ(second.at("parent_id"), A);
  EXPECT_EQ(second.at("size"), 300u);
  EXPECT_EQ(second.at("recycle"), false);
  EXPECT_EQ(second.count("lun_num"), 0u);
  pool().volumes[A].snapshots.push_back(id(9));
  ASSERT_TRUE(manager_.add_snapshot_to_db(POOL, A, id(9), 70000, true));
  EXPECT_EQ(record(take())["seq"], 70001u);
  EXPECT_TRUE(manager_.snapshot_exist_with_seq(POOL, A, 70000));
  EXPECT_FALSE(manager_.snapshot_exist_with_seq(POOL, A, 3));
}

TEST_F(Lun_Snapshots, AFailedStepIsNamedAndWhatWasTakenStays) {
  struct Case {
    const char* lun;
    const char* failing;
    const char* error;
    std::size_t on_disk;
  };
  for (const Case& one :
       {Case{B.c_str(), "", "Failed to create snapshot: LUN '%s' does not exist in", 0},
        Case{A.c_str(), "backstore.get_used_size", "no free space to create snapshot in '", 0},
        Case{A.c_str(), "create_snapshot", "", 0},
        Case{A.c_str(), "snapshot.get_info", "Failed to add snapshot to database, pool is '", 1}}) {
    SCOPED_TRACE(one.failing);
    pool().failing = {one.failing};
    log_.clear();
    std::string made;
    EXPECT_FALSE(manager_.create_snapshot(POOL, one.lun, made, true));
    std::string error = one.error;
    if (error.find("%s") != std::string::npos) error.replace(error.find("%s"), 2, B);
    EXPECT_TRUE(log_.contains(LM_ERROR, error)) << log_.dump();
    EXPECT_EQ(pool().volumes[A].snapshots.size(), one.on_disk);
  }
}

TEST_F(Lun_Snapshots, OnlyTheLunsOwnRecordsAreListedAndOnlyItsStorageIsAsked) {
  add_lun(B);
  add_snapshots(A, 1, 2);
  add_snapshots(B, 3, 5);
  pool().calls.clear();
  EXPECT_EQ(numbers(A), (std::vector<int>{1, 2}));
  EXPECT_EQ(pool().count("snapshot.size"), 2u);
  pool().volumes[B].snapshots.pop_back();  // gone from the storage: left out
  Array all;
  EXPECT_TRUE(manager_.list_snapshot(POOL, all, nullptr));
  EXPECT_EQ(all.size(), 4u);
  EXPECT_FALSE(manager_.list_lun_snapshots(POOL, id(77), all));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to list lun snapshots: lun does not exist\n"));
}

TEST_F(Lun_Snapshots, TheLastOneTakesTheEmptyLunWithItWhenAsked) {
  add_snapshots(A, 1, 2);
  // One that the storage does not show at the moment is not listed, and still the catalog's.
  Ids shown = {id(1)};
  std::swap(shown, pool().volumes[A].snapshots);
  EXPECT_TRUE(manager_.delete_snapshot(POOL, id(1), true));
  EXPECT_TRUE(manager_.lun_exist(POOL, A));
  pool().volumes[A].snapshots = {id(2)};
  EXPECT_TRUE(manager_.delete_snapshot(POOL, A, 2, true)) << log_.dump();
  EXPECT_FALSE(manager_.lun_exist(POOL, A));
  EXPECT_FALSE(manager_.delete_snapshot(POOL, A, 2, true));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to delete snapshot: get snapshot id error\n"));
}

TEST_F(Lun_Snapshots, ClonesInTheStorageKeepASnapshotBeforeAnythingOfItIsDeleted) {
  add_snapshots(A, 1, 1);
  Scripted_Peer peer;
  replicate_to(peer.port());
  std::string why;
  ASSERT_TRUE(Storage_Catalog_Manager::instance()->add_catalog(
      POOL, {{"uuid", id(50)}, {"extended_attrs", Object{{"snapshot_id", id(1)}}}}, why))
      << why;
  pool().volumes[A].info["clones"] = "p/lun2,p/lun3";
  EXPECT_FALSE(manager_.delete_snapshot(POOL, id(1), false));
  EXPECT_TRUE(log_.contains(LM_ERROR, "has dependent clones: p/lun2,p/lun3"));
  Array catalogs;
  ASSERT_TRUE(Storage_Catalog_Manager::instance()->query_catalog(POOL, catalogs));
  EXPECT_EQ(catalogs.size(), 1u);
  EXPECT_TRUE(peer.requests.empty()) << peer.dump();
  pool().volumes[A].info.erase("clones");
  pool().failing = {"snapshot.get_info"};
  EXPECT_FALSE(manager_.delete_snapshot(POOL, id(1), false));
  EXPECT_TRUE(log_.contains(LM_ERROR, "cannot tell what depends on snapshot '" + id(1) + "'"));
  EXPECT_TRUE(peer.requests.empty()) << peer.dump();
  EXPECT_EQ(numbers(A), (std::vector<int>{1}));
}

TEST_F(Lun_Snapshots, DeletionAndRecycleFlagGoToThePeerFirst) {
  add_snapshots(A, 1, 3);
  Scripted_Peer peer;
  replicate_to(peer.port());
  peer.refuse["PUT"] = 1;
  EXPECT_FALSE(manager_.update_snapshot_recycle(POOL, id(1), false));
  EXPECT_EQ(record(id(1))["recycle"], true);
  EXPECT_TRUE(manager_.update_snapshot_recycle(POOL, id(1), false));
  EXPECT_EQ(record(id(1))["recycle"], false);
  EXPECT_NE(peer.requests.back().find("\"recycle\":false"), std::string::npos) << peer.dump();

  peer.refuse["DELETE"] = 1;
  EXPECT_FALSE(manager_.delete_snapshot(POOL, id(1), false));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to delete snapshot: delete target pool snapshot error\n"));
  EXPECT_EQ(numbers(A), (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(manager_.delete_snapshot(POOL, id(1), false));
  EXPECT_EQ(peer.count("DELETE /svc/r/scsipool/snapshot?pool_id=" + PEER_POOL + "&snapshot_id=" + id(1)), 2u);
  pool().failing = {"snapshot.destroy"};
  EXPECT_FALSE(manager_.delete_snapshot(POOL, id(2), false));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to delete snapshot: delete snapshot '" + id(2) + "' error\n"));
  EXPECT_EQ(numbers(A), (std::vector<int>{2, 3}));
  pool().failing.clear();
  peer.refuse["GET"] = 1;  // the peer does not have it
  EXPECT_TRUE(manager_.delete_snapshot(POOL, id(2), false));
  EXPECT_EQ(peer.count("DELETE"), 3u);
  EXPECT_EQ(numbers(A), (std::vector<int>{3}));
}

TEST_F(Lun_Snapshots, AnExportLivesAndGoesWithItsClone) {
  add_snapshots(A, 1, 1);
  ACE_UINT16 first = 99, again = 99, second = 99;
  ASSERT_TRUE(manager_.export_snapshot(POOL, id(1), acls(HOST), first, true, nullptr, nullptr))
      << log_.dump();
  ASSERT_TRUE(manager_.export_snapshot(POOL, id(1), acls(HOST), again, true, nullptr, nullptr));
  EXPECT_EQ(first, again);
  EXPECT_EQ(lio_.backstores(), 1u);
  ASSERT_TRUE(manager_.export_snapshot(POOL, id(1), acls(OTHER_HOST), second, false, nullptr, nullptr));
  EXPECT_NE(first, second);
  Array list;
  ASSERT_TRUE(manager_.list_snapshot(POOL, list, nullptr));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0]["target"], TARGET);
  EXPECT_EQ(list[0]["acls"].size(), 1u);
  EXPECT_TRUE(list[0].contains("vpd_serial_number"));
  EXPECT_TRUE(manager_.update_snapshot_acls(POOL, id(1), second, acls(HOST), true)) << log_.dump();
  EXPECT_EQ(lio_.group(TARGET).luns.at(second).acls.size(), 2u);
  EXPECT_EQ(lio_.group(TARGET).luns.at(first).acls.size(), 1u);

  EXPECT_FALSE(manager_.delete_snapshot(POOL, id(1), false));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to delete snapshot: snapshot '" + id(1) + "' is exported\n"));
  EXPECT_TRUE(manager_.unexport_snapshot(POOL, id(1), 4242));
  EXPECT_EQ(lio_.backstores(), 2u);
  EXPECT_TRUE(manager_.unexport_snapshot(POOL, id(1), 65535)) << log_.dump();
  EXPECT_EQ(lio_.backstores(), 0u);
  EXPECT_EQ(pool().volumes.size(), 1u);
  EXPECT_FALSE(manager_.snapshot_exported(POOL, id(1)));
  EXPECT_TRUE(manager_.delete_snapshot(POOL, id(1), false)) << log_.dump();
}

TEST_F(Lun_Snapshots, AFailedExportLeavesNothing) {
  add_snapshots(A, 1, 1);
  for (const char* failing : {"tpgt_1", "fileio_0", "/lun/lun_0"}) {
    SCOPED_TRACE(failing);
    lio_.tree().fail("mkdir", failing, EIO, 1);
    ACE_UINT16 number = 7;
    EXPECT_FALSE(manager_.export_snapshot(POOL, id(1), acls(HOST), number, false, nullptr, nullptr));
    EXPECT_TRUE(log_.has(LM_ERROR, "Failed to export snapshot\n")) << log_.dump();
    EXPECT_EQ(pool().volumes.size(), 1u);
    EXPECT_EQ(lio_.backstores(), 0u);
    EXPECT_FALSE(manager_.snapshot_exported(POOL, id(1)));
  }
}

TEST_F(Lun_Snapshots, StatesAndStandbyCounts) {
  add_snapshots(A, 1, 2);
  const auto key = SCSI_Pool_Manager::snapshot_state_val_to_key;
  EXPECT_EQ(key(SCSI_Pool_Manager::READY_TO_SEND), "idle");
  EXPECT_EQ(key(static_cast<SCSI_Pool_Manager::SNAPSHOT_STATE>(9)), "idle");
  EXPECT_TRUE(manager_.update_snapshot_state(POOL, id(1), SCSI_Pool_Manager::SENDING_STATE));
  EXPECT_TRUE(manager_.update_snapshot_state(POOL, id(2), SCSI_Pool_Manager::DEPEND_STATE));
  EXPECT_EQ(state(id(1)) + " " + state(id(2)), "sending depend");
  EXPECT_TRUE(manager_.reset_snapshots_state(POOL));
  EXPECT_EQ(state(id(1)) + " " + state(id(2)), "idle idle");

  EXPECT_FALSE(manager_.sub_snapshot_standby(POOL, id(1)));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to subtract snapshot standby : standby is 0\n"));
  EXPECT_TRUE(manager_.add_snapshot_standby(POOL, id(1)) && manager_.add_snapshot_standby(POOL, id(1)));
  EXPECT_TRUE(manager_.sub_snapshot_standby(POOL, id(1)));
  EXPECT_EQ(standby(id(1)), 1u);
  ASSERT_TRUE(rows().update_snapshot_standby(POOL, id(2), 65535));
  EXPECT_FALSE(manager_.add_snapshot_standby(POOL, id(2)));
  EXPECT_EQ(standby(id(2)), 65535u);
  EXPECT_TRUE(manager_.reset_snapshot_standby(POOL, A));
  EXPECT_EQ(standby(id(1)) + standby(id(2)), 0u);
  EXPECT_FALSE(manager_.add_snapshot_standby(POOL, id(9)));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to add snapshot standby : get standby value error\n"));
}

TEST_F(Lun_Snapshots, SeveralAreSubmittedAsOneJob) {
  add_lun(B);
  std::map<std::string, std::string> made;
  ACE_INT64 amount = -1;
  ASSERT_TRUE(manager_.create_snapshots(POOL, {A}, "", made, false)) << log_.dump();
  ASSERT_TRUE(Job_Manager::instance()->job_amount(POOL, amount, ""));
  EXPECT_EQ(amount, 0);  // does not replicate

  add_snapshots(B, 5, 5);
  replicate_to(1, {{"max_seconds_retry", 7}});
  const std::vector<std::set<std::string>> sent{{A, B}, {A}};  // without a job all LUNs, then those taken
  for (const auto& luns : sent) {
    ASSERT_TRUE(manager_.create_snapshots(POOL, {A}, id(60), made, false)) << log_.dump();
    std::vector<scsi_pool::Replicate_Job_var> jobs;
    ASSERT_TRUE(Job_Manager::instance()->list_job(POOL, jobs, 0, 0, "pending", "", ""));
    ASSERT_TRUE(Job_Manager::instance()->job_amount(POOL, amount, PEER_POOL));
    ASSERT_EQ(jobs.size(), static_cast<std::size_t>(amount));
    scsi_pool::Replicate_Job_var newest = jobs.front();
    for (auto& job : jobs)
      if (job->id() > newest->id()) newest = job;
    std::set<std::string> named;
    for (const auto& one : newest->job_def().snapshots())
      named.insert(one["lun_uuid"].get<std::string>());
    EXPECT_EQ(named, luns);
    EXPECT_EQ(newest->job_def().catalog_uuid(), id(60));
    EXPECT_EQ(newest->job_def().extended_attrs(), "{\"max_seconds_retry\":7}");
  }
  EXPECT_FALSE(manager_.create_snapshots(POOL, {A, id(70)}, "", made, false));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to create snapshots\n"));
}

}  // namespace
