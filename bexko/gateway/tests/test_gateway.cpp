#include <bexko/gateway/gateway.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
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

/// A blocking WebSocket client of the gateway.
class Client {
 public:
  /// Connects and upgrades; `target` carries a query, `origin` and `authorization` are sent
  /// when not empty. Throws beast::system_error when the gateway refuses.
  Client(unsigned short port, const std::string& target = "/", const std::string& origin = "",
         const std::string& authorization = "")
      : ws_(ioc_) {
    tcp::resolver resolver(ioc_);
    net::connect(ws_.next_layer(), resolver.resolve("127.0.0.1", std::to_string(port)));
    ws_.set_option(websocket::stream_base::decorator([=](websocket::request_type& request) {
      if (!origin.empty()) request.set(http::field::origin, origin);
      if (!authorization.empty()) request.set(http::field::authorization, authorization);
    }));
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
  json call(int id, const std::string& method, const json& params) {
    sendText(json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}}.dump());
    for (;;) {
      json frame = receive();
      if (frame.contains("id") && frame["id"] == id) return frame;
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
};

/// The HTTP status the gateway answers to an upgrade request: 101 when it accepts it.
int upgradeStatus(unsigned short port, const std::string& target, const std::string& origin,
                  const std::string& authorization) {
  net::io_context ioc;
  tcp::socket socket(ioc);
  tcp::resolver resolver(ioc);
  net::connect(socket, resolver.resolve("127.0.0.1", std::to_string(port)));
  http::request<http::empty_body> request(http::verb::get, target, 11);
  request.set(http::field::host, "127.0.0.1");
  request.set(http::field::upgrade, "websocket");
  request.set(http::field::connection, "upgrade");
  request.set(http::field::sec_websocket_key, "dGhlIHNhbXBsZSBub25jZQ==");
  request.set(http::field::sec_websocket_version, "13");
  if (!origin.empty()) request.set(http::field::origin, origin);
  if (!authorization.empty()) request.set(http::field::authorization, authorization);
  http::write(socket, request);
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.skip(true);  // a 101 answer has no body to wait for
  http::read_header(socket, buffer, parser);
  return static_cast<int>(parser.get().result_int());
}

class GatewayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& fake = host_.addFakeModule("ZRFake");
    fake.addMethod("echo", 1, [](const std::vector<ZR::ZRValue>& a) { return a[0]; });
  }
  void start(GatewayOptions options = {}) {
    options.port = 0;
    gateway_ = std::make_unique<Gateway>(host_.broker(), options);
    gateway_->start();
  }
  unsigned short port() const { return gateway_->port(); }

  testing::TestHost host_;
  std::unique_ptr<Gateway> gateway_;
};

TEST_F(GatewayTest, ServesCallsOnAFreeLoopbackPort) {
  start();
  EXPECT_NE(port(), 0);
  EXPECT_EQ(gateway_->url(), "ws://127.0.0.1:" + std::to_string(port()));
  Client client(port());
  EXPECT_EQ(client.call(1, "ZRFake.echo", {"over the wire"})["result"], "over the wire");
  EXPECT_EQ(gateway_->connectionCount(), 1u);
}

TEST_F(GatewayTest, ServesManyConnectionsAtOnce) {
  start();
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 8; ++i) clients.push_back(std::make_unique<Client>(port()));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(clients[i]->call(i, "ZRFake.echo", {i})["result"], i);
}

TEST_F(GatewayTest, ListeningBeyondLoopbackNeedsAToken) {
  GatewayOptions options;
  options.address = "0.0.0.0";
  gateway_ = std::make_unique<Gateway>(host_.broker(), options);
  EXPECT_THROW(gateway_->start(), std::invalid_argument);
}

TEST_F(GatewayTest, AnUnparsableAddressIsRefused) {
  GatewayOptions options;
  options.address = "not-an-address";
  options.token = "t";
  gateway_ = std::make_unique<Gateway>(host_.broker(), options);
  EXPECT_THROW(gateway_->start(), std::invalid_argument);
}

TEST_F(GatewayTest, ABusyPortIsReported) {
  start();
  GatewayOptions options;
  options.port = port();
  Gateway second(host_.broker(), options);
  EXPECT_THROW(second.start(), std::runtime_error);
}

struct UpgradeCase {
  const char* name;
  const char* target;
  const char* origin;
  const char* authorization;
  int status;
};

class GatewayAccess : public GatewayTest, public ::testing::WithParamInterface<UpgradeCase> {};

TEST_P(GatewayAccess, UpgradesOnlyWithTheTokenAndALocalOrigin) {
  GatewayOptions options;
  options.token = "s3cret";
  start(options);
  const auto& c = GetParam();
  EXPECT_EQ(upgradeStatus(port(), c.target, c.origin, c.authorization), c.status);
  // A refusal never stops the service.
  Client good(port(), "/?token=s3cret");
  EXPECT_EQ(good.call(1, "ZRFake.echo", {1})["result"], 1);
}

INSTANTIATE_TEST_SUITE_P(Requests, GatewayAccess,
                         ::testing::Values(UpgradeCase{"NoToken", "/", "", "", 401},
                                           UpgradeCase{"WrongToken", "/?token=guess", "", "", 401},
                                           UpgradeCase{"QueryToken", "/?token=s3cret", "", "", 101},
                                           UpgradeCase{"BearerToken", "/", "", "Bearer s3cret",
                                                       101},
                                           UpgradeCase{"WrongBearer", "/", "", "Bearer s3cre", 401},
                                           UpgradeCase{"LocalOrigin", "/?token=s3cret",
                                                       "http://localhost:8080", "", 101},
                                           UpgradeCase{"ForeignOrigin", "/?token=s3cret",
                                                       "https://evil.example", "", 403}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(GatewayTest, AForeignOriginIsRefusedWithoutAToken) {
  start();
  EXPECT_EQ(upgradeStatus(port(), "/", "http://evil.example", ""), 403);
  EXPECT_EQ(upgradeStatus(port(), "/", "http://127.0.0.1:5000", ""), 101);
  EXPECT_EQ(upgradeStatus(port(), "/", "", ""), 101);
}

TEST_F(GatewayTest, PlainHttpIsToldToUpgrade) {
  start();
  net::io_context ioc;
  tcp::socket socket(ioc);
  tcp::resolver resolver(ioc);
  net::connect(socket, resolver.resolve("127.0.0.1", std::to_string(port())));
  http::request<http::empty_body> request(http::verb::get, "/", 11);
  request.set(http::field::host, "127.0.0.1");
  http::write(socket, request);
  beast::flat_buffer buffer;
  http::response<http::string_body> response;
  http::read(socket, buffer, response);
  EXPECT_EQ(response.result(), http::status::upgrade_required);
  EXPECT_NE(response.body().find("WebSocket"), std::string::npos);
}

TEST_F(GatewayTest, AnOversizedFrameClosesOnlyThatConnection) {
  GatewayOptions options;
  options.maxMessageBytes = 4096;
  start(options);
  Client other(port());
  Client big(port());
  big.sendText(std::string(8192, ' '));
  EXPECT_EQ(big.readUntilClosed().code, websocket::close_code::too_big);
  EXPECT_EQ(other.call(1, "ZRFake.echo", {"unharmed"})["result"], "unharmed");
  Client fresh(port());
  EXPECT_EQ(fresh.call(2, "ZRFake.echo", {"new"})["result"], "new");
}

TEST_F(GatewayTest, ABinaryFrameIsAnsweredWithAnError) {
  start();
  Client client(port());
  client.stream().binary(true);
  client.stream().write(net::buffer(std::string("{}")));
  const json answer = client.receive();
  EXPECT_EQ(answer["error"]["code"], rpcerror::InvalidRequest);
  EXPECT_EQ(client.call(1, "ZRFake.echo", {1})["result"], 1);
}

TEST_F(GatewayTest, AnAbruptDisconnectLeavesTheGatewayServing) {
  start();
  {
    Client gone(port());
    gone.sendText(
        json{{"jsonrpc", "2.0"}, {"id", 1}, {"method", "ZRFake.echo"}, {"params", {1}}}.dump());
    gone.stream().next_layer().close();
  }
  Client client(port());
  EXPECT_EQ(client.call(2, "ZRFake.echo", {2})["result"], 2);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (gateway_->connectionCount() != 1 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(gateway_->connectionCount(), 1u);
}

TEST_F(GatewayTest, StopClosesEveryConnectionAsGoingAway) {
  start();
  Client client(port());
  client.call(1, "ZRFake.echo", {1});
  std::thread stopper([this] { gateway_->stop(); });
  EXPECT_EQ(client.readUntilClosed().code, websocket::close_code::going_away);
  stopper.join();
  EXPECT_EQ(gateway_->connectionCount(), 0u);
  net::io_context ioc;
  tcp::socket socket(ioc);
  beast::error_code ec;
  socket.connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), port()), ec);
  EXPECT_TRUE(ec) << "the port still accepts connections after stop()";
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
