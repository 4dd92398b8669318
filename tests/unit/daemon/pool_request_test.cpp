#include "daemon/pool_request.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Object;
using json_spirit::Value;
using scsipoold::Pool_Change;
using scsipoold::Pool_Creation;

const char ID[] = "ab1d7f0e-0000-4000-8000-000000000001";

// A good body with some members replaced (null removes one).
Object with(const Object& changes) {
  Object body{{"pool_name", "p"}, {"total_size", 104857600u}, {"fs_type", "btrfs"}};
  for (const auto& change : changes)
    body[change.first] = change.second;
  return body;
}

std::string refusal_of(const Object& body) {
  Pool_Creation creation;
  std::string error;
  return scsipoold::read_pool_creation(body, "btrfs", creation, error) ? "" : error;
}

TEST(Pool_Request, WhatIsWrongIsNamed) {
  const double whole = 104857600.0;
  const struct {
    Object changes;
    const char* error;  // part of it; "": accepted
  } cases[] = {
      {{}, ""},
      {{{"pool_id", ID}, {"retention", 0u}, {"dedup", true}, {"compression", "LZO"}}, ""},
      {{{"total_size", 9223372036854775807u}}, ""},
      {{{"total_size", 9223372036854775808u}}, "'total_size'"},
      {{{"total_size", whole}}, "'total_size'"},
      {{{"bad\nname", 1u}}, "'bad?name': is unknown"},
      {{{"pool_name", 1}}, "'pool_name'"},
      {{{"pool_name", "größe 1"}}, ""},
      {{{"pool_id", "{ab1d7f0e-0000-4000-8000-000000000001}"}}, "'pool_id': must be a UUID"},
      {{{"fs_type", "ZFS"}}, "'fs_type'"},
      {{{"fs_type", "zfs"}, {"pool_id", "1b1d7f0e-0000-4000-8000-000000000001"}},
       "'pool_id': must begin with a letter"},
      {{{"fs_type", "zfs"}, {"compression", "lz4"}}, ""},
      {{{"compression", "zstd"}}, "'compression'"},
      {{{"fs_type", "zfs"}, {"compression", "on\" x=\""}}, "'compression'"},
      {{{"global_dev", "relative"}}, "'global_dev'"},
      {{{"global_dev", "/mnt/../etc"}}, "'global_dev'"},
      {{{"global_dev", "/mnt/device"}}, ""},
      {{{"fs_type", "zfs"}, {"global_dev", "tank/pools"}}, ""},
      {{{"fs_type", "zfs"}, {"global_dev", "tank;reboot"}}, "'global_dev'"},
      {{{"thin_provision", 1}}, "'thin_provision': must be true or false"},
      {{{"retention", 65536u}}, "'retention'"},
      {{{"type", "iscsi"}}, "'type': must be iSCSI or FC"},
      {{{"type", "FC"}}, "'target': is missing"},
      {{{"target", "iqn.2003-01.a/b"}}, "'target'"},
      {{{"extended_attrs", Value::array()}}, "'extended_attrs'"},
      {{{"extended_attrs", Object{{"async", "no"}}}}, "'extended_attrs.async'"},
      {{{"extended_attrs", Object{{"block_size", -1}}}}, "'extended_attrs.block_size'"},
      {{{"extended_attrs", Object{{"note", 1.5}}}}, ""},
      {{{"replace_orphan", true}}, "'replace_orphan': needs a pool_id"},
  };
  for (const auto& one : cases) {
    const std::string error = refusal_of(with(one.changes));
    const std::string shown = JSON_Dump(one.changes);
    if (*one.error == '\0') {
      EXPECT_EQ("", error) << shown;
    } else {
      EXPECT_NE(std::string::npos, error.find(one.error)) << shown << "\n" << error;
    }
  }
}

TEST(Pool_Request, DefaultsMakeThePoolUsable) {
  Pool_Creation creation;
  std::string error;
  const Object given{{"checksum", false}};
  ASSERT_TRUE(scsipoold::read_pool_creation({{"pool_name", "p"},
                                             {"total_size", 1u},
                                             {"extended_attrs", given},
                                             {"pool_id", "AB1D7F0E-0000-4000-8000-000000000001"}},
                                            "zfs", creation, error))
      << error;
  EXPECT_EQ(ID, creation.id);
  EXPECT_EQ("zfs", creation.option.fs_type);
  EXPECT_EQ(TYPE_ISCSI, creation.option.lun_type);
  EXPECT_EQ(0u, creation.option.target.find("iqn.2003-01."));
  EXPECT_EQ(24, creation.option.retention);
  const Object expected{{"async", false}, {"checksum", false}, {"block_size", 0u}};
  EXPECT_EQ(Value(expected), Value(creation.option.ext_attrs));
  unsigned size = 1;
  EXPECT_TRUE(json_spirit::object_find(creation.option.ext_attrs, "block_size", size));
}

TEST(Pool_Request, TargetsAreMadeFromHostAndName) {
  EXPECT_EQ("iqn.2003-01.org.example.backup:one", scsipoold::default_target("Backup.example.org", "one"));
  EXPECT_EQ("iqn.2003-01.local.scsipool:one", scsipoold::default_target("", "one"));
  // Names that would come to the same text keep targets of their own.
  const std::string names[] = {
      "a b", "a-b", "A b", "a_b", "größe", std::string(200, 'x'), std::string(201, 'x')};
  for (const std::string& one : names) {
    const std::string target = scsipoold::default_target("h_1", one);
    EXPECT_LE(target.size(), 223u);
    EXPECT_EQ(std::string::npos, target.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789.:-"))
        << target;
    for (const std::string& other : names) {
      EXPECT_EQ(one == other, target == scsipoold::default_target("h_1", other)) << one << " " << other;
    }
  }
}

TEST(Pool_Request, AChangeNeedsSomethingToChange) {
  const struct {
    Object body;
    const char* error;
  } cases[] = {
      {{{"pool_id", ID}, {"retention", 5u}}, ""},
      {{{"pool_id", ID}, {"pool_name", "new"}, {"extended_attrs", Object{{"backstore_trim", true}}}}, ""},
      {{{"retention", 5u}}, "'pool_id': is missing"},
      {{{"pool_id", ID}}, "nothing to change"},
      {{{"pool_id", ID}, {"retention", 0u}}, "'retention'"},
      {{{"pool_id", ID}, {"pool_name", ""}}, "'pool_name'"},
      {{{"pool_id", ID}, {"retention", 5u}, {"total_size", 5u}}, "'total_size': is unknown"},
      {{{"pool_id", ID}, {"extended_attrs", Object{{"backstore_trim", 1}}}},
       "'extended_attrs.backstore_trim'"},
  };
  for (const auto& one : cases) {
    Pool_Change change;
    std::string error;
    EXPECT_EQ(*one.error == '\0', scsipoold::read_pool_change(one.body, change, error)) << error;
    EXPECT_NE(std::string::npos, error.find(one.error)) << error;
  }
}

}  // namespace
