#include "platform/lio/configfs_context.h"

#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <thread>

#include "platform/base/log.h"

extern char** environ;

namespace lio {

namespace {

constexpr unsigned long CONFIGFS_MAGIC = 0x62656570;
// Removing a thousand LUNs takes about a minute; who holds the lock longer hangs in the kernel.
constexpr std::chrono::seconds LONGEST_WAIT(300);
constexpr std::chrono::milliseconds POLL(10);

bool is_folder(const std::string& path) {
  return platform::is_directory(path);
}

// Runs modprobe and tells whether it succeeded.
bool load_modules(std::vector<std::string> names) {
  names.insert(names.begin(), {"modprobe", "-a"});
  std::vector<char*> arguments;
  for (std::string& name : names)
    arguments.push_back(&name[0]);
  arguments.push_back(nullptr);
  pid_t child = 0;
  const int error = ::posix_spawnp(&child, "modprobe", nullptr, nullptr, arguments.data(), environ);
  if (error != 0) return LOG_FAILURE("Failed to run modprobe: %s\n", std::strerror(error));
  int status = 0;
  while (::waitpid(child, &status, 0) < 0)
    if (errno != EINTR) return LOG_FAILURE("Failed to wait for modprobe: %m\n");
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool mount_configfs(const std::string& root) {
  struct statfs status;
  if (::statfs(root.c_str(), &status) == 0 && static_cast<unsigned long>(status.f_type) == CONFIGFS_MAGIC)
    return true;
  if (::mount("configfs", root.c_str(), "configfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0)
    return true;
  return LOG_FAILURE("Failed to mount configfs on '%s': %m\n", root.c_str());
}

Name_Form form_of(const std::string& folder) {
  if (folder == "iscsi") return Name_Form::iscsi;
  return folder == "loopback" ? Name_Form::loopback : Name_Form::fibre_channel;
}

}  // namespace

Context::Context(const LIO_Options& options, std::shared_ptr<Configfs> tree)
    : options_(options), tree_(std::move(tree)), saved_(options.saved_file) {}

Fabric Context::fabric(LIO_Target_Type type) const {
  Fabric fabric;
  fabric.type = type;
  fabric.folder = type == TYPE_ISCSI ? "iscsi" : options_.fc_fabric;
  fabric.form = form_of(fabric.folder);
  return fabric;
}

std::vector<Fabric> Context::fabrics() const {
  std::vector<Fabric> all{fabric(TYPE_ISCSI), fabric(TYPE_FC)};
  if (all[0].folder == all[1].folder) all.pop_back();
  return all;
}

bool Context::ensure_fabric(const Fabric& fabric) {
  if (tree_->exists(fabric.folder)) return true;
  int error = tree_->make_folder(fabric.folder);
  if (error == EINVAL && fabric.folder == "qla2xxx" && options_.prepare_kernel && !fc_module_tried_) {
    fc_module_tried_ = true;
    if (load_modules({"tcm_qla2xxx"})) error = tree_->make_folder(fabric.folder);
  }
  if (error == 0 || error == EEXIST) return true;
  if (fabric.type == TYPE_FC)
    return LOG_FAILURE(
        "Failed to use Fibre Channel targets: the kernel has no fabric '%s' (%s); needed are the "
        "module tcm_qla2xxx and an adapter in target mode\n",
        fabric.folder.c_str(), std::strerror(error));
  return LOG_FAILURE("Failed to use iSCSI targets: '%s': %s; needed is the module iscsi_target_mod\n",
                     tree_->full(fabric.folder).c_str(), std::strerror(error));
}

bool Context::ensure_port(const Fabric& fabric, const std::string& name) {
  if (fabric.folder != "qla2xxx" || tree_->exists(fabric.folder + "/" + name)) return true;
  std::string wanted = "0x";
  for (const char c : name)
    if (c != ':') wanted += c;
  std::string ports;
  std::error_code error;
  for (const auto& host : std::filesystem::directory_iterator(options_.fc_ports, error)) {
    std::string port;
    platform::read_file(host.path().string() + "/port_name", port);
    while (!port.empty() && port.back() == '\n')
      port.pop_back();
    if (port == wanted) return true;
    ports += " " + port;
  }
  return LOG_FAILURE("Failed to get Fibre Channel target '%s': this machine has no such port; its ports:%s\n",
                     name.c_str(), ports.empty() ? " none" : ports.c_str());
}

bool Context::save(const std::function<void(Record&)>& alter) {
  alter(saved_.record());
  saved_.record().prune(std::time(nullptr));
  unsaved_ = false;
  return saved_.save();
}

bool Context::save_later(const std::function<void(Record&)>& alter) {
  if (depth_ < 2) return save(alter);
  alter(saved_.record());
  unsaved_ = true;
  return true;
}

bool Context::wait_for_file() {
  const std::string& path = options_.lock_file;
  if (!platform::mkdir_p(platform::dirname_string(path), 0755))
    return LOG_FAILURE("Failed to make the folder of lock file '%s': %m\n", path.c_str());
  const auto give_up = std::chrono::steady_clock::now() + LONGEST_WAIT;
  while (!lock_file_.lock(path, false)) {
    if (errno != EWOULDBLOCK) return LOG_FAILURE("Failed to lock '%s': %m\n", path.c_str());
    if (std::chrono::steady_clock::now() > give_up)
      return LOG_FAILURE("Failed to lock '%s': another process has held it for 5 minutes\n", path.c_str());
    std::this_thread::sleep_for(POLL);
  }
  return true;
}

bool Context::enter(bool kernel) {
  mutex_.lock();
  if (depth_ == 0 && !wait_for_file()) {
    mutex_.unlock();
    return false;
  }
  ++depth_;
  // Under the lock nobody else writes the file; what is not saved yet must not be read over.
  const bool current = depth_ > 1 && saved_.known();
  if ((!kernel || prepare()) && (current || saved_.refresh())) return true;
  leave();
  return false;
}

void Context::leave() {
  if (depth_ == 1 && unsaved_) save([](Record&) {});
  if (--depth_ == 0) lock_file_.unlock();
  mutex_.unlock();
}

bool Context::prepare() {
  if (prepared_) return true;
  const std::string target = tree_->root() + "/target";
  if (options_.prepare_kernel && !is_folder(target)) {
    if (!mount_configfs(tree_->root())) return false;
    if (!is_folder(target)) load_modules({"target_core_mod", "iscsi_target_mod"});
  }
  if (!is_folder(target))
    return LOG_FAILURE(
        "Failed to use the kernel's SCSI target: '%s' does not exist (modules target_core_mod and "
        "iscsi_target_mod)\n",
        target.c_str());
  make_reservation_folders();
  return prepared_ = true;
}

// Persistent reservations answer NOT READY without these. Only a notice: the rest works.
void Context::make_reservation_folders() {
  const std::string root = tree_->value("dbroot");
  if (root.empty()) return;
  for (const char* folder : {"/pr", "/alua"})
    if (!platform::mkdir_p(root + folder, 0700))
      LOG_NOTICE("No persistent reservations: failed to make '%s%s': %m\n", root.c_str(), folder);
}

}  // namespace lio
