#include <zr/zrbroker.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/make_shared.hpp>

#include <zr/zrbrokermanager.h>
#include <zr/zrproxy.h>

#include "sample_modules.h"

namespace {

using sample::Calculator;
using sample::Journal;
using ZR::ZRError;
using ZR::ZRValue;

constexpr int longWaitMs = 20000;

class BrokerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Journal::instance().clear();
    broker_ = ZR::ZRBroker::create("test");
    calculator_ = ZR::ZRModule::createModule<Calculator>(broker_);
  }
  void TearDown() override {
    if (broker_) broker_->shutdown();
  }

  boost::shared_ptr<ZR::ZRBroker> broker_;
  boost::shared_ptr<Calculator> calculator_;
};

/// Collects the outcomes given to a call's completion handler.
class Outcomes {
 public:
  ZR::ZRCallCallback handler() {
    return [this](const ZR::ZRCallOutcome& outcome) {
      std::lock_guard<std::mutex> lock(mutex_);
      outcomes_.push_back(outcome);
      threads_.push_back(std::this_thread::get_id());
      changed_.notify_all();
    };
  }
  ZR::ZRCallOutcome waitForOne() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !outcomes_.empty(); });
    return outcomes_.front();
  }
  std::vector<ZR::ZRCallOutcome> all() {
    std::lock_guard<std::mutex> lock(mutex_);
    return outcomes_;
  }
  std::thread::id thread() {
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_.front();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<ZR::ZRCallOutcome> outcomes_;
  std::vector<std::thread::id> threads_;
};

// Registry ---------------------------------------------------------------------------------------

TEST_F(BrokerTest, ModulesAreListedInRegistrationOrder) {
  ZR::ZRModule::createModule<sample::Quiet>(broker_);
  EXPECT_EQ(broker_->getModuleNames(), (std::vector<std::string>{"Calculator", "Quiet"}));
  EXPECT_EQ(broker_->getName(), "test");
}

TEST_F(BrokerTest, ModuleObjectIsPublishedUnderTheModuleName) {
  auto service = broker_->session()->service("Calculator").value(longWaitMs);
  ASSERT_TRUE(service.isValid());
  EXPECT_EQ(service.get(), calculator_->object().get());
}

TEST_F(BrokerTest, UnregisteredModuleIsGone) {
  broker_->unregisterModule("Calculator");
  broker_->unregisterModule("Calculator");  // unknown names are ignored
  EXPECT_EQ(broker_->getModuleByName("Calculator"), nullptr);
  EXPECT_TRUE(broker_->getModuleNames().empty());
}

// Synchronous calls ------------------------------------------------------------------------------

TEST_F(BrokerTest, CallRunsOnTheCallersThread) {
  EXPECT_EQ(broker_->call("Calculator", "add", {ZRValue(2), ZRValue(3)}), ZRValue(5));
}

TEST_F(BrokerTest, UnknownModuleIsAZRError) {
  try {
    broker_->call("Nobody", "add", {});
    FAIL() << "no error";
  } catch (const ZRError& e) {
    EXPECT_EQ(e.moduleName(), "Nobody");
    EXPECT_EQ(e.methodName(), "add");
    EXPECT_NE(std::string(e.what()).find("\"Nobody\""), std::string::npos) << e.what();
  }
}

TEST_F(BrokerTest, CallAsyncRunsOnAHostThreadAsAnOrdinaryCall) {
  Outcomes outcomes;
  broker_->callAsync("Calculator", "context", {}, outcomes.handler());
  ZR::ZRCallOutcome outcome = outcomes.waitForOne();
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.id, 0);
  EXPECT_EQ(outcome.value, ZRValue::array(0, 0));
  EXPECT_NE(outcomes.thread(), std::this_thread::get_id());
}

TEST_F(BrokerTest, CallAsyncReportsErrors) {
  Outcomes outcomes;
  broker_->callAsync("Calculator", "fail", {ZRValue("std")}, outcomes.handler());
  ZR::ZRCallOutcome outcome = outcomes.waitForOne();
  EXPECT_FALSE(outcome.ok);
  EXPECT_FALSE(outcome.error.has_value());
  EXPECT_EQ(outcome.otherError, "plain failure");
}

// Posted calls -----------------------------------------------------------------------------------

TEST_F(BrokerTest, PostReturnsIncreasingIdsAndTheResult) {
  Outcomes outcomes;
  ZR::ZRPostedCall first = broker_->post("Calculator", "add", {ZRValue(1), ZRValue(2)});
  ZR::ZRPostedCall second =
      broker_->post("Calculator", "add", {ZRValue(3), ZRValue(4)}, outcomes.handler());
  EXPECT_GE(first.id, 1);
  EXPECT_EQ(second.id, first.id + 1);
  EXPECT_EQ(first.result.value(longWaitMs), ZRValue(3));
  EXPECT_EQ(second.result.value(longWaitMs), ZRValue(7));
  ZR::ZRCallOutcome outcome = outcomes.waitForOne();
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.id, second.id);
  EXPECT_EQ(outcome.value, ZRValue(7));
}

TEST_F(BrokerTest, PostedErrorTextIsTheErrorsWhat) {
  Outcomes outcomes;
  ZR::ZRPostedCall posted =
      broker_->post("Calculator", "fail", {ZRValue("zr")}, outcomes.handler());
  EXPECT_EQ(posted.result.wait(longWaitMs), ko::FutureState::FinishedWithError);
  EXPECT_EQ(posted.result.error(), "inner failure");
  ZR::ZRCallOutcome outcome = outcomes.waitForOne();
  ASSERT_TRUE(outcome.error.has_value());
  EXPECT_EQ(outcome.error->moduleName(), "Elsewhere");
  EXPECT_EQ(outcome.id, posted.id);
}

TEST_F(BrokerTest, PostToUnknownModuleOrMethodIsReportedThroughTheOutcome) {
  Outcomes unknownModule;
  ZR::ZRPostedCall a = broker_->post("Nobody", "x", {}, unknownModule.handler());
  EXPECT_GT(a.id, 0);
  EXPECT_EQ(a.result.wait(longWaitMs), ko::FutureState::FinishedWithError);
  ZR::ZRCallOutcome outcome = unknownModule.waitForOne();
  ASSERT_TRUE(outcome.error.has_value());
  EXPECT_EQ(outcome.error->moduleName(), "Nobody");

  ZR::ZRPostedCall b = broker_->post("Calculator", "divide", {});
  EXPECT_EQ(b.result.wait(longWaitMs), ko::FutureState::FinishedWithError);
  EXPECT_EQ(b.result.error(), "Calculator has no method \"divide\"");
}

TEST_F(BrokerTest, PostedBlockingCallIsStoppedByIdThroughTheModulesStop) {
  ZR::ZRPostedCall posted = broker_->post("Calculator", "waitForStop", {});
  calculator_->awaitWaiters(1);
  EXPECT_TRUE(broker_->isRunning(posted.id));
  EXPECT_FALSE(broker_->wait(posted.id, 20));  // still blocked

  broker_->stop("Calculator", posted.id);
  EXPECT_TRUE(broker_->wait(posted.id, longWaitMs));
  EXPECT_FALSE(broker_->isRunning(posted.id));
  EXPECT_EQ(posted.result.value(longWaitMs), ZRValue(posted.id));
  EXPECT_EQ(Journal::instance().entries().back(), "stop " + std::to_string(posted.id));
}

TEST_F(BrokerTest, StopOfAnUnknownModuleIsAZRError) {
  EXPECT_THROW(broker_->stop("Nobody", 1), ZRError);
}

TEST_F(BrokerTest, WaitKnowsFinishedAndUnknownCalls) {
  ZR::ZRPostedCall posted = broker_->post("Calculator", "add", {ZRValue(1), ZRValue(1)});
  posted.result.wait(longWaitMs);
  // The call's bookkeeping ends just after its result: wait for it to settle.
  for (int i = 0; i < 2000 && broker_->isRunning(posted.id); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_FALSE(broker_->isRunning(posted.id));
  EXPECT_TRUE(broker_->wait(posted.id, 0));
  EXPECT_FALSE(broker_->wait(posted.id + 1000, 0));
  EXPECT_FALSE(broker_->isRunning(posted.id + 1000));
}

TEST_F(BrokerTest, BlockingCallsDoNotStarveEachOther) {
  // Every call blocks until the host stops it, and the stops come only once all are blocked:
  // this finishes only if the pool gives each call its own thread.
  constexpr int calls = 24;
  std::vector<ZR::ZRPostedCall> posted;
  for (int i = 0; i < calls; ++i) posted.push_back(broker_->post("Calculator", "waitForStop", {}));
  calculator_->awaitWaiters(calls);
  for (const auto& p : posted) broker_->stop("Calculator", p.id);
  for (const auto& p : posted) EXPECT_EQ(p.result.value(longWaitMs), ZRValue(p.id));
}

TEST_F(BrokerTest, ConcurrentPostsGetDistinctIds) {
  std::mutex mutex;
  std::set<int> ids;
  std::vector<ko::Future<ZRValue>> results;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        auto p = broker_->post("Calculator", "add", {ZRValue(i), ZRValue(1)});
        std::lock_guard<std::mutex> lock(mutex);
        ids.insert(p.id);
        results.push_back(p.result);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(ids.size(), 200u);
  for (auto& r : results) EXPECT_EQ(r.wait(longWaitMs), ko::FutureState::FinishedWithValue);
}

TEST_F(BrokerTest, ThreadPoolRunsDelayedWorkOffTheCallersThread) {
  std::atomic<bool> elsewhere{false};
  auto caller = std::this_thread::get_id();
  auto start = std::chrono::steady_clock::now();
  broker_->threadPool()
      .asyncDelay([&] { elsewhere = std::this_thread::get_id() != caller; },
                  std::chrono::milliseconds(20))
      .value(longWaitMs);
  EXPECT_TRUE(elsewhere.load());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST_F(BrokerTest, ThreadPoolCancelledWorkNeverRuns) {
  std::atomic<bool> ran{false};
  auto future =
      broker_->threadPool().asyncDelay([&] { ran = true; }, std::chrono::milliseconds(30));
  future.cancel();
  EXPECT_TRUE(future.isCanceled());
  broker_->threadPool().asyncDelay([] {}, std::chrono::milliseconds(60)).value(longWaitMs);
  EXPECT_FALSE(ran.load());
}

TEST_F(BrokerTest, ThreadPoolTaskErrorReachesTheFuture) {
  auto future = broker_->threadPool().post([] { throw std::runtime_error("pool task failed"); });
  EXPECT_EQ(future.wait(longWaitMs), ko::FutureState::FinishedWithError);
  EXPECT_EQ(future.error(), "pool task failed");
  EXPECT_EQ(broker_->threadPool().post([] {}).wait(longWaitMs), ko::FutureState::FinishedWithValue);
}

// Shutdown ---------------------------------------------------------------------------------------

TEST_F(BrokerTest, ShutdownExitsNewestFirstAndIsIdempotent) {
  ZR::ZRModule::createModule<sample::Quiet>(broker_);
  Journal::instance().clear();
  broker_->shutdown();
  broker_->shutdown();
  EXPECT_EQ(Journal::instance().entries(),
            (std::vector<std::string>{"exit Quiet", "exit Calculator"}));
  EXPECT_TRUE(broker_->getModuleNames().empty());
  EXPECT_TRUE(broker_->session()->services().empty());
}

TEST_F(BrokerTest, ShutdownReleasesTheModules) {
  boost::weak_ptr<Calculator> weak = calculator_;
  calculator_.reset();
  broker_->shutdown();
  EXPECT_TRUE(weak.expired());
}

TEST_F(BrokerTest, NoModuleRegistersAfterShutdown) {
  broker_->shutdown();
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
  EXPECT_EQ(posted.result.value(longWaitMs), ZRValue(posted.id));
  // The reference count drops before the broker's destructor runs: its shut-down (the module's
  // exit) is awaited too, so that nothing of it is still running when the test ends.
  const auto exited = [] {
    const auto entries = Journal::instance().entries();
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

TEST(BrokerManager, RegistersEachBrokerOnce) {
  auto manager = boost::make_shared<ZR::ZRBrokerManager>();
  auto broker = ZR::ZRBroker::create("managed", manager);
  EXPECT_EQ(broker->getBrokerManager().lock(), manager);
  manager->addBroker(broker);
  EXPECT_EQ(manager->getBrokers().size(), 1u);
  manager->removeBroker(broker);
  EXPECT_TRUE(manager->getBrokers().empty());
}

TEST(BrokerManager, ProcessWideInstanceIsTheLastOneSet) {
  auto previous = ZR::ZRBrokerManager::getInstance();
  auto a = boost::make_shared<ZR::ZRBrokerManager>();
  auto b = boost::make_shared<ZR::ZRBrokerManager>();
  ZR::ZRBrokerManager::setInstance(a);
  ZR::ZRBrokerManager::setInstance(b);
  EXPECT_EQ(ZR::ZRBrokerManager::getInstance(), b);
  // A broker made without a manager joins the process-wide one.
  auto broker = ZR::ZRBroker::create("joined");
  EXPECT_EQ(broker->getBrokerManager().lock(), b);
  EXPECT_EQ(b->getBrokers(), (std::vector<boost::shared_ptr<ZR::ZRBroker>>{broker}));
  ZR::ZRBrokerManager::setInstance(previous);
}

TEST(BrokerManager, DoesNotKeepBrokersAlive) {
  auto manager = boost::make_shared<ZR::ZRBrokerManager>();
  boost::weak_ptr<ZR::ZRBroker> weak;
  {
    auto broker = ZR::ZRBroker::create("short", manager);
    weak = broker;
  }
  EXPECT_TRUE(weak.expired());
  EXPECT_TRUE(manager->getBrokers().empty());
}

// Proxies ----------------------------------------------------------------------------------------

class ProxyTest : public BrokerTest {
 protected:
  void SetUp() override {
    BrokerTest::SetUp();
    proxy_ = broker_->getProxy("Calculator", 0);
  }
  boost::shared_ptr<ZR::ZRProxy> proxy_;
};

TEST_F(ProxyTest, TypedCalls) {
  EXPECT_EQ(proxy_->moduleName(), "Calculator");
  EXPECT_EQ(proxy_->call<int>("add", 2, 40), 42);
  EXPECT_FLOAT_EQ(proxy_->call<float>("half", 5), 2.5f);
  EXPECT_EQ(proxy_->call<std::string>("greet", "Bob", "Hey"), "Hey Bob");
  EXPECT_EQ(proxy_->call<int>("length", std::string("four")), 4);
}

TEST_F(ProxyTest, VectorsOfStringsAndFloats) {
  EXPECT_EQ(proxy_->call<std::vector<std::string>>("words", "say it  again"),
            (std::vector<std::string>{"say", "it", "again"}));
  EXPECT_EQ(proxy_->call<std::vector<float>>("scale", std::vector<float>{1.0f, 0.5f}, 4.0f),
            (std::vector<float>{4.0f, 2.0f}));
}

TEST_F(ProxyTest, VectorsOfPackages) {
  auto packages = proxy_->call<std::vector<ko::PackageInfo>>("packages");
  ASSERT_EQ(packages.size(), 2u);
  EXPECT_EQ(packages[0].name(), "French");
  EXPECT_EQ(packages[0].path(), "/packages/lang-fr");
  ASSERT_EQ(packages[1].languages().size(), 2u);
  EXPECT_EQ(packages[1].languages()[1].locale(), "en_GB");
  EXPECT_EQ(packages, calculator_->packages());
  EXPECT_EQ(proxy_->call<int>("countLanguages", packages), 3);
}

TEST_F(ProxyTest, VoidCall) {
  proxy_->call<void>("remember", 17);
  EXPECT_EQ(proxy_->call<int>("recall"), 17);
}

TEST_F(ProxyTest, ResultThatDoesNotConvertIsAZRError) {
  EXPECT_THROW(proxy_->call<int>("greet", "Ann"), ZRError);
}

TEST_F(ProxyTest, PostWaitAndStop) {
  int id = proxy_->post("waitForStop");
  calculator_->awaitWaiters(1);
  EXPECT_TRUE(proxy_->isRunning(id));
  proxy_->stop(id);
  EXPECT_TRUE(proxy_->wait(id, longWaitMs));
  int next = proxy_->pCall("add", 1, 2);
  EXPECT_EQ(next, id + 1);
}

TEST_F(ProxyTest, UnknownModuleCannotHaveAProxy) {
  try {
    broker_->getProxy("ZRAnimatedSpeech", 0);
    FAIL() << "proxy created";
  } catch (const ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRAnimatedSpeech");
    EXPECT_NE(std::string(e.what()).find("\"ZRAnimatedSpeech\""), std::string::npos) << e.what();
  }
}

TEST_F(ProxyTest, CallAfterTheBrokerIsGoneIsAZRError) {
  broker_.reset();
  calculator_.reset();
  EXPECT_THROW(proxy_->call<int>("add", 1, 2), ZRError);
}

TEST_F(ProxyTest, SpecialisedProxyIsBuiltOnTheBroker) {
  auto typed = broker_->getSpecialisedProxy<ZR::ZRProxy>("Calculator");
  EXPECT_EQ(typed->call<int>("add", 1, 1), 2);
}

}  // namespace
