#include <ko/object.h>

#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <boost/function.hpp>

namespace {

constexpr int longWaitMs = 10000;

class PublishedObject : public ::testing::Test {
 protected:
  void SetUp() override {
    object_->advertiseSignal("onPackageInstalled", &installed_);
    object_->advertiseSignal("onCount", &count_);
    session_.registerService("PackageManager", ko::Object(object_));
  }

  ko::Session session_;
  std::shared_ptr<ko::GenericObject> object_ =
      std::make_shared<ko::GenericObject>("PackageManager");
  ko::Signal<std::string> installed_;
  ko::Signal<int> count_;
};

TEST_F(PublishedObject, ServiceIsFoundByName) {
  ko::Object service = session_.service("PackageManager", "").value(longWaitMs);
  ASSERT_TRUE(service.isValid());
  EXPECT_EQ(service.get(), object_.get());
  EXPECT_EQ(service->name(), "PackageManager");
  EXPECT_EQ(session_.services(), (std::vector<std::string>{"PackageManager"}));
}

TEST_F(PublishedObject, UnknownServiceIsANullObject) {
  ko::Object missing = session_.service("Nobody").value(longWaitMs);
  EXPECT_FALSE(missing.isValid());
  EXPECT_FALSE(static_cast<bool>(missing));
}

TEST_F(PublishedObject, UnregisteredServiceIsGone) {
  session_.unregisterService("PackageManager");
  EXPECT_FALSE(session_.service("PackageManager").value(longWaitMs).isValid());
  EXPECT_TRUE(session_.services().empty());
}

TEST_F(PublishedObject, ConnectByNameConvertsTheArguments) {
  ko::Object service = session_.service("PackageManager").value(longWaitMs);
  std::string received;
  boost::function<void(std::string)> subscriber = [&](std::string name) { received = name; };
  ko::SignalLink link = service.connect("onPackageInstalled", subscriber).value(longWaitMs);
  EXPECT_NE(link, ko::InvalidSignalLink);
  installed_.trigger("French");
  EXPECT_EQ(received, "French");

  EXPECT_TRUE(service.disconnect(link));
  installed_.trigger("German");
  EXPECT_EQ(received, "French");
  EXPECT_FALSE(service.disconnect(link));
}

TEST_F(PublishedObject, SubscriberOfTheWrongTypeIsSkipped) {
  ko::Object service = session_.service("PackageManager").value(longWaitMs);
  int calls = 0;
  std::function<void(int)> wrongType = [&](int) { ++calls; };
  service.connect("onPackageInstalled", wrongType).value(longWaitMs);
  std::function<void(int, int)> wrongCount = [&](int, int) { ++calls; };
  service.connect("onCount", wrongCount).value(longWaitMs);
  EXPECT_NO_THROW(installed_.trigger("not a number"));
  EXPECT_NO_THROW(count_.trigger(1));
  EXPECT_EQ(calls, 0);
}

TEST_F(PublishedObject, UnknownSignalFinishesWithAnError) {
  ko::Object service = session_.service("PackageManager").value(longWaitMs);
  std::function<void(int)> subscriber = [](int) {};
  auto future = service.connect("onNothing", subscriber);
  EXPECT_TRUE(future.hasError());
  EXPECT_NE(future.error().find("onNothing"), std::string::npos);
  EXPECT_THROW(future.value(longWaitMs), ko::FutureException);
}

TEST_F(PublishedObject, SignalNamesAreListedInNameOrder) {
  EXPECT_EQ(object_->signalNames(), (std::vector<std::string>{"onCount", "onPackageInstalled"}));
}

TEST_F(PublishedObject, ClearedSignalsCannotBeConnected) {
  object_->clearSignals();
  std::function<void(int)> subscriber = [](int) {};
  EXPECT_TRUE(object_->connect("onCount", subscriber).hasError());
  EXPECT_TRUE(object_->signalNames().empty());
}

TEST_F(PublishedObject, GenericConnectGetsValues) {
  std::vector<ZR::ZRValue> received;
  object_->connectGeneric("onCount", [&](const std::vector<ZR::ZRValue>& v) { received = v; })
      .value(longWaitMs);
  count_.trigger(12);
  EXPECT_EQ(received, (std::vector<ZR::ZRValue>{ZR::ZRValue(12)}));
}

TEST(NullObject, ConnectThrowsThisObjectIsNull) {
  ko::Object null;
  std::function<void(int)> subscriber = [](int) {};
  try {
    null.connect("onPackageInstalled", subscriber);
    FAIL() << "connect on a null object returned";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "This object is null");
  }
}

}  // namespace
