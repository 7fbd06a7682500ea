#include <bexko/testing/testhost.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <zr/zrmemoryproxy.h>

namespace {

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "<unset>";
}

TEST(TestHostTest, RecordsEventsAndLogsInAnIsolatedEnvironment) {
  const std::string home = env("HOME"), config = env("XDG_CONFIG_HOME"),
                    sdk = env("BEXKO_SDK_PREFIX");
  std::string root;
  {
    bexko::testing::TestHost host;
    root = host.root();
    EXPECT_EQ(root + "/home", env("HOME"));
    EXPECT_EQ(root + "/config/bexko", host.configDir());
    EXPECT_EQ(root + "/config", env("XDG_CONFIG_HOME"));
    EXPECT_EQ(root + "/sdk", env("BEXKO_SDK_PREFIX"));

    ZR::ZRMemoryProxy(host.broker()).raiseEvent("Past", ZR::ZRValue(1));
    EXPECT_TRUE(host.waitForEvent("Past", ZR::ZRValue(1), 0));
    EXPECT_FALSE(host.waitForEvent("Past", ZR::ZRValue(2), 50));
    ASSERT_EQ(1u, host.events().size());
    host.clearEvents();
    EXPECT_FALSE(host.waitForEvent("Past", ZR::ZRValue(1), 0));

    KO_LOG(ko::log::addCategory("tests.testhost"), ko::log::debug, "someFunction")
        << "debug " << 42;
    EXPECT_TRUE(host.hasLog(ko::log::debug, "someFunction", "debug 42"));
    EXPECT_FALSE(host.hasLog(ko::log::info, "someFunction", "debug 42"));
    EXPECT_FALSE(host.hasLog(ko::log::debug, "someFunction", "debug 4"));
    EXPECT_EQ(1u, host.logRecords("tests.testhost").size());
    host.clearLogs();
    EXPECT_TRUE(host.logRecords("tests.testhost").empty());
  }
  EXPECT_FALSE(boost::filesystem::exists(root));
  EXPECT_EQ(home, env("HOME"));
  EXPECT_EQ(config, env("XDG_CONFIG_HOME"));
  EXPECT_EQ(sdk, env("BEXKO_SDK_PREFIX"));
}

}  // namespace
