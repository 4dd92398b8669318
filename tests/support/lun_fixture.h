#pragma once
// One pool in memory, the target library over a fake tree, and the catalog that both belong to.

#include <gtest/gtest.h>

#include <string>

#include "backup/pools/scsipool/sub_volume_exporter.h"
#include "backup/pools/scsipool/sub_volume_manager.h"
#include "tests/support/fake_lio.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_pool.h"
#include "tests/support/temp_catalog.h"

class Lun_Fixture : public testing::Test {
 protected:
  using Exporter = scsi_pool::Sub_Volume_Exporter;
  using Array = json_spirit::Array;
  using Object = json_spirit::Object;

  const std::string POOL = "aaaaaaaa-0000-4000-8000-000000000001";
  const std::string A = "bbbbbbbb-0000-4000-8000-00000000000a";
  const std::string B = "bbbbbbbb-0000-4000-8000-00000000000b";
  const std::string SNAPSHOT = "cccccccc-0000-4000-8000-000000000001";
  const std::string TARGET = "iqn.2026-01.org.example:t1";
  const std::string HOST = "iqn.2026-01.org.client:h1";
  const std::string OTHER_HOST = "iqn.2026-01.org.client:h2";
  static constexpr ACE_UINT64 SIZE = 1 << 20;

  Lun_Fixture() {
    scsi_pool::SCSI_Pool_Manager::Pool_Option option;
    option.size = 1000000;
    option.fs_type = "zfs";
    option.compression = "lz4";
    option.lun_type = TYPE_ISCSI;
    option.target = TARGET;
    option.ext_attrs = {{"async", true}, {"checksum", true}, {"block_size", 8192}};
    std::string id = POOL;
    EXPECT_TRUE(manager_.create_pool(id, "pool", option)) << log_.dump();
  }

  static LIO_ACLs acls(const std::string& initiator) { return {{initiator, "host"}}; }
  Memory_Pool& pool() { return pools_[POOL]; }

  // A new LUN of that id, exported when ACLs are given or `exported` is set.
  bool make_lun(std::string id, const LIO_ACLs& initiators = {}, bool exported = false) {
    scsi_pool::SCSI_Pool_Manager::LUN_Option option;
    option.size = SIZE;
    option.acls = initiators;
    option.lun_export = exported || !initiators.empty();
    option.ext_attrs = {{"retention_type", "newest"}};
    return manager_.create_lun(POOL, option, id, number_);
  }
  // A snapshot in storage and catalog.
  void add_snapshot(const std::string& lun, const std::string& id, ACE_UINT64 seq) {
    ASSERT_TRUE(rows().add_snapshot(id, lun, POOL, "", seq, true, nullptr));
    pool().volumes[lun].snapshots.push_back(id);
  }
  Exporter::Export_Info exported(const std::string& id) {
    Exporter::Export_Info info;
    EXPECT_TRUE(manager_.lun_exported(POOL, id, info)) << log_.dump();
    return info;
  }
  // A fresh export of the volume to one initiator, as a request carries it.
  Exporter::Export_Info request(const LIO_ACLs& initiators = {}) {
    Exporter::Export_Info info;
    info.type = "iSCSI";
    info.target = TARGET;
    info.acls = initiators;
    return info;
  }
  scsi_pool::SCSI_Pool_Sqlite_Manager& rows() { return catalog_.rows(); }

  Fake_Lio lio_;
  Memory_Pools pools_;
  Temp_Catalog catalog_;
  scsi_pool::SCSI_Pool_Manager& manager_ = catalog_.manager();
  Log_Capture log_;
  ACE_UINT16 number_ = 99;
};
