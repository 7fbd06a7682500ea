#include "threadpool.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

constexpr auto longWait = 20s;

/// Holds the tasks that wait on it until it is opened.
class Gate {
 public:
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  /// Waits until `count` tasks wait on the gate.
  bool waitForWaiting(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, longWait, [&] { return waiting_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool open_ = false;
};

/// Records task numbers in the order they ran.
class Order {
 public:
  void add(int n) {
    std::lock_guard<std::mutex> lock(mutex_);
    seen_.push_back(n);
    changed_.notify_all();
  }
  std::vector<int> waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, longWait, [&] { return seen_.size() >= count; });
    return seen_;
  }
  std::vector<int> seen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<int> seen_;
};

/// Polls `predicate` until it holds or a long time has passed.
template <typename Predicate>
bool eventually(Predicate predicate) {
  auto deadline = std::chrono::steady_clock::now() + longWait;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

TEST(ThreadPoolTest, ATaskWaitingForALaterOneGetsAThreadOfItsOwn) {
  bexko::ThreadPool pool(4);
  std::promise<void> laterRan;
  std::future<void> later = laterRan.get_future();
  std::atomic<bool> firstFinished{false};
  pool.submit([&] {
    later.wait();
    firstFinished = true;
  });
  pool.submit([&] { laterRan.set_value(); });
  EXPECT_TRUE(eventually([&] { return firstFinished.load(); }));
  EXPECT_EQ(pool.threadCount(), 2u);
}

TEST(ThreadPoolTest, BeyondTheCapTasksWaitInArrivalOrder) {
  bexko::ThreadPool pool(2);
  Gate gate;
  Order order;
  pool.submit([&] { gate.wait(); });
  pool.submit([&] { gate.wait(); });
  ASSERT_TRUE(gate.waitForWaiting(2));
  for (int n = 1; n <= 3; ++n) pool.submit([&order, n] { order.add(n); });

  std::this_thread::sleep_for(50ms);  // room for a wrong extra thread to run a task
  EXPECT_EQ(pool.threadCount(), 2u);
  EXPECT_TRUE(order.seen().empty());

  gate.open();
  auto seen = order.waitFor(3);
  ASSERT_EQ(seen.size(), 3u);
  // Two threads take the queue from its front: 1 starts before 3, whatever the interleaving.
  EXPECT_NE(seen.front(), 3);
}

TEST(ThreadPoolTest, OneThreadRunsTasksInArrivalOrder) {
  bexko::ThreadPool pool(1);
  Gate gate;
  Order order;
  pool.submit([&] { gate.wait(); });
  for (int n = 1; n <= 5; ++n) pool.submit([&order, n] { order.add(n); });
  gate.open();
  EXPECT_EQ(order.waitFor(5), (std::vector<int>{1, 2, 3, 4, 5}));
  EXPECT_EQ(pool.threadCount(), 1u);
}

TEST(ThreadPoolTest, IdleThreadsRetireAndThePoolStartsNewOnes) {
  bexko::ThreadPool pool(8, 30ms);
  Gate gate;
  for (int i = 0; i < 3; ++i) pool.submit([&] { gate.wait(); });
  ASSERT_TRUE(gate.waitForWaiting(3));
  EXPECT_EQ(pool.threadCount(), 3u);
  gate.open();
  EXPECT_TRUE(eventually([&] { return pool.threadCount() == 0; }));

  std::atomic<bool> ran{false};
  pool.submit([&] { ran = true; });
  EXPECT_TRUE(eventually([&] { return ran.load(); }));
}

TEST(ThreadPoolTest, ShutdownRunsQueuedWorkThenRefusesMore) {
  bexko::ThreadPool pool(1);
  Gate gate;
  Order order;
  pool.submit([&] { gate.wait(); });
  pool.submit([&] { order.add(1); });
  ASSERT_TRUE(gate.waitForWaiting(1));
  std::thread opener([&] {
    std::this_thread::sleep_for(20ms);
    gate.open();
  });
  pool.shutdown();
  opener.join();
  EXPECT_EQ(order.seen(), std::vector<int>{1});
  EXPECT_EQ(pool.threadCount(), 0u);

  EXPECT_FALSE(pool.submit([&] { order.add(2); }));
  auto refused = pool.asyncDelay([&] { order.add(3); }, 0ns);
  EXPECT_EQ(refused.wait(1000), ko::FutureState::FinishedWithError);
  EXPECT_EQ(refused.error(), "the host's thread pool is shut down");
  EXPECT_EQ(order.seen(), std::vector<int>{1});
}

TEST(ThreadPoolTest, ShutdownFromOneOfItsOwnTasksDoesNotDeadlock) {
  auto pool = std::make_shared<bexko::ThreadPool>(4);
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  pool->submit([pool, done] {
    pool->shutdown();
    done->set_value();
  });
  ASSERT_EQ(finished.wait_for(longWait), std::future_status::ready);
  EXPECT_FALSE(pool->submit([] {}));
}

}  // namespace
