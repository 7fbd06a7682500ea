#include <zr/zrbrokermanager.h>

#include <algorithm>
#include <mutex>

#include <boost/weak_ptr.hpp>

#include <zr/zrbroker.h>

namespace ZR {

namespace {

std::mutex instanceMutex;
boost::shared_ptr<ZRBrokerManager> instance;

}  // namespace

// Brokers are held weakly: their owner (the daemon, a test) decides when they go, and a broker
// never outlives its modules' shutdown because a manager still points at it.
struct ZRBrokerManager::Impl {
  mutable std::mutex mutex;
  std::vector<boost::weak_ptr<ZRBroker>> brokers;
};

ZRBrokerManager::ZRBrokerManager() : impl_(new Impl) {}

ZRBrokerManager::~ZRBrokerManager() { delete impl_; }

void ZRBrokerManager::setInstance(boost::shared_ptr<ZRBrokerManager> manager) {
  boost::shared_ptr<ZRBrokerManager> previous;
  {
    std::lock_guard<std::mutex> lock(instanceMutex);
    previous.swap(instance);
    instance = std::move(manager);
  }
  // The previous instance, if this was its last reference, goes with no lock held.
}

boost::shared_ptr<ZRBrokerManager> ZRBrokerManager::getInstance() {
  std::lock_guard<std::mutex> lock(instanceMutex);
  return instance;
}

void ZRBrokerManager::addBroker(boost::shared_ptr<ZRBroker> broker) {
  if (!broker) return;
  std::lock_guard<std::mutex> lock(impl_->mutex);
  auto& brokers = impl_->brokers;
  brokers.erase(std::remove_if(brokers.begin(), brokers.end(),
                               [](const boost::weak_ptr<ZRBroker>& b) { return b.expired(); }),
                brokers.end());
  for (const auto& existing : brokers) {
    if (existing.lock() == broker) return;
  }
  brokers.push_back(broker);
}

void ZRBrokerManager::removeBroker(const boost::shared_ptr<ZRBroker>& broker) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  auto& brokers = impl_->brokers;
  brokers.erase(std::remove_if(brokers.begin(), brokers.end(),
                               [&](const boost::weak_ptr<ZRBroker>& b) {
                                 auto locked = b.lock();
                                 return !locked || locked == broker;
                               }),
                brokers.end());
}

std::vector<boost::shared_ptr<ZRBroker>> ZRBrokerManager::getBrokers() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  std::vector<boost::shared_ptr<ZRBroker>> alive;
  for (const auto& weak : impl_->brokers) {
    if (auto broker = weak.lock()) alive.push_back(broker);
  }
  return alive;
}

}  // namespace ZR
