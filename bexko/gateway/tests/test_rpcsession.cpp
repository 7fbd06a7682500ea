#include <bexko/gateway/rpcsession.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <bexko/testing/testhost.h>
#include <ko/signal.h>
#include <zr/zrerror.h>

namespace bexko {
namespace gateway {
namespace {

using nlohmann::json;
using ZR::ZRValue;

/// Collects what a session sends, for tests to wait on.
class Outbox {
 public:
  RpcSession::Sender sender() {
    return [this](std::string text) {
      std::lock_guard<std::mutex> lock(mutex_);
      frames_.push_back(json::parse(text));
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
      return f.value("method", "") == method && f["params"].value(key, json()) == value;
    })["params"];
  }
  /// The params of every notification of `method` so far.
  std::vector<json> notifications(const std::string& method) {
    std::vector<json> found;
    for (const auto& frame : frames()) {
      if (frame.value("method", "") == method) found.push_back(frame["params"]);
    }
    return found;
  }
  std::vector<json> frames() {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<json> frames_;
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
    fake_->addMethod("block", 0, [this](const auto&) {
      released_.wait();
      return ZRValue("released");
    });
    session_ = RpcSession::create(host_.broker(), outbox_.sender(), limits_);
  }
  void TearDown() override {
    release();
    session_->close();
  }
  /// Lets every call of "ZRFake.block" return.
  void release() {
    if (!isReleased_) release_.set_value();
    isReleased_ = true;
  }
  json call(const json& id, const std::string& method, const json& params) {
    session_->handleText(request(id, method, params));
    return outbox_.answer(id);
  }

  testing::TestHost host_;
  testing::FakeModule* fake_ = nullptr;
  RpcLimits limits_;
  Outbox outbox_;
  std::promise<void> release_;
  std::shared_future<void> released_ = release_.get_future().share();
  bool isReleased_ = false;
  std::shared_ptr<RpcSession> session_;
};

TEST_F(RpcSessionTest, CallsByNameAreAnsweredWithTheResultOrTheFailure) {
  session_->handleText(R"({"jsonrpc":"2.0","method":"ZRFake.nothing"})");  // wants no answer
  EXPECT_EQ(call(1, "ZRFake.echo", {"hi"})["result"], "hi");
  EXPECT_EQ(call(2, "ZRFake.add", {2, 3})["result"], 5);
  EXPECT_EQ(call(3, "ZRFake.nothing", nullptr),
            json({{"jsonrpc", "2.0"}, {"id", 3}, {"result", nullptr}}));
  EXPECT_EQ(call("abc", "ZRFake.echo", {{1, "a", nullptr}})["result"],
            json::array({1, "a", nullptr}));
  EXPECT_EQ(
      call(5, "ZRFake.fail", nullptr)["error"],
      json({{"code", rpcerror::CallFailed},
            {"message", "it failed"},
            {"data", {{"module", "ZRFake"}, {"method", "fail"}, {"description", "it failed"}}}}));
  EXPECT_EQ(call(6, "ZRFake.boom", nullptr)["error"],
            json({{"code", rpcerror::CallFailed}, {"message", "boom"}}));
  const json modules = call(7, "bexko.modules", nullptr)["result"];
  EXPECT_NE(std::find(modules.begin(), modules.end(), "ZRMemory"), modules.end());
  EXPECT_NE(std::find(modules.begin(), modules.end(), "ZRFake"), modules.end());
  std::vector<std::string> names;
  const json described = call(8, "bexko.describe", {{"module", "ZRFake"}});
  for (const auto& method : described["result"]["methods"]) {
    names.push_back(method["name"]);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"echo", "add", "nothing", "fail", "boom", "block"}));
  EXPECT_EQ(outbox_.frames().size(), 8u);
}

TEST_F(RpcSessionTest, EveryBadInputIsAnsweredWithItsErrorAndTheSessionGoesOn) {
  using namespace rpcerror;
  struct Case {
    std::string text;
    int code;
    json id;  // of the answer
  };
  const std::string deep = std::string(70, '[') + std::string(70, ']');
  std::vector<Case> cases = {
      {"not json {", ParseError, nullptr},
      {R"({"jsonrpc":"2.0","id":1,"method":)", ParseError, nullptr},
      {R"([{"jsonrpc":"2.0","id":1,"method":"bexko.modules"}])", InvalidRequest, nullptr},
      {"42", InvalidRequest, nullptr},
      {R"({"id":1,"method":"ZRFake.echo","params":["x"]})", InvalidRequest, 1},
      {R"({"jsonrpc":"1.0","id":1,"method":"ZRFake.nothing"})", InvalidRequest, 1},
      {R"({"jsonrpc":"2.0","id":2,"method":5})", InvalidRequest, 2},
      {R"({"jsonrpc":"2.0","id":{},"method":"ZRFake.nothing"})", InvalidRequest, nullptr},
      {deep, InvalidRequest, nullptr},
      {request(3, "ZRFake.echo", json::parse(deep)), InvalidRequest, nullptr}};
  // Well-formed requests, answered with their id.
  for (const auto& bad : std::vector<std::tuple<std::string, json, int>>{
           {"NoSuch.thing", json::array(), MethodNotFound},
           {"ZRFake.nope", json::array(), MethodNotFound},
           {"echo", json::array(), MethodNotFound},
           {"ZRFake.", json::array(), MethodNotFound},
           {"bexko.nothing", json::object(), MethodNotFound},
           {"ZRFake.echo", {{"a", 1}}, InvalidParams},
           {"ZRFake.echo", {json::object({{"a", 1}})}, InvalidParams},
           {"ZRFake.echo", {9999999999LL}, InvalidParams},
           {"ZRFake.echo", {1, 2, 3}, CallFailed},
           {"ZRFake.add", {"two", 3}, CallFailed},
           {"bexko.post", json::array(), InvalidParams},
           {"bexko.post", {{"module", "ZRFake"}, {"method", "nope"}}, MethodNotFound},
           {"bexko.post", {{"module", "ZRFake"}, {"method", "echo"}, {"args", "x"}}, InvalidParams},
           {"bexko.stop", {{"module", "ZRFake"}}, InvalidParams},
           {"bexko.stop", {{"module", "ZRFake"}, {"id", "1"}}, InvalidParams},
           {"bexko.stop", {{"module", "No"}, {"id", 1}}, CallFailed},
           {"bexko.describe", {{"module", "No"}}, InvalidParams},
           {"bexko.subscribe", {{"key", ""}}, InvalidParams},
           {"bexko.subscribe", {{"key", 3}}, InvalidParams},
           {"bexko.connect", {{"service", "ZRFake"}, {"signal", "nope"}}, InvalidParams},
           {"bexko.connect", {{"service", "Nobody"}, {"signal", "x"}}, InvalidParams}}) {
    cases.push_back({request(7, std::get<0>(bad), std::get<1>(bad)), std::get<2>(bad), 7});
  }
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
    session->close();
  }
}

TEST_F(RpcSessionTest, CallsRunConcurrentlyUpToTheLimit) {
  limits_.maxCallsInFlight = 2;
  session_ = RpcSession::create(host_.broker(), outbox_.sender(), limits_);
  session_->handleText(request(1, "ZRFake.block", json::array()));
  ASSERT_TRUE(fake_->waitForCalls("block", 1, 5000));
  EXPECT_EQ(call(2, "ZRFake.echo", {"later"})["result"], "later");
  session_->handleText(request(3, "ZRFake.block", json::array()));
  ASSERT_TRUE(fake_->waitForCalls("block", 2, 5000));
  EXPECT_EQ(call(4, "ZRFake.echo", {1})["error"]["code"], rpcerror::TooManyCalls);
  EXPECT_TRUE(outbox_.answer(1, 0).is_null());
  release();
  EXPECT_EQ(outbox_.answer(1)["result"], "released");
  EXPECT_EQ(outbox_.answer(3)["result"], "released");
  EXPECT_EQ(call(5, "ZRFake.echo", {1})["result"], 1);
  EXPECT_EQ(session_->callsInFlight(), 0u);
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
  const json error = outbox_.notification("bexko.done", "id", failed["id"])["error"];
  EXPECT_EQ(error["message"], "it failed");
  EXPECT_EQ(error["data"]["module"], "ZRFake");
  EXPECT_EQ(call(3, "bexko.stop", {{"module", "ZRFake"}, {"id", 12}}),
            json({{"jsonrpc", "2.0"}, {"id", 3}, {"result", nullptr}}));
}

TEST_F(RpcSessionTest, SubscribedKeysAndConnectedSignalsAreNotifiedUntilUndoneOrClosed) {
  ko::Signal<std::string> changed;
  fake_->objectBuilder().advertiseSignal("changed", changed);
  auto watcher = std::make_shared<ko::GenericObject>("Watcher");  // a service of the session
  ko::Signal<int, std::string> seen;
  watcher->advertiseSignal("seen", &seen);
  host_.broker()->session()->registerService("Watcher", ko::Object(watcher));
  auto& memory = *host_.services().memory;

  EXPECT_TRUE(call(1, "bexko.subscribe", {{"key", "Test/Key"}})["result"].is_null());
  call(2, "bexko.subscribe", {{"key", "Test/Key"}});  // again: still one notification a raise
  EXPECT_TRUE(
      call(3, "bexko.connect", {{"service", "ZRFake"}, {"signal", "changed"}})["result"].is_null());
  call(4, "bexko.connect", {{"service", "Watcher"}, {"signal", "seen"}});
  memory.raiseEvent("Test/Key", ZRValue::array<int, std::string>(4, "done"));
  memory.raiseEvent("Test/Other", ZRValue(1));
  changed("French");
  seen(7, "seven");
  EXPECT_EQ(outbox_.notifications("bexko.event"),
            std::vector<json>{json({{"key", "Test/Key"}, {"value", {4, "done"}}})});
  EXPECT_EQ(outbox_.notification("bexko.signal", "service", "ZRFake"),
            json({{"service", "ZRFake"}, {"signal", "changed"}, {"args", {"French"}}}));
  EXPECT_EQ(outbox_.notification("bexko.signal", "service", "Watcher")["args"],
            json::array({7, "seven"}));

  call(5, "bexko.unsubscribe", {{"key", "Test/Key"}});
  memory.raiseEvent("Test/Key", ZRValue(2));
  call(6, "bexko.disconnect", {{"service", "ZRFake"}, {"signal", "changed"}});
  EXPECT_FALSE(changed.hasSubscribers());
  call(7, "bexko.subscribe", {{"key", "Test/Other"}});
  session_->close();
  EXPECT_FALSE(session_->isOpen());
  EXPECT_FALSE(seen.hasSubscribers());
  memory.raiseEvent("Test/Other", ZRValue(3));
  EXPECT_EQ(outbox_.notifications("bexko.event").size(), 1u);
  host_.broker()->session()->unregisterService("Watcher");
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
