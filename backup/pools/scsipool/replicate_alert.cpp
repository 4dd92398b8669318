#include "backup/pools/scsipool/replicate_alert.h"

#include "platform/services/storage_catalog.h"

namespace scsi_pool {

namespace {

bool pool_name(const std::string& pool_uuid, std::string& name) {
  json_spirit::Object pool;
  return Storage_Catalog_Utils::get_pool(pool_uuid, pool, 0) && json_spirit::object_find(pool, "name", name);
}

}  // namespace

bool make_replicate_alert(const Replicate_Job_Definition& def, json_spirit::Object& params) {
  params["id"] = def.id();
  params["name"] = "";
  params["source_pool_uuid"] = def.source_pool_uuid();
  params["target_pool_uuid"] = def.target_pool_uuid();
  std::string name;
  if (!pool_name(def.source_pool_uuid(), name)) return false;
  params["source_pool_name"] = name;
  if (!pool_name(def.target_pool_uuid(), name)) return false;
  params["target_pool_name"] = name;
  return true;
}

}  // namespace scsi_pool
