#pragma once
// The pool of Lun_Fixture with plain LUNs and sub filesystems in it, known to the storage catalog, which a
// peer's pool can be added to.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "backup/pools/scsipool/replicate_job_manager.h"
#include "platform/base/uuid.h"
#include "platform/services/storage_catalog.h"
#include "tests/support/lun_fixture.h"

class Dataset_Fixture : public Lun_Fixture {
 protected:
  using Ids = std::vector<std::string>;
  using Job_Manager = scsi_pool::Replicate_Job_Manager;

  const std::string PEER_POOL = "eeeeeeee-0000-4000-8000-000000000001";
  const std::string FS = "home";

  Dataset_Fixture() {
    Storage_Catalog_Manager::instance()->local_pool_source([this](const std::string& uuid, Array& pools) {
      if (uuid.empty() || uuid == POOL)
        pools.push_back(
            Object{{"uuid", POOL}, {"name", "pool"}, {"url", local_url_}, {"extended_attrs", Object{}}});
      return true;
    });
    EXPECT_TRUE(Job_Manager::instance()->open());
    retention(3);
  }
  ~Dataset_Fixture() override {
    Job_Manager::close_instance();
    Storage_Catalog_Manager::instance()->local_pool_source(nullptr);
  }

  // A snapshot id that ends in the number.
  static std::string id(int number) {
    const std::string digits = std::to_string(number);
    return "cccccccc-0000-4000-8000-" + std::string(12 - digits.size(), '0') + digits;
  }
  // Through the catalog: the manager takes 0 for "as it was".
  void retention(ACE_UINT16 count) { EXPECT_TRUE(rows().update_pool(POOL, count, "pool", "{}")); }

  // A LUN in storage and catalog; `type` is its retention type.
  void add_lun(const std::string& uuid, const std::string& type = "normal") {
    scsi_pool::SCSI_Pool_Sqlite_Manager::Volume_Info row;
    row.uuid = uuid;
    row.pool_uuid = POOL;
    row.snapshot_uuid = platform::zero_uuid();
    row.size = SIZE;
    row.extended_attrs = JSON_Dump(Object{{"retention_type", type}});
    ASSERT_TRUE(rows().add_volume(row)) << log_.dump();
    pool().volumes[uuid];
  }
  void add_filesystem(const std::string& name) {
    scsi_pool::SCSI_Pool_Sqlite_Manager::Filesystem_Info row;
    row.name = name;
    row.pool_uuid = POOL;
    row.snapshot_uuid = platform::zero_uuid();
    row.extended_attrs = "{}";
    ASSERT_TRUE(rows().add_filesystem(row)) << log_.dump();
    pool().filesystems[name];
  }
  // Snapshots id(first) to id(last) of a LUN (a UUID) or sub filesystem, numbered alike.
  void add_snapshots(const std::string& dataset, int first, int last, bool recycle = true) {
    for (int n = first; n <= last; ++n) {
      if (pool().volumes.count(dataset) != 0) {
        ASSERT_TRUE(rows().add_snapshot(id(n), dataset, POOL, "", n, recycle, nullptr));
        pool().volumes[dataset].snapshots.push_back(id(n));
      } else {
        ASSERT_TRUE(rows().add_filesystem_snapshot(id(n), dataset, POOL, "", n, recycle, nullptr));
        pool().filesystems[dataset].snapshots.push_back(id(n));
      }
    }
  }
  // What is recorded of the dataset, as the last digits of the ids; the storage must hold the same.
  std::vector<int> numbers(const std::string& dataset) {
    const bool lun = pool().volumes.count(dataset) != 0;
    Array listed;
    EXPECT_TRUE(lun ? manager_.list_lun_snapshots(POOL, dataset, listed)
                    : manager_.list_filesystem_snapshots(POOL, dataset, listed));
    std::vector<int> found;
    std::set<std::string> ids;
    for (const auto& one : listed) {
      ids.insert(one["id"].get<std::string>());
      found.push_back(std::stoi(one["id"].get<std::string>().substr(24)));
    }
    const Ids& stored = lun ? pool().volumes[dataset].snapshots : pool().filesystems[dataset].snapshots;
    EXPECT_EQ(ids, std::set<std::string>(stored.begin(), stored.end()));
    return found;
  }
  ACE_UINT16 standby(const std::string& snapshot_id, bool lun = true) {
    std::string state;
    ACE_UINT16 count = 0xffff;
    EXPECT_TRUE(lun ? manager_.get_snapshot_state_info(POOL, snapshot_id, state, count)
                    : manager_.get_filesystem_snapshot_state_info(POOL, snapshot_id, state, count));
    return count;
  }
  std::string state(const std::string& snapshot_id) {
    std::string text;
    ACE_UINT16 count = 0;
    EXPECT_TRUE(manager_.get_snapshot_state_info(POOL, snapshot_id, text, count));
    return text;
  }

  // The pool replicates to PEER_POOL, which is served at that port of this host.
  void replicate_to(ACE_UINT16 port, const Object& attrs = {}) {
    std::string why;
    auto* catalog = Storage_Catalog_Manager::instance();
    ASSERT_TRUE(catalog->add_pool(
        {{"uuid", PEER_POOL}, {"name", "there"}, {"url", "http://127.0.0.1:" + std::to_string(port) + "/"}},
        why))
        << why;
    ASSERT_TRUE(catalog->set_replicate(POOL, PEER_POOL, attrs, why)) << why;
  }

  std::string local_url_ = "http://127.0.0.1:8080/";
};
