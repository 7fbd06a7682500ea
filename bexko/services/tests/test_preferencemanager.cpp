#include <bexko/services/preferencemanager.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/services/builtinservices.h>
#include <bexko/testing/testhost.h>
#include <zr/zrpreferencesproxy.h>

namespace {

namespace fs = boost::filesystem;
using bexko::testing::TestHost;
using ::testing::Property;
using ::testing::StartsWith;
using ::testing::Throws;
using ZR::ZRValue;

const std::string domain = "com.veltra.robotwebpage";

class PreferenceManagerTest : public ::testing::Test {
 protected:
  TestHost host;
  ZR::ZRPreferenceManagerProxy prefs{host.broker()};
};

TEST_F(PreferenceManagerTest, ValuesKeepTheirTypeAcrossAReopen) {
  // Value equality compares the type too: 1 is not 1.0f.
  const ZRValue tree(ZRValue::Array{ZRValue("English"), ZRValue(""), ZRValue(-2147483647 - 1),
                                    ZRValue(0.1f), ZRValue(false), ZRValue(),
                                    ZRValue::array(std::string("a"), 2.5f), ZRValue::Array{}});
  host.setPreference(domain, "Tree", tree);
  host.setPreference("other", "Volume", ZRValue(0.75f));
  host.broker()->shutdown();

  auto broker = ZR::ZRBroker::create("second-host");
  auto services = bexko::services::createBuiltinServices(broker);
  ZR::ZRPreferenceManagerProxy reopened(broker);
  EXPECT_EQ(tree, reopened.getValue(domain, "Tree"));
  EXPECT_EQ(ZRValue(0.75f), reopened.getValue("other", "Volume"));
  EXPECT_THAT([&] { reopened.getValue(domain, "ChosenLanguage"); },
              Throws<ZR::ZRError>(Property(
                  &ZR::ZRError::toString, StartsWith("ZRPreferenceManager::getValue: No preference "
                                                     "\"ChosenLanguage\""))));
  broker->shutdown();
}

TEST_F(PreferenceManagerTest, SetReplacesRemoveDeletesAndListsAreSorted) {
  prefs.setValue("b.domain", "zeta", ZRValue("French"));
  prefs.setValue("b.domain", "zeta", ZRValue(2));
  prefs.setValue("b.domain", "alpha", ZRValue("one"));
  prefs.setValue("a.domain", "only", ZRValue(true));
  EXPECT_EQ(ZRValue(ZRValue::Array{ZRValue::array(std::string("alpha"), std::string("one")),
                                   ZRValue::array(std::string("zeta"), 2)}),
            prefs.getValueList("b.domain"));
  EXPECT_EQ(0, prefs.getValueList("unknown.domain").getSize());
  EXPECT_EQ((std::vector<std::string>{"a.domain", "b.domain"}), prefs.getDomainList());

  prefs.removeValue("a.domain", "only");
  EXPECT_THROW(prefs.getValue("a.domain", "only"), ZR::ZRError);
  EXPECT_NO_THROW(prefs.removeValue("a.domain", "only"));
  EXPECT_EQ((std::vector<std::string>{"b.domain"}), prefs.getDomainList());
  EXPECT_THROW(prefs.setValue("", "key", ZRValue(1)), ZR::ZRError);
  EXPECT_THROW(prefs.setValue(domain, "", ZRValue(1)), ZR::ZRError);
}

TEST_F(PreferenceManagerTest, WriterWaitsForAnotherProcessHoldingTheDatabase) {
  const std::string file = host.dataDir() + "/preferences.db";
  EXPECT_FALSE(fs::exists(file));  // created on first use only
  prefs.setValue(domain, "Key", ZRValue(1));
  sqlite3* other = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &other));
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> closer(other, sqlite3_close);
  sqlite3_busy_timeout(other, 5000);
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr));
  auto write = std::async(std::launch::async, [this] { prefs.setValue(domain, "Key", 2); });
  EXPECT_EQ(std::future_status::timeout, write.wait_for(std::chrono::milliseconds(200)));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr));
  EXPECT_NO_THROW(write.get());
  EXPECT_EQ(ZRValue(2), prefs.getValue(domain, "Key"));
}

}  // namespace
