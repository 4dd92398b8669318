// docs/openapi.yaml lists the requests that the router takes, with their query parameters, and no others.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/regex.hpp>
#include <fstream>
#include <map>
#include <set>

#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "daemon/handlers.h"

namespace {

// "METHOD path" and the query parameters; references are named like the parameters that they stand for.
using Requests = std::map<std::string, std::set<std::string>>;

Requests described() {
  std::ifstream file(TEST_SUPPORT_DIR "/../../docs/openapi.yaml");
  const boost::regex path_line("  (/\\S+):"), method_line("    (get|post|put|delete|patch|head):");
  const boost::regex parameter_line(
      "\\s+- (?:\\{name: |name: |\\{\\$ref: \"#/components/parameters/)(\\w+).*");
  Requests all;
  std::string line, path, request;
  boost::smatch found;
  while (std::getline(file, line) && line != "components:") {
    if (boost::regex_match(line, found, path_line)) {
      path = found[1];
    } else if (boost::regex_match(line, found, method_line)) {
      std::string method = found[1];
      std::transform(method.begin(), method.end(), method.begin(), ::toupper);
      request = method + " " + path;
      all[request];
    } else if (!request.empty() && boost::regex_match(line, found, parameter_line)) {
      all[request].insert(found[1]);
    }
  }
  return all;
}

TEST(Openapi, DescribesWhatTheRouterTakes) {
  scsi_pool::SCSI_Pool_Sqlite_Manager_Impl catalog;
  const scsipoold::Config config;
  scsipoold::Context context{config, catalog};
  scsipoold::Router router;
  scsipoold::add_all_handlers(router, context);
  Requests taken, told = described();
  for (const auto& [request, parameters] : router.routes())
    taken[request] = std::set<std::string>(parameters.begin(), parameters.end());
  // The stream has a receiver of its own.
  for (auto one = told.begin(); one != told.end();)
    one = one->first.find(" /svc/scsipool/receive/") != std::string::npos ? told.erase(one) : std::next(one);
  EXPECT_GT(taken.size(), 40u);
  EXPECT_THAT(told, ::testing::ContainerEq(taken));
}

}  // namespace
