// The database layer on real files, each case once encrypted and once not (plain only, when built without
// SQLCipher).
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "platform/base/file.h"
#include "platform/base/uuid.h"
#include "platform/database/database.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace database::sql;
using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

const char SCHEMA[] = "CREATE TABLE t (id INTEGER PRIMARY KEY AUTOINCREMENT, uuid BLOB, flag INTEGER, v);";
const char KEY_A[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n";
const char KEY_B[] = "ff0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

class Database_Test : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(platform::write_file_atomically(dir_ / "key_a", KEY_A, 0600));
    ASSERT_TRUE(platform::write_file_atomically(dir_ / "key_b", KEY_B, 0600));
    ASSERT_TRUE(manager_->register_database("things", SCHEMA, 1));
    ASSERT_TRUE(open());
  }
  void TearDown() override { manager_->close(); }

  bool open() { return manager_->configure(data(), GetParam() ? dir_ / "key_a" : ""); }
  std::string data() const { return dir_ / "data/deep"; }
  std::string file() const { return data() + "/things.db"; }
  Connection_var connect() const { return manager_->get_connection_r("things"); }

  bool insert(const Binding_Value& value) const {
    const Connection_var connection = connect();
    Insert_SQL sql("t");
    sql.value("v", value);
    return connection.get() != nullptr && connection->execute(sql);
  }

  // All of column v, in the order of ids, as one JSON text.
  std::string values() const {
    Select_SQL sql("t");
    sql.select("v");
    sql.order_by("id");
    Legacy_Cursor cursor(connect(), sql, Legacy_Cursor::GM_ORM_ROWS, 0);
    Value rows;
    if (!cursor.fetch(rows)) return "failed";
    Array column;
    for (const Value& row : rows)
      column.push_back(row.at("v"));
    return JSON_Dump(column);
  }

  Temp_Dir dir_;
  Legacy_Manager* manager_ = Legacy_Manager::instance();
};

TEST_P(Database_Test, values_come_back_as_they_went_in) {
  struct {
    Binding_Value value;
    const char* wanted;
  } const cases[] = {
      {true, "1"},
      {-7, "-7"},
      {static_cast<unsigned short>(65535), "65535"},
      {9223372036854775807UL, "9223372036854775807"},
      {std::string("it's \"quoted\"; DROP TABLE t; --"), "\"it's \\\"quoted\\\"; DROP TABLE t; --\""},
      {std::string("a\0b", 3), "\"a\\u0000b\""},
      {"", "\"\""},
      {"grün", "\"grün\""},
      {static_cast<const char*>(nullptr), "null"},
  };
  std::string wanted;
  for (const auto& one : cases) {
    ASSERT_TRUE(insert(one.value));
    wanted += (wanted.empty() ? "" : ",") + std::string(one.wanted);
  }
  EXPECT_EQ(values(), "[" + wanted + "]");
}

TEST(SQL_Text, statements_that_would_touch_the_wrong_rows_are_refused) {
  Delete_SQL no_uuid("t"), null_uuid("t");
  no_uuid.and_filter()->add_key_uuid_eq_item("id", "x");
  null_uuid.bind_uuid(":id", static_cast<const char*>(nullptr));
  const Update_SQL update("t");
  const Insert_SQL insert("t");
  const Select_SQL select;
  const std::pair<const SQL*, const char*> cases[] = {{&update, "an update of 't' sets no column"},
                                                      {&insert, "an insert into 't' has no column"},
                                                      {&select, "a select names no table"},
                                                      {&no_uuid, "'x' is no UUID"},
                                                      {&null_uuid, "'' is no UUID"}};
  for (const auto& one : cases) {
    std::string text, error;
    EXPECT_FALSE(one.first->text(text, error));
    EXPECT_EQ(error, one.second);
  }
}

TEST_P(Database_Test, refused_statements_change_nothing_and_say_why) {
  ASSERT_TRUE(insert(1));
  struct {
    const char* cause;
    std::function<void(Insert_SQL&)> spoil;
  } const cases[] = {
      {"'no-uuid' is no UUID", [](Insert_SQL& sql) { sql.value_uuid("uuid", "no-uuid"); }},
      {"number 9223372036854775808 is too large",
       [](Insert_SQL& sql) { sql.value("v", 9223372036854775808UL); }},
      {"no column named nowhere", [](Insert_SQL& sql) { sql.value("nowhere", 1); }},
      {"differ in number", [](Insert_SQL& sql) { sql.bind(":unknown", 1); }},
  };
  for (const auto& one : cases) {
    Insert_SQL sql("t");
    sql.value("flag", 1);
    one.spoil(sql);
    const Log_Capture log;
    EXPECT_FALSE(connect()->execute(sql));
    EXPECT_TRUE(log.contains(LM_NOTICE, one.cause)) << log.dump();
    EXPECT_EQ(log.errors(), "");
  }
  EXPECT_EQ(values(), "[1]");
}

TEST_P(Database_Test, files_are_closed_to_others_and_hold_no_plain_text_with_a_key) {
  ASSERT_TRUE(insert("a secret word"));
  for (const char* side : {"", "-wal", "-shm"}) {
    struct stat status;
    ASSERT_EQ(::stat((file() + side).c_str(), &status), 0) << side;
    EXPECT_EQ(status.st_mode & 07777, 0600u) << side;
  }
  std::string stored;
  std::string log_stored;
  ASSERT_TRUE(platform::read_file(file(), stored));
  ASSERT_TRUE(platform::read_file(file() + "-wal", log_stored));
  EXPECT_EQ((stored + log_stored).find("a secret word") == std::string::npos, GetParam());
  EXPECT_EQ(stored.find("SQLite format 3") == std::string::npos, GetParam());
}

TEST_P(Database_Test, a_loose_file_mode_is_tightened) {
  ASSERT_TRUE(insert(1));
  manager_->close();
  ASSERT_EQ(::chmod(file().c_str(), 0644), 0);
  ASSERT_TRUE(insert(2));
  struct stat status;
  ASSERT_EQ(::stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_P(Database_Test, a_wrong_key_or_a_damaged_file_gives_no_connection_and_stays_as_it_is) {
  ASSERT_TRUE(insert(std::string(60000, 'x')));
  manager_->close();
  std::string good;
  ASSERT_TRUE(platform::read_file(file(), good));
  std::string head = good;
  head.replace(0, 100, std::string(100, 'z'));
  std::string middle = good;
  for (std::size_t at = 1024; at < 20000; at += 512)
    middle[at] = static_cast<char>(middle[at] ^ 0x55);
  std::vector<std::pair<std::string, std::string>> cases = {{head, ""}, {middle, ""}};
#ifdef SQLITE_HAS_CODEC
  cases.push_back({good, "key_b"});
  if (GetParam()) cases.push_back({good, "none"});
#endif
  for (const auto& [bytes, key] : cases) {
    ASSERT_TRUE(platform::write_file_atomically(file(), bytes, 0600));
    ASSERT_TRUE(key.empty() ? open() : manager_->configure(data(), key == "none" ? "" : dir_ / key));
    const Log_Capture log;
    EXPECT_EQ(connect().get(), nullptr);
    EXPECT_TRUE(log.contains(LM_ERROR, "Failed to open database '" + file() + "': ")) << log.dump();
    std::string after;
    ASSERT_TRUE(platform::read_file(file(), after));
    EXPECT_TRUE(after == bytes);
  }
  ASSERT_TRUE(platform::write_file_atomically(file(), good, 0600));
  ASSERT_TRUE(open());
  EXPECT_EQ(values(), "[\"" + std::string(60000, 'x') + "\"]");
}

TEST_P(Database_Test, a_bad_configuration_never_falls_back_to_an_open_file) {
  ASSERT_TRUE(platform::write_file_atomically(dir_ / "short", "0011", 0600));
  ASSERT_TRUE(platform::write_file_atomically(dir_ / "words", std::string(64, 'g'), 0600));
  for (const char* key : {"short", "words", "missing"}) {
    const Log_Capture log;
    EXPECT_FALSE(manager_->configure(data(), dir_ / key));
    EXPECT_TRUE(log.contains(LM_ERROR, "Failed to read database key file '" + (dir_ / key) + "'")) << key;
    EXPECT_EQ(connect().get(), nullptr);
  }
  const Log_Capture log;
  EXPECT_FALSE(manager_->configure((dir_ / "short") + "/below", ""));
  EXPECT_TRUE(log.contains(LM_ERROR, "Failed to create database folder"));
  EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_P(Database_Test, schema_is_upgraded_kept_or_refused_by_version) {
  ASSERT_TRUE(insert("kept"));
  const std::string second =
      std::string(SCHEMA) + "\n-- version 2\nALTER TABLE t ADD COLUMN more DEFAULT 'm';\n";
  const std::string broken =
      second + "-- version 3\nCREATE TABLE u (a);\nALTER TABLE nowhere ADD COLUMN x;\n";
  const std::string third = second + "-- version 3\nCREATE TABLE u (a);\n";

  ASSERT_TRUE(manager_->register_database("things", broken, 3));
  ASSERT_TRUE(open());
  const Log_Capture log;
  EXPECT_EQ(connect().get(), nullptr);
  EXPECT_TRUE(log.contains(LM_ERROR, "no such table: nowhere")) << log.dump();

  // Nothing of the failed upgrade may be left, or this one would fail on the column and the table.
  ASSERT_TRUE(manager_->register_database("things", third, 3));
  ASSERT_TRUE(open());
  EXPECT_EQ(values(), "[\"kept\"]");
  Legacy_Cursor cursor(connect(), Select_SQL("t"), Legacy_Cursor::GM_ORM_FIRST_ROW, 0);
  Value row;
  ASSERT_TRUE(cursor.fetch(row));
  EXPECT_EQ(row.at("more"), "m");

  ASSERT_TRUE(manager_->register_database("things", SCHEMA, 1));
  ASSERT_TRUE(open());
  EXPECT_EQ(connect().get(), nullptr);
  EXPECT_TRUE(log.contains(LM_ERROR, "made by a newer program")) << log.dump();
}

TEST_P(Database_Test, writers_of_many_threads_all_get_through) {
  constexpr int THREADS = 8;
  constexpr int ROWS = 25;
  std::vector<std::vector<std::int64_t>> ids(THREADS);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([this, thread, &ids] {
      for (int row = 0; row < ROWS; ++row) {
        const Connection_var connection = connect();
        Insert_SQL sql("t");
        sql.value("v", thread);
        if (connection->execute(sql)) ids[thread].push_back(connection->last_insert_row_id());
        values();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::set<std::int64_t> distinct;
  for (const auto& some : ids)
    distinct.insert(some.begin(), some.end());
  EXPECT_EQ(distinct.size(), static_cast<std::size_t>(THREADS * ROWS));
  EXPECT_EQ(*distinct.rbegin(), THREADS * ROWS);
}

TEST_P(Database_Test, a_writer_waits_for_another_process) {
  ASSERT_TRUE(insert(1));
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(file().c_str(), &other), SQLITE_OK);
  std::string key;
#ifdef SQLITE_HAS_CODEC
  key = "x'" + std::string(KEY_A, 64) + "'";
  if (GetParam()) {
    ASSERT_EQ(sqlite3_key(other, key.data(), static_cast<int>(key.size())), SQLITE_OK);
  }
#endif
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  std::thread release([other] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
  });
  EXPECT_TRUE(insert(2));
  release.join();
  sqlite3_close(other);
}

#ifdef SQLITE_HAS_CODEC
INSTANTIATE_TEST_SUITE_P(Plain_And_Encrypted, Database_Test, testing::Bool(),
                         [](const auto& test) { return test.param ? "encrypted" : "plain"; });
#else
INSTANTIATE_TEST_SUITE_P(Plain, Database_Test, testing::Values(false));
#endif

}  // namespace
