#pragma once
// The service object by which the storage daemon loads the module, through the ACE Service Configurator.

#include <ace/Global_Macros.h>
#include <ace/Service_Object.h>

#include "backup/pools/scsipool/scsipool_export.h"

// Service options:
//   -f NAME   filesystem type of pools, "zfs" or "btrfs" (default "zfs")
//   -b BYTES  block size of new volumes that name none (default 0: the driver's)
//   -g NAME   global storage device (default: the dataset "orbistor", if there is one)
//   -d PATH   folder for pool mount points; required
// An option given twice counts as given last.
class SCSIPOOL_Export SCSI_Pool_Manager_Service : public ACE_Service_Object {
 public:
  ~SCSI_Pool_Manager_Service() override = default;

  // Opens the pool manager and then the replication job manager. Always 0, so that the service counts as
  // loaded: what failed is in the log.
  int init(int argc, ACE_TCHAR** argv) override;
  // Destroys the pool manager; always 0.
  int fini() override;
};

// _make_SCSI_Pool_Manager_Service(), which the configurator looks up in the library.
ACE_FACTORY_DECLARE(SCSIPOOL, SCSI_Pool_Manager_Service)
