// Volumes and their snapshots. Each operation opens the driver's object, makes one driver call and drops the
// object.

#include "backup/pools/scsipool/scsi_pool_backstore_manager.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "platform/base/log.h"

namespace scsi_pool {
namespace {

FS_Info_Item attrs_to_info(const SCSI_Pool_Backstore_Manager::volume_ext_attrs& attrs) {
  return {{"dedup", attrs.dedup},
          {"compression", attrs.compression},
          {"async", attrs.async},
          {"checksum", attrs.checksum}};
}

}  // namespace

bool SCSI_Pool_Backstore_Manager::create_volume(const std::string& name, ACE_UINT64 size,
                                                const volume_ext_attrs& ext_attrs) {
  if (!ready({&name})) return false;
  if (volume_exist(name)) {
    return LOG_FAILURE("Failed to create volume '%s' in '%s': volume is exist\n", name.c_str(),
                       pool_id_.c_str());
  }
  FS_Info_Item info = attrs_to_info(ext_attrs);
  info["size"] = size;
  info["block_size"] =
      ext_attrs.block_size != 0 ? ext_attrs.block_size : SCSI_Pool_Manager::instance()->get_block_size();
  const Sub_Volume_var made(fs_mgr_->create_sub_volume(name.c_str(), info));
  return made || LOG_FAILURE("Failed to create volume %s in %s\n", name.c_str(), pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::clone_volume(const std::string& name, const std::string& snapshot_parent,
                                               const std::string& snapshot, const volume_ext_attrs& ext_attrs,
                                               bool link_clone) {
  if (!ready({&name})) return false;
  if (volume_exist(name)) {
    return LOG_FAILURE("Failed to clone volume '%s' in '%s': volume is exist\n", name.c_str(),
                       pool_id_.c_str());
  }
  if (snapshot.empty() || snapshot_parent.empty()) {
    return LOG_FAILURE("Failed to clone volume: snapshot or snapshot_parent is empty\n");
  }
  if (!usable({&snapshot_parent, &snapshot})) return false;
  FS_Info_Item info = attrs_to_info(ext_attrs);
  info["clone_type"] = link_clone ? "link" : "full";
  const Sub_Volume_var made(
      fs_mgr_->clone_sub_volume(name.c_str(), snapshot_parent.c_str(), snapshot.c_str(), info));
  return made || LOG_FAILURE("Failed to clone volume %s in %s\n", name.c_str(), pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::destroy_volume(const std::string& name) {
  if (!ready({&name})) return false;
  const Sub_Volume_var found = volume(name);
  return (found && found->destroy()) ||
         LOG_FAILURE("Failed to remove volume %s in %s\n", name.c_str(), pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::volume_rollback(const std::string& volume_name,
                                                  const std::string& snapshot) {
  if (!ready({&volume_name, &snapshot})) return false;
  const Sub_Volume_var found = volume(volume_name);
  return (found && found->rollback(snapshot.c_str())) ||
         LOG_FAILURE("Failed to rollback volueme '%s' to '%s'\n", volume_name.c_str(), snapshot.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_volume_info(const std::string& volume_name, FS_Info_Item& info) {
  if (!ready({&volume_name})) return false;
  const Sub_Volume_var found = volume(volume_name);
  return (found && found->get_info(info)) ||
         LOG_FAILURE("Failed to get volume '%s' info\n", volume_name.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_volume_size(const std::string& name, ACE_UINT64& size) {
  if (!ready({&name})) return false;
  const Sub_Volume_var found = volume(name);
  return (found && found->get_used_size(size)) ||
         LOG_FAILURE("Failed to get volume '%s' size\n", name.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_volume_info(const std::string& volume_name, FS_Info_Item& info,
                                                  ACE_UINT64& used) {
  if (!ready({&volume_name})) return false;
  const Sub_Volume_var found = volume(volume_name);
  if (!found || !found->get_used_size(used))
    return LOG_FAILURE("Failed to get volume '%s' size\n", volume_name.c_str());
  return found->get_info(info) || LOG_FAILURE("Failed to get volume '%s' info\n", volume_name.c_str());
}

bool SCSI_Pool_Backstore_Manager::set_volume_attr(const std::string& name, const std::string& attr,
                                                  const std::string& val) {
  if (!ready({&name})) return false;
  const Sub_Volume_var found = volume(name);
  return (found && found->set_info(attr.c_str(), val.c_str())) ||
         LOG_FAILURE("Failed to set %s attr '%s' to '%s'\n", name.c_str(), attr.c_str(), val.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_volume_attr(const std::string& name, const std::string& attr,
                                                  std::string& val) {
  if (!ready({&name})) return false;
  const Sub_Volume_var found = volume(name);
  return (found && found->get_info(attr.c_str(), val)) ||
         LOG_FAILURE("Failed to get %s attr '%s'\n", name.c_str(), attr.c_str());
}

bool SCSI_Pool_Backstore_Manager::volume_exist(const std::string& name) {
  return ready({&name}) && fs_mgr_->sub_volume_exist(name.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_volume_dataset(const std::string& name, std::string& path) {
  if (!ready({&name})) return false;
  const Sub_Volume_var found = volume(name);
  return (found && found->get_dataset(path)) ||
         LOG_FAILURE("Failed to get volume dataset '%s' path\n", name.c_str());
}

bool SCSI_Pool_Backstore_Manager::create_snapshot(const std::string& volume_name, const std::string& name) {
  if (!ready({&volume_name, &name})) return false;
  const Sub_Volume_var found = volume(volume_name);
  if (!found) {
    return LOG_FAILURE("Failed to create '%s' snapshot to '%s': get sub volume obj error\n",
                       volume_name.c_str(), name.c_str());
  }
  const Snapshot_var made(found->create_snapshot(name.c_str(), {}));
  return made || LOG_FAILURE("Failed to create '%s' snapshot to '%s'\n", volume_name.c_str(), name.c_str());
}

bool SCSI_Pool_Backstore_Manager::destroy_snapshot(const std::string& volume_name, const std::string& name) {
  if (!ready({&volume_name, &name})) return false;
  const Snapshot_var found = volume_snapshot(volume_name, name);
  if (!found) return LOG_FAILURE("Failed to delete snasphot: get snapshot manager object error\n");
  return found->destroy() ||
         LOG_FAILURE("Failed to delete snapshot '%s/%s'\n", volume_name.c_str(), name.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_snapshot_info(const std::string& volume_name, const std::string& name,
                                                    FS_Info_Item& info) {
  if (!ready({&volume_name, &name})) return false;
  const Snapshot_var found = volume_snapshot(volume_name, name);
  if (!found) return LOG_FAILURE("Failed to get snasphot info: get snapshot manager object error\n");
  return found->get_info(info) || LOG_FAILURE("Failed to get '%s/%s' snapshot info:get info error\n",
                                              volume_name.c_str(), name.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_received_uuid(const std::string& volume_name, const std::string& name,
                                                    std::string& uuid) {
  if (!ready({&volume_name, &name})) return false;
  const Snapshot_var found = volume_snapshot(volume_name, name);
  return found && found->received_uuid(uuid);
}

bool SCSI_Pool_Backstore_Manager::get_snapshot_size(const std::string& volume_name, const std::string& name,
                                                    ACE_UINT64& size) {
  if (!ready({&volume_name, &name})) return false;
  const Snapshot_var found = volume_snapshot(volume_name, name);
  if (!found) return LOG_FAILURE("Failed to get snasphot size: get snapshot manager object error\n");
  return found->size(size) ||
         LOG_FAILURE("Failed to get snapshot size: get '%s/%s' size error in pool '%s'\n",
                     volume_name.c_str(), name.c_str(), pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_snapshot_size(const std::string& volume_name, const std::string& name,
                                                    ACE_UINT64& excl, ACE_UINT64& rfer) {
  if (!ready({&volume_name, &name})) return false;
  const Snapshot_var found = volume_snapshot(volume_name, name);
  if (!found) return LOG_FAILURE("Failed to get snasphot size: get snapshot manager object error\n");
  return found->size(excl, rfer) ||
         LOG_FAILURE("Failed to get snapshot size: get '%s/%s' size error in pool '%s'\n",
                     volume_name.c_str(), name.c_str(), pool_id_.c_str());
}

bool SCSI_Pool_Backstore_Manager::get_snapshot_sizes(const std::string& volume_name,
                                                     const std::set<std::string>& names,
                                                     Snapshot_Sizes& sizes) {
  const char* const what = "Failed to get snasphot size: get snapshot manager object error\n";
  Snapshot_Sizes all;
  if (!ready({&volume_name})) return false;
  const Sizes_Read read = fs_mgr_->get_snapshot_sizes(volume_name, all);
  if (read == Sizes_Read::TOLD) pick(all, names, what, sizes);
  if (read == Sizes_Read::NO_TOOL) measure(volume(volume_name).get(), volume_name, names, what, sizes);
  return read != Sizes_Read::NO_ANSWER;
}

bool SCSI_Pool_Backstore_Manager::snapshot_exist(const std::string& volume_name, const std::string& name) {
  if (!ready({&volume_name, &name})) return false;
  const Sub_Volume_var found = volume(volume_name);
  return found && found->snapshot_exist(name.c_str());
}

bool SCSI_Pool_Backstore_Manager::send_snapshot(const std::string& volume_name, const std::string& name,
                                                const std::vector<std::string>& increments,
                                                ACE_Process_Ex* proc) {
  if (!ready({&volume_name, &name}) || !usable(increments)) return false;
  const Snapshot_var found = volume_snapshot(volume_name, name);
  if (!found) return LOG_FAILURE("Failed to get send info: get snapshot manager object error\n");
  return found->send(increments, proc) || LOG_FAILURE("Failed to send snapshot\n");
}

bool SCSI_Pool_Backstore_Manager::receive_snapshot(const std::string& volume_name, const std::string& name,
                                                   bool force, ACE_Process_Ex* proc) {
  if (!ready({&volume_name, &name})) return false;
  if (!volume_exist(volume_name) || snapshot_exist(volume_name, name)) {
    return LOG_FAILURE("Failed to receive snapshot: volume not exist or snapshot exist\n");
  }
  const Sub_Volume_var found = volume(volume_name);
  return (found && found->receive_snapshot(name.c_str(), force, proc)) ||
         LOG_FAILURE("Failed to receive snapshot\n");
}

}  // namespace scsi_pool
