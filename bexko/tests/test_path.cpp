#include <ko/path.h>

#include <pwd.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "support.h"

namespace {

using namespace bexko::test;

/// A private XDG tree under the test root: user and system folders for data and
/// configuration, and an installation prefix.
class PathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env_.set("XDG_DATA_HOME", at("data"));
    env_.set("XDG_DATA_DIRS", at("sys1") + ":" + at("sys2"));
    env_.set("XDG_CONFIG_HOME", at("config"));
    env_.set("XDG_CONFIG_DIRS", at("etcxdg"));
    env_.set("BEXKO_SDK_PREFIX", at("sdk"));
  }
  std::string at(const std::string& relative) const { return (root_ / relative).string(); }
  /// Creates a file with mode `mode`, and its folders.
  void touch(const std::string& relative, int mode = 0644) const {
    fs::create_directories((root_ / relative).parent_path());
    std::ofstream(root_ / relative) << "x";
    fs::permissions(root_ / relative, fs::perms(mode));
  }

  const fs::path root_ = freshFolder("path");
  EnvGuard env_;
};

// The XDG order itself is shown by the lookups below.
TEST_F(PathTest, SearchFoldersSkipRelativeOnesAndFallBackToTheXdgDefaults) {
  env_.set("HOME", at("home"));
  env_.set("XDG_DATA_HOME", "relative/data");
  env_.set("XDG_DATA_DIRS", "relative:" + at("sys1") + "/");
  EXPECT_EQ(ko::path::dataPaths("app"),
            (Strings{at("home/.local/share/app"), at("sys1/app"), at("sdk/share/app")}));
  for (auto name : {"XDG_DATA_HOME", "XDG_DATA_DIRS", "XDG_CONFIG_HOME", "XDG_CONFIG_DIRS"}) {
    env_.unset(name);
  }
  EXPECT_EQ(ko::path::dataPaths("app"),
            (Strings{at("home/.local/share/app"), "/usr/local/share/app", "/usr/share/app",
                     at("sdk/share/app")}));
  EXPECT_EQ(ko::path::confPaths("app"),
            (Strings{at("home/.config/app"), "/etc/xdg/app", at("sdk/etc/app")}));
}

TEST_F(PathTest, FindPrefersUserThenSystemThenPrefix) {
  for (std::string folder : {"sdk/share", "sys2", "sys1", "data"}) {
    touch(folder + "/bexko/voices.xml");
    EXPECT_EQ(ko::path::findData("bexko", "voices.xml"), at(folder + "/bexko/voices.xml"));
  }
  EXPECT_EQ(ko::path::findData("bexko", "voices.xml", true), at("sys1/bexko/voices.xml"));
  touch("data/bexko/prefs.xml");  // configuration is searched in its own folders only
  EXPECT_EQ(ko::path::findConf("bexko", "prefs.xml"), "");
  for (std::string folder : {"sdk/etc", "etcxdg", "config"}) {
    touch(folder + "/bexko/prefs.xml");
    EXPECT_EQ(ko::path::findConf("bexko", "prefs.xml"), at(folder + "/bexko/prefs.xml"));
  }
  EXPECT_EQ(ko::path::findConf("bexko", "prefs.xml", true), at("etcxdg/bexko/prefs.xml"));
  // Folders are found too, and an empty name gives the first folder itself.
  touch("sys2/bexko/packages/espeak/manifest.json");
  EXPECT_EQ(ko::path::findData("bexko", "packages"), at("sys2/bexko/packages"));
  EXPECT_EQ(ko::path::findData("bexko", ""), at("data/bexko"));
}

TEST_F(PathTest, UserWritableFoldersAreCreatedOrThrow) {
  EXPECT_EQ(ko::path::userWritableDataPath("bexko"), at("data/bexko"));
  env_.set("XDG_CONFIG_HOME", at("deep/er/config"));
  EXPECT_EQ(ko::path::userWritableConfPath("bexko"), at("deep/er/config/bexko"));
  EXPECT_TRUE(fs::is_directory(at("data/bexko")) && fs::is_directory(at("deep/er/config/bexko")));
  touch("data/blocked");
  EXPECT_THROW(ko::path::userWritableDataPath("blocked"), std::runtime_error);
}

// A file that is not executable and a folder are skipped; a name with a slash is checked itself.
TEST_F(PathTest, FindBinSearchesPathForExecutablesOnly) {
  touch("bin1/tool");
  fs::create_directories(root_ / "bin2/tool");
  touch("bin3/tool", 0755);
  touch("bin4/tool", 0755);
  env_.set("PATH", at("bin1") + ":" + at("bin2") + ":" + at("bin3") + ":" + at("bin4"));
  EXPECT_EQ(ko::path::findBin("tool"), at("bin3/tool"));
  EXPECT_EQ(ko::path::findBin(at("bin3/tool")), at("bin3/tool"));
  EXPECT_EQ(ko::path::findBin(at("bin1/tool")), "");
}

// HOME from the environment is shown with the XDG folders above.
TEST(OsFolders, TmpComesFromTheEnvironmentAndHomeElseFromTheUserDatabase) {
  EnvGuard env;
  env.set("TMPDIR", "/var/tmp/bexko/");
  env.unset("HOME");
  const passwd* entry = ::getpwuid(::getuid());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(ko::os::tmp() + " " + ko::os::home(), "/var/tmp/bexko " + std::string(entry->pw_dir));
  env.unset("TMPDIR");
  EXPECT_EQ(ko::os::tmp(), "/tmp");
}

// Processes --------------------------------------------------------------------------------------

/// Whether this process still has a child to collect (a zombie or a running one).
bool hasChildren() {
  errno = 0;
  return !(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);
}

class OsProcess : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(hasChildren()) << "a previous test left a child behind"; }
  void TearDown() override { EXPECT_FALSE(hasChildren()) << "this test left a child behind"; }

  /// Waits for `pid` and returns its status as waitpid reports it.
  static int waitFor(int pid) {
    EXPECT_GT(pid, 0);
    int status = -1;
    EXPECT_EQ(ko::os::waitpid(pid, &status), 0);
    return status;
  }
};

TEST_F(OsProcess, WaitpidReportsTheExitCodeOfTheChild) {
  EnvGuard env;
  env.set("BEXKO_SPAWN_TEST", "42");
  // Arguments arrive intact ($# counts those after the script's own name) and the child
  // inherits the environment.
  const std::pair<Strings, int> cases[] = {
      {{"sh", "-c", "exit 255"}, 255},
      {{"sh", "-c", "exit $#", "name", "one", "two words", ""}, 3},
      {{"sh", "-c", "test \"$1\" = 'two words'", "name", "two words"}, 0},
      {{"sh", "-c", "exit $BEXKO_SPAWN_TEST"}, 42}};
  for (const auto& [argv, status] : cases)
    EXPECT_EQ(waitFor(ko::os::spawnvp(argv)), status) << argv[2];
  // Refused spawns return -1 and leave no child behind.
  EXPECT_EQ(ko::os::spawnvp(Strings{"bexko-no-such-program-xyz", "arg"}), -1);
  EXPECT_EQ(ko::os::spawnvp(static_cast<const char* const*>(nullptr)), -1);
  EXPECT_EQ(ko::os::spawnvp(Strings{}), -1);
}

// The child gets the default signal handling even when the parent blocks and ignores SIGTERM.
TEST_F(OsProcess, KilledChildReportsSignalPlus128) {
  sigset_t blockTerm, previousMask;
  sigemptyset(&blockTerm);
  sigaddset(&blockTerm, SIGTERM);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blockTerm, &previousMask), 0);
  struct sigaction ignore {
  }, previousAction{};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGTERM, &ignore, &previousAction), 0);
  const int terminated = ko::os::spawnvp(Strings{"sleep", "20"});
  const int killed = ko::os::spawnvp(Strings{"sleep", "20"});
  sigaction(SIGTERM, &previousAction, nullptr);
  pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  ASSERT_TRUE(terminated > 0 && killed > 0);
  usleep(100 * 1000);  // time to exec, so that the signal meets the program itself
  EXPECT_EQ(ko::os::kill(terminated, SIGTERM), 0);
  EXPECT_EQ(ko::os::kill(killed, SIGKILL), 0);
  EXPECT_EQ(waitFor(terminated), 143);
  EXPECT_EQ(waitFor(killed), 128 + SIGKILL);
  // A process that is not our child cannot be waited for.
  errno = 0;
  EXPECT_EQ(ko::os::waitpid(1, nullptr), -1);
  EXPECT_EQ(errno, ECHILD);
}

void onAlarm(int) {}

TEST_F(OsProcess, WaitpidRetriesWhenInterruptedBySignal) {
  struct sigaction alarmAction {
  }, previous{};
  alarmAction.sa_handler = onAlarm;  // no SA_RESTART: the wait is really interrupted
  ASSERT_EQ(sigaction(SIGALRM, &alarmAction, &previous), 0);
  const int pid = ko::os::spawnvp(Strings{"sh", "-c", "sleep 1; exit 5"});
  itimerval timer{};
  timer.it_value.tv_usec = 100 * 1000;
  setitimer(ITIMER_REAL, &timer, nullptr);
  const int status = waitFor(pid);
  sigaction(SIGALRM, &previous, nullptr);
  EXPECT_EQ(status, 5);
}

}  // namespace
