#include <ko/future.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using ko::Future;
using ko::FutureException;
using ko::FutureState;
using ko::Promise;

FutureException::Kind failureKind(const Future<int>& future, int msecs) {
  try {
    future.value(msecs);
  } catch (const FutureException& e) {
    return e.kind();
  }
  ADD_FAILURE() << "value() returned instead of throwing";
  return FutureException::BrokenPromise;
}

// Reading the result -----------------------------------------------------------------------------

TEST(FutureValue, ReturnsValueSetBeforeTheWait) {
  Promise<int> promise;
  promise.setValue(42);
  EXPECT_EQ(promise.future().value(0), 42);
  EXPECT_TRUE(promise.future().hasValue());
}

TEST(FutureValue, WaitsForValueSetFromAnotherThread) {
  Promise<std::string> promise;
  std::thread producer([promise]() mutable {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    promise.setValue("late");
  });
  EXPECT_EQ(promise.future().value(10000), "late");
  producer.join();
}

TEST(FutureValue, TimesOutWhileUnfinished) {
  Promise<int> promise;
  Future<int> future = promise.future();
  EXPECT_EQ(failureKind(future, 10), FutureException::Timeout);
  EXPECT_EQ(future.wait(10), FutureState::Running);
  EXPECT_TRUE(future.isRunning());
}

TEST(FutureValue, ErrorCarriesThePromiseText) {
  Promise<int> promise;
  promise.setError("the engine is gone");
  Future<int> future = promise.future();
  EXPECT_TRUE(future.hasError());
  EXPECT_EQ(future.error(), "the engine is gone");
  try {
    future.value();
    FAIL() << "expected an error";
  } catch (const FutureException& e) {
    EXPECT_EQ(e.kind(), FutureException::UserError);
    EXPECT_STREQ(e.what(), "the engine is gone");
  }
}

TEST(FutureValue, FirstCompletionWins) {
  Promise<int> promise;
  EXPECT_TRUE(promise.setValue(1));
  EXPECT_FALSE(promise.setValue(2));
  EXPECT_FALSE(promise.setError("late"));
  EXPECT_FALSE(promise.setCanceled());
  EXPECT_EQ(promise.future().value(0), 1);
  EXPECT_EQ(promise.future().error(), "");
}

TEST(FutureValue, VoidFutureFinishes) {
  Promise<void> promise;
  promise.setValue();
  EXPECT_NO_THROW(promise.future().value(0));
  EXPECT_TRUE(promise.future().isFinished());
}

// Cancellation -----------------------------------------------------------------------------------

TEST(FutureCancel, WithoutHandlerCancelsAtOnce) {
  Promise<int> promise;
  Future<int> future = promise.future();
  future.cancel();
  EXPECT_TRUE(future.isCanceled());
  EXPECT_TRUE(promise.isCancelRequested());
  EXPECT_EQ(failureKind(future, 0), FutureException::Canceled);
  EXPECT_FALSE(promise.setValue(3));
}

TEST(FutureCancel, WithHandlerWaitsForTheProducer) {
  std::atomic<int> handlerCalls{0};
  Promise<int> promise([&](Promise<int>) { ++handlerCalls; });
  Future<int> future = promise.future();
  future.cancel();
  future.cancel();  // a second request does not run the handler again
  EXPECT_EQ(handlerCalls.load(), 1);
  EXPECT_EQ(future.state(), FutureState::Canceling);
  EXPECT_TRUE(future.isRunning());
  EXPECT_TRUE(promise.isCancelRequested());
  promise.setCanceled();
  EXPECT_TRUE(future.isCanceled());
}

TEST(FutureCancel, ProducerMayStillFinishWithAValue) {
  Promise<int> promise([](Promise<int>) {});
  Future<int> future = promise.future();
  future.cancel();
  EXPECT_TRUE(promise.setValue(5));
  EXPECT_EQ(future.value(0), 5);
}

TEST(FutureCancel, HandlerMaySettleAtOnce) {
  Promise<int> promise([](Promise<int> p) { p.setCanceled(); });
  Future<int> future = promise.future();
  future.cancel();
  EXPECT_TRUE(future.isCanceled());
}

TEST(FutureCancel, FinishedFutureIgnoresCancel) {
  std::atomic<int> handlerCalls{0};
  Promise<int> promise([&](Promise<int>) { ++handlerCalls; });
  promise.setValue(9);
  promise.future().cancel();
  EXPECT_EQ(handlerCalls.load(), 0);
  EXPECT_EQ(promise.future().value(0), 9);
}

// Callbacks --------------------------------------------------------------------------------------

TEST(FutureConnect, CallbackRunsOnCompletion) {
  Promise<int> promise;
  int seen = 0;
  promise.future().connect([&](const Future<int>& f) { seen = f.value(0); });
  EXPECT_EQ(seen, 0);
  promise.setValue(7);
  EXPECT_EQ(seen, 7);
}

TEST(FutureConnect, CallbackRunsAtOnceWhenAlreadyFinished) {
  Promise<int> promise;
  promise.setError("no");
  std::string seen;
  promise.future().connect([&](const Future<int>& f) { seen = f.error(); });
  EXPECT_EQ(seen, "no");
}

TEST(FutureConnect, ThrowingCallbackDoesNotStopTheOthers) {
  Promise<int> promise;
  int calls = 0;
  promise.future().connect([&](const Future<int>&) {
    ++calls;
    throw std::runtime_error("subscriber bug");
  });
  promise.future().connect([&](const Future<int>&) { ++calls; });
  EXPECT_NO_THROW(promise.setValue(1));
  EXPECT_EQ(calls, 2);
}

TEST(FutureConnect, CallbackSeesCancellation) {
  Promise<int> promise;
  bool canceled = false;
  promise.future().connect([&](const Future<int>& f) { canceled = f.isCanceled(); });
  promise.future().cancel();
  EXPECT_TRUE(canceled);
}

// Many threads -----------------------------------------------------------------------------------

TEST(FutureThreads, ManyWaitersAllSeeTheValue) {
  Promise<int> promise;
  constexpr int waiters = 16;
  std::atomic<int> correct{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < waiters; ++i) {
    threads.emplace_back([&, future = promise.future()] {
      if (future.value(30000) == 11) ++correct;
    });
  }
  promise.setValue(11);
  for (auto& t : threads) t.join();
  EXPECT_EQ(correct.load(), waiters);
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
        bool won = (i % 3 == 0) ? p.setError("e") : (i % 3 == 1) ? p.setValue(i) : p.setCanceled();
        if (won) ++winners;
      });
    }
    std::thread canceller([f = promise.future()]() mutable { f.cancel(); });
    for (auto& t : threads) t.join();
    canceller.join();
    // Exactly one completion takes effect: one of the threads, or else the canceller.
    EXPECT_LE(winners.load(), 1);
    if (winners.load() == 0) {
      EXPECT_TRUE(promise.future().isCanceled());
    }
    EXPECT_TRUE(promise.future().isFinished());
    EXPECT_EQ(callbacks.load(), 1);
  }
}

}  // namespace
