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

#include <bexko/gateway/eventfanout.h>
#include <ko/cancellation.h>
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
  /// Requests in one batch; a longer batch is refused whole, before any of it runs.
  std::size_t maxBatchRequests = 256;
};

/// The JSON-RPC 2.0 side of one client connection, independent of the transport.
///
/// Each text frame given to handleText is one request, or a batch: an array of requests. Module
/// calls ("<Module>.<method>") run on host threads through the broker, so that calls of one
/// connection run concurrently and a stopAll can interrupt a say sent earlier on the same
/// connection; their responses arrive in completion order. The host's own operations carry
/// the prefix "bexko." (post, stop, modules, describe, subscribe, unsubscribe, connect,
/// disconnect, keys, version, subscribeLog, unsubscribeLog). Calls of the methods that their
/// module marks quick (ZRModuleCore::setMethodQuick) are answered within handleText.
///
/// The members of a batch run as if each had come in a frame of its own, in array order and
/// concurrently; the batch is answered by one frame, an array holding the answer of every
/// member that has an id, in array order, sent once the last of them is known. Notifications
/// in a batch are never answered, and a batch of notifications only is answered with nothing.
/// An empty batch, or one beyond RpcLimits::maxBatchRequests, is one Invalid Request error.
/// The bexko.done notification of a call posted in a batch comes after the batch's answer,
/// which holds its id; events of a key subscribed in a batch may come before it.
///
/// Every answer and notification leaves through the Sender given at creation, which must be
/// safe to call from any thread and keep the order of the calls made from one thread. After close()
/// nothing is sent any more, subscriptions and signal connections are dropped, calls that have not
/// started are dropped (also those waiting for a module's ko::FairMutex), and calls still running
/// finish with their answers discarded. Posted calls are not dropped: posting hands the call over.
class RpcSession : public std::enable_shared_from_this<RpcSession> {
 public:
  using Sender = std::function<void(Frame frame)>;

  /// `fanOut` carries the events of subscribed keys; the gateway shares one among all its
  /// connections. Without one, the session has its own, which hands events over on the
  /// raising thread.
  static std::shared_ptr<RpcSession> create(boost::shared_ptr<ZR::ZRBroker> broker, Sender send,
                                            RpcLimits limits = {},
                                            std::shared_ptr<EventFanOut> fanOut = nullptr);
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
  struct Batch;
  struct Request {
    nlohmann::json id;
    bool expectsAnswer = false;
    std::string method;
    nlohmann::json params;
    /// The batch the request came in (null for a request of its own) and its place there.
    std::shared_ptr<Batch> batch;
    std::size_t place = 0;
  };
  struct SignalConnection {
    ko::Object object;
    ko::SignalLink link = ko::InvalidSignalLink;
  };

  RpcSession(boost::shared_ptr<ZR::ZRBroker> broker, Sender send, RpcLimits limits,
             std::shared_ptr<EventFanOut> fanOut);

  /// Fills `request` from one request object, or says why it is not one; `request.id` is then
  /// the id to answer the error with.
  static bool readRequest(const nlohmann::json& message, Request& request, std::string& problem);
  void handleBatch(const nlohmann::json& members);
  void dispatch(const Request& request);
  void callModule(const Request& request, const std::string& module, const std::string& method);
  void post(const Request& request);
  void stop(const Request& request);
  void describe(const Request& request);
  void subscribe(const Request& request);
  void unsubscribe(const Request& request);
  void connect(const Request& request);
  void disconnect(const Request& request);
  void keys(const Request& request);
  void subscribeLog(const Request& request);
  void unsubscribeLog(const Request& request);

  boost::shared_ptr<services::Memory> memory() const;
  bool reserveCall(const Request& request);

  /// Answers `request` with `result`; `afterAnswer` (optional) runs once the answer has left
  /// (at once for a notification, after the whole batch's frame for a member of a batch).
  void reply(const Request& request, nlohmann::json result, std::function<void()> afterAnswer = {});
  void fail(const Request& request, int code, const std::string& message,
            nlohmann::json data = nullptr);
  void failWithOutcome(const Request& request, const ZR::ZRCallOutcome& outcome);
  void failWithError(const Request& request, int code, const ZR::ZRError& error);
  /// Sends the answer `message` of `request`, or keeps it for its batch.
  void answer(const Request& request, nlohmann::json message,
              std::function<void()> afterAnswer = {});
  void notify(const std::string& method, const nlohmann::json& params);
  void emit(const nlohmann::json& message);
  /// Hands a frame to the sender, unless the session is closed.
  void send(std::string text);
  void sendFrame(Frame frame);

  boost::shared_ptr<ZR::ZRBroker> broker_;
  RpcLimits limits_;
  std::shared_ptr<EventFanOut> fanOut_;

  mutable std::mutex sendMutex_;  // guards sender_ and keeps frames in the order they are made
  Sender sender_;
  bool open_ = true;

  std::mutex linksMutex_;                 // guards observers_, signals_ and logSubscription_
  std::map<std::string, int> observers_;  // key -> EventFanOut watcher id
  int logSubscription_ = 0;  // the LogFeed id, 0 when the connection does not follow the log
  std::map<std::pair<std::string, std::string>, SignalConnection> signals_;

  std::atomic<std::size_t> callsInFlight_{0};
  // Cancelled at close: the calls of this connection that have not started are not run, and
  // those waiting for a module's fair lock stop waiting, since nobody can read their answers.
  ko::CallCancellationPtr callerGone_ = std::make_shared<ko::CallCancellation>();
};

/// The error code of a call's failure: InvalidParams when the call was refused for its
/// arguments (count or type), else CallFailed.
int errorCode(const ZR::ZRCallOutcome& outcome);

/// The JSON-RPC error object of a ZRError: message what(), data {module, method, description}.
nlohmann::json errorObject(int code, const ZR::ZRError& error);

}  // namespace gateway
}  // namespace bexko
