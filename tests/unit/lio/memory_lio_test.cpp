#include "tests/support/memory_lio.h"

#include <gtest/gtest.h>

// The stand-in must answer as the kernel does where the pool module depends on it.
TEST(Memory_Lio, follows_the_rules_of_the_kernel) {
  const auto lio = std::make_shared<Memory_LIO>();
  LIO_Library::install(lio);
  const char* const name = "iqn.2026-11.org.example:one";
  const auto target = LIO_Target_Manager_Factory::get_manager("iSCSI")->create_or_get_target(name);
  EXPECT_FALSE(target->get_tpg(1));
  EXPECT_FALSE(lio->has_target(name));
  const auto group = target->create_or_get_tpg(1);
  EXPECT_FALSE(group->demo_mode());
  EXPECT_TRUE(
      std::dynamic_pointer_cast<ISCSI_Target_Port_Group>(group)->add_net_portals(true, nullptr, 3260));
  const auto store = LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, "/v/a", 513);
  EXPECT_EQ(1024u, lio->backstores().begin()->second.size);
  EXPECT_TRUE(group->enable(true));
  const auto lun = group->create_lun(store->name().c_str(), false);
  EXPECT_FALSE(lio->group(name).enabled);
  EXPECT_FALSE(LIO_Backstore_Manager::create_backstore(LIO_Backstore::file, "/v/a", 513));
  EXPECT_FALSE(LIO_Backstore_Manager::remove_backstore(store->name().c_str(), false));
  EXPECT_TRUE(lun->add_acls({{"iqn.a", "h"}, {"iqn.b", ""}}, true));
  EXPECT_TRUE(lun->del_acls({{"iqn.a", ""}}, true));
  EXPECT_EQ("iqn.b", lio->group(name).luns[0].acls.at(0).initiator);
  lio->fail("destroy_target", 1);
  EXPECT_FALSE(target->destroy(false));
  EXPECT_TRUE(target->destroy(false));
  EXPECT_TRUE(lio->backstores().empty());
  EXPECT_EQ(2u, lio->count("destroy_target"));
  LIO_Library::install(nullptr);
}
