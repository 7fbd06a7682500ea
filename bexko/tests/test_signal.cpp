#include <ko/signal.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(SignalTrigger, SubscribersRunInConnectionOrderWithTheArguments) {
  ko::Signal<int, std::string> signal;
  std::vector<std::string> calls;
  signal.connect([&](int n, std::string s) { calls.push_back("a" + std::to_string(n) + s); });
  signal.connect([&](int n, std::string s) { calls.push_back("b" + std::to_string(n) + s); });
  signal.trigger(1, "x");
  signal(2, "y");
  EXPECT_EQ(calls, (std::vector<std::string>{"a1x", "b1x", "a2y", "b2y"}));
}

TEST(SignalTrigger, ThrowingSubscriberDoesNotStopTheOthers) {
  ko::Signal<int> signal;
  int reached = 0;
  signal.connect([](int) { throw std::runtime_error("bad subscriber"); });
  signal.connect([&](int n) { reached = n; });
  EXPECT_NO_THROW(signal.trigger(4));
  EXPECT_EQ(reached, 4);
}

TEST(SignalConnect, DisconnectedSubscriberIsNotCalled) {
  ko::Signal<int> signal;
  int calls = 0;
  ko::SignalLink link = signal.connect([&](int) { ++calls; });
  EXPECT_NE(link, ko::InvalidSignalLink);
  EXPECT_TRUE(signal.disconnect(link));
  EXPECT_FALSE(signal.disconnect(link));
  signal.trigger(1);
  EXPECT_EQ(calls, 0);
}

TEST(SignalConnect, LinksAreUniqueAcrossSignals) {
  ko::Signal<int> first;
  ko::Signal<std::string> second;
  std::set<ko::SignalLink> links;
  for (int i = 0; i < 10; ++i) {
    links.insert(first.connect([](int) {}));
    links.insert(second.connect([](std::string) {}));
  }
  EXPECT_EQ(links.size(), 20u);
  EXPECT_EQ(links.count(ko::InvalidSignalLink), 0u);
}

TEST(SignalConnect, OwnerIsToldWhenSubscribersComeAndGo) {
  std::vector<bool> told;
  ko::Signal<int> signal([&](bool has) { told.push_back(has); });
  EXPECT_FALSE(signal.hasSubscribers());
  auto a = signal.connect([](int) {});
  auto b = signal.connect([](int) {});
  EXPECT_TRUE(signal.hasSubscribers());
  signal.disconnect(a);
  signal.disconnect(b);
  EXPECT_FALSE(signal.hasSubscribers());
  EXPECT_EQ(told, (std::vector<bool>{true, false}));
}

TEST(SignalConnect, SubscriberMayConnectAndDisconnectFromInside) {
  ko::Signal<int> signal;
  int inner = 0;
  ko::SignalLink self = ko::InvalidSignalLink;
  self = signal.connect([&](int) {
    signal.disconnect(self);
    signal.connect([&](int) { ++inner; });
  });
  signal.trigger(1);  // the new subscriber joins from the next trigger
  EXPECT_EQ(inner, 0);
  signal.trigger(2);
  EXPECT_EQ(inner, 1);
}

TEST(SignalGeneric, GenericSubscriberGetsValues) {
  ko::Signal<int, std::string, bool> signal;
  std::vector<ZR::ZRValue> received;
  signal.connectGeneric([&](const std::vector<ZR::ZRValue>& values) { received = values; });
  signal.trigger(3, "en_US", true);
  ASSERT_EQ(received.size(), 3u);
  EXPECT_EQ(received[0], ZR::ZRValue(3));
  EXPECT_EQ(received[1], ZR::ZRValue("en_US"));
  EXPECT_EQ(received[2], ZR::ZRValue(true));
}

TEST(SignalThreads, TriggerWhileOtherThreadsConnectAndDisconnect) {
  ko::Signal<int> signal;
  std::atomic<int> stableCalls{0};
  signal.connect([&](int) { ++stableCalls; });
  std::atomic<bool> done{false};
  std::thread churn([&] {
    while (!done) {
      auto link = signal.connect([](int) {});
      signal.disconnect(link);
    }
  });
  std::vector<std::thread> triggers;
  for (int t = 0; t < 3; ++t) {
    triggers.emplace_back([&] {
      for (int i = 0; i < 500; ++i) signal.trigger(i);
    });
  }
  for (auto& t : triggers) t.join();
  done = true;
  churn.join();
  EXPECT_EQ(stableCalls.load(), 1500);
}

}  // namespace
