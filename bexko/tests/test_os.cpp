#include <ko/path.h>

#include <pwd.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "envguard.h"

namespace {

/// Whether this process still has a child to collect (a zombie or a running one).
bool hasChildren() {
  errno = 0;
  const pid_t result = ::waitpid(-1, nullptr, WNOHANG);
  return !(result == -1 && errno == ECHILD);
}

TEST(OsFolders, TmpUsesTmpdirWithoutTrailingSlash) {
  bexko::test::EnvGuard env;
  env.set("TMPDIR", "/var/tmp/bexko/");
  EXPECT_EQ(ko::os::tmp(), "/var/tmp/bexko");
  env.unset("TMPDIR");
  EXPECT_EQ(ko::os::tmp(), "/tmp");
}

TEST(OsFolders, HomeUsesHomeElsePasswordDatabase) {
  bexko::test::EnvGuard env;
  env.set("HOME", "/some/home/");
  EXPECT_EQ(ko::os::home(), "/some/home");
  env.unset("HOME");
  const passwd* entry = ::getpwuid(::getuid());
  ASSERT_NE(entry, nullptr);
  std::string expected = entry->pw_dir;
  while (expected.size() > 1 && expected.back() == '/') expected.pop_back();
  EXPECT_EQ(ko::os::home(), expected);
}

// --- Processes ---------------------------------------------------------------------------------

class OsProcess : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(hasChildren()) << "a previous test left a child behind"; }
  void TearDown() override { EXPECT_FALSE(hasChildren()) << "this test left a child behind"; }

  /// Runs `argv` to its end and returns its status as waitpid reports it.
  static int run(const std::vector<std::string>& argv) {
    const int pid = ko::os::spawnvp(argv);
    EXPECT_GT(pid, 0);
    int status = -1;
    EXPECT_EQ(ko::os::waitpid(pid, &status), 0);
    return status;
  }
};

TEST_F(OsProcess, MissingProgramReturnsMinusOneAndLeavesNoZombie) {
  const char* argv[] = {"bexko-no-such-program-xyz", "arg", nullptr};
  EXPECT_EQ(ko::os::spawnvp(argv), -1);
  EXPECT_EQ(ko::os::spawnvp(std::vector<std::string>{"/no/such/dir/program"}), -1);
  EXPECT_FALSE(hasChildren());
}

TEST_F(OsProcess, EmptyArgumentVectorIsRefused) {
  const char* empty[] = {nullptr};
  EXPECT_EQ(ko::os::spawnvp(empty), -1);
  EXPECT_EQ(ko::os::spawnvp(static_cast<const char* const*>(nullptr)), -1);
  EXPECT_EQ(ko::os::spawnvp(std::vector<std::string>{}), -1);
}

TEST_F(OsProcess, WaitpidReportsExitCode) {
  for (int code : {0, 1, 7, 255}) {
    EXPECT_EQ(run({"sh", "-c", "exit " + std::to_string(code)}), code);
  }
}

TEST_F(OsProcess, ArgumentsArriveIntact) {
  // $# counts the arguments after the script's own name.
  EXPECT_EQ(run({"sh", "-c", "exit $#", "name", "one", "two words", ""}), 3);
  EXPECT_EQ(run({"sh", "-c", "test \"$1\" = 'two words'", "name", "two words"}), 0);
}

TEST_F(OsProcess, ChildInheritsEnvironment) {
  bexko::test::EnvGuard env;
  env.set("BEXKO_SPAWN_TEST", "42");
  EXPECT_EQ(run({"sh", "-c", "exit $BEXKO_SPAWN_TEST"}), 42);
}

TEST_F(OsProcess, KilledChildReportsSignalPlus128) {
  const int pid = ko::os::spawnvp(std::vector<std::string>{"sleep", "30"});
  ASSERT_GT(pid, 0);
  EXPECT_EQ(ko::os::kill(pid, 15), 0);
  int status = -1;
  ASSERT_EQ(ko::os::waitpid(pid, &status), 0);
  EXPECT_EQ(status, 143);

  const int second = ko::os::spawnvp(std::vector<std::string>{"sleep", "30"});
  ASSERT_GT(second, 0);
  EXPECT_EQ(ko::os::kill(second, SIGKILL), 0);
  ASSERT_EQ(ko::os::waitpid(second, &status), 0);
  EXPECT_EQ(status, 128 + SIGKILL);
}

TEST_F(OsProcess, ChildCanBeTerminatedEvenWhenParentBlocksOrIgnoresSigterm) {
  sigset_t blockTerm;
  sigemptyset(&blockTerm);
  sigaddset(&blockTerm, SIGTERM);
  sigset_t previousMask;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blockTerm, &previousMask), 0);
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction previousAction {};
  ASSERT_EQ(sigaction(SIGTERM, &ignore, &previousAction), 0);

  const int pid = ko::os::spawnvp(std::vector<std::string>{"sleep", "20"});

  sigaction(SIGTERM, &previousAction, nullptr);
  pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  ASSERT_GT(pid, 0);
  // Give the child time to exec, so that the signal meets the program itself.
  usleep(100 * 1000);
  EXPECT_EQ(ko::os::kill(pid, SIGTERM), 0);
  int status = -1;
  ASSERT_EQ(ko::os::waitpid(pid, &status), 0);
  EXPECT_EQ(status, 143);
}

void onAlarm(int) {}

TEST_F(OsProcess, WaitpidRetriesWhenInterruptedBySignal) {
  struct sigaction alarmAction {};
  alarmAction.sa_handler = onAlarm;
  alarmAction.sa_flags = 0;  // no SA_RESTART: the wait is really interrupted
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGALRM, &alarmAction, &previous), 0);

  const int pid = ko::os::spawnvp(std::vector<std::string>{"sh", "-c", "sleep 1; exit 5"});
  ASSERT_GT(pid, 0);
  itimerval timer{};
  timer.it_value.tv_usec = 100 * 1000;
  setitimer(ITIMER_REAL, &timer, nullptr);
  int status = -1;
  const int result = ko::os::waitpid(pid, &status);
  sigaction(SIGALRM, &previous, nullptr);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(status, 5);
}

TEST_F(OsProcess, WaitpidOnNonChildFails) {
  int status = -1;
  errno = 0;
  EXPECT_EQ(ko::os::waitpid(1, &status), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(OsProcess, KillOfVanishedProcessFails) {
  const int pid = ko::os::spawnvp(std::vector<std::string>{"true"});
  ASSERT_GT(pid, 0);
  int status = -1;
  ASSERT_EQ(ko::os::waitpid(pid, &status), 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ko::os::kill(pid, 15), -1);
}

}  // namespace
