#include "daemon/config.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/temp_dir.h"

namespace {

using scsipoold::Config;

std::string error_of(const std::string& text) {
  Config config;
  json_spirit::Value value;
  std::string error;
  if (!loads_json(text, value)) return "not JSON";
  return scsipoold::parse_config(value, config, error) ? "" : error;
}

TEST(Config, WhatIsWrongIsNamed) {
  const struct {
    const char* text;
    const char* error;  // part of it; "": accepted
  } cases[] = {
      {R"({})", ""},
      {R"([])", "must be a JSON object"},
      {R"({"sockets": "/x"})", "'sockets': is unknown"},
      {R"({"socket": 1})", "'socket': must be a string"},
      {R"({"socket": null})", "'socket': must be a string, not null"},
      {R"({"socket": "x"})", "'socket': must be an absolute path"},
      {R"({"socket": ""})", "'socket': must not be empty"},
      {R"({"data_folder": "../x"})", "'data_folder': must be an absolute path"},
      {R"({"log_level": "loud"})", "'log_level'"},
      {R"({"listen": {}})", "'listen': must be an array"},
      {R"({"listen": [1]})", "'listen[0]': must be an object"},
      {R"({"listen": [{"port": 8643}]})", "'access_key_file': is missing"},
      {R"({"listen": [{"port": 8643}], "access_key_file": "/k"})", ""},
      {R"({"listen": [{"address": "::"}], "access_key_file": "/k"})", "'listen[0].port': is missing"},
      {R"({"listen": [{"port": 1}, {"port": 65536}], "access_key_file": "/k"})", "'listen[1].port'"},
      {R"({"listen": [{"port": 1.5}], "access_key_file": "/k"})", "'listen[0].port'"},
      {R"({"listen": [{"port": true}], "access_key_file": "/k"})", "'listen[0].port'"},
      {R"({"listen": [{"port": 1, "tls": true}], "access_key_file": "/k"})", "'listen[0].tls': is unknown"},
      {R"({"tls": {"certificate": "/c"}})", "'tls.key': is missing"},
      {R"({"tls": {"key": "/c"}})", "'tls.certificate': is missing"},
      {R"({"tls": {"ca": "/c"}})", ""},
      {R"({"module": {"filesystem": "ext4"}})", "'module.filesystem': must be zfs or btrfs"},
      {R"({"module": {"block_size": -1}})", "'module.block_size'"},
      {R"({"module": {"mount_point": "/a b"}})", "'module.mount_point': must hold no blank"},
      {R"({"module": {"global_device": "a\""}})", "'module.global_device': must hold no blank"},
      {R"({"module": {"library": ""}})", "'module.library': must not be empty"},
      {R"({"module": {"svc_conf": "/x", "filesystem": "zfs"}})",
       "'module.filesystem': cannot go with svc_conf"},
      {R"({"module": {"svc_conf": "x"}})", "'module.svc_conf': must be an absolute path"},
      {R"({"lio": {"lock": "/x"}})", "'lio.lock': is unknown"},
  };
  for (const auto& one : cases) {
    const std::string error = error_of(one.text);
    if (*one.error == '\0') {
      EXPECT_EQ("", error) << one.text;
    } else {
      EXPECT_NE(std::string::npos, error.find(one.error)) << one.text << "\n" << error;
    }
  }
}

TEST(Config, SampleConfigurationsAreFine) {
  const std::string folder = TEST_SUPPORT_DIR "/../../packaging/";
  for (const char* name : {"scsipool.json", "scsipool-tls.json", "scsipool-svc.json"}) {
    Config config;
    std::string error;
    EXPECT_TRUE(scsipoold::load_config(folder + name, config, error)) << error;
  }
}

TEST(Config, FilesThatCannotBeReadAreNamed) {
  Temp_Dir dir;
  Config config;
  std::string error;
  EXPECT_FALSE(scsipoold::load_config(dir / "none", config, error));
  EXPECT_EQ(dir / "none" + ": No such file or directory", error);
  std::ofstream(dir / "cut") << R"({"socket": "/x")";
  EXPECT_FALSE(scsipoold::load_config(dir / "cut", config, error));
  EXPECT_EQ(0u, error.find(dir / "cut" + ": is not JSON: parse error at line 1, column 16: ")) << error;
  EXPECT_FALSE(scsipoold::load_config(dir.path(), config, error));
  EXPECT_EQ(dir.path() + ": Is a directory", error);
}

}  // namespace
