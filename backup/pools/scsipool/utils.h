#pragma once
// Small things that drivers and managers share.

#include <ace/Basic_Types.h>

#include <string>

#include "backup/pools/scsipool/scsipool_export.h"

namespace scsi_pool {

// Makes a file of `size` bytes rounded up to the filesystem's and the machine's allocation unit, with its
// missing folders. All its blocks are reserved unless `thin_provisioning`. An existing file is reused, not
// truncated first. After a failed allocation the file stays.
bool create_and_pad_file(const char* fname, ACE_UINT64 size, bool thin_provisioning);

// A fresh UUID whose first two characters are letters.
bool generate_uuid(std::string& uuid);

// A name for a LUN or sub filesystem that no other one of any pool has.
SCSIPOOL_Export std::string dataset_key(const std::string& pool_id, bool is_lun, const std::string& dataset);

}  // namespace scsi_pool
