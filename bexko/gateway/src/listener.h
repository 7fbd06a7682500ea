#pragma once

#include <memory>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

namespace bexko {
namespace gateway {

class SharedState;

/// Accepts TCP connections and hands each to an HttpSession on a strand of its own.
class Listener : public std::enable_shared_from_this<Listener> {
 public:
  /// Opens, binds and listens at once, so that the caller learns of a busy port. Throws
  /// boost::system::system_error.
  Listener(boost::asio::io_context& ioc, const boost::asio::ip::tcp::endpoint& endpoint,
           std::shared_ptr<SharedState> state);

  void run();
  /// Closes the acceptor; safe from any thread.
  void stop();
  boost::asio::ip::tcp::endpoint localEndpoint() const { return localEndpoint_; }

 private:
  void accept();
  void onAccept(const boost::system::error_code& ec, boost::asio::ip::tcp::socket socket);

  boost::asio::io_context& ioc_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer retryTimer_;
  std::shared_ptr<SharedState> state_;
  boost::asio::ip::tcp::endpoint localEndpoint_;
  std::size_t refusedInARow_ = 0;  // connections refused since the last one admitted
};

}  // namespace gateway
}  // namespace bexko
