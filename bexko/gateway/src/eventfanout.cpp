#include <bexko/gateway/eventfanout.h>

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include <bexko/gateway/jsonvalue.h>
#include <bexko/services/memory.h>
#include <ko/log.h>

namespace bexko {
namespace gateway {

namespace {
ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.gateway.events");
  return category;
}
}  // namespace

/// The watchers of one key and the store's observer that feeds them.
struct EventFanOut::Watchers {
  std::string key;
  int observer = 0;
  std::mutex mutex;  // guards list; held while the list is handed an event
  std::vector<std::pair<int, Deliver>> list;
};

std::shared_ptr<EventFanOut> EventFanOut::create(boost::shared_ptr<ZR::ZRBroker> broker,
                                                 Scheduler scheduler) {
  return std::shared_ptr<EventFanOut>(new EventFanOut(std::move(broker), std::move(scheduler)));
}

EventFanOut::EventFanOut(boost::shared_ptr<ZR::ZRBroker> broker, Scheduler scheduler)
    : broker_(std::move(broker)), scheduler_(std::move(scheduler)) {}

EventFanOut::~EventFanOut() { close(); }

void EventFanOut::close() {
  std::vector<int> observers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : keys_) {
      std::lock_guard<std::mutex> deliveries(entry.second->mutex);
      entry.second->list.clear();
      observers.push_back(std::exchange(entry.second->observer, 0));
    }
    keys_.clear();
    keyOf_.clear();
    std::lock_guard<std::mutex> queueLock(queueMutex_);
    closed_ = true;
    pending_.clear();
  }
  // Waits for observers still running: afterwards nothing is queued or scheduled.
  if (observers.empty()) return;
  if (auto store = memory()) {
    for (int observer : observers) store->unobserve(observer);
  }
}

boost::shared_ptr<services::Memory> EventFanOut::memory() const {
  return boost::dynamic_pointer_cast<services::Memory>(broker_->getModuleByName("ZRMemory"));
}

int EventFanOut::subscribe(const std::string& key, Deliver deliver) {
  auto store = memory();
  if (!store) return 0;
  std::lock_guard<std::mutex> lock(mutex_);
  {
    std::lock_guard<std::mutex> queueLock(queueMutex_);
    if (closed_) return 0;
  }
  std::shared_ptr<Watchers>& watchers = keys_[key];
  if (!watchers) {
    watchers = std::make_shared<Watchers>();
    watchers->key = key;
    std::weak_ptr<EventFanOut> weak = shared_from_this();
    std::weak_ptr<Watchers> weakWatchers = watchers;
    // The observer never takes mutex_, so registering it under mutex_ cannot deadlock.
    watchers->observer =
        store->observe(key, [weak, weakWatchers](const std::string& k, const ZR::ZRValue& v) {
          auto self = weak.lock();
          auto target = weakWatchers.lock();
          if (self && target) self->queue(target, k, v);
        });
  }
  const int id = nextId_++;
  {
    std::lock_guard<std::mutex> deliveries(watchers->mutex);
    watchers->list.emplace_back(id, std::move(deliver));
  }
  keyOf_.emplace(id, watchers);
  return id;
}

void EventFanOut::unsubscribe(int id) {
  int observer = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = keyOf_.find(id);
    if (found == keyOf_.end()) return;
    std::shared_ptr<Watchers> watchers = std::move(found->second);
    keyOf_.erase(found);
    // Waits for an event being handed to this list: afterwards the watcher is never called.
    std::lock_guard<std::mutex> deliveries(watchers->mutex);
    auto& list = watchers->list;
    list.erase(std::remove_if(list.begin(), list.end(),
                              [id](const std::pair<int, Deliver>& w) { return w.first == id; }),
               list.end());
    if (list.empty()) {
      keys_.erase(watchers->key);
      std::swap(observer, watchers->observer);
    }
  }
  // The store waits for its observer if it is running; no lock of ours is held meanwhile.
  if (observer != 0) {
    if (auto store = memory()) store->unobserve(observer);
  }
}

std::string EventFanOut::eventText(const std::string& key, const ZR::ZRValue& value) {
  return notificationText("bexko.event", {{"key", key}, {"value", toJson(value)}});
}

void EventFanOut::handOver(Watchers& watchers, const std::string& key, const ZR::ZRValue& value) {
  std::lock_guard<std::mutex> deliveries(watchers.mutex);
  if (watchers.list.empty()) return;
  const Frame frame = std::make_shared<const std::string>(eventText(key, value));
  for (const auto& watcher : watchers.list) watcher.second(frame);
}

void EventFanOut::queue(const std::shared_ptr<Watchers>& watchers, const std::string& key,
                        const ZR::ZRValue& value) {
  if (!scheduler_) {
    handOver(*watchers, key, value);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(queueMutex_);
    if (closed_) return;
    if (pending_.size() >= maxPendingEvents) {
      pending_.pop_front();
      if (dropped_++ == 0) {
        KO_LOG(logCategory(), ko::log::warning, "queue")
            << "The gateway's connections fall behind the events raised: over " << maxPendingEvents
            << " wait to be sent, the oldest are dropped";
      }
    }
    pending_.push_back(Pending{watchers, key, value});
    if (scheduled_) return;
    scheduled_ = true;
  }
  scheduleDrain();
}

void EventFanOut::scheduleDrain() {
  std::weak_ptr<EventFanOut> weak = shared_from_this();
  scheduler_([weak] {
    if (auto self = weak.lock()) self->drain();
  });
}

void EventFanOut::drain() {
  std::deque<Pending> batch;
  {
    std::lock_guard<std::mutex> lock(queueMutex_);
    if (closed_) return;
    batch.swap(pending_);
  }
  for (const Pending& event : batch) {
    try {
      handOver(*event.watchers, event.key, event.value);
    } catch (const std::exception& e) {
      KO_LOG(logCategory(), ko::log::error, "drain")
          << "Cannot send an event of \"" << event.key << "\": " << e.what();
    }
  }
  batch.clear();
  {
    std::lock_guard<std::mutex> lock(queueMutex_);
    if (dropped_ > 0) {
      KO_LOG(logCategory(), ko::log::warning, "drain")
          << dropped_ << " events were dropped before they could be sent";
      dropped_ = 0;
    }
    if (pending_.empty() || closed_) {
      scheduled_ = false;
      return;
    }
  }
  // What came meanwhile goes in a job of its own, so that the scheduler's thread serves its
  // other work in between.
  scheduleDrain();
}

}  // namespace gateway
}  // namespace bexko
