#include <bexko/services/memory.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
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

// A batch that takes longer marks its subscriber slow: the next batch for it starts another
// drainer first, so that the other subscribers do not wait behind it.
constexpr std::chrono::milliseconds slowBatch(1);
// How long the fan-out job waits for the next raise before it ends, and how often it looks.
constexpr std::chrono::milliseconds fanOutLinger(2);
constexpr std::chrono::microseconds fanOutLook(100);

// One raise, shared by the deliveries of every subscriber of its key.
struct RaisedValue {
  std::string key;
  std::vector<ZR::ZRValue>
      args;           // the callback's (key, value, "") of a subscription without message
  std::size_t bytes;  // what it costs a delivery queue that holds it
};

struct Subscription {
  std::string message;
  std::string callbackMethod;
};

struct Delivery {
  std::shared_ptr<const RaisedValue> raised;
  std::shared_ptr<const Subscription> subscription;  // as it was when the key was raised
};

/// The deliveries waiting for one subscribed module, in raise order. `scheduled` is set while
/// the queue waits in the ready list or a drainer delivers from it: at most one drainer works on
/// a queue at a time, which keeps the module's deliveries in raise order.
struct DeliveryQueue {
  std::string module;
  std::mutex mutex;
  std::deque<Delivery> pending;
  std::size_t pendingBytes = 0;
  std::size_t dropped = 0;  // deliveries dropped since the last drain began
  bool scheduled = false;
  // Whether the last batch took long; only the drainer that has the queue touches it.
  bool slow = false;
  std::atomic<bool> closed{false};
};

/// What a raise of one key hands to each of its subscribers, in module name order. Replaced,
/// never edited, so that a raise takes it with one reference count.
struct Subscriber {
  std::shared_ptr<DeliveryQueue> queue;
  std::shared_ptr<const Subscription> subscription;
};
using SubscriberList = std::vector<Subscriber>;

/// A raise whose deliveries are still to be queued, with the subscribers it had.
struct Incoming {
  std::shared_ptr<const RaisedValue> raised;
  std::shared_ptr<const SubscriberList> subscribers;
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

// Calls the subscriber's callback on `target`, the module found for the batch; when it is gone,
// the broker reports why.
void deliver(ZR::ZRBroker& broker, ZR::ZRModuleCore* target, const std::string& module,
             const Delivery& delivery) {
  const RaisedValue& raised = *delivery.raised;
  const Subscription& subscription = *delivery.subscription;
  try {
    if (subscription.message.empty()) {
      if (target) {
        target->callMethod(subscription.callbackMethod, raised.args);
      } else {
        broker.call(module, subscription.callbackMethod, raised.args);
      }
    } else {
      const std::vector<ZR::ZRValue> args{raised.args[0], raised.args[1],
                                          ZR::ZRValue(subscription.message)};
      if (target) {
        target->callMethod(subscription.callbackMethod, args);
      } else {
        broker.call(module, subscription.callbackMethod, args);
      }
    }
  } catch (const ZR::ZRError& e) {
    KO_LOG(logCategory(), ko::log::error, "raiseEvent")
        << "Delivery of \"" << raised.key << "\" to " << module << "."
        << subscription.callbackMethod << " failed: " << e.toString();
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::error, "raiseEvent")
        << "Delivery of \"" << raised.key << "\" to " << module << "."
        << subscription.callbackMethod << " failed: " << e.what();
  } catch (...) {
    KO_LOG(logCategory(), ko::log::error, "raiseEvent")
        << "Delivery of \"" << raised.key << "\" to " << module << "."
        << subscription.callbackMethod << " failed with an unknown exception";
  }
}

}  // namespace

struct Memory::Impl : std::enable_shared_from_this<Memory::Impl> {
  boost::weak_ptr<ZR::ZRBroker> broker;

  // Orders raises: a raise stores, enqueues and runs the observers as one step, so every
  // subscriber and observer sees raises in the same order. Recursive so that an observer or a
  // synchronous caller may raise again on the same thread.
  std::recursive_mutex dispatchMutex;

  // Guards the data and the subscriptions; never held while calling out.
  std::mutex dataMutex;
  std::map<std::string, ZR::ZRValue> data;
  std::size_t dataBytes = 0;  // sizeOf every value in `data`
  std::map<std::string, std::map<std::string, std::shared_ptr<const Subscription>>>
      subscriptions;                                                         // key -> module
  std::map<std::string, std::shared_ptr<const SubscriberList>> subscribers;  // key -> snapshot
  std::map<std::string, std::shared_ptr<DeliveryQueue>> queues;              // module -> queue
  bool closed = false;

  // Raises not yet queued for their subscribers, in raise order. The raising thread only
  // appends here; one host job at a time ("the fan-out") queues each raise for every
  // subscriber, so that a raise costs the same however many modules subscribed.
  std::mutex incomingMutex;
  std::deque<Incoming> incoming;
  std::size_t incomingBytes = 0;
  std::size_t unqueued = 0;  // raises handed over and not yet queued (or dropped)
  std::size_t droppedRaises = 0;
  bool fanningOut = false;
  bool incomingClosed = false;

  // The queues that have deliveries and no drainer, oldest first, and the host jobs that drain
  // them. A drainer takes one queue, delivers everything it holds as one batch, puts it back at
  // the end of the list if more came meanwhile, and ends when the list is empty. `idleDrainers`
  // counts the drainers that are not inside a callback (posted, or between two batches).
  std::mutex readyMutex;
  std::deque<std::shared_ptr<DeliveryQueue>> ready;
  std::size_t drainers = 0;
  std::size_t idleDrainers = 0;

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

  // Stores `value` under `key`, within the bounds of the store, and returns what it costs.
  // Called with dataMutex held.
  std::size_t store(const std::string& key, const ZR::ZRValue& value, const char* method) {
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
    return bytes;
  }

  std::shared_ptr<DeliveryQueue> queueFor(const std::string& module) {
    auto& queue = queues[module];
    if (!queue) {
      queue = std::make_shared<DeliveryQueue>();
      queue->module = module;
    }
    return queue;
  }

  // Rebuilds the snapshot that raises of `key` read. Called with dataMutex held.
  void refreshSubscribers(const std::string& key) {
    auto found = subscriptions.find(key);
    if (found == subscriptions.end() || found->second.empty()) {
      if (found != subscriptions.end()) subscriptions.erase(found);
      subscribers.erase(key);
      return;
    }
    auto list = std::make_shared<SubscriberList>();
    list->reserve(found->second.size());
    for (const auto& entry : found->second) {
      list->push_back(Subscriber{queueFor(entry.first), entry.second});
    }
    subscribers[key] = std::move(list);
  }

  // On the raising thread: hands a raise to the fan-out, starting it when it is not running.
  // Beyond its bounds the fan-out loses its oldest raises, as a delivery queue does.
  void queueRaise(std::shared_ptr<const RaisedValue> raised,
                  std::shared_ptr<const SubscriberList> subscribers) {
    {
      std::lock_guard<std::mutex> lock(incomingMutex);
      if (incomingClosed) return;
      incomingBytes += raised->bytes;
      incoming.push_back(Incoming{std::move(raised), std::move(subscribers)});
      ++unqueued;
      while (incoming.size() > Memory::maxPendingRaises ||
             (incomingBytes > Memory::maxPendingRaiseBytes && incoming.size() > 1)) {
        incomingBytes -= incoming.front().raised->bytes;
        incoming.pop_front();
        ++droppedRaises;
        --unqueued;
      }
      if (fanningOut) return;
      fanningOut = true;
    }
    // No host thread to take it: queued here, so that nothing stays behind.
    if (!postJob(&Impl::fanOut)) fanOut();
  }

  // Runs `job` on a host thread; false (logged when the pool refused it) when it cannot.
  bool postJob(void (Impl::*job)()) {
    boost::shared_ptr<ZR::ZRBroker> owner = broker.lock();
    if (!owner) return false;
    std::weak_ptr<Impl> self = shared_from_this();
    try {
      owner->threadPool().post([self, job] {
        if (auto impl = self.lock()) (impl.get()->*job)();
      });
      return true;
    } catch (const std::exception& e) {
      KO_LOG(logCategory(), ko::log::error, "raiseEvent")
          << "Could not schedule deliveries: " << e.what();
      return false;
    }
  }

  // The fan-out: queues each waiting raise for its subscribers, in raise order, and hands the
  // queues that became ready to the drainers once per batch of raises.
  //
  // When no raise waits, the job stays a little (fanOutLinger), looking again every
  // fanOutLook: while it is there, a raise only appends and returns, without waking a host
  // thread. A module that raises often (the speech service, at each word) then pays for no
  // wake-up at all; one that raises now and then pays for one per raise, as before.
  void fanOut() {
    std::deque<Incoming> batch;
    std::vector<std::shared_ptr<DeliveryQueue>> newlyReady;
    auto lastRaise = std::chrono::steady_clock::now();
    for (;;) {
      std::size_t dropped = 0;
      {
        std::unique_lock<std::mutex> lock(incomingMutex);
        if (incoming.empty() && !incomingClosed &&
            std::chrono::steady_clock::now() - lastRaise < fanOutLinger) {
          lock.unlock();
          std::this_thread::sleep_for(fanOutLook);
          continue;
        }
        if (incoming.empty() || incomingClosed) {
          incoming.clear();
          incomingBytes = 0;
          unqueued = 0;
          fanningOut = false;
          return;
        }
        lastRaise = std::chrono::steady_clock::now();
        batch.swap(incoming);
        incomingBytes = 0;
        std::swap(dropped, droppedRaises);
      }
      if (dropped > 0) {
        KO_LOG(logCategory(), ko::log::warning, "raiseEvent")
            << "The subscribers' deliveries fell behind the raises: " << dropped
            << " older raises were dropped";
      }
      for (const Incoming& raise : batch) {
        for (const Subscriber& subscriber : *raise.subscribers) {
          if (enqueue(*subscriber.queue, raise.raised, subscriber.subscription)) {
            newlyReady.push_back(subscriber.queue);
          }
        }
      }
      const std::size_t done = batch.size();
      batch.clear();
      schedule(newlyReady);
      newlyReady.clear();
      std::lock_guard<std::mutex> lock(incomingMutex);
      unqueued -= std::min(unqueued, done);
    }
  }

  // Appends a delivery to a subscriber's queue; true when the queue needs a drainer. A queue
  // beyond its bounds loses its oldest deliveries, so that a subscriber that does not keep up
  // costs neither the raiser nor the host more than the bounds.
  static bool enqueue(DeliveryQueue& queue, const std::shared_ptr<const RaisedValue>& raised,
                      const std::shared_ptr<const Subscription>& subscription) {
    std::lock_guard<std::mutex> lock(queue.mutex);
    if (queue.closed) return false;
    queue.pending.push_back(Delivery{raised, subscription});
    queue.pendingBytes += raised->bytes;
    while (queue.pending.size() > Memory::maxPendingDeliveries ||
           (queue.pendingBytes > Memory::maxPendingBytes && queue.pending.size() > 1)) {
      queue.pendingBytes -= queue.pending.front().raised->bytes;
      queue.pending.pop_front();
      ++queue.dropped;
    }
    if (queue.scheduled) return false;
    queue.scheduled = true;
    return true;
  }

  // Puts queues that have deliveries on the ready list and makes sure a drainer will take them.
  // Also starts a drainer when queues wait and every drainer is inside a callback, which is how
  // a subscriber that turned slow stops holding back the queues behind it.
  void schedule(std::vector<std::shared_ptr<DeliveryQueue>>& newlyReady) {
    bool post = false;
    {
      std::lock_guard<std::mutex> lock(readyMutex);
      for (auto& queue : newlyReady) ready.push_back(std::move(queue));
      post = claimDrainer();
    }
    if (post) postDrainer();
  }

  // Whether a new drainer should start for the ready list: only when every drainer is inside a
  // callback, so that a slow subscriber holds back no other while fewer than maxDrainers are
  // busy. Counts the new drainer when so. Called with readyMutex held.
  bool claimDrainer() {
    if (ready.empty() || idleDrainers > 0 || drainers >= Memory::maxDrainers) return false;
    ++drainers;
    ++idleDrainers;
    return true;
  }

  void releaseDrainer() {
    std::lock_guard<std::mutex> lock(readyMutex);
    --drainers;
    --idleDrainers;
  }

  void postDrainer() {
    if (!postJob(&Impl::drain)) releaseDrainer();
  }

  // A drainer: delivers the ready queues, one batch of one queue at a time, until none is left.
  void drain() {
    std::unique_lock<std::mutex> readyLock(readyMutex);
    for (;;) {
      if (ready.empty()) {
        --drainers;
        --idleDrainers;
        return;
      }
      std::shared_ptr<DeliveryQueue> queue = std::move(ready.front());
      ready.pop_front();
      --idleDrainers;
      // The other ready queues must not wait behind this batch if its subscriber was slow the
      // last time. (A subscriber slow for the first time holds the others back only until the
      // next raise, which starts a drainer when every running one is inside a callback.)
      const bool post = queue->slow && claimDrainer();
      readyLock.unlock();
      if (post) postDrainer();

      std::deque<Delivery> batch;
      std::size_t dropped = 0;
      {
        std::lock_guard<std::mutex> lock(queue->mutex);
        batch.swap(queue->pending);
        queue->pendingBytes = 0;
        std::swap(dropped, queue->dropped);
      }
      if (dropped > 0) {
        KO_LOG(logCategory(), ko::log::warning, "raiseEvent")
            << queue->module << " did not keep up with its subscriptions: " << dropped
            << " older deliveries were dropped";
      }
      const auto batchStart = std::chrono::steady_clock::now();
      boost::shared_ptr<ZR::ZRBroker> owner = broker.lock();
      // The module is looked up once per batch, not once per delivery.
      boost::shared_ptr<ZR::ZRModuleCore> target =
          owner ? owner->getModuleByName(queue->module) : nullptr;
      for (const Delivery& delivery : batch) {
        if (!owner) break;  // the host is going away
        if (queue->closed.load(std::memory_order_acquire)) break;
        deliver(*owner, target.get(), queue->module, delivery);
      }
      target.reset();
      queue->slow = std::chrono::steady_clock::now() - batchStart > slowBatch;
      batch.clear();  // the values go before the next batch begins

      bool more = false;
      {
        std::lock_guard<std::mutex> lock(queue->mutex);
        if (queue->closed) queue->pending.clear();
        more = !queue->pending.empty();
        queue->scheduled = more;
      }
      readyLock.lock();
      ++idleDrainers;
      if (more) ready.push_back(std::move(queue));
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
    : ZR::ZRModule(broker, moduleName), impl_(std::make_shared<Impl>()) {
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
    if (d.subscribers.find(key) == d.subscribers.end()) {
      d.store(key, value, "raiseEvent");
      return;
    }
  }

  std::lock_guard<std::recursive_mutex> dispatch(d.dispatchMutex);
  std::shared_ptr<const SubscriberList> subscribers;
  std::size_t bytes = 0;
  {
    std::lock_guard<std::mutex> lock(d.dataMutex);
    bytes = d.store(key, value, "raiseEvent");
    auto found = d.subscribers.find(key);
    if (found != d.subscribers.end() && !d.closed) subscribers = found->second;
  }
  // Every subscriber gets the same copy of the value; the raise only hands it to the fan-out,
  // and the host's threads queue and deliver it.
  if (subscribers) {
    d.queueRaise(std::make_shared<const RaisedValue>(RaisedValue{
                     key, {ZR::ZRValue(key), value, ZR::ZRValue(std::string())}, bytes}),
                 std::move(subscribers));
  }

  std::shared_ptr<const ObserverList> ofKey, ofEveryKey;
  {
    std::lock_guard<std::mutex> lock(d.observersMutex);
    ofKey = d.observersOf(key);
    ofEveryKey = d.observersOf(std::string());
  }
  d.runObservers(ofKey, key, value);
  d.runObservers(ofEveryKey, key, value);
}

std::size_t Memory::pendingRaises() const {
  std::lock_guard<std::mutex> lock(impl_->incomingMutex);
  return impl_->unqueued;
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
  impl_->subscriptions[key][module] =
      std::make_shared<const Subscription>(Subscription{message, callbackMethod});
  impl_->refreshSubscribers(key);
  KO_LOG(logCategory(), ko::log::debug, method)
      << module << "." << callbackMethod << " subscribed to \"" << key << "\"";
}

void Memory::unsubscribeToEvent(const std::string& key, const std::string& module) {
  std::lock_guard<std::mutex> lock(impl_->dataMutex);
  auto subscribers = impl_->subscriptions.find(key);
  if (subscribers == impl_->subscriptions.end()) return;
  if (subscribers->second.erase(module) > 0) impl_->refreshSubscribers(key);
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
  {
    std::lock_guard<std::mutex> lock(impl_->incomingMutex);
    impl_->incomingClosed = true;
    impl_->incoming.clear();
    impl_->incomingBytes = 0;
    impl_->unqueued = 0;
  }
  std::vector<std::shared_ptr<DeliveryQueue>> queues;
  {
    std::lock_guard<std::mutex> lock(impl_->dataMutex);
    impl_->closed = true;
    impl_->subscriptions.clear();
    impl_->subscribers.clear();
    for (auto& entry : impl_->queues) queues.push_back(entry.second);
    impl_->queues.clear();
  }
  for (auto& queue : queues) {
    std::lock_guard<std::mutex> lock(queue->mutex);
    queue->closed = true;
    queue->pending.clear();
    queue->pendingBytes = 0;
  }
  {
    std::lock_guard<std::mutex> lock(impl_->readyMutex);
    impl_->ready.clear();
  }
  ZR::ZRModule::exit();
}

}  // namespace services
}  // namespace bexko
