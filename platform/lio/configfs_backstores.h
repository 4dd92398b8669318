#pragma once
// Backstores in the kernel's tree. Changes are made under the change lock, which the operations take
// themselves.

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/lio/configfs_context.h"

namespace lio {

// A path checked for what it is to be exported as, with its size settled.
struct Volume {
  LIO_Backstore::Type type = LIO_Backstore::file;
  std::string path;
  unsigned long size = 0;  // bytes, a multiple of 512; 0 for a block device
};

class Backstores {
 public:
  explicit Backstores(Context_ptr context) : context_(std::move(context)) {}

  // Gives the backstore as "<adapter>/<name>". A serial that is not empty is taken as it is (restore).
  bool create(LIO_Backstore::Type type, const std::string& path, unsigned long size,
              const std::string& serial, std::string& backstore);
  // "<adapter>/<name>" of a name; false when there is none.
  bool find(const std::string& name, std::string& backstore) const;
  // Gone already is fine; in use, or not of this system, is a failure.
  bool remove(const std::string& backstore);
  // All that bear this system's mark.
  std::vector<std::string> own() const;

  std::string path(const std::string& backstore) const;
  // The file that the kernel has open, which is known too of backstores that others made.
  std::string file(const std::string& backstore) const;
  std::string serial(const std::string& backstore) const;
  unsigned long size(const std::string& backstore) const;
  static LIO_Backstore::Type type(const std::string& backstore);
  // A text that tells the filesystem of a path from others, also after a reboot; empty when it cannot be
  // read.
  static std::string filesystem(const std::string& path);

 private:
  using Identity = std::pair<unsigned long, unsigned long>;  // device and inode

  bool check(Volume& volume) const;
  void look();
  void remember(const Volume& volume, const std::string& backstore);
  bool choose_serial(const Volume& volume, std::string& serial) const;
  bool serial_free(const Volume& volume, const std::string& serial) const;
  bool clear_leftover(const Volume& volume, const std::string& backstore);
  bool used_elsewhere(const Volume& volume);
  bool build(const Volume& volume, const std::string& serial, const std::string& backstore);
  bool configure(const Volume& volume, const std::string& serial, const std::string& backstore);
  bool check_built(const Volume& volume, const std::string& backstore) const;
  std::vector<std::string> all() const;
  std::map<std::string, Folder_State> states() const;

  Context_ptr context_;
  // All backstores when last looked at, the state that the adapters' folders had then, and which file each
  // was over: reading them all for each new one would make every export dearer than the one before.
  std::map<std::string, Folder_State> seen_;
  std::set<std::string> known_;
  std::map<std::string, Identity> files_;
  std::multimap<Identity, std::string> by_file_;
};

}  // namespace lio
