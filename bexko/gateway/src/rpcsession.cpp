#include <bexko/gateway/rpcsession.h>

#include <ctime>
#include <optional>
#include <utility>
#include <vector>

#include <bexko/gateway/jsonvalue.h>
#include <bexko/services/memory.h>
#include <ko/log.h>
#include <ko/version.h>
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
                                               RpcLimits limits,
                                               std::shared_ptr<EventFanOut> fanOut) {
  if (!fanOut) fanOut = EventFanOut::create(broker);
  return std::shared_ptr<RpcSession>(
      new RpcSession(std::move(broker), std::move(send), limits, std::move(fanOut)));
}

RpcSession::RpcSession(boost::shared_ptr<ZR::ZRBroker> broker, Sender send, RpcLimits limits,
                       std::shared_ptr<EventFanOut> fanOut)
    : broker_(std::move(broker)),
      limits_(limits),
      fanOut_(std::move(fanOut)),
      sender_(std::move(send)) {}

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
  if (const std::size_t left = callsInFlight_.load()) {
    KO_LOG(logCategory(), ko::log::info, "close")
        << "A connection closed with " << left
        << " calls in progress; its direct calls that have not started are dropped";
  }
  callerGone_->cancel();
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
  // Unsubscribing waits for an event being handed to this session, which only takes
  // sendMutex_: no lock is held here.
  for (const auto& entry : observers) fanOut_->unsubscribe(entry.second);
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

/// The answers of one batch, gathered until the last member with an id is answered.
struct RpcSession::Batch {
  std::mutex mutex;
  std::vector<nlohmann::json> answers;  // by place in the batch; null where none
  // Members with an id still to be answered, plus one while the batch is being dispatched, so
  // that a member answered at once cannot send the batch before the others are counted.
  std::size_t unanswered = 1;
  std::vector<std::function<void()>> afterAnswer;
};

void RpcSession::handleText(const std::string& text) {
  Request invalid;
  invalid.id = nullptr;
  invalid.expectsAnswer = true;
  try {
    // A batch adds one level of nesting around requests that are allowed alone.
    const auto first = text.find_first_not_of(" \t\r\n");
    const bool batch = first != std::string::npos && text[first] == '[';
    const std::size_t depthAllowed = limits_.maxDepth + (batch ? 1 : 0);
    if (jsonNestingDepth(text, depthAllowed) > depthAllowed) {
      fail(invalid, rpcerror::InvalidRequest,
           "Invalid Request: nested deeper than " + std::to_string(limits_.maxDepth) + " levels");
      return;
    }
    nlohmann::json message = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    // The parser stops at a NUL and would ignore what follows it; JSON text never holds one.
    if (message.is_discarded() || text.find('\0') != std::string::npos) {
      fail(invalid, rpcerror::ParseError, "Parse error: the frame is not valid JSON");
      return;
    }
    if (message.is_array()) {
      handleBatch(message);
      return;
    }
    Request request;
    std::string problem;
    if (!readRequest(message, request, problem)) {
      fail(request, rpcerror::InvalidRequest, problem);
      return;
    }
    dispatch(request);
  } catch (const std::exception& e) {
    // Nothing a client sends may escape into the transport's thread.
    KO_LOG(logCategory(), ko::log::error, "handleText") << "Unexpected failure: " << e.what();
    fail(invalid, rpcerror::InternalError, std::string("Internal error: ") + e.what());
  }
}

bool RpcSession::readRequest(const nlohmann::json& message, Request& request,
                             std::string& problem) {
  // Until the id is known to be usable, an error is answered with a null id.
  request.id = nullptr;
  request.expectsAnswer = true;
  if (!message.is_object()) {
    problem = "Invalid Request: a request is a JSON object";
    return false;
  }
  auto id = message.find("id");
  if (id != message.end() && !(id->is_string() || id->is_number() || id->is_null())) {
    problem = "Invalid Request: \"id\" must be a string, a number or null";
    return false;
  }
  if (id != message.end()) request.id = *id;
  auto version = message.find("jsonrpc");
  if (version == message.end() || *version != "2.0") {
    problem = "Invalid Request: \"jsonrpc\" must be \"2.0\"";
    return false;
  }
  auto method = message.find("method");
  if (method == message.end() || !method->is_string()) {
    problem = "Invalid Request: \"method\" must be a string";
    return false;
  }
  // A valid request without an id is a notification: it is served and never answered.
  request.expectsAnswer = id != message.end();
  request.method = method->get<std::string>();
  auto params = message.find("params");
  if (params != message.end()) request.params = *params;
  return true;
}

void RpcSession::handleBatch(const nlohmann::json& members) {
  Request invalid;
  invalid.id = nullptr;
  invalid.expectsAnswer = true;
  if (members.empty()) {
    fail(invalid, rpcerror::InvalidRequest, "Invalid Request: the batch is empty");
    return;
  }
  if (members.size() > limits_.maxBatchRequests) {
    fail(invalid, rpcerror::InvalidRequest,
         "Invalid Request: a batch holds at most " + std::to_string(limits_.maxBatchRequests) +
             " requests, not " + std::to_string(members.size()));
    return;
  }
  auto batch = std::make_shared<Batch>();
  batch->answers.resize(members.size());
  std::vector<Request> requests(members.size());
  std::vector<std::string> problems(members.size());
  std::vector<bool> valid(members.size());
  for (std::size_t i = 0; i < members.size(); ++i) {
    valid[i] = readRequest(members[i], requests[i], problems[i]);
    requests[i].batch = batch;
    requests[i].place = i;
    if (requests[i].expectsAnswer) ++batch->unanswered;
  }
  for (std::size_t i = 0; i < members.size(); ++i) {
    try {
      if (valid[i]) {
        dispatch(requests[i]);
      } else {
        fail(requests[i], rpcerror::InvalidRequest, problems[i]);
      }
    } catch (const std::exception& e) {
      // A member that failed this way has not been answered; the batch must still be.
      KO_LOG(logCategory(), ko::log::error, "handleBatch") << "Unexpected failure: " << e.what();
      fail(requests[i], rpcerror::InternalError, std::string("Internal error: ") + e.what());
    }
  }
  // The dispatching is over: the batch goes as soon as its last answer is known.
  Request done;
  done.batch = batch;
  done.expectsAnswer = true;
  answer(done, nullptr);
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
  } else if (name == "keys") {
    keys(request);
  } else if (name == "version") {
    reply(request, ko::kVersion);
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
  // A method that does not exist is reported before anything about its arguments.
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
  std::vector<ZR::ZRValue> args;
  std::string problem;
  if (!argumentsFrom(request.params, args, problem)) {
    fail(request, rpcerror::InvalidParams, problem);
    return;
  }
  // A quick method answers at once: served here, on the transport's thread, it costs no
  // hand-off to a host thread and back.
  if (target->isMethodQuick(method)) {
    const ZR::ZRCallOutcome outcome = broker_->callNow(module, method, args);
    if (outcome.ok) {
      reply(request, toJson(outcome.value));
    } else {
      failWithOutcome(request, outcome);
    }
    return;
  }
  if (!reserveCall(request)) return;
  std::weak_ptr<RpcSession> weak = shared_from_this();
  broker_->callAsync(
      module, method, std::move(args),
      [weak, request](const ZR::ZRCallOutcome& outcome) {
        auto self = weak.lock();
        if (!self) return;
        self->callsInFlight_.fetch_sub(1);
        if (outcome.ok) {
          self->reply(request, toJson(outcome.value));
        } else {
          self->failWithOutcome(request, outcome);
        }
      },
      callerGone_);
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
  auto target = broker_->getModuleByName(*module);
  if (!target || !target->hasMethod(*method)) {
    fail(request, rpcerror::MethodNotFound,
         "Method not found: " +
             (target ? "module \"" + *module + "\" has no method \"" + *method + "\""
                     : "no module named \"" + *module + "\""));
    return;
  }
  std::vector<ZR::ZRValue> args;
  std::string problem;
  auto argsJson = request.params.find("args");
  if (argsJson != request.params.end() && !argumentsFrom(*argsJson, args, problem)) {
    fail(request, rpcerror::InvalidParams, problem);
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
          done["error"] = errorObject(errorCode(outcome), *outcome.error);
        } else {
          done["error"] = {{"code", errorCode(outcome)}, {"message", outcome.otherError}};
        }
        std::lock_guard<std::mutex> lock(completion->mutex);
        if (completion->idAnswered) {
          self->notify("bexko.done", std::move(done));
        } else {
          completion->pending = std::move(done);
        }
      });
  reply(request, {{"id", posted.id}}, [weak, completion] {
    auto self = weak.lock();
    std::lock_guard<std::mutex> lock(completion->mutex);
    completion->idAnswered = true;
    if (self && completion->pending) self->notify("bexko.done", std::move(*completion->pending));
  });
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
      self->failWithError(request, rpcerror::CallFailed, e);
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

void RpcSession::keys(const Request& request) {
  auto store = memory();
  if (!store) {
    fail(request, rpcerror::InternalError, "The event store \"ZRMemory\" is not running");
    return;
  }
  // What the modules say of their keys; a key documented by two modules keeps the first.
  std::map<std::string, std::pair<std::string, std::string>> documented;  // key -> module, text
  for (const auto& name : broker_->getModuleNames()) {
    auto module = broker_->getModuleByName(name);
    if (!module) continue;
    for (const auto& event : module->moduleInfo().events) {
      documented.emplace(event.key, std::make_pair(name, event.description));
    }
  }
  nlohmann::json keys = nlohmann::json::array();
  for (const auto& key : store->getDataList("")) {
    auto found = documented.find(key);
    if (found == documented.end()) {
      keys.push_back({{"key", key}, {"module", nullptr}, {"description", ""}});
    } else {
      keys.push_back(
          {{"key", key}, {"module", found->second.first}, {"description", found->second.second}});
    }
  }
  reply(request, std::move(keys));
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
  const int observer = fanOut_->subscribe(*key, [weak](const Frame& frame) {
    if (auto self = weak.lock()) self->sendFrame(frame);
  });
  if (observer == 0) {
    fail(request, rpcerror::InternalError, "The event store \"ZRMemory\" is not running");
    return;
  }
  bool keep = false;
  {
    std::lock_guard<std::mutex> lock(linksMutex_);
    if (isOpen() && !observers_.count(*key)) {
      observers_[*key] = observer;
      keep = true;
    }
  }
  if (!keep) fanOut_->unsubscribe(observer);
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
    fanOut_->unsubscribe(observer);
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

int errorCode(const ZR::ZRCallOutcome& outcome) {
  return outcome.badArguments ? rpcerror::InvalidParams : rpcerror::CallFailed;
}

void RpcSession::reply(const Request& request, nlohmann::json result,
                       std::function<void()> afterAnswer) {
  if (request.expectsAnswer && !request.batch) {
    // Written around the result's text rather than built as a document and dumped: the same
    // bytes (members in key order) without copying the result into a new object.
    std::string text = "{\"id\":";
    text += compactText(request.id);
    text += ",\"jsonrpc\":\"2.0\",\"result\":";
    text += compactText(result);
    text += '}';
    send(std::move(text));
    if (afterAnswer) afterAnswer();
    return;
  }
  answer(request, {{"jsonrpc", "2.0"}, {"id", request.id}, {"result", std::move(result)}},
         std::move(afterAnswer));
}

void RpcSession::fail(const Request& request, int code, const std::string& message,
                      nlohmann::json data) {
  KO_LOG(logCategory(), ko::log::verbose, "fail")
      << (request.method.empty() ? std::string("request") : request.method) << ": " << message;
  nlohmann::json error = {{"code", code}, {"message", message}};
  if (!data.is_null()) error["data"] = std::move(data);
  answer(request, {{"jsonrpc", "2.0"}, {"id", request.id}, {"error", std::move(error)}});
}

void RpcSession::failWithOutcome(const Request& request, const ZR::ZRCallOutcome& outcome) {
  if (outcome.error) {
    failWithError(request, errorCode(outcome), *outcome.error);
    return;
  }
  answer(request, {{"jsonrpc", "2.0"},
                   {"id", request.id},
                   {"error", {{"code", errorCode(outcome)}, {"message", outcome.otherError}}}});
}

void RpcSession::failWithError(const Request& request, int code, const ZR::ZRError& error) {
  answer(request, {{"jsonrpc", "2.0"}, {"id", request.id}, {"error", errorObject(code, error)}});
}

void RpcSession::answer(const Request& request, nlohmann::json message,
                        std::function<void()> afterAnswer) {
  if (!request.expectsAnswer) {
    if (afterAnswer) afterAnswer();
    return;
  }
  if (!request.batch) {
    emit(message);
    if (afterAnswer) afterAnswer();
    return;
  }
  Batch& batch = *request.batch;
  nlohmann::json answers = nlohmann::json::array();
  std::vector<std::function<void()>> after;
  {
    std::lock_guard<std::mutex> lock(batch.mutex);
    if (batch.unanswered == 0) return;  // sent already: a member cannot be answered twice
    if (!message.is_null()) batch.answers[request.place] = std::move(message);
    if (afterAnswer) batch.afterAnswer.push_back(std::move(afterAnswer));
    if (--batch.unanswered > 0) return;
    for (auto& kept : batch.answers) {
      if (!kept.is_null()) answers.push_back(std::move(kept));
    }
    after.swap(batch.afterAnswer);
  }
  if (!answers.empty()) emit(answers);
  for (auto& fn : after) fn();
}

void RpcSession::notify(const std::string& method, const nlohmann::json& params) {
  send(notificationText(method, params));
}

void RpcSession::emit(const nlohmann::json& message) { send(compactText(message)); }

void RpcSession::send(std::string text) {
  sendFrame(std::make_shared<const std::string>(std::move(text)));
}

void RpcSession::sendFrame(Frame frame) {
  std::lock_guard<std::mutex> lock(sendMutex_);
  if (!open_ || !sender_) return;
  sender_(std::move(frame));
}

}  // namespace gateway
}  // namespace bexko
