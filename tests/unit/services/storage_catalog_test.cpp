#include <gmock/gmock.h>

#include "platform/services/host_manager.h"
#include "platform/services/recycling_manager.h"
#include "tests/unit/services/services_fixture.h"

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using ::testing::HasSubstr;

class StorageCatalog : public Services {
 protected:
  bool add_catalog(const std::string& uuid, const std::string& snapshot) {
    return catalog().add_catalog(LOCAL, {{"uuid", uuid}, {"extended_attrs", {{"snapshot_id", snapshot}}}},
                                 why_);
  }
  static Storage_Catalog_Manager& catalog() { return *Storage_Catalog_Manager::instance(); }

  std::string why_;
};

TEST_F(StorageCatalog, KeepsPoolsOfPeers) {
  ASSERT_TRUE(catalog().add_pool(peer_record(), why_)) << why_;
  ASSERT_TRUE(catalog().add_pool(peer_record("https://peer:9443/"), why_)) << why_;
  Array pools;
  ASSERT_TRUE(catalog().list_pools(pools));
  ASSERT_EQ(pools.size(), 3u);
  EXPECT_EQ(pools[0]["local"], true);
  EXPECT_EQ(pools[2]["local"], false);
  EXPECT_EQ(pools[2]["url"], "https://peer:9443/");
  Object device;
  EXPECT_TRUE(Storage_Catalog_Utils::get_master_device(LOCAL, device));
  EXPECT_EQ(device["url"], "http://[::1]:8080/");
  Pool_URL_Info info(PEER);
  ASSERT_TRUE(info.init());
  EXPECT_EQ(info.uri().host(), "peer");
  EXPECT_EQ(info.uri().port(), 9443);
  EXPECT_TRUE(info.uri().is_ssl());
  ASSERT_TRUE(catalog().remove_pool(PEER, why_)) << why_;
  EXPECT_FALSE(catalog().remove_pool(PEER, why_));
  Object pool;
  EXPECT_FALSE(Storage_Catalog_Utils::get_pool(PEER, pool, 0));
  EXPECT_FALSE(Storage_Catalog_Utils::get_pool(PEER, pool, &why_));
  EXPECT_THAT(why_, HasSubstr(PEER));
}

TEST_F(StorageCatalog, RefusesBadPools) {
  const struct {
    const char *key, *value, *why;
  } cases[] = {
      {"uuid", "\"x\"", "'uuid': 'x' is no UUID"},
      {"uuid", "\"11111111-1111-1111-1111-111111111111\"", "of this host"},
      {"name", "\"\"", "'name'"},
      {"url", "\"ftp://x/\"", "'url'"},
      {"url", "\"lanfree://x/\"", "LAN-free"},
      {"url", "7", "'url'"},
      {"url", "\"host:8443\"", "the scheme is missing"},
      {"url", "\"https://host:8443/svc\"", "must end with the host and the port"},
      {"extended_attrs", "[]", "'extended_attrs'"},
      {"extended_attrs", "{\"host\":\"h\",\"port\":70000,\"ssl\":true}", "no 'port' or 'ssl'"},
      {"extra", "1", "unknown member 'extra'"},
  };
  for (const auto& one : cases) {
    Object record = peer_record();
    record[one.key] = Value::parse(one.value);
    EXPECT_FALSE(catalog().add_pool(record, why_)) << one.value;
    EXPECT_THAT(why_, HasSubstr(one.why)) << one.value;
  }
  Object lanfree = peer_record("lanfree://x/");
  lanfree["extended_attrs"] = {{"host", "h"}, {"port", 1}, {"ssl", false}};
  EXPECT_TRUE(catalog().add_pool(lanfree, why_)) << why_;
}

TEST_F(StorageCatalog, ReplicationSettings) {
  Object info = {{"old", 1}};
  ASSERT_TRUE(Storage_Catalog_Utils::get_replicate(LOCAL, info));
  EXPECT_TRUE(info.empty());
  EXPECT_FALSE(catalog().set_replicate(LOCAL, PEER, {}, why_));
  EXPECT_THAT(why_, HasSubstr("is not known"));
  ASSERT_TRUE(catalog().add_pool(peer_record(), why_));
  EXPECT_FALSE(catalog().set_replicate(PEER, LOCAL, {}, why_));
  EXPECT_FALSE(catalog().set_replicate(LOCAL, LOCAL, {}, why_));
  for (const char* bad :
       {R"({"x":1})", R"({"max_seconds_retry":-1})", R"({"max_seconds_retry":65536})",
        R"({"rate_limiting":{}})", R"({"rate_limiting":[1]})",
        R"({"rate_limiting":[{"max_bytes_per_second":1,"start_time":"08:00"}]})",
        R"({"rate_limiting":[{"max_bytes_per_second":9999,"start_time":"8","end_time":"never"}]})",
        R"({"rate_limiting":[{"max_bytes_per_second":1023,"start_time":"08:00","end_time":"09:00"}]})",
        R"({"rate_limiting":[{"max_bytes_per_second":"1","start_time":"08:00","end_time":"09:00"}]})"}) {
    EXPECT_FALSE(catalog().set_replicate(LOCAL, PEER, Value::parse(bad).get<Object>(), why_)) << bad;
  }
  const Object attrs = Value::parse(R"({"max_seconds_retry":60,"rate_limiting":[
      {"max_bytes_per_second":1024,"start_time":"22:00","end_time":"24:00"}]})")
                           .get<Object>();
  ASSERT_TRUE(catalog().set_replicate(LOCAL, PEER, {}, why_)) << why_;
  ASSERT_TRUE(catalog().set_replicate(LOCAL, PEER, attrs, why_)) << why_;
  ASSERT_TRUE(Storage_Catalog_Utils::get_replicate(LOCAL, info));
  EXPECT_EQ(info, (Object{{"target_uuid", PEER}, {"extended_attrs", attrs}}));
  EXPECT_FALSE(catalog().remove_pool(PEER, why_)) << "it is in use";
  ASSERT_TRUE(catalog().clear_replicate(LOCAL, why_));
  EXPECT_TRUE(catalog().remove_pool(PEER, why_)) << why_;
}

TEST_F(StorageCatalog, ReadinessOfSnapshots) {
  std::set<std::string> found;
  unsigned count = 9;
  ASSERT_TRUE(Storage_Catalog_Utils::collect_snapshots_id_from_catalog(LOCAL, {"s1"}, found, 0, count));
  EXPECT_EQ(found, std::set<std::string>{"s1"}) << "nobody to wait for";
  EXPECT_EQ(count, 0u);
  ASSERT_TRUE(add_catalog(CATALOG, "s2")) << why_;
  ASSERT_TRUE(Storage_Catalog_Utils::collect_snapshots_id_from_catalog(LOCAL, {"s1"}, found, 0, count));
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(count, 1u);
  ASSERT_TRUE(Storage_Catalog_Utils::collect_snapshots_id_from_catalog(LOCAL, {"s1", "s2"}, found, 0, count));
  EXPECT_EQ(found, std::set<std::string>{"s2"});
  ASSERT_TRUE(Storage_Catalog_Utils::collect_snapshots_id_from_catalog(OTHER, {"s1"}, found, 0, count));
  EXPECT_EQ(count, 0u) << "the catalogs of another pool do not count";
}

TEST_F(StorageCatalog, RecyclingRemovesTheCatalogsOfASnapshot) {
  ASSERT_TRUE(add_catalog(CATALOG, "s1") && add_catalog(PEER, "s2")) << why_;
  EXPECT_TRUE(Recycling_Manager::recycle_scsi_metadata(LOCAL, "s1"));
  EXPECT_TRUE(Recycling_Manager::recycle_scsi_metadata(LOCAL, "none"));
  Array catalogs;
  ASSERT_TRUE(catalog().query_catalog(LOCAL, catalogs));
  ASSERT_EQ(catalogs.size(), 1u);
  EXPECT_EQ(catalogs[0]["uuid"], PEER);
  EXPECT_EQ(catalogs[0]["extended_attrs"]["snapshot_id"], "s2");
  EXPECT_FALSE(add_catalog("x", "s"));
  EXPECT_FALSE(
      catalog().add_catalog(PEER, {{"uuid", CATALOG}, {"extended_attrs", {{"snapshot_id", "s"}}}}, why_));
  EXPECT_FALSE(catalog().add_catalog(LOCAL, {{"uuid", CATALOG}}, why_));
}

TEST_F(StorageCatalog, ACatalogMayBeOfTwoPoolsAndNamesItsSnapshotAsThePoolDoes) {
  const std::string snapshot = "AAAAAAAA-1111-4222-8333-44444444ABCD";
  ASSERT_TRUE(add_catalog(CATALOG, snapshot) && catalog().add_pool(peer_record(), why_)) << why_;
  ASSERT_TRUE(catalog().add_catalog(
      PEER, {{"uuid", CATALOG}, {"extended_attrs", {{"snapshot_id", snapshot}}}}, why_));
  for (const char* pool : {LOCAL, PEER}) {
    Array catalogs;
    ASSERT_TRUE(catalog().query_catalog(pool, catalogs) && catalogs.size() == 1u) << pool;
    EXPECT_EQ(catalogs[0]["extended_attrs"]["snapshot_id"], "aaaaaaaa-1111-4222-8333-44444444abcd");
  }
}

TEST_F(StorageCatalog, AccessKeyFiles) {
  Host_Manager host;
  EXPECT_FALSE(host.access_key_matches(""));
  const struct {
    const char* text;
    int mode;
    bool good;
  } cases[] = {{"0123456789abcdef\n", 0600, true},  {"0123456789abcdef", 0640, true},
               {"0123456789abcdef", 0644, false},   {"0123456789abcde", 0600, false},
               {"01234567 89abcdef", 0600, false},  {"", 0600, false},
               {"0123456789abcdef\nx", 0600, false}};
  for (const auto& one : cases) {
    const std::string path = folder_ / "key";
    FILE* file = fopen(path.c_str(), "w");
    fputs(one.text, file);
    fchmod(fileno(file), static_cast<mode_t>(one.mode));
    fclose(file);
    EXPECT_EQ(host.load_access_key(path, why_), one.good) << one.text;
  }
  EXPECT_FALSE(host.load_access_key("/nowhere/key", why_));
  EXPECT_EQ(host.access_key(), "0123456789abcdef") << "a refused file leaves the key";
  EXPECT_TRUE(host.access_key_matches("0123456789abcdef"));
  EXPECT_FALSE(host.access_key_matches("0123456789abcdeg"));
  EXPECT_FALSE(host.access_key_matches("0123456789abcdef0"));
}

}  // namespace
