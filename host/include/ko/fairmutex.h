#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

#include <ko/cancellation.h>
#include <zr/export.h>

namespace ko {

/// The place of the call being served on this thread in the order in which calls reached the
/// host (posted and asynchronous calls are numbered when the host receives them, before any
/// thread runs them); on a thread that serves no such call, a new number, as if a call arrived
/// now. Numbers only grow.
BEXKO_API std::uint64_t arrivalTicket();

/// A mutex that hands itself to its waiters in the order in which their calls reached the host
/// (arrivalTicket), so that callers blocked on a long critical section (a sentence being
/// spoken) go in turn instead of in whatever order the host's threads happened to reach it.
/// Each waiter sleeps on a condition of its own: an unlock wakes exactly the next one. Meets
/// the Lockable requirements (std::lock_guard, std::unique_lock, boost::lock_guard).
///
/// A thread that finds the mutex free and nobody waiting takes it at once, even if a call that
/// reached the host earlier has not got as far yet.
///
/// A waiter whose caller goes away (ko::currentCallCancellation) leaves the line and lock()
/// throws ko::CallCancelled, so that a client that closed its connection leaves no call
/// behind waiting for a turn nobody wants. Those who were behind it keep their order.
class FairMutex {
 public:
  FairMutex() = default;
  FairMutex(const FairMutex&) = delete;
  FairMutex& operator=(const FairMutex&) = delete;

  void lock() {
    {
      std::lock_guard<std::mutex> guard(state);
      if (!held && waiters.empty()) {
        held = true;
        return;
      }
    }
    Waiter self;
    // Registered before `state` is taken: a cancellation takes its own lock and then `state`.
    CallCancellation::Registration leaving(currentCallCancellation(), [this, &self] {
      std::lock_guard<std::mutex> guard(state);
      self.cancelled = true;
      self.wake.notify_one();
    });
    std::unique_lock<std::mutex> guard(state);
    if (!held && waiters.empty()) {
      held = true;
      return;
    }
    if (self.cancelled) throw CallCancelled();
    auto place = waiters.emplace(arrivalTicket(), &self);
    self.wake.wait(guard, [&self] { return self.granted || self.cancelled; });
    // unlock() erased a granted waiter and left `held` set for it; one that was cancelled first
    // leaves the line on its own.
    if (self.granted) return;
    waiters.erase(place);
    throw CallCancelled();
  }

  bool try_lock() {
    std::lock_guard<std::mutex> guard(state);
    if (held || !waiters.empty()) return false;
    held = true;
    return true;
  }

  void unlock() {
    std::lock_guard<std::mutex> guard(state);
    if (waiters.empty()) {
      held = false;
      return;
    }
    // Handed over directly: nobody can slip in between this unlock and the next owner.
    auto first = waiters.begin();
    first->second->granted = true;
    first->second->wake.notify_one();
    waiters.erase(first);
  }

  /// Threads waiting for the mutex now.
  std::size_t waiting() const {
    std::lock_guard<std::mutex> guard(state);
    return waiters.size();
  }

 private:
  struct Waiter {
    std::condition_variable wake;
    bool granted = false;
    bool cancelled = false;
  };

  mutable std::mutex state;
  bool held = false;
  // By arrival: the earliest first. A thread that makes a call of its own in turn keeps its
  // call's number, so two waiters may share one: the later one queues after it.
  std::multimap<std::uint64_t, Waiter*> waiters;
};

}  // namespace ko
