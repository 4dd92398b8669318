// Exports against a target library in memory: modes, numbers, what a failure takes back, and whose LUN is
// removed.

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

TEST_F(Exports, first_without_acls_is_demo_mode_and_later_acls_are_ignored) {
  ASSERT_TRUE(export_volume(A, request())) << log_.dump();
  ASSERT_TRUE(export_volume(B, request(acls(HOST)))) << log_.dump();
  const auto group = lio_->group(TARGET);
  EXPECT_TRUE(group.demo && group.enabled);
  EXPECT_EQ(group.luns.size(), 2u);
  EXPECT_TRUE(group.luns.at(1).acls.empty());
  EXPECT_FALSE(group.portals.empty());
  EXPECT_TRUE(log_.has(LM_DEBUG, "target '" + TARGET + "' is demo mode, ignore acls\n"));
  const auto info = exported(B);
  EXPECT_TRUE(info.status);
  EXPECT_EQ(info.lun_num, 1);
  EXPECT_EQ(info.type, "iSCSI");
  EXPECT_EQ(info.target, TARGET);
  ASSERT_EQ(info.acls.size(), 1u);
  EXPECT_EQ(info.acls[0].initiator, HOST);
}

TEST_F(Exports, acls_make_acl_mode_and_then_everybody_needs_them) {
  ASSERT_TRUE(export_volume(A, request(acls(HOST))));
  EXPECT_FALSE(lio_->group(TARGET).demo);
  EXPECT_EQ(lio_->group(TARGET).luns.at(0).acls.at(0).initiator, HOST);
  const auto backstores = lio_->count("create_backstore");
  EXPECT_FALSE(export_volume(B, request()));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to export " + about(B) + "lack of ACLs\n"));
  EXPECT_EQ(lio_->count("create_backstore"), backstores);
}

TEST_F(Exports, an_empty_fc_group_changes_its_mode_both_ways) {
  auto fc = request();
  fc.type = "FC";
  fc.target = "21:00:00:24:ff:00:00:01";
  auto listed = fc;
  listed.acls = acls("21:00:00:24:ff:00:00:09");
  for (const bool demo : {true, false, true}) {
    ASSERT_TRUE(export_volume(A, demo ? fc : listed)) << log_.dump();
    EXPECT_EQ(lio_->group(fc.target).demo, demo);
    ASSERT_TRUE(unexport(A, false));
    EXPECT_TRUE(lio_->has_target(fc.target));
  }
}

TEST_F(Exports, an_exported_volume_keeps_its_export) {
  ASSERT_TRUE(export_volume(A, request(acls(HOST))));
  lio_->clear_calls();
  auto other = request(acls(OTHER_HOST));
  other.target = "iqn.2026-01.org.example:t2";
  ASSERT_TRUE(export_volume(A, other));
  EXPECT_EQ(last_.target, TARGET);
  EXPECT_EQ(last_.acls.at(0).initiator, HOST);
  EXPECT_TRUE(lio_->calls().empty());
}

TEST_F(Exports, images_are_made_sparse_and_only_in_their_folder) {
  ASSERT_TRUE(export_volume(A, request()));
  struct stat status {};
  ASSERT_EQ(::stat(image(A).c_str(), &status), 0);
  EXPECT_EQ(static_cast<ACE_UINT64>(status.st_size), SIZE);
  EXPECT_LT(static_cast<ACE_UINT64>(status.st_blocks) * 512, SIZE);
  EXPECT_EQ(lio_->backstores().begin()->second.type, LIO_Backstore::file);
  ASSERT_EQ(::rmdir((pool().folder + "/" + B).c_str()), 0);  // not mounted
  EXPECT_FALSE(export_volume(B, request()));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to export " + about(B) + "failed to get dataset\n"));
  EXPECT_NE(::access((pool().folder + "/" + B).c_str(), F_OK), 0);
}

TEST_F(Exports, a_missing_device_node_is_not_replaced_by_a_file) {
  pool().folder = "/dev/no-such-pool";
  EXPECT_FALSE(export_volume(A, request()));
  EXPECT_TRUE(log_.contains(LM_ERROR, "is not a block device\n")) << log_.dump();
  EXPECT_EQ(lio_->count("create_backstore"), 0u);
}

struct Failure_Case {
  const char* name;
  const char* operation;  // of the target library
  const char* message;    // after volume and pool
  bool with_acls;
};

class Export_Failures : public Exports, public testing::WithParamInterface<Failure_Case> {};

TEST_P(Export_Failures, leave_no_lun_no_backstore_and_no_record) {
  lio_->fail(GetParam().operation);
  EXPECT_FALSE(export_volume(A, request(GetParam().with_acls ? acls(HOST) : LIO_ACLs{})));
  EXPECT_TRUE(log_.contains(LM_ERROR, GetParam().message)) << log_.dump();
  EXPECT_TRUE(lio_->backstores().empty());
  EXPECT_TRUE(!lio_->has_target(TARGET) || lio_->group(TARGET).luns.empty());
  EXPECT_FALSE(exported(A).status);
}

INSTANTIATE_TEST_SUITE_P(
    all, Export_Failures,
    testing::Values(Failure_Case{"manager", "get_manager", "failed to create target manager", false},
                    Failure_Case{"group", "create_or_get_tpg", "failed to create target ", false},
                    Failure_Case{"portal", "add_net_portals", "failed to add net portal", false},
                    Failure_Case{"backstore", "create_backstore", "failed to create backstore", false},
                    Failure_Case{"lun", "create_lun", "failed to create LUN", false},
                    Failure_Case{"demo", "set_demo_mode", "failed to set demo mode in target ", false},
                    Failure_Case{"acl_mode", "set_acl_mode", "failed to set ACL mode in target ", true},
                    Failure_Case{"acls", "add_acls", "failed to set ACL mode in target ", true},
                    Failure_Case{"enable", "enable", "failed to enable target ", true}),
    [](const auto& each) { return each.param.name; });

TEST_F(Exports, a_failed_record_takes_the_lun_back) {
  ASSERT_TRUE(rows().del_volume(POOL, A));
  EXPECT_FALSE(export_volume(A, request()));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to export " + about(A) + "failed to add database entry\n"));
  EXPECT_TRUE(lio_->group(TARGET).luns.empty() && lio_->backstores().empty());
}

TEST_F(Exports, other_types_are_refused) {
  auto info = request();
  info.type = "null";
  EXPECT_FALSE(export_volume(A, info));
  Exporter exporter(POOL, A);
  EXPECT_TRUE(exporter.open());
  EXPECT_FALSE(exporter.delete_lun(info, true));
  EXPECT_EQ(log_.errors(), "Failed to export " + about(A) + "null type is not support\nFailed to unexport " +
                               about(A) + "null type is not support\n");
}

TEST_F(Exports, the_last_lun_takes_the_iscsi_target_along) {
  ASSERT_TRUE(export_volume(A, request()) && export_volume(B, request()));
  ASSERT_TRUE(unexport(A, false)) << log_.dump();
  EXPECT_EQ(lio_->group(TARGET).luns.size(), 1u);
  ASSERT_TRUE(unexport(B, false)) << log_.dump();
  EXPECT_FALSE(lio_->has_target(TARGET));
  EXPECT_TRUE(lio_->backstores().empty());
  EXPECT_FALSE(exported(A).status || exported(B).status);
}

TEST_F(Exports, a_busy_target_needs_force) {
  ASSERT_TRUE(export_volume(A, request()));
  lio_->set_busy(TARGET, 1);
  EXPECT_FALSE(unexport(A, false));
  EXPECT_EQ(log_.errors(), "Failed to unexport " + about(A) + "target " + TARGET + " is busy\n");
  EXPECT_TRUE(exported(A).status);
  EXPECT_TRUE(unexport(A, true));
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
  EXPECT_EQ(lio_->group(TARGET).luns.at(0).acls.size(), 1u);
  ASSERT_TRUE(unexport(A, false)) << log_.dump();
  EXPECT_FALSE(exported(A).status);
  EXPECT_TRUE(exported(B).status);
  EXPECT_EQ(lio_->path_of_lun(TARGET, 0), image(B));
}

TEST_F(Exports, a_lun_that_moved_to_another_number_is_found) {
  ASSERT_TRUE(export_volume(A, request()) && export_volume(B, request()));
  ASSERT_TRUE(rows().del_export(POOL, B));
  ASSERT_TRUE(rows().add_export(B, POOL, 0, "[]", "iSCSI", TARGET.c_str()));  // A's number
  ASSERT_TRUE(unexport(B, false)) << log_.dump();
  EXPECT_EQ(lio_->path_of_lun(TARGET, 0), image(A));
  EXPECT_EQ(lio_->group(TARGET).luns.size(), 1u);
}

TEST_F(Exports, an_export_that_the_kernel_lost_is_dropped_with_force) {
  ASSERT_TRUE(export_volume(A, request()));
  lio_->empty();
  EXPECT_FALSE(unexport(A, false));
  EXPECT_EQ(log_.errors(), "Failed to unexport " + about(A) + "target " + TARGET + " tpg does not exist\n");
  EXPECT_TRUE(exported(A).status);
  EXPECT_TRUE(unexport(A, true)) << log_.dump();
  EXPECT_FALSE(exported(A).status);
  EXPECT_EQ(lio_->count("forget"), 1u);
}

TEST_F(Exports, a_failed_removal_keeps_the_record) {
  ASSERT_TRUE(export_volume(A, request()) && export_volume(B, request()));
  lio_->fail("destroy_lun");
  EXPECT_FALSE(unexport(A, true));
  EXPECT_EQ(log_.errors(), "Failed to unexport " + about(A) + "failed to delete target " + TARGET + " LUN\n");
  EXPECT_TRUE(exported(A).status);
}

TEST_F(Exports, initiators_come_and_go) {
  ASSERT_TRUE(export_volume(A, request(acls(HOST))));
  Exporter exporter(POOL, A);
  ASSERT_TRUE(exporter.open());
  lio_->clear_calls();
  EXPECT_TRUE(exporter.update_acl(acls(HOST), true));         // recorded already
  EXPECT_TRUE(exporter.update_acl(acls(OTHER_HOST), false));  // not recorded
  EXPECT_TRUE(lio_->calls().empty());
  ASSERT_TRUE(exporter.update_acl({{HOST, ""}, {OTHER_HOST, ""}}, true)) << log_.dump();
  EXPECT_EQ(lio_->group(TARGET).luns.at(0).acls.size(), 2u);
  EXPECT_EQ(exported(A).acls.at(1).initiator, OTHER_HOST);
  ASSERT_TRUE(exporter.update_acl(acls(HOST), false));
  EXPECT_EQ(lio_->group(TARGET).luns.at(0).acls.size(), 1u);
  ASSERT_EQ(exported(A).acls.size(), 1u);
  EXPECT_EQ(exported(A).acls[0].initiator, OTHER_HOST);
  lio_->fail("add_acls");
  EXPECT_FALSE(exporter.update_acl(acls(HOST), true));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to update '" + TARGET + "' ACL\n"));
  EXPECT_EQ(exported(A).acls.size(), 1u);
}

TEST_F(Exports, demo_mode_keeps_its_recorded_initiators) {
  ASSERT_TRUE(export_volume(A, request()));
  Exporter exporter(POOL, A);
  ASSERT_TRUE(exporter.open());
  EXPECT_TRUE(exporter.update_acl(acls(HOST), true));
  EXPECT_TRUE(exported(A).acls.empty());
  ASSERT_TRUE(export_volume(B, request()));
  ASSERT_TRUE(unexport(B, true));
  Exporter none(POOL, B);
  ASSERT_TRUE(none.open());
  EXPECT_TRUE(none.update_acl(acls(HOST), true));  // not exported
}

TEST_F(Exports, serial_is_read_from_the_backstore) {
  Exporter exporter(POOL, A);
  ASSERT_TRUE(exporter.open());
  Exporter::LIO_Lun_Detail detail;
  EXPECT_TRUE(exporter.get_lun_detail(detail, nullptr));
  EXPECT_EQ(detail.vpd_serial_number, "");
  ASSERT_TRUE(export_volume(A, request()));
  EXPECT_TRUE(exporter.get_lun_detail(detail, nullptr)) << log_.dump();
  EXPECT_EQ(detail.vpd_serial_number, lio_->backstores().begin()->second.serial);
  EXPECT_NE(detail.vpd_serial_number, "");
}

TEST_F(Exports, a_bad_record_is_an_error) {
  Exporter exporter(POOL, A);
  ASSERT_TRUE(exporter.open());
  ASSERT_TRUE(rows().add_export(A, POOL, 0, "{", "iSCSI", TARGET.c_str()));
  Exporter::Export_Info info;
  EXPECT_FALSE(exporter.export_info(info));
  EXPECT_FALSE(info.status);
  EXPECT_TRUE(log_.contains(LM_ERROR, "Failed to get export info: ")) << log_.dump();
}

TEST(Initiators, match_by_name_alone) {
  const LIO_ACLs recorded{{"iqn.2026-01.org.client:h1", "host-1"}};
  EXPECT_TRUE(scsi_pool::match_initiator(recorded, {"iqn.2026-01.org.client:h1", "host-2"}));
  EXPECT_FALSE(scsi_pool::match_initiator(recorded, {"iqn.2026-01.org.client:h", "host-1"}));
  EXPECT_FALSE(scsi_pool::match_initiator({}, {"iqn.2026-01.org.client:h1", ""}));
}

}  // namespace
