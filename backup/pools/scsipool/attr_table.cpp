#include "backup/pools/scsipool/attr_table.h"

namespace scsi_pool {

const Attr_Key attr_key_table[] = {
    {"compression", 11, "string"}, {"dedup", 5, "bool"}, {nullptr, 0, "unknown"}};

const Attr_Key extended_attr_key_table[] = {{"retention_type", 14, "string"}, {nullptr, 0, "unknown"}};

bool in_table(const Attr_Key* table, const std::string& key) {
  for (; table->key != nullptr; ++table)
    if (key == table->key) return true;
  return false;
}

}  // namespace scsi_pool
