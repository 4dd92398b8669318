#include "backup/pools/scsipool/dataset_manager.h"

#include "platform/base/log.h"

// Each forwarding operation begins with one of these, which return false from it.
#define REQUIRE_TYPE() \
  if (!inited(false)) return LOG_VIOLATION("inited() is false")
#define REQUIRE_DATASET() \
  if (!inited(true)) return LOG_VIOLATION("inited(true) is false")

namespace scsi_pool {

Dataset_Manager::Dataset_Manager() : mgr_(SCSI_Pool_Manager::instance()) {}

Dataset_Manager::Dataset_Manager(std::string pool_uuid)
    : mgr_(SCSI_Pool_Manager::instance()), pool_uuid_(std::move(pool_uuid)) {}

void Dataset_Manager::reset(const json_spirit::Object& obj) {
  reset(TYPE_UNKNOWN, "");
  std::string name;
  if (json_spirit::object_find(obj, "lun_uuid", name))
    reset(TYPE_VOLUME, std::move(name));
  else if (json_spirit::object_find(obj, "filesystem_name", name))
    reset(TYPE_FILESYSTEM, std::move(name));
}

void Dataset_Manager::reset(Dataset_Type type, std::string dataset) {
  type_ = type;
  dataset_ = std::move(dataset);
}

const char* Dataset_Manager::type_key() const {
  switch (type_) {
    case TYPE_VOLUME:
      return "lun_uuid";
    case TYPE_FILESYSTEM:
      return "filesystem_name";
    default:
      return nullptr;
  }
}

const char* Dataset_Manager::type_to_name(Dataset_Type type) {
  switch (type) {
    case TYPE_VOLUME:
      return "lun";
    case TYPE_FILESYSTEM:
      return "filesystem";
    default:
      return nullptr;
  }
}

bool Dataset_Manager::inited(bool with_dataset) const {
  if (type_ != TYPE_VOLUME && type_ != TYPE_FILESYSTEM) return LOG_FAILURE("Unknown dataset type.\n");
  if (with_dataset && dataset_.empty()) return LOG_FAILURE("Unknown dataset value.\n");
  return true;
}

bool Dataset_Manager::get_snapshots(json_spirit::Array& snapshots) const {
  REQUIRE_DATASET();
  return is_lun() ? mgr_->list_lun_snapshots(pool_uuid_, dataset_, snapshots)
                  : mgr_->list_filesystem_snapshots(pool_uuid_, dataset_, snapshots);
}

bool Dataset_Manager::get_snapshot(const char* snapshot_uuid, json_spirit::Array& snapshots) const {
  REQUIRE_TYPE();
  if (snapshot_uuid == nullptr || *snapshot_uuid == '\0')
    return LOG_VIOLATION("snapshot_uuid is NULL or \"\"");
  return is_lun() ? mgr_->list_snapshot(pool_uuid_, snapshots, snapshot_uuid)
                  : mgr_->list_filesystem_snapshot(pool_uuid_, snapshots, snapshot_uuid);
}

bool Dataset_Manager::add_snapshot_standby(const std::string& snapshot_id) const {
  REQUIRE_TYPE();
  return is_lun() ? mgr_->add_snapshot_standby(pool_uuid_, snapshot_id)
                  : mgr_->add_filesystem_snapshot_standby(pool_uuid_, snapshot_id);
}

bool Dataset_Manager::sub_snapshot_standby(const std::string& snapshot_id) const {
  REQUIRE_TYPE();
  return is_lun() ? mgr_->sub_snapshot_standby(pool_uuid_, snapshot_id)
                  : mgr_->sub_filesystem_snapshot_standby(pool_uuid_, snapshot_id);
}

bool Dataset_Manager::reset_snapshot_standby() const {
  REQUIRE_TYPE();
  return is_lun() ? mgr_->reset_snapshot_standby(pool_uuid_, dataset_)
                  : mgr_->reset_filesystem_snapshot_standby(pool_uuid_, dataset_);
}

bool Dataset_Manager::update_snapshot_state(const std::string& snapshot_id,
                                            SCSI_Pool_Manager::SNAPSHOT_STATE state) const {
  REQUIRE_TYPE();
  return is_lun() ? mgr_->update_snapshot_state(pool_uuid_, snapshot_id, state)
                  : mgr_->update_filesystem_snapshot_state(pool_uuid_, snapshot_id, state);
}

bool Dataset_Manager::reset_snapshot_state() const {
  REQUIRE_TYPE();
  return is_lun() ? mgr_->reset_snapshots_state(pool_uuid_)
                  : mgr_->reset_filesystem_snapshots_state(pool_uuid_);
}

bool Dataset_Manager::snapshot_exist(const std::string& snapshot_id) const {
  REQUIRE_TYPE();
  return is_lun() ? mgr_->snapshot_exist(pool_uuid_, snapshot_id)
                  : mgr_->filesystem_snapshot_exist(pool_uuid_, snapshot_id);
}

bool Dataset_Manager::snapshot_exist(const std::vector<std::string>& snapshot_ids) const {
  REQUIRE_TYPE();
  return is_lun() ? mgr_->snapshots_exist(pool_uuid_, snapshot_ids)
                  : mgr_->filesystem_snapshots_exist(pool_uuid_, snapshot_ids);
}

bool Dataset_Manager::snapshot_exist_with_seq(ACE_UINT64 seq) const {
  REQUIRE_DATASET();
  return is_lun() ? mgr_->snapshot_exist_with_seq(pool_uuid_, dataset_, seq)
                  : mgr_->filesystem_snapshot_exist_with_seq(pool_uuid_, dataset_, seq);
}

bool Dataset_Manager::delete_snapshot(ACE_UINT64 seq) const {
  REQUIRE_DATASET();
  return is_lun() ? mgr_->delete_snapshot(pool_uuid_, dataset_, seq, false)
                  : mgr_->delete_filesystem_snapshot(pool_uuid_, dataset_, seq, false);
}

bool Dataset_Manager::dataset_exist() const {
  REQUIRE_DATASET();
  return is_lun() ? mgr_->lun_exist(pool_uuid_, dataset_) : mgr_->filesystem_exist(pool_uuid_, dataset_);
}

bool Dataset_Manager::add_snapshot_to_db(const std::string& snapshot_id, ACE_UINT64 seq, bool recycle) const {
  REQUIRE_DATASET();
  return is_lun() ? mgr_->add_snapshot_to_db(pool_uuid_, dataset_, snapshot_id, seq, recycle)
                  : mgr_->add_filesystem_snapshot_to_db(pool_uuid_, dataset_, snapshot_id, seq, recycle);
}

bool Dataset_Manager::retention_type(SCSI_Pool_Manager::LUN_RETENTION_TYPE& type) const {
  REQUIRE_DATASET();
  return is_lun() ? mgr_->lun_retention_type(pool_uuid_, dataset_, type)
                  : mgr_->filesystem_retention_type(pool_uuid_, dataset_, type);
}

}  // namespace scsi_pool
