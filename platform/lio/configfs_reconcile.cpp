#include "platform/lio/configfs_reconcile.h"

#include <algorithm>
#include <ctime>

#include "platform/base/log.h"
#include "platform/lio/configfs_handles.h"

namespace lio {

namespace {

std::string lun_text(unsigned number) {
  return "LUN " + std::to_string(number);
}

bool lists(const LIO_ACLs& acls, const std::string& initiator) {
  return std::any_of(acls.begin(), acls.end(),
                     [&](const LIO_ACL& acl) { return acl.initiator == initiator; });
}

}  // namespace

Reconciler::Reconciler(Context_ptr context, LIO_Report& report, Task task)
    : context_(std::move(context)), backstores_(context_), report_(report), task_(task) {}

LIO_Finding& Reconciler::found(LIO_Finding::Kind kind, const std::string& text) {
  report_.emplace_back();
  report_.back().kind = kind;
  report_.back().text = text;
  return report_.back();
}

LIO_Finding& Reconciler::found_in(const Group& group, LIO_Finding::Kind kind, const std::string& text) {
  LIO_Finding& finding = found(kind, text);
  finding.type = group.fabric().type;
  finding.target = group.target();
  return finding;
}

bool Reconciler::mended(LIO_Finding& finding, const Mender& mender) {
  if (task_ == Task::look) return false;
  finding.mended = mender();
  if (finding.mended)
    LOG_NOTICE("Mended LIO target '%s': %s\n", finding.target.c_str(), finding.text.c_str());
  else
    LOG_FAILURE("Failed to mend LIO target '%s': %s; the error is in the messages before\n",
                finding.target.c_str(), finding.text.c_str());
  return finding.mended;
}

void Reconciler::check_saved() {
  // A copy: mending may alter the record.
  const std::vector<Saved_Target> targets = context_->record().targets;
  for (const Saved_Target& saved : targets)
    if (saved.has_settled()) check_target(saved);
}

void Reconciler::check_target(const Saved_Target& saved) {
  Group group(context_, context_->fabric(saved.type), saved.name, saved.tag);
  bool fresh = false;
  if (!group.exists()) {
    LIO_Finding& finding = found_in(group, LIO_Finding::MISSING_TARGET, "the target is not there");
    fresh = mended(finding, [&] { return build_target(group, saved); });
  }
  if (group.exists() && !check_group(group, saved)) return;
  for (const auto& lun : saved.luns)
    if (lun.second.settled) check_lun(group, lun.first, lun.second);
  if (group.exists()) check_enabled(group, saved, fresh);
}

bool Reconciler::build_target(Group& group, const Saved_Target& saved) {
  if (!group.make_in_kernel() || !group.bring_to(saved.mode)) return false;
  return std::all_of(saved.portals.begin(), saved.portals.end(),
                     [&](const Saved_Portal& portal) { return group.listen_in_kernel(portal); });
}

// False when the group's mode could not be brought to the saved one: no LUN is added to a group that may be
// open.
bool Reconciler::check_group(Group& group, const Saved_Target& saved) {
  const std::size_t before = report_.size();
  check_mode(group, saved);
  const bool good = report_.size() == before || report_.back().mended || task_ == Task::look;
  check_portals(group, saved);
  return good;
}

void Reconciler::check_mode(Group& group, const Saved_Target& saved) {
  const bool demo = group.demo_mode();
  if (saved.mode == Mode::demo && !demo) {
    LIO_Finding& finding = found_in(group, LIO_Finding::WRONG_MODE, "the target is not in demo mode");
    mended(finding, [&] { return group.open_in_kernel(); });
  }
  const bool closed =
      group.cleanly_closed() && context_->tree().value(group.path() + "/attrib/authentication") == "0";
  if (saved.mode == Mode::acl && !closed) {
    LIO_Finding& finding = found_in(group, LIO_Finding::WRONG_MODE, "the target is not cleanly in ACL mode");
    mended(finding, [&] { return group.close_in_kernel(); });
  }
}

void Reconciler::check_portals(Group& group, const Saved_Target& saved) {
  for (const Saved_Portal& portal : saved.portals) {
    if (group.listens(portal)) continue;
    LIO_Finding& finding = found_in(group, LIO_Finding::MISSING_PORTAL,
                                    "the target does not listen on port " + std::to_string(portal.port));
    mended(finding, [&] { return group.listen_in_kernel(portal); });
  }
}

void Reconciler::check_lun(Group& group, unsigned number, const Saved_Lun& lun) {
  std::string there;
  const bool linked = linked_backstore(context_->tree(), group.path(), number, there);
  LIO_Finding wrong;
  wrong.text = lun_text(number) + " is not there";
  bool present = linked;
  if (!linked || differs(there, number, lun, wrong)) {
    LIO_Finding& finding = found_in(group, wrong.kind, wrong.text);
    finding.number = static_cast<int>(number);
    finding.path = lun.path;
    if (!linked)
      present = mended(finding, [&] { return build_lun(group, number, lun); });
    else if (wrong.kind == LIO_Finding::OTHER_LUN)
      present = false;
    else if (task_ == Task::repair)
      present = mended(finding, [&] { return renew_lun(group, number, there, lun); });
  }
  if (present) check_acls(group, number, lun);
}

bool Reconciler::differs(const std::string& backstore, unsigned number, const Saved_Lun& lun,
                         LIO_Finding& finding) {
  const std::string path = backstores_.path(backstore);
  const std::string serial = backstores_.serial(backstore);
  if (path != lun.path) {
    finding.kind = LIO_Finding::OTHER_LUN;
    finding.text = lun_text(number) + " is on " + (path.empty() ? backstore : path);
    // Of this system's LUNs a repair has removed those that nobody wants under this number before.
    if (!own_backstore(backstore))
      finding.text +=
          ", which this system did not make and leaves alone: remove that LUN by hand, or unexport this "
          "volume with force and export it under another number";
  } else if (serial != lun.serial) {
    finding.kind = LIO_Finding::WRONG_SERIAL;
    finding.text = lun_text(number) + " has the serial number " + serial + " and not " + lun.serial;
    if (!own_backstore(backstore)) finding.text += "; this system did not make it and leaves it alone";
  }
  return path != lun.path || serial != lun.serial;
}

// The serial number of what is exported cannot be changed: the LUN is taken away and made again, when it is
// this system's and nobody is logged in, to whom one disk would become another.
bool Reconciler::renew_lun(Group& group, unsigned number, const std::string& backstore,
                           const Saved_Lun& lun) {
  if (!own_backstore(backstore)) return false;
  const LIO_Target_var target =
      manager_handle(context_, group.fabric().type)->create_or_get_target(group.target().c_str());
  if (!target || target->busy() != 0)
    return LOG_FAILURE(
        "Failed to renew LUN %u of '%s': initiators are logged in; repair it when they are not\n", number,
        group.path().c_str());
  if (!remove_lun(context_->tree(), group.path(), number) || !backstores_.remove(backstore) ||
      !build_lun(group, number, lun))
    return false;
  std::string made;
  return linked_backstore(context_->tree(), group.path(), number, made) &&
         backstores_.serial(made) == lun.serial;
}

// A file of that path below a mount point that nothing is mounted on is another one.
bool Reconciler::on_its_filesystem(const Saved_Lun& lun) {
  const std::string now = Backstores::filesystem(lun.path);
  if (lun.filesystem.empty() || now.empty() || now == lun.filesystem) return true;
  return LOG_FAILURE("Failed to export '%s' again: it is not on the filesystem that it was exported from\n",
                     lun.path.c_str());
}

bool Reconciler::build_lun(Group& group, unsigned number, const Saved_Lun& lun) {
  if (!group.exists() || !on_its_filesystem(lun)) return false;
  Configfs& tree = context_->tree();
  // A folder without a link holds the number only.
  if (!remove_lun(tree, group.path(), number)) return false;
  std::string backstore;
  if (!backstores_.create(lun.type, lun.path, lun.size, lun.serial, backstore)) return false;
  bool taken = false;
  if (make_lun(tree, group.path(), number, backstore, taken)) return true;
  backstores_.remove(backstore);
  return false;
}

void Reconciler::check_acls(Group& group, unsigned number, const Saved_Lun& lun) {
  const std::vector<std::string> there = initiators_of(context_->tree(), group.path(), number);
  for (const LIO_ACL& acl : lun.acls) {
    if (std::count(there.begin(), there.end(), acl.initiator)) continue;
    LIO_Finding& finding =
        found_in(group, LIO_Finding::MISSING_ACL, lun_text(number) + " is not mapped for " + acl.initiator);
    finding.number = static_cast<int>(number);
    finding.initiator = acl.initiator;
    bool made = false;
    mended(finding, [&] { return map_lun(context_->tree(), group.path(), acl.initiator, number, made); });
  }
}

// A target that was just made is not enabled yet, which is nothing to report.
void Reconciler::check_enabled(Group& group, const Saved_Target& saved, bool fresh) {
  if (!context_->tree().exists(group.path() + "/enable") || group.enabled() == saved.enabled) return;
  if (fresh && group.enable_in_kernel(saved.enabled)) return;
  LIO_Finding& finding = found_in(group, LIO_Finding::WRONG_ENABLE,
                                  saved.enabled ? "the target is not enabled" : "the target is enabled");
  mended(finding, [&] { return group.enable_in_kernel(saved.enabled); });
}

bool Reconciler::ours(const Target_Folder& target) const {
  for (const Saved_Target& saved : context_->record().targets)
    if (saved.type == target.fabric.type && saved.name == target.name) return true;
  for (const auto& group : target.groups)
    for (const auto& lun : linked_luns(context_->tree(), group.second))
      if (own_backstore(lun.second)) return true;
  return false;
}

void Reconciler::check_leftovers() {
  drop_unfinished();
  for (const Target_Folder& target : target_folders(*context_)) {
    if (!ours(target)) continue;
    for (const auto& group : target.groups) {
      leftover_luns(target, group.first, group.second);
      leftover_acls(target, group.first, group.second);
    }
    leftover_target(target);
  }
  leftover_backstores();
}

// Exports that were not finished and did not even get into the kernel, or were there before a reboot.
void Reconciler::drop_unfinished() {
  const std::vector<Saved_Target> targets = context_->record().targets;
  for (const Saved_Target& saved : targets) {
    const Group group(context_, context_->fabric(saved.type), saved.name, saved.tag);
    for (const auto& lun : saved.luns) {
      std::string there;
      if (lun.second.settled) continue;
      if (linked_backstore(context_->tree(), group.path(), lun.first, there)) continue;
      LIO_Finding& finding = found_in(group, LIO_Finding::UNFINISHED_LUN,
                                      "the export of " + lun_text(lun.first) + " was not finished");
      finding.number = static_cast<int>(lun.first);
      finding.path = lun.second.path;
      mended(finding, [&] {
        return context_->save([&](Record& record) {
          if (Saved_Target* target = record.find(saved.type, saved.name, saved.tag))
            target->luns.erase(lun.first);
        });
      });
    }
  }
}

const Saved_Lun* Reconciler::saved_lun(const Target_Folder& target, int tag, unsigned number,
                                       const std::string& backstore) const {
  const Saved_Target* saved = context_->record().find(target.fabric.type, target.name, tag);
  if (!saved) return nullptr;
  const auto lun = saved->luns.find(number);
  if (lun == saved->luns.end() || backstores_.path(backstore) != lun->second.path) return nullptr;
  return &lun->second;
}

void Reconciler::leftover_luns(const Target_Folder& target, int tag, const std::string& path) {
  Group group(context_, target.fabric, target.name, tag);
  for (const unsigned number : lun_folders(context_->tree(), path)) {
    std::string backstore;
    if (!linked_backstore(context_->tree(), path, number, backstore)) {
      LIO_Finding& finding = found_in(group, LIO_Finding::LEFTOVER_FOLDER, lun_text(number) + " is empty");
      finding.folder = lun_folder(path, number);
      mended(finding, [&] { return remove_lun(context_->tree(), path, number); });
      continue;
    }
    const Saved_Lun* saved = saved_lun(target, tag, number, backstore);
    if (!own_backstore(backstore) || (saved && saved->settled)) continue;
    LIO_Finding& finding =
        found_in(group, saved ? LIO_Finding::UNFINISHED_LUN : LIO_Finding::LEFTOVER_LUN,
                 lun_text(number) + (saved ? " was not finished" : " is not in the saved configuration"));
    finding.number = static_cast<int>(number);
    finding.path = backstores_.path(backstore);
    finding.folder = lun_folder(path, number);
    mended(finding, [&] { return group.destroy_lun(number, backstore, false); });
  }
}

bool Reconciler::may_see(const Target_Folder& target, int tag, const Mapping& mapping) const {
  const std::string group = target.groups.at(tag);
  std::string backstore;
  if (!linked_backstore(context_->tree(), group, static_cast<unsigned>(mapping.lun), backstore)) return false;
  if (!own_backstore(backstore)) return true;
  const Saved_Lun* saved = saved_lun(target, tag, static_cast<unsigned>(mapping.lun), backstore);
  return saved && lists(saved->acls, mapping.initiator);
}

void Reconciler::leftover_acls(const Target_Folder& target, int tag, const std::string& path) {
  const Group group(context_, target.fabric, target.name, tag);
  Configfs& tree = context_->tree();
  for (const std::string& initiator : tree.names(path + "/acls")) {
    for (const Mapping& mapping : mappings(tree, path, initiator)) {
      if (mapping.lun >= 0 && may_see(target, tag, mapping)) continue;
      std::string backstore;
      const bool live =
          mapping.lun >= 0 && linked_backstore(tree, path, static_cast<unsigned>(mapping.lun), backstore);
      LIO_Finding& finding =
          found_in(group, live ? LIO_Finding::EXTRA_ACL : LIO_Finding::LEFTOVER_FOLDER,
                   live ? initiator + " sees " + lun_text(static_cast<unsigned>(mapping.lun))
                        : "a mapping of " + initiator + " leads nowhere");
      finding.initiator = initiator;
      finding.number = mapping.lun;
      finding.folder = mapping.folder;
      mended(finding, [&] { return remove_mapping(tree, mapping); });
    }
    if (!mappings(tree, path, initiator).empty()) continue;
    LIO_Finding& finding =
        found_in(group, LIO_Finding::LEFTOVER_FOLDER, "the ACL of " + initiator + " is empty");
    finding.initiator = initiator;
    finding.folder = acl_folder(path, initiator);
    mended(finding, [&] { return tree.clear_folder(finding.folder); });
  }
}

// Fibre Channel targets are ports of the machine and stay.
void Reconciler::leftover_target(const Target_Folder& target) {
  if (target.fabric.type == TYPE_FC) return;
  for (const Saved_Target& saved : context_->record().targets)
    if (saved.name == target.name && saved.type == target.fabric.type && !saved.luns.empty()) return;
  for (const auto& group : target.groups)
    if (!lun_folders(context_->tree(), group.second).empty()) return;
  LIO_Finding& finding = found(LIO_Finding::LEFTOVER_TARGET, "the target has no LUNs");
  finding.type = target.fabric.type;
  finding.target = target.name;
  finding.folder = target.path;
  mended(finding, [&] {
    for (const auto& group : target.groups)
      if (!remove_group(context_->tree(), group.second)) return false;
    if (!context_->tree().clear_folder(target.path)) return false;
    return context_->save([&](Record& record) { record.drop_target(target.fabric.type, target.name, 0); });
  });
}

void Reconciler::leftover_backstores() {
  std::set<std::string> used;
  for (const Target_Folder& target : target_folders(*context_))
    for (const auto& group : target.groups)
      for (const auto& lun : linked_luns(context_->tree(), group.second))
        used.insert(lun.second);
  for (const std::string& backstore : backstores_.own()) {
    if (used.count(backstore)) continue;
    LIO_Finding& finding = found(LIO_Finding::LEFTOVER_BACKSTORE, "backstore " + backstore + " is not used");
    finding.path = backstores_.path(backstore);
    finding.folder = "core/" + backstore;
    mended(finding, [&] { return backstores_.remove(backstore); });
  }
}

std::vector<LIO_Export> saved_exports(const Record& record) {
  std::vector<LIO_Export> exports;
  for (const Saved_Target& target : record.targets)
    for (const auto& lun : target.luns) {
      LIO_Export one;
      one.type = target.type;
      one.target = target.name;
      one.demo_mode = target.mode == Mode::demo;
      one.enabled = target.enabled;
      one.number = static_cast<unsigned short>(lun.first);
      one.backstore_type = lun.second.type;
      one.path = lun.second.path;
      one.size = lun.second.size;
      one.serial = lun.second.serial;
      one.acls = lun.second.acls;
      one.settled = lun.second.settled;
      exports.push_back(one);
    }
  return exports;
}

std::vector<LIO_Export> kernel_exports(const Context_ptr& context) {
  std::vector<LIO_Export> exports;
  const Backstores backstores(context);
  for (const Target_Folder& target : target_folders(*context))
    for (const auto& entry : target.groups) {
      const Group group(context, target.fabric, target.name, entry.first);
      std::map<int, LIO_ACLs> acls;
      for (const Mapping& mapping : mappings(context->tree(), entry.second))
        acls[mapping.lun].push_back({mapping.initiator, ""});
      for (const auto& lun : linked_luns(context->tree(), entry.second)) {
        if (!own_backstore(lun.second)) continue;
        LIO_Export one;
        one.type = target.fabric.type;
        one.target = target.name;
        one.demo_mode = group.demo_mode();
        one.enabled = group.enabled() || !context->tree().exists(entry.second + "/enable");
        one.number = static_cast<unsigned short>(lun.first);
        one.backstore_type = Backstores::type(lun.second);
        one.path = backstores.path(lun.second);
        one.size = one.backstore_type == LIO_Backstore::block ? 0 : backstores.size(lun.second);
        one.serial = backstores.serial(lun.second);
        one.acls = acls[static_cast<int>(lun.first)];
        exports.push_back(one);
      }
    }
  return exports;
}

}  // namespace lio
