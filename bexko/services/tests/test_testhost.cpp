#include <bexko/testing/testhost.h>

#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <zr/zrmemoryproxy.h>

namespace {

namespace fs = boost::filesystem;
using bexko::testing::TestHost;
using ZR::ZRValue;

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "<unset>";
}

TEST(TestHostTest, IsolatesAndRestoresTheEnvironment) {
  const std::string home = env("HOME"), config = env("XDG_CONFIG_HOME"),
                    sdk = env("BEXKO_SDK_PREFIX");
  std::string root;
  {
    TestHost host;
    root = host.root();
    EXPECT_EQ(root + "/home", env("HOME"));
    EXPECT_EQ(fs::path(host.configDir()).parent_path().string(), env("XDG_CONFIG_HOME"));
    EXPECT_EQ(root + "/data/bexko", host.dataDir());
    EXPECT_TRUE(fs::is_directory(host.dataDir()));
    EXPECT_EQ(root + "/sdk", env("BEXKO_SDK_PREFIX"));
  }
  EXPECT_FALSE(fs::exists(root));
  EXPECT_EQ(home, env("HOME"));
  EXPECT_EQ(config, env("XDG_CONFIG_HOME"));
  EXPECT_EQ(sdk, env("BEXKO_SDK_PREFIX"));
}

TEST(TestHostTest, ShippedPackagesOptionLeavesTheSdkPrefix) {
  const std::string sdk = env("BEXKO_SDK_PREFIX");
  TestHost host(bexko::testing::TestHostOptions{true});
  EXPECT_EQ(sdk, env("BEXKO_SDK_PREFIX"));
}

TEST(TestHostTest, WaitForEventSeesPastAndLaterRaises) {
  TestHost host;
  ZR::ZRMemoryProxy memory(host.broker());
  memory.raiseEvent("Past", ZRValue(1));
  EXPECT_TRUE(host.waitForEvent("Past", ZRValue(1), 0));
  EXPECT_FALSE(host.waitForEvent("Past", ZRValue(2), 50));

  std::thread later([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    memory.raiseEvent("Later", ZRValue("x"));
  });
  EXPECT_TRUE(host.waitForEvent("Later", ZRValue("x"), 20000));
  later.join();

  host.clearEvents();
  EXPECT_FALSE(host.waitForEvent("Past", ZRValue(1), 0));
  EXPECT_TRUE(host.events().empty());
}

TEST(TestHostTest, CapturesLogRecordsExactly) {
  TestHost host;
  auto category = ko::log::addCategory("tests.testhost");
  KO_LOG(category, ko::log::debug, "someFunction") << "debug " << 42;
  EXPECT_TRUE(host.hasLog(ko::log::debug, "someFunction", "debug 42"));
  EXPECT_FALSE(host.hasLog(ko::log::info, "someFunction", "debug 42"));
  EXPECT_FALSE(host.hasLog(ko::log::debug, "someFunction", "debug 4"));
  EXPECT_EQ(1u, host.logRecords("tests.testhost").size());
  host.clearLogs();
  EXPECT_TRUE(host.logRecords("tests.testhost").empty());
}

TEST(FakeModuleTest, RecordsCallsAndServesTheBody) {
  TestHost host;
  auto& fake = host.addFakeModule("ZRAnimatedSpeech");
  fake.addMethod("_mrkpauseCallback", 1);
  fake.addMethod("twice", 1,
                 [](const std::vector<ZRValue>& args) { return ZRValue(args.at(0).toInt() * 2); });

  auto proxy = host.broker()->getProxy("ZRAnimatedSpeech");
  proxy->call<void>("_mrkpauseCallback", 3);
  EXPECT_EQ(8, proxy->call<int>("twice", 4));
  EXPECT_THROW(proxy->call<int>("twice", 1, 2), ZR::ZRError);

  ASSERT_TRUE(fake.waitForCalls("_mrkpauseCallback", 1, 0));
  EXPECT_FALSE(fake.waitForCalls("_mrkpauseCallback", 2, 10));
  ASSERT_EQ(2u, fake.calls().size());
  EXPECT_EQ("_mrkpauseCallback", fake.calls()[0].method);
  EXPECT_EQ(std::vector<ZRValue>{ZRValue(3)}, fake.calls()[0].args);
  EXPECT_EQ(1u, fake.calls("twice").size());
}

}  // namespace
