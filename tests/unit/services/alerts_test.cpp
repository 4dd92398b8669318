#include "platform/services/alerts.h"

#include "tests/unit/services/services_fixture.h"

namespace {

using json_spirit::Array;
using json_spirit::Value;

class Alerts : public Services {
 protected:
  void SetUp() override {
    Services::SetUp();
    Pool_Replicate_Manager::instance()->set_sink(&sink_);
  }
  void TearDown() override {
    Pool_Replicate_Manager::instance()->set_sink(nullptr);
    Services::TearDown();
  }
  static bool send(Replicate_Event* event) { return Pool_Replicate_Manager::instance()->putq(event); }

  Database_Event_Sink sink_;
};

TEST_F(Alerts, EventsOfAJob) {
  ASSERT_TRUE(send(new Replicate_Event(1, 7, "task", 0, 100, 0, 0)));
  for (int progress : {10, 50})
    ASSERT_TRUE(send(new Replicate_Progress_Event(7, "task", 0, 100, 1, 2, 3, 4, progress)));
  ASSERT_TRUE(send(new Replicate_End_Event(5, 7, "task", 0, 100, 1, 1, 200, 1, -1, "it broke")));
  ASSERT_TRUE(send(new Replicate_Progress_Event(8, "other", 0, 100, 1, 2, 3, 4, 5)));
  ASSERT_TRUE(add_event("dropped", "snapshots went", {{"ids", Array{"a"}}}));
  Array events;
  ASSERT_TRUE(list_events(events, 7));
  ASSERT_EQ(events.size(), 3u) << "the last progress replaces the first";
  EXPECT_EQ(events[0]["kind"], "failed");
  EXPECT_EQ(events[0]["message"], "it broke");
  EXPECT_EQ(events[1]["kind"], "progress");
  EXPECT_EQ(events[1]["params"]["progress"], 50);
  EXPECT_EQ(events[2]["kind"], "started");
  ASSERT_TRUE(list_events(events, 0, 1));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]["kind"], "dropped");
  EXPECT_EQ(events[0]["params"]["ids"][0], "a");
  ASSERT_TRUE(list_events(events, 0, 0, 4));
  EXPECT_EQ(events.size(), 1u);
}

TEST_F(Alerts, AlertsAreKept) {
  ASSERT_TRUE(send_pool_replicate_alert(STORAGED_REPLICATE_INFO_COMPLETED, {{"id", 1}}, nullptr, nullptr));
  ASSERT_TRUE(
      send_pool_replicate_alert(STORAGED_REPLICATE_ERROR_FAILED, {{"message", "Job abort"}}, "host", "more"));
  Array alerts;
  ASSERT_TRUE(list_alerts(alerts));
  ASSERT_EQ(alerts.size(), 2u);
  EXPECT_EQ(alerts[0]["severity"], "error");
  EXPECT_EQ(alerts[0]["alert"], "0x7000002040800004");
  EXPECT_EQ(alerts[0]["message"], "Job abort");
  EXPECT_EQ(alerts[0]["source"], "host");
  EXPECT_EQ(alerts[1]["severity"], "info");
  EXPECT_EQ(alerts[1]["params"]["id"], 1);
}

}  // namespace
