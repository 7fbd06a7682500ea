#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include <ko/log.h>

namespace bexko {
namespace gateway {

/// Hands the daemon's log records to the clients that follow the log (bexko.subscribeLog).
///
/// One sink for the whole process, added to the logger at the first subscription and kept
/// (removing a sink from inside a record's delivery would wait on the logger's own lock).
/// A subscriber receives the records the logger emits, at its minimum level or more severe,
/// on the thread that logged them; it must only queue them (the gateway's sessions queue a
/// frame, and a client that does not read them is disconnected by its unread-bytes bound).
class LogFeed {
 public:
  using Receiver = std::function<void(const ko::log::Record& record)>;

  /// The process's feed.
  static LogFeed& instance();

  /// Starts delivering records of `minimumLevel` or more severe (fatal is 1) to `receiver`;
  /// returns an id for remove().
  int add(ko::log::LogLevel minimumLevel, Receiver receiver);
  /// Stops delivering to that subscriber; may be called from inside its own delivery.
  void remove(int id);
  std::size_t subscriberCount() const;

 private:
  class Sink;
  struct Subscriber {
    ko::log::LogLevel minimumLevel;
    std::shared_ptr<const Receiver> receiver;
  };

  LogFeed() = default;
  void deliver(const ko::log::Record& record);

  mutable std::mutex mutex_;  // guards subscribers_, nextId_, sinkAdded_
  std::map<int, Subscriber> subscribers_;
  int nextId_ = 1;
  bool sinkAdded_ = false;
};

}  // namespace gateway
}  // namespace bexko
