#pragma once
// Makes one sub volume visible to backup clients as a SCSI logical unit, over iSCSI or Fibre Channel, and
// takes it away again. Built for one request, used by one thread; changes to the kernel target are serialised
// by a process-wide lock.

#include <ace/Basic_Types.h>
#include <ace/RW_Thread_Mutex.h>

#include <memory>
#include <string>

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"
#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"
#include "backup/pools/scsipool/scsipool_export.h"
#include "platform/lio/lio.h"

namespace scsi_pool {

// Held for writing by every change to the kernel target.
extern SCSIPOOL_Export ACE_RW_Thread_Mutex LOCK;

class SCSIPOOL_Export Sub_Volume_Exporter {
 public:
  struct Export_Info {
    bool status = false;     // exported?
    ACE_UINT16 lun_num = 0;  // inside the target port group
    std::string type;        // "iSCSI" or "FC"
    LIO_ACLs acls;           // initiators that may see the LUN
    std::string target;      // target name
  };

  struct LIO_Lun_Detail {
    std::string vpd_serial_number;
  };

  Sub_Volume_Exporter(const std::string& pool_id, const std::string& vol_id);
  ~Sub_Volume_Exporter();
  Sub_Volume_Exporter(const Sub_Volume_Exporter&) = delete;
  Sub_Volume_Exporter& operator=(const Sub_Volume_Exporter&) = delete;

  // Must come before every other call.
  bool open();
  bool is_exported();
  // Reads the recorded export; status false when there is none.
  bool export_info(Export_Info& info);
  // Exports the volume of vol_size bytes: `info` carries type, target and ACLs in and the LUN number out.
  // Exported already: succeeds with the recorded export. A failure after the LUN was made removes LUN and
  // backstore; target and port group stay. A volume that keeps its data in an image file gets one, sparse, if
  // it has none yet.
  bool create_lun(const ACE_UINT64& vol_size, Export_Info& info);
  // Removes the export that `info` describes; without `force` a target in use is refused. LUN numbers are
  // given out again, so a LUN is removed only when it exports this volume's data: the number being another
  // volume's by now, only the record is dropped. With `force` that is also done when the kernel has no such
  // LUN at all.
  bool delete_lun(const Export_Info& info, bool force);
  // The unit serial number; unchanged when not exported. A null input_info reads the recorded export. False
  // when the LUN exports another volume.
  bool get_lun_detail(LIO_Lun_Detail& detail, const Export_Info* input_info);
  // Adds or removes initiators; nothing changes in demo mode.
  bool update_acl(const LIO_ACLs& acls, bool add);
  // The pool's default target type and name.
  bool get_pool_target(std::string& type, std::string& target);

 private:
  // A target with its port group, as found before an export.
  struct Port_Group {
    LIO_Target_var target;
    Target_Port_Group_var group;
    bool demo = false;
    LIO_Luns luns;
  };

  bool add_database_entry(const Export_Info& info);
  bool remove_database_entry();
  SCSI_Pool_Backstore_Manager* init_backstore_mgr();

  bool get_dataset(std::string& dataset);
  bool open_port_group(const Export_Info& info, LIO_Target_Type type, Port_Group& found);
  bool prepare_dataset(ACE_UINT64 vol_size, std::string& dataset);
  LIO_Backstore_var create_backstore(ACE_UINT64 vol_size);
  // Steps from the new LUN to the record; undoes LUN and backstore on failure.
  bool export_backstore(const LIO_Backstore_var& backstore, const Port_Group& before, Export_Info& info);
  bool set_access_mode(const Port_Group& before, LIO_Lun& lun, const Export_Info& info);
  bool remove_kernel_lun(LIO_Target& target, LIO_Target_Type type, const Export_Info& info, bool force);
  // Those of `acls` that adding or removing has to handle.
  static LIO_ACLs acls_to_handle(const LIO_ACLs& recorded, const LIO_ACLs& acls, bool add);
  bool change_kernel_acls(const Export_Info& info, const LIO_ACLs& handled, bool add, bool& demo);

  std::string pool_id_;
  std::string vol_id_;
  std::unique_ptr<SCSI_Pool_Sqlite_Manager> sqlite_impl_;
};

// True when some element of `acls` names the same initiator.
SCSIPOOL_Export bool match_initiator(const LIO_ACLs& acls, const LIO_ACL& acl);

}  // namespace scsi_pool
