#pragma once
// Compares the saved configuration with the kernel and brings the kernel to it. Used for one pass, under the
// change lock, which the caller holds.

#include <string>

#include "platform/lio/configfs_backstores.h"
#include "platform/lio/configfs_group.h"
#include "platform/lio/lio_report.h"

namespace lio {

class Reconciler {
 public:
  enum class Task {
    look,     // changes nothing
    restore,  // mends what is found on the way, but leaves LUNs that are there alone
    repair    // mends all that can be mended
  };
  Reconciler(Context_ptr context, LIO_Report& report, Task task);

  // What is saved and missing or different in the kernel; unfinished LUNs are not looked at.
  void check_saved();
  // What a crash left behind: unfinished LUNs, empty folders, dead mappings, unused targets and backstores.
  void check_leftovers();

 private:
  using Mender = std::function<bool()>;

  LIO_Finding& found(LIO_Finding::Kind kind, const std::string& text);
  // Mends when asked to, and says in the finding whether it worked.
  bool mended(LIO_Finding& finding, const Mender& mender);
  LIO_Finding& found_in(const Group& group, LIO_Finding::Kind kind, const std::string& text);

  void check_target(const Saved_Target& saved);
  bool check_group(Group& group, const Saved_Target& saved);
  static bool build_target(Group& group, const Saved_Target& saved);
  void check_mode(Group& group, const Saved_Target& saved);
  void check_portals(Group& group, const Saved_Target& saved);
  void check_lun(Group& group, unsigned number, const Saved_Lun& lun);
  // What is wrong with the LUN that has the number; false when it is as saved.
  bool differs(const std::string& backstore, unsigned number, const Saved_Lun& lun, LIO_Finding& finding);
  bool renew_lun(Group& group, unsigned number, const std::string& backstore, const Saved_Lun& lun);
  static bool on_its_filesystem(const Saved_Lun& lun);
  bool build_lun(Group& group, unsigned number, const Saved_Lun& lun);
  void check_acls(Group& group, unsigned number, const Saved_Lun& lun);
  void check_enabled(Group& group, const Saved_Target& saved, bool fresh);

  void drop_unfinished();
  bool ours(const Target_Folder& target) const;
  void leftover_luns(const Target_Folder& target, int tag, const std::string& group);
  void leftover_acls(const Target_Folder& target, int tag, const std::string& group);
  void leftover_target(const Target_Folder& target);
  void leftover_backstores();
  const Saved_Lun* saved_lun(const Target_Folder& target, int tag, unsigned number,
                             const std::string& backstore) const;
  bool may_see(const Target_Folder& target, int tag, const Mapping& mapping) const;

  Context_ptr context_;
  Backstores backstores_;
  LIO_Report& report_;
  Task task_;
};

// The exports as the record has them, and as the kernel has those on this system's backstores.
std::vector<LIO_Export> saved_exports(const Record& record);
std::vector<LIO_Export> kernel_exports(const Context_ptr& context);

}  // namespace lio
