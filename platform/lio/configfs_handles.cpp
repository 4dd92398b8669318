#include "platform/lio/configfs_handles.h"

#include <chrono>
#include <ctime>
#include <set>
#include <thread>

#include "platform/base/fault_point.h"
#include "platform/base/log.h"

namespace lio {

namespace {

class Backstore_Handle : public LIO_Backstore {
 public:
  Backstore_Handle(const Context_ptr& context, const std::string& backstore)
      : backstores_(context), backstore_(backstore) {}

  std::string name() const override { return backstore_.substr(backstore_.find('/') + 1); }
  Type type() const override { return Backstores::type(backstore_); }

  bool path(std::string& path) override {
    path = backstores_.path(backstore_);
    if (!path.empty()) return true;
    return LOG_FAILURE("Failed to read the path of backstore '%s'\n", backstore_.c_str());
  }

  bool get_vpd_unit_serial(std::string& serial) override {
    const std::string read = backstores_.serial(backstore_);
    if (read.empty())
      return LOG_FAILURE("Failed to read the serial number of backstore '%s'\n", backstore_.c_str());
    serial = read;
    return true;
  }

 private:
  Backstores backstores_;
  std::string backstore_;
};

// Knows its backstore, or reads it when it is asked for: a listing of many LUNs is mostly about their number.
class Lun_Handle : public LIO_Lun {
 public:
  Lun_Handle(std::shared_ptr<Group> group, unsigned number, std::string backstore)
      : group_(std::move(group)), number_(number), backstore_(std::move(backstore)) {}

  unsigned short seq() const override { return static_cast<unsigned short>(number_); }
  bool destroy(bool keep_backstore) override {
    return !linked() || group_->destroy_lun(number_, backstore_, keep_backstore);
  }

  bool get_backstore(std::string& name) override {
    if (!linked())
      return LOG_FAILURE("Failed to get the backstore of LUN %u of '%s': it has none\n", number_,
                         group_->path().c_str());
    name = backstore_.substr(backstore_.find('/') + 1);
    return true;
  }

  bool backstore_path(std::string& path) override {
    path.clear();
    return !linked() || Backstore_Handle(group_->context(), backstore_).path(path);
  }
  bool add_acls(const LIO_ACLs& acls, bool create) override {
    return group_->add_acls(number_, acls, create);
  }
  bool del_acls(const LIO_ACLs& acls, bool clean) override { return group_->del_acls(number_, acls, clean); }

 private:
  bool linked() {
    return !backstore_.empty() ||
           linked_backstore(group_->context()->tree(), group_->path(), number_, backstore_);
  }

  std::shared_ptr<Group> group_;
  unsigned number_;
  std::string backstore_;  // empty: not read yet
};

// The operations that port groups of all fabrics have; Base is what the caller sees.
template <typename Base>
class Group_Handle : public Base {
 public:
  explicit Group_Handle(const Group& group) : group_(std::make_shared<Group>(group)) {}

  bool set_demo_mode() override { return group_->set_demo_mode(); }
  bool demo_mode() override { return group_->demo_mode(); }
  bool set_acl_mode() override { return group_->set_acl_mode(); }
  bool enable(bool on) override { return group_->enable(on); }

  bool list_luns(LIO_Luns& luns) override {
    std::vector<unsigned> numbers;
    if (!group_->list_luns(numbers)) return false;
    luns.reserve(luns.size() + numbers.size());
    for (const unsigned number : numbers)
      luns.push_back(std::make_shared<Lun_Handle>(group_, number, ""));
    return true;
  }

  LIO_Lun_var create_lun(const char* backstore_name, bool map_all) override {
    std::string backstore;
    if (!backstore_name || !Backstores(group_->context()).find(backstore_name, backstore)) {
      LOG_FAILURE("Failed to create LUN: there is no backstore '%s'\n", backstore_name ? backstore_name : "");
      return nullptr;
    }
    unsigned number = 0;
    if (!group_->create_lun(backstore, map_all, number)) return nullptr;
    return std::make_shared<Lun_Handle>(group_, number, backstore);
  }

  LIO_Lun_var get_lun(int lun_num) override {
    std::string backstore;
    if (lun_num < 0 || lun_num > 65535) return nullptr;
    const unsigned number = static_cast<unsigned>(lun_num);
    if (!linked_backstore(group_->context()->tree(), group_->path(), number, backstore)) return nullptr;
    return std::make_shared<Lun_Handle>(group_, number, backstore);
  }

 protected:
  std::shared_ptr<Group> group_;
};

class ISCSI_Group_Handle : public Group_Handle<ISCSI_Target_Port_Group> {
 public:
  using Group_Handle::Group_Handle;

  bool add_net_portals(bool all, const char* address, unsigned short port) override {
    return this->group_->add_portal({all, all || !address ? "" : address, port});
  }
};

class Target_Handle : public LIO_Target {
 public:
  Target_Handle(const Context_ptr& context, const Fabric& fabric, const std::string& name)
      : context_(context), fabric_(fabric), name_(name), path_(fabric.folder + "/" + name) {}

  unsigned busy() override;
  std::string name() const override { return name_; }
  Target_Port_Group_var create_or_get_tpg(int tag) override;
  Target_Port_Group_var get_tpg(int tag) override;
  bool destroy(bool keep_backstores) override;

 private:
  bool valid_tag(int tag) const;
  Target_Port_Group_var handle(const Group& group) const;
  unsigned sessions() const;
  unsigned group_sessions(const std::string& group) const;
  std::map<int, std::string> groups() const;
  bool own_backstores(std::set<std::string>& backstores) const;

  Context_ptr context_;
  Fabric fabric_;
  std::string name_;
  std::string path_;
};

std::map<int, std::string> Target_Handle::groups() const {
  std::map<int, std::string> found;
  unsigned tag = 0;
  for (const std::string& name : context_->tree().names(path_))
    if (numbered_name(name, "tpgt_", tag)) found[static_cast<int>(tag)] = path_ + "/" + name;
  return found;
}

unsigned Target_Handle::busy() {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  unsigned count = sessions();
  while (count != 0 && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    count = sessions();
  }
  return count;
}

unsigned Target_Handle::sessions() const {
  const Configfs& tree = context_->tree();
  if (!tree.exists(path_)) return 0;
  std::string text;
  // Exact, where the group's list of dynamic sessions stops at a page.
  if (tree.read(path_ + "/fabric_statistics/iscsi_instance/sessions", text) == 0)
    return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 10));
  unsigned count = 0;
  for (const auto& group : groups())
    count += group_sessions(group.second);
  return count;
}

// Fabrics without session statistics: a mapping's statistics are readable only while its initiator is logged
// in.
unsigned Target_Handle::group_sessions(const std::string& group) const {
  const Configfs& tree = context_->tree();
  std::string text;
  std::set<std::string> logged_in;
  for (const Mapping& mapping : mappings(tree, group))
    if (tree.read(mapping.folder + "/statistics/scsi_att_intr_port/indx", text) == 0)
      logged_in.insert(mapping.initiator);
  unsigned count = static_cast<unsigned>(logged_in.size());
  if (tree.read(group + "/nexus", text) == 0 && !text.empty()) ++count;
  // One name a session, each with a newline and a zero behind it.
  bool inside = false;
  for (const char c : tree.value(group + "/dynamic_sessions")) {
    const bool letter = c != '\n' && c != '\0';
    if (letter && !inside) ++count;
    inside = letter;
  }
  return count;
}

bool Target_Handle::valid_tag(int tag) const {
  if (tag >= 0 && tag <= 65535) return true;
  return LOG_FAILURE("Failed to get target port group of '%s': %d is no tag\n", name_.c_str(), tag);
}

Target_Port_Group_var Target_Handle::handle(const Group& group) const {
  if (fabric_.type == TYPE_ISCSI) return std::make_shared<ISCSI_Group_Handle>(group);
  return std::make_shared<Group_Handle<Target_Port_Group>>(group);
}

Target_Port_Group_var Target_Handle::create_or_get_tpg(int tag) {
  if (!valid_tag(tag)) return nullptr;
  Group group(context_, fabric_, name_, tag);
  return group.make() ? handle(group) : nullptr;
}

Target_Port_Group_var Target_Handle::get_tpg(int tag) {
  if (!valid_tag(tag)) return nullptr;
  const Group group(context_, fabric_, name_, tag);
  return group.exists() ? handle(group) : nullptr;
}

bool Target_Handle::own_backstores(std::set<std::string>& backstores) const {
  for (const auto& group : groups())
    for (const auto& lun : linked_luns(context_->tree(), group.second)) {
      if (!own_backstore(lun.second))
        return LOG_FAILURE(
            "Failed to destroy target '%s': LUN %u is on '%s', which was not made by this system\n",
            name_.c_str(), lun.first, lun.second.c_str());
      backstores.insert(lun.second);
    }
  return true;
}

bool Target_Handle::destroy(bool keep_backstores) {
  const Change change(context_);
  std::set<std::string> used;
  if (!change.held() || !own_backstores(used)) return false;
  Configfs& tree = context_->tree();
  for (const auto& group : groups()) {
    // Nobody logs in again while it is taken apart.
    if (!tree.settle(group.second + "/enable", "0")) return false;
    FAULT_POINT("lio.group_disabled");
    if (!remove_group(tree, group.second)) return false;
  }
  if (!tree.clear_folder(path_)) return false;
  FAULT_POINT("lio.target_removed");
  Backstores backstores(context_);
  if (!keep_backstores)
    for (const std::string& backstore : used)
      if (users_of(*context_, backstore).empty() && !backstores.remove(backstore)) return false;
  return context_->save([&](Record& record) { record.drop_target(fabric_.type, name_, std::time(nullptr)); });
}

class Manager_Handle : public LIO_Target_Manager {
 public:
  Manager_Handle(const Context_ptr& context, LIO_Target_Type type)
      : context_(context), fabric_(context->fabric(type)) {}

  LIO_Target_var create_or_get_target(const char* name) override {
    std::string normal, why;
    if (!normal_name(fabric_.form, name ? name : "", normal, why)) {
      LOG_FAILURE("Failed to get target '%s': %s\n", name ? name : "", why.c_str());
      return nullptr;
    }
    const Change change(context_);
    if (!change.held() || !context_->ensure_fabric(fabric_) || !context_->ensure_port(fabric_, normal))
      return nullptr;
    return std::make_shared<Target_Handle>(context_, fabric_, normal);
  }

 private:
  Context_ptr context_;
  Fabric fabric_;
};

}  // namespace

LIO_Backstore_var backstore_handle(const Context_ptr& context, const std::string& backstore) {
  return std::make_shared<Backstore_Handle>(context, backstore);
}

LIO_Target_Manager_var manager_handle(const Context_ptr& context, LIO_Target_Type type) {
  return std::make_shared<Manager_Handle>(context, type);
}

}  // namespace lio
