#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include <ko/eventloop.h>

namespace bexko {

/// The host's pool of threads for calls that may block.
///
/// A task never waits for another to finish: when no thread is idle, the pool starts a new one,
/// up to `maxThreads` (beyond that, tasks wait in arrival order). A thread that stays idle for
/// `idleTimeout` retires while more than `keptThreads` are alive, so that after a burst the pool
/// is back to its idle size within about `idleTimeout`. Exceptions from tasks are logged and
/// never leave the pool's threads.
///
/// Prompt tasks (submitPrompt: short work that never waits for long) go ahead of every
/// ordinary task, and when every thread is busy they get threads of their own beyond
/// `maxThreads`, up to `maxPromptThreads` more: ordinary tasks that wait, however many, never
/// hold a prompt one back.
class ThreadPool : public ko::ExecutionContext {
 public:
  explicit ThreadPool(std::size_t maxThreads = 256,
                      std::chrono::milliseconds idleTimeout = std::chrono::seconds(2),
                      std::size_t maxPromptThreads = 64, std::size_t keptThreads = 4);
  /// Shuts the pool down (see shutdown).
  ~ThreadPool() override;
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  /// Runs `fn` on a pool thread after `delay`; a delay goes through the shared event loop,
  /// which hands the task to the pool when it falls due, so that waiting costs no pool thread.
  /// The future finishes when `fn` has run, with `fn`'s error text if it threw; it finishes with
  /// an error when the pool is shut down before `fn` could start.
  ko::Future<void> asyncDelay(std::function<void()> fn, std::chrono::nanoseconds delay) override;

  /// Queues `fn` to run as soon as a thread is free. False, with `fn` not run, once the pool is
  /// shut down.
  bool submit(std::function<void()> fn);
  /// Queues `fn` ahead of every ordinary task, with a thread of its own if none is idle (see
  /// the class comment). False, with `fn` not run, once the pool is shut down.
  bool submitPrompt(std::function<void()> fn);

  /// Stops accepting work, lets the threads run what is already queued, and joins them.
  /// Idempotent. Called from a pool thread, it joins every other thread and lets the calling
  /// one finish on its own once its task returns.
  void shutdown();

  /// Threads alive now, and how many of them wait for work.
  std::size_t threadCount() const;
  std::size_t idleCount() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace bexko
