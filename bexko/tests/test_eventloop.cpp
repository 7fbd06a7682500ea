// The event loop, and the futures through which it hands back results.
#include <ko/eventloop.h>

#include <numeric>

#include "support.h"

namespace {

using namespace bexko::test;

using ko::Future;
using ko::FutureException;
using ko::FutureState;
using ko::Promise;

TEST(EventLoopOrder, DelayedWorkRunsInDeadlineOrderAndNotBeforeItsDelay) {
  ko::EventLoop loop;
  Recorder<> order;
  const auto start = std::chrono::steady_clock::now();
  auto late = loop.asyncDelay([&] { order.add(3); }, 90ms);
  loop.asyncDelay([&] { order.add(1); }, 10ms);
  loop.async([&] { order.add(2); }, 50000);  // microseconds
  late.value(longWaitMs);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);
  EXPECT_EQ(order.seen(), (std::vector<int>{1, 2, 3}));
}

TEST(EventLoopOrder, WorkGivenTogetherRunsOnTheLoopThreadInTheOrderGiven) {
  ko::EventLoop loop;
  EXPECT_FALSE(loop.isInLoopThread());
  Gate gate;
  std::atomic<bool> inLoop{false};
  loop.post([&] {
    inLoop = loop.isInLoopThread();
    gate.wait();
  });
  EXPECT_TRUE(gate.waitForWaiting());
  EXPECT_TRUE(inLoop.load());
  Recorder<> order;
  std::vector<int> expected(100);
  std::iota(expected.begin(), expected.end(), 0);
  Future<void> last;
  for (int i : expected) last = loop.post([&order, i] { order.add(i); });
  EXPECT_EQ(loop.pendingCount(), 100u);
  gate.open();
  last.value(longWaitMs);
  EXPECT_EQ(order.seen(), expected);
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

TEST(EventLoopCancel, RunningTaskFinishesDespiteCancelAndDestructorCancelsTheRest) {
  Future<void> pending;
  Future<void> running;
  std::atomic<bool> pendingRan{false};
  Gate gate;
  {
    ko::EventLoop loop;
    pending = loop.asyncDelay([&] { pendingRan = true; }, 1h);
    running = loop.post([&] {
      gate.wait();
      std::this_thread::sleep_for(20ms);
    });
    EXPECT_TRUE(gate.waitForWaiting());
    running.cancel();
    EXPECT_EQ(running.state(), FutureState::Canceling);
    gate.open();
  }  // the destructor waits for the running task
  EXPECT_EQ(running.state(), FutureState::FinishedWithValue);
  EXPECT_TRUE(pending.isCanceled());
  EXPECT_FALSE(pendingRan.load());
}

TEST(EventLoopErrors, FailingTaskIsReportedAndTheLoopGoesOn) {
  auto capture = std::make_shared<ko::log::CaptureSink>();
  const int sink = ko::log::addSink(capture);
  ko::EventLoop loop;
  auto failing = loop.post([] { throw std::runtime_error("marker table broken"); });
  auto oddlyFailing = loop.post([] { throw 5; });
  EXPECT_EQ(loop.post([] {}).wait(longWaitMs), FutureState::FinishedWithValue);
  ko::log::removeSink(sink);
  EXPECT_EQ(failing.error(), "marker table broken");
  EXPECT_EQ(oddlyFailing.state(), FutureState::FinishedWithError);
  EXPECT_THAT(capture->records(),
              Contains(logRecord(ko::log::error, "bexko.eventloop", "marker table broken")));
}

TEST(SharedEventLoop, IsOneLoopThatManyThreadsScheduleOnConcurrently) {
  ko::EventLoop& loop = *ko::getEventLoop();
  std::atomic<int> runs{0};
  std::vector<Future<void>> futures[4];
  std::vector<std::thread> threads;
  for (auto& list : futures) {
    threads.emplace_back([&, &list = list] {
      for (int i = 0; i < 50; ++i) {
        list.push_back(loop.asyncDelay([&] { ++runs; }, std::chrono::microseconds(i * 100)));
        if (i % 5 == 0) list.back().cancel();
      }
    });
  }
  for (auto& t : threads) t.join();
  int ran = 0;
  int cancelled = 0;
  for (auto& list : futures) {
    for (auto& f : list) {
      ran += f.wait(longWaitMs) == FutureState::FinishedWithValue;
      cancelled += f.isCanceled();
    }
  }
  EXPECT_EQ(ran + cancelled, 200);
  EXPECT_EQ(runs.load(), ran);
  EXPECT_GE(ran, 4 * 40);  // only every fifth could be cancelled
}

// Futures ----------------------------------------------------------------------------------------

TEST(FutureValue, WaitersTimeOutUntilTheValueOrErrorIsSetThenAllSeeIt) {
  Promise<std::string> promise;
  const Future<std::string> future = promise.future();
  EXPECT_EQ(errorOf<FutureException>([&] { future.value(10); }).kind(), FutureException::Timeout);
  EXPECT_EQ(future.wait(10), FutureState::Running);
  std::atomic<int> correct{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 16; ++i) waiters.emplace_back([&] { correct += future.value() == "late"; });
  std::this_thread::sleep_for(20ms);
  promise.setValue("late");
  for (auto& t : waiters) t.join();
  EXPECT_EQ(correct.load(), 16);
  // An error reaches value() as a UserError with its text.
  Promise<int> failed;
  failed.setError("the engine is gone");
  const auto e = errorOf<FutureException>([&] { failed.future().value(0); });
  EXPECT_EQ(e.kind(), FutureException::UserError);
  EXPECT_STREQ(e.what(), "the engine is gone");
}

// Without a cancel handler a cancel is immediate, and the callbacks run, past a throwing one,
// or at once when connected later; with a handler, the producer settles (a handler that cancels
// is the thread pool's, shown by its tests).
TEST(FutureCancel, CancelIsAtOnceOrLeftToTheProducersHandler) {
  Promise<int> plain;
  Strings seen;
  plain.future().connect([&](const Future<int>&) {
    seen.push_back("throws");
    throw std::runtime_error("subscriber bug");
  });
  plain.future().connect([&](const Future<int>& f) { seen.push_back(f.isCanceled() ? "a" : "?"); });
  EXPECT_TRUE(seen.empty());
  EXPECT_NO_THROW(plain.future().cancel());
  plain.future().connect([&](const Future<int>& f) { seen.push_back(f.isCanceled() ? "b" : "?"); });
  EXPECT_EQ(seen, (Strings{"throws", "a", "b"}));
  EXPECT_TRUE(plain.isCancelRequested());
  EXPECT_EQ(errorOf<FutureException>([&] { plain.future().value(0); }).kind(),
            FutureException::Canceled);
  EXPECT_FALSE(plain.setValue(3));

  int handlerCalls = 0;
  Promise<int> promise([&](Promise<int>) { ++handlerCalls; });
  Future<int> future = promise.future();
  future.cancel();
  future.cancel();  // a second request does not run the handler again
  EXPECT_EQ(future.state(), FutureState::Canceling);
  EXPECT_TRUE(future.isRunning() && promise.isCancelRequested());
  EXPECT_TRUE(promise.setValue(5));  // the producer may still finish with a value
  future.cancel();                   // a finished future ignores cancel
  EXPECT_EQ(handlerCalls, 1);
  EXPECT_EQ(future.value(0), 5);
}

TEST(FutureThreads, RacingCompletionsHaveOneWinner) {
  for (int round = 0; round < 20; ++round) {
    Promise<int> promise;
    std::atomic<int> winners{0};
    std::atomic<int> callbacks{0};
    promise.future().connect([&](const Future<int>&) { ++callbacks; });
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&, i, p = promise]() mutable {
        winners += (i % 3 == 0) ? p.setError("e") : (i % 3 == 1) ? p.setValue(i) : p.setCanceled();
      });
    }
    threads.emplace_back([f = promise.future()]() mutable { f.cancel(); });
    for (auto& t : threads) t.join();
    // Exactly one completion takes effect: one of the setters, or else the cancel.
    EXPECT_LE(winners.load(), 1);
    EXPECT_TRUE(winners.load() == 1 || promise.future().isCanceled());
    EXPECT_EQ(callbacks.load(), 1);
  }
}

}  // namespace
