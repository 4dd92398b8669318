// SCSI_Pool_Replicate_Executor: the peer's pool, over its REST interface.

#include "backup/pools/scsipool/scsi_pool_replicate_executor.h"
#include "platform/base/log.h"

namespace scsi_pool {

namespace {

bool empty(const char* text) {
  return text == nullptr || *text == '\0';
}

}  // namespace

bool SCSI_Pool_Replicate_Executor::get_target_pool_host(const std::string& pool_uuid) {
  return get_pool_host(pool_uuid, target_pool_host_, target_pool_port_, target_pool_ssl_);
}

bool SCSI_Pool_Replicate_Executor::init_json_session() {
  json_session_.address(target_pool_host_, target_pool_port_, target_pool_ssl_);
  return json_session_.connect() || LOG_FAILURE("Failed to init json session to %s:%d\n",
                                                target_pool_host_.c_str(), int{target_pool_port_});
}

bool SCSI_Pool_Replicate_Executor::send_request(const char* uri, json_spirit::Value& reply) {
  if (!json_session_.usable()) return LOG_VIOLATION("json_session_ is NULL");
  if (empty(uri)) return LOG_VIOLATION("uri is NULL or \"\"");
  return json_session_.get(uri, {{"pool_id", target_pool_uuid_}}, reply) ||
         LOG_FAILURE("Failed to send request to %s\n", uri);
}

bool SCSI_Pool_Replicate_Executor::compare_fs_type() {
  json_spirit::Array pools;
  if (!mgr_->list_pools(pools, source_pool_uuid_.c_str()) || pools.empty())
    return LOG_FAILURE("Failed to compare filesystem type: get source pool info error\n");
  if (!json_session_.usable())
    return LOG_FAILURE("Failed to compare filesystem type: init json session first.\n");
  json_spirit::Value reply;
  if (!json_session_.get("/svc/r/pool", {{"type", "scsi"}, {"pool_id", target_pool_uuid_}}, reply) ||
      !reply.is_array() || reply.empty())
    return LOG_FAILURE("Failed to compare filesystem type: get target pool info error\n");
  try {
    std::string source_type, target_type;
    if (!json_spirit::object_find(reply.front().get_ref<const json_spirit::Object&>(), "fs_type",
                                  target_type) ||
        !json_spirit::object_find(pools.front().get_ref<const json_spirit::Object&>(), "fs_type",
                                  source_type))
      return LOG_FAILURE("Failed to compare filesystem type: get type error\n");
    if (source_type == target_type) return true;
    return LOG_FAILURE("Failed to compare filesystem type: source pool is '%s', target pool is '%s'\n",
                       source_type.c_str(), target_type.c_str());
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to compare filesystem type: %s\n", error.what());
  }
}

bool SCSI_Pool_Replicate_Executor::get_target_datasets_and_snapshots() {
  return get_target_datasets_and_snapshots_i("/svc/r/scsipool/lun", "/svc/r/scsipool/snapshot", "lun_id",
                                             Dataset_Manager::TYPE_VOLUME) &&
         get_target_datasets_and_snapshots_i("/svc/r/scsipool/fs", "/svc/r/scsipool/fs/snapshot", "name",
                                             Dataset_Manager::TYPE_FILESYSTEM);
}

bool SCSI_Pool_Replicate_Executor::get_target_datasets_and_snapshots_i(const char* dataset_uri,
                                                                       const char* snapshot_uri,
                                                                       const char* dataset_key,
                                                                       Dataset_Manager::Dataset_Type type) {
  if (empty(dataset_uri)) return LOG_VIOLATION("dataset_uri is NULL or \"\"");
  if (empty(snapshot_uri)) return LOG_VIOLATION("snapshot_uri is NULL or \"\"");
  if (empty(dataset_key)) return LOG_VIOLATION("dataset_key is NULL or \"\"");
  const char* name_of_type = Dataset_Manager::type_to_name(type);
  if (name_of_type == nullptr)
    return platform::log_at(__FILE__, __LINE__, LM_EMERGENCY,
                            "Unexpected error in %N:%l, type%s == Dataset_Manager::TYPE_UNKNOWN%s:\n%?\n", "",
                            "");

  json_spirit::Value reply;
  if (!send_request(dataset_uri, reply))
    return LOG_FAILURE("Failed to get %s from target pool %s.\n", name_of_type, target_pool_uuid_.c_str());
  try {
    for (const json_spirit::Value& value : reply.get_ref<const json_spirit::Array&>()) {
      const auto& record = value.get_ref<const json_spirit::Object&>();
      dataset_info ds;
      ds.type = type;
      ds.name = json_spirit::object_get<std::string>(record, dataset_key);
      target_datasets_.emplace(std::make_pair(type, ds.name), ds);
    }
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to get %s from target pool %s, %s\n", name_of_type, target_pool_uuid_.c_str(),
                       error.what());
  }

  if (!send_request(snapshot_uri, reply))
    return LOG_FAILURE("Failed to get %s snapshot from target pool %s.\n", name_of_type,
                       target_pool_uuid_.c_str());
  try {
    for (const json_spirit::Value& value : reply.get_ref<const json_spirit::Array&>()) {
      const auto& record = value.get_ref<const json_spirit::Object&>();
      const auto parent = json_spirit::object_get<std::string>(record, "parent_id");
      snapshot_info info;
      info.id = json_spirit::object_get<std::string>(record, "id");
      info.recycle = json_spirit::object_get<bool>(record, "recycle");
      info.seq = json_spirit::object_get<ACE_UINT64>(record, "seq");
      const auto ds = target_datasets_.find({type, parent});
      // One that is exported several times is listed as often.
      if (ds != target_datasets_.end() && !holds(ds->second.snapshots, info.id))
        ds->second.snapshots.push_back(info);
    }
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to get %s snapshot from target pool %s, %s.\n", name_of_type,
                       target_pool_uuid_.c_str(), error.what());
  }
  return true;
}

bool SCSI_Pool_Replicate_Executor::create_target_dataset(Dataset_Manager::Dataset_Type type,
                                                         const std::string& name) {
  if (!json_session_.usable())
    return LOG_FAILURE("Failed to create target dataset: init json session first.\n");
  switch (type) {
    case Dataset_Manager::TYPE_VOLUME:
      return create_target_lun(name);
    case Dataset_Manager::TYPE_FILESYSTEM:
      return create_target_filesystem(name);
    default:
      return false;
  }
}

bool SCSI_Pool_Replicate_Executor::create_target_lun(const std::string& lun_uuid) {
  json_spirit::Array luns;
  if (!mgr_->list_lun(source_pool_uuid_, luns, lun_uuid.c_str()) || luns.size() != 1 ||
      !luns.front().is_object())
    return LOG_FAILURE("Failed to create lun: failed to get source lun info from database\n");
  ACE_UINT64 size = 0;
  if (!json_spirit::object_find(*json_spirit::get_object(luns.front()), "max_size", size))
    return LOG_FAILURE("Failed to create lun: failed to get source lun size\n");
  json_spirit::Object body{
      {"pool_id", target_pool_uuid_}, {"lun_size", size}, {"lun_id", lun_uuid}, {"export", false}};
  SCSI_Pool_Manager::LUN_RETENTION_TYPE type = SCSI_Pool_Manager::RETENTION_TYPE_NORMAL;
  if (mgr_->lun_retention_type(source_pool_uuid_, lun_uuid, type) &&
      type == SCSI_Pool_Manager::RETENTION_TYPE_NEWEST)
    body["retention_type"] = "newest";
  return json_session_.post("/svc/r/scsipool/lun", body) ||
         LOG_FAILURE("Failed to create lun:create lun error in target pool\n");
}

bool SCSI_Pool_Replicate_Executor::create_target_filesystem(const std::string& name) {
  json_spirit::Array filesystems;
  if (!mgr_->list_filesystem(source_pool_uuid_, filesystems, name.c_str()) || filesystems.size() != 1 ||
      !filesystems.front().is_object())
    return LOG_FAILURE("Failed to create filesystem: failed to get source filesystem info from database\n");
  json_spirit::Object body{{"pool_id", target_pool_uuid_}, {"name", name}};
  SCSI_Pool_Manager::LUN_RETENTION_TYPE type = SCSI_Pool_Manager::RETENTION_TYPE_NORMAL;
  if (mgr_->filesystem_retention_type(source_pool_uuid_, name, type) &&
      type == SCSI_Pool_Manager::RETENTION_TYPE_NEWEST)
    body["retention_type"] = "newest";
  return json_session_.post("/svc/r/scsipool/fs", body) ||
         LOG_FAILURE("Failed to create filesystem: create filesystem error in target pool\n");
}

bool SCSI_Pool_Replicate_Executor::unexport_target_dataset(Dataset_Manager::Dataset_Type type,
                                                           const std::string& name) {
  if (type != Dataset_Manager::TYPE_VOLUME) return true;
  if (!json_session_.usable())
    return LOG_FAILURE("Failed to unexport target lun: init json session first.\n");
  return json_session_.del("/svc/r/scsipool/lun/export",
                           {{"pool_id", target_pool_uuid_}, {"lun_id", name}, {"force", "true"}}) ||
         LOG_FAILURE("Failed to unexport target lun\n");
}

bool SCSI_Pool_Replicate_Executor::delete_target_dataset_snapshot(Dataset_Manager::Dataset_Type type,
                                                                  const std::string& name,
                                                                  const std::string& snapshot_id) {
  if (!json_session_.usable())
    return LOG_FAILURE("Failed to delete target dataset snapshot: init json session first.\n");
  const bool lun = type == Dataset_Manager::TYPE_VOLUME;
  const Query query =
      lun ? Query{{"pool_id", target_pool_uuid_},
                  {"lun_id", name},
                  {"snapshot_id", snapshot_id},
                  {"force", "true"}}
          : Query{{"pool_id", target_pool_uuid_}, {"snapshot_id", snapshot_id}, {"delete_empty_fs", "false"}};
  return json_session_.del(lun ? "/svc/r/scsipool/snapshot" : "/svc/r/scsipool/fs/snapshot", query) ||
         LOG_FAILURE("Failed to delete target dataset %s snapshot %s\n", name.c_str(), snapshot_id.c_str());
}

bool SCSI_Pool_Replicate_Executor::rollback_target_dataset(const dataset_info& ds) {
  if (!json_session_.usable())
    return LOG_FAILURE("Failed to update target dataset: init json session first.\n");
  bool updated = false;
  if (ds.type == Dataset_Manager::TYPE_VOLUME)
    updated = json_session_.put("/svc/r/scsipool/lun", {{"pool_id", target_pool_uuid_}, {"lun_id", ds.name}});
  else if (ds.type == Dataset_Manager::TYPE_FILESYSTEM)
    updated = json_session_.put("/svc/r/scsipool/fs", {{"pool_id", target_pool_uuid_}, {"name", ds.name}});
  else
    return LOG_FAILURE("Failed to rollback target dataset, unknown dataset type.\n");
  return updated ||
         LOG_FAILURE("Failed to update dataset '%s:%s' of pool '%s':update dataset error\n",
                     Dataset_Manager::type_to_name(ds.type), ds.name.c_str(), target_pool_uuid_.c_str());
}

}  // namespace scsi_pool
