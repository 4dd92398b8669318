#pragma once
// Reading and replacing a table of filesystems (fstab). The file is never written in place.

#include <string>

namespace scsi_pool {

struct Fstab_Files {
  std::string path;
  std::string new_path;  // in the same folder; holds the new table until it takes the old one's place
};

struct Fstab_Entry {
  std::string device;
  std::string folder;
  std::string type;
  std::string options;
};

// Has the table an entry whose file system is `device`? False, too, when it cannot be read.
bool fstab_has(const Fstab_Files& files, const std::string& device);

// Replaces the table by one without the entries of `device`. Other entries keep their order and fields; one
// without options gets "defaults"; comment and blank lines are lost. Mode and owner stay. The new table is
// written to `new_path` and is on disk before it takes the old one's place. On failure, which is logged,
// the table is as it was.
bool fstab_remove(const Fstab_Files& files, const std::string& device);

// The same, with an entry added at the end (texts are cut at 4096 bytes) and none removed.
bool fstab_add(const Fstab_Files& files, const Fstab_Entry& entry);

}  // namespace scsi_pool
