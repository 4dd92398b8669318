#include "backup/pools/scsipool/sub_volume_exporter.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>

#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "backup/pools/scsipool/utils.h"
#include "platform/base/fault_point.h"
#include "platform/base/file.h"
#include "platform/base/log.h"

// A failure that begins with the volume and its pool.
#define VOLUME_FAILURE(TEXT, ...) LOG_FAILURE(TEXT, vol_id_.c_str(), pool_id_.c_str(), ##__VA_ARGS__)

namespace scsi_pool {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::object_get;

ACE_RW_Thread_Mutex LOCK;

namespace {

constexpr int GROUP_TAG = 1;
constexpr unsigned short ISCSI_PORT = 3260;
constexpr char IMAGE_FILE[] = "/lun_backstore";
constexpr char DEVICE_FOLDER[] = "/dev/";

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool exports(LIO_Lun& lun, const std::string& dataset, bool& result) {
  std::string path;
  if (!lun.backstore_path(path)) return false;
  result = path == dataset;
  return true;
}

// The LUN that exports `dataset`: that of the given number as a rule. Null when there is none; false when a
// LUN that might be it cannot be read.
bool find_own_lun(const LIO_Luns& luns, unsigned short number, const std::string& dataset, LIO_Lun_var& own) {
  LIO_Luns order = luns;
  std::stable_partition(order.begin(), order.end(),
                        [&](const LIO_Lun_var& lun) { return lun->seq() == number; });
  bool all_read = true;
  for (const LIO_Lun_var& lun : order) {
    bool mine = false;
    if (!exports(*lun, dataset, mine)) {
      all_read = false;
    } else if (mine) {
      own = lun;
      return true;
    }
  }
  return all_read;
}

// Held besides LOCK while the kernel's target is changed: other processes and repairs would take a half-made
// export for a leftover.
std::unique_ptr<LIO_Change_Lock> lock_kernel() {
  return LIO_Library::installed()->lock_changes();
}

// Takes back an export that was not finished.
class Unfinished_Export {
 public:
  explicit Unfinished_Export(std::string backstore) : backstore_(std::move(backstore)) {}
  ~Unfinished_Export() {
    if (done_) return;
    if (lun_) lun_->destroy(false);
    LIO_Backstore_Manager::remove_backstore(backstore_.c_str(), false);
  }
  Unfinished_Export(const Unfinished_Export&) = delete;
  Unfinished_Export& operator=(const Unfinished_Export&) = delete;

  void lun(const LIO_Lun_var& lun) { lun_ = lun; }
  void done() { done_ = true; }

 private:
  std::string backstore_;
  LIO_Lun_var lun_;
  bool done_ = false;
};

}  // namespace

bool match_initiator(const LIO_ACLs& acls, const LIO_ACL& acl) {
  return std::any_of(acls.begin(), acls.end(),
                     [&](const LIO_ACL& one) { return one.initiator == acl.initiator; });
}

Sub_Volume_Exporter::Sub_Volume_Exporter(const std::string& pool_id, const std::string& vol_id)
    : pool_id_(pool_id), vol_id_(vol_id) {}

Sub_Volume_Exporter::~Sub_Volume_Exporter() = default;

bool Sub_Volume_Exporter::open() {
  sqlite_impl_.reset(new (std::nothrow) SCSI_Pool_Sqlite_Manager_Impl);
  if (!sqlite_impl_) {
    errno = ENOMEM;
    return false;
  }
  return sqlite_impl_->open() || LOG_FAILURE("Failed to init sub volume manager: failed to open database\n");
}

bool Sub_Volume_Exporter::is_exported() {
  Array exports;
  return sqlite_impl_->list_export(pool_id_, exports, vol_id_.c_str()) && !exports.empty();
}

bool Sub_Volume_Exporter::export_info(Export_Info& info) {
  Array exports;
  if (!sqlite_impl_->list_export(pool_id_, exports, vol_id_.c_str())) return false;
  if (exports.empty()) {
    info.status = false;
    return true;
  }
  try {
    const Object& record = exports.back().get_ref<const Object&>();
    info.lun_num = object_get<ACE_UINT16>(record, "lun_num");
    info.type = object_get<std::string>(record, "ext_type");
    info.target = object_get<std::string>(record, "ext_target");
    LIO_ACLs acls;
    if (!(acls << object_get<std::string>(record, "acls"))) {
      return LOG_FAILURE("Failed to get export info: %s\n", "acls is not a list of ACLs");
    }
    info.acls = acls;
    info.status = true;
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to get export info: %s\n", error.what());
  }
  if (!info.type.empty() && !info.target.empty()) return true;
  return get_pool_target(info.type, info.target) ||
         LOG_FAILURE("Failed to get export info: failed to get pool target info\n");
}

bool Sub_Volume_Exporter::get_pool_target(std::string& type, std::string& target) {
  Object info;
  if (!sqlite_impl_->get_pool_info(pool_id_, info)) {
    return LOG_FAILURE("Failed to get pool '%s' default target info from database\n", pool_id_.c_str());
  }
  try {
    type = object_get<std::string>(info, "type");
    target = object_get<std::string>(info, "target");
    return true;
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to get pool '%s' default target: %s\n", pool_id_.c_str(), error.what());
  }
}

bool Sub_Volume_Exporter::create_lun(const ACE_UINT64& vol_size, Export_Info& info) {
  const ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(LOCK);
  if (!guard.locked()) return false;
  if (is_exported()) {
    return export_info(info) ||
           VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':failed to get export info\n");
  }
  LIO_Target_Type type = TYPE_UNKNOWN;
  if (!lio_target_string_to_type(info.type, type)) {
    return VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':%s type is not support\n",
                          info.type.c_str());
  }
  const auto changes = lock_kernel();
  Port_Group before;
  if (!changes || !open_port_group(info, type, before)) return false;
  const LIO_Backstore_var backstore = create_backstore(vol_size);
  return backstore && export_backstore(backstore, before, info);
}

bool Sub_Volume_Exporter::open_port_group(const Export_Info& info, LIO_Target_Type type, Port_Group& found) {
  const LIO_Target_Manager_var manager = LIO_Target_Manager_Factory::get_manager(info.type.c_str());
  if (!manager) {
    return VOLUME_FAILURE("Failed to export sub volume '%s' in pool :'%s':failed to create target manager\n");
  }
  found.target = manager->create_or_get_target(info.target.c_str());
  if (!found.target) {
    return VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':failed to create target %s\n",
                          info.target.c_str());
  }
  found.group = found.target->create_or_get_tpg(GROUP_TAG);
  if (!found.group) {
    return VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':failed to create target %s tpg\n",
                          info.target.c_str());
  }
  FAULT_POINT("export.group");
  found.demo = found.group->demo_mode();
  found.group->list_luns(found.luns);
  if (!found.demo && !found.luns.empty() && info.acls.empty()) {
    return VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':lack of ACLs\n");
  }
  if (type != TYPE_ISCSI) return true;
  const auto iscsi = std::dynamic_pointer_cast<ISCSI_Target_Port_Group>(found.group);
  if (!iscsi || !iscsi->add_net_portals(true, nullptr, ISCSI_PORT)) {
    return VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':failed to add net portal\n");
  }
  FAULT_POINT("export.portal");
  return true;
}

LIO_Backstore_var Sub_Volume_Exporter::create_backstore(ACE_UINT64 vol_size) {
  std::string dataset;
  if (!prepare_dataset(vol_size, dataset)) {
    VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':failed to get dataset\n");
    return nullptr;
  }
  FAULT_POINT("export.dataset");
  const auto type = platform::is_block_device(dataset) ? LIO_Backstore::block : LIO_Backstore::file;
  LIO_Backstore_var backstore = LIO_Backstore_Manager::create_backstore(type, dataset.c_str(), vol_size);
  if (!backstore) {
    VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':failed to create backstore\n");
    return nullptr;
  }
  FAULT_POINT("export.backstore");
  return backstore;
}

bool Sub_Volume_Exporter::prepare_dataset(ACE_UINT64 vol_size, std::string& dataset) {
  if (!get_dataset(dataset)) return false;
  // A device node that is missing must not be replaced by a file in its place.
  if (dataset.compare(0, sizeof(DEVICE_FOLDER) - 1, DEVICE_FOLDER) == 0) {
    return platform::is_block_device(dataset) || LOG_FAILURE("'%s' is not a block device\n", dataset.c_str());
  }
  if (!ends_with(dataset, IMAGE_FILE) || platform::path_exists(dataset)) return true;
  // Without its folder the volume is not mounted, and the image would land on another filesystem.
  if (!platform::is_directory(platform::dirname_string(dataset))) {
    return LOG_FAILURE("The folder of '%s' does not exist\n", dataset.c_str());
  }
  return create_and_pad_file(dataset.c_str(), vol_size, true);
}

bool Sub_Volume_Exporter::export_backstore(const LIO_Backstore_var& backstore, const Port_Group& before,
                                           Export_Info& info) {
  Unfinished_Export unfinished(backstore->name());
  const LIO_Lun_var lun = before.group->create_lun(backstore->name().c_str(), false);
  if (!lun) return VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':failed to create LUN\n");
  unfinished.lun(lun);
  FAULT_POINT("export.lun");
  if (!set_access_mode(before, *lun, info)) return false;
  FAULT_POINT("export.mode");
  if (!before.group->enable(true)) {
    return VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':failed to enable target %s\n",
                          info.target.c_str());
  }
  FAULT_POINT("export.enable");
  info.lun_num = lun->seq();
  if (!add_database_entry(info)) {
    return VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':failed to add database entry\n");
  }
  unfinished.done();
  return true;
}

bool Sub_Volume_Exporter::set_access_mode(const Port_Group& before, LIO_Lun& lun, const Export_Info& info) {
  const char* const target = info.target.c_str();
  Target_Port_Group& group = *before.group;
  if (before.demo && (!before.luns.empty() || info.acls.empty())) {
    LOG_DEBUG("target '%s' is demo mode, ignore acls\n", target);
    return true;
  }
  if (!before.demo && info.acls.empty()) {
    return group.set_demo_mode() ||
           VOLUME_FAILURE(
               "Failed to export sub volume '%s' in pool '%s':failed to set demo mode in target %s\n",
               target);
  }
  if (group.set_acl_mode() && lun.add_acls(info.acls, true)) return true;
  if (before.demo) {
    return VOLUME_FAILURE(
        "Failed to export sub volume '%s' in pool '%s':failed to change mode from demo to ACL in target %s\n",
        target);
  }
  return VOLUME_FAILURE("Failed to export sub volume '%s' in pool '%s':failed to set ACL mode in target %s\n",
                        target);
}

bool Sub_Volume_Exporter::add_database_entry(const Export_Info& info) {
  Object record;
  if (!sqlite_impl_->get_volume_info(pool_id_, vol_id_, record)) {
    return LOG_FAILURE("Failed to add export info to database: failed to get sub volume %s info\n",
                       vol_id_.c_str());
  }
  std::string acls;
  info.acls >> acls;
  return sqlite_impl_->add_export(vol_id_, pool_id_, info.lun_num, acls, info.type.c_str(),
                                  info.target.c_str()) ||
         LOG_FAILURE("Failed to add export info to database: %s\n", vol_id_.c_str());
}

bool Sub_Volume_Exporter::remove_database_entry() {
  return sqlite_impl_->del_export(pool_id_, vol_id_) ||
         LOG_FAILURE("Failed to remove export info from database\n");
}

SCSI_Pool_Backstore_Manager* Sub_Volume_Exporter::init_backstore_mgr() {
  std::string fs_type, global_dev;
  if (!SCSI_Pool_Manager::instance()->get_pool_backstore_info(pool_id_, fs_type, global_dev)) {
    LOG_FAILURE("Failed to init backstore manager: get backstore info error\n");
    return nullptr;
  }
  SCSI_Pool_Backstore_Manager_var backstore(SCSI_Pool_Backstore_Factory::create(pool_id_, global_dev));
  if (!backstore || !backstore->open(fs_type)) {
    LOG_FAILURE("Failed to init backstore manager\n");
    return nullptr;
  }
  return backstore.release();
}

bool Sub_Volume_Exporter::get_dataset(std::string& dataset) {
  const SCSI_Pool_Backstore_Manager_var backstore(init_backstore_mgr());
  return backstore && backstore->get_volume_dataset(vol_id_, dataset);
}

bool Sub_Volume_Exporter::delete_lun(const Export_Info& info, bool force) {
  LIO_Target_Type type = TYPE_UNKNOWN;
  const bool known_type = lio_target_string_to_type(info.type, type);
  const ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(LOCK);
  if (!guard.locked()) return false;
  if (!known_type) {
    return VOLUME_FAILURE("Failed to unexport sub volume '%s' in pool '%s':%s type is not support\n",
                          info.type.c_str());
  }
  const auto changes = lock_kernel();
  if (!changes) return false;
  const LIO_Target_Manager_var manager = LIO_Target_Manager_Factory::get_manager(info.type.c_str());
  if (!manager) {
    return VOLUME_FAILURE(
        "Failed to unexport sub volume '%s' in pool :'%s':failed to create target manager\n");
  }
  const LIO_Target_var target = manager->create_or_get_target(info.target.c_str());
  if (!target) {
    return VOLUME_FAILURE("Failed to unexport sub volume '%s' in pool '%s':target %s does not exist\n",
                          info.target.c_str());
  }
  if (!force && target->busy() != 0) {
    return VOLUME_FAILURE("Failed to unexport sub volume '%s' in pool '%s':target %s is busy\n",
                          info.target.c_str());
  }
  if (!remove_kernel_lun(*target, type, info, force)) return false;
  FAULT_POINT("unexport.lun");
  return remove_database_entry() ||
         VOLUME_FAILURE("Failed to unexport sub volume '%s' in pool '%s':failed to remove database entry\n");
}

bool Sub_Volume_Exporter::remove_kernel_lun(LIO_Target& target, LIO_Target_Type type, const Export_Info& info,
                                            bool force) {
  const char* const name = info.target.c_str();
  std::string dataset;
  if (!get_dataset(dataset)) {
    return VOLUME_FAILURE("Failed to unexport sub volume '%s' in pool '%s':failed to get dataset\n");
  }
  const Target_Port_Group_var group = target.get_tpg(GROUP_TAG);
  if (!group) {
    return (force && LIO_Saved_Config::forget(dataset)) ||
           VOLUME_FAILURE("Failed to unexport sub volume '%s' in pool '%s':target %s tpg does not exist\n",
                          name);
  }
  LIO_Luns luns;
  const bool listed = group->list_luns(luns);
  if (!listed || luns.empty()) {
    return (listed && force && LIO_Saved_Config::forget(dataset)) ||
           VOLUME_FAILURE("Failed to unexport sub volume '%s' in pool '%s':failed to list target %s LUNs\n",
                          name);
  }
  LIO_Lun_var own;
  const bool settled = find_own_lun(luns, info.lun_num, dataset, own);
  if (own && type == TYPE_ISCSI && luns.size() == 1) {
    return target.destroy(false) ||
           VOLUME_FAILURE("Failed to unexport sub volume '%s' in pool '%s':failed to delete target %s\n",
                          name);
  }
  // A LUN of this number that exports other data is another volume's, and this one's is gone already.
  const bool lost = settled && !own && (force || group->get_lun(info.lun_num));
  const bool removed = own ? own->destroy(false) : lost && LIO_Saved_Config::forget(dataset);
  return removed ||
         VOLUME_FAILURE("Failed to unexport sub volume '%s' in pool '%s':failed to delete target %s LUN\n",
                        name);
}

bool Sub_Volume_Exporter::get_lun_detail(LIO_Lun_Detail& detail, const Export_Info* input_info) {
  Export_Info recorded;
  if (input_info == nullptr) {
    if (!export_info(recorded)) return LOG_FAILURE("Failed to get LUN detail: failed to get export info\n");
    input_info = &recorded;
  }
  if (!input_info->status) return true;
  const LIO_Lun_var lun = LIO_Target_Manager_Factory::get_lun(
      input_info->type.c_str(), input_info->target.c_str(), GROUP_TAG, input_info->lun_num);
  std::string dataset;
  bool mine = false;
  if (!lun || !get_dataset(dataset) || !exports(*lun, dataset, mine) || !mine) {
    return LOG_FAILURE("Failed to get LUN detail: failed to get LUN\n");
  }
  std::string name;
  const bool named = lun->get_backstore(name);
  const LIO_Backstore_var backstore = named ? LIO_Backstore_Manager::find_backstore(name.c_str()) : nullptr;
  if (!backstore) return LOG_FAILURE("Failed to get LUN detail: failed to get backstore\n");
  return backstore->get_vpd_unit_serial(detail.vpd_serial_number);
}

LIO_ACLs Sub_Volume_Exporter::acls_to_handle(const LIO_ACLs& recorded, const LIO_ACLs& acls, bool add) {
  LIO_ACLs handled;
  for (const LIO_ACL& acl : acls) {
    const auto matches = std::count_if(recorded.begin(), recorded.end(),
                                       [&](const LIO_ACL& one) { return one.initiator == acl.initiator; });
    const auto times = add ? (matches == 0 ? 1 : 0) : matches;
    handled.insert(handled.end(), static_cast<std::size_t>(times), acl);
  }
  return handled;
}

bool Sub_Volume_Exporter::update_acl(const LIO_ACLs& acls, bool add) {
  Export_Info info;
  if (!export_info(info)) return LOG_FAILURE("Failed to update ACL: failed to get export info\n");
  if (!info.status) return true;
  const LIO_ACLs handled = acls_to_handle(info.acls, acls, add);
  if (handled.empty()) return true;
  const ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(LOCK);
  if (!guard.locked()) return false;
  const auto changes = lock_kernel();
  bool demo = false;
  if (!changes || !change_kernel_acls(info, handled, add, demo)) return false;
  if (demo) return true;
  FAULT_POINT("update_acl.kernel");
  if (add) {
    info.acls.insert(info.acls.end(), handled.begin(), handled.end());
  } else {
    const auto matched = [&](const LIO_ACL& acl) { return match_initiator(handled, acl); };
    info.acls.erase(std::remove_if(info.acls.begin(), info.acls.end(), matched), info.acls.end());
  }
  std::string text;
  info.acls >> text;
  return sqlite_impl_->update_export_acls(pool_id_, vol_id_, text) ||
         LOG_FAILURE("Failed to update '%s' ACL: failed to update database entry\n", info.target.c_str());
}

bool Sub_Volume_Exporter::change_kernel_acls(const Export_Info& info, const LIO_ACLs& handled, bool add,
                                             bool& demo) {
  const char* const name = info.target.c_str();
  LIO_Target_Type type = TYPE_UNKNOWN;
  if (!lio_target_string_to_type(info.type, type)) {
    return LOG_FAILURE("Failed to update ACL: %s type is not support\n", info.type.c_str());
  }
  const LIO_Target_Manager_var manager = LIO_Target_Manager_Factory::get_manager(info.type.c_str());
  if (!manager) return LOG_FAILURE("Failed to update '%s' ACL: failed to create target manager\n", name);
  const LIO_Target_var target = manager->create_or_get_target(name);
  if (!target) return LOG_FAILURE("Failed to update '%s' ACL: target does not exist\n", name);
  const Target_Port_Group_var group = target->get_tpg(GROUP_TAG);
  if (!group) return LOG_FAILURE("Failed to update '%s' ACL: tpg does not exist\n", name);
  demo = group->demo_mode();
  if (demo) return true;
  const LIO_Lun_var lun = group->get_lun(info.lun_num);
  std::string dataset;
  bool mine = false;
  if (!lun || !get_dataset(dataset) || !exports(*lun, dataset, mine) || !mine) {
    return LOG_FAILURE("Failed to update '%s' ACL: lun does not exist\n", name);
  }
  return (add ? lun->add_acls(handled, true) : lun->del_acls(handled, true)) ||
         LOG_FAILURE("Failed to update '%s' ACL\n", name);
}

}  // namespace scsi_pool
