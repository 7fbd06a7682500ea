#include <bexko/services/memory.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <bexko/testing/testhost.h>
#include <zr/zrmemoryproxy.h>

namespace {

using bexko::testing::FakeModule;
using bexko::testing::TestHost;
using ZR::ZRValue;

constexpr int waitMs = 20000;

class MemoryTest : public ::testing::Test {
 protected:
  /// A module "Listener" with the callback "onEvent(key, value, message)".
  FakeModule& addListener(const std::string& name = "Listener", FakeModule::Body body = {}) {
    FakeModule& listener = host.addFakeModule(name);
    listener.addMethod("onEvent", 3, std::move(body));
    return listener;
  }

  TestHost host;
  ZR::ZRMemoryProxy memory{host.broker()};
};

/// Values of `calls` whose key is `key`, in call order.
std::vector<ZRValue> deliveredValues(const std::vector<FakeModule::Call>& calls,
                                     const std::string& key) {
  std::vector<ZRValue> values;
  for (const auto& call : calls) {
    if (call.args.at(0) == ZRValue(key)) values.push_back(call.args.at(1));
  }
  return values;
}

/// Raises `perThread` values of `key` from each of `threads` threads at once; thread t raises
/// t * 100000 + i for i = 0, 1, ...
void raiseFromThreads(ZR::ZRMemoryProxy& memory, const std::string& key, int threads,
                      int perThread) {
  std::atomic<bool> go{false};
  std::vector<std::thread> raisers;
  for (int t = 0; t < threads; ++t) {
    raisers.emplace_back([&, t] {
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < perThread; ++i) memory.raiseEvent(key, ZRValue(t * 100000 + i));
    });
  }
  go = true;
  for (auto& raiser : raisers) raiser.join();
}

/// True when the values of each raising thread appear in increasing order.
bool eachThreadInOrder(const std::vector<ZRValue>& values) {
  std::map<int, int> last;
  for (const auto& value : values) {
    int thread = value.toInt() / 100000;
    auto found = last.find(thread);
    if (found != last.end() && found->second >= value.toInt()) return false;
    last[thread] = value.toInt();
  }
  return true;
}

TEST_F(MemoryTest, GetDataOfUnknownKeyIsZRError) {
  try {
    memory.getData("Nobody/EverRaisedThis");
    FAIL() << "getData of an unknown key returned";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ("ZRMemory", e.moduleName());
    EXPECT_EQ("getData", e.methodName());
    EXPECT_NE(std::string(e.what()).find("Nobody/EverRaisedThis"), std::string::npos);
  }
}

TEST_F(MemoryTest, DeclareInsertAndRaiseStoreValues) {
  memory.declareEvent("A/Declared");
  EXPECT_TRUE(memory.getData("A/Declared").isEmpty());

  memory.raiseEvent("A/Declared", ZRValue(5));
  memory.declareEvent("A/Declared");  // declaring again keeps the value
  EXPECT_EQ(ZRValue(5), memory.getData("A/Declared"));

  memory.insertData("B/Inserted", ZRValue::array(1, std::string("x")));
  EXPECT_EQ(ZRValue::array(1, std::string("x")), memory.getData("B/Inserted"));

  EXPECT_EQ((std::vector<std::string>{"A/Declared", "B/Inserted"}), memory.getDataList(""));
  EXPECT_EQ((std::vector<std::string>{"B/Inserted"}), memory.getDataList("Ins"));
}

TEST_F(MemoryTest, InsertDataNotifiesNobody) {
  FakeModule& listener = addListener();
  memory.subscribeToEvent("Quiet/Key", "Listener", "onEvent");
  memory.subscribeToEvent("Loud/Key", "Listener", "onEvent");
  host.clearEvents();

  memory.insertData("Quiet/Key", ZRValue(1));
  memory.raiseEvent("Loud/Key", ZRValue(2));

  // One module's deliveries come in raise order: once the later raise arrived, an earlier one
  // would have too.
  ASSERT_TRUE(listener.waitForCalls("onEvent", 1, waitMs));
  ASSERT_EQ(1u, listener.calls().size());
  EXPECT_EQ(ZRValue("Loud/Key"), listener.calls()[0].args[0]);
  ASSERT_EQ(1u, host.events().size());
  EXPECT_EQ("Loud/Key", host.events()[0].key);
}

TEST_F(MemoryTest, EmptyKeyIsRejected) {
  EXPECT_THROW(memory.raiseEvent("", ZRValue(1)), ZR::ZRError);
  EXPECT_THROW(memory.insertData("", ZRValue(1)), ZR::ZRError);
  EXPECT_THROW(memory.declareEvent(""), ZR::ZRError);
}

TEST_F(MemoryTest, SubscriberSeesValuesInRaiseOrderAcrossThreads) {
  // A slow subscriber lets deliveries pile up, and a fast one drains as they come. The slow
  // one also checks that its deliveries never overlap, which is what keeps them in order.
  std::atomic<int> inFlight{0}, maxInFlight{0};
  FakeModule& slow = addListener("SlowListener", [&](const std::vector<ZRValue>& args) {
    int now = ++inFlight;
    int seen = maxInFlight.load();
    while (now > seen && !maxInFlight.compare_exchange_weak(seen, now)) {
    }
    if (args[1].toInt() % 7 == 0) std::this_thread::sleep_for(std::chrono::microseconds(300));
    --inFlight;
    return ZRValue();
  });
  FakeModule& fast = addListener("FastListener");
  memory.subscribeToEvent("Race/Key", "SlowListener", "onEvent");
  memory.subscribeToEvent("Race/Key", "FastListener", "onEvent");
  host.clearEvents();

  const int threads = 4, perThread = 150;
  raiseFromThreads(memory, "Race/Key", threads, perThread);

  ASSERT_TRUE(slow.waitForCalls("onEvent", threads * perThread, waitMs));
  ASSERT_TRUE(fast.waitForCalls("onEvent", threads * perThread, waitMs));
  std::vector<ZRValue> raised;
  for (const auto& event : host.events("Race/Key")) raised.push_back(event.value);
  ASSERT_EQ(static_cast<size_t>(threads * perThread), raised.size());
  EXPECT_TRUE(eachThreadInOrder(raised));
  EXPECT_EQ(raised, deliveredValues(slow.calls(), "Race/Key"));
  EXPECT_EQ(raised, deliveredValues(fast.calls(), "Race/Key"));
  EXPECT_EQ(raised.back(), memory.getData("Race/Key"));
  EXPECT_EQ(1, maxInFlight.load());
}

TEST_F(MemoryTest, MicroEventCallbackGetsKeyValueAndMessage) {
  FakeModule& listener = addListener();
  memory.subscribeToMicroEvent("Micro/Key", "Listener", "my message", "onEvent");
  memory.raiseEvent("Micro/Key", ZRValue::array(7, std::string("seven")));

  ASSERT_TRUE(listener.waitForCalls("onEvent", 1, waitMs));
  EXPECT_EQ((std::vector<ZRValue>{ZRValue("Micro/Key"), ZRValue::array(7, std::string("seven")),
                                  ZRValue("my message")}),
            listener.calls()[0].args);
}

TEST_F(MemoryTest, PlainSubscriptionGetsEmptyMessage) {
  FakeModule& listener = addListener();
  memory.subscribeToEvent("Plain/Key", "Listener", "onEvent");
  memory.raiseEvent("Plain/Key", ZRValue(1.5f));

  ASSERT_TRUE(listener.waitForCalls("onEvent", 1, waitMs));
  EXPECT_EQ((std::vector<ZRValue>{ZRValue("Plain/Key"), ZRValue(1.5f), ZRValue("")}),
            listener.calls()[0].args);
}

TEST_F(MemoryTest, SubscribingAgainReplacesTheSubscription) {
  FakeModule& listener = addListener();
  listener.addMethod("onOther", 3);
  memory.subscribeToMicroEvent("Re/Key", "Listener", "first", "onEvent");
  memory.subscribeToMicroEvent("Re/Key", "Listener", "second", "onOther");
  memory.subscribeToEvent("Re/Marker", "Listener", "onEvent");

  memory.raiseEvent("Re/Key", ZRValue(1));
  memory.raiseEvent("Re/Marker", ZRValue(2));

  ASSERT_TRUE(listener.waitForCalls("onEvent", 1, waitMs));
  ASSERT_EQ(2u, listener.calls().size());
  EXPECT_EQ("onOther", listener.calls()[0].method);
  EXPECT_EQ(ZRValue("second"), listener.calls()[0].args[2]);
  EXPECT_EQ(ZRValue("Re/Marker"), listener.calls()[1].args[0]);
}

TEST_F(MemoryTest, UnsubscribedModuleGetsNoMoreValues) {
  FakeModule& listener = addListener();
  memory.subscribeToEvent("Un/Key", "Listener", "onEvent");
  memory.subscribeToMicroEvent("Un/Marker", "Listener", "", "onEvent");
  memory.raiseEvent("Un/Key", ZRValue(1));
  ASSERT_TRUE(listener.waitForCalls("onEvent", 1, waitMs));

  memory.unsubscribeToEvent("Un/Key", "Listener");
  memory.unsubscribeToMicroEvent("Un/Unknown", "Listener");  // ignored
  memory.raiseEvent("Un/Key", ZRValue(2));
  memory.raiseEvent("Un/Marker", ZRValue(3));

  ASSERT_TRUE(listener.waitForCalls("onEvent", 2, waitMs));
  auto calls = listener.calls();
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ(ZRValue("Un/Marker"), calls[1].args[0]);
}

TEST_F(MemoryTest, SubscribingAMissingModuleOrMethodIsZRError) {
  addListener();
  EXPECT_THROW(memory.subscribeToEvent("K", "NoSuchModule", "onEvent"), ZR::ZRError);
  EXPECT_THROW(memory.subscribeToEvent("K", "Listener", "noSuchMethod"), ZR::ZRError);
  EXPECT_THROW(memory.subscribeToMicroEvent("", "Listener", "m", "onEvent"), ZR::ZRError);
}

TEST_F(MemoryTest, FailingCallbackIsLoggedAndLaterValuesStillArrive) {
  FakeModule& listener = addListener("Listener", [](const std::vector<ZRValue>& args) -> ZRValue {
    if (args[1] == ZRValue(1)) throw ZR::ZRError("Listener", "onEvent", "refused");
    return ZRValue();
  });
  memory.subscribeToEvent("Fail/Key", "Listener", "onEvent");
  memory.raiseEvent("Fail/Key", ZRValue(1));
  memory.raiseEvent("Fail/Key", ZRValue(2));

  ASSERT_TRUE(listener.waitForCalls("onEvent", 2, waitMs));
  EXPECT_EQ((std::vector<ZRValue>{ZRValue(1), ZRValue(2)}),
            deliveredValues(listener.calls(), "Fail/Key"));
  bool logged = false;
  for (const auto& record : host.logRecords("bexko.services.memory")) {
    logged = logged || (record.level == ko::log::error &&
                        record.message.find("refused") != std::string::npos);
  }
  EXPECT_TRUE(logged);
}

TEST_F(MemoryTest, CallbackMayUseTheStoreWhileBeingDelivered) {
  // The store holds no lock while it calls out, so a callback may read and raise.
  ZR::ZRMemoryProxy inner(host.broker());
  FakeModule& listener = addListener("Listener", [&inner](const std::vector<ZRValue>& args) {
    inner.raiseEvent("Echo/Key", ZRValue(inner.getData("Source/Key").toInt() * 10));
    return ZRValue();
  });
  memory.subscribeToEvent("Source/Key", "Listener", "onEvent");
  memory.raiseEvent("Source/Key", ZRValue(4));

  ASSERT_TRUE(listener.waitForCalls("onEvent", 1, waitMs));
  EXPECT_TRUE(host.waitForEvent("Echo/Key", ZRValue(40), waitMs));
}

TEST_F(MemoryTest, ObserversSeeRaisesInOneOrderAcrossThreads) {
  auto& store = *host.services().memory;
  std::mutex mutex;
  std::vector<ZRValue> keyed, everyKey;
  int keyedId = store.observe("Obs/Key", [&](const std::string& key, const ZRValue& value) {
    std::lock_guard<std::mutex> lock(mutex);
    keyed.push_back(value);
  });
  int allId = store.observe("", [&](const std::string& key, const ZRValue& value) {
    std::lock_guard<std::mutex> lock(mutex);
    if (key == "Obs/Key") everyKey.push_back(value);
  });
  host.clearEvents();

  std::thread other([this] { raiseFromThreads(memory, "Obs/Other", 1, 100); });
  raiseFromThreads(memory, "Obs/Key", 4, 100);
  other.join();

  std::vector<ZRValue> recorded;
  for (const auto& event : host.events("Obs/Key")) recorded.push_back(event.value);
  {
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(400u, keyed.size());
    EXPECT_TRUE(eachThreadInOrder(keyed));
    EXPECT_EQ(keyed, everyKey);
    EXPECT_EQ(keyed, recorded);
  }
  EXPECT_EQ(100u, host.events("Obs/Other").size());

  store.unobserve(keyedId);
  store.unobserve(allId);
  memory.raiseEvent("Obs/Key", ZRValue(-1));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(400u, keyed.size());
  EXPECT_EQ(400u, everyKey.size());
}

TEST_F(MemoryTest, ThrowingObserverDoesNotStopTheRaise) {
  auto& store = *host.services().memory;
  int id = store.observe("Throw/Key", [](const std::string&, const ZRValue&) {
    throw std::runtime_error("observer broke");
  });
  EXPECT_NO_THROW(memory.raiseEvent("Throw/Key", ZRValue(3)));
  EXPECT_EQ(ZRValue(3), memory.getData("Throw/Key"));
  EXPECT_TRUE(host.waitForEvent("Throw/Key", ZRValue(3), 0));
  store.unobserve(id);
}

}  // namespace
