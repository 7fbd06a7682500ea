#include <ko/object.h>

#include <stdexcept>

namespace ko {

namespace {

template <typename T>
Future<T> finishedWithValue(const T& value) {
  Promise<T> promise;
  promise.setValue(value);
  return promise.future();
}

template <typename T>
Future<T> finishedWithError(const std::string& message) {
  Promise<T> promise;
  promise.setError(message);
  return promise.future();
}

}  // namespace

// GenericObject ----------------------------------------------------------------------------------

GenericObject::GenericObject(std::string name) : name_(std::move(name)) {}

GenericObject::~GenericObject() = default;

void GenericObject::advertiseSignal(const std::string& name, SignalBase* signal) {
  std::lock_guard<std::mutex> lock(mutex_);
  signals_[name] = signal;
}

void GenericObject::clearSignals() {
  // The signals may already be gone (their owner is being destroyed), so they are only
  // forgotten, never touched.
  std::lock_guard<std::mutex> lock(mutex_);
  signals_.clear();
  links_.clear();
}

std::vector<std::string> GenericObject::signalNames() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  names.reserve(signals_.size());
  for (const auto& entry : signals_) names.push_back(entry.first);
  return names;
}

Future<SignalLink> GenericObject::connect(const std::string& signalName,
                                          const SignalSubscriber& subscriber) {
  return connectGeneric(signalName, subscriber.generic());
}

Future<SignalLink> GenericObject::connectGeneric(const std::string& signalName,
                                                 GenericSubscriber subscriber) {
  SignalBase* signal = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = signals_.find(signalName);
    if (it != signals_.end()) signal = it->second;
  }
  if (!signal) {
    return finishedWithError<SignalLink>("No signal \"" + signalName + "\" on the object \"" +
                                         name_ + "\"");
  }
  // Connecting may run the signal owner's subscriber-count callback: not under our lock.
  SignalLink link = signal->connectGeneric(std::move(subscriber));
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = signals_.find(signalName);
    if (it != signals_.end() && it->second == signal) {
      links_[link] = signal;
      return finishedWithValue(link);
    }
  }
  // The signal was withdrawn while we connected.
  signal->disconnect(link);
  return finishedWithError<SignalLink>("No signal \"" + signalName + "\" on the object \"" + name_ +
                                       "\"");
}

bool GenericObject::disconnect(SignalLink link) {
  SignalBase* signal = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = links_.find(link);
    if (it == links_.end()) return false;
    signal = it->second;
    links_.erase(it);
  }
  return signal->disconnect(link);
}

// Object -----------------------------------------------------------------------------------------

Future<SignalLink> Object::connect(const std::string& signalName,
                                   const SignalSubscriber& subscriber) {
  if (!object_) throw std::runtime_error("This object is null");
  return object_->connect(signalName, subscriber);
}

bool Object::disconnect(SignalLink link) {
  if (!object_) throw std::runtime_error("This object is null");
  return object_->disconnect(link);
}

// Session ----------------------------------------------------------------------------------------

Session::Session() = default;

Session::~Session() = default;

void Session::registerService(const std::string& name, Object object) {
  std::lock_guard<std::mutex> lock(mutex_);
  services_[name] = std::move(object);
}

void Session::unregisterService(const std::string& name) {
  Object removed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = services_.find(name);
    if (it == services_.end()) return;
    removed = std::move(it->second);
    services_.erase(it);
  }
}

Future<Object> Session::service(const std::string& name, const std::string& /*protocol*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = services_.find(name);
  return finishedWithValue(it == services_.end() ? Object() : it->second);
}

std::vector<std::string> Session::services() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  names.reserve(services_.size());
  for (const auto& entry : services_) names.push_back(entry.first);
  return names;
}

}  // namespace ko
