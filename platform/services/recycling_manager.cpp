#include "platform/services/recycling_manager.h"

#include "platform/services/storage_catalog.h"

bool Recycling_Manager::recycle_scsi_metadata(const std::string& pool_uuid, const std::string& snapshot_id) {
  return Storage_Catalog_Manager::instance()->remove_catalogs_of_snapshot(pool_uuid, snapshot_id);
}
