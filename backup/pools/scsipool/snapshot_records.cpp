#include "backup/pools/scsipool/snapshot_records.h"

namespace scsi_pool {

std::map<std::string, std::set<std::string>> snapshots_by_dataset(const json_spirit::Array& rows,
                                                                  const char* dataset_key) {
  std::map<std::string, std::set<std::string>> names;
  for (const json_spirit::Value& value : rows) {
    const json_spirit::Object* row = json_spirit::get_object(value);
    std::string dataset, snapshot;
    if (row != nullptr && json_spirit::object_find(*row, dataset_key, dataset) &&
        json_spirit::object_find(*row, "snapshot_uuid", snapshot))
      names[dataset].insert(snapshot);
  }
  return names;
}

bool is_only_snapshot(const json_spirit::Array& measured, const json_spirit::Array& recorded,
                      const std::string& snapshot_id) {
  return measured.size() == 1 && recorded.size() == 1 && measured.front()["id"] == snapshot_id;
}

void add_sizes(const Snapshot_Size& size, json_spirit::Object& record) {
  record["size"] = size.excl + size.rfer;
  record["excl_size"] = size.excl;
  record["rfer_size"] = size.rfer;
}

}  // namespace scsi_pool
