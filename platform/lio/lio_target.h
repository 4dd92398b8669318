#pragma once
// Targets, their port groups and the managers that hand them out.

#include <memory>
#include <string>

#include "platform/lio/lio_lun.h"
#include "platform/lio/lio_types.h"

class Target_Port_Group {
 public:
  // Demo mode: every initiator sees every LUN and may write. Removes all ACLs. Opened by its last write, so
  // that a crash in between leaves the group closed.
  virtual bool set_demo_mode() = 0;
  // True in demo mode, and where the fabric cannot keep anybody out. A fresh group is not in demo mode.
  virtual bool demo_mode() = 0;
  // ACL mode: only listed initiators get in. A group that has been in demo mode remembers all its former
  // initiators, so it is taken apart and rebuilt (same LUN numbers, backstores, portals and ACLs; live
  // sessions end); one that is cleanly in ACL mode is not touched.
  virtual bool set_acl_mode() = 0;

  virtual ~Target_Port_Group() = default;

  // Appends the LUNs in the order of their numbers, also those of the saved configuration that could not be
  // rebuilt yet (their backstore path is empty): they are part of the group and come back. Cheap: a LUN's
  // backstore is read when it is first asked for.
  virtual bool list_luns(LIO_Luns& luns) = 0;
  // A new LUN on a backstore. It gets the number that the backstore's path had in this target before, if that
  // is free, else the lowest free one that is not kept for another volume. A group without LUNs is disabled
  // first, so that nobody sees the LUN before the access mode is settled: enable() follows. With `map_all`
  // every ACL gets the LUN. Null with no LUN left behind; the backstore stays.
  virtual LIO_Lun_var create_lun(const char* backstore_name, bool map_all) = 0;
  // Null, without a message, when there is none.
  virtual LIO_Lun_var get_lun(int lun_num) = 0;
  // Enabling settles the LUNs made since: from here on they are part of the saved configuration and are
  // restored. Disabling ends all sessions.
  virtual bool enable(bool on) = 0;
};

using Target_Port_Group_var = std::shared_ptr<Target_Port_Group>;

class ISCSI_Target_Port_Group : public Target_Port_Group {
 public:
  // Makes the group listen. With `all` on every address, IPv4 and IPv6 (`address` is not looked at), else on
  // `address` (a numeric address, IPv6 without brackets). True when it listens there already.
  virtual bool add_net_portals(bool all, const char* address, unsigned short port) = 0;
};

using ISCSI_Target_Port_Group_var = std::shared_ptr<ISCSI_Target_Port_Group>;

class LIO_Target {
 public:
  // How many sessions initiators hold, 0 = not in use. A session that just ended is counted by the kernel for
  // up to 2 s more, so a number other than 0 is read again that long before it is answered.
  virtual unsigned busy() = 0;

  virtual ~LIO_Target() = default;

  virtual std::string name() const = 0;
  // Port groups of iSCSI are ISCSI_Target_Port_Group (std::dynamic_pointer_cast). This makes the target
  // itself too.
  virtual Target_Port_Group_var create_or_get_tpg(int tag) = 0;
  // Null, without a message, when there is none; nothing is made.
  virtual Target_Port_Group_var get_tpg(int tag) = 0;
  // Removes the target with all in it, in the order mapped LUN, ACL, LUN, portal, port group, target and,
  // unless `keep_backstores`, the backstores, each read back. Sessions end. True when it was gone already. A
  // target that holds LUNs on backstores that this system did not make is refused. On failure what has not
  // been removed stays.
  virtual bool destroy(bool keep_backstores) = 0;
};

using LIO_Target_var = std::shared_ptr<LIO_Target>;

class LIO_Target_Manager {
 public:
  virtual ~LIO_Target_Manager() = default;

  // The target of that name (checked; brought to lower case). The kernel's folder is made only by
  // create_or_get_tpg, so that asking for a target that is gone leaves nothing behind. Null when the name is
  // not valid or the kernel has no such fabric (for FC: no adapter in target mode).
  virtual LIO_Target_var create_or_get_target(const char* name) = 0;
};

using LIO_Target_Manager_var = std::shared_ptr<LIO_Target_Manager>;

// Stateless: works on the installed library (see lio_library.h).
class LIO_Target_Manager_Factory {
 public:
  // "iSCSI" or "FC"; null for any other text.
  static LIO_Target_Manager_var get_manager(const char* type);
  // One LUN; null, with nothing made, when target, group or LUN does not exist.
  static LIO_Lun_var get_lun(const char* type, const char* target, unsigned short tpg, unsigned short lun);
};
