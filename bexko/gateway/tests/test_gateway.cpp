#include <bexko/gateway/gateway.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <nlohmann/json.hpp>

#include <bexko/testing/testhost.h>

namespace bexko {
namespace gateway {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
using nlohmann::json;

std::string echoRequest(int id, const json& value) {
  return json{
      {"jsonrpc", "2.0"}, {"id", id}, {"method", "ZRFake.echo"}, {"params", json::array({value})}}
      .dump();
}

/// The HTTP status the gateway answers `request` (the text of an HTTP request) with.
int answerStatus(unsigned short port, const std::string& request) {
  net::io_context ioc;
  tcp::socket socket(ioc);
  net::connect(socket, tcp::resolver(ioc).resolve("127.0.0.1", std::to_string(port)));
  net::write(socket, net::buffer(request));
  beast::flat_buffer buffer;
  http::response_parser<http::empty_body> parser;
  parser.skip(true);  // only the status line and headers matter
  http::read_header(socket, buffer, parser);
  return static_cast<int>(parser.get().result_int());
}

/// A WebSocket upgrade request for `target`, with the header lines `extra`.
std::string upgradeRequest(const std::string& target, const std::string& extra) {
  return "GET " + target +
         " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: upgrade\r\n"
         "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n" +
         extra + "\r\n";
}

/// A blocking WebSocket client of the gateway. Throws beast::system_error when refused.
class Client {
 public:
  explicit Client(unsigned short port, const std::string& target = "/") : ws_(ioc_) {
    net::connect(ws_.next_layer(), tcp::resolver(ioc_).resolve("127.0.0.1", std::to_string(port)));
    ws_.handshake("127.0.0.1:" + std::to_string(port), target);
  }
  void sendText(const std::string& text) {
    ws_.text(true);
    ws_.write(net::buffer(text));
  }
  json receive() {
    beast::flat_buffer buffer;
    ws_.read(buffer);
    return json::parse(beast::buffers_to_string(buffer.data()));
  }
  /// The result of "ZRFake.echo(value)".
  json echo(const json& value) {
    const int id = ++lastId_;
    sendText(echoRequest(id, value));
    for (;;) {
      json frame = receive();
      if (frame.contains("id") && frame["id"] == id) return frame["result"];
    }
  }
  /// Reads until the connection ends; returns the close reason the gateway sent.
  websocket::close_reason readUntilClosed() {
    beast::flat_buffer buffer;
    beast::error_code ec;
    while (!ec) ws_.read(buffer, ec);
    return ws_.reason();
  }
  websocket::stream<tcp::socket>& stream() { return ws_; }

 private:
  net::io_context ioc_;
  websocket::stream<tcp::socket> ws_;
  int lastId_ = 0;
};

class GatewayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host_.addFakeModule("ZRFake").addMethod("echo", 1,
                                            [](const std::vector<ZR::ZRValue>& a) { return a[0]; });
  }
  void start(GatewayOptions options = {}) {
    options.port = 0;
    gateway_ = std::make_unique<Gateway>(host_.broker(), options);
    gateway_->start();
  }
  unsigned short port() const { return gateway_->port(); }
  /// Waits up to 5 s for the gateway to count `count` connections.
  bool waitForConnections(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (gateway_->connectionCount() != count && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return gateway_->connectionCount() == count;
  }

  testing::TestHost host_;
  std::unique_ptr<Gateway> gateway_;
};

TEST_F(GatewayTest, ServesManyConnectionsOnAFreeLoopbackPort) {
  start();
  EXPECT_NE(port(), 0);
  EXPECT_EQ(gateway_->url(), "ws://127.0.0.1:" + std::to_string(port()));
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 8; ++i) clients.push_back(std::make_unique<Client>(port()));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(clients[i]->echo(i), i);
  EXPECT_TRUE(waitForConnections(8));

  GatewayOptions busy;
  busy.port = port();
  EXPECT_THROW(Gateway(host_.broker(), busy).start(), std::runtime_error);
  GatewayOptions options;
  options.address = "0.0.0.0";  // beyond loopback, without a token
  EXPECT_THROW(start(options), std::invalid_argument);
  options.address = "not-an-address";
  options.token = "t";
  EXPECT_THROW(start(options), std::invalid_argument);
}

TEST_F(GatewayTest, UpgradesOnlyWithTheTokenAndALocalOrigin) {
  struct Case {
    const char* token;  // the gateway's; empty: none
    const char* target;
    const char* headers;
    int status;
  };
  for (const Case& c : {Case{"s3cret", "/", "", 401}, Case{"s3cret", "/?token=guess", "", 401},
                        Case{"s3cret", "/?token=s3cret", "", 101},
                        Case{"s3cret", "/", "Authorization: Bearer s3cret\r\n", 101},
                        Case{"s3cret", "/", "Authorization: Bearer s3cre\r\n", 401},
                        Case{"s3cret", "/?token=s3cret", "Origin: http://localhost:8080\r\n", 101},
                        Case{"s3cret", "/?token=s3cret", "Origin: https://evil.example\r\n", 403},
                        Case{"", "/", "Origin: http://evil.example\r\n", 403},
                        Case{"", "/", "Origin: http://127.0.0.1:5000\r\n", 101}}) {
    SCOPED_TRACE(std::string(c.token) + " " + c.target + " " + c.headers);
    GatewayOptions options;
    options.token = c.token;
    start(options);
    EXPECT_EQ(answerStatus(port(), upgradeRequest(c.target, c.headers)), c.status);
    // A refusal never stops the service.
    EXPECT_EQ(Client(port(), std::string("/?token=") + c.token).echo(1), 1);
  }
  // Plain HTTP is told to upgrade.
  EXPECT_EQ(answerStatus(port(), "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"), 426);
}

TEST_F(GatewayTest, ABadConnectionHarmsNoOtherAndStopClosesTheRestAsGoingAway) {
  GatewayOptions options;
  options.maxMessageBytes = 4096;
  start(options);
  Client other(port());
  {
    Client gone(port());  // leaves abruptly with a call in progress
    gone.sendText(echoRequest(1, 1));
    gone.stream().next_layer().close();
  }
  Client big(port());
  big.sendText(std::string(8192, ' '));
  EXPECT_EQ(big.readUntilClosed().code, websocket::close_code::too_big);
  Client binary(port());
  binary.stream().binary(true);
  binary.stream().write(net::buffer(std::string("{}")));
  EXPECT_EQ(binary.receive()["error"]["code"], rpcerror::InvalidRequest);
  EXPECT_EQ(binary.echo("still served"), "still served");
  EXPECT_EQ(other.echo("unharmed"), "unharmed");
  EXPECT_EQ(Client(port()).echo("new"), "new");
  EXPECT_TRUE(waitForConnections(2));  // other and binary

  std::thread stopper([this] { gateway_->stop(); });
  EXPECT_EQ(other.readUntilClosed().code, websocket::close_code::going_away);
  EXPECT_EQ(binary.readUntilClosed().code, websocket::close_code::going_away);
  stopper.join();
  EXPECT_EQ(gateway_->connectionCount(), 0u);
  tcp::socket socket(other.stream().get_executor());
  beast::error_code ec;
  socket.connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), port()), ec);
  EXPECT_TRUE(ec) << "the port still accepts connections after stop()";
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
