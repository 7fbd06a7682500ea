#pragma once

#include <string>
#include <vector>

#include <zr/zrproxy.h>

namespace ZR {

/// Typed proxy of the event store "ZRMemory".
///
/// The store keeps one value per key. Raising a key stores the value and notifies its
/// subscribers: each subscribed module gets `callbackMethod(key, value, message)` called by
/// name on a host thread, never while the store holds its lock, and each subscriber sees the
/// values of a key in the order they were raised.
class BEXKO_API ZRMemoryProxy : public ZRProxy {
 public:
  ZRMemoryProxy(boost::shared_ptr<ZRBroker> broker, const std::string& moduleName = "ZRMemory")
      : ZRProxy(std::move(broker), moduleName) {}

  /// Declares an event key (an empty value until raised). Declaring again changes nothing.
  void declareEvent(const std::string& key) { call<void>("declareEvent", key); }
  /// Stores `value` under `key` (declaring it if needed) and notifies the subscribers.
  void raiseEvent(const std::string& key, const ZRValue& value) {
    call<void>("raiseEvent", key, value);
  }
  /// Stores `value` under `key` without notifying anyone.
  void insertData(const std::string& key, const ZRValue& value) {
    call<void>("insertData", key, value);
  }
  /// The value under `key`. Throws ZRError for a key never declared, raised or inserted.
  ZRValue getData(const std::string& key) { return call<ZRValue>("getData", key); }
  /// Keys that contain `filter` (all keys for an empty filter), in name order.
  std::vector<std::string> getDataList(const std::string& filter) {
    return call<std::vector<std::string>>("getDataList", filter);
  }
  /// Subscribes `callbackMethod` of `module`; it is called with (key, value, "").
  void subscribeToEvent(const std::string& key, const std::string& module,
                        const std::string& callbackMethod) {
    call<void>("subscribeToEvent", key, module, callbackMethod);
  }
  /// Subscribes `callbackMethod` of `module`; it is called with (key, value, message).
  /// Subscribing the same module to the same key again replaces its subscription.
  void subscribeToMicroEvent(const std::string& key, const std::string& module,
                             const std::string& message, const std::string& callbackMethod) {
    call<void>("subscribeToMicroEvent", key, module, message, callbackMethod);
  }
  /// Removes the subscription of `module` to `key`; unknown ones are ignored.
  void unsubscribeToEvent(const std::string& key, const std::string& module) {
    call<void>("unsubscribeToEvent", key, module);
  }
  void unsubscribeToMicroEvent(const std::string& key, const std::string& module) {
    call<void>("unsubscribeToMicroEvent", key, module);
  }
};

}  // namespace ZR
