#pragma once
// One target port group in the kernel's tree, with the saved record. A plain value: copies mean the same
// group. Every change takes the change lock, alters the kernel first and then the record.

#include <memory>
#include <string>
#include <vector>

#include "platform/lio/configfs_backstores.h"
#include "platform/lio/configfs_context.h"
#include "platform/lio/configfs_objects.h"

namespace lio {

class Group {
 public:
  Group(Context_ptr context, const Fabric& fabric, const std::string& target, int tag);

  const std::string& path() const { return path_; }
  const std::string& target() const { return target_; }
  const Fabric& fabric() const { return fabric_; }
  const Context_ptr& context() const { return context_; }
  bool exists() const { return tree().exists(path_); }

  // Target and group; recorded before they are made, so that a crash leaves nothing that nobody knows. What
  // was made is removed on failure. A group with recorded LUNs gets its recorded mode.
  bool make();
  bool set_demo_mode();
  bool demo_mode() const;
  bool set_acl_mode();
  bool enable(bool on);
  bool add_portal(const Saved_Portal& portal);
  // The numbers of the LUNs. Those of the record count while the kernel does not have them too: they come
  // back when their volume does, into the mode that the group has then. Reads the links only of those that
  // the record does not know, for that is most of what a listing of many costs.
  bool list_luns(std::vector<unsigned>& numbers) const;
  bool create_lun(const std::string& backstore, bool map_all, unsigned& number);
  // `backstore` is what the caller knows under that number: another one there is a failure.
  bool destroy_lun(unsigned number, const std::string& backstore, bool keep_backstore);
  bool add_acls(unsigned number, const LIO_ACLs& acls, bool create);
  bool del_acls(unsigned number, const LIO_ACLs& acls, bool clean);

  // In the kernel alone, without the record; used by restore and repair too.
  bool make_in_kernel();
  bool bring_to(Mode mode);
  bool open_in_kernel();   // to demo mode
  bool close_in_kernel();  // to clean ACL mode
  bool cleanly_closed() const;
  bool listens(const Saved_Portal& portal) const;
  bool listen_in_kernel(const Saved_Portal& portal);
  bool enabled() const;
  bool enable_in_kernel(bool on);
  bool normal_initiators(const LIO_ACLs& given, LIO_ACLs& normal) const;

 private:
  Configfs& tree() const { return context_->tree(); }
  std::string attribute(const char* name) const { return path_ + "/attrib/" + name; }
  bool settle_closed();
  bool rebuild();
  bool refill(const std::map<unsigned, std::string>& luns, const std::vector<std::string>& portals,
              const std::vector<Mapping>& mapped);
  bool only_own_luns() const;
  std::string wildcard_form(unsigned short port) const;
  bool link_lun(const std::string& backstore, unsigned& number);
  bool map_all(unsigned number);
  bool save(const std::function<void(Saved_Target&)>& alter);
  bool save_later(const std::function<void(Saved_Target&)>& alter);
  bool save_acls(unsigned number, const std::function<void(LIO_ACLs&)>& alter);

  Context_ptr context_;
  Fabric fabric_;
  std::string target_;
  int tag_;
  std::string path_;
};

}  // namespace lio
