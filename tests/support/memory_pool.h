#pragma once
// Pools that live in memory: a filesystem driver behind the real backstore manager classes, so that
// everything above the drivers runs without storage. What it does is recorded, and any driver operation can
// be made to fail.
//
//   Memory_Pools pools;                           // takes the place of the real backstore managers
//   pools["<pool id>"].failing.insert("destroy"); // that driver operation fails from now on
//
// Snapshots may be taken, looked for and destroyed by several threads at once.

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "backup/pools/scsipool/filesystem.h"
#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"
#include "platform/json/json_spirit.h"
#include "platform/process/process_manager.h"
#include "platform/process/tool_options.h"
#include "tests/support/temp_dir.h"

struct Memory_Dataset {
  scsi_pool::FS_Info_Item made_with;
  scsi_pool::FS_Info_Item info{{"ctime", "2026-01-02T03:04:05+00:00"}, {"name", "memory"}};
  std::map<std::string, std::string> attributes{{"compression", "lz4"}, {"dedup", "off"}};
  std::vector<std::string> snapshots;
  ACE_UINT64 used = 4096;
  bool mounted = false;
};

struct Memory_Pool {
  bool exists = false;
  ACE_UINT64 used = 0;
  std::string folder;  // where the data of volumes lie
  std::map<std::string, Memory_Dataset> volumes;
  std::map<std::string, Memory_Dataset> filesystems;
  std::set<std::string> failing;   // driver operations that fail
  std::vector<std::string> calls;  // "operation arguments"
  unsigned block_dev_timeout = 0;
  unsigned syncs = 0;
  std::string send_command, receive_command;    // the streaming tools; empty: none is started
  std::vector<std::vector<std::string>> bases;  // of each stream that was sent
  std::shared_ptr<std::recursive_mutex> lock = std::make_shared<std::recursive_mutex>();

  // Records the call; false when the operation is to fail.
  bool call(const std::string& operation, const std::string& arguments = "") {
    const std::lock_guard<std::recursive_mutex> guard(*lock);
    calls.push_back(arguments.empty() ? operation : operation + " " + arguments);
    return failing.count(operation) == 0;
  }
  std::size_t count(const std::string& operation) const {
    std::size_t found = 0;
    for (const std::string& one : calls)
      found += one.compare(0, operation.size(), operation) == 0 ? 1 : 0;
    return found;
  }
};

inline bool start_tool(const std::string& command, ACE_Process_Ex* process) {
  if (command.empty() || process == nullptr) return true;
  platform::Tool_Options options(command);
  return Process_Manager::instance()->spawn(process, options, nullptr) != -1;
}

class Memory_Snapshot : public scsi_pool::Snapshot {
 public:
  Memory_Snapshot(Memory_Pool& pool, Memory_Dataset& parent, std::string name)
      : pool_(pool), parent_(parent), name_(std::move(name)) {}
  bool destroy() override {
    if (!pool_.call("snapshot.destroy", name_)) return false;
    const std::lock_guard<std::recursive_mutex> guard(*pool_.lock);
    auto& all = parent_.snapshots;
    const auto found = std::find(all.begin(), all.end(), name_);
    if (found == all.end()) return false;  // somebody else was faster
    all.erase(found);
    return true;
  }
  bool is_readonly(bool& readonly) const override { return readonly = true; }
  bool get_info(scsi_pool::FS_Info_Item& info) const override {
    info = parent_.info;
    return pool_.call("snapshot.get_info", name_);
  }
  bool size(ACE_UINT64& size) const override {
    size = 100;
    return pool_.call("snapshot.size", name_);
  }
  bool size(ACE_UINT64& excl, ACE_UINT64& rfer) const override {
    excl = 100;
    rfer = 200;
    return pool_.call("snapshot.size", name_);
  }
  bool send(const std::vector<std::string>& increment, ACE_Process_Ex* process) override {
    pool_.bases.push_back(increment);
    return pool_.call("snapshot.send", name_ + "+" + std::to_string(increment.size())) &&
           start_tool(pool_.send_command, process);
  }

 private:
  Memory_Pool& pool_;
  Memory_Dataset& parent_;
  std::string name_;
};

// What volumes and sub filesystems have in common.
template <typename Interface>
class Memory_Base : public Interface {
 public:
  Memory_Base(Memory_Pool& pool, Memory_Dataset& dataset, std::string name)
      : pool_(pool), dataset_(dataset), name_(std::move(name)) {}

  bool get_info(scsi_pool::FS_Info_Item& info) const override {
    info = dataset_.info;
    return pool_.call("get_info", name_);
  }
  bool get_used_size(ACE_UINT64& size) const override {
    size = dataset_.used;
    return pool_.call("get_used_size", name_);
  }
  bool rollback(const char* snapshot) override { return pool_.call("rollback", name_ + "@" + snapshot); }
  scsi_pool::Snapshot* create_snapshot(const char* name, const scsi_pool::FS_Info_Item&) override {
    if (!pool_.call("create_snapshot", name_ + "@" + name)) return nullptr;
    const std::lock_guard<std::recursive_mutex> guard(*pool_.lock);
    dataset_.snapshots.push_back(name);
    return new Memory_Snapshot(pool_, dataset_, name);
  }
  scsi_pool::Snapshot* get_snapshot(const char* name) const override {
    return snapshot_exist(name) ? new Memory_Snapshot(pool_, dataset_, name) : nullptr;
  }
  bool snapshot_exist(const char* name) const override {
    const std::lock_guard<std::recursive_mutex> guard(*pool_.lock);
    const auto& all = dataset_.snapshots;
    return std::find(all.begin(), all.end(), name) != all.end();
  }
  bool receive_snapshot(const char* name, bool, ACE_Process_Ex* process) override {
    return pool_.call("receive", name_ + "@" + name) && start_tool(pool_.receive_command, process);
  }

 protected:
  Memory_Pool& pool_;
  Memory_Dataset& dataset_;
  std::string name_;
};

class Memory_Volume : public Memory_Base<scsi_pool::Sub_Volume> {
 public:
  using Memory_Base::get_info;
  using Memory_Base::Memory_Base;

  bool destroy() override {
    if (!pool_.call("destroy", name_)) return false;
    pool_.volumes.erase(name_);
    return true;
  }
  bool get_info(const char* name, std::string& val) const override {
    val = dataset_.attributes[name];
    return pool_.call("get_attr", name_ + "." + name);
  }
  bool set_info(const char* key, const char* value) override {
    dataset_.attributes[key] = value;
    return pool_.call("set_info", name_ + "." + key + "=" + value);
  }
  bool get_dataset(std::string& path) const override {
    path = pool_.folder + "/" + name_ + "/lun_backstore";
    return pool_.call("get_dataset", name_);
  }
};

class Memory_Sub_Filesystem : public Memory_Base<scsi_pool::Sub_Filesystem> {
 public:
  using Memory_Base::Memory_Base;

  bool destroy(bool force) override {
    if (!pool_.call("destroy", name_ + (force ? " force" : ""))) return false;
    pool_.filesystems.erase(name_);
    return true;
  }
  bool set_reservation(ACE_UINT64 size) const override {
    return pool_.call("set_reservation", name_ + " " + std::to_string(size));
  }
  bool mount(const scsi_pool::FS_Info_Item&) override {
    return dataset_.mounted = pool_.call("mount", name_);
  }
  bool umount() override {
    if (!pool_.call("umount", name_)) return false;
    dataset_.mounted = false;
    return true;
  }
  bool mounted() override { return dataset_.mounted; }
  bool get_mount_point(std::string& mount_point) const override {
    mount_point = pool_.folder + "/mnt/" + name_;
    return pool_.call("get_mount_point", name_);
  }
  bool set_mount_point(const std::string& mount_point) override {
    return pool_.call("set_mount_point", name_ + " " + mount_point);
  }
};

class Memory_Filesystem : public scsi_pool::Filesystem {
 public:
  explicit Memory_Filesystem(Memory_Pool& pool) : pool_(pool) {}
  ~Memory_Filesystem() override {
    const std::lock_guard<std::recursive_mutex> guard(*pool_.lock);
    pool_.block_dev_timeout = check_block_dev_timeout_;
  }

  bool make(const scsi_pool::FS_Info_Item& opts) override { return pool_.call("make", JSON_Dump(opts)); }
  bool destroy() override { return pool_.call("pool.destroy"); }
  bool mount(const scsi_pool::FS_Info_Item& opts) override {
    return pool_.call("pool.mount", JSON_Dump(opts));
  }
  bool umount() override { return pool_.call("pool.umount"); }
  bool mounted() const override { return false; }
  bool sync() const override {
    ++pool_.syncs;
    return pool_.failing.count("sync") == 0;
  }
  bool verify() const override { return true; }
  bool get_used_size(ACE_UINT64& size) const override {
    size = pool_.used;
    return pool_.call("pool.get_used_size");
  }
  scsi_pool::Sub_Volume* create_sub_volume(const char* name, const scsi_pool::FS_Info_Item& info) override {
    return pool_.call("create_volume", name) ? add_volume(name, info) : nullptr;
  }
  scsi_pool::Sub_Volume* clone_sub_volume(const char* name, const char* parent, const char* snapshot,
                                          const scsi_pool::FS_Info_Item& info) override {
    if (!pool_.call("clone_volume", std::string(name) + " " + parent + "@" + snapshot)) return nullptr;
    scsi_pool::Sub_Volume* made = add_volume(name, info);
    pool_.volumes[name].info["origin_subvol"] = parent;
    pool_.volumes[name].info["origin_snapshot"] = snapshot;
    return made;
  }
  scsi_pool::Sub_Volume* get_sub_volume(const char* name) const override {
    const auto found = pool_.volumes.find(name);
    return found == pool_.volumes.end() ? nullptr : new Memory_Volume(pool_, found->second, name);
  }
  bool sub_volume_exist(const char* name) const override {
    pool_.call("volume_exist", name);
    return pool_.volumes.count(name) != 0;
  }
  scsi_pool::Sub_Filesystem* create_sub_filesystem(const char* name,
                                                   const scsi_pool::FS_Info_Item& info) override {
    return pool_.call("create_filesystem", name) ? add_filesystem(name, info) : nullptr;
  }
  scsi_pool::Sub_Filesystem* clone_sub_filesystem(const char* name, const char* source, const char* snapshot,
                                                  const scsi_pool::FS_Info_Item& info) override {
    const bool good = pool_.call("clone_filesystem", std::string(name) + " " + source + "@" + snapshot);
    return good ? add_filesystem(name, info) : nullptr;
  }
  scsi_pool::Sub_Filesystem* get_sub_filesystem(const char* name) const override {
    const auto found = pool_.filesystems.find(name);
    return found == pool_.filesystems.end() ? nullptr : new Memory_Sub_Filesystem(pool_, found->second, name);
  }
  bool sub_filesystem_exist(const char* name) const override { return pool_.filesystems.count(name) != 0; }

 private:
  scsi_pool::Sub_Volume* add_volume(const char* name, const scsi_pool::FS_Info_Item& info) {
    pool_.volumes[name].made_with = info;
    ::mkdir((pool_.folder + "/" + name).c_str(), 0700);
    return new Memory_Volume(pool_, pool_.volumes[name], name);
  }
  scsi_pool::Sub_Filesystem* add_filesystem(const char* name, const scsi_pool::FS_Info_Item& info) {
    pool_.filesystems[name].made_with = info;
    return new Memory_Sub_Filesystem(pool_, pool_.filesystems[name], name);
  }

  Memory_Pool& pool_;
};

class Memory_Backstore_Manager : public scsi_pool::SCSI_Pool_Backstore_Manager {
 public:
  Memory_Backstore_Manager(Memory_Pool& pool, const std::string& pool_id) : pool_(pool) {
    pool_id_ = pool_id;
  }
  bool open(scsi_pool::FS_TYPE fs_type) override {
    fs_mgr_.reset(new Memory_Filesystem(pool_));
    return fs_type != scsi_pool::FS_UNKNOWN;
  }
  bool open(const std::string& fs_type) override {
    return open(scsi_pool::fs_type_to_value(fs_type.c_str(), -1));
  }
  bool create(ACE_UINT64 size, bool thin) override {
    if (!pool_.call("backstore.create", std::to_string(size) + (thin ? " thin" : ""))) return false;
    return pool_.exists = true;
  }
  bool destroy() override {
    if (!pool_.call("backstore.destroy")) return false;
    pool_.exists = false;
    return true;
  }
  bool mount(const scsi_pool::FS_Info_Item& info) override {
    return pool_.call("backstore.mount", JSON_Dump(info));
  }
  bool umount() override { return true; }
  bool mounted() const override { return pool_.exists; }
  bool exist() const override { return pool_.exists; }
  bool get_used_size(ACE_UINT64& size) const override {
    size = pool_.used;
    return pool_.call("backstore.get_used_size");
  }

 private:
  Memory_Pool& pool_;
};

// All pools of a test. While it lives every backstore manager works on it.
class Memory_Pools {
 public:
  Memory_Pools() {
    scsi_pool::SCSI_Pool_Backstore_Factory::replace_maker(
        [this](const std::string& pool_id, const std::string& global_dev) {
          Memory_Pool& pool = (*this)[pool_id];
          pool.call("open", global_dev);
          return new Memory_Backstore_Manager(pool, pool_id);
        });
  }
  ~Memory_Pools() { scsi_pool::SCSI_Pool_Backstore_Factory::replace_maker({}); }
  Memory_Pools(const Memory_Pools&) = delete;
  Memory_Pools& operator=(const Memory_Pools&) = delete;

  Memory_Pool& operator[](const std::string& pool_id) {
    const std::lock_guard<std::mutex> guard(lock_);
    Memory_Pool& pool = pools_[pool_id];
    if (pool.folder.empty()) {
      pool.folder = dir_ / pool_id;
      ::mkdir(pool.folder.c_str(), 0700);
    }
    return pool;
  }

 private:
  Temp_Dir dir_;
  std::mutex lock_;
  std::map<std::string, Memory_Pool> pools_;
};
