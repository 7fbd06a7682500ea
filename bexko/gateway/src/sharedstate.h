#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <bexko/gateway/consolefiles.h>
#include <bexko/gateway/eventfanout.h>
#include <bexko/gateway/gateway.h>
#include <zr/zrbroker.h>

namespace bexko {
namespace gateway {

class WebSocketSession;
class SharedState;

/// One admitted connection, from the accept to the close (held by the HTTP session, then by the
/// WebSocket session); its destructor frees the place.
class ConnectionSlot {
 public:
  ConnectionSlot(std::shared_ptr<SharedState> state, std::string address);
  ~ConnectionSlot();
  ConnectionSlot(const ConnectionSlot&) = delete;
  ConnectionSlot& operator=(const ConnectionSlot&) = delete;

 private:
  std::shared_ptr<SharedState> state_;
  std::string address_;
};

/// What every connection of one gateway shares: the broker, the options and the set of open
/// WebSocket sessions, which the gateway closes when it stops.
class SharedState : public std::enable_shared_from_this<SharedState> {
 public:
  SharedState(boost::shared_ptr<ZR::ZRBroker> broker, GatewayOptions options);
  SharedState(const SharedState&) = delete;
  SharedState& operator=(const SharedState&) = delete;

  const boost::shared_ptr<ZR::ZRBroker>& broker() const { return broker_; }
  const GatewayOptions& options() const { return options_; }
  const ConsoleFiles& console() const { return console_; }
  /// Carries memory events to every connection; set once, before the first connection.
  const std::shared_ptr<EventFanOut>& eventFanOut() const { return eventFanOut_; }
  void setEventFanOut(std::shared_ptr<EventFanOut> fanOut) { eventFanOut_ = std::move(fanOut); }

  /// Records where the gateway listens, once bound and before the first connection: the
  /// console's origins and its Content-Security-Policy follow from it.
  void setEndpoint(const std::string& address, unsigned short port);
  /// True when a browser page of `origin` may open a WebSocket: this machine or the console.
  bool isAdmittedOrigin(const std::string& origin) const;
  const std::string& contentSecurityPolicy() const { return contentSecurityPolicy_; }

  /// A place for a new connection from `address`; null when the gateway holds as many
  /// connections as its options allow, in all or from that address.
  std::unique_ptr<ConnectionSlot> admit(const std::string& address);

  void join(const std::shared_ptr<WebSocketSession>& session);
  void leave(const WebSocketSession* session);
  /// The sessions still open.
  std::vector<std::shared_ptr<WebSocketSession>> sessions() const;
  std::size_t sessionCount() const;

 private:
  boost::shared_ptr<ZR::ZRBroker> broker_;
  GatewayOptions options_;
  ConsoleFiles console_;
  std::shared_ptr<EventFanOut> eventFanOut_;
  // Set by setEndpoint before any connection is accepted, read-only afterwards.
  std::vector<std::string> consoleOrigins_;
  std::string contentSecurityPolicy_;
  mutable std::mutex mutex_;
  std::unordered_map<const WebSocketSession*, std::weak_ptr<WebSocketSession>> sessions_;
  friend class ConnectionSlot;
  std::size_t connections_ = 0;                                   // under mutex_
  std::unordered_map<std::string, std::size_t> connectionsFrom_;  // under mutex_
};

}  // namespace gateway
}  // namespace bexko
