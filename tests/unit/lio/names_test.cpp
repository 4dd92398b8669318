#include <gtest/gtest.h>

#include "platform/lio/lio_names.h"
#include "platform/lio/lio_record.h"
#include "platform/lio/lio_types.h"

using lio::Name_Form;

TEST(Lio_Names, normal_name) {
  const std::string longest = "iqn.2026-11.org.example:" + std::string(223 - 24, 'x');
  struct Case {
    Name_Form form;
    std::string given;
    std::string normal;  // empty: refused
  };
  const Case cases[] = {
      {Name_Form::iscsi, "iqn.2026-11.org.example", "iqn.2026-11.org.example"},
      {Name_Form::iscsi, "IQN.2026-11.Org.Example:Disk_1", "iqn.2026-11.org.example:disk_1"},
      {Name_Form::iscsi, longest, longest},
      {Name_Form::iscsi, longest + "x", ""},
      {Name_Form::iscsi, "eui.0123456789ABCDEF", "eui.0123456789abcdef"},
      {Name_Form::iscsi, "eui.0123456789abcde", ""},
      {Name_Form::iscsi, "naa.0123456789abcdef0123456789abcdef", "naa.0123456789abcdef0123456789abcdef"},
      {Name_Form::iscsi, "naa.0123456789abcdef01", ""},
      {Name_Form::iscsi, "iqn.2026-13.org.example:a", ""},
      {Name_Form::iscsi, "iqn.2026-11.:a", ""},
      {Name_Form::iscsi, "iqn.2026-11.org.example:", ""},
      {Name_Form::iscsi, "iqn.2026-11.org.example:a b", ""},
      {Name_Form::iscsi, "iqn.2026-11.org.example:a\nb", ""},
      {Name_Form::iscsi, "iqn.2026-11.org.example:a/../b", ""},
      {Name_Form::iscsi, "iqn.2026-11.org.example:a,b", ""},
      {Name_Form::iscsi, "foo", ""},
      {Name_Form::iscsi, "", ""},
      {Name_Form::fibre_channel, "21:00:00:24:FF:31:4c:48", "21:00:00:24:ff:31:4c:48"},
      {Name_Form::fibre_channel, "naa.21000024ff314c48", "21:00:00:24:ff:31:4c:48"},
      {Name_Form::fibre_channel, "21000024ff314c48", "21:00:00:24:ff:31:4c:48"},
      {Name_Form::fibre_channel, "21-00-00-24-ff-31-4c-48", ""},
      {Name_Form::fibre_channel, "iqn.2026-11.org.example", ""},
      {Name_Form::loopback, "naa.5001405AABBCCDD1", "naa.5001405aabbccdd1"},
      {Name_Form::loopback, "iqn.2026-11.org.example", ""},
  };
  for (const Case& one : cases) {
    std::string normal, why;
    EXPECT_EQ(!one.normal.empty(), lio::normal_name(one.form, one.given, normal, why)) << one.given;
    EXPECT_EQ(one.normal, normal) << one.given;
    EXPECT_EQ(one.normal.empty(), !why.empty()) << one.given;
  }
}

TEST(Lio_Names, backstore_paths) {
  std::string why;
  EXPECT_TRUE(lio::valid_backstore_path("/dev/zvol/pool one/" + std::string(200, 'v'), why));
  for (const std::string& path :
       {std::string("relative"), std::string("/a,b"), std::string("/a\nb"), std::string(),
        "/" + std::string(255, 'x'), std::string("/a/../b"), std::string("/a/..")})
    EXPECT_FALSE(lio::valid_backstore_path(path, why)) << path;
}

TEST(Lio_Names, serial_comes_from_the_volume_in_the_path) {
  const std::string uuid = "0a1b2c3d-1111-4222-8333-444455556666";
  EXPECT_EQ(uuid, lio::serial_of_path("/dev/zvol/pool/0A1B2C3D-1111-4222-8333-444455556666"));
  EXPECT_EQ(uuid, lio::serial_of_path("/orbistor/scsipool/p/" + uuid + "/lun_backstore"));
  EXPECT_NE(uuid, lio::serial_of_path("/" + uuid + "/p/lun_backstore"));
  EXPECT_NE(lio::serial_of_path("/dev/loop1"), lio::serial_of_path("/dev/loop2"));
  EXPECT_EQ(lio::serial_of_path("/dev/loop1"), lio::serial_of_path("/dev/loop1"));
  // Initiators see 25 digits only.
  EXPECT_EQ(lio::device_identity("11111111-2222-3333-4444-555555555aaa"),
            lio::device_identity("11111111-2222-3333-4444-555555555BBB"));
  EXPECT_NE(lio::device_identity("11111111-2222-3333-4444-555555555aaa"),
            lio::device_identity("11111111-2222-3333-4444-655555555aaa"));
}

TEST(Lio_Names, numbers_are_written_one_way) {
  unsigned number = 7;
  for (const char* name :
       {"lun_", "lun_00", "lun_-1", "lun_65536", "lun_x", "tpgt_1", "lun_ 1", "lun_4294967296"})
    EXPECT_FALSE(lio::numbered_name(name, "lun_", number)) << name;
  EXPECT_EQ(7u, number);
  EXPECT_TRUE(lio::numbered_name("lun_65535", "lun_", number));
  EXPECT_EQ(65535u, number);
}

TEST(Lio_Numbers, choice) {
  std::set<unsigned> all;
  for (unsigned number = 0; number <= 65534; ++number)
    all.insert(number);
  std::set<unsigned> all_but_nine = all;
  all_but_nine.erase(9);
  struct Case {
    int former;
    std::set<unsigned> used, kept;
    int chosen;
  };
  const Case cases[] = {
      {-1, {}, {}, 0}, {-1, {0, 2}, {}, 1}, {-1, {0}, {1}, 2},          {5, {0}, {}, 5},
      {0, {0}, {}, 1}, {2, {0}, {2}, 2},    {-1, all_but_nine, {9}, 9}, {-1, all, {}, -1},
  };
  for (const Case& one : cases)
    EXPECT_EQ(one.chosen, lio::choose_number(one.former, one.used, one.kept));
}

TEST(Lio_Types, acls_as_text) {
  LIO_ACLs acls{{"iqn.a", "host"}, {"iqn.b", ""}};
  std::string text;
  acls >> text;
  EXPECT_EQ(R"([{"host_uuid":"host","initiator":"iqn.a"},{"host_uuid":"","initiator":"iqn.b"}])", text);
  LIO_ACLs back{{"iqn.first", ""}};
  EXPECT_TRUE(back << text);
  ASSERT_EQ(3u, back.size());
  EXPECT_EQ("host", back[1].host_uuid);
  EXPECT_TRUE(back << std::string(R"([{"initiator":"iqn.c"}])"));
  EXPECT_TRUE(back << std::string());
  for (const char* wrong :
       {"{}", "[1]", "[{}]", R"([{"initiator":1}])", R"([{"initiator":"a","host_uuid":null}])", "["})
    EXPECT_FALSE(back << std::string(wrong)) << wrong;
  EXPECT_EQ(4u, back.size());
  LIO_Target_Type type = TYPE_ISCSI;
  EXPECT_FALSE(lio_target_string_to_type("iscsi", type));
  EXPECT_EQ(TYPE_UNKNOWN, type);
}
