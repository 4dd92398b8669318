#pragma once
// The storage behind a logical unit: a block device or a file.

#include <memory>
#include <string>

class LIO_Backstore {
 public:
  enum Type { file = 1, block = 2 };

  virtual ~LIO_Backstore() = default;

  virtual std::string name() const = 0;
  virtual Type type() const = 0;
  // The device or file, as given to create_backstore.
  virtual bool path(std::string& path) = 0;
  // The SCSI unit serial number, without the kernel's "T10 VPD Unit Serial Number: " in front.
  virtual bool get_vpd_unit_serial(std::string& serial) = 0;
};

using LIO_Backstore_var = std::shared_ptr<LIO_Backstore>;

// Backstores by name. Stateless: works on the installed library (see lio_library.h).
class LIO_Backstore_Manager {
 public:
  // A backstore over a block device or an existing regular file. A file's size is rounded up to 512 bytes and
  // the file is grown to it; 0 is refused for a file and not looked at for a block device. The name and the
  // serial number come from the volume's UUID in the path, so that they are the same at every export. Null,
  // with nothing left behind, also when the path is exported already; an unused leftover of the same path is
  // replaced.
  static LIO_Backstore_var create_backstore(LIO_Backstore::Type type, const char* path, unsigned long size);
  // Null, without a message, when there is none.
  static LIO_Backstore_var find_backstore(const char* name);
  // True when it was gone already. A backstore that a LUN uses is refused, unless `force`, which removes its
  // LUNs first. Backstores that this system did not make are refused.
  static bool remove_backstore(const char* name, bool force);
};
