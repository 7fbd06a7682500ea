#include <zr/zrbroker.h>

#include <zr/zrproxy.h>

#include "callcontext.h"
#include "sample_modules.h"

namespace {

using namespace bexko::test;
using sample::Calculator;

class BrokerTest : public sample::CalculatorTest {};

using Delivered = std::pair<ZR::ZRCallOutcome, std::thread::id>;

/// A completion handler that hands the outcome, and the thread it ran on, to `delivered`.
ZR::ZRCallCallback deliverTo(ko::Promise<Delivered> delivered) {
  return [delivered](const ZR::ZRCallOutcome& outcome) mutable {
    delivered.setValue({outcome, std::this_thread::get_id()});
  };
}

// Calls on host threads --------------------------------------------------------------------------

TEST_F(BrokerTest, PostAndCallAsyncReportTheOutcomeOnAHostThread) {
  // The value, the error's what() (empty when the call returns), and the module of a ZRError
  // (empty for other exceptions).
  const std::tuple<std::string, std::string, std::vector<ZRValue>, ZRValue, std::string,
                   std::string>
      cases[] = {{"Calculator", "add", {1, 2}, 3, "", ""},
                 {"Calculator", "fail", {"zr"}, {}, "inner failure", "Elsewhere"},
                 {"Calculator", "fail", {"std"}, {}, "plain failure", ""},
                 {"Nobody", "add", {}, {}, "No module named \"Nobody\" is registered", "Nobody"}};
  for (const auto& [module, method, args, value, error, errorModule] : cases) {
    SCOPED_TRACE(module + "." + method);
    ko::Promise<Delivered> posting;
    ko::Promise<Delivered> calling;
    const ZR::ZRPostedCall posted = broker_->post(module, method, args, deliverTo(posting));
    broker_->callAsync(module, method, args, deliverTo(calling));
    for (const auto* delivered : {&posting, &calling}) {
      const auto [outcome, thread] = delivered->future().value(longWaitMs);
      EXPECT_NE(thread, std::this_thread::get_id());
      EXPECT_EQ(outcome.id, delivered == &posting ? posted.id : 0);
      EXPECT_EQ(outcome.ok, error.empty());
      EXPECT_EQ(outcome.value, value);
      EXPECT_EQ(outcome.error ? outcome.error->what() : outcome.otherError, error);
      EXPECT_EQ(outcome.error ? outcome.error->moduleName() : "", errorModule);
    }
    posted.result.wait(longWaitMs);  // set after the handler has run
    EXPECT_EQ(posted.result.error(), error);
    EXPECT_EQ(error.empty() ? posted.result.value(0) : ZRValue(), value);
  }
}

TEST_F(BrokerTest, ACallRefusedForItsArgumentsIsToldApartFromAFailureOfTheMethod) {
  struct Case {
    const char* method;
    std::vector<ZRValue> args;
    bool refused;
    const char* error;  // the beginning of its what()
  };
  const Case cases[] = {{"add", {1}, true, "Calculator.add takes 2 arguments, not 1"},
                        {"add", {1, 2, 3}, true, "Calculator.add takes 2 arguments, not 3"},
                        {"add", {"one", 2}, true, "argument 1: "},
                        {"fail", {"zr"}, false, "inner failure"},
                        {"add", {1, 2}, false, ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " with " + std::to_string(c.args.size()));
    ko::Promise<Delivered> posting;
    ko::Promise<Delivered> calling;
    broker_->post("Calculator", c.method, c.args, deliverTo(posting));
    broker_->callAsync("Calculator", c.method, c.args, deliverTo(calling));
    for (const auto* delivered : {&posting, &calling}) {
      const ZR::ZRCallOutcome outcome = delivered->future().value(longWaitMs).first;
      EXPECT_EQ(outcome.badArguments, c.refused);
      const std::string error = outcome.error ? outcome.error->what() : "";
      EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;
    }
  }
}

TEST_F(BrokerTest, PostedCallRunsWithItsIdAndIsStoppedThroughTheModule) {
  const ZR::ZRPostedCall posted = broker_->post("Calculator", "waitForStop", {});
  calculator_->awaitWaiters(1);
  EXPECT_TRUE(broker_->isRunning(posted.id));
  EXPECT_FALSE(broker_->wait(posted.id, 20));  // still blocked

  broker_->stop("Calculator", posted.id);
  EXPECT_TRUE(broker_->wait(posted.id, longWaitMs));
  EXPECT_FALSE(broker_->isRunning(posted.id));
  EXPECT_EQ(posted.result.value(longWaitMs), ZRValue::array(true, posted.id));
  // A finished call stays known to wait; an unknown one does not.
  EXPECT_TRUE(broker_->wait(posted.id, 0));
  EXPECT_FALSE(broker_->wait(posted.id + 1000, 0));
  EXPECT_THROW(broker_->stop("Nobody", posted.id), ZRError);
}

// Modules number their own tasks from 1 and their stop(id) also receives posted ids: posted ids
// start a billion higher, and wrap back there (never to 1), skipping calls still running.
TEST_F(BrokerTest, PostedIdsCountFromOneBillionAndWrapBackThereSkippingRunningCalls) {
  const ZR::ZRPostedCall blocking = broker_->post("Calculator", "waitForStop", {});
  EXPECT_EQ(blocking.id, 1000000000);
  calculator_->awaitWaiters(1);
  const ZR::ZRPostedCall finished = broker_->post("Calculator", "add", {1, 2});
  EXPECT_EQ(finished.id, 1000000001);
  EXPECT_EQ(finished.result.value(longWaitMs), ZRValue(3));

  bexko::detail::continuePostedIdsAfter(2147483645);
  std::vector<int> ids;
  for (int i = 0; i < 3; ++i) {
    const ZR::ZRPostedCall posted = broker_->post("Calculator", "add", {i, 1});
    EXPECT_EQ(posted.result.value(longWaitMs), ZRValue(i + 1));
    ids.push_back(posted.id);
  }
  // 2147483646 is the last id; 1000000000 is still running, and a finished id may be reused.
  EXPECT_EQ(ids, (std::vector<int>{2147483646, 1000000001, 1000000002}));

  broker_->stop("Calculator", blocking.id);
  EXPECT_EQ(blocking.result.value(longWaitMs), ZRValue::array(true, blocking.id));
  EXPECT_TRUE(broker_->wait(1000000001, 0));  // the reused id is known as finished again
}

TEST_F(BrokerTest, OnlyThePostedCallItselfSeesItsId) {
  const ZR::ZRPostedCall posted = broker_->post("Calculator", "nestedContext", {});
  const ZRValue own = ZRValue::array(true, posted.id);
  const ZRValue ordinary = ZRValue::array(false, 0);
  EXPECT_EQ(posted.result.value(longWaitMs), ZRValue(ZRValue::Array{own, ordinary, own}));
  EXPECT_EQ(broker_->call("Calculator", "context", {}), ordinary);
}

TEST_F(BrokerTest, ConcurrentBlockingPostsGetDistinctIdsAndThreadsOfTheirOwn) {
  // Every call blocks until the host stops it, and the stops come only once all are blocked:
  // this finishes only if the pool gives each call its own thread.
  std::vector<ZR::ZRPostedCall> posted[4];  // one list per posting thread
  std::vector<std::thread> posters;
  for (auto& calls : posted) {
    posters.emplace_back([&, &calls = calls] {
      for (int i = 0; i < 25; ++i) calls.push_back(broker_->post("Calculator", "waitForStop", {}));
    });
  }
  for (auto& t : posters) t.join();
  calculator_->awaitWaiters(100);
  std::set<int> ids;
  for (const auto& calls : posted) {
    for (const auto& call : calls) {
      ids.insert(call.id);
      broker_->stop("Calculator", call.id);
    }
  }
  EXPECT_EQ(ids.size(), 100u);
  for (const auto& calls : posted) {
    for (const auto& c : calls) EXPECT_EQ(c.result.value(longWaitMs), ZRValue::array(true, c.id));
  }
}

// Shutdown ---------------------------------------------------------------------------------------

TEST_F(BrokerTest, ModulesAreListedInOrderAndShutdownExitsThemNewestFirstOnce) {
  ZR::ZRModule::createModule<sample::Quiet>(broker_);
  EXPECT_EQ(broker_->getModuleNames(), (Strings{"Calculator", "Quiet"}));
  broker_->unregisterModule("Nobody");  // unknown names are ignored
  boost::weak_ptr<Calculator> weak = calculator_;
  calculator_.reset();
  sample::journal.clear();
  broker_->shutdown();
  broker_->shutdown();
  EXPECT_EQ(sample::journal.seen(), (Strings{"exit Quiet", "exit Calculator"}));
  EXPECT_TRUE(broker_->getModuleNames().empty());
  EXPECT_TRUE(broker_->session()->services().empty());
  EXPECT_TRUE(weak.expired());  // the modules are released
  EXPECT_THROW(ZR::ZRModule::createModule<sample::Quiet>(broker_), ZRError);
}

TEST_F(BrokerTest, RunningCallKeepsTheBrokerUntilItEnds) {
  ZR::ZRPostedCall posted = broker_->post("Calculator", "waitForStop", {});
  calculator_->awaitWaiters(1);
  boost::weak_ptr<ZR::ZRBroker> weak = broker_;
  broker_.reset();
  EXPECT_FALSE(weak.expired());
  // The last reference now goes on the pool thread that ran the call, once the call returns.
  calculator_->stop(posted.id);
  EXPECT_EQ(posted.result.value(longWaitMs), ZRValue::array(true, posted.id));
  // The reference count drops before the broker's destructor runs: its shut-down (the module's
  // exit) is awaited too, so that nothing of it is still running when the test ends.
  const auto exited = [] { return sample::journal.seen().back() == "exit Calculator"; };
  for (int i = 0; i < 5000 && !(weak.expired() && exited()); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_TRUE(weak.expired());
  EXPECT_TRUE(exited());
  EXPECT_EQ(calculator_->getParentBroker(), nullptr);
}

// Proxies ----------------------------------------------------------------------------------------

// Its posted calls are the broker's, forwarded. No posted call may hold the broker here.
TEST_F(BrokerTest, ProxyConvertsArgumentsAndResultsAndNeedsTheModuleAndTheBroker) {
  auto proxy = broker_->getProxy("Calculator");
  EXPECT_EQ(proxy->call<std::string>("greet", std::string("Bob"), "Hey"), "Hey Bob");
  EXPECT_THROW(proxy->call<int>("greet", "Ann"), ZRError);  // a result that does not convert
  EXPECT_THAT(errorOf([&] { broker_->getProxy("ZRAnimatedSpeech"); }).toString(),
              ::testing::StartsWith("ZRAnimatedSpeech::"));
  broker_.reset();
  calculator_.reset();
  EXPECT_THROW(proxy->call<int>("add", 1, 2), ZRError);  // the broker is gone
}

}  // namespace
