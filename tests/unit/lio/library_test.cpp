#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "platform/base/file.h"
#include "platform/lio/configfs_library.h"
#include "platform/lio/lio.h"
#include "tests/support/fake_configfs.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

const char* const TARGET = "iqn.2026-11.org.example:one";
const char* const OTHER = "iqn.2026-11.org.example:two";
const char* const INITIATOR = "iqn.2026-11.org.example:client";
const std::string GROUP = "iscsi/" + std::string(TARGET) + "/tpgt_1";

class Lio_Library : public ::testing::Test {
 protected:
  Lio_Library() : tree_(std::make_shared<Fake_Configfs>(dir_ / "config")) {
    options_.configfs_root = dir_ / "config";
    options_.lock_file = dir_ / "run/lio.lock";
    options_.saved_file = dir_ / "data/lio.json";
    options_.prepare_kernel = false;
    restart();
  }
  ~Lio_Library() override {
    EXPECT_FALSE(tree_->died());
    LIO_Library::install(nullptr);
  }

  // A new process: nothing is remembered but what is in the file.
  void restart() { LIO_Library::install(std::make_shared<lio::Configfs_Library>(options_, tree_)); }

  std::string volume(unsigned index) const {
    char uuid[40];
    std::snprintf(uuid, sizeof(uuid), "%08x-1111-4222-8333-444455556666", index);
    const std::string path = dir_ / uuid + "/lun_backstore";
    platform::mkdir_p(platform::dirname_string(path), 0755);
    if (!platform::path_exists(path)) platform::write_file_atomically(path, "x", 0600);
    return path;
  }

  static LIO_Target_var target(const char* name = TARGET) {
    return LIO_Target_Manager_Factory::get_manager("iSCSI")->create_or_get_target(name);
  }

  static LIO_Lun_var create(const std::string& path, const LIO_ACLs& acls, const char* name = TARGET) {
    const auto group = std::dynamic_pointer_cast<ISCSI_Target_Port_Group>(target(name)->create_or_get_tpg(1));
    LIO_Luns luns;
    if (!group || !group->list_luns(luns) || !group->add_net_portals(true, nullptr, 3260)) return nullptr;
    const auto store = LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, path.c_str(), 4096);
    if (!store) return nullptr;
    const auto lun = group->create_lun(store->name().c_str(), false);
    bool good = lun != nullptr;
    if (good && !acls.empty()) good = group->set_acl_mode() && lun->add_acls(acls, true);
    if (good && acls.empty() && luns.empty()) good = group->set_demo_mode();
    if (good && group->enable(true)) return lun;
    const std::string name_of_store = store->name();
    if (lun) lun->destroy(false);
    LIO_Backstore_Manager::remove_backstore(name_of_store.c_str(), false);
    return nullptr;
  }

  static std::string findings(bool repair = false) {
    LIO_Report report;
    repair ? LIO_Saved_Config::repair(report) : LIO_Saved_Config::compare(report);
    std::string text;
    for (const LIO_Finding& one : report)
      text += std::string(lio_finding_name(one.kind)) + (one.mended ? "+ " : " ");
    return text;
  }

  std::string record() const {
    std::string text;
    platform::read_file(options_.saved_file, text);
    return text;
  }

  void alter_record(const std::string& from, const std::string& to) const {
    std::string text = record();
    const std::size_t at = text.find(from);
    ASSERT_NE(std::string::npos, at) << text;
    platform::write_file_atomically(options_.saved_file, text.replace(at, from.size(), to), 0600);
  }

  Temp_Dir dir_;
  LIO_Options options_;
  std::shared_ptr<Fake_Configfs> tree_;
};

TEST_F(Lio_Library, looking_at_a_target_that_is_gone_makes_nothing) {
  const std::string before = tree_->listing();
  EXPECT_TRUE(target());
  EXPECT_FALSE(target()->get_tpg(1));
  EXPECT_EQ(0u, target()->busy());
  EXPECT_FALSE(LIO_Target_Manager_Factory::get_lun("iSCSI", TARGET, 1, 0));
  EXPECT_TRUE(target()->destroy(false));
  EXPECT_TRUE(LIO_Backstore_Manager::remove_backstore("scsipool-none", false));
  EXPECT_EQ(before, tree_->listing());
}

TEST_F(Lio_Library, refusals_name_what_is_wrong) {
  Log_Capture log;
  EXPECT_FALSE(LIO_Target_Manager_Factory::get_manager("fc"));
  EXPECT_FALSE(
      LIO_Target_Manager_Factory::get_manager("FC")->create_or_get_target("21:00:00:24:ff:31:4c:48"));
  EXPECT_TRUE(log.contains(LM_ERROR, "tcm_qla2xxx"));
  EXPECT_FALSE(target("iqn.2026-11.org.example:a/b"));
  EXPECT_TRUE(log.contains(LM_ERROR, "iqn.2026-11.org.example:a/b"));
  EXPECT_FALSE(LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, "/dev/zvol/p/v", 4096));
  EXPECT_TRUE(log.contains(LM_ERROR, "where devices belong"));
  EXPECT_FALSE(LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, nullptr, 4096));
  EXPECT_EQ(1u, log.count(LM_EMERGENCY));
  const auto lun = create(volume(1), {{INITIATOR, ""}});
  ASSERT_TRUE(lun);
  EXPECT_FALSE(lun->add_acls({{"iqn.2026-11.org.example:c d", ""}}, true));
  EXPECT_FALSE(lun->add_acls({{"iqn.2026-11.org.example:new", ""}}, false));
  EXPECT_TRUE(log.contains(LM_ERROR, "'iqn.2026-11.org.example:c d'"));
  EXPECT_EQ("", findings());
}

TEST_F(Lio_Library, an_emptied_open_group_is_disabled_before_it_gets_a_lun) {
  ASSERT_TRUE(create(volume(1), {})->destroy(false));
  EXPECT_EQ("1", tree_->value(GROUP + "/enable"));
  const auto store = LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, volume(2).c_str(), 4096);
  ASSERT_TRUE(target()->get_tpg(1)->create_lun(store->name().c_str(), false));
  EXPECT_EQ("0", tree_->value(GROUP + "/enable"));
}

// As those of a Fibre Channel adapter do, in a demo mode that shows no LUN.
TEST_F(Lio_Library, a_group_that_the_kernel_opens_is_closed_first_and_comes_back_in_its_mode) {
  tree_->make_groups_open();
  EXPECT_FALSE(target()->create_or_get_tpg(1)->demo_mode());
  ASSERT_TRUE(create(volume(1), {}));
  EXPECT_EQ("0", tree_->value(GROUP + "/attrib/demo_mode_write_protect"));
  ASSERT_TRUE(create(volume(2), {{INITIATOR, ""}}, OTHER));
  tree_->reboot();
  restart();
  EXPECT_TRUE(target()->create_or_get_tpg(1)->demo_mode());
  EXPECT_FALSE(target(OTHER)->create_or_get_tpg(1)->demo_mode());
}

TEST_F(Lio_Library, portals_follow_the_other_targets_and_fall_back_to_ipv4) {
  tree_->fail("mkdir", "[::]:3260", EINVAL, 1);
  ASSERT_TRUE(create(volume(1), {}));
  EXPECT_TRUE(tree_->exists(GROUP + "/np/0.0.0.0:3260"));
  ASSERT_TRUE(create(volume(2), {}, OTHER));
  EXPECT_EQ(std::vector<std::string>{"0.0.0.0:3260"},
            tree_->names("iscsi/" + std::string(OTHER) + "/tpgt_1/np"));
  const auto group = std::dynamic_pointer_cast<ISCSI_Target_Port_Group>(target(OTHER)->get_tpg(1));
  EXPECT_TRUE(group->add_net_portals(false, "fe80::1", 3261));
  EXPECT_TRUE(tree_->exists("iscsi/" + std::string(OTHER) + "/tpgt_1/np/[fe80::1]:3261"));
  Log_Capture log;
  EXPECT_FALSE(group->add_net_portals(false, "localhost", 3262));
  EXPECT_FALSE(group->add_net_portals(true, nullptr, 0));
  tree_->fail("mkdir", ":3263", EINVAL);
  EXPECT_FALSE(group->add_net_portals(true, nullptr, 3263));
  EXPECT_TRUE(log.contains(LM_ERROR, "another program"));
}

// Each step of an export fails once: what the export made is gone again, and it succeeds the next time.
TEST_F(Lio_Library, a_failed_step_leaves_nothing_half_made) {
  struct Case {
    const char *operation, *end;
    int error;
  };
  const Case cases[] = {{"mkdir", "tpgt_1", ENOMEM},          {"mkdir", "fileio_0", ENOMEM},
                        {"mkdir", "444455556666", ENOMEM},    {"write", "/control", EINVAL},
                        {"write", "vpd_unit_serial", EINVAL}, {"write", "/udev_path", EINVAL},
                        {"mkdir", "/lun/lun_0", ENOMEM},      {"symlink", "/lun/lun_0/lun", EBUSY},
                        {"write", "authentication", EINVAL},  {"mkdir", ":client", ENOMEM},
                        {"mkdir", "client/lun_0", EINVAL},    {"symlink", "client/lun_0/lun", EINVAL},
                        {"write", "tpgt_1/enable", EPERM}};
  for (const Case& one : cases) {
    Log_Capture log;
    tree_->fail(one.operation, one.end, one.error, 1);
    EXPECT_FALSE(create(volume(1), {{INITIATOR, ""}})) << one.operation << " " << one.end;
    EXPECT_TRUE(log.contains(LM_ERROR, std::strerror(one.error))) << one.end << "\n" << log.dump();
    EXPECT_EQ(std::string::npos, tree_->listing().find("lun_")) << one.end << "\n" << tree_->listing();
    EXPECT_EQ(std::string::npos, tree_->listing().find("scsipool-")) << one.end << "\n" << tree_->listing();
  }
  EXPECT_TRUE(create(volume(1), {{INITIATOR, ""}}));
  EXPECT_EQ("", findings());
}

TEST_F(Lio_Library, a_removal_that_fails_says_so_and_can_be_repeated) {
  const auto lun = create(volume(1), {{INITIATOR, ""}});
  const auto other = create(volume(2), {{INITIATOR, ""}});
  ASSERT_TRUE(lun && other);
  const std::string before = tree_->listing();
  for (const char* end :
       {"client/lun_0", "/lun/lun_0", "fileio_0/scsipool-00000001-1111-4222-8333-444455556666"}) {
    Log_Capture log;
    tree_->fail("rmdir", end, EBUSY, 1);
    EXPECT_FALSE(lun->destroy(false)) << end;
    EXPECT_NE("", findings()) << end;
    findings(true);
    EXPECT_EQ("", findings()) << end;
    EXPECT_EQ(before, tree_->listing()) << end;
  }
  EXPECT_TRUE(lun->destroy(false));
  EXPECT_TRUE(tree_->exists(GROUP + "/acls/" + INITIATOR));
  EXPECT_TRUE(target()->destroy(false));
  EXPECT_EQ("", tree_->listing());
}

TEST_F(Lio_Library, the_same_volume_uuid_on_two_paths_gets_two_serials) {
  const std::string copy = dir_ / "copy/00000001-1111-4222-8333-444455556666";
  platform::mkdir_p(dir_ / "copy", 0755);
  ASSERT_TRUE(platform::write_file_atomically(copy, "x", 0600));
  const auto one = create(volume(1), {});
  const auto two = create(copy, {});
  ASSERT_TRUE(one && two);
  std::string first, second;
  one->get_backstore(first);
  two->get_backstore(second);
  EXPECT_NE(first, second);
  ASSERT_EQ(0, ::link(copy.c_str(), (dir_ / "hard-link").c_str()));
  EXPECT_FALSE(create(dir_ / "hard-link", {}));
}

TEST_F(Lio_Library, restore_rebuilds_and_keeps_what_it_cannot) {
  ASSERT_TRUE(create(volume(1), {{INITIATOR, "host"}}));
  ASSERT_TRUE(create(volume(2), {}, OTHER));
  const std::string before = tree_->listing();
  tree_->reboot();
  restart();
  ASSERT_EQ(0, ::rename(volume(1).c_str(), (dir_ / "away").c_str()));
  LIO_Report report;
  EXPECT_FALSE(LIO_Saved_Config::restore(report));
  EXPECT_EQ(2, std::count_if(report.begin(), report.end(),
                             [](const LIO_Finding& one) { return one.kind == LIO_Finding::MISSING_LUN; }));
  std::vector<LIO_Export> saved;
  ASSERT_TRUE(LIO_Saved_Config::list_saved(saved));
  EXPECT_EQ(2u, saved.size());
  EXPECT_EQ("host", saved[0].acls.at(0).host_uuid);
  // It still counts: another export neither opens the group to everybody nor ends the target with itself.
  LIO_Luns luns;
  std::string path = "unread";
  ASSERT_TRUE(target()->get_tpg(1)->list_luns(luns));
  ASSERT_EQ(1u, luns.size());
  EXPECT_TRUE(luns[0]->backstore_path(path));
  EXPECT_EQ("", path);
  ASSERT_EQ(0, ::rename((dir_ / "away").c_str(), volume(1).c_str()));
  EXPECT_TRUE(LIO_Saved_Config::restore(report));
  EXPECT_EQ(before, tree_->listing());
  EXPECT_EQ("", findings());
}

// What other hands or a crash did to the tree, what compare calls it, and that repair mends it.
TEST_F(Lio_Library, differences_are_named_and_mended) {
  ASSERT_TRUE(create(volume(1), {{INITIATOR, ""}}));
  const std::string before = tree_->listing();
  const std::string acl = GROUP + "/acls/" + INITIATOR;
  using Damage = std::function<void()>;
  const std::pair<const char*, Damage> cases[] = {
      {"leftover_folder ", [&] { tree_->make_folder(GROUP + "/lun/lun_7"); }},
      {"leftover_folder ", [&] { tree_->make_folder(GROUP + "/acls/iqn.2026-11.org.example:empty"); }},
      {"leftover_folder ", [&] { tree_->make_folder(acl + "/lun_5"); }},
      {"leftover_backstore ",
       [&] { LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, volume(9).c_str(), 512); }},
      {"leftover_target ", [&] { target(OTHER)->create_or_get_tpg(1); }},
      {"extra_acl ",
       [&] {
         tree_->make_folder(GROUP + "/acls/iqn.2026-11.org.example:x");
         tree_->make_folder(GROUP + "/acls/iqn.2026-11.org.example:x/lun_0");
         tree_->make_link(GROUP + "/lun/lun_0", GROUP + "/acls/iqn.2026-11.org.example:x/lun_0/lun");
       }},
      {"missing_acl ",
       [&] {
         tree_->remove_link(acl + "/lun_0/lun");
         tree_->remove_folder(acl + "/lun_0");
         tree_->remove_folder(acl);
       }},
      {"leftover_lun extra_acl leftover_backstore other_lun ",
       [&] {
         const auto store =
             LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, volume(9).c_str(), 512);
         tree_->remove_link(GROUP + "/lun/lun_0/lun");
         tree_->make_link("core/fileio_0/" + store->name(), GROUP + "/lun/lun_0/lun");
       }},
      {"missing_portal ", [&] { tree_->remove_folder(GROUP + "/np/[::]:3260"); }},
      {"wrong_mode ", [&] { tree_->write(GROUP + "/attrib/generate_node_acls", "1"); }},
      {"wrong_enable ", [&] { tree_->write(GROUP + "/enable", "0"); }},
      {"unfinished_lun ",
       [&] {
         const auto store =
             LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, volume(3).c_str(), 512);
         target()->get_tpg(1)->create_lun(store->name().c_str(), false);
       }},
  };
  for (const auto& one : cases) {
    Log_Capture log;
    one.second();
    const std::string named = findings();
    EXPECT_EQ(one.first, named);
    EXPECT_NE(std::string::npos, findings(true).find("+")) << one.first;
    EXPECT_EQ("", findings()) << one.first;
    EXPECT_EQ(before, tree_->listing()) << one.first;
  }
}

TEST_F(Lio_Library, a_wrong_serial_number_is_mended_when_nobody_is_logged_in) {
  ASSERT_TRUE(create(volume(1), {{INITIATOR, ""}}));
  const std::string kernel = "00000001-1111-4222-8333-444455556666";
  const std::string wanted = "0000000a-1111-4222-8333-444455556666";
  alter_record("\"" + kernel, "\"" + wanted);
  const std::string sessions = "iscsi/" + std::string(TARGET) + "/fabric_statistics/iscsi_instance/sessions";
  Log_Capture log;
  platform::mkdir_p(platform::dirname_string(tree_->full(sessions)), 0755);
  ASSERT_TRUE(platform::write_file_atomically(tree_->full(sessions), "1", 0600));
  EXPECT_EQ("wrong_serial ", findings(true));
  EXPECT_TRUE(log.contains(LM_ERROR, "initiators are logged in"));
  ASSERT_TRUE(platform::write_file_atomically(tree_->full(sessions), "0", 0600));
  LIO_Report report;
  EXPECT_FALSE(LIO_Saved_Config::restore(report));
  EXPECT_EQ("wrong_serial+ missing_acl+ ", findings(true));
  EXPECT_EQ("", findings());
  std::vector<LIO_Export> exports;
  ASSERT_TRUE(LIO_Saved_Config::list_kernel(exports));
  ASSERT_EQ(1u, exports.size());
  EXPECT_EQ(wanted, exports[0].serial);
  EXPECT_EQ(INITIATOR, exports[0].acls.at(0).initiator);
}

TEST_F(Lio_Library, an_image_on_another_filesystem_is_not_restored) {
  ASSERT_TRUE(create(volume(1), {}));
  tree_->reboot();
  restart();
  const std::string filesystem = lio::Backstores::filesystem(volume(1));
  alter_record(filesystem, "0-0");
  Log_Capture log;
  LIO_Report report;
  EXPECT_FALSE(LIO_Saved_Config::restore(report));
  EXPECT_TRUE(log.contains(LM_ERROR, "not on the filesystem that it was exported from"));
  alter_record("0-0", filesystem);
  EXPECT_TRUE(LIO_Saved_Config::restore(report));
  EXPECT_EQ("", findings());
}

// It is a leftover: enabling the group for the next export must not make it part of the saved configuration.
TEST_F(Lio_Library, an_export_that_a_crash_cut_short_is_not_finished_by_the_next_one) {
  const auto store = LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, volume(1).c_str(), 512);
  const auto group = target()->create_or_get_tpg(1);
  ASSERT_TRUE(group->create_lun(store->name().c_str(), false) && group->set_demo_mode());
  restart();
  ASSERT_TRUE(create(volume(2), {}));
  EXPECT_EQ("unfinished_lun ", findings());
  EXPECT_EQ("unfinished_lun+ ", findings(true));
  EXPECT_EQ("", findings());
}

TEST_F(Lio_Library, a_damaged_record_stops_every_change_and_is_not_overwritten) {
  ASSERT_TRUE(create(volume(1), {}));
  const std::string texts[] = {"{", "[]", R"({"version":2,"targets":[],"released":[]})",
                               R"({"version":1,"targets":[{}],"released":[]})"};
  for (const std::string& text : texts) {
    ASSERT_TRUE(platform::write_file_atomically(options_.saved_file, text, 0600));
    Log_Capture log;
    EXPECT_FALSE(target());
    std::vector<LIO_Export> saved;
    EXPECT_FALSE(LIO_Saved_Config::list_saved(saved));
    EXPECT_TRUE(log.contains(LM_ERROR, options_.saved_file));
    std::string now;
    platform::read_file(options_.saved_file, now);
    EXPECT_EQ(text, now);
  }
}

TEST_F(Lio_Library, a_host_without_the_kernel_target_has_no_exports_and_is_left_so) {
  options_.configfs_root = dir_ / "none";
  LIO_Library::install(LIO_Library::over_configfs(options_));
  std::vector<LIO_Export> exports;
  EXPECT_TRUE(LIO_Saved_Config::list_saved(exports) && LIO_Saved_Config::list_kernel(exports));
  EXPECT_TRUE(exports.empty());
  EXPECT_EQ("", findings());
  EXPECT_FALSE(platform::path_exists(options_.configfs_root));
  const Log_Capture log;
  EXPECT_FALSE(target());
}

TEST_F(Lio_Library, the_record_is_private_and_an_export_that_cannot_be_recorded_is_undone) {
  ASSERT_TRUE(create(volume(1), {}));
  struct stat status;
  ASSERT_EQ(0, ::stat(options_.saved_file.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777);
  const auto group = target()->get_tpg(1);
  const auto store = LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, volume(2).c_str(), 512);
  ASSERT_EQ(0, ::rename((dir_ / "data").c_str(), (dir_ / "data.away").c_str()));
  ASSERT_TRUE(platform::write_file_atomically(dir_ / "data", "in the way", 0600));
  Log_Capture log;
  EXPECT_FALSE(group->create_lun(store->name().c_str(), false));
  EXPECT_FALSE(group->get_lun(1));
}

TEST_F(Lio_Library, threads_and_processes_get_numbers_of_their_own) {
  ASSERT_TRUE(create(volume(1), {}));
  const pid_t child = ::fork();
  if (child == 0) {
    restart();
    bool good = true;
    for (unsigned index = 10; index < 20; ++index)
      good = create(volume(index), {}) && good;
    ::_exit(good ? 0 : 1);
  }
  std::thread thread([&] {
    for (unsigned index = 20; index < 30; ++index)
      EXPECT_TRUE(create(volume(index), {}));
  });
  for (unsigned index = 30; index < 40; ++index)
    EXPECT_TRUE(create(volume(index), {}));
  thread.join();
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
  std::vector<LIO_Export> saved;
  ASSERT_TRUE(LIO_Saved_Config::list_saved(saved));
  EXPECT_EQ(31u, saved.size());
  EXPECT_EQ("", findings());
}

}  // namespace
