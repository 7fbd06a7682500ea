#include <ko/fairmutex.h>

#include <atomic>
#include <thread>
#include <vector>

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

}  // namespace
