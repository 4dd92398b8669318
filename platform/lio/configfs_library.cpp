#include "platform/lio/configfs_library.h"

#include <algorithm>

#include "platform/base/log.h"
#include "platform/lio/configfs_handles.h"
#include "platform/lio/configfs_reconcile.h"

namespace lio {

namespace {

// A host without the kernel's target has no exports: looking at it must not load modules.
constexpr bool LOOK_ONLY = false;

bool all_mended(const LIO_Report& report) {
  return std::all_of(report.begin(), report.end(), [](const LIO_Finding& finding) { return finding.mended; });
}

}  // namespace

Configfs_Library::Configfs_Library(const LIO_Options& options, std::shared_ptr<Configfs> tree)
    : context_(std::make_shared<Context>(options, std::move(tree))), backstores_(context_) {}

LIO_Target_Manager_var Configfs_Library::manager(LIO_Target_Type type) {
  return manager_handle(context_, type);
}

LIO_Backstore_var Configfs_Library::create_backstore(LIO_Backstore::Type type, const std::string& path,
                                                     unsigned long size) {
  std::string backstore;
  return backstores_.create(type, path, size, "", backstore) ? backstore_handle(context_, backstore)
                                                             : nullptr;
}

LIO_Backstore_var Configfs_Library::find_backstore(const std::string& name) {
  std::string backstore;
  return backstores_.find(name, backstore) ? backstore_handle(context_, backstore) : nullptr;
}

bool Configfs_Library::remove_backstore(const std::string& name, bool force) {
  const Change change(context_);
  std::string backstore;
  if (!change.held()) return false;
  if (!backstores_.find(name, backstore)) return true;
  if (!force) return backstores_.remove(backstore);
  for (const Target_Folder& target : target_folders(*context_))
    for (const auto& entry : target.groups)
      for (const auto& lun : linked_luns(context_->tree(), entry.second)) {
        Group group(context_, target.fabric, target.name, entry.first);
        if (lun.second == backstore && !group.destroy_lun(lun.first, backstore, true)) return false;
      }
  return backstores_.remove(backstore);
}

std::unique_ptr<LIO_Change_Lock> Configfs_Library::lock_changes() {
  auto change = std::make_unique<Change>(context_, LOOK_ONLY);
  if (!change->held()) return nullptr;
  return change;
}

bool Configfs_Library::list_saved(std::vector<LIO_Export>& exports) {
  const Change change(context_, LOOK_ONLY);
  if (!change.held()) return false;
  exports = saved_exports(context_->record());
  return true;
}

bool Configfs_Library::list_kernel(std::vector<LIO_Export>& exports) {
  const Change change(context_, LOOK_ONLY);
  if (!change.held()) return false;
  exports = kernel_exports(context_);
  return true;
}

bool Configfs_Library::restore(LIO_Report& report) {
  const Change change(context_);
  if (!change.held()) return false;
  LIO_Report findings;
  Reconciler(context_, findings, Reconciler::Task::restore).check_saved();
  report.insert(report.end(), findings.begin(), findings.end());
  return all_mended(findings);
}

bool Configfs_Library::compare(LIO_Report& report) {
  const Change change(context_, LOOK_ONLY);
  if (!change.held()) return false;
  Reconciler reconciler(context_, report, Reconciler::Task::look);
  reconciler.check_leftovers();
  reconciler.check_saved();
  return true;
}

bool Configfs_Library::repair(LIO_Report& report) {
  const Change change(context_);
  if (!change.held()) return false;
  LIO_Report findings;
  Reconciler reconciler(context_, findings, Reconciler::Task::repair);
  reconciler.check_leftovers();
  reconciler.check_saved();
  report.insert(report.end(), findings.begin(), findings.end());
  return all_mended(findings);
}

bool Configfs_Library::forget(const std::string& path) {
  const Change change(context_, LOOK_ONLY);
  if (!change.held()) return false;
  return context_->save([&](Record& record) {
    for (Saved_Target& target : record.targets)
      for (auto lun = target.luns.begin(); lun != target.luns.end();)
        lun = lun->second.path == path ? target.luns.erase(lun) : std::next(lun);
  });
}

}  // namespace lio
