#pragma once
// The beginning of a stream of `btrfs send`: which subvolume it makes.

#include <string>

#include "backup/pools/scsipool/scsipool_export.h"

namespace scsi_pool {

// OTHER: not such a stream, or a damaged one. SHORT: more of it is needed. KNOWN: `name` and `uuid` are set.
enum class Btrfs_Stream_Head { OTHER, SHORT, KNOWN };

// `uuid` is what the received subvolume says it was received from, as lower-case text.
SCSIPOOL_Export Btrfs_Stream_Head read_btrfs_stream_head(const std::string& bytes, std::string& name,
                                                         std::string& uuid);

}  // namespace scsi_pool
