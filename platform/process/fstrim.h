#pragma once

#include <string>

namespace platform {

// Gives the unused blocks of filesystems back to the storage below them. A folder: the filesystem that holds
// it is trimmed. A block device or a regular file (a disk image): every filesystem on it, on the device
// itself or on its partitions, is mounted in turn on a private temporary folder, trimmed and unmounted; the
// device itself is never discarded. True when every filesystem found was trimmed and there was at least one.
// Logs the cause of a failure. Nothing stays mounted or attached. Needs root. Nobody else may have the device
// mounted.
bool fstrim_all(const std::string& path);

}  // namespace platform
