// The dataset facade and the client of the peer's REST interface.

#include "backup/pools/scsipool/replicate_target_manager.h"
#include "tests/unit/replication/replication_fixture.h"

namespace {

using scsi_pool::Dataset_Manager;
using scsi_pool::Replicate_Target_Manager;

class Targets : public Replication_Fixture {};

TEST_F(Targets, AFacadeTakesTheLunFirstAndNeedsWhatItForwards) {
  Dataset_Manager dataset(POOL);
  dataset.reset(Object{{"filesystem_name", FS}, {"lun_uuid", A}});
  EXPECT_STREQ(dataset.type_key(), "lun_uuid");
  EXPECT_TRUE(dataset.dataset_exist());
  dataset.reset(Object{{"filesystem_name", FS}});
  EXPECT_STREQ(dataset.type_name(), "filesystem");
  EXPECT_FALSE(dataset.dataset_exist());
  dataset.reset(Object{{"lun_uuid", 5}});
  EXPECT_EQ(dataset.type_name(), nullptr);
  EXPECT_FALSE(dataset.reset_snapshot_state());
  EXPECT_TRUE(log_.contains(LM_EMERGENCY, ", inited() is false:"));
  dataset.reset(Dataset_Manager::TYPE_VOLUME, "");
  EXPECT_FALSE(dataset.dataset_exist());
  EXPECT_TRUE(log_.contains(LM_EMERGENCY, ", inited(true) is false:"));
  add_snapshots(A, 1, 1);
  EXPECT_TRUE(dataset.add_snapshot_standby(id(1)));
  EXPECT_EQ(standby(id(1)), 1u);
  Array list;
  EXPECT_FALSE(dataset.get_snapshot("", list));
  EXPECT_TRUE(log_.contains(LM_EMERGENCY, "snapshot_uuid is NULL"));
}

TEST_F(Targets, WhatThePeerDoesNotHaveIsDeletedButSilenceIsNot) {
  Replicate_Target_Manager target(PEER_POOL, false);
  peer_.refuse["GET"] = 1;
  EXPECT_TRUE(target.delete_snapshot(id(1)));
  EXPECT_EQ(peer_.requests, (std::vector<std::string>{"GET /svc/r/scsipool/fs/snapshot?pool_id=" + PEER_POOL +
                                                      "&snapshot_id=" + id(1)}));
  interrupt_http_clients(true);
  EXPECT_FALSE(target.delete_snapshot(id(1)));
  interrupt_http_clients(false);
  EXPECT_TRUE(
      log_.has(LM_ERROR, "Failed to delete target pool snapshot '" + id(1) + "' in '" + PEER_POOL + "'\n"));
  EXPECT_TRUE(target.update_snapshot(id(1), {{"recycle", true}}));
  // The request that was interrupted may come late, after this one.
  EXPECT_EQ(peer_.count("PUT /svc/r/scsipool/fs/snapshot {\"pool_id\":\"" + PEER_POOL +
                        "\",\"recycle\":true,\"snapshot_id\":\"" + id(1) + "\"}"),
            1u);
}

TEST_F(Targets, APoolsHostComesFromItsAttributesOrItsAddress) {
  const std::string pool = id(80);
  struct Case {
    Object attrs;
    std::string url, host, error;
    ACE_UINT16 port;
    bool ssl;
  };
  for (const Case& one :
       {Case{{}, "https://peer.example:8443/", "peer.example", "", 8443, true},
        Case{{{"host", "10.0.0.9"}, {"port", 99}, {"ssl", false}}, "lanfree://x", "10.0.0.9", "", 99, false},
        Case{{{"host", "10.0.0.9"}, {"ssl", false}},
             "lanfree://x",
             "",
             "get lanfree host info error",
             0,
             false},
        Case{{}, "lanfree://x", "", "query storaged catalog error", 0, false}}) {
    SCOPED_TRACE(one.url + one.error);
    Storage_Catalog_Manager::instance()->local_pool_source([&](const std::string&, Array& pools) {
      pools.push_back(Object{{"uuid", pool}, {"name", "n"}, {"url", one.url}, {"extended_attrs", one.attrs}});
      return true;
    });
    std::string host;
    ACE_UINT16 port = 0;
    bool ssl = false;
    EXPECT_EQ(scsi_pool::get_pool_host(pool, host, port, ssl), one.error.empty());
    if (one.error.empty()) {
      EXPECT_EQ(host + std::to_string(port) + (ssl ? "s" : ""),
                one.host + std::to_string(one.port) + (one.ssl ? "s" : ""));
    } else {
      EXPECT_TRUE(log_.has(LM_ERROR, "Failed to get pool host info:" + one.error + "\n")) << log_.dump();
    }
  }
  Storage_Catalog_Manager::instance()->local_pool_source(nullptr);
  std::string host;
  ACE_UINT16 port = 0;
  bool ssl = false;
  EXPECT_FALSE(scsi_pool::get_pool_host(id(81), host, port, ssl));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to get pool host info:get pool info error\n"));
}

}  // namespace
