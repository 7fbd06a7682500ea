#include "logfeed.h"

#include <utility>
#include <vector>

namespace bexko {
namespace gateway {

class LogFeed::Sink : public ko::log::Sink {
 public:
  explicit Sink(LogFeed& feed) : feed_(feed) {}
  void write(const ko::log::Record& record) override { feed_.deliver(record); }

 private:
  LogFeed& feed_;
};

LogFeed& LogFeed::instance() {
  // Never destroyed: the logger keeps its sink, and records may come from static destructors.
  static LogFeed* feed = new LogFeed;
  return *feed;
}

int LogFeed::add(ko::log::LogLevel minimumLevel, Receiver receiver) {
  bool addSink = false;
  int id = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    id = nextId_++;
    subscribers_[id] =
        Subscriber{minimumLevel, std::make_shared<const Receiver>(std::move(receiver))};
    addSink = !sinkAdded_;
    sinkAdded_ = true;
  }
  if (addSink) ko::log::addSink(std::make_shared<Sink>(*this));
  return id;
}

void LogFeed::remove(int id) {
  std::lock_guard<std::mutex> lock(mutex_);
  subscribers_.erase(id);
}

std::size_t LogFeed::subscriberCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return subscribers_.size();
}

void LogFeed::deliver(const ko::log::Record& record) {
  // The receivers run without the feed's lock, so that one may unsubscribe (or its session end)
  // while it is being called.
  std::vector<std::shared_ptr<const Receiver>> receivers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (subscribers_.empty()) return;
    for (const auto& entry : subscribers_) {
      if (record.level <= entry.second.minimumLevel) receivers.push_back(entry.second.receiver);
    }
  }
  for (const auto& receiver : receivers) {
    try {
      (*receiver)(record);
    } catch (...) {
      // One subscriber's failure must not keep the record from the others.
    }
  }
}

}  // namespace gateway
}  // namespace bexko
