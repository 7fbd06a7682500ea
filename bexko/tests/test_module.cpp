#include <zr/zrmodule.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <ko/log.h>

#include "sample_modules.h"

namespace {

using sample::Calculator;
using sample::Journal;
using ZR::ZRError;
using ZR::ZRValue;

class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Journal::instance().clear();
    broker_ = ZR::ZRBroker::create("test");
  }
  void TearDown() override { broker_->shutdown(); }

  /// Calls `method` and returns the ZRError it throws; fails the test when it returns.
  ZRError callError(const std::string& method, const std::vector<ZRValue>& args) {
    try {
      calculator_->callMethod(method, args);
    } catch (const ZRError& e) {
      return e;
    }
    ADD_FAILURE() << method << " returned instead of throwing";
    return ZRError("", "", "");
  }

  boost::shared_ptr<ZR::ZRBroker> broker_;
  boost::shared_ptr<Calculator> calculator_ = nullptr;
};

class CalculatorTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    calculator_ = ZR::ZRModule::createModule<Calculator>(broker_);
  }
};

// Calls by name ----------------------------------------------------------------------------------

TEST_F(CalculatorTest, OverloadIsChosenByArgumentCount) {
  EXPECT_EQ(calculator_->callMethod("greet", {ZRValue("Ann")}), ZRValue("Hello Ann"));
  EXPECT_EQ(calculator_->callMethod("greet", {ZRValue("Ann"), ZRValue("Hi")}), ZRValue("Hi Ann"));
}

TEST_F(CalculatorTest, VoidMethodReturnsEmpty) {
  EXPECT_TRUE(calculator_->callMethod("remember", {ZRValue(5)}).isEmpty());
  EXPECT_EQ(calculator_->callMethod("recall", {}), ZRValue(5));
}

struct ConversionCase {
  const char* name;
  std::string method;
  std::vector<ZRValue> args;
  ZRValue expected;
};

class ArgumentConversion : public CalculatorTest,
                           public ::testing::WithParamInterface<ConversionCase> {};

TEST_P(ArgumentConversion, ConvertsToTheParameterType) {
  const auto& c = GetParam();
  EXPECT_EQ(calculator_->callMethod(c.method, c.args), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Calculator, ArgumentConversion,
    ::testing::Values(
        ConversionCase{"IntWhereFloatExpected", "half", {ZRValue(3)}, ZRValue(1.5f)},
        ConversionCase{"FloatWhereFloatExpected", "half", {ZRValue(3.0f)}, ZRValue(1.5f)},
        ConversionCase{
            "WholeFloatWhereIntExpected", "add", {ZRValue(2.0f), ZRValue(3)}, ZRValue(5)},
        ConversionCase{"ArrayOfIntsWhereFloatsExpected",
                       "scale",
                       {ZRValue(ZRValue::Array{ZRValue(1), ZRValue(2.5f)}), ZRValue(2)},
                       ZRValue(ZRValue::Array{ZRValue(2.0f), ZRValue(5.0f)})},
        ConversionCase{"EmptyWhereArrayExpected",
                       "scale",
                       {ZRValue(), ZRValue(2)},
                       ZRValue(ZRValue::Array{})}),
    [](const auto& info) { return std::string(info.param.name); });

struct BadCall {
  const char* name;
  std::string method;
  std::vector<ZRValue> args;
  std::vector<std::string> fragments;  // every one must appear in the message
};

class CallErrors : public CalculatorTest, public ::testing::WithParamInterface<BadCall> {};

TEST_P(CallErrors, ReportTheModuleTheMethodAndWhatWasWrong) {
  const auto& c = GetParam();
  ZRError error = callError(c.method, c.args);
  EXPECT_EQ(error.moduleName(), "Calculator");
  EXPECT_EQ(error.methodName(), c.method);
  for (const auto& fragment : c.fragments) {
    EXPECT_NE(std::string(error.what()).find(fragment), std::string::npos)
        << "\"" << error.what() << "\" lacks \"" << fragment << "\"";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Calculator, CallErrors,
    ::testing::Values(
        BadCall{"UnknownMethod", "divide", {ZRValue(1)}, {"Calculator has no method \"divide\""}},
        BadCall{"WrongCountOneOverload", "add", {ZRValue(1)}, {"takes 2 arguments", "not 1"}},
        BadCall{"WrongCountListsOverloads", "greet", {}, {"takes 1 or 2 arguments", "not 0"}},
        BadCall{"FractionWhereIntExpected",
                "add",
                {ZRValue(1), ZRValue(2.5f)},
                {"argument 2: expected int, got float"}},
        BadCall{"StringWhereFloatExpected",
                "half",
                {ZRValue("two")},
                {"argument 1: expected float, got string"}},
        BadCall{"BadItemOfAnArray",
                "scale",
                {ZRValue(ZRValue::Array{ZRValue("x")}), ZRValue(1)},
                {"argument 1:", "expected float, got string"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CalculatorTest, ErrorsOfTheMethodPassUnchanged) {
  try {
    calculator_->callMethod("fail", {ZRValue("zr")});
    FAIL() << "no error";
  } catch (const ZRError& e) {
    EXPECT_EQ(e.moduleName(), "Elsewhere");
    EXPECT_EQ(e.methodName(), "inner");
    EXPECT_STREQ(e.what(), "inner failure");
  }
  EXPECT_THROW(calculator_->callMethod("fail", {ZRValue("std")}), std::logic_error);
}

TEST_F(CalculatorTest, HasMethodKnowsPublishedNames) {
  EXPECT_TRUE(calculator_->hasMethod("greet"));
  EXPECT_FALSE(calculator_->hasMethod("divide"));
}

// Call context -----------------------------------------------------------------------------------

TEST_F(CalculatorTest, DirectCallIsNotPosted) {
  EXPECT_EQ(calculator_->callMethod("context", {}), ZRValue::array(0, 0));
  // Outside any call there is no context either.
  EXPECT_FALSE(calculator_->isPCalled());
  EXPECT_EQ(calculator_->getMethodID(), 0);
}

TEST_F(CalculatorTest, PostedCallSeesItsIdInside) {
  ZR::ZRPostedCall posted = broker_->post("Calculator", "context", {});
  ZRValue context = posted.result.value(10000);
  EXPECT_EQ(context, ZRValue::array(1, posted.id));
  EXPECT_GT(posted.id, 0);
}

TEST_F(CalculatorTest, NestedCallOfAPostedMethodIsNotPosted) {
  ZR::ZRPostedCall posted = broker_->post("Calculator", "nestedContext", {});
  ZRValue contexts = posted.result.value(10000);
  std::vector<int> values;
  for (const auto& v : contexts.toArray()) values.push_back(v.toInt());
  EXPECT_EQ(values, (std::vector<int>{1, posted.id, 0, 0, 1, posted.id}));
}

// Publishing -------------------------------------------------------------------------------------

TEST_F(CalculatorTest, SameNameAndCountCannotBeBoundTwice) {
  calculator_->functionName("add", "Calculator", "Adds again.");
  try {
    calculator_->bindMethodOverload(ZR::createFunctor(calculator_.get(), &Calculator::add));
    FAIL() << "bound twice";
  } catch (const ZRError& e) {
    EXPECT_EQ(e.moduleName(), "Calculator");
    EXPECT_NE(std::string(e.what()).find("\"add\" with 2 arguments"), std::string::npos)
        << e.what();
  }
  // The same name with another count is a new overload.
  calculator_->functionName("add", "Calculator", "Adds one.");
  calculator_->addParam("a", "the number");
  calculator_->bindMethodOverload(ZR::createFunctor(calculator_.get(), &Calculator::half));
  EXPECT_EQ(calculator_->callMethod("add", {ZRValue(3)}), ZRValue(1.5f));
}

TEST_F(CalculatorTest, DocumentationReadsBackInRegistrationOrder) {
  ZR::ZRModuleInfo info = calculator_->moduleInfo();
  EXPECT_EQ(info.name, "Calculator");
  EXPECT_EQ(info.description, "Does small sums.");
  ASSERT_EQ(info.examples.size(), 1u);
  EXPECT_EQ(info.examples[0], (ZR::ZRExampleInfo{"python", "calculator.add(1, 2)"}));

  std::vector<std::string> names;
  for (const auto& m : info.methods) names.push_back(m.name + "/" + std::to_string(m.arity));
  EXPECT_EQ(names, (std::vector<std::string>{"add/2", "half/1", "greet/1", "greet/2", "fail/1",
                                             "words/1", "scale/2", "packages/0", "countLanguages/1",
                                             "remember/1", "recall/0", "context/0",
                                             "nestedContext/0", "length/1", "waitForStop/0"}));

  const ZR::ZRMethodInfo& add = info.methods[0];
  EXPECT_EQ(add.moduleName, "Calculator");
  EXPECT_EQ(add.description, "Adds two numbers.");
  EXPECT_EQ(add.parameters,
            (std::vector<ZR::ZRParameterInfo>{{"a", "first number"}, {"b", "second number"}}));
  EXPECT_TRUE(add.hasReturn);
  EXPECT_EQ(add.returnInfo, (ZR::ZRParameterInfo{"sum", "a + b"}));
  ASSERT_EQ(add.examples.size(), 1u);
  EXPECT_EQ(add.examples[0].text, "calculator.add(1, 2)");

  EXPECT_EQ(info.methods[3].description, "Greets someone with a chosen word.");
  EXPECT_FALSE(info.methods[4].hasReturn);
}

TEST_F(CalculatorTest, ObjectBuilderPublishesWithItsOwnDescription) {
  ZR::ZRMethodInfo description;
  description.name = "triple";
  description.description = "Adds a number to itself twice.";
  description.parameters = {{"a", "x"}, {"b", "y"}};
  calculator_->objectBuilder().advertiseMethod(description, calculator_.get(), &Calculator::add);
  EXPECT_EQ(calculator_->callMethod("triple", {ZRValue(1), ZRValue(2)}), ZRValue(3));
  ZR::ZRModuleInfo info = calculator_->moduleInfo();
  EXPECT_EQ(info.methods.back().name, "triple");
  EXPECT_EQ(info.methods.back().moduleName, "Calculator");
  EXPECT_EQ(info.methods.back().arity, 2);
  // The description being built by functionName is untouched.
  EXPECT_EQ(calculator_->getCurrentMethodDescription().name, "waitForStop");
}

TEST_F(ModuleTest, SignalsArePublishedOnTheModuleObject) {
  auto quiet = ZR::ZRModule::createModule<sample::Quiet>(broker_);
  EXPECT_EQ(quiet->moduleInfo().signals, (std::vector<std::string>{"onChange"}));
  ko::Object object = broker_->session()->service("Quiet").value(1000);
  ASSERT_TRUE(object.isValid());
  int received = 0;
  std::function<void(int)> subscriber = [&](int v) { received = v; };
  object.connect("onChange", subscriber).value(1000);
  quiet->changed.trigger(8);
  EXPECT_EQ(received, 8);
}

// Life cycle -------------------------------------------------------------------------------------

TEST_F(ModuleTest, CreateModuleRegistersThenCallsInit) {
  auto calculator = ZR::ZRModule::createModule<Calculator>(broker_);
  EXPECT_EQ(broker_->getModuleByName("Calculator"), calculator);
  EXPECT_EQ(Journal::instance().entries(), (std::vector<std::string>{"init Calculator"}));
  EXPECT_EQ(calculator->getParentBroker(), broker_);
}

TEST_F(ModuleTest, CreateModuleCallsExitAndRethrowsWhenInitFails) {
  try {
    ZR::ZRModule::createModule<sample::BrokenInit<false>>(broker_);
    FAIL() << "createModule returned";
  } catch (const ZRError& e) {
    EXPECT_EQ(e.moduleName(), "BrokenInit");
    EXPECT_EQ(e.methodName(), "init");
    EXPECT_STREQ(e.what(), "the engine is missing");
  }
  EXPECT_EQ(Journal::instance().entries(),
            (std::vector<std::string>{"init BrokenInit", "exit BrokenInit"}));
  EXPECT_EQ(broker_->getModuleByName("BrokenInit"), nullptr);
}

TEST_F(ModuleTest, OtherInitFailuresPassWithoutExit) {
  EXPECT_THROW(ZR::ZRModule::createModule<sample::BrokenInit<true>>(broker_), std::runtime_error);
  EXPECT_EQ(Journal::instance().entries(), (std::vector<std::string>{"init BrokenInit"}));
}

TEST_F(ModuleTest, DuplicateNameFailsWithoutRemovingTheFirst) {
  auto first = ZR::ZRModule::createModule<Calculator>(broker_);
  try {
    ZR::ZRModule::createModule<Calculator>(broker_);
    FAIL() << "second module of the same name registered";
  } catch (const ZRError& e) {
    EXPECT_NE(std::string(e.what()).find("already registered"), std::string::npos) << e.what();
  }
  EXPECT_EQ(broker_->getModuleByName("Calculator"), first);
  EXPECT_EQ(broker_->call("Calculator", "add", {ZRValue(1), ZRValue(1)}), ZRValue(2));
}

TEST_F(ModuleTest, ExitUnregistersAndIsIdempotent) {
  auto calculator = ZR::ZRModule::createModule<Calculator>(broker_);
  calculator->exit();
  calculator->exit();
  EXPECT_EQ(broker_->getModuleByName("Calculator"), nullptr);
  EXPECT_FALSE(broker_->session()->service("Calculator").value(1000).isValid());
}

TEST_F(ModuleTest, InitModuleWithoutBrokerFails) {
  boost::shared_ptr<Calculator> orphan(new Calculator(nullptr));
  EXPECT_THROW(orphan->initModule(), ZRError);
}

TEST_F(ModuleTest, DefaultStopLogsAWarning) {
  auto capture = std::make_shared<ko::log::CaptureSink>();
  int sink = ko::log::addSink(capture);
  auto quiet = ZR::ZRModule::createModule<sample::Quiet>(broker_);
  broker_->stop("Quiet", 12);
  ko::log::removeSink(sink);
  bool warned = false;
  for (const auto& r : capture->records()) {
    if (r.level == ko::log::warning && r.message.find("Quiet") != std::string::npos &&
        r.message.find("12") != std::string::npos) {
      warned = true;
    }
  }
  EXPECT_TRUE(warned);
}

}  // namespace
