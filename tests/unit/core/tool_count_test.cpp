// How many tool processes the operations start: starting them is what the operations cost. The figures are
// those of the table in docs/operations.md.

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "backup/pools/scsipool/btrfs_filesystem.h"
#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_file_backstore_manager.h"
#include "backup/pools/scsipool/zfs_filesystem.h"
#include "platform/base/file.h"
#include "platform/database/legacy_manager.h"
#include "platform/zfs/zfs_host.h"
#include "tests/support/fake_lio.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_tools.h"
#include "tests/support/temp_catalog.h"

namespace {

using json_spirit::Array;
using json_spirit::Object;
using scsi_pool::SCSI_Pool_Manager;

const std::string POOL = "aaaaaaaa-0000-4000-8000-000000000001";
const std::string LUN = "bbbbbbbb-0000-4000-8000-000000000001";
const std::string SNAPSHOTS[] = {"cccccccc-0000-4000-8000-000000000001",
                                 "cccccccc-0000-4000-8000-000000000002",
                                 "cccccccc-0000-4000-8000-000000000003"};
const std::string ALL_OF = "zfs get -Hp -o property,value all ";

// A file pool with the real driver, its file and its mount point in a temporary folder.
class Pool_In_Folder : public scsi_pool::SCSI_Pool_File_Backstore_Manager {
 public:
  Pool_In_Folder(const std::string& pool_id, const std::string& folder)
      : SCSI_Pool_File_Backstore_Manager(pool_id) {
    backstore_ = folder + "/file";
    mount_point_ = folder + "/mp";
  }
  bool open(const std::string& type) override {
    if (type == "zfs") {
      fs_mgr_.reset(new scsi_pool::ZFS_Filesystem(backstore_.c_str(), pool_id_.c_str()));
    } else {
      fs_mgr_.reset(new scsi_pool::Btrfs_Filesystem(backstore_.c_str(), mount_point_.c_str()));
    }
    return true;
  }
};

// A statement as it stands.
class Text_SQL : public database::sql::SQL {
 public:
  explicit Text_SQL(std::string text) : text_(std::move(text)) {}

 private:
  bool build(std::string& text, std::string&) const override {
    text = text_;
    return true;
  }
  std::string text_;
};

class Tool_Count : public testing::TestWithParam<std::string> {
 protected:
  Tool_Count() {
    scsi_pool::SCSI_Pool_Backstore_Factory::replace_maker(
        [this](const std::string& id, const std::string&) { return new Pool_In_Folder(id, dir_.path()); });
    platform::write_file_atomically(dir_ / "file", "", 0600);
    EXPECT_TRUE(catalog_.rows().add_pool(POOL, "pool", GetParam(), "", "lz4", false, true, 1 << 30, "iSCSI",
                                         "iqn.2026-01.org.example:t1", 3,
                                         R"({"async":false,"checksum":true,"block_size":8192})"));
    zfs::host_paths() = {dir_.path(), dir_.path(), nullptr};
    zfs::host_paths().is_device = [](const std::string& path) { return access(path.c_str(), F_OK) == 0; };
    script_zfs();
    script_btrfs();
  }
  ~Tool_Count() override {
    scsi_pool::SCSI_Pool_Backstore_Factory::replace_maker({});
    zfs::host_paths() = zfs::Host_Paths();
  }

  void script_zfs() {
    const std::string link = dir_ / ("zvol/" + POOL + "/" + LUN), snapshot = POOL + "/" + LUN + "@";
    std::string listed;
    for (const std::string& one : SNAPSHOTS) {
      listed += snapshot + one + "\t4096\t12288\n";
      tools_.answer(ALL_OF + snapshot + one).output(recording("zfs-2.1.11/get-all-snapshot.txt"));
    }
    tools_.answer("zfs list -Hp -d 1 -t snapshot -o name,used,referenced " + POOL + "/" + LUN).output(listed);
    tools_.answer(ALL_OF + POOL + "/").output(recording("zfs-2.1.11/get-all-volume.txt"));
    tools_.answer(ALL_OF + POOL).output(recording("zfs-2.1.11/get-all-pool.txt"));
    tools_.answer("zfs create").runs("mkdir -p " + platform::dirname_string(link) + "; ln -s / " + link);
    tools_.answer("zfs destroy").runs("rm " + link);
    tools_.answer("zfs set");
  }
  void script_btrfs() {
    std::string listed;
    for (const std::string& one : {LUN, SNAPSHOTS[0], SNAPSHOTS[1], SNAPSHOTS[2]})
      listed +=
          "ID 256 gen 9 parent 5 top level 5 uuid 71c08a72-3ab8-8742-8aca-e6499beef9d3 path " + one + "\n";
    const std::string created = dir_ / "created";
    tools_.answer("btrfs subvolume create").runs("touch " + created);
    tools_.answer("btrfs subvolume list").runs("[ -e " + created + " ] || exit 0").output(listed);
    tools_.answer("btrfs subvolume show").output(recording("btrfs-6.2/subvolume-show.txt"));
    tools_.answer("btrfs subvolume delete").runs("rm " + created);
    tools_.answer("btrfs qgroup show").output(recording("btrfs-6.2/qgroup-show.txt"));
    tools_.answer("btrfs filesystem df").output(recording("btrfs-6.2/filesystem-df.txt"));
    for (const char* other : {"btrfs filesystem sync", "btrfs qgroup destroy"})
      tools_.answer(other);
  }

  std::size_t tools_of(const std::function<bool()>& operation) {
    const std::size_t before = tools_.commands().size();
    EXPECT_TRUE(operation()) << log_.dump();
    return tools_.commands().size() - before;
  }
  std::size_t tools_of_pool_list() {
    Array found;
    const std::size_t tools = tools_of([&] { return manager_.list_pools(found, nullptr); });
    EXPECT_EQ(found.size(), 1u) << log_.dump();
    return tools;
  }
  std::size_t tools_of_snapshot_list(const std::string& lun, std::size_t snapshots) {
    Array found;
    const std::size_t tools = tools_of([&] { return manager_.list_lun_snapshots(POOL, lun, found); });
    EXPECT_EQ(found.size(), snapshots) << log_.dump();
    return tools;
  }
  void run_sql(const std::string& text) {
    Text_SQL statement(text);
    if (text.find(":pool") != std::string::npos) statement.bind_uuid(":pool", POOL);
    if (text.find(":lun") != std::string::npos) statement.bind_uuid(":lun", LUN);
    ASSERT_TRUE(
        database::sql::Legacy_Manager::instance()->get_connection_r("scsi_pool_manager")->execute(statement));
  }

  // The row of the table must be there with this driver's figure in its column.
  void expect_documented(const std::string& operation, std::size_t tools) {
    std::string text;
    ASSERT_TRUE(platform::read_file(TEST_SUPPORT_DIR "/../../docs/operations.md", text));
    const std::size_t at = text.find("\n| " + operation + " | ");
    ASSERT_NE(at, std::string::npos) << operation;
    std::size_t figures[2] = {};
    const std::string row = text.substr(at + operation.size() + 6, 20);
    ASSERT_EQ(std::sscanf(row.c_str(), "%zu | %zu |", &figures[0], &figures[1]), 2) << row;
    EXPECT_EQ(tools, figures[GetParam() == "zfs" ? 0 : 1]) << operation;
  }

  Temp_Dir dir_;
  Scripted_Tools tools_{{"zfs", "zpool", "btrfs"}};
  Fake_Lio lio_;
  Temp_Catalog catalog_;
  SCSI_Pool_Manager& manager_ = catalog_.manager();
  Log_Capture log_;
};

INSTANTIATE_TEST_SUITE_P(Drivers, Tool_Count, testing::Values("zfs", "btrfs"),
                         [](const auto& info) { return info.param; });

TEST_P(Tool_Count, is_as_documented) {
  expect_documented("a pool exists", tools_of([&] { return manager_.pool_exist(POOL); }));
  const std::size_t empty = tools_of_pool_list();
  expect_documented("`pool list`, for each pool", empty);

  SCSI_Pool_Manager::LUN_Option option;
  option.size = 1 << 20;
  std::string id = LUN;
  ACE_UINT16 number = 0;
  expect_documented("`lun create`", tools_of([&] { return manager_.create_lun(POOL, option, id, number); }));
  Array luns;
  expect_documented("`lun list`, for each LUN",
                    tools_of([&] { return manager_.list_lun(POOL, luns, nullptr); }));
  EXPECT_EQ(luns.size(), 1u) << log_.dump();

  for (const std::string& one : SNAPSHOTS)
    ASSERT_TRUE(catalog_.rows().add_snapshot(one, LUN, POOL, "", 1, true, nullptr));
  const std::size_t three = tools_of_snapshot_list(LUN, 3);
  run_sql("DELETE FROM snapshot WHERE seq = 1 AND uuid = (SELECT max(uuid) FROM snapshot)");
  const std::size_t per_snapshot = three - tools_of_snapshot_list(LUN, 2);
  expect_documented("`snapshot list` of a LUN", three - 3 * per_snapshot);
  expect_documented("and for each of its snapshots", per_snapshot);
  run_sql("DELETE FROM snapshot");

  expect_documented("`pool list`, for each LUN and snapshot", tools_of_pool_list() - empty);
  expect_documented("`lun delete`", tools_of([&] { return manager_.delete_lun(POOL, LUN, false); }));
}

TEST_P(Tool_Count, does_not_grow_with_what_is_not_asked_for) {
  const std::size_t empty = tools_of_pool_list();
  const std::string hundred =
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100) ";
  run_sql(hundred +
          "INSERT INTO volume SELECT CASE i WHEN 1 THEN :lun ELSE randomblob(16) END, zeroblob(16), :pool, "
          "1048576, '', '{}' FROM n");
  run_sql(hundred +
          "INSERT INTO snapshot (uuid, pool_uuid, volume_uuid, ctime, seq, recycle) SELECT randomblob(16), "
          ":pool, volume.uuid, '', i, 1 FROM volume, n WHERE volume.uuid != :lun");
  for (const std::string& one : SNAPSHOTS)
    ASSERT_TRUE(catalog_.rows().add_snapshot(one, LUN, POOL, "", 1, true, nullptr));
  EXPECT_EQ(tools_of_pool_list(), empty);

  ASSERT_EQ(std::system(("mkdir -p " + dir_.path() + "/zvol/" + POOL + "; ln -s / " + dir_.path() + "/zvol/" +
                         POOL + "/" + LUN + "; touch " + dir_.path() + "/created")
                            .c_str()),
            0);
  const std::size_t before = tools_.commands().size();
  tools_of_snapshot_list(LUN, 3);
  const std::vector<std::string> commands = tools_.commands();
  EXPECT_LE(commands.size() - before, 9u);
  // Of each volume and snapshot that a command names: its own.
  for (std::size_t at = before; at < commands.size(); ++at) {
    const bool whole_pool = commands[at] == "btrfs subvolume list -pu " + dir_.path() + "/mp";
    const bool own = commands[at].find(LUN) != std::string::npos ||
                     commands[at].find("/cccccccc-0000-4000-8000-00000000000") != std::string::npos;
    EXPECT_TRUE(whole_pool || own) << commands[at];
  }
}

}  // namespace
