#include "threadpool.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <ko/log.h>

namespace bexko {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.threadpool");
  return category;
}

// The life of a task given to asyncDelay: it either starts or is cancelled, never both.
enum TaskPhase { Pending, Started, Cancelled };

}  // namespace

struct ThreadPool::State {
  std::size_t maxThreads;
  std::size_t maxPromptThreads;
  std::size_t keptThreads;
  std::chrono::milliseconds idleTimeout;

  mutable std::mutex mutex;
  std::condition_variable workAvailable;
  std::deque<std::function<void()>> queue;
  std::deque<std::function<void()>> promptQueue;  // taken before `queue`
  std::map<std::thread::id, std::thread> workers;
  // Threads that retired on their own and still have to be joined.
  std::vector<std::thread> retired;
  std::size_t idle = 0;
  std::size_t ordinaryRunning = 0;
  bool stopping = false;

  static void run(const std::shared_ptr<State>& self);
  static bool submit(const std::shared_ptr<State>& self, std::function<void()> fn, bool prompt);
  // Whether an idle thread has something it may take: a prompt task, or an ordinary one while
  // fewer than maxThreads run.
  bool hasWork() const {
    return !promptQueue.empty() || (!queue.empty() && ordinaryRunning < maxThreads);
  }
};

void ThreadPool::State::run(const std::shared_ptr<State>& self) {
  std::unique_lock<std::mutex> lock(self->mutex);
  for (;;) {
    if (self->hasWork()) {
      const bool prompt = !self->promptQueue.empty();
      auto& from = prompt ? self->promptQueue : self->queue;
      std::function<void()> task = std::move(from.front());
      from.pop_front();
      if (!prompt) ++self->ordinaryRunning;
      lock.unlock();
      try {
        task();
      } catch (const std::exception& e) {
        KO_LOG(logCategory(), ko::log::error, "ThreadPool") << "A task threw: " << e.what();
      } catch (...) {
        KO_LOG(logCategory(), ko::log::error, "ThreadPool")
            << "A task threw a non-standard exception";
      }
      // The task's captures may hold the last reference to something whose destructor is
      // heavy (a broker, a module): let it go before taking the lock again.
      task = nullptr;
      lock.lock();
      if (!prompt) --self->ordinaryRunning;
      continue;
    }
    if (self->stopping) return;  // shutdown joins this thread
    ++self->idle;
    bool woken = self->workAvailable.wait_for(lock, self->idleTimeout,
                                              [&] { return self->hasWork() || self->stopping; });
    --self->idle;
    if (!woken && self->workers.size() > self->keptThreads) {
      // Idle for too long: retire, leaving the thread object to be joined by whoever next
      // starts a thread or shuts the pool down.
      auto it = self->workers.find(std::this_thread::get_id());
      if (it != self->workers.end()) {
        self->retired.push_back(std::move(it->second));
        self->workers.erase(it);
      }
      return;
    }
  }
}

bool ThreadPool::State::submit(const std::shared_ptr<State>& self, std::function<void()> fn,
                               bool prompt) {
  std::vector<std::thread> toJoin;
  {
    std::lock_guard<std::mutex> lock(self->mutex);
    if (self->stopping) return false;
    (prompt ? self->promptQueue : self->queue).push_back(std::move(fn));
    // A new thread when the idle ones cannot take what waits: ordinary tasks grow the pool up
    // to maxThreads, prompt ones up to maxPromptThreads more. Any thread takes prompt tasks
    // first and ordinary ones only while fewer than maxThreads run.
    const bool start =
        self->promptQueue.size() + self->queue.size() > self->idle &&
        self->workers.size() < self->maxThreads + (prompt ? self->maxPromptThreads : 0);
    if (start) {
      std::thread worker([self] { State::run(self); });
      auto id = worker.get_id();
      self->workers.emplace(id, std::move(worker));
    } else {
      self->workAvailable.notify_one();
    }
    toJoin.swap(self->retired);
  }
  for (auto& thread : toJoin) thread.join();
  return true;
}

ThreadPool::ThreadPool(std::size_t maxThreads, std::chrono::milliseconds idleTimeout,
                       std::size_t maxPromptThreads, std::size_t keptThreads)
    : state_(std::make_shared<State>()) {
  state_->maxThreads = maxThreads == 0 ? 1 : maxThreads;
  state_->maxPromptThreads = maxPromptThreads;
  state_->keptThreads = keptThreads;
  state_->idleTimeout = idleTimeout;
}

ThreadPool::~ThreadPool() { shutdown(); }

bool ThreadPool::submit(std::function<void()> fn) {
  return State::submit(state_, std::move(fn), false);
}

bool ThreadPool::submitPrompt(std::function<void()> fn) {
  return State::submit(state_, std::move(fn), true);
}

ko::Future<void> ThreadPool::asyncDelay(std::function<void()> fn, std::chrono::nanoseconds delay) {
  auto phase = std::make_shared<std::atomic<int>>(Pending);
  ko::Promise<void> promise([phase](ko::Promise<void> p) {
    int expected = Pending;
    if (phase->compare_exchange_strong(expected, Cancelled)) p.setCanceled();
  });
  ko::Future<void> future = promise.future();

  std::function<void()> task = [phase, promise, fn]() mutable {
    int expected = Pending;
    if (!phase->compare_exchange_strong(expected, Started)) return;
    try {
      fn();
      promise.setValue();
    } catch (const std::exception& e) {
      KO_LOG(logCategory(), ko::log::error, "asyncDelay") << "A task threw: " << e.what();
      promise.setError(e.what());
    } catch (...) {
      KO_LOG(logCategory(), ko::log::error, "asyncDelay")
          << "A task threw a non-standard exception";
      promise.setError("unknown exception");
    }
  };

  auto refuse = [](ko::Promise<void>& p) { p.setError("the host's thread pool is shut down"); };

  if (delay <= std::chrono::nanoseconds::zero()) {
    if (!submit(task)) refuse(promise);
    return future;
  }
  std::weak_ptr<State> weak = state_;
  ko::getEventLoop()->asyncDelay(
      [weak, task, promise, refuse]() mutable {
        auto state = weak.lock();
        if (!state || !State::submit(state, task, false)) refuse(promise);
      },
      delay);
  return future;
}

void ThreadPool::shutdown() {
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->stopping = true;
    for (auto& entry : state_->workers) threads.push_back(std::move(entry.second));
    state_->workers.clear();
    for (auto& thread : state_->retired) threads.push_back(std::move(thread));
    state_->retired.clear();
  }
  state_->workAvailable.notify_all();
  for (auto& thread : threads) {
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();  // the State outlives it: the thread holds its own reference
    } else {
      thread.join();
    }
  }
}

std::size_t ThreadPool::threadCount() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->workers.size();
}

std::size_t ThreadPool::idleCount() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->idle;
}

}  // namespace bexko
