// Names, UUIDs, numbers, times and delays.

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <vector>

#include "platform/base/backoff.h"
#include "platform/base/names.h"
#include "platform/base/natoi.h"
#include "platform/base/time_text.h"
#include "platform/base/uuid.h"

namespace platform {
namespace {

TEST(Natoi, stops_at_the_end_given_and_at_the_first_character_that_is_no_digit) {
  EXPECT_EQ(natoi("12345", 3), 123u);
  EXPECT_EQ(natoi("12a45", 5), 12u);
  EXPECT_EQ(natoi("", 0), 0u);
  EXPECT_EQ(natoi(nullptr, 3), 0u);
  EXPECT_EQ(natoi("18446744073709551615", 20), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(natoi("18446744073709551616", 20), std::numeric_limits<std::uint64_t>::max());
}

TEST(Uuid, binary_form_comes_back_as_the_lower_case_text) {
  std::string binary;
  ASSERT_TRUE(uuid_string_to_binary("00FF10ab-0102-4304-8506-0708090A0b0c", binary));
  EXPECT_EQ(binary, std::string("\x00\xff\x10\xab\x01\x02\x43\x04\x85\x06\x07\x08\x09\x0a\x0b\x0c", 16));
  std::string text;
  ASSERT_TRUE(uuid_binary_to_string(binary.data(), binary.size(), text));
  EXPECT_EQ(text, "00ff10ab-0102-4304-8506-0708090a0b0c");
  EXPECT_FALSE(uuid_binary_to_string(binary.data(), 15, text));
  for (const char* bad : {"", "00ff10ab-0102-4304-8506-0708090a0b0", "00ff10ab00102-4304-8506-0708090a0b0c",
                          "{0ff10ab-0102-4304-8506-0708090a0b0c", "00ff10ag-0102-4304-8506-0708090a0b0c"})
    EXPECT_FALSE(uuid_string_to_binary(bad, binary)) << bad;
}

TEST(Time_Text, utc_and_local_forms_name_the_same_moment) {
  ::setenv("TZ", "XYZ-05:30", 1);
  ::tzset();
  EXPECT_EQ(POSIX_Time_To_ISO8601(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(POSIX_Time_To_ISO8601(1795377863), "2026-11-22T20:04:23Z");
  EXPECT_EQ(POSIX_Time_To_ISO8601_Local(1795377863), "2026-11-23T01:34:23+05:30");
  ::unsetenv("TZ");
  ::tzset();
  for (const char* text : {"2026-11-22T20:04:23Z", "2026-11-23T01:34:23+05:30", "2026-11-23T01:34:23+0530",
                           "2026-11-22T18:04:23-02:00", "2026-11-22T20:04:23.875Z"}) {
    std::time_t time = 0;
    EXPECT_TRUE(ISO8601_To_POSIX_Time(text, time)) << text;
    EXPECT_EQ(time, 1795377863) << text;
  }
}

TEST(Time_Text, refuses_what_is_no_moment) {
  for (const char* text : {"", "2026-11-22", "2026-11-22T20:04:23", "2026-02-30T00:00:00Z",
                           "2026-13-01T00:00:00Z", "2026-11-22T25:00:00Z", "2026-11-22 20:04:23Z",
                           "2026-11-22T20:04:23Zx", "2026-11-22T20:04:23+1", "2026-11-22T20:04:23.Z"}) {
    std::time_t time = 7;
    EXPECT_FALSE(ISO8601_To_POSIX_Time(text, time)) << text;
    EXPECT_EQ(time, 7) << text;
  }
}

TEST(Time_Text, spans) {
  const struct {
    const char* text;
    bool good;
    unsigned seconds;
  } rows[] = {{"0", true, 0},           {"90", true, 90},          {"15m", true, 900},
              {"2h", true, 7200},       {"1d", true, 86400},       {"2w", true, 1209600},
              {"08:30", true, 30600},   {"23:59:59", true, 86399}, {"24:00", true, 86400},
              {"24:01", false, 0},      {"8:30", false, 0},        {"08:60", false, 0},
              {"", false, 0},           {"m", false, 0},           {"-1", false, 0},
              {"5x", false, 0},         {"5mm", false, 0},         {"4294967295", true, 4294967295u},
              {"4294967296", false, 0}, {"4294967295m", false, 0}};
  for (const auto& row : rows) {
    unsigned seconds = 77;
    EXPECT_EQ(relative_time_to_seconds(row.text, seconds), row.good) << row.text;
    EXPECT_EQ(seconds, row.good ? row.seconds : 77) << row.text;
  }
}

std::vector<unsigned> first_delays(const Exponential_Backoff& sequence, std::size_t count) {
  std::vector<unsigned> delays;
  for (unsigned delay : sequence) {
    if (delays.size() == count) break;
    delays.push_back(delay);
  }
  return delays;
}

TEST(Backoff, grows_to_the_cap_and_ends_at_the_limit) {
  using Delays = std::vector<unsigned>;
  EXPECT_EQ(first_delays(exponential_backoff(1, 10, 4294967295u, false), 7),
            (Delays{1, 2, 4, 8, 10, 10, 10}));
  EXPECT_EQ(first_delays(exponential_backoff(1, 2, 4, false), 99), (Delays{1, 2, 2, 2}));
  EXPECT_EQ(first_delays(exponential_backoff(5, 3, 2, false), 99), (Delays{3, 3}));
  EXPECT_EQ(first_delays(exponential_backoff(1, 4294967295u, 40, false), 99).back(), 4294967295u);
  EXPECT_TRUE(first_delays(exponential_backoff(1, 10, 0, false), 99).empty());
  for (unsigned delay : exponential_backoff(2, 10, 100, true))
    EXPECT_TRUE(delay >= 2 && delay <= 10) << delay;
}

TEST(Names, dataset_names) {
  const std::string longest(255, 'x');
  for (const std::string& good : {std::string("lun1"), std::string("with space"), std::string("größe 数"),
                                  longest, std::string("a.b_c-d:e+f,g=h~i#j[k]{l}!m%n^")}) {
    std::string why = "untouched";
    EXPECT_TRUE(valid_dataset_name(good, why)) << good << why;
    EXPECT_EQ(why, "untouched");
  }
  std::vector<std::string> bad{longest + "x", std::string("a\0b", 3)};
  for (const char* name :
       {"", ".", "..", "-rf", "a/b", "../x", "a@b", "a\nb", "a\tb", "a\x7f", "\"; touch /tmp/x; \"", "\xc3",
        "\xff\xfe", "\xc0\xaf", "\xed\xa0\x80", "a\xc2\x85z"})
    bad.push_back(name);
  for (char c : std::string("\"'\\$`;&|<>()*?"))
    bad.push_back(std::string("a") + c);
  for (const std::string& name : bad) {
    std::string why;
    EXPECT_FALSE(valid_dataset_name(name, why)) << name;
    EXPECT_FALSE(why.empty()) << name;
  }
}

TEST(Names, paths) {
  std::string why;
  for (const char* good : {"/", "/a", "/a//b/", "/mnt/a b/user@host", "/dev/zvol/p/v"})
    EXPECT_TRUE(valid_path(good, why)) << good << why;
  for (const std::string& bad :
       {std::string(""), std::string("a/b"), std::string("/a/../b"), std::string("/a/."),
        std::string("/a/-b"), std::string("/a\"b"), std::string("/a\n"), "/" + std::string(256, 'x'),
        "/" + std::string(5000, '/')})
    EXPECT_FALSE(valid_path(bad, why)) << bad;
  EXPECT_TRUE(valid_dataset_path("tank/pools", why));
  for (const char* bad : {"", "/tank", "tank/", "tank//a", "tank/..", "tank/a@b"})
    EXPECT_FALSE(valid_dataset_path(bad, why)) << bad;
}

}  // namespace
}  // namespace platform
