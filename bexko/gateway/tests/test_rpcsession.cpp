#include <bexko/gateway/rpcsession.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <bexko/testing/testhost.h>
#include <ko/signal.h>
#include <zr/zrerror.h>

namespace bexko {
namespace gateway {
namespace {

using nlohmann::json;

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
      for (const auto& frame : frames_) {
        if (match(frame)) {
          found = frame;
          return true;
        }
      }
      return false;
    });
    return found;
  }
  json answer(const json& id, int timeoutMs = 5000) {
    return waitFor([&](const json& f) { return f.contains("id") && f["id"] == id; }, timeoutMs);
  }
  json notification(const std::string& method, int timeoutMs = 5000) {
    return waitFor([&](const json& f) { return f.value("method", "") == method; }, timeoutMs);
  }
  std::vector<json> frames() {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }
  std::size_t size() {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<json> frames_;
};

/// A latch that a fake method waits on until the test opens it.
class Gate {
 public:
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  bool waitForWaiters(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(5), [&] { return waiting_ >= count; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool open_ = false;
};

std::string request(int id, const std::string& method, const json& params) {
  return json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}}.dump();
}

class RpcSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_ = &host_.addFakeModule("ZRFake");
    fake_->addMethod("echo", 1, [](const std::vector<ZR::ZRValue>& a) { return a[0]; });
    fake_->addMethod("add", 2, [](const std::vector<ZR::ZRValue>& a) {
      return ZR::ZRValue(a[0].toInt() + a[1].toInt());
    });
    fake_->addMethod("nothing", 0);
    fake_->addMethod("fail", 0, [](const std::vector<ZR::ZRValue>&) -> ZR::ZRValue {
      throw ZR::ZRError("ZRFake", "fail", "it failed");
    });
    fake_->addMethod("boom", 0, [](const std::vector<ZR::ZRValue>&) -> ZR::ZRValue {
      throw std::runtime_error("boom");
    });
    fake_->addMethod("block", 0, [this](const std::vector<ZR::ZRValue>&) {
      gate_.wait();
      return ZR::ZRValue("released");
    });
    session_ = RpcSession::create(host_.broker(), outbox_.sender(), limits_);
  }
  void TearDown() override {
    gate_.open();
    session_->close();
  }

  json call(int id, const std::string& method, const json& params) {
    session_->handleText(request(id, method, params));
    return outbox_.answer(id);
  }

  testing::TestHost host_;
  testing::FakeModule* fake_ = nullptr;
  RpcLimits limits_;
  Outbox outbox_;
  Gate gate_;
  std::shared_ptr<RpcSession> session_;
};

TEST_F(RpcSessionTest, CallsReturnTheMethodsResult) {
  EXPECT_EQ(call(1, "ZRFake.echo", {"hi"})["result"], "hi");
  EXPECT_EQ(call(2, "ZRFake.add", {2, 3})["result"], 5);
  const json nothing = call(3, "ZRFake.nothing", json::array());
  ASSERT_TRUE(nothing.contains("result"));
  EXPECT_TRUE(nothing["result"].is_null());
  EXPECT_EQ(nothing["jsonrpc"], "2.0");
  EXPECT_EQ(call(4, "ZRFake.echo", json::array({json::array({1, "a", nullptr})}))["result"],
            json::array({1, "a", nullptr}));
}

TEST_F(RpcSessionTest, StringIdsAreEchoed) {
  session_->handleText(R"({"jsonrpc":"2.0","id":"abc","method":"ZRFake.echo","params":[1]})");
  EXPECT_EQ(outbox_.answer("abc")["result"], 1);
}

TEST_F(RpcSessionTest, AZRErrorBecomesAnErrorWithItsModuleMethodAndDescription) {
  const json answer = call(1, "ZRFake.fail", json::array());
  ASSERT_TRUE(answer.contains("error"));
  EXPECT_EQ(answer["error"]["code"], rpcerror::CallFailed);
  EXPECT_EQ(answer["error"]["message"], "it failed");
  EXPECT_EQ(answer["error"]["data"]["module"], "ZRFake");
  EXPECT_EQ(answer["error"]["data"]["method"], "fail");
  EXPECT_EQ(answer["error"]["data"]["description"], "it failed");
}

TEST_F(RpcSessionTest, AnyOtherExceptionBecomesAnErrorWithItsText) {
  const json answer = call(1, "ZRFake.boom", json::array());
  EXPECT_EQ(answer["error"]["code"], rpcerror::CallFailed);
  EXPECT_EQ(answer["error"]["message"], "boom");
}

struct BadRequest {
  const char* name;
  std::string text;
  json id;
  int code;
};

class RpcSessionBadRequest : public RpcSessionTest,
                             public ::testing::WithParamInterface<BadRequest> {};

TEST_P(RpcSessionBadRequest, IsAnsweredWithAnErrorAndTheSessionGoesOn) {
  const auto& bad = GetParam();
  session_->handleText(bad.text);
  const json answer = outbox_.waitFor([](const json& f) { return f.contains("error"); });
  ASSERT_FALSE(answer.is_null()) << "no error answer to " << bad.text;
  EXPECT_EQ(answer["id"], bad.id);
  EXPECT_EQ(answer["error"]["code"], bad.code) << answer.dump();
  EXPECT_TRUE(answer["error"]["message"].is_string());
  EXPECT_EQ(call(99, "ZRFake.echo", {"still here"})["result"], "still here");
}

INSTANTIATE_TEST_SUITE_P(
    Frames, RpcSessionBadRequest,
    ::testing::Values(
        BadRequest{"NotJson", "not json {", nullptr, rpcerror::ParseError},
        BadRequest{"Truncated", R"({"jsonrpc":"2.0","id":1,"method":)", nullptr,
                   rpcerror::ParseError},
        BadRequest{"Batch", R"([{"jsonrpc":"2.0","id":1,"method":"bexko.modules"}])", nullptr,
                   rpcerror::InvalidRequest},
        BadRequest{"Scalar", "42", nullptr, rpcerror::InvalidRequest},
        BadRequest{"NoVersion", R"({"id":1,"method":"ZRFake.echo","params":["x"]})", 1,
                   rpcerror::InvalidRequest},
        BadRequest{"WrongVersion", R"({"jsonrpc":"1.0","id":1,"method":"ZRFake.nothing"})", 1,
                   rpcerror::InvalidRequest},
        BadRequest{"MethodNotString", R"({"jsonrpc":"2.0","id":2,"method":5})", 2,
                   rpcerror::InvalidRequest},
        BadRequest{"ObjectId", R"({"jsonrpc":"2.0","id":{},"method":"ZRFake.nothing"})", nullptr,
                   rpcerror::InvalidRequest},
        BadRequest{"DeepNesting", std::string(100, '[') + std::string(100, ']'), nullptr,
                   rpcerror::InvalidRequest},
        BadRequest{"DeepParams",
                   R"({"jsonrpc":"2.0","id":3,"method":"ZRFake.echo","params":)" +
                       std::string(70, '[') + std::string(70, ']') + "}",
                   nullptr, rpcerror::InvalidRequest},
        BadRequest{"UnknownModule", request(3, "NoSuch.thing", json::array()), 3,
                   rpcerror::MethodNotFound},
        BadRequest{"UnknownMethod", request(4, "ZRFake.nope", json::array()), 4,
                   rpcerror::MethodNotFound},
        BadRequest{"NoDot", request(5, "echo", json::array()), 5, rpcerror::MethodNotFound},
        BadRequest{"TrailingDot", request(5, "ZRFake.", json::array()), 5,
                   rpcerror::MethodNotFound},
        BadRequest{"UnknownHostOperation", request(6, "bexko.nothing", json::object()), 6,
                   rpcerror::MethodNotFound},
        BadRequest{"ParamsObject", request(7, "ZRFake.echo", {{"a", 1}}), 7,
                   rpcerror::InvalidParams},
        BadRequest{"ObjectArgument", request(8, "ZRFake.echo", {json::object({{"a", 1}})}), 8,
                   rpcerror::InvalidParams},
        BadRequest{"IntOutOfRange", request(9, "ZRFake.echo", {9999999999LL}), 9,
                   rpcerror::InvalidParams},
        BadRequest{"WrongArgumentCount", request(10, "ZRFake.echo", {1, 2, 3}), 10,
                   rpcerror::CallFailed},
        BadRequest{"WrongArgumentType", request(11, "ZRFake.add", {"two", 3}), 11,
                   rpcerror::CallFailed},
        BadRequest{"PostWithoutModule", request(12, "bexko.post", json::array()), 12,
                   rpcerror::InvalidParams},
        BadRequest{"PostUnknownMethod",
                   request(13, "bexko.post", {{"module", "ZRFake"}, {"method", "nope"}}), 13,
                   rpcerror::MethodNotFound},
        BadRequest{
            "PostArgsNotArray",
            request(14, "bexko.post", {{"module", "ZRFake"}, {"method", "echo"}, {"args", "x"}}),
            14, rpcerror::InvalidParams},
        BadRequest{"StopWithoutId", request(15, "bexko.stop", {{"module", "ZRFake"}}), 15,
                   rpcerror::InvalidParams},
        BadRequest{"StopIdNotInteger",
                   request(16, "bexko.stop", {{"module", "ZRFake"}, {"id", "1"}}), 16,
                   rpcerror::InvalidParams},
        BadRequest{"StopUnknownModule", request(17, "bexko.stop", {{"module", "No"}, {"id", 1}}),
                   17, rpcerror::CallFailed},
        BadRequest{"DescribeUnknownModule", request(18, "bexko.describe", {{"module", "No"}}), 18,
                   rpcerror::InvalidParams},
        BadRequest{"SubscribeEmptyKey", request(19, "bexko.subscribe", {{"key", ""}}), 19,
                   rpcerror::InvalidParams},
        BadRequest{"SubscribeKeyNotString", request(20, "bexko.subscribe", {{"key", 3}}), 20,
                   rpcerror::InvalidParams},
        BadRequest{"ConnectUnknownSignal",
                   request(21, "bexko.connect", {{"service", "ZRFake"}, {"signal", "nope"}}), 21,
                   rpcerror::InvalidParams},
        BadRequest{"ConnectUnknownService",
                   request(22, "bexko.connect", {{"service", "Nobody"}, {"signal", "x"}}), 22,
                   rpcerror::InvalidParams}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(RpcSessionTest, ANotificationRunsWithoutAnAnswer) {
  session_->handleText(R"({"jsonrpc":"2.0","method":"ZRFake.echo","params":["quiet"]})");
  ASSERT_TRUE(fake_->waitForCalls("echo", 1, 5000));
  EXPECT_EQ(call(1, "ZRFake.nothing", json::array())["id"], 1);
  for (const auto& frame : outbox_.frames()) EXPECT_EQ(frame["id"], 1) << frame.dump();
}

TEST_F(RpcSessionTest, CallsOfOneConnectionRunConcurrently) {
  session_->handleText(request(1, "ZRFake.block", json::array()));
  ASSERT_TRUE(gate_.waitForWaiters(1));
  EXPECT_EQ(call(2, "ZRFake.echo", {"later"})["result"], "later");
  EXPECT_TRUE(outbox_.answer(1, 0).is_null());
  gate_.open();
  EXPECT_EQ(outbox_.answer(1)["result"], "released");
}

TEST_F(RpcSessionTest, TooManyCallsInProgressAreRefused) {
  limits_.maxCallsInFlight = 2;
  session_ = RpcSession::create(host_.broker(), outbox_.sender(), limits_);
  session_->handleText(request(1, "ZRFake.block", json::array()));
  session_->handleText(request(2, "ZRFake.block", json::array()));
  ASSERT_TRUE(gate_.waitForWaiters(2));
  EXPECT_EQ(call(3, "ZRFake.echo", {1})["error"]["code"], rpcerror::TooManyCalls);
  gate_.open();
  EXPECT_EQ(outbox_.answer(1)["result"], "released");
  EXPECT_EQ(outbox_.answer(2)["result"], "released");
  EXPECT_EQ(call(4, "ZRFake.echo", {1})["result"], 1);
  EXPECT_EQ(session_->callsInFlight(), 0u);
}

TEST_F(RpcSessionTest, APostIsAnsweredWithItsIdBeforeItsEndIsNotified) {
  const json answer =
      call(1, "bexko.post", {{"module", "ZRFake"}, {"method", "add"}, {"args", {1, 2}}});
  ASSERT_TRUE(answer["result"]["id"].is_number_integer()) << answer.dump();
  const int id = answer["result"]["id"];
  const json done = outbox_.notification("bexko.done");
  EXPECT_EQ(done["params"]["id"], id);
  EXPECT_EQ(done["params"]["result"], 3);
  const auto frames = outbox_.frames();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0]["id"], 1);
}

TEST_F(RpcSessionTest, AFailedPostNotifiesItsError) {
  const int id = call(1, "bexko.post", {{"module", "ZRFake"}, {"method", "fail"}})["result"]["id"];
  const json done = outbox_.notification("bexko.done");
  EXPECT_EQ(done["params"]["id"], id);
  EXPECT_EQ(done["params"]["error"]["message"], "it failed");
  EXPECT_EQ(done["params"]["error"]["data"]["module"], "ZRFake");
}

TEST_F(RpcSessionTest, StopOfAKnownModuleIsAnsweredWithNull) {
  const json answer = call(1, "bexko.stop", {{"module", "ZRFake"}, {"id", 12}});
  ASSERT_TRUE(answer.contains("result")) << answer.dump();
  EXPECT_TRUE(answer["result"].is_null());
}

TEST_F(RpcSessionTest, ModulesAndDescribeShowTheHost) {
  const json modules = call(1, "bexko.modules", nullptr)["result"];
  EXPECT_NE(std::find(modules.begin(), modules.end(), "ZRMemory"), modules.end());
  EXPECT_NE(std::find(modules.begin(), modules.end(), "ZRFake"), modules.end());
  const json info = call(2, "bexko.describe", {{"module", "ZRFake"}})["result"];
  EXPECT_EQ(info["name"], "ZRFake");
  std::vector<std::string> names;
  for (const auto& method : info["methods"]) names.push_back(method["name"]);
  EXPECT_EQ(names, (std::vector<std::string>{"echo", "add", "nothing", "fail", "boom", "block"}));
}

class RpcSessionEvents : public RpcSessionTest {
 protected:
  std::size_t eventsFor(const std::string& key) {
    std::size_t count = 0;
    for (const auto& frame : outbox_.frames()) {
      if (frame.value("method", "") == "bexko.event" && frame["params"]["key"] == key) ++count;
    }
    return count;
  }
};

TEST_F(RpcSessionEvents, ASubscribedKeyIsNotifiedOnEveryRaise) {
  EXPECT_TRUE(call(1, "bexko.subscribe", {{"key", "Test/Key"}})["result"].is_null());
  auto& memory = *host_.services().memory;
  memory.raiseEvent("Test/Key", ZR::ZRValue::array<int, std::string>(4, "done"));
  memory.raiseEvent("Test/Other", ZR::ZRValue(1));
  const json event = outbox_.notification("bexko.event");
  EXPECT_EQ(event["params"]["key"], "Test/Key");
  EXPECT_EQ(event["params"]["value"], json::array({4, "done"}));
  EXPECT_EQ(eventsFor("Test/Other"), 0u);
}

TEST_F(RpcSessionEvents, SubscribingTwiceDeliversOnce) {
  call(1, "bexko.subscribe", {{"key", "Test/Key"}});
  call(2, "bexko.subscribe", {{"key", "Test/Key"}});
  host_.services().memory->raiseEvent("Test/Key", ZR::ZRValue(1));
  ASSERT_FALSE(outbox_.notification("bexko.event").is_null());
  EXPECT_EQ(eventsFor("Test/Key"), 1u);
}

TEST_F(RpcSessionEvents, UnsubscribeAndCloseStopTheNotifications) {
  call(1, "bexko.subscribe", {{"key", "Test/Key"}});
  call(2, "bexko.unsubscribe", {{"key", "Test/Key"}});
  host_.services().memory->raiseEvent("Test/Key", ZR::ZRValue(1));
  EXPECT_EQ(eventsFor("Test/Key"), 0u);

  call(3, "bexko.subscribe", {{"key", "Test/Key"}});
  session_->close();
  const std::size_t before = outbox_.size();
  host_.services().memory->raiseEvent("Test/Key", ZR::ZRValue(2));
  EXPECT_EQ(outbox_.size(), before);
  EXPECT_FALSE(session_->isOpen());
}

TEST_F(RpcSessionEvents, AModuleSignalIsForwardedWithItsArguments) {
  ko::Signal<std::string> changed;
  fake_->objectBuilder().advertiseSignal("changed", changed);
  EXPECT_TRUE(
      call(1, "bexko.connect", {{"service", "ZRFake"}, {"signal", "changed"}})["result"].is_null());
  changed("French");
  const json signal = outbox_.notification("bexko.signal");
  EXPECT_EQ(signal["params"]["service"], "ZRFake");
  EXPECT_EQ(signal["params"]["signal"], "changed");
  EXPECT_EQ(signal["params"]["args"], json::array({"French"}));

  call(2, "bexko.disconnect", {{"service", "ZRFake"}, {"signal", "changed"}});
  EXPECT_FALSE(changed.hasSubscribers());
}

TEST_F(RpcSessionEvents, ASessionServiceSignalIsForwarded) {
  auto object = std::make_shared<ko::GenericObject>("Watcher");
  ko::Signal<int, std::string> seen;
  object->advertiseSignal("seen", &seen);
  host_.broker()->session()->registerService("Watcher", ko::Object(object));
  call(1, "bexko.connect", {{"service", "Watcher"}, {"signal", "seen"}});
  seen(7, "seven");
  EXPECT_EQ(outbox_.notification("bexko.signal")["params"]["args"], json::array({7, "seven"}));
  session_->close();
  EXPECT_FALSE(seen.hasSubscribers());
  host_.broker()->session()->unregisterService("Watcher");
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
