#pragma once

// Small modules used by the runtime's tests: each publishes methods the way a real module does,
// and notes its life-cycle calls in a journal the tests read.

#include <set>

#include <zr/zrbroker.h>
#include <zr/zrmodule.h>

#include "support.h"

namespace sample {

/// What the sample modules did, in order ("init Calculator", "exit Calculator").
inline bexko::test::Recorder<std::string> journal;
inline void note(const std::string& entry) { journal.add(entry); }

/// A module with overloads, typed arguments, probes of the call context and a blocking call
/// that the host's stop releases.
class Calculator : public ZR::ZRModule {
 public:
  explicit Calculator(boost::shared_ptr<ZR::ZRBroker> broker) : ZR::ZRModule(broker, "Calculator") {
    functionName("add", getName(), "Adds two numbers.");
    addParam("a", "first number");
    addParam("b", "second number");
    setReturn("sum", "a + b");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::add));
    publish("half", "Halves a number.", &Calculator::half);
    publish("greet", "Greets someone.", &Calculator::greet);
    publish("greet", "Greets someone with a chosen word.", &Calculator::greetWith);
    publish("fail", "Throws a ZRError for \"zr\", another error for \"std\".", &Calculator::fail);
    publish("context", "[posted, id] of this call.", &Calculator::context);
    publish("nestedContext", "Contexts: own, nested, own.", &Calculator::nestedContext);
    publish("waitForStop", "Blocks until the host stops it.", &Calculator::waitForStop);
  }

  void init() override { note("init " + getName()); }
  void exit() override {
    note("exit " + getName());
    ZR::ZRModule::exit();
  }
  void stop(const int& id) override {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_.insert(id);
    changed_.notify_all();
  }

  int add(int a, int b) { return a + b; }
  float half(float x) { return x / 2; }
  std::string greet(const std::string& name) { return "Hello " + name; }
  std::string greetWith(const std::string& name, const std::string& word) {
    return word + " " + name;
  }
  void fail(const std::string& kind) {
    if (kind == "zr") throw ZR::ZRError("Elsewhere", "inner", "inner failure");
    if (kind == "std") throw std::logic_error("plain failure");
  }
  ZR::ZRValue context() { return ZR::ZRValue::array(isPCalled(), getMethodID()); }
  ZR::ZRValue nestedContext() {
    return ZR::ZRValue::Array{context(), getParentBroker()->call(getName(), "context", {}),
                              context()};
  }
  /// Returns the call's context once the host has stopped it.
  ZR::ZRValue waitForStop() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return stopped_.count(getMethodID()) > 0; });
    return context();
  }
  /// Waits until `count` waitForStop calls have started.
  void awaitWaiters(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return waiting_ >= count; });
  }

 private:
  template <typename Member>
  void publish(const std::string& name, const std::string& description, Member member) {
    functionName(name, getName(), description);
    bindMethodOverload(ZR::createFunctor(this, member));
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<int> stopped_;
  int waiting_ = 0;
};

/// A module with no methods and the default stop, whose init fails with a ZRError
/// (initFailure 1) or another exception (2) when told to.
class Quiet : public ZR::ZRModule {
 public:
  explicit Quiet(boost::shared_ptr<ZR::ZRBroker> broker) : ZR::ZRModule(broker, "Quiet") {}
  void init() override {
    note("init Quiet");
    if (initFailure == 1) throw ZR::ZRError("Quiet", "init", "the engine is missing");
    if (initFailure == 2) throw std::runtime_error("plain init failure");
  }
  void exit() override {
    note("exit Quiet");
    ZR::ZRModule::exit();
  }
  inline static int initFailure = 0;
};

/// A broker with a Calculator registered, shut down after the test; the journal starts with
/// the Calculator's init.
class CalculatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    journal.clear();
    Quiet::initFailure = 0;
    broker_ = ZR::ZRBroker::create("test");
    calculator_ = ZR::ZRModule::createModule<Calculator>(broker_);
  }
  void TearDown() override {
    if (broker_) broker_->shutdown();
  }

  boost::shared_ptr<ZR::ZRBroker> broker_;
  boost::shared_ptr<Calculator> calculator_;
};

}  // namespace sample
