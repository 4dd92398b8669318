// The client of the peer's REST interface.

#include "backup/pools/scsipool/replicate_target_manager.h"
#include "tests/unit/replication/replication_fixture.h"

namespace {

using scsi_pool::Replicate_Target_Manager;

class Targets : public Replication_Fixture {};

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
  struct Case {
    Object attrs;
    std::string url, host;  // an error instead of the host
  };
  const Object whole{{"host", "10.0.0.9"}, {"port", 99}, {"ssl", false}}, half{{"host", "10.0.0.9"}};
  for (const Case& one :
       {Case{{}, "https://peer.example:8443/", "peer.example 8443 tls"},
        Case{whole, "lanfree://x", "10.0.0.9 99"},
        Case{half, "lanfree://x", "Failed to get pool host info:get lanfree host info error\n"},
        Case{{}, "lanfree://x", "Failed to get pool host info:query storaged catalog error\n"},
        Case{{}, "", "Failed to get pool host info:get pool info error\n"}}) {
    SCOPED_TRACE(one.host);
    Storage_Catalog_Manager::instance()->local_pool_source([&](const std::string&, Array& pools) {
      if (one.url.empty()) return true;
      pools.push_back(
          Object{{"uuid", id(80)}, {"name", "n"}, {"url", one.url}, {"extended_attrs", one.attrs}});
      return true;
    });
    std::string host;
    ACE_UINT16 port = 0;
    bool ssl = false;
    if (scsi_pool::get_pool_host(id(80), host, port, ssl)) {
      EXPECT_EQ(host + " " + std::to_string(port) + (ssl ? " tls" : ""), one.host);
    } else {
      EXPECT_TRUE(log_.has(LM_ERROR, one.host)) << log_.dump();
    }
  }
}

}  // namespace
