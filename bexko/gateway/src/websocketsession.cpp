#include "websocketsession.h"

#include <thread>

#include <boost/asio/post.hpp>

#include <bexko/gateway/rpcsession.h>
#include <ko/log.h>
#include "sharedstate.h"

namespace bexko {
namespace gateway {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace websocket = beast::websocket;

namespace {
ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.gateway.websocket");
  return category;
}
}  // namespace

WebSocketSession::WebSocketSession(net::ip::tcp::socket&& socket,
                                   std::shared_ptr<SharedState> state,
                                   std::unique_ptr<ConnectionSlot> slot)
    : ws_(std::move(socket)),
      idleTimer_(ws_.get_executor()),
      state_(std::move(state)),
      slot_(std::move(slot)) {}

// The RpcSession was closed by end() or detach(); closing it here could run inside one of its
// own callbacks (the last reference may be released there) and wait on itself.
WebSocketSession::~WebSocketSession() = default;

void WebSocketSession::run(http::request<http::string_body> request) {
  // Beast's own idle timeout would set its timer again at every read; the session watches
  // idleness itself (watchIdle), and Beast keeps the handshake and closing timeouts.
  websocket::stream_base::timeout timeout =
      websocket::stream_base::timeout::suggested(beast::role_type::server);
  timeout.idle_timeout = websocket::stream_base::none();
  timeout.keep_alive_pings = false;
  ws_.set_option(timeout);
  ws_.set_option(websocket::stream_base::decorator(
      [](websocket::response_type& response) { response.set(http::field::server, "bexko"); }));
  ws_.read_message_max(state_->options().maxMessageBytes);
  ws_.async_accept(request,
                   [self = shared_from_this()](beast::error_code ec) { self->onAccept(ec); });
}

void WebSocketSession::onAccept(beast::error_code ec) {
  if (ec) {
    KO_LOG(logCategory(), ko::log::verbose, "onAccept") << "handshake failed: " << ec.message();
    return;
  }
  std::weak_ptr<WebSocketSession> weak = shared_from_this();
  rpc_ = RpcSession::create(
      state_->broker(),
      [weak](Frame frame) {
        if (auto self = weak.lock()) self->send(std::move(frame));
      },
      state_->options().limits, state_->eventFanOut());
  state_->join(shared_from_this());
  KO_LOG(logCategory(), ko::log::verbose, "onAccept")
      << "client connected from " << beast::get_lowest_layer(ws_).socket().remote_endpoint(ec);
  if (state_->options().idleTimeout.count() > 0) {
    lastHeard_ = std::chrono::steady_clock::now();
    // Runs within a read, on the session's strand; the stream belongs to this session.
    ws_.control_callback([this](websocket::frame_type, beast::string_view) {
      lastHeard_ = std::chrono::steady_clock::now();
    });
    watchIdle();
  }
  read();
}

void WebSocketSession::watchIdle() {
  idleTimer_.expires_after(state_->options().idleTimeout / 4);
  idleTimer_.async_wait([self = shared_from_this()](beast::error_code ec) {
    if (!ec) self->onIdleCheck();
  });
}

void WebSocketSession::onIdleCheck() {
  if (closing_ || ended_) return;
  const auto idle = state_->options().idleTimeout;
  const auto silent = std::chrono::steady_clock::now() - lastHeard_;
  if (silent >= idle) {
    KO_LOG(logCategory(), ko::log::verbose, "onIdleCheck")
        << "closing a connection silent for "
        << std::chrono::duration_cast<std::chrono::seconds>(silent).count() << " s";
    // As a lost connection: the pending read ends with an error and the session with it.
    beast::error_code ignored;
    beast::get_lowest_layer(ws_).socket().close(ignored);
    return;
  }
  if (silent >= idle / 2 && !pinging_) {
    pinging_ = true;
    ws_.async_ping({}, [self = shared_from_this()](beast::error_code) { self->pinging_ = false; });
  }
  watchIdle();
}

void WebSocketSession::read() {
  ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code ec, std::size_t bytes) {
    self->onRead(ec, bytes);
  });
}

void WebSocketSession::onRead(beast::error_code ec, std::size_t) {
  lastHeard_ = std::chrono::steady_clock::now();
  if (ec) {
    if (ec == websocket::error::message_too_big) {
      KO_LOG(logCategory(), ko::log::warning, "onRead")
          << "closed a connection that sent a frame over " << state_->options().maxMessageBytes
          << " bytes";
    } else if (ec != websocket::error::closed && ec != net::error::operation_aborted) {
      KO_LOG(logCategory(), ko::log::verbose, "onRead") << "connection ended: " << ec.message();
    }
    end();
    return;
  }
  if (!ws_.got_text()) {
    send(std::make_shared<const std::string>(
        R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request: )"
        R"(send JSON-RPC requests as text frames"}})"));
  } else {
    // What the request answers at once is queued from here, on the session's own thread.
    handlingThread_ = std::this_thread::get_id();
    rpc_->handleText(beast::buffers_to_string(buffer_.data()));
    handlingThread_ = std::thread::id();
  }
  buffer_.consume(buffer_.size());
  read();
}

void WebSocketSession::send(Frame shared) {
  // An answer made while a request is handled is already on the session's strand: queued at
  // once, it goes out without a trip through the I/O queue (and possibly to the other I/O
  // thread). Anything sent from another thread is posted to the strand.
  if (handlingThread_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
    onSend(std::move(shared));
    return;
  }
  net::post(ws_.get_executor(), [self = shared_from_this(), shared] { self->onSend(shared); });
}

void WebSocketSession::onSend(Frame text) {
  if (closing_ || ended_) return;
  if (queuedBytes_ + text->size() > state_->options().maxQueuedBytes) {
    KO_LOG(logCategory(), ko::log::warning, "onSend")
        << "disconnecting a client that does not read its answers (" << queuedBytes_
        << " bytes waiting)";
    closeWith(websocket::close_code::policy_error, "too many unread messages");
    return;
  }
  queuedBytes_ += text->size();
  queue_.push_back(std::move(text));
  if (queue_.size() == 1) write();
}

void WebSocketSession::write() {
  ws_.text(true);
  ws_.async_write(net::buffer(*queue_.front()),
                  [self = shared_from_this()](beast::error_code ec, std::size_t bytes) {
                    self->onWrite(ec, bytes);
                  });
}

void WebSocketSession::onWrite(beast::error_code ec, std::size_t) {
  if (ec) {
    queue_.clear();
    queuedBytes_ = 0;
    end();
    return;
  }
  queuedBytes_ -= queue_.front()->size();
  queue_.pop_front();
  if (closing_) {
    queue_.clear();
    queuedBytes_ = 0;
    return;
  }
  if (!queue_.empty()) write();
}

void WebSocketSession::close() {
  net::post(ws_.get_executor(), [self = shared_from_this()] {
    self->closeWith(websocket::close_code::going_away, "the host is shutting down");
  });
}

void WebSocketSession::closeWith(websocket::close_code code, const std::string& reason) {
  if (closing_ || ended_) return;
  closing_ = true;
  // The frame being written stays alive until its write ends; the rest is dropped.
  if (queue_.size() > 1) queue_.erase(queue_.begin() + 1, queue_.end());
  ws_.async_close(websocket::close_reason(code, reason),
                  [self = shared_from_this()](beast::error_code) { self->end(); });
}

void WebSocketSession::detach() {
  if (rpc_) rpc_->close();
}

void WebSocketSession::end() {
  if (ended_) return;
  ended_ = true;
  idleTimer_.cancel();
  if (rpc_) rpc_->close();
  state_->leave(this);
}

}  // namespace gateway
}  // namespace bexko
