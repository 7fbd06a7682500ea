#pragma once

#include <memory>
#include <optional>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

namespace bexko {
namespace gateway {

class SharedState;
class ConnectionSlot;

/// Reads the HTTP requests of a new connection. A WebSocket upgrade that passes the access
/// checks (Origin, token) becomes a WebSocketSession. With a console, GET and HEAD requests get
/// its files, on a connection kept alive for the next request as the client asks; anything
/// else gets an HTTP error answer and the connection is closed.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(boost::asio::ip::tcp::socket&& socket, std::shared_ptr<SharedState> state,
              std::unique_ptr<ConnectionSlot> slot);
  ~HttpSession();
  void run();

 private:
  void read();
  void onRead(boost::beast::error_code ec, std::size_t bytes);
  void refuse(boost::beast::http::status status, const std::string& text);
  void serveConsole(const boost::beast::http::request<boost::beast::http::string_body>& request);
  /// Writes response_; reads the next request afterwards when `keepAlive`, else closes.
  void write(bool keepAlive);

  boost::beast::tcp_stream stream_;
  boost::beast::flat_buffer buffer_;
  std::shared_ptr<SharedState> state_;
  std::unique_ptr<ConnectionSlot> slot_;  // handed on to the WebSocket session
  std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
  std::shared_ptr<boost::beast::http::response<boost::beast::http::string_body>> response_;
};

}  // namespace gateway
}  // namespace bexko
