#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <zr/export.h>

namespace ko {

enum class FutureState { None, Running, Canceling, Canceled, FinishedWithError, FinishedWithValue };

/// Thrown by Future::value when the result is not available: time-out, error or cancellation.
class BEXKO_API FutureException : public std::runtime_error {
 public:
  enum Kind { Timeout, Canceled, UserError, BrokenPromise };
  FutureException(Kind kind, const std::string& what) : std::runtime_error(what), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

/// Infinite wait, for Future::value and Future::wait.
constexpr int FutureTimeout_Infinite = 2147483647;

namespace detail {

template <typename T>
struct ValueSlot {
  std::optional<T> value;
};
template <>
struct ValueSlot<void> {};

/// The state shared by a promise and its futures.
template <typename T>
class FutureState_ {
 public:
  using Callback = std::function<void()>;

  FutureState state() {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_;
  }

  /// Completes the state once; later completions are ignored and return false.
  template <typename Fn>
  bool finish(FutureState newState, Fn&& store) {
    std::vector<Callback> callbacks;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (isFinal(state_)) return false;
      store();
      state_ = newState;
      callbacks.swap(callbacks_);
    }
    cond_.notify_all();
    for (auto& cb : callbacks) runCallback(cb);
    return true;
  }

  /// Asks for cancellation: runs the promise's cancel handler once, or, when the promise has
  /// none, marks the state cancelled at once.
  void requestCancel() {
    std::function<void()> handler;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (isFinal(state_) || state_ == FutureState::Canceling) return;
      if (!onCancel_) {
        // No handler: cancellation is immediate.
      } else {
        state_ = FutureState::Canceling;
        handler = onCancel_;
      }
    }
    if (handler) {
      handler();
    } else {
      finish(FutureState::Canceled, [] {});
    }
  }

  /// Waits until final or `msecs` elapse; returns the state then.
  FutureState wait(int msecs) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (msecs == FutureTimeout_Infinite) {
      cond_.wait(lock, [this] { return isFinal(state_); });
    } else {
      cond_.wait_for(lock, std::chrono::milliseconds(msecs < 0 ? 0 : msecs),
                     [this] { return isFinal(state_); });
    }
    return state_;
  }

  /// Runs `cb` when the state becomes final (at once, on this thread, if it already is).
  void onFinished(Callback cb) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!isFinal(state_)) {
        callbacks_.push_back(std::move(cb));
        return;
      }
    }
    runCallback(cb);
  }

  static bool isFinal(FutureState s) {
    return s == FutureState::Canceled || s == FutureState::FinishedWithError ||
           s == FutureState::FinishedWithValue;
  }

  std::mutex mutex_;
  std::condition_variable cond_;
  FutureState state_ = FutureState::Running;
  std::string error_;
  ValueSlot<T> slot_;
  std::function<void()> onCancel_;
  std::vector<Callback> callbacks_;

 private:
  static void runCallback(Callback& cb) {
    try {
      cb();
    } catch (...) {
      // A completion callback runs on whichever thread finished the promise; it must not
      // unwind into that thread.
    }
  }
};

}  // namespace detail

template <typename T>
class Promise;

/// The reading side of an asynchronous result. Copies share one state. A default-constructed
/// future is a fresh, unfinished one that nothing will complete (cancelling it cancels it).
template <typename T>
class Future {
 public:
  Future() : state_(std::make_shared<detail::FutureState_<T>>()) {}

  /// Waits up to `msecs` for the value. Throws FutureException on time-out, error (its message
  /// is the promise's error text) or cancellation.
  template <typename U = T>
  std::enable_if_t<!std::is_void<U>::value, U> value(int msecs = FutureTimeout_Infinite) const {
    check(state_->wait(msecs));
    std::lock_guard<std::mutex> lock(state_->mutex_);
    return *state_->slot_.value;
  }
  template <typename U = T>
  std::enable_if_t<std::is_void<U>::value, void> value(int msecs = FutureTimeout_Infinite) const {
    check(state_->wait(msecs));
  }

  /// Waits up to `msecs`; returns the state (Running when the wait timed out).
  FutureState wait(int msecs = FutureTimeout_Infinite) const { return state_->wait(msecs); }
  FutureState state() const { return state_->state(); }

  /// Asks the producer to cancel. The future becomes cancelled at once when the producer
  /// registered no cancel handler, else when the handler (or the producer) settles it.
  void cancel() { state_->requestCancel(); }

  bool isFinished() const { return detail::FutureState_<T>::isFinal(state()); }
  bool isRunning() const {
    auto s = state();
    return s == FutureState::Running || s == FutureState::Canceling;
  }
  bool isCanceled() const { return state() == FutureState::Canceled; }
  bool hasError() const { return state() == FutureState::FinishedWithError; }
  bool hasValue() const { return state() == FutureState::FinishedWithValue; }
  /// The error text of a future that finished with an error, else empty.
  std::string error() const {
    std::lock_guard<std::mutex> lock(state_->mutex_);
    return state_->state_ == FutureState::FinishedWithError ? state_->error_ : std::string();
  }

  /// Calls `fn(future)` once the future is final, on the thread that completes it (or at once
  /// when it already is). Exceptions from `fn` are swallowed.
  void connect(std::function<void(const Future<T>&)> fn) const {
    Future<T> self = *this;
    state_->onFinished([self, fn] { fn(self); });
  }

  bool operator==(const Future& other) const { return state_ == other.state_; }

 private:
  friend class Promise<T>;
  explicit Future(std::shared_ptr<detail::FutureState_<T>> s) : state_(std::move(s)) {}

  void check(FutureState s) const {
    switch (s) {
      case FutureState::FinishedWithValue:
        return;
      case FutureState::FinishedWithError: {
        std::lock_guard<std::mutex> lock(state_->mutex_);
        throw FutureException(FutureException::UserError, state_->error_);
      }
      case FutureState::Canceled:
        throw FutureException(FutureException::Canceled, "Future canceled");
      default:
        throw FutureException(FutureException::Timeout, "Future timeout");
    }
  }

  std::shared_ptr<detail::FutureState_<T>> state_;
};

/// The writing side. The first completion wins; later ones are ignored.
template <typename T>
class Promise {
 public:
  /// `onCancel` runs (on the cancelling thread) when a future asks for cancellation; it should
  /// settle the promise, typically with setCanceled. Without it a cancel request settles the
  /// promise as cancelled at once.
  explicit Promise(std::function<void(Promise<T>)> onCancel = {})
      : state_(std::make_shared<detail::FutureState_<T>>()) {
    if (onCancel) {
      std::weak_ptr<detail::FutureState_<T>> weak = state_;
      state_->onCancel_ = [weak, onCancel] {
        if (auto s = weak.lock()) onCancel(Promise<T>(s));
      };
    }
  }

  Future<T> future() const { return Future<T>(state_); }

  template <typename U = T>
  std::enable_if_t<!std::is_void<U>::value, bool> setValue(const U& v) {
    return state_->finish(FutureState::FinishedWithValue, [&] { state_->slot_.value = v; });
  }
  template <typename U = T>
  std::enable_if_t<std::is_void<U>::value, bool> setValue(int = 0) {
    return state_->finish(FutureState::FinishedWithValue, [] {});
  }
  bool setError(const std::string& message) {
    return state_->finish(FutureState::FinishedWithError, [&] { state_->error_ = message; });
  }
  bool setCanceled() { return state_->finish(FutureState::Canceled, [] {}); }
  /// True once a future asked for cancellation (or the promise is already cancelled).
  bool isCancelRequested() {
    auto s = state_->state();
    return s == FutureState::Canceling || s == FutureState::Canceled;
  }

 private:
  explicit Promise(std::shared_ptr<detail::FutureState_<T>> s) : state_(std::move(s)) {}
  std::shared_ptr<detail::FutureState_<T>> state_;
};

}  // namespace ko
