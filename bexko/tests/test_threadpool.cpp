#include "threadpool.h"

#include <future>

#include "support.h"

namespace {

using namespace bexko::test;

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
  std::promise<void> laterRan;
  std::future<void> later = laterRan.get_future();
  std::atomic<bool> firstFinished{false};
  bexko::ThreadPool pool(4);  // last, so that its threads are joined first
  pool.submit([&] {
    later.wait();
    firstFinished = true;
  });
  pool.submit([&] { laterRan.set_value(); });
  EXPECT_TRUE(eventually([&] { return firstFinished.load(); }));
  EXPECT_EQ(pool.threadCount(), 2u);
}

TEST(ThreadPoolTest, BeyondTheCapTasksWaitInArrivalOrder) {
  for (int cap : {1, 2}) {
    SCOPED_TRACE(cap);
    Gate gate;
    Recorder<> order;
    bexko::ThreadPool pool(cap);
    for (int i = 0; i < cap; ++i) pool.submit([&] { gate.wait(); });
    EXPECT_TRUE(gate.waitForWaiting(cap));
    std::vector<ko::Future<void>> done;
    for (int n = 1; n <= 5; ++n) done.push_back(pool.post([&order, n] { order.add(n); }));
    std::this_thread::sleep_for(50ms);  // room for a wrong extra thread to run a task
    EXPECT_EQ(pool.threadCount(), static_cast<std::size_t>(cap));
    EXPECT_TRUE(order.seen().empty());

    gate.open();
    for (auto& future : done) future.wait(longWaitMs);
    const std::vector<int> seen = order.seen();
    EXPECT_THAT(seen, ::testing::UnorderedElementsAre(1, 2, 3, 4, 5));
    // Threads take the queue from its front, so the k-th task to finish is at most task k + cap:
    // with one thread the order is exact, whatever the interleaving.
    for (std::size_t k = 0; k < seen.size(); ++k) EXPECT_LE(seen[k], static_cast<int>(k) + cap);
  }
}

TEST(ThreadPoolTest, PromptTasksRunWhileEveryThreadWaitsAndNeverTakeOrdinaryWork) {
  Gate gate;
  Recorder<> order;
  bexko::ThreadPool pool(2, std::chrono::seconds(30), 2);
  for (int i = 0; i < 2; ++i) pool.submit([&] { gate.wait(); });
  EXPECT_TRUE(gate.waitForWaiting(2));
  // Queued ordinary work waits for the cap; a prompt task goes ahead on a thread of its own.
  pool.submit([&] { order.add(1); });
  std::promise<void> promptRan;
  pool.submitPrompt([&] {
    order.add(2);
    promptRan.set_value();
  });
  ASSERT_EQ(promptRan.get_future().wait_for(longWait), std::future_status::ready);
  std::this_thread::sleep_for(50ms);  // room for the extra thread to take ordinary work wrongly
  EXPECT_EQ(order.seen(), std::vector<int>{2});
  EXPECT_EQ(pool.threadCount(), 3u);

  // Beyond the prompt threads too, prompt tasks wait only for each other.
  Gate promptGate;
  for (int i = 0; i < 2; ++i) pool.submitPrompt([&] { promptGate.wait(); });
  EXPECT_TRUE(promptGate.waitForWaiting(2));
  EXPECT_EQ(pool.threadCount(), 4u);
  std::promise<void> thirdRan;
  pool.submitPrompt([&] { thirdRan.set_value(); });
  auto third = thirdRan.get_future();
  EXPECT_EQ(third.wait_for(50ms), std::future_status::timeout);
  promptGate.open();
  EXPECT_EQ(third.wait_for(longWait), std::future_status::ready);
  gate.open();
  EXPECT_TRUE(eventually([&] { return order.seen().size() == 2; }));
}

TEST(ThreadPoolTest, IdleThreadsRetireDownToTheKeptOnesAndThePoolStartsNewOnes) {
  Gate gate;
  bexko::ThreadPool pool(8, 30ms, 64, /*keptThreads=*/1);
  for (int i = 0; i < 3; ++i) pool.submit([&] { gate.wait(); });
  EXPECT_TRUE(gate.waitForWaiting(3));
  EXPECT_EQ(pool.threadCount(), 3u);
  gate.open();
  EXPECT_TRUE(eventually([&] { return pool.threadCount() == 1; }));
  std::this_thread::sleep_for(100ms);  // several idle time-outs: the kept thread stays
  EXPECT_EQ(pool.threadCount(), 1u);

  std::atomic<bool> ran{false};
  pool.submit([&] { ran = true; });
  EXPECT_TRUE(eventually([&] { return ran.load(); }));
}

TEST(ThreadPoolTest, DelayedWorkRunsLaterOnAPoolThreadUnlessCancelled) {
  bexko::ThreadPool pool;
  std::atomic<bool> cancelledRan{false};
  auto cancelled = pool.asyncDelay([&] { cancelledRan = true; }, 30ms);
  cancelled.cancel();
  EXPECT_TRUE(cancelled.isCanceled());

  const auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point ranAt;
  bool onLoopThread = true;
  const auto delayed = [&] {
    ranAt = std::chrono::steady_clock::now();
    onLoopThread = ko::getEventLoop()->isInLoopThread();
  };
  pool.asyncDelay(delayed, 60ms).value(longWaitMs);
  EXPECT_GE(ranAt - start, 60ms);
  EXPECT_FALSE(onLoopThread);  // a pool thread, so that a slow task cannot hold up the loop
  EXPECT_FALSE(cancelledRan.load());

  auto failing = pool.post([] { throw std::runtime_error("pool task failed"); });
  EXPECT_EQ(failing.wait(longWaitMs), ko::FutureState::FinishedWithError);
  EXPECT_EQ(failing.error(), "pool task failed");
  EXPECT_EQ(pool.post([] {}).wait(longWaitMs), ko::FutureState::FinishedWithValue);
}

TEST(ThreadPoolTest, ShutdownRunsQueuedWorkThenRefusesMore) {
  Gate gate;
  Recorder<> order;
  bexko::ThreadPool pool(1);
  pool.submit([&] { gate.wait(); });
  pool.submit([&] { order.add(1); });
  EXPECT_TRUE(gate.waitForWaiting());
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
