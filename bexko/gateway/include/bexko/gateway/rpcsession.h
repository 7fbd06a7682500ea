#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <boost/shared_ptr.hpp>
#include <nlohmann/json.hpp>

#include <ko/object.h>
#include <zr/zrbroker.h>

namespace bexko {
namespace services {
class Memory;
}

namespace gateway {

/// JSON-RPC error codes the gateway answers with.
namespace rpcerror {
constexpr int ParseError = -32700;      ///< the frame is not JSON
constexpr int InvalidRequest = -32600;  ///< not a JSON-RPC 2.0 request object, or nested too deep
constexpr int MethodNotFound = -32601;  ///< unknown module, method or host operation
constexpr int InvalidParams = -32602;   ///< params of the wrong shape or with no value form
constexpr int InternalError = -32603;   ///< the host cannot serve the operation right now
constexpr int CallFailed = -32000;      ///< the method threw (a ZRError carries its data)
constexpr int TooManyCalls = -32001;    ///< the connection has too many calls in progress
}  // namespace rpcerror

/// Limits that keep one connection from exhausting the host.
struct RpcLimits {
  /// Deepest nesting of arrays and objects accepted in a request.
  std::size_t maxDepth = 64;
  /// Calls of one connection that may run at the same time (each holds a host thread).
  std::size_t maxCallsInFlight = 256;
  /// Memory keys one connection may follow at once (bexko.subscribe).
  std::size_t maxSubscriptions = 4096;
};

/// The JSON-RPC 2.0 side of one client connection, independent of the transport.
///
/// Each text frame given to handleText is one request. Module calls ("<Module>.<method>") run
/// on host threads through the broker, so that calls of one connection run concurrently and a
/// stopAll can interrupt a say sent earlier on the same connection; their responses arrive in
/// completion order. The host's own operations carry the prefix "bexko." (post, stop,
/// modules, describe, subscribe, unsubscribe, connect, disconnect, subscribeLog,
/// unsubscribeLog).
///
/// Every answer and notification leaves through the Sender given at creation, which must be
/// safe to call from any thread and keep the order of its calls. After close() nothing is sent
/// any more, subscriptions and signal connections are dropped, and calls still running finish
/// with their answers discarded.
class RpcSession : public std::enable_shared_from_this<RpcSession> {
 public:
  using Sender = std::function<void(std::string text)>;

  static std::shared_ptr<RpcSession> create(boost::shared_ptr<ZR::ZRBroker> broker, Sender send,
                                            RpcLimits limits = {});
  ~RpcSession();
  RpcSession(const RpcSession&) = delete;
  RpcSession& operator=(const RpcSession&) = delete;

  /// Serves one request frame. Never throws: a bad request gets a JSON-RPC error answer.
  void handleText(const std::string& text);

  /// Stops sending and drops subscriptions and signal connections. Idempotent.
  void close();
  bool isOpen() const;

  /// Calls of this connection still running.
  std::size_t callsInFlight() const { return callsInFlight_.load(); }

 private:
  struct Request {
    nlohmann::json id;
    bool expectsAnswer = false;
    std::string method;
    nlohmann::json params;
  };
  struct SignalConnection {
    ko::Object object;
    ko::SignalLink link = ko::InvalidSignalLink;
  };

  RpcSession(boost::shared_ptr<ZR::ZRBroker> broker, Sender send, RpcLimits limits);

  void dispatch(const Request& request);
  void callModule(const Request& request, const std::string& module, const std::string& method);
  void post(const Request& request);
  void stop(const Request& request);
  void describe(const Request& request);
  void subscribe(const Request& request);
  void unsubscribe(const Request& request);
  void connect(const Request& request);
  void disconnect(const Request& request);
  void subscribeLog(const Request& request);
  void unsubscribeLog(const Request& request);

  boost::shared_ptr<services::Memory> memory() const;
  bool reserveCall(const Request& request);

  void reply(const Request& request, nlohmann::json result);
  void fail(const Request& request, int code, const std::string& message,
            nlohmann::json data = nullptr);
  void failWithOutcome(const Request& request, const ZR::ZRCallOutcome& outcome);
  void notify(const std::string& method, nlohmann::json params);
  void emit(const nlohmann::json& message);

  boost::shared_ptr<ZR::ZRBroker> broker_;
  RpcLimits limits_;

  mutable std::mutex sendMutex_;  // guards sender_ and keeps frames in the order they are made
  Sender sender_;
  bool open_ = true;

  std::mutex linksMutex_;  // guards observers_, signals_ and logSubscription_
  std::map<std::string, int> observers_;
  int logSubscription_ = 0;  // the LogFeed id, 0 when the connection does not follow the log
  std::map<std::pair<std::string, std::string>, SignalConnection> signals_;

  std::atomic<std::size_t> callsInFlight_{0};
};

/// The JSON-RPC error object of a ZRError: message what(), data {module, method, description}.
nlohmann::json errorObject(int code, const ZR::ZRError& error);

}  // namespace gateway
}  // namespace bexko
