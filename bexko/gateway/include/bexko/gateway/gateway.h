#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

#include <bexko/gateway/rpcsession.h>
#include <zr/zrbroker.h>

namespace bexko {
namespace gateway {

/// How the gateway listens and what it accepts.
struct GatewayOptions {
  /// Address to listen on: an IPv4 or IPv6 literal, or "localhost".
  std::string address = "127.0.0.1";
  /// TCP port; 0 lets the system pick a free one (see Gateway::port()).
  unsigned short port = 9559;
  /// Access token. When set, every connection presents it ("?token=" in the URL or an
  /// "Authorization: Bearer" header), whatever the address. Listening on an address that is
  /// not loopback is refused without one.
  std::string token;
  /// Largest incoming frame, in bytes; a bigger one closes the connection with the WebSocket
  /// status 1009 (message too big).
  std::size_t maxMessageBytes = 1024 * 1024;
  /// Largest amount of answers and notifications waiting for a slow client, in bytes; beyond
  /// it the client is disconnected (status 1008) rather than let the daemon's memory grow.
  std::size_t maxQueuedBytes = 8 * 1024 * 1024;
  /// Open connections (TCP, WebSocket or not yet) in all, and from one address. A connection
  /// beyond either is closed as soon as it is accepted, with a warning in the log, while the
  /// connections already open are served as before.
  std::size_t maxConnections = 256;
  std::size_t maxConnectionsPerAddress = 128;
  /// A WebSocket connection from which nothing arrives for this long is closed; it is pinged
  /// at half that time, so a client that answers pings (every WebSocket library does) stays
  /// connected while it has nothing to say. Zero: never closed for silence.
  std::chrono::seconds idleTimeout{60};
  /// Per-connection limits of the JSON-RPC layer.
  RpcLimits limits;
  /// Folder of the web console's static files, served to plain HTTP GET and HEAD requests on
  /// the gateway's own address and port (see ConsoleFiles). Empty, or a folder that does not
  /// exist: no console, and plain HTTP requests are answered 426 Upgrade Required.
  std::string consoleFolder;
  /// Threads that run the network side (calls themselves run on the broker's pool). One
  /// thread answers a quick call with no hand-off at all; a second makes asio's scheduler wake
  /// it for each completion.
  int ioThreads = 1;
};

/// The network door of the host: a WebSocket endpoint carrying JSON-RPC 2.0 text frames, one
/// RpcSession per connection.
///
/// Connections are refused (HTTP 401) without the access token when one is set, and (HTTP 403)
/// when a browser sends an Origin that is neither this machine nor the gateway's own console.
/// With a console folder, plain HTTP GET and HEAD requests get its files (no token needed: they
/// hold no secret; the console asks for the token and presents it on its WebSocket); without
/// one, plain HTTP requests are answered 426 Upgrade Required.
class Gateway {
 public:
  Gateway(boost::shared_ptr<ZR::ZRBroker> broker, GatewayOptions options);
  /// Stops the gateway if it still runs.
  ~Gateway();
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  /// Binds, listens and starts serving on its own threads. Throws std::invalid_argument for a
  /// non-loopback address without a token or an unparsable address, and std::runtime_error
  /// when the address cannot be bound.
  void start();

  /// Stops accepting, closes every connection (status 1001, going away) and waits for them up
  /// to `graceMs`, then stops the network threads. Calls still running on the host finish with
  /// their answers discarded. Idempotent.
  void stop(int graceMs = 1000);

  /// The bound address and port (valid after start()).
  std::string address() const;
  unsigned short port() const;
  /// "ws://ADDRESS:PORT", with IPv6 addresses in brackets.
  std::string url() const;
  /// "http://ADDRESS:PORT/", where the console is served; empty without a console.
  std::string consoleUrl() const;

  /// Open WebSocket connections.
  std::size_t connectionCount() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace gateway
}  // namespace bexko
