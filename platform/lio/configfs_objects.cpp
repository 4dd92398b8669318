#include "platform/lio/configfs_objects.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/lio/lio_names.h"

namespace lio {

namespace {

// A fixed name costs one readlink where looking for the link costs a listing.
const char* const LINK = "lun";

// The link inside a LUN or mapping folder: ours, or one that an administrator's tool made under another name.
bool find_link(const Configfs& tree, const std::string& folder, unsigned components, std::string& name,
               std::string& to) {
  name = LINK;
  if (tree.read_link(folder + "/" + LINK, components, to) == 0) return true;
  for (const std::string& entry : tree.names(folder)) {
    name = entry;
    if (tree.read_link(folder + "/" + entry, components, to) == 0) return true;
  }
  name.clear();
  return false;
}

std::map<unsigned, std::string> numbered(const Configfs& tree, const std::string& folder,
                                         const char* prefix) {
  std::map<unsigned, std::string> found;
  unsigned number = 0;
  std::vector<std::string> names;
  tree.list(folder, names);
  for (const std::string& name : names)
    if (numbered_name(name, prefix, number)) found[number] = name;
  return found;
}

}  // namespace

std::string lun_folder(const std::string& group, unsigned number) {
  return group + "/lun/lun_" + std::to_string(number);
}

std::string acl_folder(const std::string& group, const std::string& initiator) {
  return group + "/acls/" + initiator;
}

bool own_backstore(const std::string& backstore) {
  const std::size_t slash = backstore.find('/');
  return slash != std::string::npos &&
         backstore.compare(slash + 1, std::strlen(BACKSTORE_MARK), BACKSTORE_MARK) == 0;
}

bool linked_backstore(const Configfs& tree, const std::string& group, unsigned number,
                      std::string& backstore) {
  std::string link;
  return find_link(tree, lun_folder(group, number), 2, link, backstore);
}

std::map<unsigned, std::string> linked_luns(const Configfs& tree, const std::string& group) {
  std::map<unsigned, std::string> luns;
  std::string backstore;
  for (const unsigned number : lun_folders(tree, group))
    if (linked_backstore(tree, group, number, backstore)) luns[number] = backstore;
  return luns;
}

std::vector<unsigned> lun_folders(const Configfs& tree, const std::string& group) {
  std::vector<std::string> names;
  tree.list(group + "/lun", names);
  std::vector<unsigned> numbers;
  numbers.reserve(names.size());
  unsigned number = 0;
  for (const std::string& name : names)
    if (numbered_name(name, "lun_", number)) numbers.push_back(number);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::vector<Mapping> mappings(const Configfs& tree, const std::string& group, const std::string& initiator) {
  std::vector<Mapping> found;
  const std::string acl = acl_folder(group, initiator);
  for (const auto& entry : numbered(tree, acl, "lun_")) {
    Mapping mapping{initiator, acl + "/" + entry.second, "", -1};
    std::string to;
    unsigned lun = 0;
    if (find_link(tree, mapping.folder, 1, mapping.link, to) && numbered_name(to, "lun_", lun))
      mapping.lun = static_cast<int>(lun);
    found.push_back(mapping);
  }
  return found;
}

std::vector<Mapping> mappings(const Configfs& tree, const std::string& group) {
  std::vector<Mapping> all;
  for (const std::string& initiator : tree.names(group + "/acls")) {
    const std::vector<Mapping> some = mappings(tree, group, initiator);
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

std::vector<std::string> initiators_of(const Configfs& tree, const std::string& group, unsigned number) {
  std::vector<std::string> initiators;
  for (const Mapping& mapping : mappings(tree, group))
    if (mapping.lun == static_cast<int>(number)) initiators.push_back(mapping.initiator);
  return initiators;
}

std::vector<Target_Folder> target_folders(const Configfs& tree, const Fabric& fabric) {
  std::vector<Target_Folder> targets;
  for (const std::string& name : tree.names(fabric.folder)) {
    Target_Folder target{fabric, name, fabric.folder + "/" + name, {}};
    // The fabric's own folder and files are no targets.
    if (name == "discovery_auth" || name == "lio_version" || name == "cpus_allowed_list" || name == "version")
      continue;
    for (const auto& group : numbered(tree, target.path, "tpgt_"))
      target.groups[static_cast<int>(group.first)] = target.path + "/" + group.second;
    targets.push_back(target);
  }
  return targets;
}

std::vector<Target_Folder> target_folders(Context& context) {
  std::vector<Target_Folder> all;
  for (const Fabric& fabric : context.fabrics()) {
    const std::vector<Target_Folder> some = target_folders(context.tree(), fabric);
    all.insert(all.end(), some.begin(), some.end());
  }
  // A fabric that stands for both kinds: the record knows which target is which.
  if (context.fabrics().size() == 1)
    for (Target_Folder& target : all)
      for (const Saved_Target& saved : context.record().targets)
        if (saved.name == target.name) target.fabric = context.fabric(saved.type);
  return all;
}

std::vector<std::string> users_of(Context& context, const std::string& backstore) {
  std::vector<std::string> users;
  for (const Target_Folder& target : target_folders(context))
    for (const auto& group : target.groups)
      for (const auto& lun : linked_luns(context.tree(), group.second))
        if (lun.second == backstore) users.push_back(lun_folder(group.second, lun.first));
  return users;
}

bool remove_mapping(Configfs& tree, const Mapping& mapping) {
  if (!mapping.link.empty() && !tree.clear_link(mapping.folder + "/" + mapping.link)) return false;
  FAULT_POINT("lio.mapping_unlinked");
  return tree.clear_folder(mapping.folder);
}

bool remove_acl(Configfs& tree, const std::string& group, const std::string& initiator) {
  for (const Mapping& mapping : mappings(tree, group, initiator))
    if (!remove_mapping(tree, mapping)) return false;
  return tree.clear_folder(acl_folder(group, initiator));
}

bool remove_lun(Configfs& tree, const std::string& group, unsigned number) {
  const std::string folder = lun_folder(group, number);
  // A mapping that outlives its LUN can never be removed together with it, so all go first.
  for (const std::string& initiator : tree.names(group + "/acls"))
    if (!unmap_lun(tree, group, initiator, number, true)) return false;
  FAULT_POINT("lio.lun_unmapped");
  std::string link, to;
  if (find_link(tree, folder, 2, link, to) && !tree.clear_link(folder + "/" + link)) return false;
  FAULT_POINT("lio.lun_unlinked");
  if (!tree.clear_folder(folder)) return false;
  FAULT_POINT("lio.lun_removed");
  return true;
}

bool remove_group(Configfs& tree, const std::string& group) {
  for (const std::string& initiator : tree.names(group + "/acls"))
    if (!remove_acl(tree, group, initiator)) return false;
  for (const unsigned number : lun_folders(tree, group))
    if (!remove_lun(tree, group, number)) return false;
  for (const std::string& portal : tree.names(group + "/np"))
    if (!tree.clear_folder(group + "/np/" + portal)) return false;
  FAULT_POINT("lio.portals_removed");
  if (!tree.clear_folder(group)) return false;
  FAULT_POINT("lio.group_removed");
  return true;
}

bool make_lun(Configfs& tree, const std::string& group, unsigned number, const std::string& backstore,
              bool& taken) {
  const std::string folder = lun_folder(group, number);
  int error = tree.make_folder(folder);
  taken = error == EEXIST;
  if (taken) return false;
  if (error != 0)
    return LOG_FAILURE("Failed to make '%s': %s\n", tree.full(folder).c_str(), std::strerror(error));
  FAULT_POINT("lio.lun_made");
  error = tree.make_link("core/" + backstore, folder + "/" + LINK);
  if (error == 0) return true;
  LOG_FAILURE("Failed to link '%s' to backstore '%s': %s\n", tree.full(folder).c_str(), backstore.c_str(),
              std::strerror(error));
  tree.clear_folder(folder);
  return false;
}

namespace {

// The initiator may have logged in while everybody was let in; the kernel then turns its remembered view,
// with all LUNs, into the new ACL. Made a second time it starts empty.
bool make_acl(Configfs& tree, const std::string& group, const std::string& initiator, bool& made) {
  const std::string folder = acl_folder(group, initiator);
  if (!tree.ensure_folder(folder, &made)) return false;
  if (!made) return true;
  return tree.clear_folder(folder) && tree.ensure_folder(folder);
}

bool link_mapping(Configfs& tree, const std::string& group, const std::string& folder, unsigned number) {
  const int error = tree.make_link(lun_folder(group, number), folder + "/" + LINK);
  if (error != 0)
    return LOG_FAILURE("Failed to map LUN %u into '%s': %s\n", number, tree.full(folder).c_str(),
                       std::strerror(error));
  return tree.settle(folder + "/write_protect", "0");
}

}  // namespace

namespace {

// Is there a mapping under the LUN's own number already? One that a crash left without its link is removed.
bool look_for_mapping(Configfs& tree, const std::string& folder, unsigned number, bool& there) {
  std::string link, to;
  there = false;
  if (!tree.exists(folder)) return true;
  if (!find_link(tree, folder, 1, link, to)) return tree.clear_folder(folder);
  there = to == "lun_" + std::to_string(number);
  return there || LOG_FAILURE("Failed to map LUN %u: '%s' leads to '%s' already\n", number,
                              tree.full(folder).c_str(), to.c_str());
}

}  // namespace

bool map_lun(Configfs& tree, const std::string& group, const std::string& initiator, unsigned number,
             bool& made) {
  made = false;
  const Mapping mapping{initiator, acl_folder(group, initiator) + "/lun_" + std::to_string(number), LINK, -1};
  bool there = false;
  if (!look_for_mapping(tree, mapping.folder, number, there)) return false;
  if (there) return true;
  bool acl_made = false;
  if (!make_acl(tree, group, initiator, acl_made)) return false;
  FAULT_POINT("lio.acl_made");
  int error = tree.make_folder(mapping.folder);
  if (error != 0)
    LOG_FAILURE("Failed to make '%s': %s\n", tree.full(mapping.folder).c_str(), std::strerror(error));
  FAULT_POINT("lio.mapping_made");
  made = error == 0 && link_mapping(tree, group, mapping.folder, number);
  if (made) return true;
  if (error == 0) remove_mapping(tree, mapping);
  if (acl_made) tree.clear_folder(acl_folder(group, initiator));
  return false;
}

bool unmap_lun(Configfs& tree, const std::string& group, const std::string& initiator, unsigned number,
               bool clean) {
  unsigned left = 0;
  unsigned removed = 0;
  for (const Mapping& mapping : mappings(tree, group, initiator)) {
    if (mapping.lun != static_cast<int>(number)) {
      ++left;
      continue;
    }
    if (!remove_mapping(tree, mapping)) return false;
    ++removed;
  }
  if (!clean || removed == 0 || left != 0) return true;
  return tree.clear_folder(acl_folder(group, initiator));
}

}  // namespace lio
