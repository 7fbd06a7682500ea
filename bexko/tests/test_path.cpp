#include <ko/path.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "envguard.h"

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

/// A private XDG tree under the test root: user and system folders for data and
/// configuration, and an installation prefix.
class PathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* testRoot = std::getenv("BEXKO_TEST_ROOT");
    ASSERT_NE(testRoot, nullptr);
    root_ = fs::path(testRoot) / ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(root_);  // a repeated run starts from an empty tree
    fs::create_directories(root_);
    env_.set("XDG_DATA_HOME", (root_ / "data").string());
    env_.set("XDG_DATA_DIRS", (root_ / "sys1").string() + ":" + (root_ / "sys2").string());
    env_.set("XDG_CONFIG_HOME", (root_ / "config").string());
    env_.set("XDG_CONFIG_DIRS", (root_ / "etcxdg").string());
    env_.set("BEXKO_SDK_PREFIX", (root_ / "sdk").string());
  }

  std::string at(const std::string& relative) const { return (root_ / relative).string(); }

  void touch(const std::string& relative) const {
    fs::create_directories((root_ / relative).parent_path());
    std::ofstream(root_ / relative) << "x";
  }

  fs::path root_;
  bexko::test::EnvGuard env_;
};

TEST_F(PathTest, DataPathsFollowXdgOrderThenPrefix) {
  EXPECT_EQ(ko::path::dataPaths("bexko"),
            (Strings{at("data/bexko"), at("sys1/bexko"), at("sys2/bexko"), at("sdk/share/bexko")}));
}

TEST_F(PathTest, ConfPathsFollowXdgOrderThenPrefix) {
  EXPECT_EQ(ko::path::confPaths("bexko"),
            (Strings{at("config/bexko"), at("etcxdg/bexko"), at("sdk/etc/bexko")}));
}

TEST_F(PathTest, UnsetVariablesFallBackToXdgDefaults) {
  env_.set("HOME", at("home"));
  env_.unset("XDG_DATA_HOME");
  env_.unset("XDG_DATA_DIRS");
  env_.unset("XDG_CONFIG_HOME");
  env_.unset("XDG_CONFIG_DIRS");
  EXPECT_EQ(ko::path::dataPaths("app"),
            (Strings{at("home/.local/share/app"), "/usr/local/share/app", "/usr/share/app",
                     at("sdk/share/app")}));
  EXPECT_EQ(ko::path::confPaths("app"),
            (Strings{at("home/.config/app"), "/etc/xdg/app", at("sdk/etc/app")}));
}

TEST_F(PathTest, RelativeXdgFoldersAreIgnored) {
  env_.set("HOME", at("home"));
  env_.set("XDG_DATA_HOME", "relative/data");
  env_.set("XDG_DATA_DIRS", "relative:" + at("sys1") + "/");
  EXPECT_EQ(ko::path::dataPaths("app"),
            (Strings{at("home/.local/share/app"), at("sys1/app"), at("sdk/share/app")}));
}

TEST_F(PathTest, FindDataPrefersUserThenSystemThenPrefix) {
  touch("sdk/share/bexko/voices.xml");
  EXPECT_EQ(ko::path::findData("bexko", "voices.xml"), at("sdk/share/bexko/voices.xml"));
  touch("sys2/bexko/voices.xml");
  EXPECT_EQ(ko::path::findData("bexko", "voices.xml"), at("sys2/bexko/voices.xml"));
  touch("sys1/bexko/voices.xml");
  EXPECT_EQ(ko::path::findData("bexko", "voices.xml"), at("sys1/bexko/voices.xml"));
  touch("data/bexko/voices.xml");
  EXPECT_EQ(ko::path::findData("bexko", "voices.xml"), at("data/bexko/voices.xml"));
  EXPECT_EQ(ko::path::findData("bexko", "voices.xml", true), at("sys1/bexko/voices.xml"));
}

TEST_F(PathTest, FindConfSearchesConfigurationFoldersOnly) {
  touch("data/bexko/prefs.xml");
  EXPECT_EQ(ko::path::findConf("bexko", "prefs.xml"), "");
  touch("etcxdg/bexko/prefs.xml");
  EXPECT_EQ(ko::path::findConf("bexko", "prefs.xml"), at("etcxdg/bexko/prefs.xml"));
  touch("config/bexko/prefs.xml");
  EXPECT_EQ(ko::path::findConf("bexko", "prefs.xml"), at("config/bexko/prefs.xml"));
  EXPECT_EQ(ko::path::findConf("bexko", "prefs.xml", true), at("etcxdg/bexko/prefs.xml"));
  EXPECT_EQ(ko::path::findConf("other", "prefs.xml"), "");
}

TEST_F(PathTest, FindsNestedFilesAndFolders) {
  touch("sys2/bexko/packages/espeak/manifest.json");
  EXPECT_EQ(ko::path::findData("bexko", "packages/espeak/manifest.json"),
            at("sys2/bexko/packages/espeak/manifest.json"));
  EXPECT_EQ(ko::path::findData("bexko", "packages"), at("sys2/bexko/packages"));
  EXPECT_EQ(ko::path::findData("bexko", ""), at("sys2/bexko"));
  EXPECT_EQ(ko::path::findData("bexko", "missing.xml"), "");
}

TEST_F(PathTest, UserWritableFoldersAreCreated) {
  EXPECT_EQ(ko::path::userWritableDataPath("bexko"), at("data/bexko"));
  EXPECT_TRUE(fs::is_directory(at("data/bexko")));
  env_.set("XDG_CONFIG_HOME", at("deep/er/config"));
  EXPECT_EQ(ko::path::userWritableConfPath("bexko"), at("deep/er/config/bexko"));
  EXPECT_TRUE(fs::is_directory(at("deep/er/config/bexko")));
}

TEST_F(PathTest, UserWritableFolderBlockedByFileThrows) {
  touch("data/blocked");
  EXPECT_THROW(ko::path::userWritableDataPath("blocked"), std::runtime_error);
}

TEST_F(PathTest, SdkPrefixComesFromVariableElseFromExecutable) {
  EXPECT_EQ(ko::path::sdkPrefix(), at("sdk"));
  env_.set("BEXKO_SDK_PREFIX", at("sdk") + "/");
  EXPECT_EQ(ko::path::sdkPrefix(), at("sdk"));
  env_.unset("BEXKO_SDK_PREFIX");
  // The test executable lives in <build>/bin, so the prefix is the build folder.
  const fs::path executable = fs::canonical("/proc/self/exe");
  EXPECT_EQ(ko::path::sdkPrefix(), executable.parent_path().parent_path().string());
  EXPECT_EQ(ko::path::dataPaths("app").back(),
            executable.parent_path().parent_path().string() + "/share/app");
}

class PathFindBin : public PathTest {
 protected:
  void makeProgram(const std::string& relative, mode_t mode) const {
    touch(relative);
    fs::permissions(root_ / relative, static_cast<fs::perms>(mode));
  }
};

TEST_F(PathFindBin, SearchesPathInOrderAndSkipsNonExecutables) {
  makeProgram("bin1/tool", 0644);
  fs::create_directories(root_ / "bin2/tool");  // a folder, not a program
  makeProgram("bin3/tool", 0755);
  makeProgram("bin4/tool", 0755);
  env_.set("PATH", at("bin1") + ":" + at("bin2") + ":" + at("bin3") + ":" + at("bin4"));
  EXPECT_EQ(ko::path::findBin("tool"), at("bin3/tool"));
  EXPECT_EQ(ko::path::findBin("absent"), "");
  EXPECT_EQ(ko::path::findBin(""), "");
}

TEST_F(PathFindBin, NameWithSlashIsCheckedItself) {
  makeProgram("bin/tool", 0755);
  makeProgram("bin/data", 0644);
  EXPECT_EQ(ko::path::findBin(at("bin/tool")), at("bin/tool"));
  EXPECT_EQ(ko::path::findBin(at("bin/data")), "");
  EXPECT_EQ(ko::path::findBin(at("bin/none")), "");
}

TEST_F(PathFindBin, FindsSystemShell) {
  const std::string shell = ko::path::findBin("sh");
  ASSERT_FALSE(shell.empty());
  EXPECT_EQ(shell[0], '/');
  EXPECT_EQ(fs::path(shell).filename(), "sh");
}

}  // namespace
