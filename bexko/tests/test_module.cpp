#include <zr/zrmodule.h>

#include "sample_modules.h"

namespace {

using namespace bexko::test;
using sample::Calculator;

class ModuleTest : public sample::CalculatorTest {};

// Calls by name ----------------------------------------------------------------------------------

// Through the broker, so that an unknown module is one more bad call. A void method returns
// empty; an int converts where a float is expected, a whole float where an int is.
TEST_F(ModuleTest, CallChoosesTheOverloadByArgumentCountAndConvertsArguments) {
  const std::tuple<std::string, std::vector<ZRValue>, ZRValue> cases[] = {
      {"greet", {"Ann"}, "Hello Ann"}, {"greet", {"Ann", "Hi"}, "Hi Ann"},
      {"fail", {"none"}, ZRValue()},   {"half", {3}, 1.5f},
      {"half", {3.0f}, 1.5f},          {"add", {2.0f, 3}, 5}};
  for (const auto& [method, args, expected] : cases) {
    SCOPED_TRACE(method + ZRValue(args).toDebugString());
    EXPECT_EQ(broker_->call("Calculator", method, args), expected);
  }
}

TEST_F(ModuleTest, BadCallIsAZRErrorNamingModuleMethodAndFault) {
  const std::tuple<std::string, std::string, std::vector<ZRValue>, const char*> cases[] = {
      {"Nobody", "add", {}, "No module named \"Nobody\""},
      {"Calculator", "divide", {1}, "Calculator has no method \"divide\""},
      {"Calculator", "add", {1}, "takes 2 arguments, not 1"},
      {"Calculator", "greet", {}, "takes 1 or 2 arguments, not 0"},
      {"Calculator", "add", {1, 2.5f}, "argument 2: expected int, got float"}};
  for (const auto& [module, method, args, fault] : cases) {
    const ZRError error = errorOf([&, &module = module, &method = method, &args = args] {
      broker_->call(module, method, args);
    });
    EXPECT_EQ(error.moduleName(), module);
    EXPECT_EQ(error.methodName(), method);
    EXPECT_THAT(error.what(), HasSubstr(fault));
  }
}

// Publishing -------------------------------------------------------------------------------------

// Each overload is listed in registration order, and each functionName starts a fresh
// description.
TEST_F(ModuleTest, MethodsArePublishedByNameAndArgumentCount) {
  calculator_->functionName("add", "Calculator", "Adds again.");
  const ZRError twice = errorOf([&] {
    calculator_->bindMethodOverload(ZR::createFunctor(calculator_.get(), &Calculator::add));
  });
  EXPECT_THAT(twice.what(), HasSubstr("\"add\" with 2 arguments"));
  calculator_->bindMethodOverload(ZR::createFunctor(calculator_.get(), &Calculator::half));
  EXPECT_EQ(calculator_->callMethod("add", {3}), ZRValue(1.5f));
  const ZR::ZRModuleInfo info = calculator_->moduleInfo();
  Strings names;
  for (const auto& m : info.methods) names.push_back(m.name + "/" + std::to_string(m.arity));
  EXPECT_EQ(names, (Strings{"add/2", "half/1", "greet/1", "greet/2", "fail/1", "context/0",
                            "nestedContext/0", "waitForStop/0", "add/1"}));
  EXPECT_EQ(info.methods.back().description, "Adds again.");
  EXPECT_EQ(info.methods[0].parameters,
            (std::vector<ZR::ZRParameterInfo>{{"a", "first number"}, {"b", "second number"}}));
  EXPECT_TRUE(info.methods[0].hasReturn);
  EXPECT_FALSE(info.methods[1].hasReturn || !info.methods[1].parameters.empty());
}

TEST_F(ModuleTest, DefaultStopWarnsThatTheCallGoesOn) {
  auto capture = std::make_shared<ko::log::CaptureSink>();
  const int sink = ko::log::addSink(capture);
  ZR::ZRModule::createModule<sample::Quiet>(broker_);
  broker_->stop("Quiet", 12);
  ko::log::removeSink(sink);
  const std::string warning = "Quiet cannot stop posted calls; the call 12 goes on";
  EXPECT_THAT(capture->records(), Contains(logRecord(ko::log::warning, "bexko.module", warning)));
}

// Life cycle -------------------------------------------------------------------------------------

// A namesake is refused, and its exit leaves the first module registered.
TEST_F(ModuleTest, CreateModuleRegistersOnceAndInitsAndExitUnregisters) {
  EXPECT_THAT(errorOf([&] { ZR::ZRModule::createModule<Calculator>(broker_); }).what(),
              HasSubstr("already registered"));
  EXPECT_EQ(broker_->getModuleByName("Calculator"), calculator_);
  EXPECT_EQ(broker_->session()->service("Calculator").value(1000).get(),
            calculator_->object().get());
  calculator_->exit();
  calculator_->exit();
  EXPECT_EQ(broker_->getModuleByName("Calculator"), nullptr);
  EXPECT_FALSE(broker_->session()->service("Calculator").value(1000).isValid());
  EXPECT_EQ(sample::journal.seen(),
            (Strings{"init Calculator", "exit Calculator", "exit Calculator", "exit Calculator"}));
}

// A ZRError from init is undone by exit; other failures pass as they are.
TEST_F(ModuleTest, FailedInitLeavesNoModuleBehind) {
  sample::journal.clear();
  sample::Quiet::initFailure = 1;
  EXPECT_EQ(errorOf([&] { ZR::ZRModule::createModule<sample::Quiet>(broker_); }).toString(),
            "Quiet::init: the engine is missing");
  EXPECT_EQ(broker_->getModuleByName("Quiet"), nullptr);
  sample::Quiet::initFailure = 2;
  EXPECT_THROW(ZR::ZRModule::createModule<sample::Quiet>(broker_), std::runtime_error);
  EXPECT_EQ(sample::journal.seen(), (Strings{"init Quiet", "exit Quiet", "init Quiet"}));
  EXPECT_THROW(boost::shared_ptr<Calculator>(new Calculator(nullptr))->initModule(), ZRError);
}

}  // namespace
