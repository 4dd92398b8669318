// Group: making it, its access modes, portals and enabling.

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/lio/configfs_group.h"

namespace lio {

Group::Group(Context_ptr context, const Fabric& fabric, const std::string& target, int tag)
    : context_(std::move(context)),
      fabric_(fabric),
      target_(target),
      tag_(tag),
      path_(fabric.folder + "/" + target + "/tpgt_" + std::to_string(tag)) {}

bool Group::save(const std::function<void(Saved_Target&)>& alter) {
  return context_->save([&](Record& record) { alter(record.find_or_add(fabric_.type, target_, tag_)); });
}

bool Group::save_later(const std::function<void(Saved_Target&)>& alter) {
  return context_->save_later(
      [&](Record& record) { alter(record.find_or_add(fabric_.type, target_, tag_)); });
}

bool Group::make() {
  const Change change(context_);
  if (!change.held() || !context_->ensure_fabric(fabric_)) return false;
  const Saved_Target* saved = context_->record().find(fabric_.type, target_, tag_);
  const bool known = saved != nullptr;
  if (known && exists()) return true;
  const Mode mode = known && saved->has_settled() ? saved->mode : Mode::fresh;
  const bool there = exists();
  if (!save([](Saved_Target&) {})) return false;
  FAULT_POINT("lio.target_saved");
  if (make_in_kernel() && bring_to(mode)) return true;
  // Half set it would pass for the whole the next time.
  if (!there && exists()) remove_group(tree(), path_);
  if (!known) context_->save([&](Record& record) { record.drop_target(fabric_.type, target_, 0); });
  return false;
}

bool Group::make_in_kernel() {
  const std::string folder = fabric_.folder + "/" + target_;
  bool made = false;
  if (!context_->ensure_fabric(fabric_) || !tree().ensure_folder(folder, &made)) return false;
  FAULT_POINT("lio.target_made");
  bool fresh = false;
  const bool good = tree().ensure_folder(path_, &fresh);
  if (!good && made) tree().clear_folder(folder);
  FAULT_POINT("lio.group_made");
  // A Fibre Channel adapter's group begins in a demo mode of its own, in which initiators see no LUN.
  return good && (!fresh || tree().value(attribute("generate_node_acls")) != "1" || settle_closed());
}

bool Group::bring_to(Mode mode) {
  if (mode == Mode::demo) return open_in_kernel();
  return mode != Mode::acl || close_in_kernel();
}

// An administrator's LUNs are neither opened to everybody nor taken apart.
bool Group::only_own_luns() const {
  for (const auto& lun : linked_luns(tree(), path_))
    if (!own_backstore(lun.second))
      return LOG_FAILURE("Failed to change '%s': LUN %u is on '%s', which was not made by this system\n",
                         path_.c_str(), lun.first, lun.second.c_str());
  return true;
}

bool Group::demo_mode() const {
  std::string value;
  const int error = tree().read(attribute("generate_node_acls"), value);
  if (error == ENOENT) return exists();  // a fabric without access control
  return error == 0 && value == "1";
}

bool Group::set_demo_mode() {
  const Change change(context_);
  if (!change.held() || !only_own_luns() || !open_in_kernel()) return false;
  return save([](Saved_Target& target) {
    target.mode = Mode::demo;
    for (auto& lun : target.luns)
      lun.second.acls.clear();
  });
}

bool Group::open_in_kernel() {
  for (const std::string& initiator : tree().names(path_ + "/acls"))
    if (!remove_acl(tree(), path_, initiator)) return false;
  FAULT_POINT("lio.acls_removed");
  const std::pair<const char*, const char*> settings[] = {
      {"authentication", "0"},       {"demo_mode_write_protect", "0"}, {"prod_mode_write_protect", "0"},
      {"demo_mode_login_only", "0"}, {"demo_mode_discovery", "1"},     {"generate_node_acls", "1"}};
  for (const auto& setting : settings) {
    if (!tree().settle(attribute(setting.first), setting.second)) return false;
    FAULT_POINT("lio.demo_attribute_written");
  }
  return true;
}

bool Group::cleanly_closed() const {
  return tree().value(attribute("generate_node_acls")) == "0" &&
         tree().value(attribute("cache_dynamic_acls")) == "0";
}

bool Group::set_acl_mode() {
  const Change change(context_);
  if (!change.held()) return false;
  if (!tree().exists(attribute("generate_node_acls")))
    return LOG_FAILURE("Failed to set ACL mode: '%s' does not exist or cannot keep initiators out\n",
                       path_.c_str());
  // Recorded first: after a crash in the middle the group comes back closed.
  const bool saved = context_->record().find_or_add(fabric_.type, target_, tag_).mode == Mode::acl;
  if (!saved && !save([](Saved_Target& target) { target.mode = Mode::acl; })) return false;
  FAULT_POINT("lio.acl_mode_saved");
  return close_in_kernel();
}

bool Group::close_in_kernel() {
  if (cleanly_closed()) return settle_closed();
  return only_own_luns() && rebuild();
}

// Shows the target to listed initiators only. Writes nothing that is so already.
bool Group::settle_closed() {
  for (const char* name : {"authentication", "generate_node_acls", "cache_dynamic_acls",
                           "prod_mode_write_protect", "demo_mode_discovery"})
    if (!tree().settle(attribute(name), "0")) return false;
  FAULT_POINT("lio.acl_attributes_written");
  return true;
}

// The kernel forgets the initiators that it let in during demo mode only with the whole group.
bool Group::rebuild() {
  const std::map<unsigned, std::string> luns = linked_luns(tree(), path_);
  const std::vector<std::string> portals = tree().names(path_ + "/np");
  const std::vector<Mapping> mapped = mappings(tree(), path_);
  const bool was_enabled = enabled();
  if (!remove_group(tree(), path_) || !tree().ensure_folder(path_)) return false;
  FAULT_POINT("lio.group_rebuilt");
  if (!settle_closed() || !refill(luns, portals, mapped)) {
    tree().write(path_ + "/enable", "0");
    return LOG_FAILURE("Failed to rebuild '%s': it stays disabled\n", path_.c_str());
  }
  return !was_enabled || enable_in_kernel(true);
}

bool Group::refill(const std::map<unsigned, std::string>& luns, const std::vector<std::string>& portals,
                   const std::vector<Mapping>& mapped) {
  bool flag = false;
  for (const auto& lun : luns)
    if (!make_lun(tree(), path_, lun.first, lun.second, flag)) return false;
  for (const std::string& portal : portals)
    if (!tree().ensure_folder(path_ + "/np/" + portal)) return false;
  for (const Mapping& mapping : mapped)
    if (mapping.lun >= 0 && luns.count(static_cast<unsigned>(mapping.lun)) &&
        !map_lun(tree(), path_, mapping.initiator, static_cast<unsigned>(mapping.lun), flag))
      return false;
  return true;
}

bool Group::enabled() const {
  return tree().value(path_ + "/enable") == "1";
}

bool Group::enable(bool on) {
  const Change change(context_);
  if (!change.held() || !enable_in_kernel(on)) return false;
  return save([&](Saved_Target& target) {
    target.enabled = on;
    for (auto& lun : target.luns)
      if (on && context_->unsettled().erase(lun_folder(path_, lun.first)) != 0) lun.second.settled = true;
  });
}

bool Group::enable_in_kernel(bool on) {
  if (!exists()) return LOG_FAILURE("Failed to enable '%s': it does not exist\n", path_.c_str());
  const bool good = tree().settle(path_ + "/enable", on ? "1" : "0");
  FAULT_POINT("lio.group_enabled");
  return good;
}

namespace {

std::string portal_name(const Saved_Portal& portal) {
  const std::string port = ":" + std::to_string(portal.port);
  const bool ipv6 = portal.address.find(':') != std::string::npos;
  return ipv6 ? "[" + portal.address + "]" + port : portal.address + port;
}

bool numeric_address(const std::string& address) {
  unsigned char binary[16];
  return ::inet_pton(AF_INET, address.c_str(), binary) == 1 ||
         ::inet_pton(AF_INET6, address.c_str(), binary) == 1;
}

bool ends(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

bool Group::listens(const Saved_Portal& portal) const {
  if (!portal.all) return tree().exists(path_ + "/np/" + portal_name(portal));
  // Whatever the group has on that port was put there on purpose, and keeps a wildcard out.
  const std::vector<std::string> names = tree().names(path_ + "/np");
  const std::string end = ":" + std::to_string(portal.port);
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) { return ends(name, end); });
}

bool Group::add_portal(const Saved_Portal& portal) {
  const Change change(context_);
  if (!change.held()) return false;
  if (portal.port == 0 || (!portal.all && !numeric_address(portal.address)))
    return LOG_FAILURE("Failed to add portal '%s' port %hu: not a numeric address and port\n",
                       portal.address.c_str(), portal.port);
  if (!listen_in_kernel(portal)) return false;
  const Saved_Target& saved = context_->record().find_or_add(fabric_.type, target_, tag_);
  const auto same = [&](const Saved_Portal& one) {
    return one.all == portal.all && one.address == portal.address && one.port == portal.port;
  };
  if (std::any_of(saved.portals.begin(), saved.portals.end(), same)) return true;
  return save([&](Saved_Target& target) { target.portals.push_back(portal); });
}

// The kernel has one wildcard per port for the whole machine, IPv6 (which serves IPv4 too) or IPv4: the form
// that another target uses, or an empty text.
std::string Group::wildcard_form(unsigned short port) const {
  for (const Target_Folder& target : target_folders(tree(), fabric_))
    for (const auto& group : target.groups)
      for (const char* address : {"[::]", "0.0.0.0"}) {
        const std::string name = std::string(address) + ":" + std::to_string(port);
        if (tree().exists(group.second + "/np/" + name)) return name;
      }
  return "";
}

bool Group::listen_in_kernel(const Saved_Portal& portal) {
  if (listens(portal)) return true;
  const std::string np = path_ + "/np/";
  const std::string port = std::to_string(portal.port);
  std::string name = portal.all ? wildcard_form(portal.port) : portal_name(portal);
  const bool choose = name.empty();
  if (choose) name = "[::]:" + port;
  int error = tree().make_folder(np + name);
  if (choose && error != 0) error = tree().make_folder(np + (name = "0.0.0.0:" + port));
  if (error != 0)
    return LOG_FAILURE(
        "Failed to listen on '%s' for '%s': %s; port %s may be taken by another program or by a "
        "portal of another target, or the address is not this machine's\n",
        name.c_str(), target_.c_str(), std::strerror(error), port.c_str());
  FAULT_POINT("lio.portal_made");
  return true;
}

}  // namespace lio
