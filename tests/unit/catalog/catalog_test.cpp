// Pools, volumes, snapshots and exports.
#include <sqlite3.h>

#include <atomic>
#include <functional>
#include <set>
#include <thread>

#include "platform/base/uuid.h"
#include "tests/unit/catalog/catalog_fixture.h"

namespace {

using platform::zero_uuid;
using Catalog = scsi_pool::SCSI_Pool_Sqlite_Manager;

class Catalog_Test : public Catalog_Fixture {
 protected:
  bool add_snapshot(const std::string& id, int lun, ACE_UINT64 seq, bool recycle,
                    const std::string& pool = uuid(1)) {
    return catalog_.add_snapshot(id, uuid(lun), pool, "ctime " + std::to_string(seq), seq, recycle, nullptr);
  }
  // The seqs of a LUN's listed snapshots as JSON text.
  std::string seqs(int lun, Catalog::Snapshot_List_Mode mode) {
    Array rows;
    if (!catalog_.list_lun_snapshots(uuid(1), uuid(lun), rows, mode)) return "failed";
    Array list;
    for (const Value& row : rows)
      list.push_back(row.at("seq"));
    return JSON_Dump(list);
  }
  // Makes the database refuse to delete pools.
  void block_deletes() {
    manager_->close();
    sqlite3* handle = nullptr;
    ASSERT_EQ(sqlite3_open((dir_ / "scsi_pool_manager.db").c_str(), &handle), SQLITE_OK);
#ifdef SQLITE_HAS_CODEC
    const std::string key = "x'" + std::string(64, 'a') + "'";
    if (GetParam()) sqlite3_key(handle, key.data(), static_cast<int>(key.size()));
#endif
    EXPECT_EQ(
        sqlite3_exec(handle,
                     "CREATE TRIGGER refuse BEFORE DELETE ON scsi_pool BEGIN SELECT RAISE(ABORT, 'no'); END",
                     nullptr, nullptr, nullptr),
        SQLITE_OK);
    sqlite3_close(handle);
  }
  std::string states(const std::string& pool) {
    Array rows;
    if (!catalog_.list_snapshots(pool, rows, nullptr)) return "failed";
    std::string text;
    for (const Value& row : rows)
      text += row.at("state").get<std::string>() + std::to_string(row.at("standby").get<int>()) + " ";
    return text;
  }
};

TEST_P(Catalog_Test, a_pool_comes_back_whole) {
  ASSERT_TRUE(catalog_.open());
  ASSERT_TRUE(add_pool(uuid(1)));
  const Value wanted = {
      {"uuid", uuid(1)},      {"name", "pool"},    {"fs_type", "zfs"},   {"global_dev", "orbistor"},
      {"compression", "lz4"}, {"dedup", true},     {"size", 1ULL << 40}, {"thin_provision", false},
      {"type", "iSCSI"},      {"target", "iqn.x"}, {"retention", 3},     {"extended_attrs", R"({"a":1})"}};
  Object info;
  ASSERT_TRUE(catalog_.get_pool_info(uuid(1), info));
  EXPECT_EQ(Value(info), wanted);

  ASSERT_TRUE(catalog_.update_pool(uuid(1), 65535, "new name", "{}"));
  ASSERT_TRUE(catalog_.get_pool_info(uuid(1), info));
  EXPECT_EQ(info["retention"], 65535);
  EXPECT_EQ(info["name"], "new name");
  EXPECT_EQ(info["extended_attrs"], "{}");
  EXPECT_EQ(info["size"], 1ULL << 40);
  EXPECT_EQ(catalog_.get_err_code(), Catalog::E_OK);
}

TEST_P(Catalog_Test, pools_are_found_listed_and_deleted) {
  ASSERT_TRUE(add_pool(uuid(1), "one"));
  ASSERT_TRUE(add_pool(uuid(2), "two"));
  EXPECT_TRUE(catalog_.pool_exist(uuid(2)));
  EXPECT_FALSE(catalog_.pool_exist(uuid(3)));
  EXPECT_TRUE(catalog_.pool_exist_by_name("two"));
  EXPECT_FALSE(catalog_.pool_exist_by_name("Two' OR '1'='1"));
  const struct {
    const char* filter;
    std::size_t wanted;
  } lists[] = {{nullptr, 2}, {"", 2}, {"0a000000-0000-4000-8000-000000000002", 1}, {zero_uuid().c_str(), 0}};
  for (const auto& one : lists) {
    Array pools = {1};
    EXPECT_TRUE(catalog_.list_pools(pools, one.filter));
    EXPECT_EQ(pools.size(), one.wanted);
  }
  const Log_Capture log;
  EXPECT_TRUE(catalog_.del_pool(uuid(3)));
  EXPECT_TRUE(catalog_.del_pool(uuid(1)));
  EXPECT_FALSE(catalog_.pool_exist(uuid(1)));
  EXPECT_TRUE(catalog_.pool_exist(uuid(2)));
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_P(Catalog_Test, luns_are_listed_with_their_export_and_without_clones) {
  ASSERT_TRUE(add_volume(uuid(1), uuid(10), zero_uuid()));
  ASSERT_TRUE(add_volume(uuid(1), uuid(11), zero_uuid()));
  ASSERT_TRUE(add_volume(uuid(1), uuid(12), uuid(20)));     // a clone
  ASSERT_TRUE(add_volume(uuid(2), uuid(10), zero_uuid()));  // the same LUN in another pool
  for (int twice = 0; twice < 2; ++twice)
    ASSERT_TRUE(catalog_.add_export(uuid(11), uuid(1), 7, "[]", "FC", "naa.1"));
  Array luns;
  ASSERT_TRUE(catalog_.list_lun(uuid(1), luns, nullptr));
  const Value free_lun = {{"lun_uuid", uuid(10)},   {"export_snapshot_uuid", nullptr},
                          {"pool_uuid", uuid(1)},   {"size", 4096},
                          {"lun_num", nullptr},     {"acls", nullptr},
                          {"extended_attrs", "{}"}, {"ext_type", nullptr},
                          {"ext_target", nullptr}};
  const Value exported = {{"lun_uuid", uuid(11)},   {"export_snapshot_uuid", uuid(11)},
                          {"pool_uuid", uuid(1)},   {"size", 4096},
                          {"lun_num", 7},           {"acls", "[]"},
                          {"extended_attrs", "{}"}, {"ext_type", "FC"},
                          {"ext_target", "naa.1"}};
  EXPECT_EQ(Value(luns), Value::array({free_lun, exported}));
  ASSERT_TRUE(catalog_.list_lun(uuid(1), luns, uuid(11).c_str()));
  EXPECT_EQ(Value(luns), Value::array({exported}));
  ASSERT_TRUE(catalog_.list_lun(uuid(1), luns, uuid(12).c_str()));
  EXPECT_TRUE(luns.empty());
  EXPECT_TRUE(catalog_.lun_exist(uuid(1), uuid(12)));
  ASSERT_TRUE(catalog_.list_volume(uuid(1), luns, ""));
  EXPECT_EQ(luns.size(), 3u);
}

TEST_P(Catalog_Test, a_volume_is_changed_and_deleted_in_its_pool_only) {
  for (int pool : {1, 2})
    ASSERT_TRUE(add_volume(uuid(pool), uuid(10), zero_uuid()));
  ASSERT_TRUE(catalog_.update_volume_ctime(uuid(1), uuid(10), "now"));
  ASSERT_TRUE(catalog_.update_volume_ext_attrs(uuid(1), uuid(10), R"({"name":"x"})"));
  Object info;
  ASSERT_TRUE(catalog_.get_volume_info(uuid(1), uuid(10), info));
  EXPECT_EQ(Value(info), Value({{"uuid", uuid(10)},
                                {"snapshot_uuid", zero_uuid()},
                                {"pool_uuid", uuid(1)},
                                {"size", 4096},
                                {"ctime", "now"},
                                {"extended_attrs", R"({"name":"x"})"}}));
  ASSERT_TRUE(catalog_.get_volume_info(uuid(2), uuid(10), info));
  EXPECT_EQ(info["ctime"], "then");
  ASSERT_TRUE(catalog_.del_volume(uuid(1), uuid(10)));
  EXPECT_FALSE(catalog_.lun_exist(uuid(1), uuid(10)));
  EXPECT_TRUE(catalog_.lun_exist(uuid(2), uuid(10)));
}

TEST_P(Catalog_Test, snapshots_are_numbered_and_filtered) {
  ASSERT_TRUE(add_pool(uuid(1)));
  ASSERT_TRUE(add_volume(uuid(1), uuid(10), zero_uuid()));
  ACE_UINT64 seq = 99;
  EXPECT_TRUE(catalog_.get_last_seq(uuid(1), uuid(10), seq));
  EXPECT_EQ(seq, 0u);
  ASSERT_TRUE(add_snapshot(uuid(22), 10, 5000000000ULL, true));
  ASSERT_TRUE(add_snapshot(uuid(20), 10, 1, true));
  ASSERT_TRUE(add_snapshot(uuid(21), 10, 2, false));
  ASSERT_TRUE(add_snapshot(uuid(23), 11, 9, false));  // of a LUN without a row
  EXPECT_TRUE(catalog_.get_last_seq(uuid(1), uuid(10), seq));
  EXPECT_EQ(seq, 5000000000ULL);
  EXPECT_EQ(seqs(10, Catalog::SNAPSHOT_LIST_ALL), "[1,2,5000000000]");
  EXPECT_EQ(seqs(10, Catalog::SNAPSHOT_LIST_RECYCLE), "[1,5000000000]");
  EXPECT_EQ(seqs(10, Catalog::SNAPSHOT_LIST_NOT_RECYCLE), "[2]");

  const Value wanted = {{"snapshot_id", 3},
                        {"snapshot_uuid", uuid(21)},
                        {"snapshot_size", 4096},
                        {"volume_uuid", uuid(10)},
                        {"pool_uuid", uuid(1)},
                        {"lun_uuid", uuid(10)},
                        {"ctime", "ctime 2"},
                        {"type", "iSCSI"},
                        {"target", "iqn.x"},
                        {"recycle", false},
                        {"seq", 2}};
  Object info;
  ASSERT_TRUE(catalog_.get_snapshot_info(uuid(1), uuid(21), info));
  EXPECT_EQ(Value(info), wanted);
  info.clear();
  ASSERT_TRUE(catalog_.get_snapshot_info(uuid(1), uuid(10), ACE_UINT64(2), info));
  EXPECT_EQ(Value(info), wanted);
  EXPECT_FALSE(catalog_.get_snapshot_info(uuid(1), uuid(10), ACE_UINT64(3), info));
  EXPECT_FALSE(catalog_.get_snapshot_info(uuid(1), uuid(23), info));
  EXPECT_EQ(Value(info), wanted);  // untouched
}

TEST_P(Catalog_Test, snapshot_marks_change_one_snapshot_or_the_whole_pool) {
  for (int id : {20, 21})
    ASSERT_TRUE(add_snapshot(uuid(id), 10, 1, false));
  ASSERT_TRUE(add_snapshot(uuid(20), 10, 1, false, uuid(2)));
  EXPECT_EQ(states(uuid(1)), "idle0 idle0 ");
  ASSERT_TRUE(catalog_.update_snapshot_state(uuid(1), uuid(20), "sending"));
  ASSERT_TRUE(catalog_.update_snapshot_standby(uuid(1), uuid(21), 65535));
  ASSERT_TRUE(catalog_.update_snapshot_recycle(uuid(1), uuid(21), true));
  ASSERT_TRUE(catalog_.update_snapshot_ext_attrs(uuid(1), uuid(21), R"({"k":1})"));
  EXPECT_EQ(states(uuid(1)), "sending0 idle65535 ");
  ASSERT_TRUE(catalog_.update_snapshot_state(uuid(1), "", "depend"));
  EXPECT_EQ(states(uuid(1)), "depend0 depend65535 ");
  EXPECT_EQ(states(uuid(2)), "idle0 ");
  Object state;
  ASSERT_TRUE(catalog_.get_snapshot_state_info(uuid(1), uuid(21), state));
  EXPECT_EQ(Value(state), Value({{"state", "depend"}, {"standby", 65535}}));
  Array rows;
  ASSERT_TRUE(catalog_.list_snapshots(uuid(1), rows, uuid(21).c_str()));
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].at("recycle"), true);
  EXPECT_EQ(rows[0].at("extended_attrs"), R"({"k":1})");
  ASSERT_TRUE(catalog_.list_snapshots(uuid(1), rows, uuid(20).c_str()));
  EXPECT_TRUE(rows[0].at("extended_attrs").is_null());
  ASSERT_TRUE(catalog_.del_snapshot(uuid(1), uuid(20)));
  EXPECT_FALSE(catalog_.snapshot_exist(uuid(1), uuid(20)));
  EXPECT_TRUE(catalog_.snapshot_exist(uuid(2), uuid(20)));
}

TEST_P(Catalog_Test, exports_of_clones_are_listed_with_their_snapshot) {
  ASSERT_TRUE(add_snapshot(uuid(20), 10, 1, true));
  ASSERT_TRUE(add_snapshot(uuid(21), 10, 2, false));
  for (int clone : {30, 31})
    ASSERT_TRUE(add_volume(uuid(1), uuid(clone), uuid(20)));
  ASSERT_TRUE(catalog_.add_export(uuid(31), uuid(1), 4, R"(["i"])", "FC", nullptr));
  Array rows;
  ASSERT_TRUE(catalog_.list_all_lun_snapshots(uuid(1), rows, nullptr));
  ASSERT_EQ(rows.size(), 3u);  // two clones of one snapshot, none of the other
  std::set<std::string> exported;
  for (const Value& row : rows)
    exported.insert(row.at("export_snapshot_uuid").dump());
  EXPECT_EQ(exported, (std::set<std::string>{"null", '"' + uuid(31) + '"'}));
  ASSERT_TRUE(catalog_.list_all_lun_snapshots(uuid(1), rows, uuid(21).c_str()));
  EXPECT_EQ(Value(rows), Value::array({{{"pool_uuid", uuid(1)},
                                        {"snapshot_uuid", uuid(21)},
                                        {"lun_uuid", uuid(10)},
                                        {"export_snapshot_uuid", nullptr},
                                        {"state", "idle"},
                                        {"recycle", false},
                                        {"seq", 2},
                                        {"ctime", "ctime 2"},
                                        {"lun_num", nullptr},
                                        {"acls", nullptr},
                                        {"ext_type", nullptr},
                                        {"ext_target", nullptr}}}));

  ASSERT_TRUE(catalog_.update_export_acls(uuid(1), uuid(31), "[2]"));
  ASSERT_TRUE(catalog_.list_export_by_snapshot(uuid(1), uuid(20), rows));
  EXPECT_EQ(Value(rows), Value::array({{{"export_snapshot_uuid", uuid(31)},
                                        {"ctime", "then"},
                                        {"lun_num", 4},
                                        {"acls", "[2]"},
                                        {"ext_type", nullptr},
                                        {"ext_target", nullptr},
                                        {"pool_uuid", uuid(1)}}}));
  ASSERT_TRUE(catalog_.add_export(uuid(31), uuid(2), 5, "[3]", nullptr, nullptr));
  ASSERT_TRUE(catalog_.list_acls(rows, nullptr));
  EXPECT_EQ(rows.size(), 2u);
  ASSERT_TRUE(catalog_.list_acls(rows, uuid(2).c_str()));
  EXPECT_EQ(JSON_Dump(rows), R"([{"acls":"[3]"}])");
  ASSERT_TRUE(catalog_.del_export(uuid(1), uuid(31)));
  ASSERT_TRUE(catalog_.list_export(uuid(1), rows, nullptr));
  EXPECT_TRUE(rows.empty());
  ASSERT_TRUE(catalog_.list_export(uuid(2), rows, uuid(31).c_str()));
  EXPECT_EQ(rows.size(), 1u);
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
    {nullptr, [](Catalog& c, const std::string& bad) { return c.update_export_acls(bad, uuid(1), "[]"); }},
    {nullptr, [](Catalog& c, const std::string& bad) { return c.update_volume_ctime(bad, uuid(1), ""); }},
    {nullptr, [](Catalog& c, const std::string& bad) { return c.update_volume_ext_attrs(bad, uuid(1), ""); }},
    {nullptr, [](Catalog& c, const std::string& bad) { return c.update_snapshot_state(bad, "", "idle"); }},
    {nullptr, [](Catalog& c, const std::string& bad) { return c.update_mountpoint(bad, "n", "/m"); }},
    {nullptr, [](Catalog& c, const std::string& bad) { return c.pool_exist(bad); }},
    {nullptr,
     [](Catalog& c, const std::string& bad) {
       json_spirit::Array rows;
       return c.list_lun(bad, rows, nullptr);
     }},
    {nullptr,
     [](Catalog& c, const std::string& bad) {
       json_spirit::Object info;
       return c.get_pool_info(bad, info);
     }},
};

TEST_P(Catalog_Test, failing_statements_are_told_in_the_words_of_the_operation) {
  for (const Failure_Case& one : failures) {
    const Log_Capture log;
    EXPECT_FALSE(one.run(catalog_, "no-uuid"));
    EXPECT_EQ(log.errors(), one.text != nullptr ? one.text : "") << log.dump();
    EXPECT_TRUE(log.contains(LM_NOTICE, "'no-uuid' is no UUID")) << log.dump();
  }
}

TEST_P(Catalog_Test, without_a_connection_every_operation_says_so_and_fails) {
  disconnect();
  for (const Failure_Case& one : failures) {
    const Log_Capture log;
    EXPECT_FALSE(one.run(catalog_, uuid(1)));
    EXPECT_TRUE(log.contains(LM_ERROR, "Failed to connect to database 'scsi_pool_manager' at "))
        << log.dump();
    EXPECT_TRUE(one.text == nullptr || !log.contains(LM_ERROR, one.text)) << log.dump();
  }
  ACE_UINT64 seq = 9;
  EXPECT_FALSE(catalog_.get_last_seq(uuid(1), uuid(2), seq));
  EXPECT_EQ(seq, 0u);
}

TEST_P(Catalog_Test, snapshot_attributes_must_be_given) {
  for (const char* attrs : {static_cast<const char*>(nullptr), ""}) {
    const Log_Capture log;
    EXPECT_FALSE(catalog_.update_snapshot_ext_attrs(uuid(1), uuid(2), attrs));
    EXPECT_TRUE(log.contains(LM_EMERGENCY, "attrs is NULL or \"\":")) << log.dump();
  }
}

TEST_P(Catalog_Test, a_pool_is_stored_once) {
  ASSERT_TRUE(add_pool(uuid(1)));
  const Log_Capture log;
  EXPECT_FALSE(add_pool(uuid(1), "other"));
  EXPECT_EQ(log.errors(), "Failed to add SCSI pool to database\n");
}

TEST_P(Catalog_Test, a_pool_that_cannot_be_deleted_is_told) {
  ASSERT_TRUE(add_pool(uuid(1)));
  block_deletes();
  const Log_Capture log;
  EXPECT_FALSE(catalog_.del_pool(uuid(1)));
  EXPECT_EQ(log.errors(), "Failed to delete SCSI pool from database\n");
  EXPECT_TRUE(catalog_.pool_exist(uuid(1)));
}

TEST_P(Catalog_Test, threads_write_and_read_at_the_same_time) {
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

CATALOG_TESTS(Catalog_Test);

}  // namespace
