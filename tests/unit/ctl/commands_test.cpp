// Command lines against a small server on a Unix socket that records what it is asked and plays answers back.

#include "ctl/commands.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <map>
#include <mutex>
#include <sstream>

#include "platform/http/http_server.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using json_spirit::Value;

const char ID[] = "ab1d7f0e-0000-4000-8000-000000000001";

class Commands : public ::testing::Test {
 protected:
  void SetUp() override {
    HTTP_Server_Options options;
    options.unix_socket = dir_ / "socket";
    std::string error;
    const auto handler = [this](const Server_Request& request, Server_Response& response) {
      const std::lock_guard<std::mutex> guard(mutex_);
      std::string line = request.method + " " + request.path;
      if (!request.query.empty()) line += "?" + URI::escape_query(request.query);
      asked_.push_back(line);
      body_ = request.body;
      const auto answer = answers_.find(request.method + " " + request.path);
      if (answer == answers_.end()) {
        response.error(404, "not expected");
      } else {
        response.status = answer->second.first;
        response.body = answer->second.second;
      }
    };
    ASSERT_TRUE(server_.start(options, handler, error)) << error;
  }

  void answer(const std::string& request, int status, const std::string& body) {
    answers_[request] = {status, body};
  }

  // Runs the words of the line; what is typed may come from a terminal.
  int run(const std::string& line, const std::string& typed = "", bool terminal = false) {
    std::istringstream words(line), in(typed);
    std::vector<std::string> arguments{"--socket", dir_ / "socket"};
    for (std::string word; words >> std::quoted(word, '\'');)
      arguments.push_back(word);
    out_.str("");
    err_.str("");
    asked_.clear();
    ctl::Session session(in, out_, err_, terminal);
    return ctl::run(arguments, session);
  }

  Log_Capture log_;
  Temp_Dir dir_;
  std::mutex mutex_;
  std::map<std::string, std::pair<int, std::string>> answers_;
  std::vector<std::string> asked_;
  std::string body_;
  std::ostringstream out_, err_;
  HTTP_Server server_;
};

const std::string POOL =
    R"({"pool_id":"ab1d7f0e-0000-4000-8000-000000000001","pool_name":"backup one","fs_type":"btrfs","type":"iSCSI",
        "target":"iqn.2003-01.local:one","total_size":2147483648,"used_size":130023424,"retention":24,
        "compression":"","thin_provision":true,"dedup":false,"snapshot_mounted":false,
        "extended_attrs":{"async":false},"global_dev":""})";

TEST_F(Commands, CreateSendsWhatTheLineSays) {
  answer("POST /svc/r/pool", 200, POOL);
  EXPECT_EQ(0, run("pool create 'backup one' --size 2G --fs btrfs --id " + std::string(ID) +
                   " --thin --compression zlib --lun-type fc --target naa.50 --retention 0"
                   " --attr note=\"a=b\" --attr async=true --replace-orphan"))
      << err_.str();
  Value sent;
  ASSERT_TRUE(loads_json(body_, sent));
  Value expected;
  ASSERT_TRUE(loads_json(R"({"pool_name":"backup one","total_size":2147483648,"fs_type":"btrfs",
      "pool_id":"ab1d7f0e-0000-4000-8000-000000000001","thin_provision":true,"dedup":false,"compression":"zlib",
      "type":"FC","target":"naa.50","retention":0,"replace_orphan":true,
      "extended_attrs":{"note":"a=b","async":true}})",
                         expected));
  EXPECT_EQ(expected, sent);
  EXPECT_NE(std::string::npos, out_.str().find("2 GiB")) << out_.str();
}

TEST_F(Commands, ListsAreForPeopleOrJson) {
  answer("GET /svc/r/pool", 200, "[" + POOL + "]");
  EXPECT_EQ(0, run("pool list"));
  EXPECT_EQ(std::vector<std::string>{"GET /svc/r/pool?type=scsi"}, asked_);
  EXPECT_NE(std::string::npos, out_.str().find("2 GiB  124 MiB  yes")) << out_.str();
  EXPECT_EQ(0, run("pool list --json"));
  Value printed, expected;
  ASSERT_TRUE(loads_json(out_.str(), printed) && loads_json("[" + POOL + "]", expected)) << out_.str();
  EXPECT_EQ(expected, printed);
  answer("GET /svc/r/health", 200,
         R"({"status":"degraded","version":"1","pools":[],"orphans":["u"],"problems":["disk\ngone"]})");
  EXPECT_EQ(1, run("health"));
  EXPECT_NE(std::string::npos, out_.str().find("problem: disk?gone\n")) << out_.str();
  EXPECT_NE(std::string::npos, out_.str().find("--orphan): u\n")) << out_.str();
}

TEST_F(Commands, NamesAreResolvedToIds) {
  const std::string row = R"({"pool_id":")" + std::string(ID) + R"(","pool_name":"one","state":"ok"})";
  const std::string twin = R"({"pool_id":"x","pool_name":"two"})";
  answer("GET /svc/r/health", 200, R"({"status":"ok","pools":[)" + row + "," + twin + "," + twin + "]}");
  answer("DELETE /svc/r/pool", 200, "{}");
  EXPECT_EQ(0, run("pool delete one --yes --force")) << err_.str();
  EXPECT_EQ("DELETE /svc/r/pool?type=scsi&pool_id=" + std::string(ID) + "&force=true", asked_.back());
  EXPECT_EQ(1, run("pool delete two --yes"));
  EXPECT_NE(std::string::npos, err_.str().find("several pools")) << err_.str();
  EXPECT_EQ(1, run("pool delete three --yes"));
  EXPECT_NE(std::string::npos, err_.str().find("there is no pool 'three'")) << err_.str();
  answer("GET /svc/r/scsipool/peer", 200, R"([{"uuid":")" + std::string(ID) + R"(","name":"offsite"}])");
  answer("PUT /svc/r/scsipool/replication", 200, "{}");
  EXPECT_EQ(0, run("replication set one --to offsite")) << err_.str();
  EXPECT_NE(std::string::npos, body_.find("\"target_uuid\":\"" + std::string(ID) + "\"")) << body_;
  EXPECT_EQ(1, run("peer remove onsite"));
  EXPECT_NE(std::string::npos, err_.str().find("there is no pool 'onsite'")) << err_.str();
}

TEST_F(Commands, DeletionIsConfirmed) {
  answer("DELETE /svc/r/pool", 200, "{}");
  const struct {
    const char* typed;
    bool terminal;
    int status;
    std::size_t requests;
  } cases[] = {{"yes\n", true, 0, 1}, {"y\n", true, 1, 0}, {"", true, 1, 0}, {"yes\n", false, 1, 0}};
  for (const auto& one : cases) {
    EXPECT_EQ(one.status, run("pool delete " + std::string(ID), one.typed, one.terminal)) << one.typed;
    EXPECT_EQ(one.requests, asked_.size()) << one.typed;
  }
}

TEST_F(Commands, ARefusalShowsItsCause) {
  answer("PUT /svc/r/pool", 500,
         R"({"error":{"message":"Failed to mkfs","details":["mkfs: too small","Failed to mkfs"]}})");
  EXPECT_EQ(1, run("pool update " + std::string(ID) + " --retention 3"));
  EXPECT_EQ("scsipoolctl: Failed to mkfs\n  mkfs: too small\n  Failed to mkfs\n", err_.str());
  EXPECT_EQ("", out_.str());
}

TEST_F(Commands, WrongUsageIsTwoAndAsksNobody) {
  const std::string id = ID;
  const std::string lines[] = {"",
                               "pool",
                               "pool create x",
                               "pool create x --size 0",
                               "pool create x --size 1.5",
                               "pool create x --size 1G --fs ext4",
                               "pool create x --size 1G --retention 65536",
                               "pool create x --size 1G --retention -1",
                               "pool create x --size 1G --attr a",
                               "pool create x --size 1G --attr a=b",
                               "pool create x --size 1G --replace-orphan",
                               "pool update x",
                               "pool delete",
                               "pool delete " + id + " --orphan --force",
                               "health x",
                               "nonsense",
                               "--key-file /x health",
                               "snapshot create " + id,
                               "snapshot create " + id + " x",
                               "snapshot delete " + id + " 1 --yes",
                               "snapshot unexport " + id + " " + id + " --number 65535",
                               "peer add offsite https://host/ --name offsite",
                               "replication set " + id,
                               "replication set " + id + " --to " + id + " --limit 8-9",
                               "retention explain " + id};
  for (const auto& line : lines) {
    EXPECT_EQ(2, run(line)) << line;
    EXPECT_TRUE(asked_.empty()) << line;
    EXPECT_NE("", err_.str());
  }
  run("pool nonsense");
  EXPECT_NE(std::string::npos, err_.str().find("nonsense")) << err_.str();
}

}  // namespace
