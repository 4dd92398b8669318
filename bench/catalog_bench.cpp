// The catalog class against hand-written prepared statements that do the same on the same file with the same
// pragmas. SCSIPOOL_BENCH_FOLDER chooses the folder (a real disk, not tmpfs, tells more about writes).
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "platform/base/file.h"
#include "platform/base/uuid.h"
#include "platform/database/database.h"

namespace {

using json_spirit::Object;

const std::string KEY(64, 'a');
constexpr int POOLS = 20;

std::string pool_uuid(int number) {
  return platform::uuid_v5(platform::zero_uuid(), "pool " + std::to_string(number));
}

// A catalog with some pools, and beside it a connection of our own to the same file.
class World {
 public:
  explicit World(bool encrypted) {
    const char* folder = std::getenv("SCSIPOOL_BENCH_FOLDER");
    folder_ =
        std::string(folder != nullptr ? folder : "/tmp") + "/scsipool-bench-" + std::to_string(::getpid());
    std::filesystem::create_directories(folder_);
    platform::write_file_atomically(folder_ + "/key", KEY, 0600);
    ok_ = database::sql::Legacy_Manager::instance()->configure(folder_, encrypted ? folder_ + "/key" : "");
    for (int i = 0; i < POOLS; ++i) {
      ok_ = ok_ &&
            catalog.add_pool(pool_uuid(i), "pool " + std::to_string(i), "zfs", "orbistor", "lz4", true, false,
                             1ULL << 40, "iSCSI", "iqn.2026-11.host:pool", 3, R"({"block_size":4096})");
    }
    ok_ = ok_ && open_own(encrypted);
  }
  ~World() {
    sqlite3_finalize(read);
    sqlite3_finalize(write);
    sqlite3_close(own);
    database::sql::Legacy_Manager::instance()->close();
    std::filesystem::remove_all(folder_);
  }
  bool ok() const { return ok_; }

  scsi_pool::SCSI_Pool_Sqlite_Manager_Impl catalog;
  sqlite3* own = nullptr;
  sqlite3_stmt* read = nullptr;
  sqlite3_stmt* write = nullptr;

 private:
  bool open_own(bool encrypted) {
    if (sqlite3_open_v2((folder_ + "/scsi_pool_manager.db").c_str(), &own,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK)
      return false;
#ifdef SQLITE_HAS_CODEC
    const std::string raw = "x'" + KEY + "'";
    if (encrypted) sqlite3_key(own, raw.data(), static_cast<int>(raw.size()));
#endif
    sqlite3_busy_timeout(own, 10000);
    return sqlite3_exec(own, "PRAGMA synchronous=FULL; PRAGMA foreign_keys=OFF", nullptr, nullptr, nullptr) ==
               SQLITE_OK &&
           sqlite3_prepare_v2(own, "SELECT * FROM scsi_pool WHERE uuid = ?", -1, &read, nullptr) ==
               SQLITE_OK &&
           sqlite3_prepare_v2(
               own,
               "INSERT INTO volume (uuid, snapshot_uuid, pool_uuid, size, ctime, extended_attrs) "
               "VALUES (?, ?, ?, ?, ?, ?)",
               -1, &write, nullptr) == SQLITE_OK;
  }

  std::string folder_;
  bool ok_ = false;
};

void bind_uuid(sqlite3_stmt* statement, int index, const std::string& text) {
  std::string binary;
  platform::uuid_string_to_binary(text, binary);
  sqlite3_bind_blob(statement, index, binary.data(), static_cast<int>(binary.size()), SQLITE_TRANSIENT);
}

std::string text_column(sqlite3_stmt* statement, int index) {
  return reinterpret_cast<const char*>(sqlite3_column_text(statement, index));
}

// The pool's record, column by column, into the same kind of object.
bool read_by_hand(World& world, const std::string& uuid, Object& info) {
  sqlite3_stmt* row = world.read;
  bind_uuid(row, 1, uuid);
  const bool found = sqlite3_step(row) == SQLITE_ROW;
  if (found) {
    std::string text;
    platform::uuid_binary_to_string(sqlite3_column_blob(row, 0), 16, text);
    info["uuid"] = text;
    info["name"] = text_column(row, 1);
    info["fs_type"] = text_column(row, 2);
    info["global_dev"] = text_column(row, 3);
    info["compression"] = text_column(row, 4);
    info["dedup"] = sqlite3_column_int(row, 5) != 0;
    info["size"] = static_cast<std::uint64_t>(sqlite3_column_int64(row, 6));
    info["thin_provision"] = sqlite3_column_int(row, 7) != 0;
    info["type"] = text_column(row, 8);
    info["target"] = text_column(row, 9);
    info["retention"] = static_cast<std::uint64_t>(sqlite3_column_int64(row, 10));
    info["extended_attrs"] = text_column(row, 11);
  }
  sqlite3_reset(row);
  return found;
}

bool write_by_hand(World& world, const scsi_pool::SCSI_Pool_Sqlite_Manager::Volume_Info& info) {
  sqlite3_stmt* row = world.write;
  bind_uuid(row, 1, info.uuid);
  bind_uuid(row, 2, info.snapshot_uuid);
  bind_uuid(row, 3, info.pool_uuid);
  sqlite3_bind_int64(row, 4, static_cast<sqlite3_int64>(info.size));
  sqlite3_bind_text(row, 5, info.ctime.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_bind_text(row, 6, info.extended_attrs.c_str(), -1, SQLITE_TRANSIENT);
  const bool done = sqlite3_step(row) == SQLITE_DONE;
  sqlite3_reset(row);
  return done;
}

template <typename Read>
void measure_reads(benchmark::State& state, Read read) {
  World world(state.range(0) != 0);
  std::string uuids[POOLS];
  for (int i = 0; i < POOLS; ++i)
    uuids[i] = pool_uuid(i);
  int next = 0;
  for (auto _ : state) {
    Object info;
    if (!world.ok() || !read(world, uuids[next], info)) {
      state.SkipWithError("the read failed");
      break;
    }
    benchmark::DoNotOptimize(info);
    next = (next + 1) % POOLS;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

template <typename Write>
void measure_writes(benchmark::State& state, Write write) {
  World world(state.range(0) != 0);
  scsi_pool::SCSI_Pool_Sqlite_Manager::Volume_Info info;
  info.snapshot_uuid = platform::zero_uuid();
  info.pool_uuid = pool_uuid(0);
  info.size = 1ULL << 30;
  info.ctime = "2026-11-22T20:04:23+01:00";
  info.extended_attrs = R"({"name":"lun"})";
  for (auto _ : state) {
    platform::uuid_string(info.uuid, false);
    if (!world.ok() || !write(world, info)) {
      state.SkipWithError("the write failed");
      break;
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

void get_pool_info_catalog(benchmark::State& state) {
  measure_reads(state, [](World& world, const std::string& uuid, Object& info) {
    return world.catalog.get_pool_info(uuid, info);
  });
}

void get_pool_info_by_hand(benchmark::State& state) {
  measure_reads(state, read_by_hand);
}

void add_volume_catalog(benchmark::State& state) {
  measure_writes(state, [](World& world, const auto& info) { return world.catalog.add_volume(info); });
}

void add_volume_by_hand(benchmark::State& state) {
  measure_writes(state, [](World& world, const auto& info) { return write_by_hand(world, info); });
}

#ifdef SQLITE_HAS_CODEC
#define CATALOG_BENCHMARK(NAME) BENCHMARK(NAME)->ArgName("encrypted")->Arg(0)->Arg(1)
#else
#define CATALOG_BENCHMARK(NAME) BENCHMARK(NAME)->ArgName("encrypted")->Arg(0)
#endif

CATALOG_BENCHMARK(get_pool_info_catalog);
CATALOG_BENCHMARK(get_pool_info_by_hand);
CATALOG_BENCHMARK(add_volume_catalog);
CATALOG_BENCHMARK(add_volume_by_hand);

}  // namespace

BENCHMARK_MAIN();
