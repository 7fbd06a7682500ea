#include <bexko/gateway/eventfanout.h>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <bexko/testing/testhost.h>
#include <ko/log.h>

namespace bexko {
namespace gateway {
namespace {

using nlohmann::json;
using ZR::ZRValue;

/// A scheduler that keeps its jobs until the test runs them.
class HeldJobs {
 public:
  EventFanOut::Scheduler scheduler() {
    return [this](std::function<void()> job) {
      std::lock_guard<std::mutex> lock(mutex_);
      jobs_.push_back(std::move(job));
    };
  }
  std::size_t count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return jobs_.size();
  }
  /// Runs the jobs held, and those they schedule, until none is left.
  void runAll() {
    for (;;) {
      std::function<void()> job;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (jobs_.empty()) return;
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      job();
    }
  }

 private:
  std::mutex mutex_;
  std::deque<std::function<void()>> jobs_;
};

/// What one watcher received.
struct Received {
  std::vector<Frame> frames;
  EventFanOut::Deliver deliver() {
    return [this](const Frame& frame) { frames.push_back(frame); };
  }
  std::vector<json> values() const {
    std::vector<json> out;
    for (const auto& frame : frames) out.push_back(json::parse(*frame)["params"]["value"]);
    return out;
  }
};

class EventFanOutTest : public ::testing::Test {
 protected:
  void raise(const std::string& key, const ZRValue& value) {
    host_.services().memory->raiseEvent(key, value);
  }

  testing::TestHost host_;
  HeldJobs jobs_;
  std::shared_ptr<EventFanOut> fanOut_ = EventFanOut::create(host_.broker(), jobs_.scheduler());
};

TEST_F(EventFanOutTest, EveryWatcherGetsTheOneFrameOfEachEventInRaiseOrder) {
  std::vector<Received> watchers(5);
  for (auto& watcher : watchers) ASSERT_NE(fanOut_->subscribe("Test/Key", watcher.deliver()), 0);
  Received other;
  fanOut_->subscribe("Test/Other", other.deliver());

  raise("Test/Key", ZRValue(1));
  raise("Test/Other", ZRValue("o"));
  raise("Test/Key", ZRValue(2));
  // The raising thread only queued them, in one job.
  EXPECT_TRUE(watchers[0].frames.empty());
  EXPECT_EQ(jobs_.count(), 1u);
  jobs_.runAll();

  EXPECT_EQ(watchers[0].values(), (std::vector<json>{1, 2}));
  EXPECT_EQ(json::parse(*watchers[0].frames[0]),
            json({{"jsonrpc", "2.0"},
                  {"method", "bexko.event"},
                  {"params", {{"key", "Test/Key"}, {"value", 1}}}}));
  for (const auto& watcher : watchers) {
    ASSERT_EQ(watcher.frames.size(), 2u);
    // Written once, shared by all.
    EXPECT_EQ(watcher.frames[0].get(), watchers[0].frames[0].get());
    EXPECT_EQ(watcher.frames[1].get(), watchers[0].frames[1].get());
  }
  EXPECT_EQ(other.values(), (std::vector<json>{"o"}));
}

TEST_F(EventFanOutTest, AWatcherThatLeftGetsNothingMoreAndTheLastOneStopsTheObserving) {
  Received staying, leaving;
  const int stayingId = fanOut_->subscribe("Test/Key", staying.deliver());
  const int id = fanOut_->subscribe("Test/Key", leaving.deliver());
  raise("Test/Key", ZRValue(1));
  fanOut_->unsubscribe(id);
  raise("Test/Key", ZRValue(2));
  jobs_.runAll();
  EXPECT_EQ(staying.values(), (std::vector<json>{1, 2}));
  // Queued before it left, handed over after: not delivered.
  EXPECT_TRUE(leaving.frames.empty());

  fanOut_->unsubscribe(stayingId);  // the key has no watcher left
  raise("Test/Key", ZRValue(3));
  EXPECT_EQ(jobs_.count(), 0u);
  fanOut_->unsubscribe(12345);  // unknown ids are ignored
}

TEST_F(EventFanOutTest, WithoutASchedulerEventsAreHandedOverOnTheRaisingThread) {
  auto inline_ = EventFanOut::create(host_.broker());
  Received watcher;
  inline_->subscribe("Test/Key", watcher.deliver());
  raise("Test/Key", ZRValue(7));
  EXPECT_EQ(watcher.values(), (std::vector<json>{7}));
}

TEST_F(EventFanOutTest, WhenTheJobFallsFarBehindTheOldestEventsAreDroppedWithAWarning) {
  Received watcher;
  fanOut_->subscribe("Test/Key", watcher.deliver());
  const int total = static_cast<int>(EventFanOut::maxPendingEvents) + 10;
  for (int i = 1; i <= total; ++i) raise("Test/Key", ZRValue(i));
  jobs_.runAll();
  ASSERT_EQ(watcher.frames.size(), EventFanOut::maxPendingEvents);
  EXPECT_EQ(watcher.values().front(), 11);
  EXPECT_EQ(watcher.values().back(), total);
  const auto records = host_.logRecords("bexko.gateway.events");
  ASSERT_EQ(records.size(), 2u);  // once as it begins, once with the count
  EXPECT_EQ(records[0].level, ko::log::warning);
  EXPECT_NE(records[1].message.find("10 events were dropped"), std::string::npos)
      << records[1].message;
}

TEST_F(EventFanOutTest, AfterCloseNothingIsQueuedAndNoOneCanWatch) {
  Received watcher;
  fanOut_->subscribe("Test/Key", watcher.deliver());
  raise("Test/Key", ZRValue(1));
  fanOut_->close();
  raise("Test/Key", ZRValue(2));
  jobs_.runAll();
  EXPECT_TRUE(watcher.frames.empty());
  EXPECT_EQ(fanOut_->subscribe("Test/Key", watcher.deliver()), 0);
}

TEST(EventFanOutText, IsCompactJsonAndReplacesInvalidUtf8) {
  EXPECT_EQ(EventFanOut::eventText("A/\"b\"", ZRValue(std::string("x\xff"))),
            R"({"jsonrpc":"2.0","method":"bexko.event","params":{"key":"A/\"b\"","value":"x)"
            "\xef\xbf\xbd\"}}");
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
