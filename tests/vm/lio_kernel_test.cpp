// The LIO target library on the real kernel target, as root in the virtual machine. Each test starts and ends
// with an empty target tree.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/base/file.h"
#include "platform/lio/lio.h"

namespace {

const char* const TARGET = "iqn.2026-11.org.example:vm-one";
const char* const OTHER_TARGET = "iqn.2026-11.org.example:vm-two";
const char* const LISTED = "iqn.2026-11.org.example:listed";
const char* const STRANGER = "iqn.2026-11.org.example:stranger";
const std::string TREE = "/sys/kernel/config/target/";

std::string read_text(const std::string& path) {
  std::string text;
  platform::read_file(path, text);
  while (!text.empty() && text.back() == '\n')
    text.pop_back();
  return text;
}

std::string output(const std::string& command) {
  FILE* pipe = ::popen(command.c_str(), "r");
  std::string text;
  char buffer[4096];
  while (pipe && ::fgets(buffer, sizeof(buffer), pipe))
    text += buffer;
  if (pipe) ::pclose(pipe);
  return text;
}

// Targets and backstores in the kernel, one a line.
std::string residue() {
  return output(
      "cd /sys/kernel/config/target; ls -d iscsi/*/ loopback/*/ core/*/*/ 2>/dev/null |"
      " grep -v -e discovery_auth -e ^core/alua");
}

bool sees(const char* initiator, const std::string& target, unsigned lun) {
  const std::string url = "iscsi://127.0.0.1/" + target + "/" + std::to_string(lun);
  const std::string text = output(std::string("timeout 20 iscsi-inq -i ") + initiator + " " + url + " 2>&1");
  return text.find("Peripheral Qualifier:CONNECTED") != std::string::npos;
}

// An initiator that stays logged in: the tests' own, which obeys lines and answers each with one.
class Live_Client {
 public:
  Live_Client(const char* initiator, const char* target) {
    std::signal(SIGPIPE, SIG_IGN);
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
    const std::string self =
        std::filesystem::read_symlink("/proc/self/exe").parent_path().string() + "/iscsi_io";
    child_ = ::fork();
    if (child_ == 0) {
      ::dup2(ends[1], 0);
      ::dup2(ends[1], 1);
      ::execl(self.c_str(), "iscsi_io", initiator, "127.0.0.1:3260", target, nullptr);
      ::_exit(127);
    }
    ::close(ends[1]);
    commands_ = ends[0];
    answers_ = ::fdopen(::dup(ends[0]), "r");
    login_ = answer();
  }
  ~Live_Client() {
    ::close(commands_);
    ::fclose(answers_);
    ::waitpid(child_, nullptr, 0);
  }
  Live_Client(const Live_Client&) = delete;
  Live_Client& operator=(const Live_Client&) = delete;

  const std::string& login() const { return login_; }
  // "ok ..." or "failed ...", or nothing when it has ended.
  std::string ask(const std::string& line) {
    const std::string text = line + "\n";
    return ::write(commands_, text.data(), text.size()) < 0 ? "" : answer();
  }

 private:
  std::string answer() {
    char line[4096];
    return std::fgets(line, sizeof(line), answers_) ? std::string(line, std::strcspn(line, "\n")) : "";
  }

  pid_t child_ = 0;
  int commands_ = -1;
  FILE* answers_ = nullptr;
  std::string login_;
};

class Lio_Kernel : public ::testing::Test {
 protected:
  void SetUp() override {
    char folder[] = "/tmp/lio-kernel-XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(folder));
    folder_ = folder;
    install("iscsi-only");
    ASSERT_EQ("", residue());
  }

  void TearDown() override {
    EXPECT_EQ("", residue());
    // One failure shall not be the next test's.
    LIO_Report report;
    if (HasFailure()) LIO_Saved_Config::repair(report);
    LIO_Library::install(nullptr);
    output("rm -rf " + folder_);
  }

  std::shared_ptr<LIO_Library> library(const std::string& fc_fabric, const std::string& saved) const {
    LIO_Options options;
    options.lock_file = folder_ + "/lock";
    options.saved_file = folder_ + "/" + saved;
    if (fc_fabric != "iscsi-only") options.fc_fabric = fc_fabric;
    return LIO_Library::over_configfs(options);
  }

  void install(const std::string& fc_fabric) { LIO_Library::install(library(fc_fabric, "lio.json")); }

  // A volume as the storage layer lays it out: <lun>/lun_backstore.
  std::string volume(unsigned index, off_t size = 16 << 20) const {
    char uuid[40];
    std::snprintf(uuid, sizeof(uuid), "%08x-1111-4222-8333-444455556666", index);
    const std::string path = folder_ + "/" + uuid + "/lun_backstore";
    platform::mkdir_p(platform::dirname_string(path), 0755);
    const int handle = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(0, ::ftruncate(handle, size));
    ::close(handle);
    return path;
  }

  // The steps of an export as the pool module makes them.
  static LIO_Lun_var do_export(const char* type, const char* target, const std::string& path,
                               const LIO_ACLs& acls) {
    const auto changes = LIO_Library::installed()->lock_changes();
    const auto manager = LIO_Target_Manager_Factory::get_manager(type);
    const auto group = manager->create_or_get_target(target)->create_or_get_tpg(1);
    if (!group) return nullptr;
    const bool demo = group->demo_mode();
    LIO_Luns luns;
    if (!group->list_luns(luns)) return nullptr;
    if (const auto iscsi = std::dynamic_pointer_cast<ISCSI_Target_Port_Group>(group))
      if (!iscsi->add_net_portals(true, nullptr, 3260)) return nullptr;
    const auto store = LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, path.c_str(), 16 << 20);
    if (!store) return nullptr;
    const auto lun = group->create_lun(store->name().c_str(), false);
    if (!lun) return nullptr;
    bool good = true;
    if (demo && luns.empty() && !acls.empty()) good = group->set_acl_mode() && lun->add_acls(acls, true);
    if (!demo && luns.empty() && acls.empty()) good = group->set_demo_mode();
    if (!demo && !acls.empty()) good = group->set_acl_mode() && lun->add_acls(acls, true);
    return good && group->enable(true) ? lun : nullptr;
  }

  static LIO_Lun_var export_iscsi(const std::string& path, const LIO_ACLs& acls = {},
                                  const char* target = TARGET) {
    return do_export("iSCSI", target, path, acls);
  }

  static bool destroy(const char* target = TARGET, const char* type = "iSCSI") {
    return LIO_Target_Manager_Factory::get_manager(type)->create_or_get_target(target)->destroy(false);
  }

  // What a reboot does to the kernel: a library with another record takes everything away.
  void empty_kernel(const std::vector<const char*>& targets) {
    LIO_Library::install(library("iscsi-only", "other.json"));
    for (const char* target : targets)
      ASSERT_TRUE(destroy(target));
    install("iscsi-only");
    ASSERT_EQ("", residue());
  }

  static std::vector<LIO_Export> kernel() {
    std::vector<LIO_Export> exports;
    EXPECT_TRUE(LIO_Saved_Config::list_kernel(exports));
    return exports;
  }

  static std::string differences() {
    LIO_Report report;
    EXPECT_TRUE(LIO_Saved_Config::compare(report));
    std::string text;
    for (const LIO_Finding& finding : report)
      text += std::string(lio_finding_name(finding.kind)) + " " + finding.target + ": " + finding.text + "\n";
    return text;
  }

  static std::string summary(const std::vector<LIO_Export>& exports) {
    std::ostringstream text;
    for (const LIO_Export& one : exports) {
      text << one.target << " " << one.number << " " << one.path << " " << one.serial << " " << one.size
           << " " << one.demo_mode << one.enabled;
      for (const LIO_ACL& acl : one.acls)
        text << " " << acl.initiator;
      text << "\n";
    }
    return text.str();
  }

  static std::string group_value(const char* attribute, const char* target = TARGET) {
    return read_text(TREE + "iscsi/" + target + "/tpgt_1/" + attribute);
  }

  std::string folder_;
};

TEST_F(Lio_Kernel, demo_mode_lets_everybody_in_over_both_address_families) {
  const auto lun = export_iscsi(volume(1));
  ASSERT_TRUE(lun);
  EXPECT_EQ(0, lun->seq());
  EXPECT_TRUE(sees(STRANGER, TARGET, 0));
  EXPECT_NE("", output("timeout 20 iscsi-ls iscsi://[::1]/ 2>&1 | grep vm-one"));
  EXPECT_EQ("1", group_value("attrib/generate_node_acls"));
  EXPECT_EQ("0", group_value("attrib/demo_mode_write_protect"));
  const auto other = export_iscsi(volume(2), {{LISTED, ""}});
  ASSERT_TRUE(other);
  EXPECT_EQ("", output("ls " + TREE + "iscsi/" + TARGET + "/tpgt_1/acls"));
  EXPECT_EQ("", differences());
  EXPECT_TRUE(lun->destroy(false));
  EXPECT_TRUE(other->destroy(false));
  EXPECT_TRUE(other->destroy(false));  // gone already
  EXPECT_TRUE(destroy());
}

TEST_F(Lio_Kernel, acl_mode_keeps_strangers_out_and_maps_only_the_lun) {
  const auto first = export_iscsi(volume(1), {{LISTED, "host"}});
  const auto second = export_iscsi(volume(2), {{"IQN.2026-11.ORG.EXAMPLE:third", ""}});
  ASSERT_TRUE(first && second);
  EXPECT_TRUE(sees(LISTED, TARGET, 0));
  EXPECT_FALSE(sees(LISTED, TARGET, 1));
  EXPECT_FALSE(sees(STRANGER, TARGET, 0));
  EXPECT_TRUE(sees("iqn.2026-11.org.example:third", TARGET, 1));
  EXPECT_EQ("0", group_value("attrib/demo_mode_discovery"));
  EXPECT_TRUE(second->add_acls({{LISTED, ""}}, true));
  EXPECT_TRUE(sees(LISTED, TARGET, 1));
  EXPECT_TRUE(second->del_acls({{LISTED, ""}}, true));
  EXPECT_TRUE(first->del_acls({{LISTED, ""}}, true));
  EXPECT_FALSE(sees(LISTED, TARGET, 0));
  EXPECT_FALSE(platform::path_exists(TREE + "iscsi/" + TARGET + "/tpgt_1/acls/" + LISTED));
  EXPECT_FALSE(first->add_acls({{"iqn.2026-11.org.example:bad name", ""}}, true));
  EXPECT_EQ("", differences());
  EXPECT_TRUE(destroy());
}

// A target that outlives its LUNs, as the ports of Fibre Channel do.
TEST_F(Lio_Kernel, clients_of_demo_mode_are_forgotten_by_the_switch_to_acl_mode) {
  install("iscsi");
  const auto demo = do_export("FC", TARGET, volume(1), {});
  ASSERT_TRUE(demo);
  ASSERT_EQ(0, ::mkdir((TREE + "iscsi/" + TARGET + "/tpgt_1/np/0.0.0.0:3260").c_str(), 0755));
  EXPECT_TRUE(sees(STRANGER, TARGET, 0));
  EXPECT_TRUE(sees(LISTED, TARGET, 0));
  const char* const live_name = "iqn.2026-11.org.example:live";
  Live_Client live(live_name, TARGET);
  ASSERT_EQ("ok", live.login().substr(0, 2)) << live.login();
  ASSERT_EQ("ok", live.ask("read 0 0 4096").substr(0, 2));
  ASSERT_TRUE(demo->destroy(false));
  // The target stays, and with it the session, which only has nothing to see any more.
  EXPECT_EQ(1u, LIO_Target_Manager_Factory::get_manager("FC")->create_or_get_target(TARGET)->busy());
  const auto closed = do_export("FC", TARGET, volume(2), {{LISTED, ""}});
  ASSERT_TRUE(closed);
  for (const std::string command : {"luns", "read 0 0 4096", "read 1 0 4096", "write 1 0 4096 7"})
    EXPECT_NE("ok", live.ask(command).substr(0, 2)) << command;
  EXPECT_FALSE(sees(live_name, TARGET, closed->seq()));
  EXPECT_EQ("0", group_value("attrib/cache_dynamic_acls"));
  EXPECT_FALSE(sees(STRANGER, TARGET, closed->seq()));
  EXPECT_TRUE(sees(LISTED, TARGET, closed->seq()));
  EXPECT_EQ("", differences());
  EXPECT_TRUE(destroy(TARGET, "FC"));
}

TEST_F(Lio_Kernel, rebuild_keeps_numbers_and_backstores_and_a_clean_group_is_not_touched) {
  for (unsigned index = 1; index <= 3; ++index)
    ASSERT_TRUE(export_iscsi(volume(index)));
  const auto group =
      LIO_Target_Manager_Factory::get_manager("iSCSI")->create_or_get_target(TARGET)->get_tpg(1);
  ASSERT_TRUE(group->get_lun(1)->destroy(false));
  const std::string before =
      output("cd " + TREE + "iscsi/" + TARGET + "/tpgt_1; readlink lun/*/lun; ls lun np");
  ASSERT_TRUE(group->set_acl_mode());
  EXPECT_EQ(before, output("cd " + TREE + "iscsi/" + TARGET + "/tpgt_1; readlink lun/*/lun; ls lun np"));
  EXPECT_EQ("1", group_value("enable"));
  struct stat one, two;
  ASSERT_EQ(0, ::stat((TREE + "iscsi/" + TARGET + "/tpgt_1").c_str(), &one));
  ASSERT_TRUE(group->set_acl_mode());
  ASSERT_EQ(0, ::stat((TREE + "iscsi/" + TARGET + "/tpgt_1").c_str(), &two));
  EXPECT_EQ(one.st_ino, two.st_ino);
  EXPECT_TRUE(destroy());
}

TEST_F(Lio_Kernel, a_volume_keeps_its_number_and_serial_and_a_stale_handle_cannot_harm_another) {
  const auto zero = export_iscsi(volume(1));
  const auto one = export_iscsi(volume(2));
  ASSERT_TRUE(zero && one);
  const std::string before = summary(kernel());
  ASSERT_TRUE(zero->destroy(false) && one->destroy(false));
  ASSERT_TRUE(export_iscsi(volume(2)));
  ASSERT_TRUE(export_iscsi(volume(1)));
  EXPECT_EQ(before, summary(kernel()));
  // Another volume under the number that the old handle knows.
  output("rm -r " + folder_ + "/00000001*");
  const auto group =
      LIO_Target_Manager_Factory::get_manager("iSCSI")->create_or_get_target(TARGET)->get_tpg(1);
  const auto stale = group->get_lun(0);
  const std::string root = TREE + "iscsi/" + TARGET + "/tpgt_1/lun/lun_0";
  const auto store = LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, volume(3).c_str(), 4096);
  ASSERT_EQ(0, ::unlink((root + "/lun").c_str()));
  ASSERT_EQ(0, ::symlink((TREE + "core/fileio_0/" + store->name()).c_str(), (root + "/lun").c_str()));
  EXPECT_FALSE(stale->destroy(false));
  EXPECT_TRUE(platform::path_exists(root + "/lun"));
  EXPECT_NE("", differences());
  LIO_Report report;
  LIO_Saved_Config::repair(report);
  LIO_Saved_Config::forget(folder_ + "/00000001-1111-4222-8333-444455556666/lun_backstore");
  EXPECT_TRUE(destroy());
}

TEST_F(Lio_Kernel, wrong_volumes_are_refused_and_odd_sizes_are_rounded_up) {
  const std::string odd = volume(1, 1);
  const auto store = LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, odd.c_str(), 513);
  ASSERT_TRUE(store);
  struct stat status;
  ASSERT_EQ(0, ::stat(odd.c_str(), &status));
  EXPECT_EQ(1024, status.st_size);
  const std::string info = read_text(TREE + "core/fileio_0/" + store->name() + "/info");
  EXPECT_NE(std::string::npos, info.find("Size: 1024  Mode: Buffered-WCE")) << info;
  EXPECT_EQ("1", read_text(TREE + "core/fileio_0/" + store->name() + "/attrib/emulate_tpu"));
  const std::string name = store->name();
  // An unused leftover of the same path is replaced, a used one not.
  EXPECT_TRUE(LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, odd.c_str(), 513));
  EXPECT_TRUE(LIO_Backstore_Manager::remove_backstore(name.c_str(), false));
  EXPECT_TRUE(LIO_Backstore_Manager::remove_backstore(name.c_str(), false));
  ASSERT_TRUE(export_iscsi(odd));
  EXPECT_FALSE(LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, odd.c_str(), 513));
  EXPECT_FALSE(LIO_Backstore_Manager::remove_backstore(name.c_str(), false));
  const std::string link = folder_ + "/another-name";
  ASSERT_EQ(0, ::link(odd.c_str(), link.c_str()));
  EXPECT_FALSE(LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, link.c_str(), 513));
  const std::string missing = folder_ + "/missing";
  EXPECT_FALSE(LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, missing.c_str(), 512));
  EXPECT_FALSE(platform::path_exists(missing));
  EXPECT_FALSE(LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, volume(2).c_str(), 0));
  EXPECT_FALSE(LIO_Backstore_Manager::create_backstore(LIO_Backstore::block, volume(2).c_str(), 512));
  EXPECT_TRUE(destroy());
}

TEST_F(Lio_Kernel, block_device) {
  const std::string path = volume(1);
  std::string device = output("losetup -f --show " + path);
  device.pop_back();
  const auto store = LIO_Backstore_Manager::create_backstore(LIO_Backstore::block, device.c_str(), 0);
  ASSERT_TRUE(store);
  std::string serial;
  EXPECT_TRUE(store->get_vpd_unit_serial(serial));
  EXPECT_EQ(lio::path_serial(device), serial);
  EXPECT_TRUE(LIO_Backstore_Manager::remove_backstore(store->name().c_str(), false));
  output("losetup -d " + device);
}

TEST_F(Lio_Kernel, fibre_channel_without_an_adapter_says_so) {
  const auto manager = LIO_Target_Manager_Factory::get_manager("FC");
  ASSERT_TRUE(manager);
  EXPECT_FALSE(manager->create_or_get_target("21:00:00:24:ff:31:4c:48"));
}

TEST_F(Lio_Kernel, busy_counts_live_sessions) {
  ASSERT_TRUE(export_iscsi(volume(1)));
  const auto target = LIO_Target_Manager_Factory::get_manager("iSCSI")->create_or_get_target(TARGET);
  EXPECT_EQ(0u, target->busy());
  const std::string url = std::string("iscsi://127.0.0.1/") + TARGET + "/0";
  const pid_t client = ::fork();
  if (client == 0) {
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, 1);
    ::dup2(null, 2);
    ::execlp("iscsi-perf", "iscsi-perf", "-i", LISTED, url.c_str(), nullptr);
    ::_exit(127);
  }
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_EQ(1u, target->busy());
  ::kill(client, SIGKILL);
  ::waitpid(client, nullptr, 0);
  // The kernel notices within some 2 s that the connection is gone.
  for (int tries = 0; tries < 5 && target->busy() != 0; ++tries)
    continue;
  EXPECT_EQ(0u, target->busy());
  EXPECT_TRUE(destroy());
}

TEST_F(Lio_Kernel, restore_brings_back_numbers_serials_modes_and_acls_and_retries) {
  const std::string late = volume(4);
  ASSERT_TRUE(export_iscsi(volume(1)));
  ASSERT_TRUE(export_iscsi(volume(2)));
  ASSERT_TRUE(export_iscsi(volume(3), {{LISTED, "host-1"}, {STRANGER, ""}}, OTHER_TARGET));
  ASSERT_TRUE(export_iscsi(late, {{LISTED, "host-1"}}, OTHER_TARGET));
  const std::string before = summary(kernel());
  empty_kernel({TARGET, OTHER_TARGET});
  ASSERT_EQ(0, ::rename(late.c_str(), (late + ".away").c_str()));
  LIO_Report report;
  EXPECT_FALSE(LIO_Saved_Config::restore(report));
  const auto failed = std::find_if(report.begin(), report.end(), [](const auto& one) { return !one.mended; });
  ASSERT_NE(report.end(), failed);
  EXPECT_EQ(LIO_Finding::MISSING_LUN, failed->kind);
  EXPECT_EQ(late, failed->path);
  EXPECT_EQ(3u, kernel().size());
  ASSERT_EQ(0, ::rename((late + ".away").c_str(), late.c_str()));
  report.clear();
  EXPECT_TRUE(LIO_Saved_Config::restore(report));
  EXPECT_EQ(before, summary(kernel()));
  EXPECT_EQ("", differences());
  EXPECT_TRUE(sees(LISTED, OTHER_TARGET, 1));
  EXPECT_FALSE(sees(STRANGER, OTHER_TARGET, 1));
  EXPECT_TRUE(destroy());
  EXPECT_TRUE(destroy(OTHER_TARGET));
}

TEST_F(Lio_Kernel, loopback_stands_in_for_fibre_channel) {
  install("loopback");
  const char* const port = "naa.5001405aabbccdd1";
  ASSERT_TRUE(
      LIO_Target_Manager_Factory::get_manager("FC")->create_or_get_target(port)->create_or_get_tpg(1));
  output("echo naa.5001405aabbccdd2 > " + TREE + "loopback/" + port + "/tpgt_1/nexus");
  const auto lun = do_export("FC", port, volume(1), {});
  ASSERT_TRUE(lun);
  const std::vector<LIO_Export> exports = kernel();
  ASSERT_EQ(1u, exports.size());
  EXPECT_EQ(TYPE_FC, exports[0].type);
  // The LUN is a disk of this machine, which tells its serial number once it has been probed.
  std::string disk;
  for (int tries = 0; tries < 50 && disk.empty(); ++tries) {
    disk = output("cat /sys/bus/scsi/devices/*/vpd_pg80 | tr -d '\\0' | grep -a " + exports[0].serial);
    if (disk.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  EXPECT_NE("", disk) << output("ls -l /sys/bus/scsi/devices; dmesg | tail -5");
  EXPECT_FALSE(lun->add_acls({{port, ""}}, true));
  EXPECT_EQ("", differences());
  EXPECT_TRUE(lun->destroy(false));
  EXPECT_TRUE(destroy(port, "FC"));
}

TEST_F(Lio_Kernel, an_administrators_objects_are_left_alone) {
  const std::string path = volume(1);
  const std::string script = "cd " + TREE + "; mkdir -p iscsi/" + TARGET +
                             "/tpgt_1/lun/lun_0 core/fileio_0/foreign;" + "echo fd_dev_name=" + path +
                             ",fd_dev_size=4096 > core/fileio_0/foreign/control;" +
                             "echo 1 > core/fileio_0/foreign/enable; ln -s " + TREE +
                             "core/fileio_0/foreign iscsi/" + TARGET + "/tpgt_1/lun/lun_0/other_name";
  output(script);
  EXPECT_EQ("", differences());
  const auto target = LIO_Target_Manager_Factory::get_manager("iSCSI")->create_or_get_target(TARGET);
  const auto group = target->get_tpg(1);
  ASSERT_TRUE(group);
  EXPECT_FALSE(group->set_demo_mode());
  ASSERT_TRUE(group->get_lun(0));
  EXPECT_FALSE(group->get_lun(0)->destroy(false));
  EXPECT_FALSE(target->destroy(false));
  EXPECT_FALSE(LIO_Backstore_Manager::remove_backstore("foreign", true));
  EXPECT_FALSE(LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, path.c_str(), 4096));
  output("cd " + TREE + "iscsi/" + TARGET +
         "; rm tpgt_1/lun/lun_0/other_name; rmdir tpgt_1/lun/lun_0 tpgt_1; cd ..; rmdir " + TARGET +
         " ../core/fileio_0/foreign");
}

// Killed at a named point; then a repair leaves either the whole export or nothing, and no residue.
class Lio_Kill : public Lio_Kernel, public ::testing::WithParamInterface<const char*> {
 protected:
  // True when the process died at the point.
  static bool killed_at(const std::string& point, const std::function<bool()>& work) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::setenv("SCSIPOOL_FAULT", point.c_str(), 1);
      ::_exit(work() ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
  }

  static void expect_repairable() {
    LIO_Report report;
    EXPECT_TRUE(LIO_Saved_Config::repair(report));
    EXPECT_EQ("", differences());
  }
};

class Lio_Kill_Export : public Lio_Kill {};
TEST_P(Lio_Kill_Export, leaves_nothing_that_repair_does_not_mend) {
  const LIO_ACLs acls{{LISTED, ""}};
  EXPECT_TRUE(killed_at(GetParam(), [&] { return export_iscsi(volume(1), acls) != nullptr; }));
  expect_repairable();
  // The export can be made afterwards, whatever the crash left.
  destroy();
  ASSERT_EQ("", residue());
  EXPECT_TRUE(export_iscsi(volume(1), acls));
  EXPECT_TRUE(sees(LISTED, TARGET, 0));
  EXPECT_TRUE(destroy());
}
INSTANTIATE_TEST_SUITE_P(points, Lio_Kill_Export,
                         ::testing::Values("lio.target_saved", "lio.target_made", "lio.group_made",
                                           "lio.portal_made", "lio.backstore_made",
                                           "lio.backstore_controlled", "lio.backstore_named",
                                           "lio.backstore_enabled", "lio.backstore_tuned", "lio.lun_made",
                                           "lio.lun_linked", "lio.lun_saved", "lio.acl_mode_saved",
                                           "lio.acl_attributes_written", "lio.acl_made", "lio.mapping_made",
                                           "lio.lun_mapped", "lio.acls_saved", "lio.group_enabled"));

class Lio_Kill_Unexport : public Lio_Kill {};
TEST_P(Lio_Kill_Unexport, leaves_nothing_that_repair_does_not_mend) {
  ASSERT_TRUE(export_iscsi(volume(1), {{LISTED, ""}}));
  ASSERT_TRUE(export_iscsi(volume(2), {{LISTED, ""}}));
  EXPECT_TRUE(killed_at(GetParam(), [] { return destroy(); }));
  expect_repairable();
  EXPECT_TRUE(kernel().empty() || kernel().size() == 2) << summary(kernel());
  EXPECT_TRUE(destroy());
}
INSTANTIATE_TEST_SUITE_P(points, Lio_Kill_Unexport,
                         ::testing::Values("lio.group_disabled", "lio.mapping_unlinked", "lio.lun_unmapped",
                                           "lio.lun_unlinked", "lio.lun_removed", "lio.portals_removed",
                                           "lio.group_removed", "lio.target_removed",
                                           "lio.backstore_removed"));

class Lio_Kill_Switch : public Lio_Kill {};
TEST_P(Lio_Kill_Switch, never_stays_open) {
  ASSERT_TRUE(export_iscsi(volume(1)));
  const auto group =
      LIO_Target_Manager_Factory::get_manager("iSCSI")->create_or_get_target(TARGET)->get_tpg(1);
  EXPECT_TRUE(killed_at(GetParam(), [&] { return group->set_acl_mode(); }));
  expect_repairable();
  EXPECT_EQ("0", group_value("attrib/generate_node_acls"));
  EXPECT_EQ("0", group_value("attrib/cache_dynamic_acls"));
  EXPECT_EQ(1u, kernel().size());
  EXPECT_TRUE(destroy());
}
INSTANTIATE_TEST_SUITE_P(points, Lio_Kill_Switch,
                         ::testing::Values("lio.acl_mode_saved", "lio.lun_removed", "lio.group_removed",
                                           "lio.group_rebuilt", "lio.acl_attributes_written",
                                           "lio.lun_made"));

class Lio_Scale : public Lio_Kernel {
 protected:
  using Clock = std::chrono::steady_clock;

  static double since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  }

  // Exports the volumes from first to last. The middle of what each took, in milliseconds.
  double exports(unsigned first, unsigned last) {
    std::vector<double> times;
    for (unsigned index = first; index <= last; ++index) {
      const std::string path = volume(index);
      const auto start = Clock::now();
      EXPECT_TRUE(export_iscsi(path, {{LISTED, ""}}));
      times.push_back(since(start));
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
  }

  // Milliseconds for each LUN that there is, the best of many.
  static double listing(std::size_t expected) {
    const auto group =
        LIO_Target_Manager_Factory::get_manager("iSCSI")->create_or_get_target(TARGET)->get_tpg(1);
    double best = 1e9;
    for (int tries = 0; tries < 25; ++tries) {
      const auto start = Clock::now();
      LIO_Luns luns;
      EXPECT_TRUE(group->list_luns(luns));
      best = std::min(best, since(start));
      EXPECT_EQ(expected, luns.size());
    }
    return best / static_cast<double>(expected);
  }

  // How much dearer the 200th export and a listing become.
  void measure(double& growth, double& listing_growth) {
    exports(1, 4);
    const double tenth = exports(5, 15);
    exports(16, 100);
    const double listing_at_100 = listing(100);
    exports(101, 194);
    const double last = exports(195, 205);
    const double listing_at_205 = listing(205);
    std::printf("10th export %.1f ms, 200th %.1f ms; listing %.3f and %.3f ms a LUN\n", tenth, last,
                listing_at_100, listing_at_205);
    growth = last / tenth;
    listing_growth = listing_at_205 / listing_at_100;
  }
};

TEST_F(Lio_Scale, exports_do_not_become_dear_and_listing_is_cheap) {
  double growth = 1e9, listing_growth = 1e9;
  // What else the computer does can slow down one half of a run, but hardly that of each run.
  for (int run = 0; run < 3 && (growth >= 1.5 || listing_growth >= 2); ++run) {
    measure(growth, listing_growth);
    EXPECT_EQ("", differences());
    ASSERT_TRUE(destroy());
  }
  EXPECT_LT(growth, 1.5);
  EXPECT_LT(listing_growth, 2);
}

}  // namespace
