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

TEST_F(PathTest, SearchFoldersFollowXdgOrderThenThePrefix) {
  EXPECT_EQ(ko::path::dataPaths("bexko"),
            (Strings{at("data/bexko"), at("sys1/bexko"), at("sys2/bexko"), at("sdk/share/bexko")}));
  EXPECT_EQ(ko::path::confPaths("bexko"),
            (Strings{at("config/bexko"), at("etcxdg/bexko"), at("sdk/etc/bexko")}));
  // Relative folders are ignored; unset variables fall back to the XDG defaults.
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
  EXPECT_EQ(ko::path::findConf("other", "prefs.xml"), "");
  // Nested files and folders, and the folder itself.
  touch("sys2/bexko/packages/espeak/manifest.json");
  EXPECT_EQ(ko::path::findData("bexko", "packages/espeak/manifest.json"),
            at("sys2/bexko/packages/espeak/manifest.json"));
  EXPECT_EQ(ko::path::findData("bexko", "packages"), at("sys2/bexko/packages"));
  EXPECT_EQ(ko::path::findData("bexko", ""), at("data/bexko"));
  EXPECT_EQ(ko::path::findData("bexko", "missing.xml"), "");
}

TEST_F(PathTest, UserWritableFoldersAreCreatedOrThrow) {
  EXPECT_EQ(ko::path::userWritableDataPath("bexko"), at("data/bexko"));
  env_.set("XDG_CONFIG_HOME", at("deep/er/config"));
  EXPECT_EQ(ko::path::userWritableConfPath("bexko"), at("deep/er/config/bexko"));
  EXPECT_TRUE(fs::is_directory(at("data/bexko")) && fs::is_directory(at("deep/er/config/bexko")));
  touch("data/blocked");
  EXPECT_THROW(ko::path::userWritableDataPath("blocked"), std::runtime_error);
}

TEST_F(PathTest, SdkPrefixComesFromVariableElseFromExecutable) {
  env_.set("BEXKO_SDK_PREFIX", at("sdk") + "/");
  EXPECT_EQ(ko::path::sdkPrefix(), at("sdk"));
  env_.unset("BEXKO_SDK_PREFIX");
  // The test executable lives in <build>/bin, so the prefix is the build folder.
  const std::string build = fs::canonical("/proc/self/exe").parent_path().parent_path().string();
  EXPECT_EQ(ko::path::sdkPrefix(), build);
  EXPECT_EQ(ko::path::dataPaths("app").back(), build + "/share/app");
}

TEST_F(PathTest, FindBinSearchesPathForExecutablesOnly) {
  touch("bin1/tool");
  fs::create_directories(root_ / "bin2/tool");  // a folder, not a program
  touch("bin3/tool", 0755);
  touch("bin4/tool", 0755);
  env_.set("PATH", at("bin1") + ":" + at("bin2") + ":" + at("bin3") + ":" + at("bin4") + ":/bin");
  EXPECT_EQ(ko::path::findBin("tool"), at("bin3/tool"));
  EXPECT_EQ(ko::path::findBin("absent"), "");
  EXPECT_EQ(ko::path::findBin(""), "");
  EXPECT_EQ(fs::path(ko::path::findBin("sh")).filename(), "sh");
  // A name with a slash is checked itself.
  EXPECT_EQ(ko::path::findBin(at("bin3/tool")), at("bin3/tool"));
  EXPECT_EQ(ko::path::findBin(at("bin1/tool")), "");
  EXPECT_EQ(ko::path::findBin(at("bin3/none")), "");
}

TEST(OsFolders, TmpAndHomeComeFromTheEnvironmentElseTheDefaults) {
  EnvGuard env;
  env.set("TMPDIR", "/var/tmp/bexko/");
  env.set("HOME", "/some/home/");
  EXPECT_EQ(ko::os::tmp() + " " + ko::os::home(), "/var/tmp/bexko /some/home");
  env.unset("TMPDIR");
  env.unset("HOME");
  const passwd* entry = ::getpwuid(::getuid());
  ASSERT_NE(entry, nullptr);
  std::string expected = entry->pw_dir;
  while (expected.size() > 1 && expected.back() == '/') expected.pop_back();
  EXPECT_EQ(ko::os::tmp() + " " + ko::os::home(), "/tmp " + expected);
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
      {{"sh", "-c", "exit 0"}, 0},
      {{"sh", "-c", "exit 1"}, 1},
      {{"sh", "-c", "exit 255"}, 255},
      {{"sh", "-c", "exit $#", "name", "one", "two words", ""}, 3},
      {{"sh", "-c", "test \"$1\" = 'two words'", "name", "two words"}, 0},
      {{"sh", "-c", "exit $BEXKO_SPAWN_TEST"}, 42}};
  for (const auto& [argv, status] : cases)
    EXPECT_EQ(waitFor(ko::os::spawnvp(argv)), status) << argv[2];
  // Refused spawns return -1 and leave no child behind.
  const char* missing[] = {"bexko-no-such-program-xyz", "arg", nullptr};
  const char* empty[] = {nullptr};
  EXPECT_EQ(ko::os::spawnvp(missing), -1);
  EXPECT_EQ(ko::os::spawnvp(Strings{"/no/such/dir/program"}), -1);
  EXPECT_EQ(ko::os::spawnvp(empty), -1);
  EXPECT_EQ(ko::os::spawnvp(static_cast<const char* const*>(nullptr)), -1);
  EXPECT_EQ(ko::os::spawnvp(Strings{}), -1);
}

// The child gets the default signal handling even when the parent blocks and ignores SIGTERM.
TEST_F(OsProcess, KilledChildReportsSignalPlus128) {
  sigset_t blockTerm;
  sigemptyset(&blockTerm);
  sigaddset(&blockTerm, SIGTERM);
  sigset_t previousMask;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blockTerm, &previousMask), 0);
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction previousAction {};
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

  // Neither a collected child nor a process that is not ours can be waited for or killed.
  const int pid = ko::os::spawnvp(Strings{"true"});
  ASSERT_GT(pid, 0);
  EXPECT_EQ(waitFor(pid), 0);
  EXPECT_EQ(ko::os::kill(pid, SIGTERM), -1);
  int status = -1;
  errno = 0;
  EXPECT_EQ(ko::os::waitpid(1, &status), -1);
  EXPECT_EQ(errno, ECHILD);
}

void onAlarm(int) {}

TEST_F(OsProcess, WaitpidRetriesWhenInterruptedBySignal) {
  struct sigaction alarmAction {};
  alarmAction.sa_handler = onAlarm;  // no SA_RESTART: the wait is really interrupted
  struct sigaction previous {};
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
