#include <bexko/services/memory.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include <ko/log.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>

namespace bexko {
namespace services {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.services.memory");
  return category;
}

const char* const moduleName = "ZRMemory";

struct Delivery {
  std::string method;
  std::string key;
  ZR::ZRValue value;
  std::string message;
};

/// The deliveries waiting for one subscribed module. At most one pool job drains it at a time,
/// which keeps the module's deliveries in raise order.
struct DeliveryQueue {
  std::string module;
  std::mutex mutex;
  std::deque<Delivery> pending;
  bool draining = false;
  bool closed = false;
};

struct Subscription {
  std::string message;
  std::string callbackMethod;
};

struct ObserverEntry {
  int id;
  std::string key;
  Memory::Observer fn;
};

using ObserverList = std::vector<ObserverEntry>;

// What a value costs the store, roughly: its text and a few words per element.
std::size_t sizeOf(const ZR::ZRValue& value) {
  constexpr std::size_t kElement = 16;
  if (value.isString()) return kElement + value.toString().size();
  if (!value.isArray()) return kElement;
  std::size_t bytes = kElement;
  for (int i = 0; i < value.getSize(); ++i) bytes += sizeOf(value[i]);
  return bytes;
}

void drain(const std::shared_ptr<DeliveryQueue>& queue, const boost::weak_ptr<ZR::ZRBroker>& weak) {
  for (;;) {
    Delivery delivery;
    {
      std::lock_guard<std::mutex> lock(queue->mutex);
      if (queue->pending.empty() || queue->closed) {
        queue->pending.clear();
        queue->draining = false;
        return;
      }
      delivery = std::move(queue->pending.front());
      queue->pending.pop_front();
    }
    boost::shared_ptr<ZR::ZRBroker> broker = weak.lock();
    if (!broker) continue;  // the host is going away; the loop empties the queue
    try {
      broker->call(queue->module, delivery.method,
                   {ZR::ZRValue(delivery.key), delivery.value, ZR::ZRValue(delivery.message)});
    } catch (const ZR::ZRError& e) {
      KO_LOG(logCategory(), ko::log::error, "raiseEvent")
          << "Delivery of \"" << delivery.key << "\" to " << queue->module << "." << delivery.method
          << " failed: " << e.toString();
    } catch (const std::exception& e) {
      KO_LOG(logCategory(), ko::log::error, "raiseEvent")
          << "Delivery of \"" << delivery.key << "\" to " << queue->module << "." << delivery.method
          << " failed: " << e.what();
    } catch (...) {
      KO_LOG(logCategory(), ko::log::error, "raiseEvent")
          << "Delivery of \"" << delivery.key << "\" to " << queue->module << "." << delivery.method
          << " failed with an unknown exception";
    }
  }
}

}  // namespace

struct Memory::Impl {
  boost::weak_ptr<ZR::ZRBroker> broker;

  // Orders raises: a raise stores, enqueues and runs the observers as one step, so every
  // subscriber and observer sees raises in the same order. Recursive so that an observer or a
  // synchronous caller may raise again on the same thread.
  std::recursive_mutex dispatchMutex;

  // Guards the data and the subscriptions; never held while calling out.
  std::mutex dataMutex;
  std::map<std::string, ZR::ZRValue> data;
  std::size_t dataBytes = 0;  // sizeOf every value in `data`
  std::map<std::string, std::map<std::string, Subscription>> subscriptions;  // key -> module
  std::map<std::string, std::shared_ptr<DeliveryQueue>> queues;              // module -> queue
  bool closed = false;

  // Observers by key ("" for those of every key). Each key's list is replaced, never edited, so
  // that a raise takes a snapshot of its two lists in O(log n) and runs them without a lock;
  // observing or unobserving copies one key's list only.
  std::mutex observersMutex;
  std::map<std::string, std::shared_ptr<const ObserverList>> observers;
  std::map<int, std::string> observerKeys;  // id -> key
  std::atomic<int> observerCount{0};
  int nextObserverId = 1;

  std::shared_ptr<const ObserverList> observersOf(const std::string& key) {
    auto it = observers.find(key);
    return it == observers.end() ? nullptr : it->second;
  }

  // Stores `value` under `key`, within the bounds of the store. Called with dataMutex held.
  void store(const std::string& key, const ZR::ZRValue& value, const char* method) {
    const std::size_t bytes = sizeOf(value) + key.size();
    if (bytes > Memory::maxValueBytes) {
      throw ZR::ZRError(moduleName, method,
                        "The value of \"" + key + "\" takes " + std::to_string(bytes) +
                            " bytes; the event store keeps values of at most " +
                            std::to_string(Memory::maxValueBytes));
    }
    auto found = data.find(key);
    const std::size_t replaced = found == data.end() ? 0 : sizeOf(found->second) + key.size();
    if (dataBytes - replaced + bytes > Memory::maxStoreBytes) {
      throw ZR::ZRError(moduleName, method,
                        "The event store is full (" + std::to_string(Memory::maxStoreBytes) +
                            " bytes): \"" + key + "\" was not stored");
    }
    dataBytes = dataBytes - replaced + bytes;
    if (found == data.end()) {
      data.emplace(key, value);
    } else {
      found->second = value;
    }
  }

  std::shared_ptr<DeliveryQueue> queueFor(const std::string& module) {
    auto& queue = queues[module];
    if (!queue) {
      queue = std::make_shared<DeliveryQueue>();
      queue->module = module;
    }
    return queue;
  }

  void enqueue(const std::shared_ptr<DeliveryQueue>& queue, Delivery delivery) {
    {
      std::lock_guard<std::mutex> lock(queue->mutex);
      if (queue->closed) return;
      queue->pending.push_back(std::move(delivery));
      if (queue->draining) return;
      queue->draining = true;
    }
    boost::shared_ptr<ZR::ZRBroker> owner = broker.lock();
    if (!owner) {
      std::lock_guard<std::mutex> lock(queue->mutex);
      queue->pending.clear();
      queue->draining = false;
      return;
    }
    boost::weak_ptr<ZR::ZRBroker> weak = broker;
    try {
      owner->threadPool().post([queue, weak] { drain(queue, weak); });
    } catch (const std::exception& e) {
      std::lock_guard<std::mutex> lock(queue->mutex);
      queue->pending.clear();
      queue->draining = false;
      KO_LOG(logCategory(), ko::log::error, "raiseEvent")
          << "Could not schedule deliveries to " << queue->module << ": " << e.what();
    }
  }

  void runObservers(const std::shared_ptr<const ObserverList>& list, const std::string& key,
                    const ZR::ZRValue& value) {
    if (!list) return;
    for (const auto& observer : *list) {
      try {
        observer.fn(key, value);
      } catch (const std::exception& e) {
        KO_LOG(logCategory(), ko::log::error, "raiseEvent")
            << "An observer of \"" << key << "\" threw: " << e.what();
      } catch (...) {
        KO_LOG(logCategory(), ko::log::error, "raiseEvent")
            << "An observer of \"" << key << "\" threw an unknown exception";
      }
    }
  }
};

Memory::Memory(boost::shared_ptr<ZR::ZRBroker> broker)
    : ZR::ZRModule(broker, moduleName), impl_(new Impl) {
  impl_->broker = broker;
  setModuleDescription(
      "The event store: one value per key. Raising a key stores its value and notifies the "
      "modules subscribed to it, each through one of its published methods.");
  addModuleExample("python",
                   "memory = ZRProxy(\"ZRMemory\")\n"
                   "memory.raiseEvent(\"MyKey\", 42)\n"
                   "print(memory.getData(\"MyKey\"))");

  functionName("declareEvent", getName(),
               "Declares an event key. The key holds an empty value until it is raised; a "
               "declared key keeps its value.");
  addParam("key", "Name of the event.");
  addMethodExample("python", "memory.declareEvent(\"MyModule/Done\")");
  bindMethodOverload(ZR::createFunctor(this, &Memory::declareEvent));

  functionName("raiseEvent", getName(),
               "Stores a value under a key and notifies the subscribers of the key, in raise "
               "order.");
  addParam("key", "Name of the event.");
  addParam("value", "The value to store and deliver.");
  addMethodExample("python", "memory.raiseEvent(\"MyModule/Done\", 1)");
  bindMethodOverload(ZR::createFunctor(this, &Memory::raiseEvent));

  functionName("insertData", getName(), "Stores a value under a key without notifying anyone.");
  addParam("key", "Name of the data.");
  addParam("value", "The value to store.");
  addMethodExample("python", "memory.insertData(\"MyModule/Count\", 3)");
  bindMethodOverload(ZR::createFunctor(this, &Memory::insertData));

  functionName("getData", getName(),
               "Returns the value stored under a key. Fails for a key that was never declared, "
               "raised or inserted.");
  addParam("key", "Name of the data.");
  setReturn("value", "The value stored under the key.");
  addMethodExample("python", "print(memory.getData(\"MyModule/Count\"))");
  bindMethodOverload(ZR::createFunctor(this, &Memory::getData));

  functionName("getDataList", getName(), "Returns the keys that contain a text, in name order.");
  addParam("filter", "Text the keys must contain; empty for every key.");
  setReturn("keys", "The matching keys.");
  addMethodExample("python", "print(memory.getDataList(\"ZRTextToSpeech/\"))");
  bindMethodOverload(ZR::createFunctor(this, &Memory::getDataList));

  functionName("subscribeToEvent", getName(),
               "Subscribes a published method of a module to a key. The method is called with "
               "(key, value, message) on each raise, the message being empty.");
  addParam("key", "Name of the event.");
  addParam("module", "Name of the subscribed module.");
  addParam("callbackMethod", "Published method of that module taking (key, value, message).");
  addMethodExample("python",
                   "memory.subscribeToEvent(\"MyModule/Done\", \"MyListener\", \"onDone\")");
  bindMethodOverload(ZR::createFunctor(this, &Memory::subscribeToEvent));

  functionName("subscribeToMicroEvent", getName(),
               "Subscribes a published method of a module to a key with a message. The method "
               "is called with (key, value, message) on each raise. Subscribing the same module "
               "to the same key again replaces its subscription.");
  addParam("key", "Name of the event.");
  addParam("module", "Name of the subscribed module.");
  addParam("message", "Text handed back to the callback with each value.");
  addParam("callbackMethod", "Published method of that module taking (key, value, message).");
  addMethodExample("python",
                   "memory.subscribeToMicroEvent(\"MyModule/Done\", \"MyListener\", \"hello\", "
                   "\"onDone\")");
  bindMethodOverload(ZR::createFunctor(this, &Memory::subscribeToMicroEvent));

  functionName("unsubscribeToEvent", getName(),
               "Removes the subscription of a module to a key; an unknown one is ignored.");
  addParam("key", "Name of the event.");
  addParam("module", "Name of the subscribed module.");
  addMethodExample("python", "memory.unsubscribeToEvent(\"MyModule/Done\", \"MyListener\")");
  bindMethodOverload(ZR::createFunctor(this, &Memory::unsubscribeToEvent));

  functionName("unsubscribeToMicroEvent", getName(),
               "Removes the subscription of a module to a key; an unknown one is ignored.");
  addParam("key", "Name of the event.");
  addParam("module", "Name of the subscribed module.");
  addMethodExample("python", "memory.unsubscribeToMicroEvent(\"MyModule/Done\", \"MyListener\")");
  bindMethodOverload(ZR::createFunctor(this, &Memory::unsubscribeToMicroEvent));

  // The event store never waits (deliveries go to the host's threads): every call is prompt.
  for (const char* method :
       {"declareEvent", "raiseEvent", "insertData", "getData", "getDataList", "subscribeToEvent",
        "subscribeToMicroEvent", "unsubscribeToEvent", "unsubscribeToMicroEvent"}) {
    setMethodPrompt(method);
  }
  for (const char* method : {"getData", "getDataList"}) setMethodQuick(method);
}

Memory::~Memory() = default;

void Memory::declareEvent(const std::string& key) {
  if (key.empty()) throw ZR::ZRError(moduleName, "declareEvent", "The event key is empty");
  std::lock_guard<std::mutex> lock(impl_->dataMutex);
  impl_->data.emplace(key, ZR::ZRValue());
}

void Memory::raiseEvent(const std::string& key, const ZR::ZRValue& value) {
  if (key.empty()) throw ZR::ZRError(moduleName, "raiseEvent", "The event key is empty");
  Impl& d = *impl_;

  // Nobody listening: a store, nothing more.
  if (d.observerCount.load(std::memory_order_acquire) == 0) {
    std::lock_guard<std::mutex> lock(d.dataMutex);
    auto subscribers = d.subscriptions.find(key);
    if (subscribers == d.subscriptions.end() || subscribers->second.empty()) {
      d.store(key, value, "raiseEvent");
      return;
    }
  }

  std::lock_guard<std::recursive_mutex> dispatch(d.dispatchMutex);
  std::vector<std::pair<std::shared_ptr<DeliveryQueue>, Delivery>> deliveries;
  {
    std::lock_guard<std::mutex> lock(d.dataMutex);
    d.store(key, value, "raiseEvent");
    auto subscribers = d.subscriptions.find(key);
    if (subscribers != d.subscriptions.end() && !d.closed) {
      for (const auto& entry : subscribers->second) {
        deliveries.emplace_back(d.queueFor(entry.first), Delivery{entry.second.callbackMethod, key,
                                                                  value, entry.second.message});
      }
    }
  }
  for (auto& delivery : deliveries) d.enqueue(delivery.first, std::move(delivery.second));

  std::shared_ptr<const ObserverList> ofKey, ofEveryKey;
  {
    std::lock_guard<std::mutex> lock(d.observersMutex);
    ofKey = d.observersOf(key);
    ofEveryKey = d.observersOf(std::string());
  }
  d.runObservers(ofKey, key, value);
  d.runObservers(ofEveryKey, key, value);
}

void Memory::insertData(const std::string& key, const ZR::ZRValue& value) {
  if (key.empty()) throw ZR::ZRError(moduleName, "insertData", "The data key is empty");
  std::lock_guard<std::mutex> lock(impl_->dataMutex);
  impl_->store(key, value, "insertData");
}

ZR::ZRValue Memory::getData(const std::string& key) {
  std::lock_guard<std::mutex> lock(impl_->dataMutex);
  auto found = impl_->data.find(key);
  if (found == impl_->data.end()) {
    throw ZR::ZRError(moduleName, "getData", "There is no data under the key \"" + key + "\"");
  }
  return found->second;
}

std::vector<std::string> Memory::getDataList(const std::string& filter) {
  std::vector<std::string> keys;
  std::lock_guard<std::mutex> lock(impl_->dataMutex);
  for (const auto& entry : impl_->data) {
    if (entry.first.find(filter) != std::string::npos) keys.push_back(entry.first);
  }
  return keys;
}

void Memory::subscribeToEvent(const std::string& key, const std::string& module,
                              const std::string& callbackMethod) {
  subscribeToMicroEvent(key, module, "", callbackMethod);
}

void Memory::subscribeToMicroEvent(const std::string& key, const std::string& module,
                                   const std::string& message, const std::string& callbackMethod) {
  const char* method = "subscribeToMicroEvent";
  if (key.empty()) throw ZR::ZRError(moduleName, method, "The event key is empty");
  boost::shared_ptr<ZR::ZRBroker> broker = impl_->broker.lock();
  if (!broker) throw ZR::ZRError(moduleName, method, "The broker is gone");
  boost::shared_ptr<ZR::ZRModuleCore> subscriber = broker->getModuleByName(module);
  if (!subscriber) {
    throw ZR::ZRError(moduleName, method,
                      "Cannot subscribe to \"" + key + "\": no module named \"" + module + "\"");
  }
  if (!subscriber->hasMethod(callbackMethod)) {
    throw ZR::ZRError(moduleName, method,
                      "Cannot subscribe to \"" + key + "\": the module " + module +
                          " has no method \"" + callbackMethod + "\"");
  }
  std::lock_guard<std::mutex> lock(impl_->dataMutex);
  impl_->data.emplace(key, ZR::ZRValue());
  impl_->subscriptions[key][module] = Subscription{message, callbackMethod};
  KO_LOG(logCategory(), ko::log::debug, method)
      << module << "." << callbackMethod << " subscribed to \"" << key << "\"";
}

void Memory::unsubscribeToEvent(const std::string& key, const std::string& module) {
  std::lock_guard<std::mutex> lock(impl_->dataMutex);
  auto subscribers = impl_->subscriptions.find(key);
  if (subscribers == impl_->subscriptions.end()) return;
  subscribers->second.erase(module);
  if (subscribers->second.empty()) impl_->subscriptions.erase(subscribers);
}

void Memory::unsubscribeToMicroEvent(const std::string& key, const std::string& module) {
  unsubscribeToEvent(key, module);
}

int Memory::observe(const std::string& key, Observer fn) {
  std::lock_guard<std::mutex> lock(impl_->observersMutex);
  std::shared_ptr<const ObserverList> current = impl_->observersOf(key);
  auto list = current ? std::make_shared<ObserverList>(*current) : std::make_shared<ObserverList>();
  int id = impl_->nextObserverId++;
  list->push_back(ObserverEntry{id, key, std::move(fn)});
  impl_->observers[key] = std::move(list);
  impl_->observerKeys.emplace(id, key);
  impl_->observerCount.fetch_add(1, std::memory_order_release);
  return id;
}

void Memory::unobserve(int id) {
  {
    std::lock_guard<std::mutex> lock(impl_->observersMutex);
    auto keyOf = impl_->observerKeys.find(id);
    if (keyOf == impl_->observerKeys.end()) return;
    const std::string key = keyOf->second;
    impl_->observerKeys.erase(keyOf);
    auto list = std::make_shared<ObserverList>(*impl_->observersOf(key));
    list->erase(std::remove_if(list->begin(), list->end(),
                               [id](const ObserverEntry& entry) { return entry.id == id; }),
                list->end());
    if (list->empty()) {
      impl_->observers.erase(key);
    } else {
      impl_->observers[key] = std::move(list);
    }
    impl_->observerCount.fetch_sub(1, std::memory_order_release);
  }
  // A raise on another thread may still be running the old snapshot: wait for it to finish.
  // (On the raising thread itself the recursive lock does not wait, and the observer simply
  // finishes its current call.)
  std::lock_guard<std::recursive_mutex> dispatch(impl_->dispatchMutex);
}

void Memory::exit() {
  std::vector<std::shared_ptr<DeliveryQueue>> queues;
  {
    std::lock_guard<std::mutex> lock(impl_->dataMutex);
    impl_->closed = true;
    impl_->subscriptions.clear();
    for (auto& entry : impl_->queues) queues.push_back(entry.second);
    impl_->queues.clear();
  }
  for (auto& queue : queues) {
    std::lock_guard<std::mutex> lock(queue->mutex);
    queue->closed = true;
    queue->pending.clear();
  }
  ZR::ZRModule::exit();
}

}  // namespace services
}  // namespace bexko
