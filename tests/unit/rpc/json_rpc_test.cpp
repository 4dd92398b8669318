#include "platform/rpc/json_rpc.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using json_spirit::Value;

// A service that answers one request on a Unix socket.
class Service {
 public:
  using Answer = std::function<std::string(const Value& request)>;

  Service(const std::string& path, Answer answer) : fd_(socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(fd_, 1) != 0)
      ADD_FAILURE();
    thread_ = std::thread([this, answer] {
      const int peer = accept(fd_, nullptr, nullptr);
      std::string line;
      for (char c = 0; c != '\n' && recv(peer, &c, 1, 0) == 1;)
        line += c;
      const std::string text = answer(Value::parse(line));
      // The client may have given up by now.
      const bool sent = send(peer, text.data(), text.size(), MSG_NOSIGNAL) >= 0;
      EXPECT_TRUE(sent || errno == EPIPE);
      close(peer);
    });
  }
  ~Service() {
    thread_.join();
    close(fd_);
  }

 private:
  int fd_;
  std::thread thread_;
};

class Rpc : public ::testing::Test {
 protected:
  bool call(JSON_RPC_Object& response, unsigned timeout = 0) {
    JSON_RPC_Session session{std::weak_ptr<JSON_RPC_Channel>(channel_)};
    JSON_RPC_Object request;
    return session.make_rpc_request("cdm.copy.request", {{"action", "remove"}}, request) &&
           session.request(request, response, timeout);
  }

  Temp_Dir folder_;
  Log_Capture log_;
  std::shared_ptr<JSON_RPC_Channel> channel_ = std::make_shared<JSON_RPC_Channel>(folder_ / "rpc");
};

TEST_F(Rpc, OnlyTheReplyToTheRequestIsTaken) {
  const struct {
    const char *answer, *reason;  // no reason: a reply
  } cases[] = {
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":null}\n", nullptr},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"error\":{\"code\":-1,\"message\":\"no copy\"}}\n", nullptr},
      {"", "closed the connection"},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":1}", "closed the connection"},  // no end of line
      {"{\"jsonrpc\":\"2.0\",\"id\":99,\"result\":1}\n", "no reply to it"},
      {"{\"jsonrpc\":\"2.0\",\"result\":1}\n", "no reply to it"},
      {"{\"jsonrpc\":\"1.0\",\"id\":1,\"result\":1}\n", "no reply to it"},
      {"{\"jsonrpc\":\"2.0\",\"id\":1}\n", "no reply to it"},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"x\"}\n", "no reply to it"},
      {"[]\n", "no reply to it"},
      {"{\n", "not JSON"},
  };
  for (const auto& one : cases) {
    channel_ = std::make_shared<JSON_RPC_Channel>(folder_ / "rpc");
    Service service(folder_ / "rpc", [&one](const Value& request) {
      EXPECT_EQ(request["method"], "cdm.copy.request");
      EXPECT_EQ(request["params"]["action"], "remove");
      return std::string(one.answer);
    });
    JSON_RPC_Object response;
    EXPECT_EQ(call(response), one.reason == nullptr) << one.answer << log_.dump();
    if (one.reason != nullptr) {
      EXPECT_TRUE(log_.contains(LM_ERROR, one.reason)) << one.answer << log_.dump();
    } else {
      EXPECT_EQ(response.type(), std::string(one.answer).find("error") == std::string::npos
                                     ? JSON_RPC_Object::TYPE_RESPONSE
                                     : JSON_RPC_Object::TYPE_RESPONSE_ERROR);
    }
    log_.clear();
    unlink((folder_ / "rpc").c_str());
  }
}

TEST_F(Rpc, ASilentServiceIsATimeOut) {
  Service service(folder_ / "rpc", [](const Value&) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    return std::string("late");
  });
  JSON_RPC_Object response;
  EXPECT_FALSE(call(response, 1));
  EXPECT_TRUE(log_.contains(LM_ERROR, "timed out")) << log_.dump();
}

TEST_F(Rpc, SaysWhatIsMissing) {
  JSON_RPC_Object response;
  EXPECT_FALSE(call(response));
  EXPECT_TRUE(log_.contains(LM_ERROR, "cannot connect to")) << log_.dump();
  channel_->socket_path("");
  EXPECT_FALSE(call(response));
  EXPECT_TRUE(log_.contains(LM_ERROR, "no service is configured")) << log_.dump();

  JSON_RPC_Session session{std::weak_ptr<JSON_RPC_Channel>(channel_)};
  JSON_RPC_Object request;
  EXPECT_FALSE(session.make_rpc_request("", json_spirit::Object(), request));
  EXPECT_FALSE(session.make_rpc_request("m", 1, request));
  EXPECT_FALSE(session.request(request, response, 0));
  channel_.reset();  // a session does not keep its channel
  EXPECT_FALSE(session.make_rpc_request("m", json_spirit::Object(), request));
  EXPECT_TRUE(log_.contains(LM_ERROR, "the channel is closed"));
}

}  // namespace
