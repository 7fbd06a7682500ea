#include "httpsession.h"

#include <chrono>

#include <boost/asio/dispatch.hpp>
#include <boost/beast/websocket.hpp>

#include <bexko/gateway/access.h>
#include <bexko/gateway/consolefiles.h>
#include <ko/log.h>
#include "sharedstate.h"
#include "websocketsession.h"

namespace bexko {
namespace gateway {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.gateway.http");
  return category;
}

/// An upgrade request carries no body; a small limit keeps a stranger from filling memory.
constexpr std::uint64_t kBodyLimit = 16 * 1024;

/// The console's files are small; a bigger file in its folder is not served whole into memory.
constexpr std::uintmax_t kLargestConsoleFile = 8 * 1024 * 1024;

}  // namespace

HttpSession::HttpSession(net::ip::tcp::socket&& socket, std::shared_ptr<SharedState> state,
                         std::unique_ptr<ConnectionSlot> slot)
    : stream_(std::move(socket)), state_(std::move(state)), slot_(std::move(slot)) {}

HttpSession::~HttpSession() = default;

void HttpSession::run() {
  net::dispatch(stream_.get_executor(), [self = shared_from_this()] { self->read(); });
}

void HttpSession::read() {
  parser_.emplace();
  parser_->body_limit(kBodyLimit);
  stream_.expires_after(std::chrono::seconds(30));
  http::async_read(stream_, buffer_, *parser_,
                   [self = shared_from_this()](beast::error_code ec, std::size_t bytes) {
                     self->onRead(ec, bytes);
                   });
}

void HttpSession::onRead(beast::error_code ec, std::size_t) {
  if (ec == http::error::end_of_stream || ec == beast::error::timeout) {
    beast::error_code ignored;
    stream_.socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
    return;
  }
  if (ec) {
    KO_LOG(logCategory(), ko::log::verbose, "onRead") << "bad HTTP request: " << ec.message();
    if (ec.category() == http::make_error_code(http::error::bad_method).category() &&
        ec != http::error::partial_message) {
      refuse(http::status::bad_request, "Malformed HTTP request\n");
    }
    return;
  }
  auto request = parser_->release();
  if (!beast::websocket::is_upgrade(request) && state_->console().isServing()) {
    serveConsole(request);
    return;
  }
  if (!beast::websocket::is_upgrade(request)) {
    refuse(http::status::upgrade_required,
           "This is the bexko gateway: connect with a WebSocket and send JSON-RPC 2.0 "
           "requests.\n");
    return;
  }
  const auto origin = request.find(http::field::origin);
  if (origin != request.end() && !state_->isAdmittedOrigin(std::string(origin->value()))) {
    KO_LOG(logCategory(), ko::log::warning, "onRead")
        << "refused a connection from the web origin " << origin->value();
    refuse(http::status::forbidden, "Connections from web pages of other sites are refused\n");
    return;
  }
  const std::string& token = state_->options().token;
  if (!token.empty()) {
    const auto authorization = request.find(http::field::authorization);
    const std::string presented = presentedToken(
        std::string(request.target()),
        authorization == request.end() ? std::string() : std::string(authorization->value()));
    if (!tokensMatch(token, presented)) {
      KO_LOG(logCategory(), ko::log::warning, "onRead")
          << "refused a connection without the access token from "
          << stream_.socket().remote_endpoint(ec);
      refuse(http::status::unauthorized, "An access token is required\n");
      return;
    }
  }
  stream_.expires_never();
  std::make_shared<WebSocketSession>(stream_.release_socket(), state_, std::move(slot_))
      ->run(std::move(request));
}

void HttpSession::refuse(http::status status, const std::string& text) {
  response_ = std::make_shared<http::response<http::string_body>>(status, 11);
  response_->set(http::field::server, "bexko");
  response_->set(http::field::content_type, "text/plain; charset=utf-8");
  if (status == http::status::unauthorized) response_->set(http::field::www_authenticate, "Bearer");
  if (status == http::status::upgrade_required) response_->set(http::field::upgrade, "websocket");
  if (status == http::status::method_not_allowed) response_->set(http::field::allow, "GET, HEAD");
  if (state_->console().isServing()) {
    response_->set("X-Content-Type-Options", "nosniff");
    response_->set("Content-Security-Policy", state_->contentSecurityPolicy());
  }
  response_->body() = text;
  response_->prepare_payload();
  write(false);
}

void HttpSession::serveConsole(const http::request<http::string_body>& request) {
  const std::string target(request.target());
  const bool head = request.method() == http::verb::head;
  if (request.method() != http::verb::get && !head) {
    refuse(http::status::method_not_allowed, "The console answers GET and HEAD only\n");
    return;
  }
  const ConsoleFiles::Lookup lookup = state_->console().find(target);
  if (lookup.outcome == ConsoleFiles::Outcome::BadPath) {
    KO_LOG(logCategory(), ko::log::warning, "serveConsole")
        << "refused the path " << target << " outside the console";
    refuse(http::status::bad_request, "Bad path\n");
    return;
  }
  std::string body;
  if (lookup.outcome == ConsoleFiles::Outcome::NotFound) {
    refuse(http::status::not_found, "Not found\n");
    return;
  }
  if (!ConsoleFiles::read(lookup.path, body, kLargestConsoleFile)) {
    KO_LOG(logCategory(), ko::log::warning, "serveConsole") << "cannot read " << lookup.path;
    refuse(http::status::internal_server_error, "Cannot read the file\n");
    return;
  }
  response_ =
      std::make_shared<http::response<http::string_body>>(http::status::ok, request.version());
  response_->set(http::field::server, "bexko");
  response_->set(http::field::content_type, lookup.contentType);
  response_->set(http::field::cache_control, "no-cache");
  response_->set("X-Content-Type-Options", "nosniff");
  response_->set("Content-Security-Policy", state_->contentSecurityPolicy());
  response_->set("Referrer-Policy", "no-referrer");
  response_->set("X-Frame-Options", "DENY");
  response_->keep_alive(request.keep_alive());
  response_->content_length(body.size());
  if (!head) response_->body() = std::move(body);
  write(request.keep_alive());
}

void HttpSession::write(bool keepAlive) {
  if (!keepAlive) response_->keep_alive(false);
  http::async_write(stream_, *response_,
                    [self = shared_from_this(), keepAlive](beast::error_code ec, std::size_t) {
                      if (!ec && keepAlive) {
                        self->read();
                        return;
                      }
                      beast::error_code ignored;
                      self->stream_.socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
                    });
}

}  // namespace gateway
}  // namespace bexko
