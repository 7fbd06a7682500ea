#include <bexko/services/preferencemanager.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/services/builtinservices.h>
#include <bexko/testing/testhost.h>
#include <zr/zrpreferencesproxy.h>

namespace {

namespace fs = boost::filesystem;
using bexko::testing::TestHost;
using ZR::ZRValue;

const std::string domain = "com.veltra.robotwebpage";

class PreferenceManagerTest : public ::testing::Test {
 protected:
  TestHost host;
  ZR::ZRPreferenceManagerProxy prefs{host.broker()};
};

TEST_F(PreferenceManagerTest, ValuesSurviveAReopen) {
  // Values are stored in the preference file text, whose type fidelity PreferenceXmlFormat checks.
  const ZRValue voice = ZRValue::array(std::string("English"), 0.75f);
  host.setPreference(domain, "Voice", voice);
  host.broker()->shutdown();

  auto broker = ZR::ZRBroker::create("second-host");
  auto services = bexko::services::createBuiltinServices(broker);
  ZR::ZRPreferenceManagerProxy reopened(broker);
  EXPECT_EQ(voice, reopened.getValue(domain, "Voice"));
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
  EXPECT_EQ((std::vector<std::string>{"a.domain", "b.domain"}), prefs.getDomainList());

  prefs.removeValue("a.domain", "only");
  EXPECT_THROW(prefs.getValue("a.domain", "only"), ZR::ZRError);  // a missing key
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
