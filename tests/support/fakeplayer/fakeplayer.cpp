// A stand-in for the external sound-file player, for tests that must not need a sound card.
// It is built as "sndfile-play" in a folder of its own, which tests put first on PATH.
//
// Each run records, in the folder $FAKE_PLAYER_LOG (default: the folder of its first argument):
//   calls          one line per run: its process id
//   <pid>.args     its argument vector, argv[0] first, one argument per line
//   <pid>.signal   "15" when it was ended by the termination signal
// It then "plays" for $FAKE_PLAYER_SECONDS (default 0.2) and exits with $FAKE_PLAYER_EXIT
// (default 0). On signal 15 it dies of that signal, as a real player would. When the file
// $FAKE_PLAYER_SETTINGS exists, its "SECONDS EXIT" replace those two: a test changes what the
// next runs do by rewriting the file, without touching the environment of a process whose
// threads may be starting players.
//
// The termination signal is blocked before the run is announced and taken with sigtimedwait,
// so a signal sent at any moment after the announcement ends the run: there is no window
// between installing a handler and starting to wait in which it could be missed.

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace {

namespace fs = std::filesystem;

std::string environment(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value && *value ? value : fallback;
}

long long monotonicNs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

}  // namespace

int main(int argc, char** argv) {
  sigset_t termination;
  sigemptyset(&termination);
  sigaddset(&termination, SIGTERM);
  sigprocmask(SIG_BLOCK, &termination, nullptr);

  fs::path log = environment("FAKE_PLAYER_LOG", "");
  if (log.empty()) log = fs::path(argc > 1 ? argv[1] : ".").parent_path();
  if (log.empty()) log = ".";
  double seconds = std::strtod(environment("FAKE_PLAYER_SECONDS", "0.2").c_str(), nullptr);
  int code = std::atoi(environment("FAKE_PLAYER_EXIT", "0").c_str());
  const std::string settingsFile = environment("FAKE_PLAYER_SETTINGS", "");
  if (!settingsFile.empty()) {
    std::ifstream settings(settingsFile);
    double fileSeconds = 0;
    int fileCode = 0;
    if (settings >> fileSeconds >> fileCode) {
      seconds = fileSeconds;
      code = fileCode;
    }
  }
  const std::string pid = std::to_string(getpid());

  std::error_code ignored;
  fs::create_directories(log, ignored);
  {
    std::ofstream args(log / (pid + ".args"), std::ios::trunc);
    for (int i = 0; i < argc; ++i) args << argv[i] << '\n';
  }
  // Announced once the arguments are written and the signal is blocked, so that a test that
  // saw the run can rely on both.
  {
    std::ofstream calls(log / "calls", std::ios::app);
    calls << pid << '\n';
  }

  const long long end = monotonicNs() + (seconds > 0 ? static_cast<long long>(seconds * 1e9) : 0);
  for (;;) {
    const long long left = end - monotonicNs();
    if (left <= 0) return code;
    const timespec timeout{static_cast<time_t>(left / 1000000000LL),
                           static_cast<long>(left % 1000000000LL)};
    if (sigtimedwait(&termination, nullptr, &timeout) == SIGTERM) break;
    // Otherwise the time is up (EAGAIN) or the wait was interrupted (EINTR): the clock decides.
  }

  {
    std::ofstream signalled(log / (pid + ".signal"), std::ios::trunc);
    signalled << "15\n";
  }
  signal(SIGTERM, SIG_DFL);
  sigprocmask(SIG_UNBLOCK, &termination, nullptr);
  raise(SIGTERM);
  return 128 + SIGTERM;  // not reached: the signal ends the process
}
