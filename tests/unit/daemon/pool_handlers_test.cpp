// What the pool requests answer before storage is touched, over a catalog in a temporary folder.

#include <gtest/gtest.h>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "daemon/handlers.h"
#include "daemon/server.h"
#include "platform/base/file.h"
#include "platform/database/database.h"
#include "platform/services/host_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using json_spirit::Object;
using json_spirit::Value;

const std::string ID = "ab1d7f0e-0000-4000-8000-000000000001";
const std::string OTHER = "ab1d7f0e-0000-4000-8000-000000000002";

class Pool_Handlers : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(database::sql::Legacy_Manager::instance()->configure(dir_.path(), ""));
    ASSERT_TRUE(catalog_.open()) << log_.dump();
    ASSERT_TRUE(scsi_pool::SCSI_Pool_Manager::instance()->open("btrfs", 0, "", dir_.path())) << log_.dump();
    scsipoold::add_all_handlers(router_, context_);
    ASSERT_TRUE(
        catalog_.add_pool(ID, "one", "btrfs", "", "", false, true, 104857600, "iSCSI", "iqn", 3, "{}"))
        << log_.dump();
  }
  void TearDown() override {
    scsi_pool::SCSI_Pool_Manager::close_instance();
    database::sql::Legacy_Manager::instance()->close();
  }

  std::string ask(int status, const std::string& method, const std::string& path, const Query& query,
                  const Value& body = {}) {
    Server_Request request;
    request.method = method;
    request.path = path;
    request.query = query;
    if (!body.is_null()) request.body = JSON_Dump(body);
    Server_Response response;
    router_.dispatch(request, response);
    EXPECT_EQ(status, response.status) << response.body;
    Value answer;
    EXPECT_TRUE(loads_json(response.body, answer)) << response.body;
    return status == 200 ? response.body : answer.value("/error/message"_json_pointer, "");
  }

  Log_Capture log_;
  Temp_Dir dir_;
  scsi_pool::SCSI_Pool_Sqlite_Manager_Impl catalog_;
  scsipoold::Config config_;
  scsipoold::Context context_{config_, catalog_};
  scsipoold::Router router_;
};

TEST_F(Pool_Handlers, RefusalsNameTheCause) {
  const std::string path = "/svc/r/pool";
  const Object create{{"pool_name", "two"}, {"total_size", 104857600u}, {"fs_type", "btrfs"}};
  Object same_name = create, same_id = create;
  same_name["pool_name"] = "one";
  same_id["pool_id"] = ID;
  const struct {
    const char* method;
    Query query;
    Value body;
    int status;
    std::string message;
  } cases[] = {
      {"GET", {{"type", "tape"}}, {}, 400, "query parameter 'type': must be scsi"},
      {"GET", {{"pool_id", "x"}}, {}, 400, "query parameter 'pool_id': must be a UUID"},
      {"GET", {{"pool_id", OTHER}}, {}, 404, "there is no pool '" + OTHER + "'"},
      {"POST", {}, same_name, 409, "Failed to create SCSI pool: pool with name one is exist"},
      {"POST", {}, same_id, 409, "there is a pool '" + ID + "' already"},
      {"POST", {}, Object{{"pool_name", "x"}}, 400, "member 'total_size': is missing"},
      {"PUT", {}, Object{{"pool_id", OTHER}, {"retention", 3u}}, 404, "there is no pool '" + OTHER + "'"},
      {"DELETE", {}, {}, 400, "query parameter 'pool_id': is missing"},
      {"DELETE", {{"pool_id", OTHER}}, {}, 404, "there is no pool '" + OTHER + "'"},
      {"DELETE",
       {{"pool_id", ID}, {"force", "1"}},
       {},
       400,
       "query parameter 'force': must be true or false"},
      {"DELETE", {{"pool_id", ID}, {"orphan", "true"}}, {}, 409, "'" + ID + "' is a pool, not an orphan"},
      {"DELETE", {{"pool_id", OTHER}, {"orphan", "true"}}, {}, 404, "there is no orphan '" + OTHER + "'"},
  };
  for (const auto& one : cases)
    EXPECT_EQ(one.message, ask(one.status, one.method, path, one.query, one.body));
}

TEST_F(Pool_Handlers, RenamingNeedsAFreeName) {
  ASSERT_TRUE(catalog_.add_pool(OTHER, "two", "btrfs", "", "", false, true, 1, "iSCSI", "iqn", 3, "{}"));
  const Object taken{{"pool_id", OTHER}, {"pool_name", "one"}};
  EXPECT_EQ("there is a pool of the name 'one' already", ask(409, "PUT", "/svc/r/pool", {}, taken));
}

TEST_F(Pool_Handlers, APoolWithoutStorageIsReportedAndCanBeForgotten) {
  const Query id{{"type", "scsi"}, {"pool_id", ID}};
  Value health;
  ASSERT_TRUE(loads_json(ask(200, "GET", "/svc/r/health", {}), health));
  EXPECT_EQ("degraded", health["status"]);
  EXPECT_EQ("missing", health["pools"][0]["state"]) << health;
  EXPECT_EQ("the storage of pool '" + ID + "' is missing: see health", ask(500, "GET", "/svc/r/pool", id));
  ASSERT_TRUE(catalog_.add_volume(
      {OTHER, "00000000-0000-0000-0000-000000000000", ID, 1, "2026-01-01T00:00:00Z", "{}"}));
  EXPECT_EQ("Failed to delete '" + ID + "' SCSI pool: SCSI pool does not exist",
            ask(500, "DELETE", "/svc/r/pool", id));
  ask(200, "DELETE", "/svc/r/pool", {{"pool_id", ID}, {"force", "true"}});
  EXPECT_FALSE(catalog_.pool_exist(ID));
  EXPECT_FALSE(catalog_.lun_exist(ID, OTHER));
}

TEST(Admission, UnixSocketOrAccessKey) {
  Temp_Dir dir;
  std::string why;
  const std::string key = "0123456789abcdef0123456789abcdef";
  ASSERT_TRUE(platform::write_file_atomically(dir / "key", key + "\n", 0600));
  ASSERT_TRUE(Host_Manager::instance()->load_access_key(dir / "key", why)) << why;
  const struct {
    bool local;
    const char* sent;
    bool admitted;
  } cases[] = {{true, nullptr, true},
               {false, nullptr, false},
               {false, "", false},
               {false, "0123456789abcdef0123456789abcdee", false},
               {false, "0123456789abcdef0123456789abcdef0", false},
               {false, "0123456789abcdef0123456789abcdef", true}};
  for (const auto& one : cases) {
    Server_Request request;
    Server_Response response;
    request.local = one.local;
    if (one.sent != nullptr) request.headers.put(HTTP_Headers::ACCESS_KEY, one.sent);
    EXPECT_EQ(one.admitted, scsipoold::admit(request, response));
    EXPECT_EQ(one.admitted ? 200 : 401, response.status);
  }
}

}  // namespace
