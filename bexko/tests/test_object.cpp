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
  EXPECT_NO_THROW(signal.trigger(1, "x"));
  signal(2, "y");
  EXPECT_EQ(calls, (Strings{"a1x", "b1x", "a2y", "b2y"}));
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
  for (ko::SignalLink link : links) {
    EXPECT_EQ(first.disconnect(link) || second.disconnect(link), link != ko::InvalidSignalLink);
    EXPECT_FALSE(first.disconnect(link) || second.disconnect(link));
  }
  first.trigger(1);
  EXPECT_EQ(calls, 0);
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

// Subscribers of the wrong type or argument count are skipped; the session that hands objects
// out is shown by the module tests.
TEST(PublishedObject, ConnectsByNameWhatFitsAndRefusesUnknownClearedOrNullObjects) {
  auto generic = std::make_shared<ko::GenericObject>("PackageManager");
  ko::Signal<std::string> installed;
  generic->advertiseSignal("onPackageInstalled", &installed);
  ko::Object object(generic);
  std::string received;
  int misfits = 0;
  boost::function<void(std::string)> subscriber = [&](std::string name) { received = name; };
  std::function<void(int)> wrongType = [&](int) { ++misfits; };
  std::function<void(int, int)> wrongCount = [&](int, int) { ++misfits; };
  ko::SignalLink link = object.connect("onPackageInstalled", subscriber).value(longWaitMs);
  object.connect("onPackageInstalled", wrongType).value(longWaitMs);
  object.connect("onPackageInstalled", wrongCount).value(longWaitMs);
  EXPECT_NO_THROW(installed.trigger("French"));
  EXPECT_EQ(received, "French");
  EXPECT_EQ(misfits, 0);
  EXPECT_TRUE(object.disconnect(link));
  installed.trigger("German");
  EXPECT_EQ(received, "French");
  EXPECT_FALSE(object.disconnect(link));

  EXPECT_THAT(object.connect("onNothing", subscriber).error(), HasSubstr("onNothing"));
  generic->clearSignals();
  EXPECT_TRUE(object.connect("onPackageInstalled", subscriber).hasError());
  EXPECT_STREQ(errorOf<std::runtime_error>([&] { ko::Object().connect("on", subscriber); }).what(),
               "This object is null");
}

}  // namespace
