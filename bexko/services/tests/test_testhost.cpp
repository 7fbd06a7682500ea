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
  // BEXKO_SDK_PREFIX is checked through its effect: PackageManagerTest sees no shipped package.
  const std::string home = env("HOME"), config = env("XDG_CONFIG_HOME");
  std::string root;
  {
    bexko::testing::TestHost host;
    root = host.root();
    EXPECT_EQ(root + "/home", env("HOME"));
    EXPECT_EQ(root + "/config", env("XDG_CONFIG_HOME"));

    ZR::ZRMemoryProxy(host.broker()).raiseEvent("Past", ZR::ZRValue(1));
    EXPECT_TRUE(host.waitForEvent("Past", ZR::ZRValue(1), 0));
    EXPECT_FALSE(host.waitForEvent("Past", ZR::ZRValue(2), 50));
    host.clearEvents();
    EXPECT_FALSE(host.waitForEvent("Past", ZR::ZRValue(1), 0));

    KO_LOG(ko::log::addCategory("tests.testhost"), ko::log::debug, "someFunction")
        << "debug " << 42;
    EXPECT_TRUE(host.hasLog(ko::log::debug, "someFunction", "debug 42"));
    EXPECT_FALSE(host.hasLog(ko::log::info, "someFunction", "debug 42"));
    EXPECT_FALSE(host.hasLog(ko::log::debug, "someFunction", "debug 4"));
    host.clearLogs();
    EXPECT_FALSE(host.hasLog(ko::log::debug, "someFunction", "debug 42"));
  }
  EXPECT_FALSE(boost::filesystem::exists(root));
  EXPECT_EQ(home, env("HOME"));
  EXPECT_EQ(config, env("XDG_CONFIG_HOME"));
}

}  // namespace
