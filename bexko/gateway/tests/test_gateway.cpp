#include <bexko/gateway/gateway.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
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

#include <bexko/gateway/consolefiles.h>
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

/// The HTTP status the gateway answers a GET of `target` carrying the header lines `headers` with.
int answerStatus(unsigned short port, const std::string& target, const std::string& headers) {
  net::io_context ioc;
  tcp::socket socket(ioc);
  net::connect(socket, tcp::resolver(ioc).resolve("127.0.0.1", std::to_string(port)));
  net::write(socket,
             net::buffer("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "\r\n"));
  beast::flat_buffer buffer;
  http::response<http::string_body> response;
  http::read(socket, buffer, response);
  return static_cast<int>(response.result_int());
}

/// A blocking WebSocket client of the gateway. Throws beast::system_error when refused.
class Client {
 public:
  explicit Client(unsigned short port, const std::string& target = "/") : ws_(ioc_) {
    net::connect(ws_.next_layer(), tcp::resolver(ioc_).resolve("127.0.0.1", std::to_string(port)));
    ws_.handshake("127.0.0.1:" + std::to_string(port), target);
  }
  void sendText(const std::string& text) { ws_.write(net::buffer(text)); }
  /// The result of "ZRFake.echo(value)", or the whole frame when that is not its answer.
  json echo(const json& value) {
    sendText(R"({"jsonrpc":"2.0","method":"ZRFake.echo","id":)" + std::to_string(++lastId_) +
             R"(,"params":[)" + value.dump() + "]}");
    beast::flat_buffer buffer;
    ws_.read(buffer);
    const json frame = json::parse(beast::buffers_to_string(buffer.data()));
    return frame.contains("result") && frame["id"] == lastId_ ? frame["result"] : frame;
  }
  /// Reads until the connection ends; returns the close reason the gateway sent.
  websocket::close_reason readUntilClosed() {
    beast::flat_buffer buffer;
    beast::error_code ec;
    while (!ec) ws_.read(buffer, ec);
    return ws_.reason();
  }
  websocket::stream<tcp::socket>& stream() { return ws_; }
  /// Runs this client's asynchronous operations for `duration`, or until `done` says so.
  void runFor(std::chrono::milliseconds duration, const std::function<bool()>& done = {}) {
    const auto deadline = std::chrono::steady_clock::now() + duration;
    ioc_.restart();
    while (std::chrono::steady_clock::now() < deadline && !(done && done())) {
      ioc_.run_for(std::chrono::milliseconds(20));
      ioc_.restart();
    }
  }

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
  void start(const std::string& token = "", GatewayOptions options = {}) {
    options.port = 0;
    options.token = token;
    gateway_ = std::make_unique<Gateway>(host_.broker(), options);
    gateway_->start();
  }
  unsigned short port() const { return gateway_->port(); }

  testing::TestHost host_;
  std::unique_ptr<Gateway> gateway_;
};

// Refusing to listen beyond loopback without a token or on a busy port, and the printed URL, are
// checked by the daemon's integration tests; a frame too big and a binary frame too.

/// Whether the gateway closes a plain TCP connection at once (refused), rather than wait for
/// its request.
bool closedAtOnce(unsigned short port) {
  net::io_context ioc;
  tcp::socket socket(ioc);
  net::connect(socket, tcp::resolver(ioc).resolve("127.0.0.1", std::to_string(port)));
  char byte;
  beast::error_code ec;
  // An admitted connection waits 30 s for its request: a second here means it was kept.
  socket.non_blocking(true);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (std::chrono::steady_clock::now() < deadline) {
    socket.read_some(net::buffer(&byte, 1), ec);
    if (ec != net::error::would_block) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

// The gateway watches idleness itself (one timer per connection, not one per read): a client
// that answers its pings stays however long it says nothing, one that is gone is closed.
TEST_F(GatewayTest, ASilentClientIsPingedAndClosedOnlyWhenItDoesNotAnswer) {
  GatewayOptions options;
  options.idleTimeout = std::chrono::seconds(2);
  start("", options);

  // Answers pings: an asynchronous read is pending all along, and Beast answers each ping.
  Client answering(port());
  beast::flat_buffer buffer;
  bool answered = false;
  answering.stream().async_read(buffer, [&](beast::error_code ec, std::size_t) { answered = !ec; });
  // Never reads: its pings go unanswered.
  Client gone(port());

  answering.runFor(std::chrono::seconds(4));  // twice the idle time, saying nothing
  EXPECT_FALSE(answered);
  answering.sendText(R"({"jsonrpc":"2.0","method":"ZRFake.echo","id":1,"params":["still here"]})");
  answering.runFor(std::chrono::seconds(5), [&] { return answered; });
  ASSERT_TRUE(answered);
  EXPECT_EQ(json::parse(beast::buffers_to_string(buffer.data()))["result"], "still here");

  // The other was closed: what it can still read ends with the end of the connection.
  auto& socket = gone.stream().next_layer();
  socket.non_blocking(true);
  char bytes[256];
  beast::error_code ec;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (std::chrono::steady_clock::now() < deadline) {
    socket.read_some(net::buffer(bytes), ec);
    if (ec && ec != net::error::would_block) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(ec == net::error::eof || ec == net::error::connection_reset) << ec.message();
}

TEST_F(GatewayTest, ConnectionsBeyondTheBoundAreClosedWhileOthersAreServed) {
  GatewayOptions options;
  options.maxConnections = 3;
  options.maxConnectionsPerAddress = 3;
  start("", options);
  auto first = std::make_unique<Client>(port());
  Client second(port()), third(port());
  EXPECT_TRUE(closedAtOnce(port()));
  EXPECT_THROW(Client{port()}, beast::system_error);
  EXPECT_EQ(second.echo("still served"), "still served");
  // A place freed is taken again, once the closed connection is gone.
  first.reset();
  std::unique_ptr<Client> fourth;
  for (int i = 0; i < 200 && !fourth; ++i) {
    try {
      fourth = std::make_unique<Client>(port());
    } catch (const beast::system_error&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  ASSERT_TRUE(fourth);
  EXPECT_EQ(fourth->echo(4), 4);
}

TEST_F(GatewayTest, UpgradesOnlyWithTheTokenAndALocalOrigin) {
  const std::string upgrade =
      "Upgrade: websocket\r\nConnection: upgrade\r\nSec-WebSocket-Version: 13\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
  struct Case {
    const char* token;  // the gateway's; empty: none
    const char* target;
    const char* headers;
    int status;
  };
  // A wrong token is refused by tokensMatch (GatewayAccess); the bearer header is what the daemon's
  // token integration tests send; a token in the query, what the echo of every case sends.
  for (const Case& c : {Case{"s3cret", "/", "", 401},
                        Case{"s3cret", "/?token=s3cret", "Origin: https://evil.example\r\n", 403},
                        Case{"", "/", "Origin: http://evil.example\r\n", 403},
                        Case{"", "/", "Origin: http://127.0.0.1:5000\r\n", 101}}) {
    SCOPED_TRACE(std::string(c.token) + " " + c.target + " " + c.headers);
    start(c.token);
    EXPECT_EQ(answerStatus(port(), c.target, upgrade + c.headers), c.status);
    // A refusal never stops the service.
    EXPECT_EQ(Client(port(), std::string("/?token=") + c.token).echo(1), 1);
  }
  // Plain HTTP is told to upgrade.
  EXPECT_EQ(answerStatus(port(), "/", ""), 426);
}

TEST_F(GatewayTest, ServesManyClientsOneVanishingHarmsNoneAndStopClosesThemAsGoingAway) {
  start();
  {
    Client gone(port());  // leaves abruptly with a call in progress
    gone.sendText(R"({"jsonrpc":"2.0","id":1,"method":"ZRFake.echo","params":[1]})");
    gone.stream().next_layer().close();
  }
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 8; ++i) clients.push_back(std::make_unique<Client>(port()));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(clients[i]->echo(i), i);
  // The vanished client's session is gone too.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (gateway_->connectionCount() != 8 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(gateway_->connectionCount(), 8u);

  std::thread stopper([this] { gateway_->stop(); });
  for (auto& client : clients) {
    EXPECT_EQ(client->readUntilClosed().code, websocket::close_code::going_away);
  }
  stopper.join();
  EXPECT_EQ(gateway_->connectionCount(), 0u);
  tcp::socket socket(clients[0]->stream().get_executor());
  beast::error_code ec;
  socket.connect(tcp::endpoint(net::ip::make_address("127.0.0.1"), port()), ec);
  EXPECT_TRUE(ec) << "the port still accepts connections after stop()";
}

/// A console folder with a page, a script, a file of a type it does not serve, a hidden file,
/// and links to a file inside and to one outside; removed with the fixture.
class ConsoleFolder {
 public:
  ConsoleFolder() {
    namespace fs = std::filesystem;
    root_ = fs::path(::testing::TempDir()) /
            ("bexko-console-" + std::to_string(reinterpret_cast<std::uintptr_t>(this)));
    fs::remove_all(root_);
    fs::create_directories(root_ / "console" / "icons");
    write("console/index.html", "<!doctype html><title>console</title>");
    write("console/main.js", "export const answer = 42;\n");
    write("console/icons/index.html", "icons");
    write("console/notes.md", "# not served");
    write("console/.hidden.js", "secret");
    write("outside.js", "outside");
    fs::create_symlink(root_ / "outside.js", root_ / "console" / "escape.js");
    fs::create_symlink(root_ / "console" / "main.js", root_ / "console" / "alias.js");
  }
  ~ConsoleFolder() { std::filesystem::remove_all(root_); }
  std::string folder() const { return (root_ / "console").string(); }

 private:
  void write(const std::string& name, const std::string& text) {
    std::ofstream(root_ / name) << text;
  }
  std::filesystem::path root_;
};

TEST(ConsoleFilesTest, OnlyPlainNamesOfServedFilesInsideTheFolderAreFound) {
  ConsoleFolder files;
  ConsoleFiles console(files.folder());
  ASSERT_TRUE(console.isServing());
  using Outcome = ConsoleFiles::Outcome;
  struct Case {
    const char* target;
    Outcome outcome;
    const char* file;  // the file found, relative to the console folder
  };
  for (const Case& c : {
           Case{"/", Outcome::Found, "index.html"},
           Case{"/index.html?token=abc", Outcome::Found, "index.html"},
           Case{"/main.js#x", Outcome::Found, "main.js"},
           Case{"/icons", Outcome::Found, "icons/index.html"},
           Case{"/icons/", Outcome::Found, "icons/index.html"},
           Case{"/%6Dain.js", Outcome::Found, "main.js"},
           Case{"/alias.js", Outcome::Found, "main.js"},  // a link that stays inside
           Case{"/missing.js", Outcome::NotFound, ""},
           Case{"/notes.md", Outcome::NotFound, ""},   // not a type the console serves
           Case{"/escape.js", Outcome::NotFound, ""},  // a link out of the folder
           Case{"/../outside.js", Outcome::BadPath, ""},
           Case{"/icons/../main.js", Outcome::BadPath, ""},
           Case{"/%2e%2e/outside.js", Outcome::BadPath, ""},
           Case{"/%2E%2E%2Foutside.js", Outcome::BadPath, ""},
           Case{"/./main.js", Outcome::BadPath, ""},
           Case{"/.hidden.js", Outcome::BadPath, ""},
           Case{"//etc/passwd", Outcome::BadPath, ""},
           Case{"/..%5Coutside.js", Outcome::BadPath, ""},
           Case{"/main.js%00.html", Outcome::BadPath, ""},
           Case{"/%zz", Outcome::BadPath, ""},
           Case{"main.js", Outcome::BadPath, ""},
           Case{"http://example.org/main.js", Outcome::BadPath, ""},
       }) {
    SCOPED_TRACE(c.target);
    const ConsoleFiles::Lookup lookup = console.find(c.target);
    EXPECT_EQ(lookup.outcome, c.outcome);
    if (c.outcome == Outcome::Found) {
      EXPECT_EQ(lookup.path, std::filesystem::canonical(files.folder() + "/" + c.file).string());
    }
  }
  EXPECT_EQ(console.find("/main.js").contentType, "text/javascript; charset=utf-8");
  EXPECT_EQ(console.find("/").contentType, "text/html; charset=utf-8");
  EXPECT_FALSE(ConsoleFiles("").isServing());
  EXPECT_FALSE(ConsoleFiles(files.folder() + "/nowhere").isServing());
  EXPECT_EQ(ConsoleFiles(files.folder() + "/nowhere").find("/").outcome, Outcome::NotFound);
}

/// The whole answer to one raw HTTP request on a new connection.
http::response<http::string_body> fetch(unsigned short port, const std::string& method,
                                        const std::string& target,
                                        const std::string& headers = "") {
  net::io_context ioc;
  tcp::socket socket(ioc);
  net::connect(socket, tcp::resolver(ioc).resolve("127.0.0.1", std::to_string(port)));
  net::write(socket, net::buffer(method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
                                 headers + "\r\n"));
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.skip(method == "HEAD");
  http::read(socket, buffer, parser);
  return parser.release();
}

TEST_F(GatewayTest, ServesTheConsoleFilesWithTheirTypeAndAPolicyAndRefusesTheRest) {
  ConsoleFolder files;
  GatewayOptions options;
  options.consoleFolder = files.folder();
  start("s3cret", options);  // the files need no token: the console asks for it
  const std::string port = std::to_string(this->port());
  EXPECT_EQ(gateway_->consoleUrl(), "http://127.0.0.1:" + port + "/");

  const auto page = fetch(this->port(), "GET", "/");
  EXPECT_EQ(page.result_int(), 200);
  EXPECT_EQ(page.body(), "<!doctype html><title>console</title>");
  EXPECT_EQ(page[http::field::content_type], "text/html; charset=utf-8");
  EXPECT_EQ(page["X-Content-Type-Options"], "nosniff");
  const std::string policy(page["Content-Security-Policy"]);
  EXPECT_EQ(policy, consoleContentSecurityPolicy({"127.0.0.1:" + port, "localhost:" + port}));
  for (const std::string& part : std::vector<std::string>{
           "script-src 'self'", "object-src 'none'", "frame-ancestors 'none'",
           "connect-src 'self' ws://127.0.0.1:" + port + " ws://localhost:" + port}) {
    EXPECT_NE(policy.find(part), std::string::npos) << part;
  }
  EXPECT_EQ(policy.find("unsafe"), std::string::npos);

  const auto head = fetch(this->port(), "HEAD", "/main.js");
  EXPECT_EQ(head.result_int(), 200);
  EXPECT_EQ(head[http::field::content_type], "text/javascript; charset=utf-8");
  EXPECT_EQ(head[http::field::content_length], "26");
  EXPECT_EQ(head.body(), "");

  struct Case {
    const char* method;
    const char* target;
    int status;
  };
  for (const Case& c : {Case{"GET", "/missing.js", 404}, Case{"GET", "/escape.js", 404},
                        Case{"GET", "/%2e%2e/outside.js", 400}, Case{"GET", "/../outside.js", 400},
                        Case{"POST", "/", 405}, Case{"DELETE", "/main.js", 405}}) {
    SCOPED_TRACE(std::string(c.method) + " " + c.target);
    const auto answer = fetch(this->port(), c.method, c.target);
    EXPECT_EQ(answer.result_int(), c.status);
    EXPECT_EQ(answer["X-Content-Type-Options"], "nosniff");
  }

  // The WebSocket stays where it was: refused without the token, and from a foreign page; the
  // console's own page and its token open it.
  const std::string upgrade =
      "Upgrade: websocket\r\nConnection: upgrade\r\nSec-WebSocket-Version: 13\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
  EXPECT_EQ(answerStatus(this->port(), "/", upgrade + "Origin: http://127.0.0.1:" + port + "\r\n"),
            401);
  EXPECT_EQ(answerStatus(this->port(), "/?token=s3cret",
                         upgrade + "Origin: http://evil.example:" + port + "\r\n"),
            403);
  EXPECT_EQ(answerStatus(this->port(), "/?token=s3cret",
                         upgrade + "Origin: http://localhost:" + port + "\r\n"),
            101);
}

TEST_F(GatewayTest, AConsoleConnectionServesSeveralFilesWhenKeptAlive) {
  ConsoleFolder files;
  GatewayOptions options;
  options.consoleFolder = files.folder();
  start("", options);
  net::io_context ioc;
  tcp::socket socket(ioc);
  net::connect(socket, tcp::resolver(ioc).resolve("127.0.0.1", std::to_string(port())));
  beast::flat_buffer buffer;
  for (const char* target : {"/", "/main.js", "/icons/"}) {
    http::request<http::empty_body> request(http::verb::get, target, 11);
    request.set(http::field::host, "127.0.0.1");
    request.keep_alive(true);
    http::write(socket, request);
    http::response<http::string_body> response;
    http::read(socket, buffer, response);
    EXPECT_EQ(response.result_int(), 200) << target;
    EXPECT_TRUE(response.keep_alive()) << target;
  }
}

TEST_F(GatewayTest, WithoutAConsoleFolderPlainHttpIsStillToldToUpgrade) {
  GatewayOptions options;
  options.consoleFolder = "/nonexistent/bexko/console";
  start("", options);
  EXPECT_EQ(gateway_->consoleUrl(), "");
  EXPECT_EQ(answerStatus(port(), "/", ""), 426);
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
