#include <bexko/gateway/rpcsession.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <bexko/testing/testhost.h>
#include <ko/log.h>
#include <ko/signal.h>
#include <ko/version.h>
#include <zr/zrerror.h>
#include "../src/logfeed.h"

namespace bexko {
namespace gateway {
namespace {

using nlohmann::json;
using ZR::ZRValue;

/// Collects what a session sends, for tests to wait on.
class Outbox {
 public:
  RpcSession::Sender sender() {
    return [this](Frame frame) {
      std::lock_guard<std::mutex> lock(mutex_);
      frames_.push_back(json::parse(*frame));
      texts_.push_back(*frame);
      changed_.notify_all();
    };
  }
  /// The first frame (in arrival order) that `match` accepts, or null after `timeoutMs`.
  json waitFor(const std::function<bool(const json&)>& match, int timeoutMs = 5000) {
    std::unique_lock<std::mutex> lock(mutex_);
    json found;
    changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
      auto it = std::find_if(frames_.begin(), frames_.end(), match);
      if (it != frames_.end()) found = *it;
      return it != frames_.end();
    });
    return found;
  }
  json answer(const json& id, int timeoutMs = 5000) {
    return waitFor([&](const json& f) { return f.contains("id") && f["id"] == id; }, timeoutMs);
  }
  /// The params of the first notification of `method` whose params hold `key`: `value`.
  json notification(const std::string& method, const std::string& key, const json& value) {
    return waitFor([&](const json& f) {
      return f.is_object() && f.value("method", "") == method &&
             f["params"].value(key, json()) == value;
    })["params"];
  }
  std::vector<json> frames() {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }
  /// The frames as sent.
  std::vector<std::string> texts() {
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<json> frames_;
  std::vector<std::string> texts_;
};

std::string request(const json& id, const std::string& method, const json& params) {
  return json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}}.dump();
}

class RpcSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_ = &host_.addFakeModule("ZRFake");
    fake_->addMethod("echo", 1, [](const auto& a) { return a[0]; });
    fake_->addMethod("add", 2, [](const auto& a) { return ZRValue(a[0].toInt() + a[1].toInt()); });
    fake_->addMethod("nothing", 0);
    fake_->addMethod("fail", 0, [](const auto&) -> ZRValue {
      throw ZR::ZRError("ZRFake", "fail", "it failed");
    });
    fake_->addMethod("boom", 0, [](const auto&) -> ZRValue { throw std::runtime_error("boom"); });
    session_ = RpcSession::create(host_.broker(), outbox_.sender(), limits_);
  }
  json call(const json& id, const std::string& method, const json& params) {
    session_->handleText(request(id, method, params));
    return outbox_.answer(id);
  }

  testing::TestHost host_;
  testing::FakeModule* fake_ = nullptr;
  RpcLimits limits_;
  Outbox outbox_;
  std::shared_ptr<RpcSession> session_;
};

TEST_F(RpcSessionTest, CallsByNameAreAnsweredWithTheResultOrTheFailure) {
  session_->handleText(R"({"jsonrpc":"2.0","method":"ZRFake.nothing"})");  // wants no answer
  EXPECT_EQ(call(1, "ZRFake.add", {2, 3})["result"], 5);
  EXPECT_EQ(call("abc", "ZRFake.nothing", nullptr),
            json({{"jsonrpc", "2.0"}, {"id", "abc"}, {"result", nullptr}}));
  EXPECT_EQ(
      call(3, "ZRFake.fail", nullptr)["error"],
      json({{"code", rpcerror::CallFailed},
            {"message", "it failed"},
            {"data", {{"module", "ZRFake"}, {"method", "fail"}, {"description", "it failed"}}}}));
  EXPECT_EQ(call(4, "ZRFake.boom", nullptr)["error"],
            json({{"code", rpcerror::CallFailed}, {"message", "boom"}}));
  // bexko.modules and bexko.describe are checked through bexko-call by the daemon's tests.
  EXPECT_EQ(outbox_.frames().size(), 4u);
}

// Answers and notifications are written as text around their values rather than dumped as
// whole documents: the bytes must still be those of the compact document, members in key order.
TEST_F(RpcSessionTest, FramesAreTheCompactTextOfTheirDocument) {
  fake_->addMethod("bytes", 0, [](const auto&) { return ZRValue(std::string("ok\xff!")); });
  const auto compact = [](const json& document) {
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
  };
  struct Case {
    json id;
    std::string method;
    json params;
    json result;
  };
  const Case cases[] = {
      {7, "ZRFake.echo", {5}, 5},
      {-3, "ZRFake.echo", {0.75}, 0.75},
      {json(18446744073709551615ull), "ZRFake.echo", {"say \"hi\" \u00e9"}, "say \"hi\" \u00e9"},
      {"an \"id\"", "ZRFake.echo", {{1, "two", true}}, {1, "two", true}},
      {nullptr, "ZRFake.nothing", nullptr, nullptr},
      {8, "ZRFake.bytes", nullptr, "ok\xef\xbf\xbd!"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id.dump() + " " + c.method);
    const std::size_t before = outbox_.texts().size();
    session_->handleText(request(c.id, c.method, c.params));
    outbox_.answer(c.id);
    const auto texts = outbox_.texts();
    ASSERT_EQ(texts.size(), before + 1);
    EXPECT_EQ(texts.back(), compact({{"jsonrpc", "2.0"}, {"id", c.id}, {"result", c.result}}));
  }
  const json posted =
      call(9, "bexko.post", {{"module", "ZRFake"}, {"method", "add"}, {"args", {1, 2}}})["result"];
  outbox_.notification("bexko.done", "id", posted["id"]);
  EXPECT_EQ(outbox_.texts().back(), compact({{"jsonrpc", "2.0"},
                                             {"method", "bexko.done"},
                                             {"params", {{"id", posted["id"]}, {"result", 3}}}}));
}

TEST_F(RpcSessionTest, QuickMethodsAreAnsweredBeforeTheFrameIsLeftAndAsOtherCallsAre) {
  struct Case {
    std::string method;
    json params;
    json result;  // or null, and then the error's code
    int code;
  };
  const Case cases[] = {{"add", {2, 3}, 5, 0},
                        {"add", {2}, nullptr, rpcerror::InvalidParams},
                        {"fail", nullptr, nullptr, rpcerror::CallFailed},
                        {"boom", nullptr, nullptr, rpcerror::CallFailed}};
  int id = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method + " " + c.params.dump());
    // The same call, first through a host thread, then marked quick.
    json slow = call(++id, "ZRFake." + c.method, c.params);
    fake_->setMethodQuick(c.method);
    const std::size_t before = outbox_.frames().size();
    session_->handleText(request(++id, "ZRFake." + c.method, c.params));
    const auto frames = outbox_.frames();
    ASSERT_EQ(frames.size(), before + 1) << "answered within handleText";
    json quick = frames.back();
    EXPECT_EQ(quick["id"], id);
    if (c.code == 0) {
      EXPECT_EQ(quick["result"], c.result);
    } else {
      EXPECT_EQ(quick["error"]["code"], c.code) << quick.dump();
    }
    quick.erase("id");
    slow.erase("id");
    EXPECT_EQ(quick, slow);
  }
}

TEST_F(RpcSessionTest, EveryBadInputIsAnsweredWithItsErrorAndTheSessionGoesOn) {
  using namespace rpcerror;
  struct Case {
    std::string text;
    int code;
    json id = 7;  // of the answer
  };
  // One case per refusal of the session. The daemon's bad-input integration test also sends too
  // deep a nesting, an unknown method, an argument that does not convert and a failing call.
  const Case cases[] = {
      {"not json {", ParseError, nullptr},
      {"42", InvalidRequest, nullptr},
      {R"({"jsonrpc":"2.0","id":{},"method":"ZRFake.nothing"})", InvalidRequest, nullptr},
      {R"({"jsonrpc":"1.0","id":1,"method":"ZRFake.nothing"})", InvalidRequest, 1},
      {R"({"jsonrpc":"2.0","id":2,"method":5})", InvalidRequest, 2},
      // A NUL is never part of JSON text: what follows it is not ignored, the frame is refused.
      {std::string(R"({"jsonrpc":"2.0","id":3,"method":"bexko.modules"})") + '\0' + "junk",
       ParseError, nullptr},
      {request(7, "echo", nullptr), MethodNotFound},
      {request(7, "NoSuch.thing", nullptr), MethodNotFound},
      {request(7, "bexko.nothing", nullptr), MethodNotFound},
      {request(7, "ZRFake.echo", {{"a", 1}}), InvalidParams},
      {request(7, "ZRFake.echo", json::array()), InvalidParams},
      {request(7, "ZRFake.echo", {1, 2}), InvalidParams},
      {request(7, "bexko.post", nullptr), InvalidParams},
      {request(7, "bexko.post", {{"module", "ZRFake"}, {"method", "nope"}}), MethodNotFound},
      {request(7, "bexko.post", {{"module", "ZRFake"}, {"method", "nope"}, {"args", "x"}}),
       MethodNotFound},
      {request(7, "bexko.post", {{"module", "ZRFake"}, {"method", "echo"}, {"args", "x"}}),
       InvalidParams},
      {request(7, "bexko.stop", {{"module", "ZRFake"}}), InvalidParams},
      {request(7, "bexko.stop", {{"module", "ZRFake"}, {"id", -1}}), InvalidParams},
      {request(7, "bexko.stop", {{"module", "No"}, {"id", 1}}), CallFailed},
      {request(7, "bexko.describe", {{"module", "No"}}), InvalidParams},
      {request(7, "bexko.subscribe", {{"key", ""}}), InvalidParams},
      {request(7, "bexko.connect", {{"service", "ZRFake"}, {"signal", "nope"}}), InvalidParams},
      {request(7, "bexko.connect", {{"service", "Nobody"}, {"signal", "x"}}), InvalidParams}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Outbox outbox;
    auto session = RpcSession::create(host_.broker(), outbox.sender(), limits_);
    session->handleText(c.text);
    json answer = outbox.waitFor([](const json& f) { return f.contains("error"); });
    EXPECT_EQ(answer["id"], c.id);
    EXPECT_EQ(answer["error"]["code"], c.code) << answer.dump();
    EXPECT_TRUE(answer["error"]["message"].is_string());
    session->handleText(request(99, "ZRFake.echo", {"still here"}));
    EXPECT_EQ(outbox.answer(99)["result"], "still here");
  }
}

TEST_F(RpcSessionTest, CallsRunConcurrentlyUpToTheLimit) {
  std::promise<void> release;  // its end (even by a failed assertion) lets the calls return
  fake_->addMethod("block", 0, [released = release.get_future().share()](const auto&) {
    released.wait();
    return ZRValue("released");
  });
  limits_.maxCallsInFlight = 2;
  session_ = RpcSession::create(host_.broker(), outbox_.sender(), limits_);
  session_->handleText(request(1, "ZRFake.block", json::array()));
  ASSERT_TRUE(fake_->waitForCalls("block", 1, 5000));
  EXPECT_EQ(call(2, "ZRFake.echo", {"later"})["result"], "later");
  session_->handleText(request(3, "ZRFake.block", json::array()));
  ASSERT_TRUE(fake_->waitForCalls("block", 2, 5000));
  EXPECT_EQ(call(4, "ZRFake.echo", {1})["error"]["code"], rpcerror::TooManyCalls);
  EXPECT_TRUE(outbox_.answer(1, 0).is_null());
  release.set_value();
  EXPECT_EQ(outbox_.answer(1)["result"], "released");
  EXPECT_EQ(outbox_.answer(3)["result"], "released");
  EXPECT_EQ(call(5, "ZRFake.echo", {1})["result"], 1);  // the finished calls freed their places
}

TEST_F(RpcSessionTest, SubscriptionsStopAtTheLimitAndAnUnsubscribeFreesAPlace) {
  limits_.maxSubscriptions = 2;
  session_ = RpcSession::create(host_.broker(), outbox_.sender(), limits_);
  EXPECT_TRUE(call(1, "bexko.subscribe", {{"key", "Limit/A"}})["result"].is_null());
  EXPECT_TRUE(call(2, "bexko.subscribe", {{"key", "Limit/B"}})["result"].is_null());
  EXPECT_TRUE(call(3, "bexko.subscribe", {{"key", "Limit/A"}})["result"].is_null());  // again
  const json refused = call(4, "bexko.subscribe", {{"key", "Limit/C"}});
  EXPECT_EQ(refused["error"]["code"], rpcerror::TooManyCalls);
  EXPECT_EQ(refused["error"]["message"], "Too many subscriptions on this connection (at most 2)");
  call(5, "bexko.unsubscribe", {{"key", "Limit/B"}});
  EXPECT_TRUE(call(6, "bexko.subscribe", {{"key", "Limit/C"}})["result"].is_null());
}

TEST_F(RpcSessionTest, APostedCallIsAnsweredWithItsIdBeforeItsEndIsNotified) {
  const json added =
      call(1, "bexko.post", {{"module", "ZRFake"}, {"method", "add"}, {"args", {1, 2}}})["result"];
  ASSERT_TRUE(added["id"].is_number_integer()) << added.dump();
  EXPECT_EQ(outbox_.notification("bexko.done", "id", added["id"]),
            json({{"id", added["id"]}, {"result", 3}}));
  EXPECT_EQ(outbox_.frames().size(), 2u);
  EXPECT_EQ(outbox_.frames()[0]["id"], 1);

  const json failed = call(2, "bexko.post", {{"module", "ZRFake"}, {"method", "fail"}})["result"];
  // The error object itself is checked with a plain call in CallsByNameAreAnswered...
  EXPECT_EQ(outbox_.notification("bexko.done", "id", failed["id"])["error"]["message"],
            "it failed");
}

TEST_F(RpcSessionTest, SubscribedKeysAndConnectedSignalsAreNotifiedUntilUndoneOrClosed) {
  ko::Signal<int, std::string> changed;
  fake_->objectBuilder().advertiseSignal("changed", changed);
  auto& memory = *host_.services().memory;

  EXPECT_TRUE(call(1, "bexko.subscribe", {{"key", "Test/Key"}})["result"].is_null());
  call(2, "bexko.subscribe", {{"key", "Test/Key"}});  // again: still one notification a raise
  call(3, "bexko.connect", {{"service", "ZRFake"}, {"signal", "changed"}});
  memory.raiseEvent("Test/Key", ZRValue::array<int, std::string>(4, "done"));
  memory.raiseEvent("Test/Other", ZRValue(1));
  changed(7, "seven");
  EXPECT_EQ(outbox_.notification("bexko.event", "key", "Test/Key"),
            json({{"key", "Test/Key"}, {"value", {4, "done"}}}));
  EXPECT_EQ(outbox_.notification("bexko.signal", "service", "ZRFake"),
            json({{"service", "ZRFake"}, {"signal", "changed"}, {"args", {7, "seven"}}}));

  call(4, "bexko.unsubscribe", {{"key", "Test/Key"}});
  memory.raiseEvent("Test/Key", ZRValue(2));
  call(5, "bexko.disconnect", {{"service", "ZRFake"}, {"signal", "changed"}});
  EXPECT_FALSE(changed.hasSubscribers());
  call(6, "bexko.connect", {{"service", "ZRFake"}, {"signal", "changed"}});
  call(7, "bexko.subscribe", {{"key", "Test/Other"}});
  EXPECT_TRUE(changed.hasSubscribers());
  session_->close();
  EXPECT_FALSE(changed.hasSubscribers());
  memory.raiseEvent("Test/Other", ZRValue(3));
  const auto frames = outbox_.frames();
  EXPECT_EQ(std::count_if(frames.begin(), frames.end(),
                          [](const json& f) { return f.value("method", "") == "bexko.event"; }),
            1);
}

TEST_F(RpcSessionTest, KeysListTheStoreWithWhatTheModulesSayOfThem) {
  fake_->addModuleEvent("ZRFake/Done", "int: 1 once done");
  fake_->addModuleEvent("ZRFake/Never", "documented, never declared");
  auto& memory = *host_.services().memory;
  memory.declareEvent("ZRFake/Done");
  memory.insertData("Client/Key", ZRValue(1));
  const json keys = call(1, "bexko.keys", nullptr)["result"];
  ASSERT_TRUE(keys.is_array()) << keys.dump();
  auto entry = [&](const std::string& key) {
    auto it =
        std::find_if(keys.begin(), keys.end(), [&](const json& k) { return k["key"] == key; });
    return it == keys.end() ? json() : *it;
  };
  EXPECT_EQ(
      entry("ZRFake/Done"),
      json({{"key", "ZRFake/Done"}, {"module", "ZRFake"}, {"description", "int: 1 once done"}}));
  EXPECT_EQ(entry("Client/Key"),
            json({{"key", "Client/Key"}, {"module", nullptr}, {"description", ""}}));
  EXPECT_TRUE(entry("ZRFake/Never").is_null());
  EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end(), [](const json& a, const json& b) {
    return a["key"].get<std::string>() < b["key"].get<std::string>();
  }));
  EXPECT_EQ(call(2, "bexko.describe", {{"module", "ZRFake"}})["result"]["events"],
            json::parse(R"([{"key": "ZRFake/Done", "description": "int: 1 once done"},
                            {"key": "ZRFake/Never", "description": "documented, never declared"}])"));
  EXPECT_EQ(call(3, "bexko.version", nullptr)["result"], ko::kVersion);
}

// Arguments -------------------------------------------------------------------------------------

TEST_F(RpcSessionTest, ArgumentsAMethodCannotTakeAreInvalidParamsAndItsOwnFailuresAreNot) {
  // A method that calls another one with a wrong argument count fails itself: its caller's
  // arguments were fine.
  auto broker = host_.broker();
  fake_->addMethod("relay", 0,
                   [broker](const auto&) { return broker->call("ZRMemory", "getData", {}); });
  struct Case {
    std::string method;
    json params;
    int code;
    std::string message;  // its beginning
    std::string module;   // of the error's data
  };
  const Case cases[] = {
      {"ZRFake.add", {1}, rpcerror::InvalidParams, "ZRFake.add takes 2 arguments, not 1", "ZRFake"},
      {"ZRFake.nothing",
       {1},
       rpcerror::InvalidParams,
       "ZRFake.nothing takes 0 arguments, not 1",
       "ZRFake"},
      {"ZRMemory.getData", {5}, rpcerror::InvalidParams, "argument 1: ", "ZRMemory"},
      {"ZRMemory.insertData",
       {"Key", 1, 2},
       rpcerror::InvalidParams,
       "ZRMemory.insertData takes 2 arguments, not 3",
       "ZRMemory"},
      {"ZRMemory.getData",
       {"No/Such/Key"},
       rpcerror::CallFailed,
       "There is no data under the key \"No/Such/Key\"",
       "ZRMemory"},
      {"ZRFake.relay", json::array(), rpcerror::CallFailed,
       "ZRMemory.getData takes 1 argument, not 0", "ZRMemory"}};
  int id = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method + " " + c.params.dump());
    const json error = call(++id, c.method, c.params)["error"];
    EXPECT_EQ(error["code"], c.code) << error.dump();
    EXPECT_EQ(error["message"].get<std::string>().rfind(c.message, 0), 0u) << error.dump();
    EXPECT_EQ(error["data"]["module"], c.module) << error.dump();
  }
  // A posted call refused for its arguments ends with the same error.
  const json posted =
      call(++id, "bexko.post", {{"module", "ZRFake"}, {"method", "add"}, {"args", {1}}});
  EXPECT_EQ(outbox_.notification("bexko.done", "id", posted["result"]["id"])["error"]["code"],
            rpcerror::InvalidParams);
}

// The examples of the JSON-RPC 2.0 specification -------------------------------------------------

/// An answer with the message and data of every error left out, once checked to be there: the
/// examples fix codes and ids, the messages are ours.
json withoutErrorTexts(json answer) {
  auto strip = [](json& one) {
    if (!one.is_object() || !one.contains("error")) return;
    EXPECT_TRUE(one["error"]["message"].is_string()) << one.dump();
    EXPECT_FALSE(one["error"]["message"].get<std::string>().empty()) << one.dump();
    one["error"].erase("message");
    one["error"].erase("data");
  };
  if (answer.is_array()) {
    for (auto& one : answer) strip(one);
  } else {
    strip(answer);
  }
  return answer;
}

class JsonRpcExamplesTest : public RpcSessionTest {
 protected:
  void SetUp() override {
    RpcSessionTest::SetUp();
    // The methods of the examples, on a module of their own.
    example_ = &host_.addFakeModule("ZRExample");
    example_->addMethod("subtract", 2,
                        [](const auto& a) { return ZRValue(a[0].toInt() - a[1].toInt()); });
    example_->addMethod("sum", 3, [](const auto& a) {
      return ZRValue(a[0].toInt() + a[1].toInt() + a[2].toInt());
    });
    example_->addMethod("update", 5);
    example_->addMethod("notifyHello", 1);
    example_->addMethod("notifySum", 3);
    example_->addMethod("getData", 0, [](const auto&) {
      return ZRValue(ZRValue::Array{ZRValue("hello"), ZRValue(5)});
    });
  }
  testing::FakeModule* example_ = nullptr;
};

TEST_F(JsonRpcExamplesTest, EveryJsonRpcExampleExchangeIsAnsweredAsTheProtocolShows) {
  struct Case {
    const char* name;
    std::string sent;
    const char* answer;               // nullptr: no answer at all
    std::vector<std::string> served;  // methods of ZRExample that must have been called
  };
  const Case cases[] = {
      {"positional params",
       R"({"jsonrpc": "2.0", "method": "ZRExample.subtract", "params": [42, 23], "id": 1})",
       R"({"jsonrpc": "2.0", "result": 19, "id": 1})",
       {"subtract"}},
      {"positional params, swapped",
       R"({"jsonrpc": "2.0", "method": "ZRExample.subtract", "params": [23, 42], "id": 2})",
       R"({"jsonrpc": "2.0", "result": -19, "id": 2})",
       {"subtract"}},
      // Methods take positional arguments only; named ones are refused as Invalid params.
      {"named params",
       R"({"jsonrpc": "2.0", "method": "ZRExample.subtract", "params": {"subtrahend": 23, "minuend": 42}, "id": 3})",
       R"({"jsonrpc": "2.0", "error": {"code": -32602}, "id": 3})",
       {}},
      {"named params, swapped",
       R"({"jsonrpc": "2.0", "method": "ZRExample.subtract", "params": {"minuend": 42, "subtrahend": 23}, "id": 4})",
       R"({"jsonrpc": "2.0", "error": {"code": -32602}, "id": 4})",
       {}},
      {"notification",
       R"({"jsonrpc": "2.0", "method": "ZRExample.update", "params": [1,2,3,4,5]})",
       nullptr,
       {"update"}},
      {"notification of a method that does not exist",
       R"({"jsonrpc": "2.0", "method": "ZRExample.foobar"})",
       nullptr,
       {}},
      {"non-existent method",
       R"({"jsonrpc": "2.0", "method": "ZRExample.foobar", "id": "1"})",
       R"({"jsonrpc": "2.0", "error": {"code": -32601}, "id": "1"})",
       {}},
      {"invalid JSON",
       R"({"jsonrpc": "2.0", "method": "foobar, "params": "bar", "baz])",
       R"({"jsonrpc": "2.0", "error": {"code": -32700}, "id": null})",
       {}},
      {"invalid Request object",
       R"({"jsonrpc": "2.0", "method": 1, "params": "bar"})",
       R"({"jsonrpc": "2.0", "error": {"code": -32600}, "id": null})",
       {}},
      {"batch, invalid JSON",
       R"([
        {"jsonrpc": "2.0", "method": "ZRExample.sum", "params": [1,2,4], "id": "1"},
        {"jsonrpc": "2.0", "method"
      ])",
       R"({"jsonrpc": "2.0", "error": {"code": -32700}, "id": null})",
       {}},
      {"empty array", "[]", R"({"jsonrpc": "2.0", "error": {"code": -32600}, "id": null})", {}},
      {"invalid batch, not empty",
       "[1]",
       R"([{"jsonrpc": "2.0", "error": {"code": -32600}, "id": null}])",
       {}},
      {"invalid batch",
       "[1,2,3]",
       R"([
        {"jsonrpc": "2.0", "error": {"code": -32600}, "id": null},
        {"jsonrpc": "2.0", "error": {"code": -32600}, "id": null},
        {"jsonrpc": "2.0", "error": {"code": -32600}, "id": null}])",
       {}},
      {"rpc call batch",
       R"([
        {"jsonrpc": "2.0", "method": "ZRExample.sum", "params": [1,2,4], "id": "1"},
        {"jsonrpc": "2.0", "method": "ZRExample.notifyHello", "params": [7]},
        {"jsonrpc": "2.0", "method": "ZRExample.subtract", "params": [42,23], "id": "2"},
        {"foo": "boo"},
        {"jsonrpc": "2.0", "method": "foo.get", "params": {"name": "myself"}, "id": "5"},
        {"jsonrpc": "2.0", "method": "ZRExample.getData", "id": "9"}
      ])",
       R"([
        {"jsonrpc": "2.0", "result": 7, "id": "1"},
        {"jsonrpc": "2.0", "result": 19, "id": "2"},
        {"jsonrpc": "2.0", "error": {"code": -32600}, "id": null},
        {"jsonrpc": "2.0", "error": {"code": -32601}, "id": "5"},
        {"jsonrpc": "2.0", "result": ["hello", 5], "id": "9"}])",
       {"sum", "notifyHello", "subtract", "getData"}},
      {"rpc call batch, all notifications",
       R"([
        {"jsonrpc": "2.0", "method": "ZRExample.notifySum", "params": [1,2,4]},
        {"jsonrpc": "2.0", "method": "ZRExample.notifyHello", "params": [7]}
      ])",
       nullptr,
       {"notifySum", "notifyHello"}}};

  const std::string probe = request("probe", "ZRExample.subtract", {1, 1});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    example_->clearCalls();
    Outbox outbox;
    auto session = RpcSession::create(host_.broker(), outbox.sender(), limits_);
    session->handleText(c.sent);
    if (c.answer) {
      const json answer = outbox.waitFor([](const json&) { return true; });
      EXPECT_EQ(withoutErrorTexts(answer), json::parse(c.answer));
    }
    for (const auto& method : c.served) {
      EXPECT_TRUE(example_->waitForCalls(method, 1, 5000)) << method;
    }
    // Once its calls are over, a later request's answer must be the only other frame: nothing
    // else came for this exchange.
    for (int i = 0; i < 500 && session->callsInFlight() > 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    session->handleText(probe);
    EXPECT_EQ(outbox.answer("probe")["result"], 0);
    EXPECT_EQ(outbox.frames().size(), c.answer ? 2u : 1u);
  }
}

// Batches ---------------------------------------------------------------------------------------

TEST_F(RpcSessionTest, ABatchBeyondItsBoundIsRefusedWholeBeforeAnyOfItRuns) {
  limits_.maxBatchRequests = 3;
  session_ = RpcSession::create(host_.broker(), outbox_.sender(), limits_);
  json batch = json::array();
  for (int i = 0; i < 4; ++i) batch.push_back(json::parse(request(i, "ZRFake.echo", {i})));
  session_->handleText(batch.dump());
  const json refused = outbox_.waitFor([](const json&) { return true; });
  EXPECT_EQ(refused["id"], nullptr);
  EXPECT_EQ(refused["error"]["code"], rpcerror::InvalidRequest);
  EXPECT_EQ(refused["error"]["message"],
            "Invalid Request: a batch holds at most 3 requests, not 4");
  batch.erase(batch.begin());
  session_->handleText(batch.dump());
  const json answered = outbox_.waitFor([](const json& frame) { return frame.is_array(); });
  ASSERT_EQ(answered.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(answered[i]["result"], i + 1);
  EXPECT_EQ(fake_->calls("echo").size(), 3u);  // only the batch that fits ran
}

TEST_F(RpcSessionTest, ABatchIsAnsweredInItsOwnOrderOnceItsSlowestMemberIsDone) {
  std::promise<void> release;
  fake_->addMethod("block", 0, [released = release.get_future().share()](const auto&) {
    released.wait();
    return ZRValue("released");
  });
  session_->handleText(json::array({json::parse(request("slow", "ZRFake.block", nullptr)),
                                    json::parse(request("quick", "ZRFake.echo", {1}))})
                           .dump());
  ASSERT_TRUE(fake_->waitForCalls("echo", 1, 5000));
  ASSERT_TRUE(fake_->waitForCalls("block", 1, 5000));
  EXPECT_TRUE(outbox_.frames().empty());  // the quick answer waits for the slow one
  release.set_value();
  const json answered = outbox_.waitFor([](const json& frame) { return frame.is_array(); });
  ASSERT_EQ(answered.size(), 2u);
  EXPECT_EQ(answered[0]["id"], "slow");
  EXPECT_EQ(answered[1]["id"], "quick");
}

TEST_F(RpcSessionTest, PostsAndSubscriptionsInABatchWorkAsAlone) {
  auto& memory = *host_.services().memory;
  session_->handleText(
      json::array(
          {json::parse(request(1, "bexko.post",
                               {{"module", "ZRFake"}, {"method", "add"}, {"args", {1, 2}}})),
           json::parse(request(2, "bexko.subscribe", {{"key", "Batch/Key"}})),
           json::parse(request(3, "bexko.version", nullptr))})
          .dump());
  const json answered = outbox_.waitFor([](const json& frame) { return frame.is_array(); });
  ASSERT_EQ(answered.size(), 3u);
  const json id = answered[0]["result"]["id"];
  ASSERT_TRUE(id.is_number_integer()) << answered.dump();
  EXPECT_EQ(answered[1]["result"], nullptr);
  EXPECT_EQ(answered[2]["result"], ko::kVersion);
  // The end of the posted call is told after the answer that gave its id.
  EXPECT_EQ(outbox_.notification("bexko.done", "id", id), json({{"id", id}, {"result", 3}}));
  const auto frames = outbox_.frames();
  EXPECT_TRUE(frames[0].is_array()) << frames[0].dump();
  memory.raiseEvent("Batch/Key", ZRValue(4));
  EXPECT_EQ(outbox_.notification("bexko.event", "key", "Batch/Key")["value"], 4);
}

TEST_F(RpcSessionTest, AFollowedLogSendsRecordsFromItsLevelUntilUnfollowedOrClosed) {
  ko::log::setLevels("*=info,test.gateway.log=debug");
  ko::log::CategoryType category = ko::log::addCategory("test.gateway.log");
  const std::size_t subscribersBefore = LogFeed::instance().subscriberCount();
  // Records of this test's category only: the host logs too, on its own threads.
  auto records = [this] {
    std::vector<json> found;
    for (const json& frame : outbox_.frames()) {
      if (frame.value("method", "") == "bexko.log" &&
          frame["params"]["category"] == "test.gateway.log")
        found.push_back(frame["params"]);
    }
    return found;
  };
  auto messages = [&] {
    std::vector<std::string> found;
    for (const json& record : records()) found.push_back(record["message"]);
    return found;
  };

  EXPECT_EQ(call(1, "bexko.subscribeLog", {{"level", "warning"}})["result"], nullptr);
  EXPECT_EQ(LogFeed::instance().subscriberCount(), subscribersBefore + 1);
  // A record reaches the sinks before log() returns, so what was sent is in the outbox now.
  KO_LOG(category, ko::log::info, "test") << "too chatty";
  KO_LOG(category, ko::log::warning, "test") << "a warning";
  KO_LOG(category, ko::log::error, "test") << "an error\nover two lines";
  ASSERT_EQ(messages(), (std::vector<std::string>{"a warning", "an error\nover two lines"}));
  const json first = records().front();
  EXPECT_EQ(first["level"], "warning");
  EXPECT_EQ(first["function"], "test");
  EXPECT_TRUE(std::regex_match(first["time"].get<std::string>(),
                               std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)")))
      << first["time"];

  // Following again changes the level, by name or number, over the same subscription.
  EXPECT_EQ(call(2, "bexko.subscribeLog", {{"level", 6}})["result"], nullptr);
  EXPECT_EQ(LogFeed::instance().subscriberCount(), subscribersBefore + 1);
  KO_LOG(category, ko::log::debug, "test") << "now wanted";
  EXPECT_EQ(messages().back(), "now wanted");

  EXPECT_EQ(call(3, "bexko.unsubscribeLog", nullptr)["result"], nullptr);
  KO_LOG(category, ko::log::error, "test") << "after unsubscribe";
  EXPECT_EQ(messages().back(), "now wanted");

  // Closing drops a subscription left in place.
  EXPECT_EQ(call(4, "bexko.subscribeLog", nullptr)["result"], nullptr);  // default: info
  KO_LOG(category, ko::log::info, "test") << "info by default";
  EXPECT_EQ(messages().back(), "info by default");
  session_->close();
  EXPECT_EQ(LogFeed::instance().subscriberCount(), subscribersBefore);
  KO_LOG(category, ko::log::error, "test") << "after close";
  EXPECT_EQ(messages().back(), "info by default");
  ko::log::setLevels("*=info");
}

TEST_F(RpcSessionTest, ALogLevelThatIsNoLevelIsRefused) {
  const std::size_t subscribersBefore = LogFeed::instance().subscriberCount();
  for (const json& params : {json{{"level", "loud"}}, json{{"level", 0}}, json{{"level", 7}},
                             json{{"level", true}}, json::array({"info"})}) {
    EXPECT_EQ(call(params.dump(), "bexko.subscribeLog", params)["error"]["code"],
              rpcerror::InvalidParams)
        << params;
  }
  EXPECT_EQ(LogFeed::instance().subscriberCount(), subscribersBefore);
}

TEST_F(RpcSessionTest, SessionsFollowingTheLogComeAndGoWhileRecordsFlow) {
  ko::log::CategoryType category = ko::log::addCategory("test.gateway.logflow");
  const std::size_t subscribersBefore = LogFeed::instance().subscriberCount();
  std::atomic<bool> flowing{true};
  std::thread logger([&] {
    while (flowing) KO_LOG(category, ko::log::warning, "flow") << "a record";
  });
  // Outboxes outlive the sessions: a session dropped without close() may still be sending
  // from the logging thread, where it is then destroyed.
  std::vector<std::unique_ptr<Outbox>> outboxes;
  for (int i = 0; i < 40; ++i) {
    outboxes.push_back(std::make_unique<Outbox>());
    Outbox& box = *outboxes.back();
    auto session = RpcSession::create(host_.broker(), box.sender());
    session->handleText(request(1, "bexko.subscribeLog", {{"level", "warning"}}));
    ASSERT_EQ(box.answer(1)["result"], nullptr);
    ASSERT_FALSE(box.waitFor([](const json& f) {
                      return f.value("method", "") == "bexko.log" &&
                             f["params"]["category"] == "test.gateway.logflow";
                    })
                     .is_null());
    if (i % 2 == 0) session->close();
    session.reset();
  }
  flowing = false;
  logger.join();
  EXPECT_EQ(LogFeed::instance().subscriberCount(), subscribersBefore);
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
