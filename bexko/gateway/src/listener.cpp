#include "listener.h"

#include <chrono>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/strand.hpp>

#include <ko/log.h>
#include "httpsession.h"
#include "sharedstate.h"

namespace bexko {
namespace gateway {

namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {
ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.gateway.listener");
  return category;
}
}  // namespace

Listener::Listener(net::io_context& ioc, const tcp::endpoint& endpoint,
                   std::shared_ptr<SharedState> state)
    : ioc_(ioc), acceptor_(ioc), retryTimer_(ioc), state_(std::move(state)) {
  acceptor_.open(endpoint.protocol());
  acceptor_.set_option(net::socket_base::reuse_address(true));
  acceptor_.bind(endpoint);
  acceptor_.listen(net::socket_base::max_listen_connections);
  localEndpoint_ = acceptor_.local_endpoint();
}

void Listener::run() { accept(); }

void Listener::stop() {
  net::dispatch(acceptor_.get_executor(), [self = shared_from_this()] {
    boost::system::error_code ignored;
    self->retryTimer_.cancel();
    self->acceptor_.close(ignored);
  });
}

void Listener::accept() {
  acceptor_.async_accept(
      net::make_strand(ioc_),
      [self = shared_from_this()](const boost::system::error_code& ec, tcp::socket socket) {
        self->onAccept(ec, std::move(socket));
      });
}

void Listener::onAccept(const boost::system::error_code& ec, tcp::socket socket) {
  if (ec == net::error::operation_aborted || !acceptor_.is_open()) return;
  if (ec) {
    // Running out of descriptors must not end the service: wait a little and accept again.
    KO_LOG(logCategory(), ko::log::warning, "onAccept") << "accept failed: " << ec.message();
    retryTimer_.expires_after(std::chrono::milliseconds(100));
    retryTimer_.async_wait([self = shared_from_this()](const boost::system::error_code& wait) {
      if (!wait) self->accept();
    });
    return;
  }
  boost::system::error_code peerError;
  const tcp::endpoint peer = socket.remote_endpoint(peerError);
  const std::string address = peerError ? std::string("?") : peer.address().to_string();
  std::unique_ptr<ConnectionSlot> slot = state_->admit(address);
  if (!slot) {
    // Closed at once, so that one client cannot take every descriptor of the daemon.
    if (refusedInARow_++ % 100 == 0) {
      KO_LOG(logCategory(), ko::log::warning, "onAccept")
          << "too many connections (at most " << state_->options().maxConnections << ", "
          << state_->options().maxConnectionsPerAddress << " from one address): refused one from "
          << address << " (" << refusedInARow_ << " in a row)";
    }
    boost::system::error_code ignored;
    socket.close(ignored);
  } else {
    refusedInARow_ = 0;
    // Frames are small and often come one at a time (an answer, an event): each leaves at
    // once rather than waiting for the acknowledgement of the one before.
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    std::make_shared<HttpSession>(std::move(socket), state_, std::move(slot))->run();
  }
  accept();
}

}  // namespace gateway
}  // namespace bexko
