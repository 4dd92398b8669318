#pragma once
// A LIO target library that works in memory, behind the same classes and with the same rules as the kernel's:
// port groups start closed and disabled, numbers are given back to the volume that had them, a linked
// backstore cannot be removed. It records every call and fails those that a test names. Any thread.
//
//   auto lio = std::make_shared<Memory_LIO>();
//   LIO_Library::install(lio);

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/lio/lio_library.h"

class Memory_LIO : public LIO_Library, public std::enable_shared_from_this<Memory_LIO> {
 public:
  struct Lun {
    std::string backstore;
    LIO_ACLs acls;
  };
  struct Group {
    bool demo = false;
    bool enabled = false;
    unsigned rebuilds = 0;             // set_acl_mode() on a group in demo mode
    std::vector<std::string> portals;  // "*:3260" for all addresses
    std::map<unsigned, Lun> luns;
  };
  struct Target {
    LIO_Target_Type type = TYPE_UNKNOWN;
    std::map<int, Group> groups;
    unsigned busy = 0;
  };
  struct Backstore {
    LIO_Backstore::Type type = LIO_Backstore::file;
    std::string path;
    unsigned long size = 0;
    std::string serial;
  };

  // Every call of an operation, as "operation argument ...", in order.
  std::vector<std::string> calls() const;
  // How often an operation was called.
  std::size_t count(const std::string& operation) const;
  void clear_calls();
  // The operation ("enable", "create_lun", "get_manager", "destroy_target", ...: the first word in calls())
  // fails from now on: `times` times, or always.
  void fail(const std::string& operation, int times = -1);
  void set_busy(const std::string& target, unsigned sessions);

  // The state, for assertions and for what other programs do behind our back.
  bool has_target(const std::string& name) const;
  Target target(const std::string& name) const;
  Group group(const std::string& name) const;  // port group 1
  std::map<std::string, Backstore> backstores() const;
  std::string path_of_lun(const std::string& target, unsigned number) const;
  void empty();  // what a reboot does; the numbers stay remembered

  LIO_Target_Manager_var manager(LIO_Target_Type type) override;
  LIO_Backstore_var create_backstore(LIO_Backstore::Type type, const std::string& path,
                                     unsigned long size) override;
  LIO_Backstore_var find_backstore(const std::string& name) override;
  bool remove_backstore(const std::string& name, bool force) override;
  std::unique_ptr<LIO_Change_Lock> lock_changes() override;
  bool list_saved(std::vector<LIO_Export>& exports) override;
  bool list_kernel(std::vector<LIO_Export>& exports) override;
  bool restore(LIO_Report& report) override;
  bool compare(LIO_Report& report) override;
  bool repair(LIO_Report& report) override;
  bool forget(const std::string& path) override;

 private:
  friend class Memory_Objects;

  // Records the call; false when a test wants it to fail.
  bool enter(const std::string& call);
  std::vector<std::string> users(const std::string& backstore) const;

  mutable std::recursive_mutex lock_;
  std::vector<std::string> calls_;
  std::map<std::string, int> failures_;
  std::map<std::string, Target> targets_;
  std::map<std::string, unsigned> busy_;
  std::map<std::string, Backstore> backstores_;
  std::map<std::string, std::map<std::string, unsigned>> numbers_;  // target, path
};
