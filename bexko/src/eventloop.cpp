#include <ko/eventloop.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <ko/clock.h>
#include <ko/log.h>

namespace ko {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.eventloop");
  return category;
}

// Far enough to mean "never" without overflowing the clock.
constexpr std::chrono::hours maxDelay(24 * 365 * 100);

}  // namespace

// The loop's state, shared with the cancel handlers of its futures, which may outlive the loop.
struct EventLoopCore {
  struct Key {
    Clock::time_point deadline;
    std::uint64_t sequence;
    bool operator<(const Key& o) const {
      return deadline != o.deadline ? deadline < o.deadline : sequence < o.sequence;
    }
  };
  struct Task {
    std::function<void()> fn;
    Promise<void> promise;
  };

  std::mutex mutex;
  std::condition_variable changed;
  std::map<Key, Task> tasks;
  std::atomic<std::uint64_t> nextSequence{0};
  bool stopping = false;

  void run();
};

void EventLoopCore::run() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    if (tasks.empty()) {
      changed.wait(lock);
      continue;
    }
    auto first = tasks.begin();
    if (first->first.deadline > Clock::now()) {
      // A copy: the wait reads the deadline again after it wakes, when a cancel may have
      // erased the task that held it.
      const Clock::time_point deadline = first->first.deadline;
      changed.wait_until(lock, deadline);
      continue;
    }
    Task task = std::move(first->second);
    tasks.erase(first);
    lock.unlock();
    try {
      task.fn();
      task.promise.setValue();
    } catch (const std::exception& e) {
      KO_LOG(logCategory(), ko::log::error, "EventLoop") << "A task threw: " << e.what();
      task.promise.setError(e.what());
    } catch (...) {
      KO_LOG(logCategory(), ko::log::error, "EventLoop") << "A task threw a non-standard exception";
      task.promise.setError("unknown exception");
    }
    task.fn = nullptr;  // its captures go before the lock is taken again
    lock.lock();
  }
  // Work that never ran is reported as cancelled, so that nobody waits for it forever.
  std::map<Key, Task> leftover;
  leftover.swap(tasks);
  lock.unlock();
  for (auto& entry : leftover) entry.second.promise.setCanceled();
}

struct EventLoop::Impl {
  std::shared_ptr<EventLoopCore> core = std::make_shared<EventLoopCore>();
  std::thread thread;
};

EventLoop::EventLoop() : impl_(new Impl) {
  auto core = impl_->core;
  impl_->thread = std::thread([core] { core->run(); });
}

EventLoop::~EventLoop() {
  {
    std::lock_guard<std::mutex> lock(impl_->core->mutex);
    impl_->core->stopping = true;
  }
  impl_->core->changed.notify_all();
  if (impl_->thread.get_id() == std::this_thread::get_id()) {
    impl_->thread.detach();  // destroyed from one of its own tasks: the core outlives us
  } else {
    impl_->thread.join();
  }
}

Future<void> EventLoop::async(std::function<void()> fn, std::uint64_t delayMicroseconds) {
  return asyncDelay(std::move(fn), std::chrono::microseconds(
                                       std::min<std::uint64_t>(delayMicroseconds, 1ULL << 62)));
}

Future<void> EventLoop::asyncDelay(std::function<void()> fn, std::chrono::nanoseconds delay) {
  auto& core = impl_->core;
  if (delay < std::chrono::nanoseconds::zero()) delay = std::chrono::nanoseconds::zero();
  if (delay > maxDelay) delay = maxDelay;
  EventLoopCore::Key key{Clock::now() + std::chrono::duration_cast<Clock::duration>(delay),
                         core->nextSequence.fetch_add(1)};

  std::weak_ptr<EventLoopCore> weak = core;
  Promise<void> promise([weak, key](Promise<void> p) {
    EventLoopCore::Task removed;
    bool found = false;
    if (auto c = weak.lock()) {
      std::lock_guard<std::mutex> lock(c->mutex);
      auto it = c->tasks.find(key);
      if (it != c->tasks.end()) {
        removed = std::move(it->second);
        c->tasks.erase(it);
        found = true;
      }
    }
    // A task already running finishes normally; only one that never started is cancelled.
    if (found) p.setCanceled();
  });
  Future<void> future = promise.future();

  bool first = false;
  {
    std::lock_guard<std::mutex> lock(core->mutex);
    if (core->stopping) {
      promise.setCanceled();
      return future;
    }
    auto inserted = core->tasks.emplace(key, EventLoopCore::Task{std::move(fn), promise});
    first = inserted.first == core->tasks.begin();
  }
  if (first) core->changed.notify_one();
  return future;
}

std::size_t EventLoop::pendingCount() const {
  std::lock_guard<std::mutex> lock(impl_->core->mutex);
  return impl_->core->tasks.size();
}

bool EventLoop::isInLoopThread() const {
  return impl_->thread.get_id() == std::this_thread::get_id();
}

EventLoop* getEventLoop() {
  // Never destroyed: work may be scheduled from static destructors of other libraries, and a
  // loop that outlives main costs nothing but an idle thread.
  static EventLoop* loop = new EventLoop();
  return loop;
}

}  // namespace ko
