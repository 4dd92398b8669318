#include "platform/http/client_io.h"

#include <gmock/gmock.h>

#include <chrono>
#include <mutex>

#include "tests/unit/http/peers.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

// A server that keeps what it was sent.
class Receiver {
 public:
  explicit Receiver(bool refuse = false) : refuse_(refuse), server_(handler(), options()) {}

  URI uri(const std::string& path = "/svc/receive/a b") const {
    return URI("http", "127.0.0.1", server_.port(), path);
  }

  // What arrived; waits for the end of this number of requests.
  std::string log(int requests = 1) {
    for (int i = 0; i < 500 && done_ < requests; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    server_.server().stop();
    return log_;
  }

 private:
  static HTTP_Server_Options options() {
    HTTP_Server_Options options;
    options.streams = [](const Server_Request& request) { return request.method == "POST"; };
    return options;
  }

  HTTP_Server::Handler handler() {
    return [this](const Server_Request& request, Server_Response& response) {
      std::string line = request.method;
      for (const std::string& segment : request.segments)
        line += "|" + segment;
      if (const std::string* key = request.headers.find(48)) line += " key " + *key;
      if (request.headers.find("If-None-Match") != nullptr) line += " new";
      if (refuse_) return response.error(409, "the LUN is exported");
      char part[100000];
      std::size_t size = 0;
      ssize_t got = 0;
      while (request.stream != nullptr && (got = request.stream->read(part, sizeof(part))) > 0) {
        size += static_cast<std::size_t>(got);
        sum_ += std::count(part, part + got, 'x');
      }
      std::lock_guard<std::mutex> guard(mutex_);
      log_ +=
          line + (got == 0 ? " end " : " cut ") + std::to_string(size) + " " + std::to_string(sum_) + "\n";
      ++done_;
    };
  }

  bool refuse_;
  std::atomic<int> done_{0};
  std::mutex mutex_;
  std::string log_;
  std::ptrdiff_t sum_ = 0;
  Test_Server server_;
};

TEST(ClientIO, WritesARemoteFile) {
  Receiver receiver;
  Client_IO io;
  Client_IO::Options options;
  options.overwrite = false;
  options.headers.put(48, "secret", true);
  ASSERT_TRUE(io.connect(receiver.uri(), options)) << io.last_error();
  ASSERT_TRUE(io.open("id/norecycle/4464", Client_IO::WRITE));
  std::size_t total = 0;
  for (std::size_t size :
       {std::size_t(0), std::size_t(1), std::size_t(8192), std::size_t(200000), std::size_t(65536)}) {
    ASSERT_TRUE(io.write(std::string(size, 'x').data(), size)) << io.last_error();
    total += size;
  }
  EXPECT_TRUE(io.close()) << io.last_error();
  EXPECT_FALSE(io.close()) << "there is nothing to close any more";
  const std::string count = std::to_string(total);
  EXPECT_EQ(receiver.log(),
            "POST|svc|receive|a b|id|norecycle|4464 key secret new end " + count + " " + count + "\n");
}

TEST(ClientIO, AnEarlyRefusalIsNoticed) {
  Receiver receiver(true);
  Client_IO io;
  ASSERT_TRUE(io.connect(receiver.uri("/p"), {}));
  ASSERT_TRUE(io.open("f", Client_IO::WRITE));
  const std::string data(65536, 'x');
  int written = 0;
  while (written < 100000 && io.write(data.data(), data.size()))
    ++written;
  EXPECT_LT(written, 100000);
  EXPECT_EQ(io.last_error(), "the LUN is exported");
  EXPECT_FALSE(io.close());
  EXPECT_EQ(io.last_error(), "the LUN is exported");
}

TEST(ClientIO, OnlyTheAnswer200IsSuccess) {
  const struct {
    const char *answer, *error;
  } cases[] = {
      {"HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n", "status 201 Created"},
      {"HTTP/1.1 500 E\r\nContent-Length: 31\r\n\r\n{\"error\":{\"message\":\"pool full\"}}", "status 500"},
      {"HTTP/1.1 500 E\r\nContent-Length: 33\r\n\r\n{\"error\":{\"message\":\"pool full\"}} ", "pool full"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{}", "the answer was cut"},
      {"", "the peer closed the connection without an answer"},
  };
  for (const auto& one : cases) {
    Raw_Peer peer({[&one](int fd) {
      std::string seen;
      char c = 0;
      while (seen.find("0\r\n\r\n") == std::string::npos && recv(fd, &c, 1, 0) == 1)
        seen += c;
      say(fd, one.answer);
    }});
    Client_IO io;
    ASSERT_TRUE(io.connect(URI("http", "127.0.0.1", peer.port(), "/p"), {}));
    ASSERT_TRUE(io.open("f", Client_IO::WRITE) && io.write("abc", 3));
    EXPECT_FALSE(io.close()) << one.answer;
    EXPECT_THAT(io.last_error(), StartsWith(one.error));
  }
}

TEST(ClientIO, AStalledPeerIsATimeOut) {
  Raw_Peer peer({[](int fd) {
    read_head(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  }});
  Client_IO io;
  Client_IO::Options options;
  options.socket_timeout_seconds = 1;
  ASSERT_TRUE(io.connect(URI("http", "127.0.0.1", peer.port(), "/p"), options));
  ASSERT_TRUE(io.open("f", Client_IO::WRITE));
  const std::string data(1 << 20, 'x');
  const auto begin = std::chrono::steady_clock::now();
  while (io.write(data.data(), data.size()) &&
         std::chrono::steady_clock::now() - begin < std::chrono::seconds(10)) {
  }
  EXPECT_THAT(io.last_error(), HasSubstr("timed out"));
}

TEST(ClientIO, ConnectsWithinTheRetryTime) {
  ACE_UINT16 port = 0;
  { port = Raw_Peer({}).port(); }
  const URI uri("http", "127.0.0.1", port, "/p");
  Client_IO io;
  EXPECT_FALSE(io.connect(uri, {}));
  EXPECT_THAT(io.last_error(), HasSubstr("Connection refused"));
  HTTP_Server server;
  std::thread starter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    HTTP_Server_Options options;
    options.addresses = {{"127.0.0.1", port, false, "", ""}};
    std::string error;
    EXPECT_TRUE(server.start(
        options, [](const Server_Request&, Server_Response&) {}, error))
        << error;
  });
  Client_IO::Options options;
  options.max_seconds_retry = 10;
  EXPECT_TRUE(io.connect(uri, options)) << io.last_error();
  starter.join();
}

}  // namespace
