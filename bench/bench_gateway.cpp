// Gateway figures, printed as a small report:
//  1. round trip of ZRTextToSpeech.getVolume through the gateway (p50, p99), against a Beast
//     WebSocket echo server on the same machine as the floor, as a ratio measured in one run,
//     with the client and the servers' threads on one core, on two, and where the scheduler
//     puts them;
//  2. 32 concurrent clients calling for ten seconds (plain calls and posted calls, each client
//     also subscribed to a memory key): errors, lost answers and lost notifications;
//  3. 100 WebSocket clients subscribed to one key raised 1000 times a second: delivery time from
//     the raise to the client (p50, p99, max), losses and order;
//  4. start-up time and resident memory (VmRSS) of the idle bexko daemon with the speech service.
//
// Usage: bench_gateway [--seconds N] [--clients N] [--round-trips N] [--io-threads N]
//                      [--subscribers N] [--fan-rate N] [--fan-seconds N]
// Runs against a temporary HOME and XDG tree; the speech service runs in the engine's fast mode.
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/filesystem.hpp>
#include <nlohmann/json.hpp>

#include <bexko/gateway/gateway.h>
#include <bexko/services/builtinservices.h>
#include <ko/path.h>
#include <zr/zrbroker.h>
#include <zr/zrbrokermanager.h>

namespace {

namespace beast = boost::beast;
namespace net = boost::asio;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

// An echo WebSocket server: the floor that the gateway's round trip is compared with -----------

class EchoSession : public std::enable_shared_from_this<EchoSession> {
 public:
  explicit EchoSession(tcp::socket&& socket) : ws_(std::move(socket)) {}
  void run() {
    ws_.async_accept([self = shared_from_this()](beast::error_code ec) {
      if (!ec) self->read();
    });
  }

 private:
  void read() {
    ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code ec, std::size_t) {
      if (ec) return;
      self->ws_.text(self->ws_.got_text());
      self->ws_.async_write(self->buffer_.data(), [self](beast::error_code ec, std::size_t) {
        if (ec) return;
        self->buffer_.consume(self->buffer_.size());
        self->read();
      });
    });
  }
  websocket::stream<beast::tcp_stream> ws_;
  beast::flat_buffer buffer_;
};

class EchoServer {
 public:
  EchoServer() : acceptor_(ioc_, tcp::endpoint(net::ip::make_address("127.0.0.1"), 0)) {
    accept();
    thread_ = std::thread([this] { ioc_.run(); });
  }
  ~EchoServer() {
    ioc_.stop();
    thread_.join();
  }
  unsigned short port() const { return acceptor_.local_endpoint().port(); }

 private:
  void accept() {
    acceptor_.async_accept(net::make_strand(ioc_), [this](beast::error_code ec, tcp::socket s) {
      if (!ec) std::make_shared<EchoSession>(std::move(s))->run();
      accept();
    });
  }
  net::io_context ioc_;
  tcp::acceptor acceptor_;
  std::thread thread_;
};

// A blocking client
// --------------------------------------------------------------------------------

class Client {
 public:
  explicit Client(unsigned short port) : ws_(ioc_) {
    tcp::resolver resolver(ioc_);
    net::connect(ws_.next_layer(), resolver.resolve("127.0.0.1", std::to_string(port)));
    ws_.next_layer().set_option(tcp::no_delay(true));
    ws_.handshake("127.0.0.1", "/");
    ws_.text(true);
  }
  void send(const std::string& text) { ws_.write(net::buffer(text)); }
  std::string receive() {
    buffer_.consume(buffer_.size());
    ws_.read(buffer_);
    return beast::buffers_to_string(buffer_.data());
  }
  void close() {
    beast::error_code ec;
    ws_.close(websocket::close_code::normal, ec);
  }

 private:
  net::io_context ioc_;
  websocket::stream<tcp::socket> ws_;
  beast::flat_buffer buffer_;
};

double percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  const std::size_t index =
      std::min(values.size() - 1, static_cast<std::size_t>(p * (values.size() - 1) + 0.5));
  return values[index];
}

/// Context switches and CPU time of the whole process (client and servers alike) so far.
struct Usage {
  long switches = 0;
  double cpuUs = 0;
  static Usage now() {
    rusage r{};
    getrusage(RUSAGE_SELF, &r);
    auto us = [](const timeval& t) { return t.tv_sec * 1e6 + t.tv_usec; };
    return {r.ru_nvcsw + r.ru_nivcsw, us(r.ru_utime) + us(r.ru_stime)};
  }
};

/// Round-trip times in microseconds of `count` exchanges after `warmup` unmeasured ones; adds
/// the measured exchanges' context switches and CPU time to `usage`.
std::vector<double> roundTrips(Client& client, const std::string& request, int count, int warmup,
                               Usage& usage) {
  std::vector<double> times;
  times.reserve(count);
  Usage before = Usage::now();
  for (int i = 0; i < warmup + count; ++i) {
    if (i == warmup) before = Usage::now();
    const auto start = Clock::now();
    client.send(request);
    client.receive();
    const auto end = Clock::now();
    if (i >= warmup)
      times.push_back(std::chrono::duration<double, std::micro>(end - start).count());
  }
  const Usage after = Usage::now();
  usage.switches += after.switches - before.switches;
  usage.cpuUs += after.cpuUs - before.cpuUs;
  return times;
}

// Where threads run -------------------------------------------------------------------------------

std::vector<pid_t> processThreads() {
  std::vector<pid_t> tids;
  for (const auto& entry : boost::filesystem::directory_iterator("/proc/self/task")) {
    tids.push_back(static_cast<pid_t>(std::atoi(entry.path().filename().c_str())));
  }
  return tids;
}

pid_t currentThread() { return static_cast<pid_t>(syscall(SYS_gettid)); }

/// Pins the threads to one core, or lets them run anywhere when `core` is -1.
void pinThreads(const std::vector<pid_t>& tids, int core) {
  cpu_set_t set;
  CPU_ZERO(&set);
  const int cores = static_cast<int>(std::thread::hardware_concurrency());
  for (int c = 0; c < cores; ++c) {
    if (core < 0 || c == core) CPU_SET(c, &set);
  }
  for (pid_t tid : tids) sched_setaffinity(tid, sizeof(set), &set);
}

/// A client with a thread of its own, which runs blocks of round trips when asked. Each server
/// gets its own: the scheduler places a client thread by where the thread it last exchanged with
/// runs, so one thread turning from one server to the other would be pulled between them, and
/// measure the scheduler's contest for it rather than either server.
class ClientThread {
 public:
  explicit ClientThread(unsigned short port) : client_(port), thread_([this] { loop(); }) {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [this] { return tid_ != 0; });
  }
  ~ClientThread() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    ready_.notify_all();
    thread_.join();
    client_.close();
  }
  pid_t tid() const { return tid_; }
  /// roundTrips() on this client's thread; waits for its times.
  std::vector<double> roundTrips(const std::string& request, int count, int warmup, Usage& usage) {
    std::packaged_task<std::vector<double>()> job(
        [&] { return ::roundTrips(client_, request, count, warmup, usage); });
    auto times = job.get_future();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      job_ = std::move(job);
    }
    ready_.notify_all();
    return times.get();
  }

 private:
  void loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    tid_ = currentThread();
    ready_.notify_all();
    for (;;) {
      ready_.wait(lock, [this] { return stopping_ || job_.valid(); });
      if (stopping_) return;
      auto job = std::move(job_);
      lock.unlock();
      job();
      lock.lock();
    }
  }
  Client client_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::packaged_task<std::vector<double>()> job_;
  pid_t tid_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

// Many clients at once ----------------------------------------------------------------------------

struct LoadResult {
  long calls = 0;
  long posts = 0;
  long errors = 0;
  long lostAnswers = 0;
  long lostDone = 0;
  long events = 0;
  long eventGaps = 0;
  long lostEvents = 0;
};

/// One client of the load: alternates a plain call and a posted call of getVolume, checks
/// every answer, and counts the memory events of "Bench/Tick", whose values must arrive
/// consecutively from 1 to the final tick.
LoadResult loadClient(unsigned short port, Clock::time_point until,
                      const std::atomic<int>& finalTick, const std::atomic<bool>& raiserDone) {
  LoadResult result;
  Client client(port);
  int nextId = 1;
  long pendingDone = 0;
  int lastTick = 0;
  auto handle = [&](const json& frame) {
    const std::string method = frame.value("method", "");
    if (method == "bexko.done") {
      --pendingDone;
      if (!frame["params"].contains("result")) ++result.errors;
    } else if (method == "bexko.event") {
      const int tick = frame["params"]["value"];
      ++result.events;
      if (tick != lastTick + 1) ++result.eventGaps;
      lastTick = tick;
    }
  };
  auto request = [&](const std::string& method, const json& params) {
    const int id = nextId++;
    client.send(
        json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}}.dump());
    for (;;) {
      const json frame = json::parse(client.receive());
      if (frame.contains("id") && frame["id"] == id) return frame;
      handle(frame);
    }
  };
  request("bexko.subscribe", {{"key", "Bench/Tick"}});
  bool post = false;
  while (Clock::now() < until) {
    if (post) {
      const json answer =
          request("bexko.post",
                  {{"module", "ZRTextToSpeech"}, {"method", "getVolume"}, {"args", json::array()}});
      if (answer.contains("result")) {
        ++pendingDone;
        ++result.posts;
      } else {
        ++result.errors;
      }
    } else {
      const json answer = request("ZRTextToSpeech.getVolume", json::array());
      if (!answer.contains("result") || !answer["result"].is_number()) ++result.errors;
      ++result.calls;
    }
    post = !post;
  }
  // Drain. A request answered after the raiser is done comes after every event it raised (one
  // ordered stream per connection); posted calls may still be finishing.
  while (!raiserDone) {
    request("bexko.modules", nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const int last = finalTick.load();
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  do {
    request("bexko.modules", nullptr);
    if (pendingDone == 0 && lastTick == last) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  } while (Clock::now() < deadline);
  result.lostDone = pendingDone;
  result.lostEvents = last - result.events;
  client.close();
  return result;
}

// Many subscribers of one key ------------------------------------------------------------------

struct FanOutResult {
  std::vector<double> latenciesUs;  // raise to receipt, every delivery
  long expected = 0;
  long received = 0;
  long outOfOrder = 0;
};

/// `subscribers` WebSocket clients, all on one thread, subscribe to "Bench/Fan"; `raise(n)` is
/// then called `rate` times a second for `seconds` seconds with n = 1, 2, ... The value raised
/// carries its sequence number and the steady clock at the raise, so that each client measures
/// every delivery and checks that it saw 1, 2, 3, ... in order.
FanOutResult fanOut(unsigned short port, int subscribers, int rate, int seconds,
                    const std::function<void(int, std::int64_t)>& raise) {
  FanOutResult result;
  net::io_context ioc;
  struct Subscriber {
    explicit Subscriber(net::io_context& ioc) : ws(ioc) {}
    websocket::stream<tcp::socket> ws;
    beast::flat_buffer buffer;
    int last = 0;
  };
  std::vector<std::unique_ptr<Subscriber>> clients;
  tcp::resolver resolver(ioc);
  const auto endpoints = resolver.resolve("127.0.0.1", std::to_string(port));
  for (int i = 0; i < subscribers; ++i) {
    auto client = std::make_unique<Subscriber>(ioc);
    net::connect(client->ws.next_layer(), endpoints);
    client->ws.next_layer().set_option(tcp::no_delay(true));
    client->ws.handshake("127.0.0.1", "/");
    client->ws.text(true);
    client->ws.write(net::buffer(std::string(
        R"({"jsonrpc":"2.0","id":1,"method":"bexko.subscribe","params":{"key":"Bench/Fan"}})")));
    client->ws.read(client->buffer);  // the subscription's answer
    client->buffer.consume(client->buffer.size());
    clients.push_back(std::move(client));
  }
  int total = rate * seconds;
  std::atomic<int> done{0};
  std::function<void(Subscriber&)> read = [&](Subscriber& client) {
    client.ws.async_read(client.buffer, [&](beast::error_code ec, std::size_t) {
      if (ec) return;
      const auto now = Clock::now().time_since_epoch();
      const std::string text = beast::buffers_to_string(client.buffer.data());
      client.buffer.consume(client.buffer.size());
      // Only the value is needed: found without parsing the whole frame.
      const auto at = text.find(R"("value":")");
      int seq = 0;
      long long raisedNs = 0;
      if (at != std::string::npos &&
          std::sscanf(text.c_str() + at + 9, "%d %lld", &seq, &raisedNs) == 2) {
        ++result.received;
        if (seq != client.last + 1) ++result.outOfOrder;
        client.last = seq;
        result.latenciesUs.push_back(
            (std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() - raisedNs) / 1e3);
        if (seq == total) ++done;
      }
      if (done < subscribers) read(client);
    });
  };
  for (auto& client : clients) read(*client);
  result.latenciesUs.reserve(static_cast<std::size_t>(total) * subscribers);
  std::thread raiser([&] {
    const auto start = Clock::now();
    for (int n = 1; n <= total; ++n) {
      std::this_thread::sleep_until(start + std::chrono::microseconds(1000000LL * n / rate));
      raise(n, std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
                   .count());
    }
  });
  // Runs until every client saw the last value, or gives up 10 s after the raiser.
  const auto giveUp = Clock::now() + std::chrono::seconds(seconds + 10);
  while (done < subscribers && Clock::now() < giveUp) ioc.run_for(std::chrono::milliseconds(100));
  raiser.join();
  result.expected = static_cast<long>(total) * subscribers;
  for (auto& client : clients) {
    beast::error_code ec;
    client->ws.next_layer().close(ec);
  }
  return result;
}

// The daemon as a process
// ---------------------------------------------------------------------------

long vmRssKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "VmRSS:") == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

/// Starts build/bin/bexko, waits for its ready line; fills the start-up time and pid.
bool startDaemon(pid_t& pid, double& startupMs, std::string& url) {
  const std::string bexko = ko::path::sdkPrefix() + "/bin/bexko";
  int out[2];
  if (pipe(out) != 0) return false;
  const auto start = Clock::now();
  pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    const int devnull = open("/dev/null", O_WRONLY);
    if (devnull >= 0) dup2(devnull, 2);
    execl(bexko.c_str(), bexko.c_str(), "--listen", "127.0.0.1:0", "--log-level", "warning",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  std::string line;
  char c;
  while (read(out[0], &c, 1) == 1 && c != '\n') line.push_back(c);
  startupMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  close(out[0]);
  if (line.rfind("listening on ", 0) != 0) return false;
  url = line.substr(13);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = 10;
  int clients = 32;
  int count = 5000;
  int ioThreads = 0;
  int subscribers = 100;
  int fanRate = 1000;
  int fanSeconds = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--seconds") seconds = std::atoi(argv[i + 1]);
    if (option == "--clients") clients = std::atoi(argv[i + 1]);
    if (option == "--round-trips") count = std::atoi(argv[i + 1]);
    if (option == "--io-threads") ioThreads = std::atoi(argv[i + 1]);
    if (option == "--subscribers") subscribers = std::atoi(argv[i + 1]);
    if (option == "--fan-rate") fanRate = std::max(1, std::atoi(argv[i + 1]));
    if (option == "--fan-seconds") fanSeconds = std::atoi(argv[i + 1]);
  }
  signal(SIGPIPE, SIG_IGN);

  // A private HOME and XDG tree: the benchmark never touches the user's files.
  namespace fs = boost::filesystem;
  const fs::path root = fs::temp_directory_path() / fs::unique_path("bexko-bench-%%%%-%%%%");
  for (const char* sub : {"home", "config", "data", "config-system", "data-system"}) {
    fs::create_directories(root / sub);
  }
  setenv("HOME", (root / "home").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (root / "config").c_str(), 1);
  setenv("XDG_DATA_HOME", (root / "data").c_str(), 1);
  setenv("XDG_CONFIG_DIRS", (root / "config-system").c_str(), 1);
  setenv("XDG_DATA_DIRS", (root / "data-system").c_str(), 1);
  setenv("BEXKO_ENGINE_FAST", "1", 1);

  // The host in this process: broker, built-in services, the speech module library, gateway.
  boost::shared_ptr<ZR::ZRBrokerManager> manager(new ZR::ZRBrokerManager());
  ZR::ZRBrokerManager::setInstance(manager);
  auto broker = ZR::ZRBroker::create("bench", manager);
  manager->addBroker(broker);
  auto services = bexko::services::createBuiltinServices(broker);
  const std::string library = ko::path::sdkPrefix() + "/lib/libbexko-tts.so";
  void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
  auto create = handle ? reinterpret_cast<int (*)(boost::shared_ptr<ZR::ZRBroker>)>(
                             dlsym(handle, "_createModule"))
                       : nullptr;
  if (!create) {
    std::cerr << "cannot load " << library << "\n";
    return 1;
  }
  create(broker);
  if (!broker->getModuleByName("ZRTextToSpeech")) {
    std::cerr << "the speech service did not start\n";
    return 1;
  }
  bexko::gateway::GatewayOptions options;
  options.port = 0;
  if (ioThreads > 0) options.ioThreads = ioThreads;
  bexko::gateway::Gateway gateway(broker, options);
  const std::vector<pid_t> before = processThreads();
  gateway.start();
  EchoServer echo;
  // The network threads of both servers, which the round trips pin.
  std::vector<pid_t> serverThreads;
  for (pid_t tid : processThreads()) {
    if (std::find(before.begin(), before.end(), tid) == before.end()) serverThreads.push_back(tid);
  }

  std::printf("bexko gateway figures (%u hardware threads)\n\n",
              std::thread::hardware_concurrency());

  // 1. Round trip against the floor, interleaved in blocks so that both see the same machine.
  // Where the scheduler puts the client and the server decides most of a loopback round trip
  // (a wake-up on the same core costs a few microseconds, one across cores tens), and it puts
  // them differently from one connection to the next: both servers are measured in each
  // placement, pinned, and then as the scheduler places them, each server from a client
  // thread of its own (ClientThread). Unpinned, a client and its server tend to stay where
  // they are, together or apart: taking turns every few hundred calls brings each pair
  // together again and again, while a long turn keeps whichever placement it began with, so
  // the scheduler's placement is measured both ways.
  {
    ClientThread viaGateway(gateway.port());
    ClientThread viaEcho(echo.port());
    const std::string request =
        R"({"jsonrpc":"2.0","id":1,"method":"ZRTextToSpeech.getVolume","params":[]})";
    const int cores = static_cast<int>(std::thread::hardware_concurrency());
    struct Placement {
      const char* name;
      int clientCore;  // -1: wherever the scheduler likes
      int serverCore;
      bool longTurns;  // each server in two long turns instead of ten short ones
    };
    std::vector<Placement> placements{{"same core", 0, 0, false}};
    if (cores > 1) placements.push_back({"across cores", 0, 1, false});
    placements.push_back({"unpinned", -1, -1, false});
    placements.push_back({"unpinned, long", -1, -1, true});
    std::printf("1. round trip, %d calls each, client and servers pinned as shown\n", count);
    std::printf(
        "   (each server has a client thread of its own; unpinned: where the scheduler\n"
        "   puts the threads, the servers taking turns every %d calls; long: in two turns\n"
        "   each, where a pair stays together or apart for thousands of calls at a time,\n"
        "   so that row changes from run to run, either way)\n",
        count / 10);
    std::printf("   %-15s %21s %21s %17s %21s\n", "", "gateway p50/p99 us", "echo p50/p99 us",
                "ratio p50/p99", "switches, CPU us/call");
    for (const Placement& placement : placements) {
      pinThreads(serverThreads, placement.serverCore);
      pinThreads({viaGateway.tid(), viaEcho.tid()}, placement.clientCore);
      std::vector<double> gatewayTimes, echoTimes;
      Usage gatewayUsage, echoUsage;
      // The scheduler takes a while to settle the threads after their cores change (a few
      // hundred round trips after the pinned rows): unmeasured calls first, to both servers.
      Usage unmeasured;
      viaGateway.roundTrips(request, 0, 2000, unmeasured);
      viaEcho.roundTrips(request, 0, 2000, unmeasured);
      // Turns go gateway, echo, echo, gateway: five times over in short turns, once in long
      // ones. Each turn begins with unmeasured calls, and the servers alternate which goes
      // first: when the client turns from one server to the other, the scheduler moves threads
      // between cores for a while, and that must weigh on neither.
      const int rounds = placement.longTurns ? 1 : 5;
      const int calls = count / (2 * rounds);
      const int warmup = placement.longTurns ? 2000 : 50;
      for (int round = 0; round < rounds; ++round) {
        for (bool gatewayTurn : {true, false, false, true}) {
          const auto times =
              (gatewayTurn ? viaGateway : viaEcho)
                  .roundTrips(request, calls, warmup, gatewayTurn ? gatewayUsage : echoUsage);
          auto& all = gatewayTurn ? gatewayTimes : echoTimes;
          all.insert(all.end(), times.begin(), times.end());
        }
      }
      const double g50 = percentile(gatewayTimes, 0.5), g99 = percentile(gatewayTimes, 0.99);
      const double e50 = percentile(echoTimes, 0.5), e99 = percentile(echoTimes, 0.99);
      const double n = static_cast<double>(gatewayTimes.size());
      std::printf(
          "   %-15s %9.1f /%9.1f %9.1f /%9.1f %7.2f /%7.2f   gw %.1f, %.0f; echo %.1f, %.0f\n",
          placement.name, g50, g99, e50, e99, g50 / e50, g99 / e99, gatewayUsage.switches / n,
          gatewayUsage.cpuUs / n, echoUsage.switches / n, echoUsage.cpuUs / n);
    }
    std::printf("\n");
    pinThreads(serverThreads, -1);
  }

  // 2. Many clients at once, with a memory key raised all along.
  {
    const auto until = Clock::now() + std::chrono::seconds(seconds);
    std::atomic<bool> raiserDone{false};
    std::atomic<int> finalTick{0};
    std::thread raiser([&] {
      int tick = 0;
      // Give every client time to subscribe before the first tick, which each must see.
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      while (Clock::now() < until) {
        services.memory->raiseEvent("Bench/Tick", ZR::ZRValue(++tick));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
      finalTick = tick;
      raiserDone = true;
    });
    std::vector<std::thread> threads;
    std::vector<LoadResult> results(clients);
    for (int i = 0; i < clients; ++i) {
      threads.emplace_back([&, i] {
        try {
          results[i] = loadClient(gateway.port(), until, finalTick, raiserDone);
        } catch (const std::exception& e) {
          std::fprintf(stderr, "client %d failed: %s\n", i, e.what());
          results[i].errors += 1;
        }
      });
    }
    for (auto& t : threads) t.join();
    raiser.join();
    LoadResult total;
    for (const auto& r : results) {
      total.calls += r.calls;
      total.posts += r.posts;
      total.errors += r.errors;
      total.lostDone += r.lostDone;
      total.events += r.events;
      total.eventGaps += r.eventGaps;
      total.lostEvents += r.lostEvents;
    }
    std::printf("2. %d clients for %d s (each also subscribed to a key raised every 2 ms)\n",
                clients, seconds);
    std::printf("   calls %ld, posted calls %ld, total %.0f requests/s\n", total.calls, total.posts,
                (total.calls + total.posts) / static_cast<double>(seconds));
    std::printf("   errors %ld, posted calls without their bexko.done %ld\n", total.errors,
                total.lostDone);
    std::printf("   memory events received %ld of %ld, out of sequence %ld\n\n", total.events,
                static_cast<long>(finalTick) * clients, total.eventGaps);
  }

  // 3. Many subscribers of one key.
  {
    const FanOutResult r =
        fanOut(gateway.port(), subscribers, fanRate, fanSeconds, [&](int n, std::int64_t ns) {
          services.memory->raiseEvent("Bench/Fan",
                                      ZR::ZRValue(std::to_string(n) + " " + std::to_string(ns)));
        });
    std::printf("3. %d WebSocket subscribers of a key raised %d times a second for %d s\n",
                subscribers, fanRate, fanSeconds);
    if (!r.latenciesUs.empty()) {
      std::printf("   raise to receipt  p50 %8.1f us   p99 %8.1f us   max %8.1f us\n",
                  percentile(r.latenciesUs, 0.5), percentile(r.latenciesUs, 0.99),
                  percentile(r.latenciesUs, 1.0));
    }
    std::printf("   received %ld of %ld, out of order %ld\n\n", r.received, r.expected,
                r.outOfOrder);
  }

  gateway.stop();
  broker->shutdown();

  // 4. The daemon as a user starts it.
  {
    pid_t pid = 0;
    double startupMs = 0;
    std::string url;
    if (startDaemon(pid, startupMs, url)) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      const long rss = vmRssKiB(pid);
      std::printf("4. bexko daemon with the speech service\n");
      std::printf("   start-up to \"listening on\"  %.0f ms\n", startupMs);
      std::printf("   VmRSS when idle             %.1f MiB\n", rss / 1024.0);
      kill(pid, SIGTERM);
      int status = 0;
      waitpid(pid, &status, 0);
      std::printf("   exit status after SIGTERM   %d\n",
                  WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    } else {
      std::printf("4. the daemon did not start\n");
      if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    }
  }
  boost::system::error_code ignored;
  fs::remove_all(root, ignored);
  return 0;
}
