#pragma once
// The LIO target library over the kernel's configfs.

#include <memory>

#include "platform/lio/configfs_backstores.h"
#include "platform/lio/configfs_context.h"
#include "platform/lio/lio_library.h"

namespace lio {

class Configfs_Library : public LIO_Library {
 public:
  Configfs_Library(const LIO_Options& options, std::shared_ptr<Configfs> tree);

  LIO_Target_Manager_var manager(LIO_Target_Type type) override;
  LIO_Backstore_var create_backstore(LIO_Backstore::Type type, const std::string& path,
                                     unsigned long size) override;
  LIO_Backstore_var find_backstore(const std::string& name) override;
  bool remove_backstore(const std::string& name, bool force) override;
  std::unique_ptr<LIO_Change_Lock> lock_changes() override;
  bool list_saved(std::vector<LIO_Export>& exports) override;
  bool list_kernel(std::vector<LIO_Export>& exports) override;
  bool restore(LIO_Report& report) override;
  bool compare(LIO_Report& report) override;
  bool repair(LIO_Report& report) override;
  bool forget(const std::string& path) override;

 private:
  Context_ptr context_;
  Backstores backstores_;
};

}  // namespace lio
