#pragma once
// One logical unit of a target port group.

#include <memory>
#include <string>
#include <vector>

#include "platform/lio/lio_types.h"

class LIO_Lun {
 public:
  virtual ~LIO_Lun() = default;

  // The LUN's number in its port group.
  virtual unsigned short seq() const = 0;
  // Removes the LUN: first its mappings in every ACL, then the LUN, each read back, and, unless
  // `keep_backstore`, its backstore when no other LUN uses it. True also when the LUN was gone already. A LUN
  // whose backstore this system did not make is refused. Its number stays remembered for the backstore's
  // path.
  virtual bool destroy(bool keep_backstore) = 0;
  // The name of the LUN's backstore.
  virtual bool get_backstore(std::string& name) = 0;
  // The path of the device or file behind the LUN, as it was given to create_backstore; empty when the LUN is
  // gone. Compare it with the volume's own path before anything is done by LUN number: numbers are given out
  // again. From then on this object stands for that volume, and does nothing to another one.
  virtual bool backstore_path(std::string& path) = 0;
  // Maps this LUN, under its own number, for each initiator (names are checked and brought to lower case);
  // initiators that have it already are passed over. With `create` an initiator without an ACL gets one, else
  // that is a failure. What was added before a failure is taken away again.
  virtual bool add_acls(const LIO_ACLs& acls, bool create) = 0;
  // Takes this LUN away from each initiator, which works under a live session; initiators that have no
  // mapping are passed over. With `clean` an ACL without any mapping left is removed, which ends its
  // sessions.
  virtual bool del_acls(const LIO_ACLs& acls, bool clean) = 0;
};

using LIO_Lun_var = std::shared_ptr<LIO_Lun>;
using LIO_Luns = std::vector<LIO_Lun_var>;
