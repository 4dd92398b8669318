#pragma once
// The kernel target's tree on plain folders, with the rules of the real one that the library depends on:
// default folders and attributes appear with a mkdir, removal is refused while something is inside or linked,
// demo mode remembers its initiators, an attribute before `enable` is deadly. Fails what a test names. One
// thread.

#include <string>
#include <vector>

#include "platform/lio/configfs.h"

class Fake_Configfs : public lio::Configfs {
 public:
  // Makes <root>/target. Fabrics other than iscsi and loopback do not exist.
  explicit Fake_Configfs(const std::string& root);

  // An operation ("write", "mkdir", "rmdir", "symlink", "unlink") on a path that ends in `end` gives `error`,
  // `times` times (-1: always).
  void fail(const std::string& operation, const std::string& end, int error, int times = -1);
  // Every change, as "operation path[=value]", in order.
  const std::vector<std::string>& changes() const { return changes_; }
  void clear_changes() { changes_.clear(); }
  // An attribute of a backstore was written before it was enabled: the real kernel would have died.
  bool died() const { return died_; }
  // Port groups made from now on begin in demo mode, as those of a Fibre Channel adapter do.
  void make_groups_open() { groups_open_ = true; }
  // Takes all targets and backstores away, as a reboot does.
  void reboot();
  // All folders that a caller made, for comparisons.
  std::string listing() const;

  int write(const std::string& path, const std::string& value) override;
  int make_folder(const std::string& path) override;
  int remove_folder(const std::string& path) override;
  int make_link(const std::string& to, const std::string& path) override;
  int remove_link(const std::string& path) override;

 private:
  struct Failure {
    std::string operation;
    std::string end;
    int error;
    int times;
  };

  int enter(const std::string& operation, const std::string& path, const std::string& value);
  void populate(const std::string& path);
  void put(const std::string& path, const std::string& text) const;
  int enable_backstore(const std::string& folder);
  int refusal(const std::string& path) const;
  bool linked(const std::string& part) const;

  std::vector<Failure> failures_;
  std::vector<std::string> changes_;
  bool died_ = false;
  bool groups_open_ = false;
};
