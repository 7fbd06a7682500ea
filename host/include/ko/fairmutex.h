#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

namespace ko {

/// A mutex that hands itself to its waiters in the order they asked for it, so that callers
/// blocked on a long critical section (a sentence being spoken) go in turn instead of in
/// whatever order the scheduler wakes them. Each waiter sleeps on a condition of its own: an
/// unlock wakes exactly the next one. Meets the Lockable requirements (std::lock_guard,
/// std::unique_lock, boost::lock_guard).
///
/// A thread that finds the mutex free and nobody waiting takes it at once.
class FairMutex {
 public:
  FairMutex() = default;
  FairMutex(const FairMutex&) = delete;
  FairMutex& operator=(const FairMutex&) = delete;

  void lock() {
    std::unique_lock<std::mutex> guard(state);
    if (!held && waiters.empty()) {
      held = true;
      return;
    }
    Waiter self;
    const std::uint64_t ticket = nextTicket++;
    waiters.emplace(ticket, &self);
    self.wake.wait(guard, [&self] { return self.granted; });
    // unlock() erased this waiter and left `held` set for it.
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
  };

  mutable std::mutex state;
  bool held = false;
  std::uint64_t nextTicket = 0;
  std::map<std::uint64_t, Waiter*> waiters;  // by ticket: the earliest first
};

}  // namespace ko
