#pragma once
// A fresh database for each test, and two pools of this host.

#include <gtest/gtest.h>

#include "platform/database/database.h"
#include "platform/services/storage_catalog.h"
#include "tests/support/temp_dir.h"

inline const char LOCAL[] = "11111111-1111-1111-1111-111111111111";
inline const char OTHER[] = "22222222-2222-2222-2222-222222222222";
inline const char PEER[] = "33333333-3333-3333-3333-333333333333";
inline const char CATALOG[] = "44444444-4444-4444-4444-444444444444";

class Services : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(database::sql::Legacy_Manager::instance()->configure(folder_.path(), ""));
    Storage_Catalog_Manager::instance()->local_pool_source(
        [](const std::string& uuid, json_spirit::Array& pools) {
          for (const char* one : {LOCAL, OTHER}) {
            if (uuid.empty() || uuid == one)
              pools.push_back({{"uuid", one}, {"name", "local"}, {"url", "http://[::1]:8080/"}});
          }
          return true;
        });
  }
  void TearDown() override {
    Storage_Catalog_Manager::instance()->local_pool_source(nullptr);
    database::sql::Legacy_Manager::instance()->close();
  }

  static json_spirit::Object peer_record(const std::string& url = "https://peer:8443/") {
    return {{"uuid", PEER}, {"name", "there"}, {"url", url}};
  }

  Temp_Dir folder_;
};
