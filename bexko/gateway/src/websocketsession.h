#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include <cstddef>
#include <deque>
#include <memory>
#include <string>

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <bexko/gateway/eventfanout.h>

namespace bexko {
namespace gateway {

class RpcSession;
class SharedState;
class ConnectionSlot;

/// One WebSocket connection: reads text frames into its RpcSession and writes the answers and
/// notifications it produces, one frame at a time, in the order they were produced.
class WebSocketSession : public std::enable_shared_from_this<WebSocketSession> {
 public:
  WebSocketSession(boost::asio::ip::tcp::socket&& socket, std::shared_ptr<SharedState> state,
                   std::unique_ptr<ConnectionSlot> slot);
  ~WebSocketSession();

  /// Accepts the upgrade `request` and starts reading.
  void run(boost::beast::http::request<boost::beast::http::string_body> request);
  /// Queues a text frame; safe from any thread.
  void send(Frame frame);
  /// Closes the connection with "going away"; safe from any thread.
  void close();
  /// Detaches the RpcSession without touching the socket, once the network threads are gone.
  void detach();

 private:
  void onAccept(boost::beast::error_code ec);
  void read();
  void onRead(boost::beast::error_code ec, std::size_t bytes);
  void onSend(Frame frame);
  void write();
  void onWrite(boost::beast::error_code ec, std::size_t bytes);
  void closeWith(boost::beast::websocket::close_code code, const std::string& reason);
  /// Looks at the connection every quarter of the idle time: pings it when it has been silent
  /// for half of it, closes it when silent for the whole.
  void watchIdle();
  void onIdleCheck();
  void end();

  boost::beast::websocket::stream<boost::beast::tcp_stream> ws_;
  // The thread running this session's read handler while it hands a request to the RPC
  // session (see send); no thread otherwise.
  std::atomic<std::thread::id> handlingThread_{};
  boost::beast::flat_buffer buffer_;
  // When the client was last heard (a frame, a ping or a pong), and the timer that checks it:
  // one wake-up per quarter of the idle time rather than a timer set again at every read.
  boost::asio::steady_timer idleTimer_;
  std::chrono::steady_clock::time_point lastHeard_;
  bool pinging_ = false;
  std::shared_ptr<SharedState> state_;
  std::unique_ptr<ConnectionSlot> slot_;  // the connection's place, freed with the session
  std::shared_ptr<RpcSession> rpc_;
  std::deque<Frame> queue_;
  std::size_t queuedBytes_ = 0;
  bool closing_ = false;
  bool ended_ = false;
};

}  // namespace gateway
}  // namespace bexko
