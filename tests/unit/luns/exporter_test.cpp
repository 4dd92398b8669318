// Exports over the fake target tree: modes, what a failure takes back, and whose LUN is removed.

#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/lun_fixture.h"

namespace {

class Exports : public Lun_Fixture {
 protected:
  Exports() { EXPECT_TRUE(make_lun(A) && make_lun(B)) << log_.dump(); }

  bool export_volume(const std::string& id, Exporter::Export_Info info) {
    Exporter exporter(POOL, id);
    const bool good = exporter.open() && exporter.create_lun(SIZE, info);
    last_ = info;
    return good;
  }
  bool unexport(const std::string& id, bool force) {
    Exporter exporter(POOL, id);
    Exporter::Export_Info info;
    return exporter.open() && exporter.export_info(info) && exporter.delete_lun(info, force);
  }
  std::string image(const std::string& id) { return pool().folder + "/" + id + "/lun_backstore"; }
  std::string about(const std::string& id) { return "sub volume '" + id + "' in pool '" + POOL + "':"; }

  Exporter::Export_Info last_;
};

TEST_F(Exports, images_are_made_sparse_and_only_where_they_belong) {
  ASSERT_TRUE(export_volume(A, request()));
  struct stat status {};
  ASSERT_EQ(::stat(image(A).c_str(), &status), 0);
  EXPECT_EQ(static_cast<ACE_UINT64>(status.st_size), SIZE);
  EXPECT_LT(static_cast<ACE_UINT64>(status.st_blocks) * 512, SIZE);
  ASSERT_EQ(::rmdir((pool().folder + "/" + B).c_str()), 0);  // not mounted
  EXPECT_FALSE(export_volume(B, request()));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to export " + about(B) + "failed to get dataset\n"));
  EXPECT_NE(::access((pool().folder + "/" + B).c_str(), F_OK), 0);
  pool().folder = "/dev/no-such-pool";
  EXPECT_FALSE(export_volume(B, request()));
  EXPECT_TRUE(log_.contains(LM_ERROR, "is not a block device\n")) << log_.dump();
  EXPECT_EQ(lio_.backstores(), 1u);
}

TEST_F(Exports, a_failed_step_leaves_no_lun_no_backstore_and_no_record) {
  const struct {
    const char* operation;  // on the tree
    std::string end;        // of the path
    const char* message;    // after volume and pool
    bool with_acls;
  } cases[] = {
      {"mkdir", "tpgt_1", "failed to create target ", false},
      {"mkdir", ":3260", "failed to add net portal", false},
      {"mkdir", A, "failed to create backstore", false},
      {"mkdir", "/lun/lun_0", "failed to create LUN", false},
      {"write", "generate_node_acls", "failed to set demo mode in target ", false},
      {"mkdir", HOST, "failed to set ACL mode in target ", true},
      {"write", "tpgt_1/enable", "failed to enable target ", true},
      {"", "", "failed to add database entry\n", false},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.message);
    log_.clear();
    lio_.tree().fail(one.operation, one.end, EIO, one.end == ":3260" ? 2 : 1);
    if (one.end.empty()) {
      ASSERT_TRUE(rows().del_volume(POOL, A));
    }
    EXPECT_FALSE(export_volume(A, request(one.with_acls ? acls(HOST) : LIO_ACLs{})));
    EXPECT_TRUE(log_.contains(LM_ERROR, one.message)) << log_.dump();
    EXPECT_EQ(lio_.backstores(), 0u);
    EXPECT_TRUE(lio_.group(TARGET).luns.empty());
    Array records;
    EXPECT_TRUE(rows().list_export(POOL, records, A.c_str()) && records.empty());
  }
}

TEST_F(Exports, a_number_that_is_anothers_by_now_destroys_nothing) {
  ASSERT_TRUE(export_volume(B, request(acls(HOST))));
  // What is left when the record could not be dropped after the LUN had been removed.
  ASSERT_TRUE(rows().add_export(A, POOL, 0, R"([{"initiator":"iqn.2026-01.org.client:h2"}])", "iSCSI",
                                TARGET.c_str()));
  Exporter exporter(POOL, A);
  ASSERT_TRUE(exporter.open());
  Exporter::LIO_Lun_Detail detail;
  EXPECT_FALSE(exporter.get_lun_detail(detail, nullptr));
  EXPECT_FALSE(exporter.update_acl(acls(HOST), true));
  EXPECT_FALSE(exporter.update_acl(acls(OTHER_HOST), false));
  EXPECT_EQ(detail.vpd_serial_number, "");
  EXPECT_EQ(lio_.group(TARGET).luns.at(0).acls.size(), 1u);
  ASSERT_TRUE(unexport(A, false)) << log_.dump();
  EXPECT_FALSE(exported(A).status);
  EXPECT_TRUE(exported(B).status);
  EXPECT_EQ(lio_.group(TARGET).luns.at(0).path, image(B));
}

TEST_F(Exports, a_lun_that_moved_to_another_number_is_found) {
  ASSERT_TRUE(export_volume(A, request()) && export_volume(B, request()));
  ASSERT_TRUE(rows().del_export(POOL, B));
  ASSERT_TRUE(rows().add_export(B, POOL, 0, "[]", "iSCSI", TARGET.c_str()));  // A's number
  ASSERT_TRUE(unexport(B, false)) << log_.dump();
  EXPECT_EQ(lio_.group(TARGET).luns.at(0).path, image(A));
  EXPECT_EQ(lio_.group(TARGET).luns.size(), 1u);
}

TEST_F(Exports, an_export_that_the_kernel_lost_is_dropped_with_force) {
  ASSERT_TRUE(export_volume(A, request()));
  lio_.tree().reboot();
  EXPECT_FALSE(unexport(A, false));
  EXPECT_EQ(log_.errors(), "Failed to unexport " + about(A) + "target " + TARGET + " tpg does not exist\n");
  EXPECT_TRUE(exported(A).status);
  EXPECT_TRUE(unexport(A, true)) << log_.dump();
  EXPECT_FALSE(exported(A).status);
  std::vector<LIO_Export> saved;
  EXPECT_TRUE(LIO_Saved_Config::list_saved(saved) && saved.empty());
}

TEST_F(Exports, a_failed_removal_keeps_the_record) {
  ASSERT_TRUE(export_volume(A, request()) && export_volume(B, request()));
  lio_.tree().fail("rmdir", "/lun/lun_0", EBUSY);
  EXPECT_FALSE(unexport(A, true));
  EXPECT_TRUE(
      log_.has(LM_ERROR, "Failed to unexport " + about(A) + "failed to delete target " + TARGET + " LUN\n"));
  EXPECT_TRUE(exported(A).status);
}

TEST_F(Exports, initiators_come_and_go) {
  ASSERT_TRUE(export_volume(A, request(acls(HOST))));
  Exporter exporter(POOL, A);
  ASSERT_TRUE(exporter.open());
  lio_.tree().clear_changes();
  EXPECT_TRUE(exporter.update_acl({{HOST, "another"}}, true));  // recorded already
  EXPECT_TRUE(exporter.update_acl(acls(OTHER_HOST), false));    // not recorded
  EXPECT_TRUE(lio_.tree().changes().empty());
  lio_.tree().fail("mkdir", OTHER_HOST, EIO, 1);
  EXPECT_FALSE(exporter.update_acl(acls(OTHER_HOST), true));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to update '" + TARGET + "' ACL\n"));
  EXPECT_EQ(exported(A).acls.size(), 1u);
  ASSERT_TRUE(exporter.update_acl({{HOST, ""}, {OTHER_HOST, ""}}, true)) << log_.dump();
  EXPECT_EQ(lio_.group(TARGET).luns.at(0).acls.size(), 2u);
  ASSERT_TRUE(exporter.update_acl(acls(HOST), false));
  EXPECT_EQ(lio_.group(TARGET).luns.at(0).acls.size(), 1u);
  ASSERT_EQ(exported(A).acls.size(), 1u);
  EXPECT_EQ(exported(A).acls[0].initiator, OTHER_HOST);
}

TEST_F(Exports, a_bad_record_or_type_is_an_error) {
  Exporter exporter(POOL, A);
  ASSERT_TRUE(exporter.open());
  ASSERT_TRUE(rows().add_export(A, POOL, 0, "{", "iSCSI", TARGET.c_str()));
  Exporter::Export_Info info;
  EXPECT_FALSE(exporter.export_info(info));
  EXPECT_FALSE(info.status);
  EXPECT_TRUE(log_.contains(LM_ERROR, "Failed to get export info: ")) << log_.dump();
  info.type = "null";
  EXPECT_FALSE(exporter.delete_lun(info, true) || export_volume(B, info));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to unexport " + about(A) + "null type is not support\n"));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to export " + about(B) + "null type is not support\n"));
}

}  // namespace
