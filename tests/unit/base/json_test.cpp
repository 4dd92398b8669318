#include "platform/json/json_spirit.h"

#include <gtest/gtest.h>

#include "platform/base/file.h"
#include "tests/support/temp_dir.h"

namespace {

using json_spirit::Object;
using json_spirit::object_find;

Object parse(const std::string& text) {
  json_spirit::Value value;
  EXPECT_TRUE(loads_json(text, value)) << text;
  return *json_spirit::get_object(value);
}

TEST(Json, accessors_take_exactly_the_type_asked_for) {
  const Object object =
      parse(R"({"n": -1, "one": 1, "big": 65536, "s": "x", "b": true, "f": 1.0, "z": null})");
  unsigned long number = 7;
  EXPECT_FALSE(object_find(object, "n", number));
  EXPECT_FALSE(object_find(object, "f", number));
  EXPECT_FALSE(object_find(object, "z", number));
  EXPECT_EQ(number, 7u);
  unsigned short small = 7;
  EXPECT_FALSE(object_find(object, "big", small));
  bool flag = false;
  EXPECT_FALSE(object_find(object, "one", flag));
  EXPECT_TRUE(object_find(object, "b", flag) && flag);
  std::string text;
  EXPECT_FALSE(object_find(object, "one", text));
  EXPECT_TRUE(object_find(object, "s", text));
}

TEST(Json, files_and_text_that_are_no_json_are_refused) {
  const Temp_Dir dir;
  json_spirit::Value value = 5;
  const std::string deep(100000, '[');  // more than the stack can take apart
  for (const std::string& text : {std::string(), std::string("{"), std::string("{} x"),
                                  std::string("{\"a\":}"), deep + std::string(100000, ']')}) {
    ASSERT_TRUE(platform::write_file_atomically(dir / "f", text, 0600));
    EXPECT_FALSE(load_json(dir / "f", value)) << text;
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_FALSE(load_json(dir / "none", value));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(value, 5);
}

TEST(Json, dump_never_throws_on_bytes_that_are_no_text) {
  EXPECT_EQ(JSON_Dump(json_spirit::Value("\xff")), "\"\xef\xbf\xbd\"");
}

}  // namespace
