#include "sharedstate.h"

#include <utility>

#include <bexko/gateway/access.h>

namespace bexko {
namespace gateway {

SharedState::SharedState(boost::shared_ptr<ZR::ZRBroker> broker, GatewayOptions options)
    : broker_(std::move(broker)), options_(std::move(options)), console_(options_.consoleFolder) {}

void SharedState::setEndpoint(const std::string& address, unsigned short port) {
  consoleOrigins_ = consoleOrigins(address, port);
  std::vector<std::string> hosts;
  for (const auto& origin : consoleOrigins_) hosts.push_back(origin.substr(7));  // "http://"
  contentSecurityPolicy_ = consoleContentSecurityPolicy(hosts);
}

bool SharedState::isAdmittedOrigin(const std::string& origin) const {
  return isAllowedOrigin(origin) || isOneOfOrigins(origin, consoleOrigins_);
}

std::unique_ptr<ConnectionSlot> SharedState::admit(const std::string& address) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t& fromAddress = connectionsFrom_[address];
    if (connections_ >= options_.maxConnections ||
        fromAddress >= options_.maxConnectionsPerAddress) {
      if (fromAddress == 0) connectionsFrom_.erase(address);
      return nullptr;
    }
    ++connections_;
    ++fromAddress;
  }
  return std::make_unique<ConnectionSlot>(shared_from_this(), address);
}

ConnectionSlot::ConnectionSlot(std::shared_ptr<SharedState> state, std::string address)
    : state_(std::move(state)), address_(std::move(address)) {}

ConnectionSlot::~ConnectionSlot() {
  std::lock_guard<std::mutex> lock(state_->mutex_);
  --state_->connections_;
  auto it = state_->connectionsFrom_.find(address_);
  if (it != state_->connectionsFrom_.end() && --it->second == 0) {
    state_->connectionsFrom_.erase(it);
  }
}

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
