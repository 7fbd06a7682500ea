#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zr/zrbroker.h>
#include <zr/zrvalue.h>

namespace bexko {
namespace services {
class Memory;
}
namespace gateway {

/// The text of one frame, shared by every connection that sends it.
using Frame = std::shared_ptr<const std::string>;

/// Carries the event store's events to the gateway's connections. However many connections
/// watch a key, the store sees one observer of it, and each event is written as a "bexko.event"
/// notification once; every watcher gets that same frame.
///
/// The store runs its observers on the raising thread (a module's thread: the speech service's
/// synthesising thread for "ZRTextToSpeech/CurrentWord"). There, an event is only queued; the
/// writing and the hand-over to the watchers run as one job given to the Scheduler, away from
/// the raiser, whatever the number of watchers. Each watcher gets the events of its keys in the
/// order raised. When the scheduled job falls more than maxPendingEvents behind, the oldest
/// events are dropped, with a warning.
class EventFanOut : public std::enable_shared_from_this<EventFanOut> {
 public:
  using Deliver = std::function<void(const Frame& frame)>;
  /// Runs a job later, on some other thread; null runs it at once, on the raising thread.
  using Scheduler = std::function<void(std::function<void()> job)>;

  static constexpr std::size_t maxPendingEvents = 65536;

  static std::shared_ptr<EventFanOut> create(boost::shared_ptr<ZR::ZRBroker> broker,
                                             Scheduler scheduler = nullptr);
  ~EventFanOut();
  EventFanOut(const EventFanOut&) = delete;
  EventFanOut& operator=(const EventFanOut&) = delete;

  /// Adds a watcher of `key`; returns its id, or 0 when the event store is not running.
  int subscribe(const std::string& key, Deliver deliver);
  /// Removes a watcher. After it returns, its `deliver` is not running and is not called again.
  void unsubscribe(int id);
  /// Drops every watcher and stops observing the store; nothing is scheduled afterwards, and
  /// subscribe returns 0. Called before the scheduler's threads go.
  void close();

  /// The "bexko.event" notification of one event.
  static std::string eventText(const std::string& key, const ZR::ZRValue& value);

 private:
  struct Watchers;
  struct Pending {
    std::shared_ptr<Watchers> watchers;
    std::string key;
    ZR::ZRValue value;
  };

  EventFanOut(boost::shared_ptr<ZR::ZRBroker> broker, Scheduler scheduler);
  boost::shared_ptr<services::Memory> memory() const;
  /// On the raising thread: queues the event and schedules the job that hands it over.
  void queue(const std::shared_ptr<Watchers>& watchers, const std::string& key,
             const ZR::ZRValue& value);
  void scheduleDrain();
  /// The scheduled job: writes each queued event and gives it to the watchers of its key.
  void drain();
  static void handOver(Watchers& watchers, const std::string& key, const ZR::ZRValue& value);

  boost::shared_ptr<ZR::ZRBroker> broker_;
  Scheduler scheduler_;

  std::mutex mutex_;  // guards keys_, keyOf_ and nextId_; taken before a Watchers' mutex
  std::map<std::string, std::shared_ptr<Watchers>> keys_;
  std::map<int, std::shared_ptr<Watchers>> keyOf_;
  int nextId_ = 1;

  std::mutex queueMutex_;  // guards what follows
  std::deque<Pending> pending_;
  bool scheduled_ = false;
  bool closed_ = false;
  std::size_t dropped_ = 0;
};

}  // namespace gateway
}  // namespace bexko
