#include "platform/lio/configfs_group.h"

#include <algorithm>
#include <ctime>
#include <set>

#include "platform/base/fault_point.h"
#include "platform/base/log.h"

namespace lio {

bool Group::list_luns(std::vector<unsigned>& numbers) const {
  const Change change(context_, false);
  if (!change.held()) return false;
  if (!exists()) return LOG_FAILURE("Failed to list LUNs: '%s' does not exist\n", path_.c_str());
  std::set<unsigned> all;
  if (const Saved_Target* target = context_->record().find(fabric_.type, target_, tag_))
    for (const auto& lun : target->luns)
      if (lun.second.settled) all.insert(all.end(), lun.first);
  std::string backstore;
  for (const unsigned number : lun_folders(tree(), path_))
    if (!all.count(number) && linked_backstore(tree(), path_, number, backstore)) all.insert(number);
  numbers.insert(numbers.end(), all.begin(), all.end());
  return true;
}

bool Group::create_lun(const std::string& backstore, bool map_to_all, unsigned& number) {
  const Change change(context_);
  if (!change.held()) return false;
  if (!own_backstore(backstore))
    return LOG_FAILURE("Failed to create LUN: backstore '%s' was not made by this system\n",
                       backstore.c_str());
  if (!exists()) return LOG_FAILURE("Failed to create LUN: '%s' does not exist\n", path_.c_str());
  if (!link_lun(backstore, number)) return false;
  FAULT_POINT("lio.lun_linked");
  const Backstores backstores(context_);
  Saved_Lun lun;
  lun.type = Backstores::type(backstore);
  lun.path = backstores.path(backstore);
  lun.size = lun.type == LIO_Backstore::block ? 0 : backstores.size(backstore);
  lun.serial = backstores.serial(backstore);
  if (lun.type == LIO_Backstore::file) lun.filesystem = Backstores::filesystem(lun.path);
  const bool good = (!map_to_all || map_all(number)) && save_later([&](Saved_Target& target) {
                      for (auto one = target.luns.begin(); one != target.luns.end();)
                        one = one->second.path == lun.path ? target.luns.erase(one) : std::next(one);
                      if (map_to_all)
                        for (const std::string& initiator : initiators_of(tree(), path_, number))
                          lun.acls.push_back({initiator, ""});
                      target.luns[number] = lun;
                      if (target.mode == Mode::fresh && demo_mode()) target.mode = Mode::demo;
                    });
  FAULT_POINT("lio.lun_saved");
  if (good) context_->unsettled().insert(lun_folder(path_, number));
  if (!good) remove_lun(tree(), path_, number);
  return good;
}

bool Group::map_all(unsigned number) {
  bool made = false;
  for (const std::string& initiator : tree().names(path_ + "/acls"))
    if (!map_lun(tree(), path_, initiator, number, made)) return false;
  return true;
}

bool Group::link_lun(const std::string& backstore, unsigned& number) {
  const Saved_Target& saved = context_->record().find_or_add(fabric_.type, target_, tag_);
  // An emptied group may still be open to everybody: nobody shall see the LUN before the mode is settled.
  if (saved.luns.empty() && lun_folders(tree(), path_).empty() && enabled() && !enable_in_kernel(false))
    return false;
  const std::string path = Backstores(context_).path(backstore);
  const int former = context_->record().former_number(saved, path);
  const std::set<unsigned> kept = context_->record().kept_numbers(saved, path);
  // The numbers in use are nearly always those of the record; the kernel's refusal tells of the others, and
  // costs less than listing them all.
  std::set<unsigned> used;
  for (;;) {
    const int chosen = choose_number(former, used, kept);
    if (chosen < 0) return LOG_FAILURE("Failed to create LUN: '%s' has no free number\n", path_.c_str());
    number = static_cast<unsigned>(chosen);
    bool taken = false;
    if (make_lun(tree(), path_, number, backstore, taken)) return true;
    if (!taken) return false;
    used.insert(number);
  }
}

namespace {

// Our backstores are named after their serial number.
bool names_serial(const std::string& backstore, const std::string& serial) {
  return backstore.substr(backstore.find('/') + 1) == BACKSTORE_MARK + serial;
}

}  // namespace

bool Group::destroy_lun(unsigned number, const std::string& backstore, bool keep_backstore) {
  const Change change(context_);
  if (!change.held()) return false;
  if (!own_backstore(backstore))
    return LOG_FAILURE("Failed to destroy LUN %u of '%s': backstore '%s' was not made by this system\n",
                       number, path_.c_str(), backstore.c_str());
  std::string there;
  if (linked_backstore(tree(), path_, number, there) && there != backstore)
    return LOG_FAILURE("Failed to destroy LUN %u of '%s': the number belongs to '%s' now and not to '%s'\n",
                       number, path_.c_str(), there.c_str(), backstore.c_str());
  Backstores backstores(context_);
  if (!remove_lun(tree(), path_, number)) return false;
  context_->unsettled().erase(lun_folder(path_, number));
  const bool shared = keep_backstore || !users_of(*context_, backstore).empty();
  if (!shared && !backstores.remove(backstore)) return false;
  return save([&](Saved_Target& target) {
    const auto lun = target.luns.find(number);
    if (lun != target.luns.end() && names_serial(backstore, lun->second.serial))
      context_->record().drop_lun(target, number, std::time(nullptr));
  });
}

bool Group::normal_initiators(const LIO_ACLs& given, LIO_ACLs& normal) const {
  normal.clear();
  for (const LIO_ACL& acl : given) {
    LIO_ACL one = acl;
    std::string why;
    if (!normal_name(fabric_.form, acl.initiator, one.initiator, why))
      return LOG_FAILURE("Failed to change ACLs of '%s': initiator '%s': %s\n", path_.c_str(),
                         acl.initiator.c_str(), why.c_str());
    normal.push_back(one);
  }
  return true;
}

namespace {

bool is_initiator(const LIO_ACL& acl, const std::string& initiator) {
  return acl.initiator == initiator;
}

void put_acl(LIO_ACLs& acls, const LIO_ACL& acl) {
  for (LIO_ACL& one : acls)
    if (is_initiator(one, acl.initiator)) {
      one = acl;
      return;
    }
  acls.push_back(acl);
}

}  // namespace

// An export that is not finished needs no record of its own to be found after a crash.
bool Group::save_acls(unsigned number, const std::function<void(LIO_ACLs&)>& alter) {
  const Saved_Target& saved = context_->record().find_or_add(fabric_.type, target_, tag_);
  const auto lun = saved.luns.find(number);
  if (lun == saved.luns.end()) return true;
  const auto change = [&](Saved_Target& target) { alter(target.luns.at(number).acls); };
  return lun->second.settled ? save(change) : save_later(change);
}

bool Group::add_acls(unsigned number, const LIO_ACLs& given, bool create) {
  const Change change(context_);
  LIO_ACLs acls;
  if (!change.held() || !normal_initiators(given, acls)) return false;
  if (demo_mode()) return LOG_FAILURE("Failed to add ACLs: '%s' lets every initiator in\n", path_.c_str());
  std::vector<std::string> added;
  bool good = true;
  for (const LIO_ACL& acl : acls) {
    bool made = false;
    good = create || tree().exists(acl_folder(path_, acl.initiator)) ||
           LOG_FAILURE("Failed to add ACLs: '%s' has no ACL in '%s'\n", acl.initiator.c_str(), path_.c_str());
    good = good && map_lun(tree(), path_, acl.initiator, number, made);
    if (made) added.push_back(acl.initiator);
    if (!good) break;
    FAULT_POINT("lio.lun_mapped");
  }
  good = good && save_acls(number, [&](LIO_ACLs& saved) {
           for (const LIO_ACL& acl : acls)
             put_acl(saved, acl);
         });
  FAULT_POINT("lio.acls_saved");
  if (!good)
    for (const std::string& initiator : added)
      unmap_lun(tree(), path_, initiator, number, true);
  return good;
}

bool Group::del_acls(unsigned number, const LIO_ACLs& given, bool clean) {
  const Change change(context_);
  LIO_ACLs acls;
  if (!change.held() || !normal_initiators(given, acls)) return false;
  for (const LIO_ACL& acl : acls)
    if (!unmap_lun(tree(), path_, acl.initiator, number, clean)) return false;
  FAULT_POINT("lio.acls_unmapped");
  return save_acls(number, [&](LIO_ACLs& kept) {
    for (const LIO_ACL& acl : acls)
      kept.erase(std::remove_if(kept.begin(), kept.end(),
                                [&](const LIO_ACL& one) { return is_initiator(one, acl.initiator); }),
                 kept.end());
  });
}

}  // namespace lio
