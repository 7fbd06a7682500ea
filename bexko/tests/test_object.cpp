// Published objects and sessions, and the signals they carry.
#include <ko/object.h>

#include <set>

#include "support.h"

namespace {

using namespace bexko::test;

// Signals ----------------------------------------------------------------------------------------

TEST(Signal, SubscribersRunInConnectionOrderPastAThrowingOne) {
  ko::Signal<int, std::string> signal;
  std::vector<std::string> calls;
  signal.connect([&](int n, std::string s) { calls.push_back("a" + std::to_string(n) + s); });
  signal.connect([](int, std::string) { throw std::runtime_error("bad subscriber"); });
  signal.connect([&](int n, std::string s) { calls.push_back("b" + std::to_string(n) + s); });
  std::vector<ZRValue> generic;
  signal.connectGeneric([&](const std::vector<ZRValue>& values) { generic = values; });
  EXPECT_NO_THROW(signal.trigger(1, "x"));
  signal(2, "y");
  EXPECT_EQ(calls, (Strings{"a1x", "b1x", "a2y", "b2y"}));
  EXPECT_THAT(generic, ::testing::ElementsAre(ZRValue(2), ZRValue("y")));
}

TEST(Signal, LinksAreUniqueAndDisconnectOnceAndTheOwnerHearsOfSubscribers) {
  std::vector<bool> told;
  ko::Signal<int> first([&](bool has) { told.push_back(has); });
  ko::Signal<std::string> second;
  int calls = 0;
  std::set<ko::SignalLink> links = {ko::InvalidSignalLink};
  for (int i = 0; i < 10; ++i) {
    links.insert(first.connect([&](int) { ++calls; }));
    links.insert(second.connect([](std::string) {}));
  }
  EXPECT_EQ(links.size(), 21u);
  EXPECT_TRUE(first.hasSubscribers());
  for (ko::SignalLink link : links) {
    EXPECT_EQ(first.disconnect(link) || second.disconnect(link), link != ko::InvalidSignalLink);
    EXPECT_FALSE(first.disconnect(link) || second.disconnect(link));
  }
  first.trigger(1);
  EXPECT_EQ(calls, 0);
  EXPECT_FALSE(first.hasSubscribers());
  EXPECT_EQ(told, (std::vector<bool>{true, false}));
}

TEST(Signal, SubscriberMayConnectAndDisconnectFromInside) {
  ko::Signal<int> signal;
  int inner = 0;
  ko::SignalLink self = signal.connect([&](int) {
    signal.disconnect(self);
    signal.connect([&](int) { ++inner; });
  });
  signal.trigger(1);  // the new subscriber joins from the next trigger
  EXPECT_EQ(inner, 0);
  signal.trigger(2);
  EXPECT_EQ(inner, 1);
}

TEST(Signal, TriggerWhileOtherThreadsConnectAndDisconnect) {
  ko::Signal<int> signal;
  std::atomic<int> stableCalls{0};
  signal.connect([&](int) { ++stableCalls; });
  std::atomic<bool> done{false};
  std::thread churn([&] {
    while (!done) signal.disconnect(signal.connect([](int) {}));
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

// Published objects ------------------------------------------------------------------------------

class PublishedObject : public ::testing::Test {
 protected:
  void SetUp() override {
    object_->advertiseSignal("onPackageInstalled", &installed_);
    object_->advertiseSignal("onCount", &count_);
    session_.registerService("PackageManager", ko::Object(object_));
  }
  ko::Object service() { return session_.service("PackageManager").value(longWaitMs); }

  ko::Session session_;
  std::shared_ptr<ko::GenericObject> object_ =
      std::make_shared<ko::GenericObject>("PackageManager");
  ko::Signal<std::string> installed_;
  ko::Signal<int> count_;
};

TEST_F(PublishedObject, ConnectByNameConvertsTheArgumentsOrSkipsASubscriberThatDoesNotFit) {
  std::string received;
  boost::function<void(std::string)> subscriber = [&](std::string name) { received = name; };
  ko::Object object = service();
  ko::SignalLink link = object.connect("onPackageInstalled", subscriber).value(longWaitMs);
  installed_.trigger("French");
  EXPECT_EQ(received, "French");
  EXPECT_TRUE(object.disconnect(link));
  installed_.trigger("German");
  EXPECT_EQ(received, "French");
  EXPECT_FALSE(object.disconnect(link));
  // Subscribers of the wrong type or argument count are skipped.
  int calls = 0;
  std::function<void(int)> wrongType = [&](int) { ++calls; };
  service().connect("onPackageInstalled", wrongType).value(longWaitMs);
  std::function<void(int, int)> wrongCount = [&](int, int) { ++calls; };
  service().connect("onCount", wrongCount).value(longWaitMs);
  EXPECT_NO_THROW(installed_.trigger("not a number"));
  EXPECT_NO_THROW(count_.trigger(1));
  EXPECT_EQ(calls, 0);
}

TEST_F(PublishedObject, UnknownClearedOrNullObjectCannotBeConnected) {
  std::function<void(int)> subscriber = [](int) {};
  auto unknown = service().connect("onNothing", subscriber);
  EXPECT_THAT(unknown.error(), ::testing::HasSubstr("onNothing"));
  EXPECT_THROW(unknown.value(longWaitMs), ko::FutureException);
  EXPECT_EQ(object_->signalNames(), (Strings{"onCount", "onPackageInstalled"}));
  object_->clearSignals();
  EXPECT_TRUE(object_->connect("onCount", subscriber).hasError());
  EXPECT_TRUE(object_->signalNames().empty());
  try {
    ko::Object().connect("onPackageInstalled", subscriber);
    FAIL() << "connect on a null object returned";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "This object is null");
  }
}

}  // namespace
