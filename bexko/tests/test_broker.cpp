#include <zr/zrbroker.h>

#include <boost/make_shared.hpp>

#include <zr/zrbrokermanager.h>
#include <zr/zrproxy.h>

#include "sample_modules.h"

namespace {

using namespace bexko::test;
using sample::Calculator;

class BrokerTest : public sample::CalculatorTest {};

/// Hands the outcome given to a call's completion handler, and the thread it ran on, to the test.
/// The handler holds the shared state it writes, so that nothing it touches goes away under it.
struct Delivery {
  ZR::ZRCallCallback handler() {
    return [promise = promise, thread = thread](const ZR::ZRCallOutcome& outcome) mutable {
      *thread = std::this_thread::get_id();
      promise.setValue(outcome);
    };
  }
  ZR::ZRCallOutcome outcome() const { return promise.future().value(longWaitMs); }

  ko::Promise<ZR::ZRCallOutcome> promise;
  std::shared_ptr<std::thread::id> thread = std::make_shared<std::thread::id>();  // after outcome()
};

// Calls on host threads --------------------------------------------------------------------------

TEST_F(BrokerTest, PostAndCallAsyncReportTheOutcomeOnAHostThread) {
  // The value, the error's what() (empty when the call returns), and the module of a ZRError
  // (empty for other exceptions).
  const std::tuple<std::string, std::string, std::vector<ZRValue>, ZRValue, std::string,
                   std::string>
      cases[] = {
          {"Calculator", "add", {1, 2}, 3, "", ""},
          {"Calculator", "fail", {"zr"}, {}, "inner failure", "Elsewhere"},
          {"Calculator", "fail", {"std"}, {}, "plain failure", ""},
          {"Nobody", "add", {}, {}, "No module named \"Nobody\" is registered", "Nobody"},
          {"Calculator", "divide", {}, {}, "Calculator has no method \"divide\"", "Calculator"}};
  std::vector<int> ids;
  for (const auto& [module, method, args, value, error, errorModule] : cases) {
    SCOPED_TRACE(module + "." + method);
    Delivery posting;
    Delivery calling;
    const ZR::ZRPostedCall posted = broker_->post(module, method, args, posting.handler());
    broker_->callAsync(module, method, args, calling.handler());
    ids.push_back(posted.id);
    for (const Delivery* delivery : {&posting, &calling}) {
      const ZR::ZRCallOutcome outcome = delivery->outcome();
      EXPECT_NE(*delivery->thread, std::this_thread::get_id());
      EXPECT_EQ(outcome.id, delivery == &posting ? posted.id : 0);
      EXPECT_EQ(outcome.ok, error.empty());
      EXPECT_EQ(outcome.value, value);
      EXPECT_EQ(outcome.error ? outcome.error->what() : outcome.otherError, error);
      EXPECT_EQ(outcome.error ? outcome.error->moduleName() : "", errorModule);
    }
    EXPECT_EQ(posted.result.wait(longWaitMs), error.empty() ? ko::FutureState::FinishedWithValue
                                                            : ko::FutureState::FinishedWithError);
    EXPECT_EQ(posted.result.error(), error);
    EXPECT_EQ(error.empty() ? posted.result.value(0) : ZRValue(), value);
  }
  EXPECT_GE(ids[0], 1);
  for (std::size_t i = 1; i < ids.size(); ++i) EXPECT_EQ(ids[i], ids[0] + static_cast<int>(i));
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
  EXPECT_EQ(sample::journal.seen().back(), "stop " + std::to_string(posted.id));
  // A finished call stays known to wait; an unknown one does not.
  EXPECT_TRUE(broker_->wait(posted.id, 0));
  EXPECT_FALSE(broker_->wait(posted.id + 1000, 0));
  EXPECT_FALSE(broker_->isRunning(posted.id + 1000));
  EXPECT_THROW(broker_->stop("Nobody", posted.id), ZRError);
}

TEST_F(BrokerTest, OnlyThePostedCallItselfSeesItsId) {
  const ZR::ZRPostedCall posted = broker_->post("Calculator", "nestedContext", {});
  const ZRValue own = ZRValue::array(true, posted.id);
  const ZRValue ordinary = ZRValue::array(false, 0);
  EXPECT_EQ(posted.result.value(longWaitMs), ZRValue(ZRValue::Array{own, ordinary, own}));
  EXPECT_EQ(broker_->call("Calculator", "context", {}), ordinary);
  Delivery async;
  broker_->callAsync("Calculator", "context", {}, async.handler());
  EXPECT_EQ(async.outcome().value, ordinary);
  // Outside any call there is no context either.
  EXPECT_FALSE(calculator_->isPCalled());
  EXPECT_EQ(calculator_->getMethodID(), 0);
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
  EXPECT_EQ(broker_->session()->service("Calculator").value(0).get(), calculator_->object().get());
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
  const auto exited = [] {
    const auto entries = sample::journal.seen();
    return std::find(entries.begin(), entries.end(), "exit Calculator") != entries.end();
  };
  for (int i = 0; i < 5000 && !(weak.expired() && exited()); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_TRUE(weak.expired());
  EXPECT_TRUE(exited());
  EXPECT_EQ(calculator_->getParentBroker(), nullptr);
}

// Broker manager ---------------------------------------------------------------------------------

TEST(BrokerManager, KnowsEachLiveBrokerOnceWithoutKeepingItAlive) {
  using Brokers = std::vector<boost::shared_ptr<ZR::ZRBroker>>;
  auto manager = boost::make_shared<ZR::ZRBrokerManager>();
  auto broker = ZR::ZRBroker::create("managed", manager);
  manager->addBroker(broker);
  EXPECT_EQ(manager->getBrokers(), Brokers{broker});
  manager->removeBroker(broker);
  EXPECT_TRUE(manager->getBrokers().empty());
  // A broker made without a manager joins the process-wide one, the last one set, weakly.
  auto previous = ZR::ZRBrokerManager::getInstance();
  ZR::ZRBrokerManager::setInstance(boost::make_shared<ZR::ZRBrokerManager>());
  ZR::ZRBrokerManager::setInstance(manager);
  broker = ZR::ZRBroker::create("joined");
  ZR::ZRBrokerManager::setInstance(previous);
  EXPECT_EQ(broker->getBrokerManager().lock(), manager);
  EXPECT_EQ(manager->getBrokers(), Brokers{broker});
  boost::weak_ptr<ZR::ZRBroker> weak = broker;
  broker.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_TRUE(manager->getBrokers().empty());
}

// Proxies ----------------------------------------------------------------------------------------

TEST_F(BrokerTest, ProxyConvertsArgumentsAndResultsAndHandlesPostedCalls) {
  auto proxy = broker_->getProxy("Calculator", 0);
  EXPECT_FLOAT_EQ(proxy->call<float>("half", 5), 2.5f);
  EXPECT_EQ(proxy->call<std::string>("greet", std::string("Bob"), "Hey"), "Hey Bob");
  EXPECT_THROW(proxy->call<void>("fail", "zr"), ZRError);
  EXPECT_THROW(proxy->call<int>("greet", "Ann"), ZRError);  // a result that does not convert
  EXPECT_EQ(broker_->getSpecialisedProxy<ZR::ZRProxy>("Calculator")->call<int>("add", 1, 1), 2);

  const int id = proxy->post("waitForStop");
  calculator_->awaitWaiters(1);
  EXPECT_TRUE(proxy->isRunning(id));
  proxy->stop(id);
  EXPECT_TRUE(proxy->wait(id, longWaitMs));
  EXPECT_EQ(proxy->pCall("add", 1, 2), id + 1);
}

// No posted call may hold the broker here.
TEST_F(BrokerTest, ProxyNeedsTheModuleAndTheBroker) {
  auto proxy = broker_->getProxy("Calculator");
  EXPECT_THAT(errorOf([&] { broker_->getProxy("ZRAnimatedSpeech"); }).toString(),
              ::testing::StartsWith("ZRAnimatedSpeech::"));
  broker_.reset();
  calculator_.reset();
  EXPECT_THROW(proxy->call<int>("add", 1, 2), ZRError);  // the broker is gone
}

}  // namespace
