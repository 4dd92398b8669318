#include <gmock/gmock.h>
#include <sys/stat.h>

#include <chrono>

#include "platform/json/json_spirit.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/http/peers.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string describe(const Server_Request& request) {
  std::string text = request.method + " " + request.path;
  for (const std::string& segment : request.segments)
    text += "|" + segment;
  for (const auto& [name, value] : request.query)
    text += " " + name + "=" + value;
  return text + " <" + request.body + ">";
}

void echo(const Server_Request& request, Server_Response& response) {
  response.body = describe(request);
}

std::string body_of(const std::string& reply) {
  return reply.substr(reply.find("\r\n\r\n") + 4);
}

TEST(Server, TakesRequestsApart) {
  Test_Server server(echo);
  const struct {
    const char *request, *body;
  } cases[] = {
      {"GET /a%20b/c%2Fd?x=1&y=%26&x=2 HTTP/1.0\r\n\r\n", "GET /a b/c/d|a b|c/d x=1 y=& x=2 <>"},
      {"GET / HTTP/1.0\r\n\r\n", "GET / <>"},
      {"POST /p HTTP/1.0\r\nContent-Length: 3\r\n\r\nabc", "POST /p|p <abc>"},
      {"PUT /p HTTP/1.1\r\nConnection: close\r\nTransfer-Encoding: "
       "chunked\r\n\r\n2\r\nab\r\n1\r\nc\r\n0\r\n\r\n",
       "PUT /p|p <abc>"},
      {"PURGE //x/ HTTP/1.0\r\n\r\n", "PURGE //x/||x <>"},
  };
  for (const auto& one : cases) {
    const std::string reply = converse(server.port(), one.request);
    EXPECT_THAT(reply, StartsWith("HTTP/1.1 200 OK\r\n")) << one.request;
    EXPECT_EQ(body_of(reply), one.body);
  }
}

TEST(Server, RefusesMalformedRequests) {
  Test_Server server(echo);
  const struct {
    std::string request;
    const char* status;
  } cases[] = {
      {"nonsense\r\n\r\n", "400"},
      {"GET /%zz HTTP/1.1\r\n\r\n", "400"},
      {"GET /a%00b HTTP/1.1\r\n\r\n", "400"},
      {"GET a HTTP/1.1\r\n\r\n", "400"},
      {"GET /?a=%x HTTP/1.1\r\n\r\n", "400"},
      {"POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", "400"},
      {"POST / HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\nabcd", "400"},
      {"POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nabc", "400"},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nabc", "400"},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n", "400"},
      {"GET / HTTP/1.1\r\nX: " + std::string(70000, 'x') + "\r\n\r\n", "431"},
      {"POST / HTTP/1.1\r\nContent-Length: 99999999\r\n\r\n", "413"},
      {"GET / HTTP/1.1\r\nExpect: miracles\r\n\r\n", "417"},
  };
  for (const auto& one : cases) {
    EXPECT_THAT(converse(server.port(), one.request), StartsWith(std::string("HTTP/1.1 ") + one.status))
        << one.request.substr(0, 80);
  }
}

TEST(Server, ChunkedBodyAboveTheLimit) {
  HTTP_Server_Options options;
  options.max_body = 10;
  Test_Server server(echo, options);
  const std::string head = "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n";
  EXPECT_THAT(converse(server.port(), head + "a\r\n0123456789\r\n0\r\n\r\n"), StartsWith("HTTP/1.1 200"));
  EXPECT_THAT(converse(server.port(), head + "b\r\n0123456789x\r\n0\r\n\r\n"), StartsWith("HTTP/1.1 413"));
}

TEST(Server, AdmissionComesBeforeTheBody) {
  HTTP_Server_Options options;
  options.admit = [](const Server_Request& request, Server_Response& response) {
    const std::string* key = request.headers.find(HTTP_Headers::ACCESS_KEY);
    if (key != nullptr && *key == "good") return true;
    response.error(401, "no");
    return false;
  };
  Test_Server server(echo, options);
  const int fd = dial(server.port());
  say(fd, "POST / HTTP/1.1\r\nContent-Length: 1000\r\n\r\n");  // and no body
  EXPECT_THAT(read_to_end(fd), StartsWith("HTTP/1.1 401"));
  close(fd);
  EXPECT_THAT(converse(server.port(), "GET / HTTP/1.0\r\nx-access-KEY: good\r\n\r\n"),
              StartsWith("HTTP/1.1 200"));
}

TEST(Server, ConnectionIsKeptAndExpectationsAreMet) {
  Test_Server server(echo);
  const int fd = dial(server.port());
  say(fd, "GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  say(fd, "POST /3 HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 1\r\nConnection: close\r\n\r\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  say(fd, "x");
  const std::string replies = read_to_end(fd);
  close(fd);
  EXPECT_THAT(replies, HasSubstr("GET /1|1 <>"));
  EXPECT_THAT(replies, HasSubstr("GET /2|2 <>HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK"));
  EXPECT_THAT(replies, HasSubstr("POST /3|3 <x>"));
}

// A streamed body is told apart from a cut one.
TEST(Server, StreamedBodiesEndOnlyWhereTheyAreMarked) {
  HTTP_Server_Options options;
  options.streams = [](const Server_Request& request) { return request.segments.at(0) == "stream"; };
  options.stream_timeout = 1;
  std::string seen;
  Test_Server server(
      [&seen](const Server_Request& request, Server_Response&) {
        seen.clear();
        char part[3];
        ssize_t got = 0;
        while ((got = request.stream->read(part, sizeof(part))) > 0)
          seen.append(part, static_cast<std::size_t>(got));
        if (got == 0) got = request.stream->read(part, sizeof(part));
        seen += got == 0 ? " end" : " cut: " + request.stream->error();
      },
      options);
  const std::string chunked = "POST /stream HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::string counted = "POST /stream HTTP/1.0\r\nContent-Length: 10\r\n\r\n";
  const struct {
    std::string request;
    const char* seen;
  } cases[] = {
      {chunked + "a\r\n0123456789\r\n0\r\n\r\n", "0123456789 end"},
      {chunked + "0\r\n\r\n", " end"},
      {chunked + "a\r\n0123456789\r\n", "0123456789 cut: "},
      {chunked + "a\r\n01234", "01234 cut: "},
      {chunked, " cut: "},
      {chunked + "a\r\n0123456789\r\nx", "0123456789 cut: "},
      {counted + "0123456789", "0123456789 end"},
      {counted + "012345678", "012345678 cut: "},
      {"POST /stream HTTP/1.0\r\n\r\n", " end"},
  };
  for (const auto& one : cases) {
    converse(server.port(), one.request);
    EXPECT_THAT(seen, StartsWith(one.seen)) << one.request;
  }
  const int fd = dial(server.port());  // stalls, with the connection open
  say(fd, chunked + "2\r\nab\r\n");
  read_to_end(fd);
  close(fd);
  EXPECT_EQ(seen, "ab cut: the body was cut: timed out");
}

// Slow clients are dropped, and meanwhile others are served, by a single worker at that.
TEST(Server, SlowClientsAreDropped) {
  HTTP_Server_Options options;
  options.workers = 1;
  options.header_timeout = options.body_timeout = 1;
  Test_Server server(echo, options);
  const int silent = dial(server.port());
  EXPECT_THAT(converse(server.port(), "GET / HTTP/1.0\r\n\r\n"), StartsWith("HTTP/1.1 200"));
  const int header = dial(server.port());
  say(header, "GET / HTTP/1.1\r\n");
  EXPECT_THAT(read_to_end(header), StartsWith("HTTP/1.1 408"));
  const int body = dial(server.port());
  say(body, "POST / HTTP/1.1\r\nContent-Length: 9\r\n\r\n");
  EXPECT_THAT(read_to_end(body), StartsWith("HTTP/1.1 408"));
  EXPECT_EQ(read_to_end(silent), "");
  for (const int fd : {silent, header, body})
    close(fd);
}

TEST(Server, WhoKeepsTheNetworkBusyDoesNotKeepRootOut) {
  Temp_Dir folder;
  HTTP_Server_Options options;
  options.workers = options.local_workers = options.max_connections = 1;
  options.unix_socket = folder / "socket";
  Test_Server server(echo, options);
  const int busy = dial(server.port());
  say(busy, "GET / HTTP/1.1\r\n");
  const auto session = HTTP_Session_Factory::create_unix(options.unix_socket, 5);
  ASSERT_TRUE(session);
  HTTP_Request request;
  HTTP_Response response;
  HTTP_Failure failure;
  EXPECT_TRUE(session->send(request, response, failure)) << failure.text;
  EXPECT_EQ(response.status, 200);
  close(busy);
}

TEST(Server, StopFinishesRequestsInFlight) {
  std::atomic<bool> inside{false};
  Test_Server server([&inside](const Server_Request&, Server_Response& response) {
    inside = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    response.body = "done";
  });
  const int fd = dial(server.port());
  const int idle = dial(server.port());
  say(fd, "GET / HTTP/1.1\r\n\r\n");
  while (!inside)
    std::this_thread::yield();
  server.server().stop();
  EXPECT_EQ(body_of(read_to_end(fd)), "done");
  EXPECT_EQ(read_to_end(idle), "");
  close(fd);
  close(idle);
}

TEST(Server, StopCutsStreamsAfterTheGraceTime) {
  HTTP_Server_Options options;
  options.streams = [](const Server_Request&) { return true; };
  std::atomic<bool> inside{false};
  std::string error;
  Test_Server server(
      [&](const Server_Request& request, Server_Response&) {
        inside = true;
        char part[16];
        while (request.stream->read(part, sizeof(part)) > 0) {
        }
        error = request.stream->error();
      },
      options);
  const int fd = dial(server.port());
  say(fd, "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
  while (!inside)
    std::this_thread::yield();
  const auto begin = std::chrono::steady_clock::now();
  server.server().stop(1);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_THAT(error, StartsWith("the body was cut"));
  close(fd);
}

TEST(Server, UnixSocket) {
  Temp_Dir folder;
  HTTP_Server_Options options;
  options.unix_socket = folder / "socket";
  options.addresses.push_back({"127.0.0.1", 0, false, "", ""});
  const auto handler = [](const Server_Request& request, Server_Response& response) {
    response.json(200, json_spirit::Value{{"local", request.local}});
  };
  auto server = std::make_unique<Test_Server>(handler, options);
  struct stat info {};
  ASSERT_EQ(stat(options.unix_socket.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(body_of(converse(server->port(), "GET / HTTP/1.0\r\n\r\n")), "{\"local\":false}");
  HTTP_Request request;
  HTTP_Response response;
  HTTP_Failure failure;
  const auto session = HTTP_Session_Factory::create_unix(options.unix_socket);
  ASSERT_NE(session, nullptr);
  ASSERT_TRUE(session->send(request, response, failure)) << failure.text;
  EXPECT_EQ(response.body, "{\"local\":true}");

  HTTP_Server second;
  std::string error;
  EXPECT_FALSE(second.start(options, handler, error));
  EXPECT_THAT(error, HasSubstr("another process serves"));
  server.reset();
  EXPECT_NE(stat(options.unix_socket.c_str(), &info), 0) << "the socket's file is left";
}

}  // namespace
