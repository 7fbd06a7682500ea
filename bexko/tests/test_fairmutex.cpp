#include <ko/fairmutex.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include <zr/zrbroker.h>
#include <zr/zrmodule.h>

#include "support.h"

namespace {

using namespace bexko::test;

TEST(FairMutexTest, WaitersTakeTheMutexInTheOrderTheyAskedForIt) {
  ko::FairMutex mutex;
  std::mutex orderMutex;
  std::vector<int> order;
  mutex.lock();
  std::vector<std::thread> waiters;
  for (int i = 0; i < 24; ++i) {
    waiters.emplace_back([&, i] {
      std::lock_guard<ko::FairMutex> lock(mutex);
      std::lock_guard<std::mutex> record(orderMutex);
      order.push_back(i);
    });
    // The next one asks only once this one waits.
    while (mutex.waiting() != static_cast<std::size_t>(i + 1)) std::this_thread::yield();
  }
  EXPECT_FALSE(mutex.try_lock());
  mutex.unlock();
  for (std::thread& waiter : waiters) waiter.join();
  std::vector<int> expected(24);
  for (int i = 0; i < 24; ++i) expected[i] = i;
  EXPECT_EQ(order, expected);
  // Free again, and nobody left waiting.
  EXPECT_TRUE(mutex.try_lock());
  mutex.unlock();
  EXPECT_EQ(mutex.waiting(), 0u);
}

TEST(FairMutexTest, ManyThreadsNeverHoldItTogether) {
  ko::FairMutex mutex;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        std::lock_guard<ko::FairMutex> lock(mutex);
        if (++inside != 1) overlapped = true;
        ++counter;
        --inside;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(overlapped.load());
  EXPECT_EQ(counter, 8 * 2000);
}

/// A module whose one method waits for a fair mutex that the test holds, and notes who got in.
class Turnstile : public ZR::ZRModule {
 public:
  explicit Turnstile(boost::shared_ptr<ZR::ZRBroker> broker) : ZR::ZRModule(broker, "Turnstile") {
    functionName("enter", getName(), "Waits for the turnstile, then notes the caller.");
    addParam("who", "caller number");
    bindMethodOverload(ZR::createFunctor(this, &Turnstile::enter));
  }
  void enter(int who) {
    std::lock_guard<ko::FairMutex> lock(gate);
    entered.add(who);
  }
  ko::FairMutex gate;
  Recorder<int> entered;
};

class FairMutexCancellationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ = ZR::ZRBroker::create("test");
    turnstile_ = ZR::ZRModule::createModule<Turnstile>(broker_);
  }
  void TearDown() override { broker_->shutdown(); }

  /// Calls enter(who) on a host thread; the outcome's error text, or "ok", arrives in `ended`.
  void enter(int who, ko::CallCancellationPtr cancellation = {}) {
    broker_->callAsync(
        "Turnstile", "enter", {ZR::ZRValue(who)},
        [this, who](const ZR::ZRCallOutcome& outcome) {
          ended.add(std::to_string(who) + ": " +
                    (outcome.ok ? "ok" : outcome.error->description()));
        },
        std::move(cancellation));
  }

  boost::shared_ptr<ZR::ZRBroker> broker_;
  boost::shared_ptr<Turnstile> turnstile_;
  Recorder<std::string> ended;
};

TEST_F(FairMutexCancellationTest, WaitersOfAGoneCallerLeaveTheLineAndTheOthersKeepTheirOrder) {
  const std::string abandoned = ko::CallCancelled().what();
  auto gone = std::make_shared<ko::CallCancellation>();
  turnstile_->gate.lock();
  // Callers 1..6 queue in turn; the even ones belong to the caller that goes away.
  for (int who = 1; who <= 6; ++who) {
    enter(who, who % 2 == 0 ? gone : nullptr);
    while (turnstile_->gate.waiting() != static_cast<std::size_t>(who)) std::this_thread::yield();
  }
  gone->cancel();
  ASSERT_TRUE(ended.waitForCount(3, longWaitMs));
  EXPECT_EQ(turnstile_->gate.waiting(), 3u);
  EXPECT_TRUE(turnstile_->entered.seen().empty());
  // A call of the gone caller that had not started yet is not run at all.
  enter(8, gone);
  ASSERT_TRUE(ended.waitForCount(4, longWaitMs));
  EXPECT_EQ(turnstile_->gate.waiting(), 3u);

  turnstile_->gate.unlock();
  ASSERT_TRUE(ended.waitForCount(7, longWaitMs));
  EXPECT_EQ(turnstile_->entered.seen(), (std::vector<int>{1, 3, 5}));
  auto outcomes = ended.seen();
  // The cancelled waiters wake together and end in any order; the others entered in their
  // turn (above), and their completions may overtake one another after the mutex is released.
  std::sort(outcomes.begin(), outcomes.begin() + 4);
  std::sort(outcomes.begin() + 4, outcomes.end());
  EXPECT_EQ(std::vector<std::string>(outcomes.begin(), outcomes.begin() + 4),
            (std::vector<std::string>{"2: " + abandoned, "4: " + abandoned, "6: " + abandoned,
                                      "8: " + abandoned}));
  EXPECT_EQ(std::vector<std::string>(outcomes.begin() + 4, outcomes.end()),
            (std::vector<std::string>{"1: ok", "3: ok", "5: ok"}));
}

TEST_F(FairMutexCancellationTest, AGoneCallerStillTakesAFreeMutexOnceItsCallHasStarted) {
  auto gone = std::make_shared<ko::CallCancellation>();
  enter(1, gone);
  ASSERT_TRUE(ended.waitForCount(1, longWaitMs));
  gone->cancel();
  // The thread-local cancellation does not outlive its call: a plain wait after it is untouched.
  turnstile_->gate.lock();
  enter(2);
  while (turnstile_->gate.waiting() != 1) std::this_thread::yield();
  turnstile_->gate.unlock();
  ASSERT_TRUE(ended.waitForCount(2, longWaitMs));
  EXPECT_EQ(ended.seen(), (std::vector<std::string>{"1: ok", "2: ok"}));
}

}  // namespace
