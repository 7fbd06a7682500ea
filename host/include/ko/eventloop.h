#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include <ko/future.h>
#include <zr/export.h>

namespace ko {

/// Something that runs work later on threads of its own.
class BEXKO_API ExecutionContext {
 public:
  virtual ~ExecutionContext() = default;

  /// Runs `fn` after `delay`. The returned future finishes when `fn` has run (with an error if
  /// it threw); cancelling it before `fn` starts keeps `fn` from running and marks it
  /// cancelled. An exception from `fn` is logged, never propagated into the loop's thread.
  virtual Future<void> asyncDelay(std::function<void()> fn, std::chrono::nanoseconds delay) = 0;

  /// Runs `fn` as soon as possible.
  Future<void> post(std::function<void()> fn) {
    return asyncDelay(std::move(fn), std::chrono::nanoseconds(0));
  }
};

/// The framework's shared event loop: one thread that runs delayed work in deadline order, and
/// work of the same deadline in the order it was given. Work must be short: a task that blocks
/// holds every later one back.
class BEXKO_API EventLoop : public ExecutionContext {
 public:
  EventLoop();
  ~EventLoop() override;  // runs nothing more; waits for the running task
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Runs `fn` after `delayMicroseconds`.
  Future<void> async(std::function<void()> fn, std::uint64_t delayMicroseconds = 0);
  Future<void> asyncDelay(std::function<void()> fn, std::chrono::nanoseconds delay) override;

  /// Number of tasks waiting to run.
  std::size_t pendingCount() const;
  /// True when called from the loop's own thread.
  bool isInLoopThread() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// The process-wide event loop, created on first use.
BEXKO_API EventLoop* getEventLoop();

}  // namespace ko
