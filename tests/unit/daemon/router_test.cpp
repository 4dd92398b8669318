#include "daemon/router.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "platform/base/log.h"
#include "tests/support/log_capture.h"

namespace {

using json_spirit::Object;
using json_spirit::Value;
using scsipoold::failure;
using scsipoold::Reply;
using scsipoold::Request;
using scsipoold::Router;

struct Answer {
  int status;
  Value body;
  std::string message() const { return body.value("/error/message"_json_pointer, ""); }
};

Answer ask(const Router& router, const std::string& method, const std::string& path,
           const std::string& body = "", const Query& query = {}) {
  Server_Request request;
  request.method = method;
  request.path = path;
  request.body = body;
  request.query = query;
  Server_Response response;
  router.dispatch(request, response);
  Answer answer{response.status, {}};
  EXPECT_TRUE(loads_json(response.body, answer.body)) << response.body;
  return answer;
}

TEST(Router, RefusesBeforeTheHandlerRuns) {
  Router router;
  router.add("GET", "/a", {"x"}, [](const Request& request) {
    return Reply{200, Object{{"x", request.find_query("x") == nullptr ? "" : *request.find_query("x")}}};
  });
  router.add("POST", "/a", [](const Request& request) { return Reply{200, request.body}; });
  const struct {
    const char* method;
    const char* path;
    const char* body;
    Query query;
    int status;
    const char* text;  // the message
  } cases[] = {
      {"GET", "/a", "", {{"x", "1"}}, 200, ""},
      {"GET", "/a", "", {{"y", "1"}}, 400, "query parameter 'y': is unknown"},
      {"GET", "/a", "", {{"x", "1"}, {"x", "2"}}, 400, "query parameter 'x': is given twice"},
      {"POST", "/a", "{}", {{"x", "1"}}, 400, "query parameter 'x': is unknown"},
      {"GET", "/a/", "", {}, 404, "there is no '/a/'"},
      {"GET", "/\n", "", {}, 404, "there is no '/?'"},
      {"PATCH", "/a", "", {}, 405, "'/a' does not take 'PATCH'"},
      {"POST", "/a", "{\"a\": 1}", {}, 200, ""},
      {"POST", "/a", "{\"a\": ", {}, 400, "the request's body is not JSON"},
      {"POST", "/a", "{} {}", {}, 400, "the request's body is not JSON"},
      {"POST", "/a", "", {}, 400, "the request needs a JSON body"},
      {"POST", "/a", "[1]", {}, 400, "the request's body must be a JSON object"},
  };
  for (const auto& one : cases) {
    const Answer answer = ask(router, one.method, one.path, one.body, one.query);
    EXPECT_EQ(one.status, answer.status) << one.method << one.path << one.body;
    EXPECT_EQ(one.text, answer.message());
  }
}

TEST(Router, AnExceptionIsAnAnswer) {
  Log_Capture log;
  Router router;
  router.add("GET", "/a", [](const Request&) -> Reply { throw std::runtime_error("oops"); });
  const Answer answer = ask(router, "GET", "/a");
  EXPECT_EQ(500, answer.status);
  EXPECT_EQ("internal error: oops", answer.message());
  EXPECT_TRUE(log.contains(LM_ERROR, "oops"));
}

TEST(Router, AFailureIsWhatWasLoggedForIt) {
  Log_Capture log;
  Router router;
  router.add("GET", "/silent", [](const Request& request) { return failure(request, "nothing said"); });
  router.add("GET", "/one", [](const Request& request) {
    LOG_DEBUG("not for users\n");
    LOG_FAILURE("Failed to do it: %s\n", "full");
    return failure(request, "nothing said", 507);
  });
  router.add("GET", "/many", [](const Request& request) {
    LOG_NOTICE("mkfs.btrfs: too small\n");
    LOG_FAILURE("Failed to format\n");
    LOG_VIOLATION("name is NULL or \"\"");
    LOG_INFO("and on\n");
    return failure(request, "nothing said");
  });
  EXPECT_EQ("nothing said", ask(router, "GET", "/silent").message());
  const Answer one = ask(router, "GET", "/one");
  EXPECT_EQ(507, one.status);
  EXPECT_EQ("Failed to do it: full", one.message());
  EXPECT_EQ(0u, one.body["error"].count("details"));
  const Answer many = ask(router, "GET", "/many");
  ASSERT_EQ(3u, many.body["error"]["details"].size()) << many.body;
  EXPECT_EQ("mkfs.btrfs: too small", many.body["error"]["details"][0]);
  EXPECT_EQ(many.message(), many.body["error"]["details"][2]);
  EXPECT_EQ(std::string::npos, many.message().find('\n')) << "no stack trace for users";
  EXPECT_NE(std::string::npos, many.message().find("name is NULL")) << many.message();
  // The daemon's own log still has all of it, from a callback that was there before.
  EXPECT_TRUE(log.has(LM_ERROR, "Failed to format\n"));
  EXPECT_TRUE(log.has(LM_DEBUG, "not for users\n"));
}

TEST(Router, ConcurrentRequestsSeeTheirOwnFailures) {
  Router router;
  router.add("POST", "/a", [](const Request& request) {
    for (int i = 0; i < 20; ++i)
      LOG_FAILURE("Failed for %s\n", request.body.at("who").get<std::string>().c_str());
    return failure(request, "");
  });
  Log_Capture quiet;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&router, t] {
      const std::string who = "thread " + std::to_string(t);
      for (int i = 0; i < 50; ++i) {
        const Answer answer = ask(router, "POST", "/a", JSON_Dump(Object{{"who", who}}));
        for (const Value& line : answer.body["error"]["details"])
          ASSERT_EQ("Failed for " + who, line);
        ASSERT_EQ(20u, answer.body["error"]["details"].size());
      }
    });
  }
  for (std::thread& one : threads)
    one.join();
}

}  // namespace
