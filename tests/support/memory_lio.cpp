#include "tests/support/memory_lio.h"

#include <algorithm>

#include "platform/base/log.h"
#include "platform/lio/lio_names.h"
#include "platform/lio/lio_record.h"

namespace {

std::string first_word(const std::string& call) {
  return call.substr(0, call.find(' '));
}

std::string initiators(const LIO_ACLs& acls) {
  std::string text;
  for (const LIO_ACL& acl : acls)
    text += " " + acl.initiator;
  return text;
}

}  // namespace

// The objects handed out: each looks its place up again at every call.
class Memory_Objects {
 public:
  using Owner = std::shared_ptr<Memory_LIO>;

  class Backstore_Handle : public LIO_Backstore {
   public:
    Backstore_Handle(const Owner& owner, const std::string& name) : owner_(owner), name_(name) {}
    std::string name() const override { return name_; }
    Type type() const override { return owner_->backstores()[name_].type; }
    bool path(std::string& path) override {
      path = owner_->backstores()[name_].path;
      return !path.empty();
    }
    bool get_vpd_unit_serial(std::string& serial) override {
      if (!owner_->enter("get_vpd_unit_serial " + name_)) return false;
      serial = owner_->backstores()[name_].serial;
      return !serial.empty();
    }

   private:
    Owner owner_;
    std::string name_;
  };

  struct Place {
    Owner owner;
    std::string target;
    int tag;
    // Null when the group is gone.
    Memory_LIO::Group* group() const {
      const auto target_found = owner->targets_.find(target);
      if (target_found == owner->targets_.end()) return nullptr;
      const auto found = target_found->second.groups.find(tag);
      return found == target_found->second.groups.end() ? nullptr : &found->second;
    }
  };

  class Lun_Handle : public LIO_Lun {
   public:
    Lun_Handle(const Place& place, unsigned number, const std::string& backstore)
        : place_(place), number_(number), backstore_(backstore) {}
    unsigned short seq() const override { return static_cast<unsigned short>(number_); }

    bool destroy(bool keep_backstore) override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      if (!place_.owner->enter("destroy_lun " + place_.target + " " + std::to_string(number_))) return false;
      Memory_LIO::Lun* there = lun();
      if (there && there->backstore != backstore_)
        return LOG_FAILURE("Failed to destroy LUN: not the same\n");
      if (there) place_.group()->luns.erase(number_);
      if (!keep_backstore && place_.owner->users(backstore_).empty())
        place_.owner->backstores_.erase(backstore_);
      return true;
    }

    bool get_backstore(std::string& name) override {
      if (!place_.owner->enter("get_backstore " + backstore_)) return false;
      name = backstore_;
      return true;
    }

    bool backstore_path(std::string& path) override {
      if (!place_.owner->enter("backstore_path " + backstore_)) return false;
      return Backstore_Handle(place_.owner, backstore_).path(path);
    }

    bool add_acls(const LIO_ACLs& acls, bool) override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      if (!enter_acls("add_acls", acls) || place_.group()->demo) return false;
      for (const LIO_ACL& acl : acls)
        put(lun()->acls, acl);
      return true;
    }

    bool del_acls(const LIO_ACLs& acls, bool) override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      if (!enter_acls("del_acls", acls)) return false;
      for (const LIO_ACL& acl : acls)
        take(lun()->acls, acl);
      return true;
    }

   private:
    bool enter_acls(const std::string& operation, const LIO_ACLs& acls) {
      const std::string place = " " + place_.target + " " + std::to_string(number_);
      return place_.owner->enter(operation + place + initiators(acls)) && lun();
    }

    Memory_LIO::Lun* lun() const {
      Memory_LIO::Group* group = place_.group();
      if (!group || !group->luns.count(number_)) return nullptr;
      return &group->luns[number_];
    }

    static void take(LIO_ACLs& acls, const LIO_ACL& acl) {
      const auto same = [&](const LIO_ACL& one) { return one.initiator == acl.initiator; };
      acls.erase(std::remove_if(acls.begin(), acls.end(), same), acls.end());
    }

    static void put(LIO_ACLs& acls, const LIO_ACL& acl) {
      take(acls, acl);
      acls.push_back(acl);
    }

    Place place_;
    unsigned number_;
    std::string backstore_;
  };

  template <typename Base>
  class Group_Handle : public Base {
   public:
    explicit Group_Handle(const Place& place) : place_(place) {}

    bool set_demo_mode() override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      if (!place_.owner->enter("set_demo_mode " + place_.target) || !place_.group()) return false;
      place_.group()->demo = true;
      for (auto& lun : place_.group()->luns)
        lun.second.acls.clear();
      return true;
    }

    bool demo_mode() override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      return place_.owner->enter("demo_mode " + place_.target) && place_.group() && place_.group()->demo;
    }

    bool set_acl_mode() override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      if (!place_.owner->enter("set_acl_mode " + place_.target) || !place_.group()) return false;
      if (place_.group()->demo) ++place_.group()->rebuilds;
      place_.group()->demo = false;
      return true;
    }

    bool list_luns(LIO_Luns& luns) override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      if (!place_.owner->enter("list_luns " + place_.target) || !place_.group()) return false;
      for (const auto& lun : place_.group()->luns)
        luns.push_back(std::make_shared<Lun_Handle>(place_, lun.first, lun.second.backstore));
      return true;
    }

    LIO_Lun_var create_lun(const char* backstore_name, bool) override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      const std::string name = backstore_name ? backstore_name : "";
      if (!place_.owner->enter("create_lun " + place_.target + " " + name) || !place_.group()) return nullptr;
      const auto store = place_.owner->backstores_.find(name);
      if (store == place_.owner->backstores_.end()) return nullptr;
      if (place_.group()->luns.empty()) place_.group()->enabled = false;
      const unsigned number = choose(store->second.path);
      place_.group()->luns[number].backstore = name;
      return std::make_shared<Lun_Handle>(place_, number, name);
    }

    LIO_Lun_var get_lun(int lun_num) override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      if (!place_.owner->enter("get_lun " + place_.target + " " + std::to_string(lun_num)) || !place_.group())
        return nullptr;
      const auto lun = place_.group()->luns.find(static_cast<unsigned>(lun_num));
      if (lun == place_.group()->luns.end()) return nullptr;
      return std::make_shared<Lun_Handle>(place_, lun->first, lun->second.backstore);
    }

    bool enable(bool on) override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      if (!place_.owner->enter("enable " + place_.target + (on ? " 1" : " 0")) || !place_.group())
        return false;
      place_.group()->enabled = on;
      return true;
    }

   protected:
    unsigned choose(const std::string& path) const {
      std::map<std::string, unsigned>& known = place_.owner->numbers_[place_.target];
      std::set<unsigned> used, kept;
      for (const auto& lun : place_.group()->luns)
        used.insert(lun.first);
      for (const auto& one : known)
        if (one.first != path) kept.insert(one.second);
      const int former = known.count(path) ? static_cast<int>(known[path]) : -1;
      return known[path] = static_cast<unsigned>(lio::choose_number(former, used, kept));
    }

    Place place_;
  };

  class ISCSI_Group_Handle : public Group_Handle<ISCSI_Target_Port_Group> {
   public:
    using Group_Handle::Group_Handle;
    bool add_net_portals(bool all, const char* address, unsigned short port) override {
      std::lock_guard<std::recursive_mutex> guard(place_.owner->lock_);
      const std::string portal = (all       ? std::string("*")
                                  : address ? address
                                            : "") +
                                 ":" + std::to_string(port);
      if (!place_.owner->enter("add_net_portals " + place_.target + " " + portal) || !place_.group())
        return false;
      std::vector<std::string>& portals = place_.group()->portals;
      if (!std::count(portals.begin(), portals.end(), portal)) portals.push_back(portal);
      return true;
    }
  };

  class Target_Handle : public LIO_Target {
   public:
    Target_Handle(const Owner& owner, LIO_Target_Type type, const std::string& name)
        : owner_(owner), type_(type), name_(name) {}

    unsigned busy() override {
      std::lock_guard<std::recursive_mutex> guard(owner_->lock_);
      owner_->enter("busy " + name_);
      return owner_->busy_[name_];
    }
    std::string name() const override { return name_; }

    Target_Port_Group_var create_or_get_tpg(int tag) override {
      std::lock_guard<std::recursive_mutex> guard(owner_->lock_);
      if (!owner_->enter("create_or_get_tpg " + name_ + " " + std::to_string(tag))) return nullptr;
      owner_->targets_[name_].type = type_;
      owner_->targets_[name_].groups[tag];
      return handle(tag);
    }

    Target_Port_Group_var get_tpg(int tag) override {
      std::lock_guard<std::recursive_mutex> guard(owner_->lock_);
      if (!owner_->enter("get_tpg " + name_ + " " + std::to_string(tag))) return nullptr;
      return Place{owner_, name_, tag}.group() ? handle(tag) : nullptr;
    }

    bool destroy(bool keep_backstores) override {
      std::lock_guard<std::recursive_mutex> guard(owner_->lock_);
      if (!owner_->enter("destroy_target " + name_)) return false;
      const Memory_LIO::Target gone = owner_->targets_[name_];
      owner_->targets_.erase(name_);
      for (const auto& group : gone.groups)
        for (const auto& lun : group.second.luns)
          if (!keep_backstores && owner_->users(lun.second.backstore).empty())
            owner_->backstores_.erase(lun.second.backstore);
      return true;
    }

   private:
    Target_Port_Group_var handle(int tag) const {
      const Place place{owner_, name_, tag};
      if (type_ == TYPE_ISCSI) return std::make_shared<ISCSI_Group_Handle>(place);
      return std::make_shared<Group_Handle<Target_Port_Group>>(place);
    }

    Owner owner_;
    LIO_Target_Type type_;
    std::string name_;
  };

  class Manager_Handle : public LIO_Target_Manager {
   public:
    Manager_Handle(const Owner& owner, LIO_Target_Type type) : owner_(owner), type_(type) {}
    LIO_Target_var create_or_get_target(const char* name) override {
      std::lock_guard<std::recursive_mutex> guard(owner_->lock_);
      const std::string given = name ? name : "";
      if (given.empty() || !owner_->enter("create_or_get_target " + given)) return nullptr;
      return std::make_shared<Target_Handle>(owner_, type_, given);
    }

   private:
    Owner owner_;
    LIO_Target_Type type_;
  };
};

bool Memory_LIO::enter(const std::string& call) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  calls_.push_back(call);
  const auto failure = failures_.find(first_word(call));
  if (failure == failures_.end() || failure->second == 0) return true;
  if (failure->second > 0) --failure->second;
  return false;
}

std::vector<std::string> Memory_LIO::calls() const {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  return calls_;
}

std::size_t Memory_LIO::count(const std::string& operation) const {
  const std::vector<std::string> all = calls();
  return static_cast<std::size_t>(std::count_if(
      all.begin(), all.end(), [&](const std::string& call) { return first_word(call) == operation; }));
}

void Memory_LIO::clear_calls() {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  calls_.clear();
}

void Memory_LIO::fail(const std::string& operation, int times) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  failures_[operation] = times;
}

void Memory_LIO::set_busy(const std::string& target, unsigned sessions) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  busy_[target] = sessions;
}

bool Memory_LIO::has_target(const std::string& name) const {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  return targets_.count(name) != 0;
}

Memory_LIO::Target Memory_LIO::target(const std::string& name) const {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  const auto found = targets_.find(name);
  return found == targets_.end() ? Target() : found->second;
}

Memory_LIO::Group Memory_LIO::group(const std::string& name) const {
  const Target found = target(name);
  const auto group = found.groups.find(1);
  return group == found.groups.end() ? Group() : group->second;
}

std::map<std::string, Memory_LIO::Backstore> Memory_LIO::backstores() const {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  return backstores_;
}

std::string Memory_LIO::path_of_lun(const std::string& target, unsigned number) const {
  const Group found = group(target);
  const auto lun = found.luns.find(number);
  return lun == found.luns.end() ? "" : backstores()[lun->second.backstore].path;
}

void Memory_LIO::empty() {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  targets_.clear();
  backstores_.clear();
}

std::vector<std::string> Memory_LIO::users(const std::string& backstore) const {
  std::vector<std::string> found;
  for (const auto& target : targets_)
    for (const auto& group : target.second.groups)
      for (const auto& lun : group.second.luns)
        if (lun.second.backstore == backstore)
          found.push_back(target.first + " " + std::to_string(lun.first));
  return found;
}

LIO_Target_Manager_var Memory_LIO::manager(LIO_Target_Type type) {
  if (!enter("get_manager " + lio_target_type_to_string(type))) return nullptr;
  return std::make_shared<Memory_Objects::Manager_Handle>(shared_from_this(), type);
}

LIO_Backstore_var Memory_LIO::create_backstore(LIO_Backstore::Type type, const std::string& path,
                                               unsigned long size) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  if (!enter("create_backstore " + std::to_string(type) + " " + path + " " + std::to_string(size)))
    return nullptr;
  std::string why;
  if (!lio::valid_backstore_path(path, why) || (type == LIO_Backstore::file && size == 0)) return nullptr;
  const Backstore made{type, path, (size + 511) / 512 * 512, lio::serial_of_path(path)};
  const std::string name = lio::BACKSTORE_MARK + made.serial;
  if (!users(name).empty()) return nullptr;
  backstores_[name] = made;
  return std::make_shared<Memory_Objects::Backstore_Handle>(shared_from_this(), name);
}

LIO_Backstore_var Memory_LIO::find_backstore(const std::string& name) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  if (!enter("find_backstore " + name) || !backstores_.count(name)) return nullptr;
  return std::make_shared<Memory_Objects::Backstore_Handle>(shared_from_this(), name);
}

bool Memory_LIO::remove_backstore(const std::string& name, bool) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  if (!enter("remove_backstore " + name) || !users(name).empty()) return false;
  backstores_.erase(name);
  return true;
}

namespace {

class Memory_Change_Lock : public LIO_Change_Lock {
 public:
  explicit Memory_Change_Lock(std::recursive_mutex& lock) : guard_(lock) {}

 private:
  std::lock_guard<std::recursive_mutex> guard_;
};

}  // namespace

std::unique_ptr<LIO_Change_Lock> Memory_LIO::lock_changes() {
  if (!enter("lock_changes")) return nullptr;
  return std::make_unique<Memory_Change_Lock>(lock_);
}

bool Memory_LIO::list_saved(std::vector<LIO_Export>& exports) {
  return list_kernel(exports);
}

bool Memory_LIO::list_kernel(std::vector<LIO_Export>& exports) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  for (const auto& target : targets_)
    for (const auto& group : target.second.groups)
      for (const auto& lun : group.second.luns) {
        const Backstore& store = backstores_[lun.second.backstore];
        exports.push_back({target.second.type, target.first, group.second.demo, group.second.enabled,
                           static_cast<unsigned short>(lun.first), store.type, store.path, store.size,
                           store.serial, lun.second.acls, true});
      }
  return true;
}

// Memory is saved and kernel in one: nothing ever differs.
bool Memory_LIO::restore(LIO_Report&) {
  return enter("restore");
}
bool Memory_LIO::compare(LIO_Report&) {
  return enter("compare");
}
bool Memory_LIO::repair(LIO_Report&) {
  return enter("repair");
}
bool Memory_LIO::forget(const std::string& path) {
  return enter("forget " + path);
}
