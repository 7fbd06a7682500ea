#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <zr/zrmodule.h>
#include <zr/zrvalue.h>

namespace bexko {
namespace services {

/// The event store, published as "ZRMemory": one value per key, raised events delivered to
/// subscribed modules and to in-process observers.
///
/// A subscribed module gets `callbackMethod(key, value, message)` called by name through the
/// broker on a host thread, never while the store holds a lock. Deliveries to one module run one
/// at a time, in raise order, so a module sees the values of each key in the order they were
/// raised. An error thrown by a callback is logged and does not reach the raiser.
///
/// A raise only hands its value (one shared copy for all subscribers) to a host job that queues
/// it for each subscribed module; a few host jobs deliver the queues, each queue's deliveries as
/// one batch, so a raise costs the same however many the subscribers are and however slow. A module
/// that falls behind by more than maxPendingDeliveries deliveries or maxPendingBytes bytes loses
/// its oldest ones, with a warning in the log; the others are unaffected.
class Memory : public ZR::ZRModule {
 public:
  /// Receives a raised key and its value, synchronously on the raising thread.
  using Observer = std::function<void(const std::string& key, const ZR::ZRValue& value)>;

  /// Bounds of the store, so that no client can make the host hold what it likes: a value
  /// (with its key) takes at most maxValueBytes, all values together at most maxStoreBytes
  /// (text plus a few words per element). A raise or insert beyond either throws ZRError and
  /// stores nothing.
  static constexpr std::size_t maxValueBytes = 1024 * 1024;
  static constexpr std::size_t maxStoreBytes = 64 * 1024 * 1024;
  /// Bounds of the deliveries waiting for one subscribed module (values counted as above).
  static constexpr std::size_t maxPendingDeliveries = 65536;
  static constexpr std::size_t maxPendingBytes = 16 * 1024 * 1024;
  /// Bounds of the raises waiting to be queued for their subscribers.
  static constexpr std::size_t maxPendingRaises = 4 * maxPendingDeliveries;
  static constexpr std::size_t maxPendingRaiseBytes = 4 * maxPendingBytes;
  /// Host jobs that deliver at once. A new one starts only when every running one is inside a
  /// callback, so slow subscribers hold back the others only when this many are slow at once.
  static constexpr std::size_t maxDrainers = 16;

  explicit Memory(boost::shared_ptr<ZR::ZRBroker> broker);
  ~Memory() override;

  /// Declares `key` with an empty value; a key that already holds a value keeps it.
  void declareEvent(const std::string& key);
  /// Stores `value` under `key` (declaring it if needed) and notifies subscribers and observers.
  /// Throws ZRError for an empty key and beyond the store's bounds.
  void raiseEvent(const std::string& key, const ZR::ZRValue& value);
  /// Stores `value` under `key` without notifying anyone. Throws ZRError for an empty key and
  /// beyond the store's bounds.
  void insertData(const std::string& key, const ZR::ZRValue& value);
  /// The value under `key`. Throws ZRError for a key never declared, raised or inserted.
  ZR::ZRValue getData(const std::string& key);
  /// Keys that contain `filter` (every key for an empty filter), in name order.
  std::vector<std::string> getDataList(const std::string& filter);

  /// Subscribes `callbackMethod` of `module` to `key`; it is called with (key, value, "").
  /// Throws ZRError when the module is not registered or has no such method.
  void subscribeToEvent(const std::string& key, const std::string& module,
                        const std::string& callbackMethod);
  /// Subscribes `callbackMethod` of `module` to `key`; it is called with (key, value, message).
  /// Subscribing the same module to the same key again replaces its subscription.
  void subscribeToMicroEvent(const std::string& key, const std::string& module,
                             const std::string& message, const std::string& callbackMethod);
  /// Removes the subscription of `module` to `key`; an unknown one is ignored.
  void unsubscribeToEvent(const std::string& key, const std::string& module);
  void unsubscribeToMicroEvent(const std::string& key, const std::string& module);

  /// Raises handed to the fan-out and not yet queued for their subscribers.
  std::size_t pendingRaises() const;

  /// In-process hook for the gateway and the test host: `fn` runs on the raising thread for
  /// every raise of `key` (every key when `key` is empty). Raises are observed in one global
  /// order, the same for every observer. `fn` must not block; an exception from it is logged.
  /// Returns the id for unobserve.
  int observe(const std::string& key, Observer fn);
  /// Removes an observer; after it returns, the observer is not running and never runs again.
  void unobserve(int id);

  /// Stops delivering to subscribers (queued deliveries are dropped) and unregisters the module.
  void exit() override;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with the jobs that deliver
};

}  // namespace services
}  // namespace bexko
