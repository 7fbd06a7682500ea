#include <bexko/gateway/gateway.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>

#include <bexko/gateway/access.h>
#include <ko/log.h>
#include "listener.h"
#include "sharedstate.h"
#include "websocketsession.h"

namespace bexko {
namespace gateway {

namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {
ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.gateway");
  return category;
}
}  // namespace

struct Gateway::Impl {
  boost::shared_ptr<ZR::ZRBroker> broker;
  GatewayOptions options;
  std::unique_ptr<net::io_context> ioc;
  std::unique_ptr<net::executor_work_guard<net::io_context::executor_type>> work;
  std::shared_ptr<SharedState> state;
  std::shared_ptr<Listener> listener;
  std::vector<std::thread> threads;
  tcp::endpoint endpoint;
  bool running = false;
};

Gateway::Gateway(boost::shared_ptr<ZR::ZRBroker> broker, GatewayOptions options) : impl_(new Impl) {
  impl_->broker = std::move(broker);
  impl_->options = std::move(options);
}

Gateway::~Gateway() {
  try {
    stop(0);
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::error, "~Gateway") << "stop failed: " << e.what();
  }
}

void Gateway::start() {
  if (impl_->running) return;
  const GatewayOptions& options = impl_->options;
  if (!isLoopbackAddress(options.address) && options.token.empty()) {
    throw std::invalid_argument("listening on " + options.address +
                                ", which other machines can reach, needs an access token");
  }
  boost::system::error_code ec;
  net::ip::address address = options.address == "localhost"
                                 ? net::ip::address(net::ip::address_v4::loopback())
                                 : net::ip::make_address(options.address, ec);
  if (ec) throw std::invalid_argument("not an IP address: " + options.address);

  impl_->ioc = std::make_unique<net::io_context>(options.ioThreads);
  impl_->state = std::make_shared<SharedState>(impl_->broker, options);
  // Events reach the connections from the network thread, not from the thread that raised them.
  impl_->state->setEventFanOut(EventFanOut::create(
      impl_->broker, [executor = impl_->ioc->get_executor()](std::function<void()> job) {
        net::post(executor, std::move(job));
      }));
  try {
    impl_->listener =
        std::make_shared<Listener>(*impl_->ioc, tcp::endpoint(address, options.port), impl_->state);
  } catch (const boost::system::system_error& e) {
    impl_->ioc.reset();
    throw std::runtime_error("cannot listen on " + options.address + ":" +
                             std::to_string(options.port) + ": " + e.code().message());
  }
  impl_->endpoint = impl_->listener->localEndpoint();
  impl_->state->setEndpoint(impl_->endpoint.address().to_string(), impl_->endpoint.port());
  if (!options.consoleFolder.empty() && !impl_->state->console().isServing()) {
    KO_LOG(logCategory(), ko::log::warning, "start")
        << "no web console: " << options.consoleFolder << " is not a folder";
  }
  impl_->listener->run();
  impl_->work = std::make_unique<net::executor_work_guard<net::io_context::executor_type>>(
      impl_->ioc->get_executor());
  for (int i = 0; i < std::max(1, options.ioThreads); ++i) {
    impl_->threads.emplace_back([ioc = impl_->ioc.get()] {
      for (;;) {
        try {
          ioc->run();
          return;
        } catch (const std::exception& e) {
          // A handler that throws must not take the network down with it.
          KO_LOG(logCategory(), ko::log::error, "run") << "network handler failed: " << e.what();
        }
      }
    });
  }
  impl_->running = true;
  KO_LOG(logCategory(), ko::log::info, "start") << "serving on " << url();
}

void Gateway::stop(int graceMs) {
  if (!impl_->running) return;
  impl_->running = false;
  impl_->listener->stop();
  for (auto& session : impl_->state->sessions()) session->close();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(graceMs);
  while (impl_->state->sessionCount() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  impl_->work.reset();
  impl_->ioc->stop();
  for (auto& thread : impl_->threads) thread.join();
  impl_->threads.clear();
  // No network thread runs any more: cut every connection from the host before the sockets go.
  for (auto& session : impl_->state->sessions()) session->detach();
  // Nothing may schedule onto the io_context once it is gone.
  impl_->state->eventFanOut()->close();
  impl_->listener.reset();
  impl_->ioc.reset();
  KO_LOG(logCategory(), ko::log::info, "stop") << "stopped";
}

std::string Gateway::address() const { return impl_->endpoint.address().to_string(); }

unsigned short Gateway::port() const { return impl_->endpoint.port(); }

std::string Gateway::url() const {
  const auto address = impl_->endpoint.address();
  const std::string host = address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
  return "ws://" + host + ":" + std::to_string(port());
}

std::string Gateway::consoleUrl() const {
  if (!impl_->state || !impl_->state->console().isServing()) return {};
  return "http" + url().substr(2) + "/";
}

std::size_t Gateway::connectionCount() const {
  return impl_->state ? impl_->state->sessionCount() : 0;
}

}  // namespace gateway
}  // namespace bexko
