#include <ko/eventloop.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ko/log.h>

namespace {

using namespace std::chrono_literals;

constexpr int longWaitMs = 10000;

/// Holds the loop's thread until released, so that work can be queued behind it.
class Gate {
 public:
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    entered_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  void waitEntered() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return entered_; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool entered_ = false;
  bool open_ = false;
};

class Recorder {
 public:
  void add(int value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.push_back(value);
  }
  std::vector<int> values() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<int> values_;
};

TEST(EventLoopOrder, DelayedWorkRunsInDeadlineOrder) {
  ko::EventLoop loop;
  Recorder order;
  auto late = loop.asyncDelay([&] { order.add(3); }, 90ms);
  auto early = loop.asyncDelay([&] { order.add(1); }, 10ms);
  auto middle = loop.asyncDelay([&] { order.add(2); }, 50ms);
  late.value(longWaitMs);
  EXPECT_TRUE(early.hasValue());
  EXPECT_TRUE(middle.hasValue());
  EXPECT_EQ(order.values(), (std::vector<int>{1, 2, 3}));
}

TEST(EventLoopOrder, DelayedWorkWaitsAtLeastItsDelay) {
  ko::EventLoop loop;
  auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point ranAt;
  loop.async([&] { ranAt = std::chrono::steady_clock::now(); }, 30000).value(longWaitMs);
  EXPECT_GE(ranAt - start, 30ms);
}

TEST(EventLoopOrder, WorkGivenTogetherRunsInTheOrderGiven) {
  ko::EventLoop loop;
  Gate gate;
  loop.post([&] { gate.wait(); });
  gate.waitEntered();
  Recorder order;
  std::vector<ko::Future<void>> futures;
  for (int i = 0; i < 100; ++i) futures.push_back(loop.post([&order, i] { order.add(i); }));
  EXPECT_EQ(loop.pendingCount(), 100u);
  gate.open();
  futures.back().value(longWaitMs);
  std::vector<int> expected;
  for (int i = 0; i < 100; ++i) expected.push_back(i);
  EXPECT_EQ(order.values(), expected);
}

TEST(EventLoopOrder, WorkRunsOnTheLoopThread) {
  ko::EventLoop loop;
  EXPECT_FALSE(loop.isInLoopThread());
  std::atomic<bool> inLoop{false};
  loop.post([&] { inLoop = loop.isInLoopThread(); }).value(longWaitMs);
  EXPECT_TRUE(inLoop.load());
}

TEST(EventLoopCancel, CancelledWorkNeverRuns) {
  ko::EventLoop loop;
  loop.post([] {}).value(longWaitMs);  // the loop runs
  std::atomic<bool> ran{false};
  auto future = loop.asyncDelay([&] { ran = true; }, 50ms);
  EXPECT_EQ(loop.pendingCount(), 1u);
  // Cancelled while the loop sleeps until the task's deadline: the loop must not read the
  // erased task when it wakes.
  std::this_thread::sleep_for(10ms);
  future.cancel();
  EXPECT_TRUE(future.isCanceled());
  EXPECT_EQ(loop.pendingCount(), 0u);
  // Work due later than the cancelled task proves the loop went past its deadline.
  loop.asyncDelay([] {}, 100ms).value(longWaitMs);
  EXPECT_FALSE(ran.load());
}

TEST(EventLoopCancel, CancelWhileRunningLetsTheTaskFinish) {
  ko::EventLoop loop;
  Gate gate;
  auto future = loop.post([&] { gate.wait(); });
  gate.waitEntered();
  future.cancel();
  EXPECT_EQ(future.state(), ko::FutureState::Canceling);
  gate.open();
  EXPECT_EQ(future.wait(longWaitMs), ko::FutureState::FinishedWithValue);
}

TEST(EventLoopCancel, DestroyedLoopCancelsWorkNotRun) {
  ko::Future<void> pending;
  std::atomic<bool> ran{false};
  {
    ko::EventLoop loop;
    pending = loop.asyncDelay([&] { ran = true; }, 1h);
  }
  EXPECT_TRUE(pending.isCanceled());
  EXPECT_FALSE(ran.load());
}

TEST(EventLoopCancel, DestructorWaitsForTheRunningTask) {
  std::atomic<bool> finished{false};
  Gate gate;
  {
    ko::EventLoop loop;
    loop.post([&] {
      gate.wait();
      std::this_thread::sleep_for(20ms);
      finished = true;
    });
    gate.waitEntered();
    gate.open();
  }
  EXPECT_TRUE(finished.load());
}

class EventLoopErrors : public ::testing::Test {
 protected:
  void SetUp() override { sinkId_ = ko::log::addSink(capture_); }
  void TearDown() override { ko::log::removeSink(sinkId_); }

  std::shared_ptr<ko::log::CaptureSink> capture_ = std::make_shared<ko::log::CaptureSink>();
  int sinkId_ = 0;
};

TEST_F(EventLoopErrors, ExceptionInTaskIsReportedAndTheLoopGoesOn) {
  ko::EventLoop loop;
  auto failing = loop.post([] { throw std::runtime_error("marker table broken"); });
  auto next = loop.post([] {});
  EXPECT_EQ(next.wait(longWaitMs), ko::FutureState::FinishedWithValue);
  EXPECT_EQ(failing.state(), ko::FutureState::FinishedWithError);
  EXPECT_EQ(failing.error(), "marker table broken");

  bool logged = false;
  for (const auto& record : capture_->records()) {
    if (record.category == "bexko.eventloop" && record.level == ko::log::error &&
        record.message.find("marker table broken") != std::string::npos) {
      logged = true;
    }
  }
  EXPECT_TRUE(logged);
}

TEST_F(EventLoopErrors, NonStandardExceptionDoesNotKillTheLoop) {
  ko::EventLoop loop;
  auto failing = loop.post([] { throw 5; });
  EXPECT_EQ(failing.wait(longWaitMs), ko::FutureState::FinishedWithError);
  EXPECT_EQ(loop.post([] {}).wait(longWaitMs), ko::FutureState::FinishedWithValue);
}

TEST(SharedEventLoop, IsOneLoopForTheProcess) {
  ko::EventLoop* loop = ko::getEventLoop();
  ASSERT_NE(loop, nullptr);
  EXPECT_EQ(loop, ko::getEventLoop());
  std::atomic<bool> ran{false};
  loop->post([&] { ran = true; }).value(longWaitMs);
  EXPECT_TRUE(ran.load());
}

TEST(SharedEventLoop, ManyThreadsScheduleConcurrently) {
  ko::EventLoop loop;
  std::atomic<int> runs{0};
  std::vector<std::thread> threads;
  std::vector<ko::Future<void>> futures[4];
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        auto f = loop.asyncDelay([&] { ++runs; }, std::chrono::microseconds(i * 100));
        if (i % 5 == 0) f.cancel();
        futures[t].push_back(f);
      }
    });
  }
  for (auto& t : threads) t.join();
  int expected = 0;
  for (auto& list : futures) {
    for (auto& f : list) {
      auto state = f.wait(longWaitMs);
      EXPECT_NE(state, ko::FutureState::Running);
      if (state == ko::FutureState::FinishedWithValue) ++expected;
    }
  }
  EXPECT_EQ(runs.load(), expected);
  EXPECT_GE(expected, 4 * 40);  // only every fifth could be cancelled
}

}  // namespace
