#include "platform/http/uri.h"

#include <gtest/gtest.h>

namespace {

TEST(URI, TakesAddressesApart) {
  const struct {
    const char *text, *host;
    ACE_UINT16 port;
    bool ssl;
    const char *path, *again;
  } cases[] = {
      {"http://host", "host", 80, false, "", "http://host/"},
      {"https://host/", "host", 443, true, "/", "https://host/"},
      {"HTTP://10.0.0.1:8080/a%20b/c?x=1&y=%26", "10.0.0.1", 8080, false, "/a b/c",
       "http://10.0.0.1:8080/a%20b/c?x=1&y=%26"},
      {"https://[::1]:8443/a", "::1", 8443, true, "/a", "https://[::1]:8443/a"},
      {"http://[fe80::2]", "fe80::2", 80, false, "", "http://[fe80::2]/"},
      {"http://h/a%2fb?q", "h", 80, false, "/a/b", "http://h/a%2Fb?q="},
      {"http://h/a//b/#part", "h", 80, false, "/a//b/", "http://h/a//b/"},
  };
  for (const auto& one : cases) {
    URI uri;
    std::string why;
    ASSERT_TRUE(uri.parse(one.text, why)) << one.text << ": " << why;
    EXPECT_EQ(uri.host(), one.host) << one.text;
    EXPECT_EQ(uri.port(), one.port) << one.text;
    EXPECT_EQ(uri.is_ssl(), one.ssl) << one.text;
    EXPECT_EQ(uri.path(), one.path) << one.text;
    EXPECT_EQ(uri.str(), one.again) << one.text;
  }
}

TEST(URI, RefusesWhatIsNoAddress) {
  for (const char* text :
       {"", "host", "ftp://host/", "http://", "http:///a", "http://h:0/", "http://h:65536/", "http://h:1x/",
        "http://u@h/", "http://h h/", "http://[::1/", "http://[h]/", "http://[::1]x/", "http://h/%zz",
        "http://h/%4", "http://h/%00", "http://h/?a=%0", "http://h\r\nX: y/"}) {
    URI uri("https", "kept", 1, "/kept");
    std::string why;
    EXPECT_FALSE(uri.parse(text, why)) << text;
    EXPECT_FALSE(why.empty()) << text;
    EXPECT_EQ(uri.str(), "https://kept:1/kept") << text;
  }
}

TEST(URI, PlainNamesSurviveTheWay) {
  for (const std::string name :
       {"a b", "a?b", "a#b", "a%20b", "ä", "a&b=c+d", "a;b", "..", "\"'\\", "a\nb"}) {
    URI uri("http", "::1", 0, "/svc/" + name);
    uri.append_segment(name + "/x");
    uri.add_query(name, name);
    URI again;
    std::string why;
    ASSERT_TRUE(again.parse(uri.str(), why)) << name << why;
    EXPECT_EQ(again.path(), "/svc/" + name + "/" + name + "/x");
    ASSERT_EQ(again.query().size(), 1u);
    EXPECT_EQ(again.query()[0], std::make_pair(name, name));
    EXPECT_EQ(uri.target().find_first_of(" \"'#;\n"), std::string::npos) << uri.target();
  }
}

TEST(URI, QueriesKeepTheirOrder) {
  Query query;
  ASSERT_TRUE(URI::parse_query("b=2&a=1&&b=+%2B&c", query));
  EXPECT_EQ(query, (Query{{"b", "2"}, {"a", "1"}, {"b", " +"}, {"c", ""}}));
  EXPECT_EQ(URI::escape_query(query), "b=2&a=1&b=%20%2B&c=");
}

}  // namespace
