#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "platform/services/queue_manager.h"
#include "tests/unit/services/services_fixture.h"

namespace {

class Queue : public Services {
 protected:
  bool put(const std::string& text, const ACE_Time_Value* delay = nullptr, const std::string& queue = "q") {
    return Queue_Manager::instance()->enqueue(queue, "type", text.data(), text.size(), delay);
  }
  ACE_UINT64 length() {
    ACE_UINT64 messages = 99;
    EXPECT_TRUE(Queue_Manager::instance()->length("q", messages));
    return messages;
  }
  bool wait_length(ACE_UINT64 wanted, int seconds = 10) {
    for (int i = 0; i < seconds * 100 && length() != wanted; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return length() == wanted;
  }
  void TearDown() override {
    Queue_Manager::close_instance();
    Services::TearDown();
  }
};

TEST_F(Queue, NoMessageRunsTwiceAtOnce) {
  std::mutex mutex;
  std::map<std::string, int> runs;
  ASSERT_TRUE(Queue_Manager::instance()->start(
      "q",
      [&](const Queue_Message& message) {
        const std::lock_guard<std::mutex> guard(mutex);
        ++runs[message.text];
        return Queue_Manager::DONE;
      },
      4));
  for (int i = 0; i < 40; ++i)
    ASSERT_TRUE(put(std::to_string(i)));
  EXPECT_TRUE(wait_length(0, 30));
  Queue_Manager::instance()->stop();
  EXPECT_EQ(runs.size(), 40u);
  for (const auto& [text, count] : runs)
    EXPECT_EQ(count, 1) << text;
}

// A message stays stored while its handler runs, and one whose handler did not finish it comes again.
TEST_F(Queue, UnfinishedMessagesComeAgain) {
  std::atomic<bool> inside{false}, leave{false};
  std::atomic<int> runs{0};
  ASSERT_TRUE(put("a"));
  ASSERT_TRUE(Queue_Manager::instance()->start(
      "q",
      [&](const Queue_Message&) {
        ++runs;
        inside = true;
        while (!leave)
          std::this_thread::yield();
        return Queue_Manager::KEPT;
      },
      2));
  while (!inside)
    std::this_thread::yield();
  EXPECT_EQ(length(), 1u);
  leave = true;
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_EQ(runs, 1) << "not in the same run";
  Queue_Manager::close_instance();
  EXPECT_EQ(length(), 1u);
  ASSERT_TRUE(Queue_Manager::instance()->start(
      "q", [&runs](const Queue_Message&) { return ++runs > 0 ? Queue_Manager::DONE : Queue_Manager::KEPT; },
      1));
  EXPECT_TRUE(wait_length(0));
  Queue_Manager::instance()->stop();
  EXPECT_EQ(runs, 2);
}

TEST_F(Queue, DelaysAndBadHandlers) {
  const ACE_Time_Value delay(2);
  ASSERT_TRUE(put("later", &delay) && put("bad"));
  std::string seen;
  ASSERT_TRUE(Queue_Manager::instance()->start(
      "q",
      [&seen](const Queue_Message& message) -> Queue_Manager::Outcome {
        seen += message.text + ";";
        throw std::runtime_error("boom");
      },
      1));
  EXPECT_TRUE(wait_length(1, 1));
  EXPECT_TRUE(wait_length(0));
  Queue_Manager::instance()->stop();
  EXPECT_EQ(seen, "bad;later;");
}

TEST_F(Queue, StopWaitsForHandlers) {
  std::atomic<bool> inside{false}, finished{false};
  ASSERT_TRUE(put("a"));
  ASSERT_TRUE(Queue_Manager::instance()->start(
      "q",
      [&](const Queue_Message&) {
        inside = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        finished = true;
        return Queue_Manager::DONE;
      },
      1));
  while (!inside)
    std::this_thread::yield();
  Queue_Manager::instance()->stop();
  EXPECT_TRUE(finished);
  EXPECT_EQ(length(), 0u);
}

}  // namespace
