// Whole runs of a job against a scripted peer.

#include <thread>

#include "tests/unit/replication/replication_fixture.h"

namespace {

class Executor : public Replication_Fixture {
 protected:
  // Runs a job of the datasets and returns its error message, empty after a success.
  std::string run(const Array& datasets) { return run(definition(datasets)); }
  std::string run(Definition def) {
    job_ = submit(def);
    const bool done = Job_Manager::instance()->start_job(job_);
    EXPECT_EQ(job_->job_state(), done ? Job::JOB_STATE_SUCCEEDED : Job::JOB_STATE_FAILED);
    EXPECT_EQ(newest()->job_state(), job_->job_state());
    EXPECT_NE(job_->end_time(), 0);
    EXPECT_EQ(alert_ids_.back(), done ? STORAGED_REPLICATE_INFO_COMPLETED : STORAGED_REPLICATE_ERROR_FAILED);
    if (!done) {
      EXPECT_EQ(alerts_.back()["message"], job_->error_message());
    }
    if (!done) {
      EXPECT_EQ(job_->error_code(), -1);
    }
    return done ? "" : job_->error_message();
  }
  // The numbers of the snapshots that came, in order, with their bases: "3<2 4<2,3".
  std::string streams() {
    std::string text;
    for (std::size_t n = 0; n < peer_.received.size(); ++n) {
      const std::string& path = peer_.received[n].path;
      const std::size_t at = path.find("cccccccc");
      text += (n == 0 ? "" : " ") + std::to_string(std::stoi(path.substr(at + 24, 12)));
      const char* mark = "<";
      for (const std::string& base : pool().bases.at(n)) {
        text += mark + std::to_string(std::stoi(base.substr(24)));
        mark = ",";
      }
      EXPECT_TRUE(peer_.received[n].whole);
    }
    return text;
  }
  std::size_t first(const std::string& begin) const {
    std::size_t n = 0;
    while (n < peer_.requests.size() && peer_.requests[n].compare(0, begin.size(), begin) != 0)
      ++n;
    return n;
  }

  Job_var job_;
};

TEST_F(Executor, SendsWhatIsMissingOnTheNewestCommonBase) {
  add_snapshots(A, 1, 3);
  peer_.luns = {A, B};
  peer_.snapshots = {{A, id(2), 2}, {"unknown", id(30), 1}, {B, id(40), 1}};
  std::string states;
  peer_.on_stream = [&] { states = state(id(1)) + " " + state(id(2)) + " " + state(id(3)); };
  EXPECT_EQ(run(lun(A)), "");
  EXPECT_EQ(streams(), "3<2");
  EXPECT_EQ(states, "idle depend sending");
  EXPECT_EQ(state(id(2)) + state(id(3)), "idleidle");
  EXPECT_EQ(events_, "1 4:0 4:33 4:66 6");
  EXPECT_EQ(newest()->progress(), 100);
  EXPECT_EQ(newest()->data_size(), 6u);
  for (int n = 1; n <= 3; ++n)
    EXPECT_EQ(standby(id(n)), 0u);
  EXPECT_EQ(peer_.received[0].path,
            "/svc/scsipool/receive/" + PEER_POOL + "/1/" + A + "/" + id(3) + "/recycle/3");
  EXPECT_EQ(peer_.received[0].body, "stream");
  EXPECT_EQ(peer_.received[0].whole_seq, "3");
  const std::size_t unexport =
      first("DELETE /svc/r/scsipool/lun/export?pool_id=" + PEER_POOL + "&lun_id=" + A);
  EXPECT_LT(unexport, first("POST")) << peer_.dump();
  EXPECT_LT(first("POST"), first("PUT /svc/r/scsipool/lun ")) << peer_.dump();
}

TEST_F(Executor, MakesTheMissingDatasetAndBuildsOneStreamOnTheOther) {
  add_filesystem(FS);
  for (const auto& one : {std::make_pair(A, std::string("normal")), std::make_pair(B, std::string("newest")),
                          std::make_pair(FS, std::string("normal"))}) {
    SCOPED_TRACE(one.first);
    if (one.first == B) add_lun(B, "newest");
    add_snapshots(one.first, 1, 2);
    peer_.received.clear();
    pool().bases.clear();
    const bool fs = one.first == FS;
    EXPECT_EQ(run({Object{{fs ? "filesystem_name" : "lun_uuid", one.first}}}), "");
    EXPECT_EQ(streams(), one.second == "newest" ? "2" : "1 2<1");
    Object expected{{"pool_id", PEER_POOL}};
    if (fs) {
      expected["name"] = FS;
    } else {
      expected.insert({{"lun_size", SIZE}, {"lun_id", one.first}, {"export", false}});
    }
    if (one.second == "newest") expected["retention_type"] = "newest";
    EXPECT_EQ(peer_.created, expected);
    EXPECT_EQ(peer_.received[0].path.find(fs ? "/0/" + FS + "/" : "/1/") == std::string::npos, false);
    // Out of the way: an id is recorded once.
    ASSERT_TRUE(fs || manager_.delete_lun(POOL, one.first, false));
  }
  EXPECT_EQ(peer_.count("DELETE /svc/r/scsipool/lun/export"), 0u);
}

// As zfs receive does, which replaces the newer ones when a stream is on an older base.
TEST_F(Executor, SendsAgainWhatAStreamOnAnOlderBaseHasReplaced) {
  add_snapshots(A, 1, 3);
  peer_.luns = {A};
  peer_.snapshots = {{A, id(1), 1}, {A, id(3), 3}, {A, id(3), 3}};
  peer_.on_stream = [&] {
    if (peer_.received.empty()) peer_.snapshots = {{A, id(1), 1}, {A, id(2), 2}};
  };
  EXPECT_EQ(run(lun(A)), "");
  EXPECT_EQ(streams(), "2<1 3<1,2");
}

TEST_F(Executor, RemovesWhatIsInTheWayOfAFullStreamFirst) {
  add_snapshots(A, 5, 6);
  peer_.luns = {A};
  peer_.snapshots = {{A, id(81), 1}, {A, id(82), 2}};
  peer_.refuse["DELETE /svc/r/scsipool/snapshot"] = 1;
  EXPECT_EQ(run(lun(A)), "Failed to execute scsi pool replicate:failed to remove target snapshot\n");
  EXPECT_EQ(streams(), "");
  EXPECT_EQ(run(lun(A)), "");
  EXPECT_EQ(streams(), "5 6<5");
  EXPECT_EQ(peer_.count("DELETE /svc/r/scsipool/snapshot?pool_id=" + PEER_POOL + "&lun_id=" + A), 3u)
      << peer_.dump();
}

TEST_F(Executor, SendsOnlyTheNewestOfANewestOnlyLun) {
  add_lun(B, "newest");
  add_snapshots(B, 1, 3);
  peer_.luns = {B};
  peer_.snapshots = {{B, id(1), 1}};
  EXPECT_EQ(run(lun(B)), "");
  EXPECT_EQ(streams(), "3<1");
  EXPECT_EQ(events_, "1 4:0 4:66 6");
}

TEST_F(Executor, ANewestThatIsGoneCostsTheTargetNothing) {
  add_lun(B, "newest");
  add_snapshots(B, 1, 1);
  add_snapshots(A, 2, 2);
  peer_.luns = {A, B};
  peer_.snapshots = {{B, id(9), 9}};
  peer_.on_stream = [&] { EXPECT_TRUE(rows().del_snapshot(POOL, id(1))); };
  EXPECT_EQ(run({lun(A)[0], lun(B)[0]}), "");
  EXPECT_EQ(streams(), "2");
  EXPECT_EQ(peer_.count("DELETE /svc/r/scsipool/snapshot"), 0u) << peer_.dump();
}

TEST_F(Executor, TriesAgainUpToItsRetryCount) {
  add_snapshots(A, 1, 1);
  peer_.refuse["POST /svc/scsipool/receive"] = 4;
  EXPECT_EQ(run(lun(A)), "");
  EXPECT_EQ(peer_.count("DELETE /svc/scsipool/receive"), 4u);
  add_snapshots(A, 2, 2);
  peer_.requests.clear();
  peer_.refuse["POST /svc/scsipool/receive"] = 5;
  EXPECT_EQ(run(lun(A)), "Failed to execute scsi pool replicate:send snapshot data error\n");
  EXPECT_EQ(peer_.count("DELETE /svc/scsipool/receive/" + PEER_POOL + "/1/" + A + "/" + id(1)), 5u)
      << peer_.dump();
  EXPECT_EQ(state(id(1)), "idle");
  EXPECT_EQ(standby(id(1)), 0u);
  EXPECT_EQ(events_.substr(events_.size() - 1), "5");
  EXPECT_EQ(peer_.count("PUT"), 0u);
}

TEST_F(Executor, StopsAtTheFirstThingThatIsWrong) {
  add_snapshots(A, 1, 1);
  peer_.luns = {A};
  peer_.snapshots = {{A, id(9), 9}};
  const std::string begin = "Failed to execute scsi pool replicate:";
  struct Case {
    const char* refuse;
    json_spirit::Value pools;
    bool without_seq;
    std::string message, log;
  };
  const json_spirit::Value zfs = peer_.pools, btrfs = Array{Object{{"fs_type", "btrfs"}}};
  for (const Case& one :
       {Case{"", btrfs, false, "filesystem is different", "source pool is 'zfs', target pool is 'btrfs'"},
        Case{"", Array{}, false, "filesystem is different", "get target pool info error"},
        Case{"", Array{Object{}}, false, "filesystem is different", "get type error"},
        Case{"GET /svc/r/pool", zfs, false, "filesystem is different", "get target pool info error"},
        Case{"GET /svc/r/scsipool/fs", zfs, false, "get target pool datasets error",
             "Failed to get filesystem from target pool " + PEER_POOL + "."},
        Case{"", zfs, true, "get target pool datasets error", "Failed to get lun snapshot from target pool"},
        Case{"DELETE /svc/r/scsipool/lun/export", zfs, false, "unexport target pool dataset error",
             "Failed to unexport target lun"}}) {
    SCOPED_TRACE(one.log);
    peer_.pools = one.pools;
    peer_.without_seq = one.without_seq;
    peer_.refuse = {{*one.refuse != '\0' ? one.refuse : "-", 1}};
    log_.clear();
    EXPECT_EQ(run(lun(A)), begin + one.message + "\n");
    EXPECT_TRUE(log_.contains(LM_ERROR, one.log)) << log_.dump();
    EXPECT_EQ(peer_.count("POST"), 0u);
    EXPECT_EQ(standby(id(1)), 0u);
  }
}

TEST_F(Executor, EndsWhenTheTargetIsAnotherOneByNow) {
  add_snapshots(A, 1, 1);
  Definition def = definition(lun(A));
  def.target_pool_uuid(id(70));
  job_ = submit(def);
  EXPECT_FALSE(Job_Manager::instance()->start_job(job_));
  EXPECT_EQ(job_->error_message(), "Failed to execute scsi pool replicate: replication info is remove\n");
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to make scsi pool replicate alert params.\n"));
  std::string why;
  ASSERT_TRUE(Storage_Catalog_Manager::instance()->clear_replicate(POOL, why));
  EXPECT_EQ(run(lun(A)), "Failed to execute scsi pool replicate: replication info is remove\n");
  EXPECT_TRUE(peer_.requests.empty());
}

TEST_F(Executor, TakesItsSettingsFromTheDefinition) {
  add_snapshots(A, 1, 1);
  const std::string limits[] = {"[]", R"({"rate_limiting":[{"start_time":"0:00"}]})",
                                R"({"max_seconds_retry":1,"rate_limiting":[
                                    {"max_bytes_per_second":65536,"start_time":"0:00","end_time":"24:00"}]})"};
  for (const std::string& limit : limits) {
    pool().send_command = "head -c 200000 /dev/zero";
    peer_.snapshots.clear();
    Definition def = definition(lun(A));
    def.extended_attrs(limit);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(run(def), limit == "[]" ? "Failed to init scsi pool replicate.\n" : "");
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(&limit != &limits[2] || taken.count() > 0.9) << taken.count();
  }
  EXPECT_TRUE(log_.contains(LM_ERROR, "rate limiting info: ")) << log_.dump();
}

TEST_F(Executor, WaitsForTheBackupThatNamesTheNewestSnapshot) {
  add_snapshots(A, 1, 1);
  auto* catalog = Storage_Catalog_Manager::instance();
  const auto name = [&](int snapshot) {
    std::string why;
    EXPECT_TRUE(catalog->add_catalog(
        POOL, {{"uuid", id(60)}, {"extended_attrs", Object{{"snapshot_id", id(snapshot)}}}}, why));
  };
  name(33);
  std::thread backup([&] {
    Array events;
    while (events.empty()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      EXPECT_TRUE(list_events(events));
    }
    EXPECT_EQ(events[0]["kind"], "waiting");
    EXPECT_EQ(events[0]["params"]["snapshot_id"], id(1));
    EXPECT_EQ(newest()->job_state(), Job::JOB_STATE_PENDING);
    name(1);
  });
  EXPECT_EQ(run(lun(A)), "");
  backup.join();
  EXPECT_EQ(streams(), "1");
  EXPECT_EQ(peer_.count("PUT /svc/r/catalog"), 1u) << peer_.dump();

  name(33);
  local_url_ = "lanfree://storage";  // does not wait
  EXPECT_EQ(run(lun(A)), "");
}

}  // namespace
