#include <bexko/gateway/rpcsession.h>

#include <ctime>
#include <optional>
#include <utility>
#include <vector>

#include <bexko/gateway/jsonvalue.h>
#include <bexko/services/memory.h>
#include <ko/log.h>
#include <zr/zrmodulecore.h>
#include "logfeed.h"

namespace bexko {
namespace gateway {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.gateway.rpc");
  return category;
}

const std::string kHostPrefix = "bexko";

/// The string member `name` of a params object, or nullptr when it is missing or not a string.
const std::string* stringParam(const nlohmann::json& params, const char* name) {
  if (!params.is_object()) return nullptr;
  auto it = params.find(name);
  if (it == params.end() || !it->is_string()) return nullptr;
  return it->get_ptr<const std::string*>();
}

}  // namespace

nlohmann::json errorObject(int code, const ZR::ZRError& error) {
  return {{"code", code},
          {"message", error.what()},
          {"data",
           {{"module", error.moduleName()},
            {"method", error.methodName()},
            {"description", error.description()}}}};
}

std::shared_ptr<RpcSession> RpcSession::create(boost::shared_ptr<ZR::ZRBroker> broker, Sender send,
                                               RpcLimits limits) {
  return std::shared_ptr<RpcSession>(new RpcSession(std::move(broker), std::move(send), limits));
}

RpcSession::RpcSession(boost::shared_ptr<ZR::ZRBroker> broker, Sender send, RpcLimits limits)
    : broker_(std::move(broker)), limits_(limits), sender_(std::move(send)) {}

RpcSession::~RpcSession() {
  try {
    close();
  } catch (...) {
    // A destructor must not throw; close() logs what it could not undo.
  }
}

bool RpcSession::isOpen() const {
  std::lock_guard<std::mutex> lock(sendMutex_);
  return open_;
}

void RpcSession::close() {
  {
    std::lock_guard<std::mutex> lock(sendMutex_);
    if (!open_) return;
    open_ = false;
    sender_ = nullptr;
  }
  std::map<std::string, int> observers;
  std::map<std::pair<std::string, std::string>, SignalConnection> signals;
  int logSubscription = 0;
  {
    std::lock_guard<std::mutex> lock(linksMutex_);
    observers.swap(observers_);
    signals.swap(signals_);
    std::swap(logSubscription, logSubscription_);
  }
  if (logSubscription != 0) LogFeed::instance().remove(logSubscription);
  // Unobserving waits for a running observer, which only takes sendMutex_: no lock is held here.
  if (!observers.empty()) {
    if (auto store = memory()) {
      for (const auto& entry : observers) store->unobserve(entry.second);
    }
  }
  for (auto& entry : signals) {
    try {
      entry.second.object.disconnect(entry.second.link);
    } catch (const std::exception& e) {
      KO_LOG(logCategory(), ko::log::warning, "close")
          << "Cannot disconnect " << entry.first.first << "." << entry.first.second << ": "
          << e.what();
    }
  }
}

// Framing ------------------------------------------------------------------------------------

void RpcSession::handleText(const std::string& text) {
  Request invalid;
  invalid.id = nullptr;
  invalid.expectsAnswer = true;
  try {
    if (jsonNestingDepth(text, limits_.maxDepth) > limits_.maxDepth) {
      fail(invalid, rpcerror::InvalidRequest,
           "Invalid Request: nested deeper than " + std::to_string(limits_.maxDepth) + " levels");
      return;
    }
    nlohmann::json message = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (message.is_discarded()) {
      fail(invalid, rpcerror::ParseError, "Parse error: the frame is not valid JSON");
      return;
    }
    if (message.is_array()) {
      fail(invalid, rpcerror::InvalidRequest,
           "Invalid Request: batches are not supported; send one request per frame");
      return;
    }
    if (!message.is_object()) {
      fail(invalid, rpcerror::InvalidRequest, "Invalid Request: a request is a JSON object");
      return;
    }
    Request request;
    auto id = message.find("id");
    if (id != message.end()) {
      if (!(id->is_string() || id->is_number() || id->is_null())) {
        fail(invalid, rpcerror::InvalidRequest,
             "Invalid Request: \"id\" must be a string, a number or null");
        return;
      }
      request.id = *id;
      request.expectsAnswer = true;
    }
    auto version = message.find("jsonrpc");
    if (version == message.end() || *version != "2.0") {
      invalid.id = request.id;
      fail(invalid, rpcerror::InvalidRequest, "Invalid Request: \"jsonrpc\" must be \"2.0\"");
      return;
    }
    auto method = message.find("method");
    if (method == message.end() || !method->is_string()) {
      invalid.id = request.id;
      fail(invalid, rpcerror::InvalidRequest, "Invalid Request: \"method\" must be a string");
      return;
    }
    request.method = method->get<std::string>();
    auto params = message.find("params");
    if (params != message.end()) request.params = *params;
    dispatch(request);
  } catch (const std::exception& e) {
    // Nothing a client sends may escape into the transport's thread.
    KO_LOG(logCategory(), ko::log::error, "handleText") << "Unexpected failure: " << e.what();
    fail(invalid, rpcerror::InternalError, std::string("Internal error: ") + e.what());
  }
}

void RpcSession::dispatch(const Request& request) {
  const auto dot = request.method.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == request.method.size()) {
    fail(request, rpcerror::MethodNotFound,
         "Method not found: \"" + request.method + "\" is not of the form <Module>.<method>");
    return;
  }
  const std::string module = request.method.substr(0, dot);
  const std::string name = request.method.substr(dot + 1);
  if (module != kHostPrefix) {
    callModule(request, module, name);
    return;
  }
  if (name == "post") {
    post(request);
  } else if (name == "stop") {
    stop(request);
  } else if (name == "modules") {
    reply(request, broker_->getModuleNames());
  } else if (name == "describe") {
    describe(request);
  } else if (name == "subscribe") {
    subscribe(request);
  } else if (name == "unsubscribe") {
    unsubscribe(request);
  } else if (name == "connect") {
    connect(request);
  } else if (name == "disconnect") {
    disconnect(request);
  } else if (name == "subscribeLog") {
    subscribeLog(request);
  } else if (name == "unsubscribeLog") {
    unsubscribeLog(request);
  } else {
    fail(request, rpcerror::MethodNotFound,
         "Method not found: the host has no operation \"" + request.method + "\"");
  }
}

// Calls ----------------------------------------------------------------------------------------

namespace {

/// The arguments of a call, or a message saying why there are none.
bool argumentsFrom(const nlohmann::json& params, std::vector<ZR::ZRValue>& args,
                   std::string& problem) {
  if (params.is_null()) return true;
  if (!params.is_array()) {
    problem = "Invalid params: the arguments must be an array";
    return false;
  }
  args.reserve(params.size());
  for (std::size_t i = 0; i < params.size(); ++i) {
    try {
      args.push_back(fromJson(params[i]));
    } catch (const JsonConversionError& e) {
      problem = "Invalid params: argument " + std::to_string(i + 1) + ": " + e.what();
      return false;
    }
  }
  return true;
}

}  // namespace

bool RpcSession::reserveCall(const Request& request) {
  if (callsInFlight_.fetch_add(1) >= limits_.maxCallsInFlight) {
    callsInFlight_.fetch_sub(1);
    fail(request, rpcerror::TooManyCalls,
         "Too many calls in progress on this connection (at most " +
             std::to_string(limits_.maxCallsInFlight) + ")");
    return false;
  }
  return true;
}

void RpcSession::callModule(const Request& request, const std::string& module,
                            const std::string& method) {
  std::vector<ZR::ZRValue> args;
  std::string problem;
  if (!argumentsFrom(request.params, args, problem)) {
    fail(request, rpcerror::InvalidParams, problem);
    return;
  }
  auto target = broker_->getModuleByName(module);
  if (!target) {
    fail(request, rpcerror::MethodNotFound, "Method not found: no module named \"" + module + "\"");
    return;
  }
  if (!target->hasMethod(method)) {
    fail(request, rpcerror::MethodNotFound,
         "Method not found: module \"" + module + "\" has no method \"" + method + "\"");
    return;
  }
  if (!reserveCall(request)) return;
  std::weak_ptr<RpcSession> weak = shared_from_this();
  broker_->callAsync(module, method, std::move(args),
                     [weak, request](const ZR::ZRCallOutcome& outcome) {
                       auto self = weak.lock();
                       if (!self) return;
                       self->callsInFlight_.fetch_sub(1);
                       if (outcome.ok) {
                         self->reply(request, toJson(outcome.value));
                       } else {
                         self->failWithOutcome(request, outcome);
                       }
                     });
}

void RpcSession::post(const Request& request) {
  const std::string* module = stringParam(request.params, "module");
  const std::string* method = stringParam(request.params, "method");
  if (!module || !method) {
    fail(request, rpcerror::InvalidParams,
         "Invalid params: bexko.post takes {\"module\": string, \"method\": string, \"args\": "
         "array}");
    return;
  }
  std::vector<ZR::ZRValue> args;
  std::string problem;
  auto argsJson = request.params.find("args");
  if (argsJson != request.params.end() && !argumentsFrom(*argsJson, args, problem)) {
    fail(request, rpcerror::InvalidParams, problem);
    return;
  }
  auto target = broker_->getModuleByName(*module);
  if (!target || !target->hasMethod(*method)) {
    fail(request, rpcerror::MethodNotFound,
         "Method not found: " +
             (target ? "module \"" + *module + "\" has no method \"" + *method + "\""
                     : "no module named \"" + *module + "\""));
    return;
  }
  if (!reserveCall(request)) return;

  // The completion may run before the id has been answered (even inside post itself); it is
  // held back until then, so that a client always learns the id before the call's end.
  struct Completion {
    std::mutex mutex;
    bool idAnswered = false;
    std::optional<nlohmann::json> pending;
  };
  auto completion = std::make_shared<Completion>();
  std::weak_ptr<RpcSession> weak = shared_from_this();
  auto posted = broker_->post(
      *module, *method, std::move(args), [weak, completion](const ZR::ZRCallOutcome& outcome) {
        auto self = weak.lock();
        if (!self) return;
        self->callsInFlight_.fetch_sub(1);
        nlohmann::json done = {{"id", outcome.id}};
        if (outcome.ok) {
          done["result"] = toJson(outcome.value);
        } else if (outcome.error) {
          done["error"] = errorObject(rpcerror::CallFailed, *outcome.error);
        } else {
          done["error"] = {{"code", rpcerror::CallFailed}, {"message", outcome.otherError}};
        }
        std::lock_guard<std::mutex> lock(completion->mutex);
        if (completion->idAnswered) {
          self->notify("bexko.done", std::move(done));
        } else {
          completion->pending = std::move(done);
        }
      });
  reply(request, {{"id", posted.id}});
  std::lock_guard<std::mutex> lock(completion->mutex);
  completion->idAnswered = true;
  if (completion->pending) notify("bexko.done", std::move(*completion->pending));
}

void RpcSession::stop(const Request& request) {
  const std::string* module = stringParam(request.params, "module");
  auto id = request.params.is_object() ? request.params.find("id") : request.params.end();
  if (!module || id == request.params.end() || !id->is_number_integer()) {
    fail(request, rpcerror::InvalidParams,
         "Invalid params: bexko.stop takes {\"module\": string, \"id\": integer}");
    return;
  }
  const std::int64_t callId = id->get<std::int64_t>();
  if (callId < 0 || callId > 2147483647) {
    fail(request, rpcerror::InvalidParams, "Invalid params: a call id is a 32-bit integer");
    return;
  }
  // A module's stop may wait on its own locks: never on the transport's thread, and never
  // behind the calls it is meant to stop.
  std::weak_ptr<RpcSession> weak = shared_from_this();
  auto broker = broker_;
  std::string moduleName = *module;
  broker_->submitPrompt([weak, broker, moduleName, callId, request] {
    auto self = weak.lock();
    if (!self) return;
    try {
      broker->stop(moduleName, static_cast<int>(callId));
      self->reply(request, nullptr);
    } catch (const ZR::ZRError& e) {
      if (request.expectsAnswer) {
        self->emit({{"jsonrpc", "2.0"},
                    {"id", request.id},
                    {"error", errorObject(rpcerror::CallFailed, e)}});
      }
    } catch (const std::exception& e) {
      self->fail(request, rpcerror::CallFailed, e.what());
    }
  });
}

void RpcSession::describe(const Request& request) {
  const std::string* module = stringParam(request.params, "module");
  if (!module) {
    fail(request, rpcerror::InvalidParams,
         "Invalid params: bexko.describe takes {\"module\": string}");
    return;
  }
  auto target = broker_->getModuleByName(*module);
  if (!target) {
    fail(request, rpcerror::InvalidParams, "Invalid params: no module named \"" + *module + "\"");
    return;
  }
  reply(request, toJson(target->moduleInfo()));
}

// Events and signals ---------------------------------------------------------------------------

boost::shared_ptr<services::Memory> RpcSession::memory() const {
  return boost::dynamic_pointer_cast<services::Memory>(broker_->getModuleByName("ZRMemory"));
}

void RpcSession::subscribe(const Request& request) {
  const std::string* key = stringParam(request.params, "key");
  if (!key || key->empty()) {
    fail(request, rpcerror::InvalidParams,
         "Invalid params: bexko.subscribe takes {\"key\": non-empty string}");
    return;
  }
  auto store = memory();
  if (!store) {
    fail(request, rpcerror::InternalError, "The event store \"ZRMemory\" is not running");
    return;
  }
  bool full = false;
  {
    std::lock_guard<std::mutex> lock(linksMutex_);
    if (observers_.count(*key)) {
      reply(request, nullptr);
      return;
    }
    full = observers_.size() >= limits_.maxSubscriptions;
  }
  if (full) {
    fail(request, rpcerror::TooManyCalls,
         "Too many subscriptions on this connection (at most " +
             std::to_string(limits_.maxSubscriptions) + ")");
    return;
  }
  std::weak_ptr<RpcSession> weak = shared_from_this();
  const int observer =
      store->observe(*key, [weak](const std::string& key, const ZR::ZRValue& value) {
        if (auto self = weak.lock())
          self->notify("bexko.event", {{"key", key}, {"value", toJson(value)}});
      });
  bool keep = false;
  {
    std::lock_guard<std::mutex> lock(linksMutex_);
    if (isOpen() && !observers_.count(*key)) {
      observers_[*key] = observer;
      keep = true;
    }
  }
  if (!keep) store->unobserve(observer);
  reply(request, nullptr);
}

void RpcSession::unsubscribe(const Request& request) {
  const std::string* key = stringParam(request.params, "key");
  if (!key) {
    fail(request, rpcerror::InvalidParams,
         "Invalid params: bexko.unsubscribe takes {\"key\": string}");
    return;
  }
  int observer = 0;
  bool found = false;
  {
    std::lock_guard<std::mutex> lock(linksMutex_);
    auto it = observers_.find(*key);
    if (it != observers_.end()) {
      observer = it->second;
      found = true;
      observers_.erase(it);
    }
  }
  if (found) {
    if (auto store = memory()) store->unobserve(observer);
  }
  reply(request, nullptr);
}

void RpcSession::connect(const Request& request) {
  const std::string* service = stringParam(request.params, "service");
  const std::string* signal = stringParam(request.params, "signal");
  if (!service || !signal) {
    fail(request, rpcerror::InvalidParams,
         "Invalid params: bexko.connect takes {\"service\": string, \"signal\": string}");
    return;
  }
  // A service of the session first, else the object of a module of that name.
  ko::Object object;
  try {
    object = broker_->session()->service(*service).value(1000);
  } catch (const std::exception&) {
    object = ko::Object();
  }
  if (!object.isValid()) {
    if (auto module = broker_->getModuleByName(*service)) object = ko::Object(module->object());
  }
  if (!object.isValid()) {
    fail(request, rpcerror::InvalidParams,
         "Invalid params: no service or module named \"" + *service + "\"");
    return;
  }
  const auto key = std::make_pair(*service, *signal);
  {
    std::lock_guard<std::mutex> lock(linksMutex_);
    if (signals_.count(key)) {
      reply(request, nullptr);
      return;
    }
  }
  std::weak_ptr<RpcSession> weak = shared_from_this();
  const std::string serviceName = *service;
  const std::string signalName = *signal;
  ko::SignalLink link = ko::InvalidSignalLink;
  try {
    link =
        object
            ->connectGeneric(signalName,
                             [weak, serviceName, signalName](const std::vector<ZR::ZRValue>& args) {
                               auto self = weak.lock();
                               if (!self) return;
                               nlohmann::json items = nlohmann::json::array();
                               for (const auto& arg : args) items.push_back(toJson(arg));
                               self->notify("bexko.signal", {{"service", serviceName},
                                                             {"signal", signalName},
                                                             {"args", std::move(items)}});
                             })
            .value(1000);
  } catch (const std::exception& e) {
    fail(request, rpcerror::InvalidParams,
         "Invalid params: cannot connect to " + serviceName + "." + signalName + ": " + e.what());
    return;
  }
  bool keep = false;
  {
    std::lock_guard<std::mutex> lock(linksMutex_);
    if (isOpen() && !signals_.count(key)) {
      signals_[key] = SignalConnection{object, link};
      keep = true;
    }
  }
  if (!keep) object.disconnect(link);
  reply(request, nullptr);
}

void RpcSession::disconnect(const Request& request) {
  const std::string* service = stringParam(request.params, "service");
  const std::string* signal = stringParam(request.params, "signal");
  if (!service || !signal) {
    fail(request, rpcerror::InvalidParams,
         "Invalid params: bexko.disconnect takes {\"service\": string, \"signal\": string}");
    return;
  }
  SignalConnection connection;
  bool found = false;
  {
    std::lock_guard<std::mutex> lock(linksMutex_);
    auto it = signals_.find(std::make_pair(*service, *signal));
    if (it != signals_.end()) {
      connection = it->second;
      signals_.erase(it);
      found = true;
    }
  }
  if (found) connection.object.disconnect(connection.link);
  reply(request, nullptr);
}

// The log -----------------------------------------------------------------------------------

namespace {

/// "2026-11-24T02:08:07.123Z".
std::string isoTime(std::chrono::system_clock::time_point time) {
  const auto seconds = std::chrono::system_clock::to_time_t(time);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(millis));
  return text;
}

}  // namespace

void RpcSession::subscribeLog(const Request& request) {
  ko::log::LogLevel level = ko::log::info;
  auto given = request.params.is_object() ? request.params.find("level") : request.params.end();
  const bool shapeOk = request.params.is_null() || request.params.is_object();
  bool levelOk = shapeOk;
  if (shapeOk && given != request.params.end()) {
    try {
      if (given->is_string()) {
        level = ko::log::parseLevel(given->get<std::string>());
      } else if (given->is_number_integer()) {
        level = ko::log::parseLevel(std::to_string(given->get<std::int64_t>()));
      } else {
        levelOk = false;
      }
    } catch (const std::invalid_argument&) {
      levelOk = false;
    }
  }
  if (!levelOk || level == ko::log::silent) {
    fail(request, rpcerror::InvalidParams,
         "Invalid params: bexko.subscribeLog takes {\"level\": fatal, error, warning, info, "
         "verbose, debug or 1-6} (default info)");
    return;
  }
  std::weak_ptr<RpcSession> weak = shared_from_this();
  const int id = LogFeed::instance().add(level, [weak](const ko::log::Record& record) {
    auto self = weak.lock();
    if (!self) return;
    self->notify("bexko.log", {{"time", isoTime(record.time)},
                               {"level", ko::log::levelName(record.level)},
                               {"category", record.category},
                               {"function", record.function},
                               {"message", record.message}});
  });
  int replaced = 0;
  bool keep = false;
  {
    std::lock_guard<std::mutex> lock(linksMutex_);
    if (isOpen()) {
      replaced = logSubscription_;
      logSubscription_ = id;
      keep = true;
    }
  }
  if (replaced != 0) LogFeed::instance().remove(replaced);
  if (!keep) LogFeed::instance().remove(id);
  reply(request, nullptr);
}

void RpcSession::unsubscribeLog(const Request& request) {
  int id = 0;
  {
    std::lock_guard<std::mutex> lock(linksMutex_);
    std::swap(id, logSubscription_);
  }
  if (id != 0) LogFeed::instance().remove(id);
  reply(request, nullptr);
}

// Answers ----------------------------------------------------------------------------------------

void RpcSession::reply(const Request& request, nlohmann::json result) {
  if (!request.expectsAnswer) return;
  emit({{"jsonrpc", "2.0"}, {"id", request.id}, {"result", std::move(result)}});
}

void RpcSession::fail(const Request& request, int code, const std::string& message,
                      nlohmann::json data) {
  KO_LOG(logCategory(), ko::log::verbose, "fail")
      << (request.method.empty() ? std::string("request") : request.method) << ": " << message;
  if (!request.expectsAnswer) return;
  nlohmann::json error = {{"code", code}, {"message", message}};
  if (!data.is_null()) error["data"] = std::move(data);
  emit({{"jsonrpc", "2.0"}, {"id", request.id}, {"error", std::move(error)}});
}

void RpcSession::failWithOutcome(const Request& request, const ZR::ZRCallOutcome& outcome) {
  if (!request.expectsAnswer) return;
  nlohmann::json error;
  if (outcome.error) {
    error = errorObject(rpcerror::CallFailed, *outcome.error);
  } else {
    error = {{"code", rpcerror::CallFailed}, {"message", outcome.otherError}};
  }
  emit({{"jsonrpc", "2.0"}, {"id", request.id}, {"error", std::move(error)}});
}

void RpcSession::notify(const std::string& method, nlohmann::json params) {
  emit({{"jsonrpc", "2.0"}, {"method", method}, {"params", std::move(params)}});
}

void RpcSession::emit(const nlohmann::json& message) {
  // Invalid UTF-8 from a module must not make the whole answer fail: it is replaced.
  std::string text = message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  std::lock_guard<std::mutex> lock(sendMutex_);
  if (!open_ || !sender_) return;
  sender_(std::move(text));
}

}  // namespace gateway
}  // namespace bexko
