#pragma once
// What stands behind the classes of the LIO target library. The program uses the kernel's configfs; tests
// install one that works in memory.

#include <memory>
#include <string>
#include <vector>

#include "platform/lio/lio_backstore.h"
#include "platform/lio/lio_report.h"
#include "platform/lio/lio_target.h"

// Where things are. All paths are absolute.
struct LIO_Options {
  std::string configfs_root = "/sys/kernel/config";
  std::string lock_file = "/run/scsipool/lio.lock";
  std::string saved_file = "/var/lib/scsipool/lio.json";
  // The kernel fabric behind "FC". Only tests use another than qla2xxx.
  std::string fc_fabric = "qla2xxx";
  // Where the kernel lists the machine's Fibre Channel ports.
  std::string fc_ports = "/sys/class/fc_host";
  // Load kernel modules and mount configfs when they are missing.
  bool prepare_kernel = true;
};

// Held while a change of several steps is made; the single operations may be called meanwhile by the same
// thread.
class LIO_Change_Lock {
 public:
  virtual ~LIO_Change_Lock() = default;
};

class LIO_Library {
 public:
  virtual ~LIO_Library() = default;

  virtual LIO_Target_Manager_var manager(LIO_Target_Type type) = 0;
  virtual LIO_Backstore_var create_backstore(LIO_Backstore::Type type, const std::string& path,
                                             unsigned long size) = 0;
  virtual LIO_Backstore_var find_backstore(const std::string& name) = 0;
  virtual bool remove_backstore(const std::string& name, bool force) = 0;
  // Keeps every other thread and process from changing anything until the result is dropped; null on failure.
  // An export inside is saved once, when its group is enabled: a crash before leaves what compare() names.
  virtual std::unique_ptr<LIO_Change_Lock> lock_changes() = 0;

  // Behind LIO_Saved_Config, which tells the contracts.
  virtual bool list_saved(std::vector<LIO_Export>& exports) = 0;
  virtual bool list_kernel(std::vector<LIO_Export>& exports) = 0;
  virtual bool restore(LIO_Report& report) = 0;
  virtual bool compare(LIO_Report& report) = 0;
  virtual bool repair(LIO_Report& report) = 0;
  virtual bool forget(const std::string& path) = 0;

  // Puts the library in place for the whole process (null: back to the default, which is configfs with the
  // default options). Objects handed out earlier go on working with the library that they came from.
  static void install(std::shared_ptr<LIO_Library> library);
  static std::shared_ptr<LIO_Library> installed();
  // The library over the kernel's configfs. Nothing is touched before the first operation.
  static std::shared_ptr<LIO_Library> over_configfs(const LIO_Options& options);
};
