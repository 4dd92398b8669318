#include <gmock/gmock.h>

#include <chrono>

#include "platform/http/json_http_session.h"
#include "tests/support/log_capture.h"
#include "tests/unit/http/peers.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

const char OK[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}";
void hang_up(int fd) {
  read_head(fd);
}

JSON_HTTP_Session connect_to(ACE_UINT16 port, unsigned retries = 5, unsigned seconds = 300) {
  return JSON_HTTP_Session(
      HTTP_Session_Factory::create("127.0.0.1", port, false, nullptr, 3, nullptr, false, 1, 1, 0, 0), retries,
      seconds);
}

TEST(Session, SendsWhatIsAsked) {
  std::string asked;
  Test_Server server([&asked](const Server_Request& request, Server_Response& response) {
    const std::string* key = request.headers.find("X-Access-Key");
    asked = request.method + " " + request.path + "?" + URI::escape_query(request.query) + " " +
            request.body + (key != nullptr ? " key " + *key : "");
    response.json(request.method == "PUT" ? 409 : 200,
                  json_spirit::Value{{"error", {{"message", "exported"}}}});
  });
  JSON_HTTP_Session session = connect_to(server.port());
  ASSERT_TRUE(session);
  EXPECT_TRUE(session.headers().put(48, "wrong", true) && session.headers().put(48, "secret", true));
  EXPECT_FALSE(session.headers().put(48, "a\r\nX-Evil: 1", true) || session.headers().put(7, "a", true));
  json_spirit::Value reply;
  int status = 0;
  ASSERT_TRUE(session.get("/svc/a b", {{"type", "scsi"}, {"pool_id", "x&y"}}, reply, status));
  EXPECT_EQ(asked, "GET /svc/a b?type=scsi&pool_id=x%26y  key secret");
  ASSERT_TRUE(session.post("/svc", {{"n", 1}}, reply, status));
  EXPECT_EQ(asked, "POST /svc? {\"n\":1} key secret");
  EXPECT_EQ(status, 200);
  ASSERT_TRUE(session.del("/svc", {}, reply, status));
  EXPECT_EQ(asked.substr(0, 6), "DELETE");
  ASSERT_TRUE(session.put("/svc", json_spirit::Object(), reply, status));
  EXPECT_EQ(status, 409);
  EXPECT_EQ(session.error(), "exported");
}

TEST(Session, BadAnswersAreFailures) {
  const struct {
    const char *answer, *error;
  } cases[] = {
      {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n{}", "the answer was cut"},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n", "the answer was cut"},
      {"HTTP/1.1 200 OK\r\n\r\n{}", "the answer has no marked end"},
      {"HTTP/1.1 200 OK\r\nConte", "the answer was cut"},
      {"", "the peer closed the connection without an answer"},
      {"SSH-2.0-x\r\n\r\n", "malformed answer"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n<html", "the answer is not JSON"},
  };
  for (const auto& one : cases) {
    Log_Capture log;
    Raw_Peer peer({answers(one.answer)});
    JSON_HTTP_Session session = connect_to(peer.port());
    json_spirit::Value reply;
    int status = 1;
    EXPECT_FALSE(session.post("/p", json_spirit::Object(), reply, status)) << one.answer;
    EXPECT_EQ(status, 0);
    EXPECT_THAT(session.error(), StartsWith(one.error));
    EXPECT_TRUE(log.contains(LM_ERROR, one.error)) << log.dump();
  }
}

// Connections lost after the request: repeated, but a POST may have been carried out.
TEST(Session, RepeatsOnlyWhatMayBeRepeated) {
  const struct {
    const char* method;
    bool repeated;
  } cases[] = {{"GET", true}, {"PUT", true}, {"DELETE", true}, {"POST", false}};
  for (const auto& one : cases) {
    Log_Capture log;
    Raw_Peer peer({hang_up, answers(OK)});
    JSON_HTTP_Session session = connect_to(peer.port());
    json_spirit::Value reply;
    int status = 0;
    EXPECT_EQ(session.request(one.method, "/", {}, nullptr, reply, status), one.repeated) << one.method;
    EXPECT_EQ(peer.connections(), one.repeated ? 2 : 1) << one.method;
  }
}

TEST(Session, GivesUpAfterItsRetriesAndItsTime) {
  const struct {
    unsigned retries, seconds;
    int connections;
  } cases[] = {{0, 300, 1}, {1, 300, 2}, {5, 2, 2}};
  for (const auto& one : cases) {
    Log_Capture log;
    Raw_Peer peer({hang_up, hang_up, hang_up, hang_up, hang_up, hang_up, hang_up});
    JSON_HTTP_Session session = connect_to(peer.port(), one.retries, one.seconds);
    json_spirit::Value reply;
    int status = 0;
    EXPECT_FALSE(session.get("/", {}, reply, status));
    EXPECT_EQ(peer.connections(), one.connections) << one.retries;
  }
}

TEST(Session, InterruptionEndsWaits) {
  Log_Capture log;
  Raw_Peer peer({[](int fd) { read_to_end(fd); }});
  const auto raw = HTTP_Session_Factory::create("127.0.0.1", peer.port(), false);
  JSON_HTTP_Session session(raw);
  std::thread interrupter([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    interrupt_http_clients(true);
  });
  json_spirit::Value reply;
  int status = 0;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(session.get("/", {}, reply, status));
  interrupter.join();
  interrupt_http_clients(false);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
}

TEST(Session, AnswersAndTimeOutsAreNotRepeated) {
  Log_Capture log;
  Raw_Peer peer({answers("HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n"), [](int fd) {
                   read_head(fd);
                   std::this_thread::sleep_for(std::chrono::milliseconds(1500));
                 }});
  JSON_HTTP_Session session = connect_to(peer.port());
  json_spirit::Value reply;
  int status = 0;
  EXPECT_TRUE(session.get("/", {}, reply, status));
  EXPECT_EQ(status, 503);
  EXPECT_FALSE(session.get("/", {}, reply, status));
  EXPECT_EQ(session.error(), "no answer: timed out");
  EXPECT_EQ(peer.connections(), 2);
}

// A connection that the peer has closed while it was idle is not a failed request, for a POST either.
TEST(Session, IdleConnectionsAreMadeAnew) {
  Raw_Peer peer({answers(OK), answers(OK)});
  JSON_HTTP_Session session = connect_to(peer.port(), 0);
  json_spirit::Value reply;
  int status = 0;
  ASSERT_TRUE(session.post("/", json_spirit::Object(), reply, status)) << session.error();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_TRUE(session.post("/", json_spirit::Object(), reply, status)) << session.error();
  EXPECT_EQ(peer.connections(), 2);
}

TEST(Session, FailuresToConnectNameTheStep) {
  ACE_UINT16 closed = 0;
  { closed = Raw_Peer({}).port(); }
  HTTP_Failure failure;
  EXPECT_EQ(HTTP_Session_Factory::try_create("127.0.0.1", closed, false, nullptr, 5, failure), nullptr);
  EXPECT_THAT(failure.text, HasSubstr("Connection refused"));
  EXPECT_TRUE(failure.temporary);
  EXPECT_EQ(HTTP_Session_Factory::try_create("no such host", 1, false, nullptr, 5, failure), nullptr);
  EXPECT_THAT(failure.text, HasSubstr("cannot resolve the host name 'no such host'"));
  Log_Capture log;
  EXPECT_EQ(HTTP_Session_Factory::create("127.0.0.1", closed, false, nullptr, 1), nullptr);
  EXPECT_TRUE(log.contains(LM_ERROR, "Connection refused")) << log.dump();
  std::string error;
  EXPECT_EQ(HTTP_Session_Factory::create_unix("/nowhere/socket", 1, &error), nullptr);
  EXPECT_THAT(error, HasSubstr("/nowhere/socket"));
}

}  // namespace
