// Which snapshots recycling removes, keeps or hands on.

#include <random>

#include "backup/pools/scsipool/filesystem_recycle_manager.h"
#include "backup/pools/scsipool/volume_recycle_manager.h"
#include "tests/support/dataset_fixture.h"
#include "tests/support/scripted_peer.h"

namespace {

using scsi_pool::Filesystem_Recycle_Manager;
using scsi_pool::Recycle_Manager;
using scsi_pool::SCSI_Pool_Manager;
using scsi_pool::Volume_Recycle_Manager;

class Recycling : public Dataset_Fixture {
 protected:
  // What explain() says would go; it must agree with what recycle() then does.
  std::vector<int> recycled(Recycle_Manager& recycler, const std::string& dataset) {
    const std::vector<int> before = numbers(dataset);
    std::vector<Recycle_Manager::Verdict> verdicts;
    EXPECT_TRUE(recycler.explain(dataset, verdicts)) << log_.dump();
    EXPECT_EQ(verdicts.size(), before.size());
    EXPECT_EQ(numbers(dataset), before);
    std::vector<int> staying;
    for (const auto& one : verdicts) {
      EXPECT_FALSE(one.reason.empty());
      if (!one.remove) staying.push_back(std::stoi(one.snapshot_id.substr(24)));
    }
    EXPECT_TRUE(recycler.recycle(dataset)) << log_.dump();
    EXPECT_EQ(numbers(dataset), staying);
    return staying;
  }
};

TEST_F(Recycling, TheNewestWithinTheRetentionCountStay) {
  struct Case {
    ACE_UINT16 keep;
    int snapshots;
    std::vector<int> left;
  };
  for (const Case& one : {Case{3, 5, {3, 4, 5}}, Case{3, 3, {1, 2, 3}}, Case{3, 1, {1}}, Case{0, 2, {}},
                          Case{65535, 4, {1, 2, 3, 4}}, Case{1, 0, {}}}) {
    SCOPED_TRACE(std::to_string(one.keep) + " of " + std::to_string(one.snapshots));
    retention(one.keep);
    add_lun(A, "Newest");  // no such type: the normal one
    add_filesystem(FS);
    add_snapshots(A, 1, one.snapshots);
    add_snapshots(FS, 1, one.snapshots);
    Volume_Recycle_Manager luns(POOL);
    Filesystem_Recycle_Manager filesystems(POOL);
    EXPECT_EQ(recycled(luns, A), one.left);
    EXPECT_EQ(recycled(filesystems, FS), one.left);
    ASSERT_TRUE(manager_.delete_lun(POOL, A, false) && manager_.delete_filesystem(POOL, FS));
  }
}

TEST_F(Recycling, WhatIsInUseOrNotMarkedStaysAndDoesNotStopTheRest) {
  retention(1);
  add_lun(A);
  add_snapshots(A, 1, 5);
  add_snapshots(A, 6, 6, false);
  add_snapshots(A, 7, 7);
  ACE_UINT16 number = 0;
  ASSERT_TRUE(manager_.add_snapshot_standby(POOL, id(1)));
  ASSERT_TRUE(manager_.update_snapshot_state(POOL, id(2), SCSI_Pool_Manager::DEPEND_STATE));
  ASSERT_TRUE(manager_.export_snapshot(POOL, id(3), acls(HOST), number, true, nullptr, nullptr))
      << log_.dump();
  Volume_Recycle_Manager recycler(POOL);
  EXPECT_EQ(recycled(recycler, A), (std::vector<int>{1, 2, 3, 6, 7}));
  add_snapshots(A, 8, 8);
  pool().volumes[A].info["clones"] = "p/one,p/two";
  EXPECT_EQ(recycled(recycler, A), (std::vector<int>{1, 2, 3, 6, 7, 8}));
  pool().volumes[A].info.erase("clones");
  EXPECT_EQ(recycled(recycler, A), (std::vector<int>{1, 2, 3, 6, 8}));
}

// Neither the ids nor the order in which they were recorded say which is the oldest.
TEST_F(Recycling, TheOldestHaveTheLowestNumbers) {
  retention(2);
  add_lun(A);
  add_filesystem(FS);
  for (const auto& [snapshot, seq] : std::vector<std::pair<int, int>>{{1, 8}, {2, 30}, {3, 7}, {4, 20}}) {
    ASSERT_TRUE(rows().add_snapshot(id(snapshot), A, POOL, "", seq, true, nullptr));
    ASSERT_TRUE(rows().add_filesystem_snapshot(id(snapshot), FS, POOL, "", seq, true, nullptr));
    pool().volumes[A].snapshots.push_back(id(snapshot));
    pool().filesystems[FS].snapshots.push_back(id(snapshot));
  }
  Volume_Recycle_Manager luns(POOL);
  Filesystem_Recycle_Manager filesystems(POOL);
  EXPECT_EQ(recycled(luns, A), (std::vector<int>{4, 2}));
  EXPECT_EQ(recycled(filesystems, FS), (std::vector<int>{4, 2}));
}

TEST_F(Recycling, WhatABackupRefersToIsHandedOn) {
  retention(0);
  add_lun(A);
  add_snapshots(A, 1, 2);
  auto* catalog = Storage_Catalog_Manager::instance();
  std::string why;
  ASSERT_TRUE(catalog->add_catalog(
      POOL, {{"uuid", id(50)}, {"extended_attrs", Object{{"snapshot_id", id(1)}}}}, why));
  Volume_Recycle_Manager recycler(POOL);
  EXPECT_EQ(recycled(recycler, A), (std::vector<int>{1}));
  Array left;
  EXPECT_TRUE(catalog->query_catalog(POOL, left));
  EXPECT_TRUE(left.empty());
  EXPECT_EQ(recycled(recycler, A), (std::vector<int>{}));  // nobody refers to it any more
}

TEST_F(Recycling, NewestOnlyKeepsTheBasesOfTheNextIncrement) {
  struct Case {
    const char* what;
    bool replicates;
    std::vector<int> on_target, left;
  };
  for (const Case& one : {Case{"no target", false, {}, {3}}, Case{"c1 is the base", true, {1}, {1, 3}},
                          Case{"all bases", true, {1, 2}, {1, 2, 3}}, Case{"target is empty", true, {}, {3}},
                          Case{"newest is there", true, {1, 3}, {3}}}) {
    SCOPED_TRACE(one.what);
    Scripted_Peer peer;
    if (one.replicates) replicate_to(peer.port());
    add_lun(A, "newest");
    add_snapshots(A, 1, 3);
    for (const int number : one.on_target)
      peer.snapshots.push_back({A, id(number), static_cast<ACE_UINT64>(number)});
    Volume_Recycle_Manager recycler(POOL);
    EXPECT_EQ(recycled(recycler, A), one.left);
    ASSERT_TRUE(manager_.delete_lun(POOL, A, false));
  }
}

TEST_F(Recycling, FailsWhenItCannotBeToldWhatToRemove) {
  Volume_Recycle_Manager luns(POOL);
  EXPECT_FALSE(luns.recycle(B));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to recycle snapshot: LUN " + B + " does not exist\n"));
  Scripted_Peer peer;
  replicate_to(peer.port());
  add_lun(A, "newest");
  add_snapshots(A, 1, 3);
  peer.refuse["GET"] = 1;
  EXPECT_FALSE(luns.recycle(A));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to get target pool snapshot\n"));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to recycle snapshot\n"));
  EXPECT_EQ(numbers(A), (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(SCSI_Pool_Manager::lun_retention_valid("newest") &&
              SCSI_Pool_Manager::lun_retention_valid("normal"));
  EXPECT_FALSE(SCSI_Pool_Manager::lun_retention_valid("Newest"));
}

// Attempts to connect take their time: once is enough.
TEST_F(Recycling, ATargetThatIsAwayIsTriedOnceAndNothingGoes) {
  retention(1);
  add_lun(A);
  add_snapshots(A, 1, 6);
  replicate_to(1);
  Volume_Recycle_Manager recycler(POOL);
  EXPECT_TRUE(recycler.recycle(A));
  EXPECT_EQ(numbers(A), (std::vector<int>{1, 2, 3, 4, 5, 6}));
  EXPECT_TRUE(
      log_.contains(LM_ERROR, "Failed to recycle snapshots: failed to delete snapshot '" + id(1) + "'"));
  EXPECT_FALSE(log_.contains(LM_ERROR, "failed to delete snapshot '" + id(2) + "'"));
  EXPECT_TRUE(log_.contains(LM_NOTICE, "'" + PEER_POOL + "' cannot be reached")) << log_.dump();
}

// A dataset of nothing but numbers, with what keeps each of them.
class Year : public Recycle_Manager {
 public:
  struct Hour {
    bool marked = true, exported = false, cloned = false;
    int standby = 0;
    std::string state = "idle";
    bool free() const { return state == "idle" && standby == 0 && !exported && !cloned; }
  };
  Year(const std::string& pool, SCSI_Pool_Manager::LUN_RETENTION_TYPE type)
      : Recycle_Manager(pool), type_(type) {}
  bool list_target_snapshots(const std::string&, json_spirit::Array& list) override {
    for (const auto& [hour, one] : held)
      list.push_back({{"id", std::to_string(hour)}, {"recycle", one.marked}});
    return true;
  }
  bool get_retention_type(const std::string&, SCSI_Pool_Manager::LUN_RETENTION_TYPE& type) override {
    type = type_;
    return true;
  }
  bool exist(const std::string&) override { return true; }
  bool delete_snapshot(const std::string& id) override {
    return !held[std::stoi(id)].cloned && held.erase(std::stoi(id)) == 1;
  }
  bool get_snapshot_state_info(const std::string& id, std::string& state, uint16_t& standby) override {
    standby = static_cast<uint16_t>(held[std::stoi(id)].standby);
    state = held[std::stoi(id)].state;
    return true;
  }
  bool snapshot_exported(const std::string& id) override { return held[std::stoi(id)].exported; }
  bool get_target_pool_snapshots(const std::string&, const std::string&, Snapshot_List& list) override {
    for (const int hour : on_target)
      list.push_back(std::to_string(hour));
    return true;
  }
  bool dependent_clones(const std::string&, const std::string& id,
                        std::vector<std::string>& clones) override {
    clones.clear();
    if (held[std::stoi(id)].cloned) clones.push_back("p/clone");
    return true;
  }

  // What retention asks for, said of one snapshot at a time: which hours go now.
  std::set<int> leaving(std::size_t retention, bool replicates) const {
    std::set<int> found;
    for (const auto& [hour, one] : held) {
      std::vector<int> newer;
      for (auto later = held.upper_bound(hour); later != held.end(); ++later)
        if (later->second.marked) newer.push_back(later->first);
      const bool newest_only = type_ == SCSI_Pool_Manager::RETENTION_TYPE_NEWEST;
      const bool surplus = newest_only ? !newer.empty() : newer.size() >= retention;
      const bool base = newest_only && replicates && surplus && on_target.count(hour) != 0 &&
                        on_target.count(newer.back()) == 0;
      if (one.marked && surplus && !base && one.free()) found.insert(hour);
    }
    return found;
  }

  std::map<int, Hour> held;
  std::set<int> on_target;

 private:
  SCSI_Pool_Manager::LUN_RETENTION_TYPE type_;
};

class A_Year : public Recycling,
               public ::testing::WithParamInterface<
                   std::tuple<SCSI_Pool_Manager::LUN_RETENTION_TYPE, bool /* replicates */>> {};

TEST_P(A_Year, OfHourlySnapshotsLosesExactlyWhatRetentionDoesNotKeep) {
  const auto [type, replicates] = GetParam();
  retention(24);
  Scripted_Peer peer;
  if (replicates) replicate_to(peer.port());
  Year year(POOL, type);
  std::mt19937 random(7);
  const auto one_in = [&random](unsigned n) { return random() % n == 0; };
#ifdef __SANITIZE_THREAD__
  constexpr int DAYS = 40;  // slow, and nothing to find in one thread
#else
  constexpr int DAYS = 365;
#endif
  for (int hour = 1; hour <= DAYS * 24; ++hour) {
    year.held[hour].marked = !one_in(300);
    // Some come into use, those in use are given back, and the target catches up from time to time.
    for (auto& [number, one] : year.held) {
      if (one.free() ? !one_in(40) : !one_in(6)) continue;
      const bool used = one.free();
      const unsigned how = random() % 4;
      const bool marked = one.marked;
      one = Year::Hour();
      one.marked = marked;
      if (!used) continue;
      one.exported = how == 0;
      one.standby = how == 1 ? 2 : 0;
      one.state = how == 2 ? "depend" : "idle";
      one.cloned = how == 3;
    }
    if (one_in(5))
      for (const auto& held : year.held)
        year.on_target.insert(held.first);

    std::set<int> expected, explained, left;
    const std::set<int> leaving = year.leaving(24, replicates);
    for (const auto& one : year.held)
      if (leaving.count(one.first) == 0) expected.insert(one.first);
    std::vector<Recycle_Manager::Verdict> verdicts;
    if (hour % 24 == 0) {
      ASSERT_TRUE(year.explain("d", verdicts));
      for (const auto& one : verdicts)
        if (!one.remove) explained.insert(std::stoi(one.snapshot_id));
      ASSERT_EQ(explained, expected) << hour;
    }
    ASSERT_TRUE(year.recycle("d"));
    for (const auto& one : year.held)
      left.insert(one.first);
    ASSERT_EQ(left, expected) << hour;
    for (const int gone : leaving)
      year.on_target.erase(gone);
  }
}

INSTANTIATE_TEST_SUITE_P(Types, A_Year,
                         ::testing::Values(std::make_tuple(SCSI_Pool_Manager::RETENTION_TYPE_NORMAL, false),
                                           std::make_tuple(SCSI_Pool_Manager::RETENTION_TYPE_NEWEST, false),
                                           std::make_tuple(SCSI_Pool_Manager::RETENTION_TYPE_NEWEST, true)));

}  // namespace
