// Snapshots from many threads at once.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <thread>

#include "tests/support/dataset_fixture.h"

namespace {

class Snapshot_Threads : public Dataset_Fixture {
 protected:
  static constexpr int THREADS = 8;
  // How long the threads work; more in the environment.
  static int seconds() {
    const char* text = std::getenv("SCSIPOOL_SOAK_SECONDS");
    return text != nullptr ? std::atoi(text) : 3;
  }
  template <typename Work>
  static void run(Work work) {
    std::vector<std::thread> threads;
    for (int n = 0; n < THREADS; ++n)
      threads.emplace_back(work, n);
    for (std::thread& one : threads)
      one.join();
  }
};

TEST_F(Snapshot_Threads, NoChangeOfAStandbyCountIsLost) {
  add_lun(A);
  add_filesystem(FS);
  add_snapshots(A, 1, 1);
  add_snapshots(FS, 2, 2);
  run([this](int n) {
    for (int round = 0; round < 25; ++round) {
      EXPECT_TRUE(manager_.add_snapshot_standby(POOL, id(1)));
      EXPECT_TRUE(manager_.add_filesystem_snapshot_standby(POOL, id(2)));
      if (n % 2 == 0) {
        EXPECT_TRUE(manager_.sub_snapshot_standby(POOL, id(1)));
        EXPECT_TRUE(manager_.sub_filesystem_snapshot_standby(POOL, id(2)));
      }
      std::string state;
      ACE_UINT16 count = 0;
      EXPECT_TRUE(manager_.get_snapshot_state_info(POOL, id(1), state, count));
    }
  });
  EXPECT_EQ(standby(id(1)), THREADS / 2 * 25);
  EXPECT_EQ(standby(id(2), false), THREADS / 2 * 25);
}

// Each thread takes snapshots and deletes its oldest but four: the number of a new one is above all of its
// own.
TEST_F(Snapshot_Threads, NumbersRiseAndCatalogAndStorageAgree) {
  add_lun(A);
  add_lun(B);
  std::atomic<long> made{0};
  std::atomic<std::size_t> kept{0};  // of A
  // B's are recycled as well, so that deletion and recycling meet.
  for (const std::string& lun : {A, B}) {
    SCOPED_TRACE(lun);
    retention(lun == A ? 60000 : 6);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500 * seconds());
    run([&](int) {
      const Log_Capture log;  // of this thread
      std::deque<std::string> own;
      ACE_UINT64 number = 0;
      while (std::chrono::steady_clock::now() < end) {
        std::string taken;
        EXPECT_TRUE(manager_.create_snapshot(POOL, lun, taken, true)) << log.dump();
        ++made;
        own.push_back(taken);
        Object row;
        if (rows().get_snapshot_info(POOL, taken, row)) {
          const ACE_UINT64 next = json_spirit::object_get<ACE_UINT64>(row, "seq");
          EXPECT_TRUE(lun != A || next > number);
          number = next;
        }
        if (own.size() < 5) continue;
        const bool deleted = manager_.delete_snapshot(POOL, own.front(), false);
        EXPECT_TRUE(lun != A || deleted);
        own.pop_front();
      }
      if (lun == A) kept += own.size();
    });
    Array list;
    ASSERT_TRUE(manager_.list_lun_snapshots(POOL, lun, list));
    const std::size_t left = list.size();
    EXPECT_TRUE(lun == A ? left == kept : left < 6u + THREADS) << left << " of " << kept;
    Ids recorded;
    ACE_UINT64 before = 0;
    for (const auto& one : list) {
      const ACE_UINT64 seq = one["seq"].get<ACE_UINT64>();
      EXPECT_GT(seq, before);
      before = seq;
      recorded.push_back(one["id"].get<std::string>());
    }
    EXPECT_EQ(recorded, pool().volumes[lun].snapshots) << "in the order of their numbers";
  }
  RecordProperty("snapshots", static_cast<int>(made));
}

}  // namespace
