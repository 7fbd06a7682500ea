#include "sharedstate.h"

#include <utility>

namespace bexko {
namespace gateway {

SharedState::SharedState(boost::shared_ptr<ZR::ZRBroker> broker, GatewayOptions options)
    : broker_(std::move(broker)), options_(std::move(options)) {}

void SharedState::join(const std::shared_ptr<WebSocketSession>& session) {
  std::lock_guard<std::mutex> lock(mutex_);
  sessions_[session.get()] = session;
}

void SharedState::leave(const WebSocketSession* session) {
  std::lock_guard<std::mutex> lock(mutex_);
  sessions_.erase(session);
}

std::vector<std::shared_ptr<WebSocketSession>> SharedState::sessions() const {
  std::vector<std::shared_ptr<WebSocketSession>> out;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& entry : sessions_) {
    if (auto session = entry.second.lock()) out.push_back(std::move(session));
  }
  return out;
}

std::size_t SharedState::sessionCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sessions_.size();
}

}  // namespace gateway
}  // namespace bexko
