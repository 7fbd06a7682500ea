#include <bexko/services/memory.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
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
  /// A module `name` with the callback "onEvent(key, value, message)".
  FakeModule& addListener(const std::string& name, FakeModule::Body body = {}) {
    FakeModule& listener = host.addFakeModule(name);
    listener.addMethod("onEvent", 3, std::move(body));
    return listener;
  }

  TestHost host;
  ZR::ZRMemoryProxy memory{host.broker()};
};

TEST_F(MemoryTest, StoresValuesAndRefusesBadKeys) {
  EXPECT_THROW(memory.getData("Nobody/EverRaisedThis"), ZR::ZRError);
  // A key declared but never raised reads as the empty value: StartupTest checks it with the
  // speech service's keys.
  memory.raiseEvent("A/Declared", ZRValue(5));
  memory.declareEvent("A/Declared");  // declaring a raised key keeps its value
  EXPECT_EQ(ZRValue(5), memory.getData("A/Declared"));
  memory.insertData("B/Inserted", ZRValue::array(1, std::string("x")));
  EXPECT_EQ(ZRValue::array(1, std::string("x")), memory.getData("B/Inserted"));
  EXPECT_EQ((std::vector<std::string>{"A/Declared", "B/Inserted"}), memory.getDataList(""));
  EXPECT_EQ((std::vector<std::string>{"B/Inserted"}), memory.getDataList("Ins"));

  addListener("Listener");
  EXPECT_THROW(memory.raiseEvent("", ZRValue(1)), ZR::ZRError);
  EXPECT_THROW(memory.insertData("", ZRValue(1)), ZR::ZRError);
  EXPECT_THROW(memory.declareEvent(""), ZR::ZRError);
  EXPECT_THROW(memory.subscribeToMicroEvent("", "Listener", "m", "onEvent"), ZR::ZRError);
  EXPECT_THROW(memory.subscribeToEvent("K", "NoSuchModule", "onEvent"), ZR::ZRError);
  EXPECT_THROW(memory.subscribeToEvent("K", "Listener", "noSuchMethod"), ZR::ZRError);
}

TEST_F(MemoryTest, KeepsValuesWithinItsBoundsAndRefusesTheRest) {
  using bexko::services::Memory;
  const std::string big(Memory::maxValueBytes, 'x');
  EXPECT_THROW(memory.insertData("Big/Value", ZRValue(big)), ZR::ZRError);
  EXPECT_THROW(memory.raiseEvent("Big/Value", ZRValue(big)), ZR::ZRError);
  EXPECT_THROW(memory.getData("Big/Value"), ZR::ZRError);  // nothing was stored

  // Values just under the bound fill the store up to its total, and no further; replacing a
  // value frees what it took.
  const std::string chunk(Memory::maxValueBytes / 2, 'y');
  int stored = 0;
  try {
    for (; stored < 1000; ++stored) memory.insertData("Chunk/" + std::to_string(stored), chunk);
  } catch (const ZR::ZRError& e) {
    EXPECT_NE(std::string(e.what()).find("The event store is full"), std::string::npos);
  }
  // 64 MiB hold 127 values of half a MiB (with their keys and a few bytes each).
  EXPECT_EQ(stored, 127);
  EXPECT_THROW(memory.raiseEvent("Chunk/more", ZRValue(chunk)), ZR::ZRError);
  memory.insertData("Chunk/0", ZRValue(1));
  memory.raiseEvent("Chunk/more", ZRValue(chunk));
  EXPECT_EQ(ZRValue(chunk), memory.getData("Chunk/more"));
}

TEST_F(MemoryTest, ObserversOfManyKeysEachSeeTheirOwnKeyAndLeaveCleanly) {
  auto& store = *host.services().memory;
  std::vector<int> ids;
  std::atomic<int> seen{0};
  // Twenty thousand keys observed one by one: each observation copies only its key's list.
  for (int i = 0; i < 20000; ++i) {
    ids.push_back(store.observe("Many/" + std::to_string(i),
                                [&seen, i](const std::string& key, const ZRValue& value) {
                                  if (key == "Many/" + std::to_string(i) && value == ZRValue(i))
                                    ++seen;
                                }));
  }
  std::atomic<int> everyKey{0};
  const int all =
      store.observe("", [&everyKey](const std::string&, const ZRValue&) { ++everyKey; });
  for (int i = 0; i < 20000; i += 1000) memory.raiseEvent("Many/" + std::to_string(i), ZRValue(i));
  EXPECT_EQ(seen.load(), 20);
  EXPECT_EQ(everyKey.load(), 20);
  for (int id : ids) store.unobserve(id);
  store.unobserve(all);
  memory.raiseEvent("Many/0", ZRValue(0));
  EXPECT_EQ(seen.load(), 20);
  EXPECT_EQ(everyKey.load(), 20);
}

TEST_F(MemoryTest, CallbackGetsKeyValueAndMessageOfItsCurrentSubscription) {
  FakeModule& listener = addListener("Listener");
  listener.addMethod("onOther", 3);
  memory.subscribeToMicroEvent("K/Micro", "Listener", "my message", "onEvent");
  memory.subscribeToMicroEvent("K/Again", "Listener", "first", "onEvent");
  memory.subscribeToMicroEvent("K/Again", "Listener", "second", "onOther");  // replaces
  memory.subscribeToEvent("K/Gone", "Listener", "onEvent");
  memory.unsubscribeToEvent("K/Gone", "Listener");
  memory.unsubscribeToMicroEvent("K/Unknown", "Listener");  // ignored
  memory.subscribeToEvent("K/Plain", "Listener", "onEvent");
  host.clearEvents();

  memory.insertData("K/Plain", ZRValue(0));  // stores, notifies nobody
  memory.raiseEvent("K/Gone", ZRValue(0));
  memory.raiseEvent("K/Micro", ZRValue::array(7, std::string("seven")));
  memory.raiseEvent("K/Again", ZRValue(1));
  memory.raiseEvent("K/Plain", ZRValue(1.5f));

  // One module's deliveries come in raise order: once the last raise arrived, all others have.
  ASSERT_TRUE(listener.waitForCalls("onEvent", 2, waitMs));
  std::vector<std::pair<std::string, std::vector<ZRValue>>> calls;
  for (const auto& call : listener.calls()) calls.emplace_back(call.method, call.args);
  EXPECT_EQ(calls,
            (decltype(calls){{"onEvent",
                              {ZRValue("K/Micro"), ZRValue::array(7, std::string("seven")),
                               ZRValue("my message")}},
                             {"onOther", {ZRValue("K/Again"), ZRValue(1), ZRValue("second")}},
                             {"onEvent", {ZRValue("K/Plain"), ZRValue(1.5f), ZRValue("")}}}));
  EXPECT_EQ(4u, host.events().size());  // the insert raised nothing
}

TEST_F(MemoryTest, SubscribersSeeValuesInRaiseOrderAcrossThreads) {
  // A slow subscriber lets deliveries pile up; it also checks that its deliveries never
  // overlap, which is what keeps them in order.
  // A call is recorded before its body runs, so the last body may still run when the test
  // ends: the counters must outlive it.
  static std::atomic<int> inFlight, maxInFlight;
  inFlight = maxInFlight = 0;
  FakeModule& slow = addListener("SlowListener", [](const std::vector<ZRValue>& args) {
    int now = ++inFlight, seen = maxInFlight.load();
    while (now > seen && !maxInFlight.compare_exchange_weak(seen, now)) {
    }
    if (args[1].toInt() % 7 == 0) std::this_thread::sleep_for(std::chrono::microseconds(300));
    --inFlight;
    return ZRValue();
  });
  memory.subscribeToEvent("Race/Key", "SlowListener", "onEvent");
  host.clearEvents();

  // Thread t raises t * 100000 + i for i = 0, 1, ...
  const int threads = 4, perThread = 150;
  std::atomic<bool> go{false};
  std::vector<std::thread> raisers;
  for (int t = 0; t < threads; ++t) {
    raisers.emplace_back([&, t] {
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < perThread; ++i) memory.raiseEvent("Race/Key", ZRValue(t * 100000 + i));
    });
  }
  go = true;
  for (auto& raiser : raisers) raiser.join();

  ASSERT_TRUE(slow.waitForCalls("onEvent", threads * perThread, waitMs));
  std::vector<ZRValue> raised;  // as the host's observer saw them
  std::map<int, int> count;     // per thread, values seen so far
  bool eachThreadInOrder = true;
  for (const auto& event : host.events("Race/Key")) {
    const int value = event.value.toInt(), thread = value / 100000;
    eachThreadInOrder = eachThreadInOrder && value == thread * 100000 + count[thread]++;
    raised.push_back(event.value);
  }
  ASSERT_EQ(static_cast<size_t>(threads * perThread), raised.size());
  EXPECT_TRUE(eachThreadInOrder);
  std::vector<ZRValue> delivered;
  for (const auto& call : slow.calls()) delivered.push_back(call.args.at(1));
  EXPECT_EQ(raised, delivered);
  EXPECT_EQ(raised.back(), memory.getData("Race/Key"));
  EXPECT_EQ(1, maxInFlight.load());
}

TEST_F(MemoryTest, CallbacksRunOutsideTheStoreLockAndTheirFailuresAreContained) {
  // The callback owns its proxy: it may still be returning from its raise when the test ends.
  FakeModule& listener = addListener("Listener", [inner = ZR::ZRMemoryProxy(host.broker())](
                                                     const std::vector<ZRValue>& args) mutable {
    if (args[1] == ZRValue(1)) throw ZR::ZRError("Listener", "onEvent", "refused");
    // The store holds no lock while it calls out, so a callback may read and raise.
    inner.raiseEvent("Echo/Key", ZRValue(inner.getData("Source/Key").toInt() * 10));
    return ZRValue();
  });
  auto& store = *host.services().memory;
  store.observe("Source/Key",
                [](const std::string&, const ZRValue&) { throw std::runtime_error("broke"); });
  memory.subscribeToEvent("Source/Key", "Listener", "onEvent");

  EXPECT_NO_THROW(memory.raiseEvent("Source/Key", ZRValue(1)));
  memory.raiseEvent("Source/Key", ZRValue(4));
  EXPECT_TRUE(host.waitForEvent("Echo/Key", ZRValue(40), waitMs));
  EXPECT_EQ(2u, listener.calls().size());  // the one that threw and the one that echoed
  const auto logs = host.logRecords("bexko.services.memory");
  EXPECT_TRUE(std::any_of(logs.begin(), logs.end(), [](const ko::log::Record& record) {
    return record.level == ko::log::error && record.message.find("refused") != std::string::npos;
  }));
}

// Subscribers that hold their delivery until the test lets them go.
class SlowSubscriberTest : public MemoryTest {
 protected:
  FakeModule& addHeldListener(const std::string& name) {
    return addListener(name, [held = held](const std::vector<ZRValue>&) {
      while (held->load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      return ZRValue();
    });
  }
  void TearDown() override { *held = false; }

  // Shared with the callbacks, which may still be returning when the test ends.
  std::shared_ptr<std::atomic<bool>> held = std::make_shared<std::atomic<bool>>(true);
};

TEST_F(SlowSubscriberTest, HoldsBackNeitherTheRaiserNorTheOtherSubscribers) {
  // Named so that the slow one's queue comes first: its first delivery holds a job while the
  // fast one's waits behind it.
  FakeModule& slow = addHeldListener("ASlowListener");
  FakeModule& fast = addListener("FastListener");
  memory.subscribeToEvent("Fan/Key", "ASlowListener", "onEvent");
  memory.subscribeToEvent("Fan/Key", "FastListener", "onEvent");

  // Every raise returns and the fast subscriber gets everything while the slow one is held in
  // its first delivery.
  const int raises = 200;
  memory.raiseEvent("Fan/Key", ZRValue(0));
  ASSERT_TRUE(slow.waitForCalls("onEvent", 1, waitMs));
  for (int i = 1; i < raises; ++i) memory.raiseEvent("Fan/Key", ZRValue(i));
  ASSERT_TRUE(fast.waitForCalls("onEvent", raises, waitMs));
  EXPECT_EQ(1u, slow.calls().size());

  *held = false;
  ASSERT_TRUE(slow.waitForCalls("onEvent", raises, waitMs));
  for (FakeModule* listener : {&slow, &fast}) {
    const auto calls = listener->calls();
    ASSERT_EQ(static_cast<size_t>(raises), calls.size());
    for (int i = 0; i < raises; ++i) EXPECT_EQ(ZRValue(i), calls[i].args.at(1)) << i;
  }
}

struct FallingBehindCase {
  const char* name;
  std::size_t valueBytes;  // of each raised string
  std::size_t kept;        // deliveries a held subscriber keeps queued
};

class FallingBehindTest : public SlowSubscriberTest,
                          public ::testing::WithParamInterface<FallingBehindCase> {};

TEST_P(FallingBehindTest, SubscriberLosesItsOldestDeliveriesWithAWarning) {
  const FallingBehindCase& c = GetParam();
  FakeModule& slow = addHeldListener("SlowListener");
  memory.subscribeToEvent("Behind/Key", "SlowListener", "onEvent");
  const std::string padding(c.valueBytes, 'x');
  auto valueOf = [&padding](int i) { return ZRValue(std::to_string(i) + padding); };

  memory.raiseEvent("Behind/Key", valueOf(0));
  ASSERT_TRUE(slow.waitForCalls("onEvent", 1, waitMs));  // held in its first delivery
  const int more = static_cast<int>(c.kept) + 10;
  for (int i = 1; i <= more; ++i) memory.raiseEvent("Behind/Key", valueOf(i));
  // A raise only hands its value over: the subscriber is let go once all are in its queue.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
  while (host.services().memory->pendingRaises() > 0 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_EQ(host.services().memory->pendingRaises(), 0u);
  *held = false;

  // The first delivery, then the newest `kept`, in raise order.
  ASSERT_TRUE(slow.waitForCalls("onEvent", 1 + c.kept, waitMs));
  const auto calls = slow.calls();
  ASSERT_EQ(1 + c.kept, calls.size());
  EXPECT_EQ(valueOf(0), calls[0].args.at(1));
  for (std::size_t n = 1; n < calls.size(); ++n) {
    ASSERT_EQ(valueOf(more - static_cast<int>(c.kept) + static_cast<int>(n)), calls[n].args.at(1))
        << n;
  }
  EXPECT_EQ(valueOf(more), memory.getData("Behind/Key"));
  const auto logs = host.logRecords("bexko.services.memory");
  EXPECT_TRUE(std::any_of(logs.begin(), logs.end(), [](const ko::log::Record& record) {
    return record.level == ko::log::warning &&
           record.message.find(
               "SlowListener did not keep up with its subscriptions: 10 older "
               "deliveries were dropped") != std::string::npos;
  }));
}

// Values of 512 KiB (and their key and a few bytes) fill the byte bound at 31 of them.
INSTANTIATE_TEST_SUITE_P(
    Bounds, FallingBehindTest,
    ::testing::Values(FallingBehindCase{"ByCount", 0,
                                        bexko::services::Memory::maxPendingDeliveries},
                      FallingBehindCase{"ByBytes", 512 * 1024, 31}),
    [](const ::testing::TestParamInfo<FallingBehindCase>& info) { return info.param.name; });

}  // namespace
