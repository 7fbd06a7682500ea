#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <ko/future.h>
#include <ko/signal.h>
#include <zr/export.h>

namespace ko {

/// An object published in a session: a named set of signals. Signals are registered by the
/// object's owner, which keeps them alive for as long as the object is published.
class BEXKO_API GenericObject {
 public:
  explicit GenericObject(std::string name = {});
  virtual ~GenericObject();
  GenericObject(const GenericObject&) = delete;
  GenericObject& operator=(const GenericObject&) = delete;

  const std::string& name() const { return name_; }

  /// Publishes `signal` under `name`; the owner keeps `signal` alive. Replaces a signal of the
  /// same name.
  void advertiseSignal(const std::string& name, SignalBase* signal);
  /// Unpublishes every signal; later connects fail and links are dropped.
  void clearSignals();
  /// Names of the published signals, in name order.
  std::vector<std::string> signalNames() const;

  /// Connects a subscriber to the signal of this name. The future carries the link, or an
  /// error when no such signal exists.
  Future<SignalLink> connect(const std::string& signalName, const SignalSubscriber& subscriber);
  Future<SignalLink> connectGeneric(const std::string& signalName, GenericSubscriber subscriber);
  /// Removes a link made by connect; false when unknown.
  bool disconnect(SignalLink link);

 private:
  std::string name_;
  mutable std::mutex mutex_;
  std::map<std::string, SignalBase*> signals_;
  std::map<SignalLink, SignalBase*> links_;
};

/// A handle on a published object; may be null. Copies share the object.
class BEXKO_API Object {
 public:
  Object() = default;
  explicit Object(std::shared_ptr<GenericObject> object) : object_(std::move(object)) {}

  bool isValid() const { return static_cast<bool>(object_); }
  explicit operator bool() const { return isValid(); }
  GenericObject* get() const { return object_.get(); }
  GenericObject* operator->() const { return object_.get(); }

  /// Connects by signal name. A null object throws std::runtime_error "This object is null".
  Future<SignalLink> connect(const std::string& signalName, const SignalSubscriber& subscriber);
  bool disconnect(SignalLink link);

 private:
  std::shared_ptr<GenericObject> object_;
};

/// The framework's session: named service objects that modules and clients look up.
class BEXKO_API Session {
 public:
  Session();
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Registers (or replaces) a service object under `name`.
  void registerService(const std::string& name, Object object);
  void unregisterService(const std::string& name);
  /// A future of the service's object, already finished: a null object when no service of
  /// that name is registered. The second argument is unused and kept for the contract.
  Future<Object> service(const std::string& name, const std::string& protocol = "");
  std::vector<std::string> services() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Object> services_;
};

using SessionPtr = boost::shared_ptr<Session>;

}  // namespace ko
