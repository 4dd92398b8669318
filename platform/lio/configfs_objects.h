#pragma once
// Port groups, LUNs, mappings and links in the kernel's tree, without the saved record. Group paths look like
// "iscsi/iqn.2026-11.org.example:disk/tpgt_1", backstores like "fileio_0/scsipool-<serial>".

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/lio/configfs.h"
#include "platform/lio/configfs_context.h"
#include "platform/lio/lio_record.h"

namespace lio {

// An initiator's view of a LUN: acls/<initiator>/lun_<n>, a link to the group's LUN in it.
struct Mapping {
  std::string initiator;
  std::string folder;
  std::string link;  // name of the link; empty when there is none
  int lun = -1;      // the group's LUN that the link names (never derived from the folder's number)
};

std::string lun_folder(const std::string& group, unsigned number);
std::string acl_folder(const std::string& group, const std::string& initiator);

// Does this system's mark stand in front of the backstore's name?
bool own_backstore(const std::string& backstore);
// The backstore that the LUN is linked to; false when the LUN has no link or does not exist.
bool linked_backstore(const Configfs& tree, const std::string& group, unsigned number,
                      std::string& backstore);
// All LUNs with a link.
std::map<unsigned, std::string> linked_luns(const Configfs& tree, const std::string& group);
// All LUN folders, whatever is in them, in the order of their numbers.
std::vector<unsigned> lun_folders(const Configfs& tree, const std::string& group);
std::vector<Mapping> mappings(const Configfs& tree, const std::string& group, const std::string& initiator);
std::vector<Mapping> mappings(const Configfs& tree, const std::string& group);
// Initiators that see the LUN.
std::vector<std::string> initiators_of(const Configfs& tree, const std::string& group, unsigned number);

struct Target_Folder {
  Fabric fabric;
  std::string name;
  std::string path;                   // "iscsi/<name>"
  std::map<int, std::string> groups;  // tag and path
};
// The targets that the kernel has, of one fabric or of all.
std::vector<Target_Folder> target_folders(const Configfs& tree, const Fabric& fabric);
std::vector<Target_Folder> target_folders(Context& context);
// The LUNs on a backstore, as "iscsi/<target>/tpgt_1/lun/lun_0".
std::vector<std::string> users_of(Context& context, const std::string& backstore);

// Each of these removes with all below it, reads back, and stops with a message at the first failure. What is
// gone already is fine.
bool remove_mapping(Configfs& tree, const Mapping& mapping);
bool remove_acl(Configfs& tree, const std::string& group, const std::string& initiator);
bool remove_lun(Configfs& tree, const std::string& group, unsigned number);
bool remove_group(Configfs& tree, const std::string& group);

// Links the LUN to the backstore. `taken` tells that the number was in use. Nothing stays behind on failure.
bool make_lun(Configfs& tree, const std::string& group, unsigned number, const std::string& backstore,
              bool& taken);
// Maps the group's LUN for the initiator under the same number; makes the ACL. `made` tells whether it is
// new. Nothing stays behind on failure.
bool map_lun(Configfs& tree, const std::string& group, const std::string& initiator, unsigned number,
             bool& made);
// Removes what map_lun made: the mapping and, when it was the last one, the ACL.
bool unmap_lun(Configfs& tree, const std::string& group, const std::string& initiator, unsigned number,
               bool clean);

}  // namespace lio
