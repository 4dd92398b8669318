// The rows of pools, volumes, sub filesystems, snapshots and exports. What callers see of them is tested with
// the pool manager.

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "platform/base/uuid.h"
#include "tests/unit/catalog/catalog_fixture.h"

namespace {

using platform::zero_uuid;
using Catalog = scsi_pool::SCSI_Pool_Sqlite_Manager;

class Catalog_Test : public Catalog_Fixture {
 protected:
  bool add_snapshot(int id, ACE_UINT64 seq, bool recycle, int pool = 1) {
    return catalog_.add_snapshot(uuid(id), uuid(10), uuid(pool), "c", seq, recycle, nullptr) &&
           catalog_.add_filesystem_snapshot(uuid(id), "fs", uuid(pool), "c", seq, recycle, nullptr);
  }
  // The seqs of the LUN's and the sub filesystem's listed snapshots as JSON text.
  std::string seqs(Catalog::Snapshot_List_Mode mode) {
    Array luns, filesystems, list;
    EXPECT_TRUE(catalog_.list_lun_snapshots(uuid(1), uuid(10), luns, mode));
    EXPECT_TRUE(catalog_.list_filesystem_snapshots(uuid(1), "fs", filesystems, mode));
    for (const Array* rows : {&luns, &filesystems})
      for (const Value& row : *rows)
        list.push_back(row.at("seq"));
    return JSON_Dump(list);
  }
  // "state/standby/recycle" of a sub filesystem's snapshot.
  std::string marks(int pool, int id) {
    Object state;
    Array rows;
    if (!catalog_.get_filesystem_snapshot_state_info(uuid(pool), uuid(id), state)) return "failed";
    if (!catalog_.list_all_filesystem_snapshots(uuid(pool), rows, uuid(id).c_str())) return "failed";
    return state["state"].get<std::string>() + "/" + state["standby"].dump() + "/" +
           rows.at(0).at("recycle").dump();
  }
};

// Replication gives two pools the same LUNs, sub filesystems and snapshots.
TEST_F(Catalog_Test, what_is_changed_and_deleted_in_one_pool_stays_in_another) {
  for (int pool : {1, 2}) {
    ASSERT_TRUE(add_pool(uuid(pool)) && add_volume(uuid(pool), uuid(10), zero_uuid()));
    ASSERT_TRUE(add_filesystem(uuid(pool), "fs", true, zero_uuid()) && add_snapshot(20, 1, false, pool));
    ASSERT_TRUE(catalog_.add_export(uuid(10), uuid(pool), 7, "[]", "FC", "naa.1"));
  }
  const auto all_of = [this](int pool) {
    Array rows, all;
    for (const auto& list : std::vector<std::function<bool()>>{
             [&] { return catalog_.list_pools(rows, uuid(pool).c_str()); },
             [&] { return catalog_.list_volume(uuid(pool), rows, nullptr); },
             [&] { return catalog_.list_lun(uuid(pool), rows, nullptr); },
             [&] { return catalog_.list_filesystem(uuid(pool), rows, ""); },
             [&] { return catalog_.list_snapshots(uuid(pool), rows, nullptr); },
             [&] { return catalog_.list_export(uuid(pool), rows, nullptr); }}) {
      EXPECT_TRUE(list());
      all.insert(all.end(), rows.begin(), rows.end());
    }
    return JSON_Dump(all) + marks(pool, 20);
  };
  const std::string before = all_of(2);
  EXPECT_TRUE(catalog_.update_pool(uuid(1), 65535, "new", "{}"));
  EXPECT_TRUE(catalog_.update_volume_ctime(uuid(1), uuid(10), "now"));
  EXPECT_TRUE(catalog_.update_volume_ext_attrs(uuid(1), uuid(10), R"({"name":"x"})"));
  EXPECT_TRUE(catalog_.update_export_acls(uuid(1), uuid(10), "[2]"));
  EXPECT_TRUE(catalog_.update_snapshot_state(uuid(1), "", "sending"));
  EXPECT_TRUE(catalog_.update_snapshot_standby(uuid(1), uuid(20), 65535));
  EXPECT_TRUE(catalog_.update_snapshot_recycle(uuid(1), uuid(20), true));
  EXPECT_TRUE(catalog_.update_snapshot_ext_attrs(uuid(1), uuid(20), R"({"k":1})"));
  EXPECT_TRUE(catalog_.update_mounted_info(uuid(1), "fs", false));
  EXPECT_TRUE(catalog_.update_mountpoint(uuid(1), "fs", "/other"));
  EXPECT_TRUE(catalog_.update_filesystem_ctime(uuid(1), "fs", "now"));
  EXPECT_EQ(all_of(2), before);
  for (const char* changed : {"65535", "now", "[2]", "sending", "/other", R"(\"k\":1)", R"(\"name\")"})
    EXPECT_NE(all_of(1).find(changed), std::string::npos) << changed << all_of(1);
  EXPECT_TRUE(catalog_.del_export(uuid(1), uuid(10)) && catalog_.del_snapshot(uuid(1), uuid(20)));
  EXPECT_TRUE(catalog_.del_filesystem_snapshot(uuid(1), uuid(20)) && catalog_.del_filesystem(uuid(1), "fs"));
  EXPECT_TRUE(catalog_.del_volume(uuid(1), uuid(10)) && catalog_.del_pool(uuid(1)));
  EXPECT_EQ(all_of(1), "[]failed");
  EXPECT_EQ(all_of(2), before);
}

TEST_F(Catalog_Test, snapshots_are_numbered_and_filtered) {
  ASSERT_TRUE(add_pool(uuid(1)) && add_volume(uuid(1), uuid(10), zero_uuid()));
  ASSERT_TRUE(add_filesystem(uuid(1), "fs", false, zero_uuid()));
  ACE_UINT64 lun = 99, filesystem = 99;
  EXPECT_TRUE(catalog_.get_last_seq(uuid(1), uuid(10), lun));
  EXPECT_TRUE(catalog_.get_last_filesystem_seq(uuid(1), "fs", filesystem));
  EXPECT_EQ(lun + filesystem, 0u);
  ASSERT_TRUE(add_snapshot(22, 5000000000ULL, true) && add_snapshot(20, 1, true) &&
              add_snapshot(21, 2, false));
  EXPECT_TRUE(catalog_.get_last_seq(uuid(1), uuid(10), lun));
  EXPECT_TRUE(catalog_.get_last_filesystem_seq(uuid(1), "fs", filesystem));
  EXPECT_EQ(lun, 5000000000ULL);
  EXPECT_EQ(filesystem, 5000000000ULL);
  EXPECT_EQ(seqs(Catalog::SNAPSHOT_LIST_ALL), "[1,2,5000000000,1,2,5000000000]");
  EXPECT_EQ(seqs(Catalog::SNAPSHOT_LIST_RECYCLE), "[1,5000000000,1,5000000000]");
  EXPECT_EQ(seqs(Catalog::SNAPSHOT_LIST_NOT_RECYCLE), "[2,2]");
  Object info;
  ASSERT_TRUE(catalog_.get_snapshot_info(uuid(1), uuid(10), ACE_UINT64(2), info));
  EXPECT_EQ(info["snapshot_uuid"], uuid(21));
  EXPECT_FALSE(catalog_.get_snapshot_info(uuid(1), uuid(10), ACE_UINT64(3), info));
  EXPECT_EQ(info["snapshot_uuid"], uuid(21)) << "untouched";
}

TEST_F(Catalog_Test, clones_are_volumes_but_no_luns) {
  ASSERT_TRUE(add_volume(uuid(1), uuid(10), zero_uuid()) && add_volume(uuid(1), uuid(12), uuid(20)));
  Array rows;
  ASSERT_TRUE(catalog_.list_lun(uuid(1), rows, nullptr));
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].at("lun_uuid"), uuid(10));
  ASSERT_TRUE(catalog_.list_lun(uuid(1), rows, uuid(12).c_str()));
  EXPECT_TRUE(rows.empty());
  EXPECT_TRUE(catalog_.lun_exist(uuid(1), uuid(12)));
  ASSERT_TRUE(catalog_.list_volume(uuid(1), rows, ""));
  EXPECT_EQ(rows.size(), 2u);
}

TEST_F(Catalog_Test, marks_change_only_what_is_given) {
  ASSERT_TRUE(add_snapshot(20, 1, false) && add_snapshot(21, 2, false));
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
  }
  for (const Object& nothing : {Object{{"other", 1}}, Object{{"standby", 65536}, {"recycle", "x"}}}) {
    EXPECT_FALSE(catalog_.update_filesystem_snapshot_info(uuid(1), "", nothing));
    EXPECT_EQ(marks(1, 20), "depend/2/true");
  }
}

TEST_F(Catalog_Test, names_are_values_and_a_pool_is_stored_once) {
  ASSERT_TRUE(add_pool(uuid(1), "it's"));
  EXPECT_TRUE(catalog_.pool_exist_by_name("it's"));
  EXPECT_FALSE(catalog_.pool_exist_by_name("x' OR '1'='1"));
  const Log_Capture log;
  EXPECT_FALSE(add_pool(uuid(1), "other"));
  EXPECT_EQ(log.errors(), "Failed to add SCSI pool to database\n");
}

struct Failure_Case {
  const char* text;  // null: no error line
  std::function<bool(Catalog&, const std::string& bad)> run;
};

// Each operation fails on a UUID that is none.
const Failure_Case failures[] = {
    {"Failed to add SCSI pool to database\n",
     [](Catalog& c, const std::string& bad) {
       return c.add_pool(bad, "n", "zfs", "", "", false, false, 1, "", "", 1, "{}");
     }},
    {"Failed to update SCSI pool in database\n",
     [](Catalog& c, const std::string& bad) { return c.update_pool(bad, 1, "n", "{}"); }},
    {"Failed to add volume to database\n",
     [](Catalog& c, const std::string& bad) {
       Catalog::Volume_Info info;
       info.uuid = bad;
       return c.add_volume(info);
     }},
    {"Failed to remove volume from database\n",
     [](Catalog& c, const std::string& bad) { return c.del_volume(bad, uuid(1)); }},
    {"Failed to add snapshot to database\n",
     [](Catalog& c, const std::string& bad) {
       return c.add_snapshot(bad, uuid(1), uuid(1), "", 1, false, nullptr);
     }},
    {"Failed to delete snapshot from database\n",
     [](Catalog& c, const std::string& bad) { return c.del_snapshot(uuid(1), bad); }},
    {"Failed to add export snapshot to database\n",
     [](Catalog& c, const std::string& bad) { return c.add_export(bad, uuid(1), 1, "", nullptr, nullptr); }},
    {"Failed to delete export snapshots from database\n",
     [](Catalog& c, const std::string& bad) { return c.del_export(uuid(1), bad); }},
    {"Failed to add filesystem to database\n",
     [](Catalog& c, const std::string& bad) {
       Catalog::Filesystem_Info info;
       info.snapshot_uuid = bad;
       return c.add_filesystem(info);
     }},
    {"Failed to remove filesystem from database\n",
     [](Catalog& c, const std::string& bad) { return c.del_filesystem(bad, "n"); }},
    {"Failed to add snapshot to database\n",
     [](Catalog& c, const std::string& bad) {
       return c.add_filesystem_snapshot(bad, "n", uuid(1), "", 1, false, nullptr);
     }},
    {"Failed to delete snapshot from database\n",
     [](Catalog& c, const std::string& bad) { return c.del_filesystem_snapshot(uuid(1), bad); }},
    {nullptr, [](Catalog& c, const std::string& bad) { return c.update_volume_ctime(bad, uuid(1), ""); }},
    {nullptr, [](Catalog& c, const std::string& bad) { return c.update_mountpoint(bad, "n", "/m"); }},
    {nullptr, [](Catalog& c, const std::string& bad) { return c.pool_exist(bad); }},
    {nullptr,
     [](Catalog& c, const std::string& bad) {
       json_spirit::Object info;
       return c.get_pool_info(bad, info);
     }},
};

TEST_F(Catalog_Test, failures_are_told_in_the_words_of_the_operation) {
  for (const Failure_Case& one : failures) {
    const Log_Capture log;
    EXPECT_FALSE(one.run(catalog_, "no-uuid"));
    EXPECT_EQ(log.errors(), one.text != nullptr ? one.text : "") << log.dump();
    EXPECT_TRUE(log.contains(LM_NOTICE, "'no-uuid' is no UUID")) << log.dump();
  }
  disconnect();
  for (const Failure_Case& one : failures) {
    const Log_Capture log;
    EXPECT_FALSE(one.run(catalog_, uuid(1)));
    EXPECT_TRUE(log.contains(LM_ERROR, "Failed to connect to database 'scsi_pool_manager' at "))
        << log.dump();
    EXPECT_TRUE(one.text == nullptr || !log.contains(LM_ERROR, one.text)) << log.dump();
  }
}

TEST_F(Catalog_Test, threads_write_and_read_at_the_same_time) {
  ASSERT_TRUE(add_pool(uuid(1)));
  constexpr int THREADS = 6;
  constexpr int ROWS = 15;
  std::vector<std::thread> threads;
  std::atomic<int> failed{0};
  for (int thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([this, thread, &failed] {
      for (int row = 0; row < ROWS; ++row) {
        const std::string id = uuid(1000 + thread * ROWS + row);
        Object info;
        if (!add_volume(uuid(1), id, zero_uuid()) || !catalog_.get_volume_info(uuid(1), id, info)) ++failed;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(failed, 0);
  Array rows;
  ASSERT_TRUE(catalog_.list_volume(uuid(1), rows, nullptr));
  EXPECT_EQ(rows.size(), static_cast<std::size_t>(THREADS * ROWS));
}

}  // namespace
