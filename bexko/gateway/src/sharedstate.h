#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <bexko/gateway/gateway.h>
#include <zr/zrbroker.h>

namespace bexko {
namespace gateway {

class WebSocketSession;

/// What every connection of one gateway shares: the broker, the options and the set of open
/// WebSocket sessions, which the gateway closes when it stops.
class SharedState {
 public:
  SharedState(boost::shared_ptr<ZR::ZRBroker> broker, GatewayOptions options);
  SharedState(const SharedState&) = delete;
  SharedState& operator=(const SharedState&) = delete;

  const boost::shared_ptr<ZR::ZRBroker>& broker() const { return broker_; }
  const GatewayOptions& options() const { return options_; }

  void join(const std::shared_ptr<WebSocketSession>& session);
  void leave(const WebSocketSession* session);
  /// The sessions still open.
  std::vector<std::shared_ptr<WebSocketSession>> sessions() const;
  std::size_t sessionCount() const;

 private:
  boost::shared_ptr<ZR::ZRBroker> broker_;
  GatewayOptions options_;
  mutable std::mutex mutex_;
  std::unordered_map<const WebSocketSession*, std::weak_ptr<WebSocketSession>> sessions_;
};

}  // namespace gateway
}  // namespace bexko
