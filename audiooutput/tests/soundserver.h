#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/filesystem.hpp>

#include <bexko/audiooutput/pulseoutput.h>

extern char** environ;

namespace bexko::audiooutput::testing {

/// A sound server for the tests alone: a null sink named "bexkotest" behind a socket in a
/// temporary folder that is also the server's HOME and runtime folder, so that it meets no
/// session and no user file. Should a test die without stopping it, it exits by itself once
/// no client has been connected for 20 s (the tests keep a stream open while they run).
class SoundServer {
 public:
  static constexpr const char* sink = "bexkotest";

  SoundServer() {
    namespace fs = boost::filesystem;
    const char* testRoot = std::getenv("BEXKO_TEST_ROOT");
    root = (testRoot ? fs::path(testRoot) : fs::temp_directory_path()) /
           fs::unique_path("sound-%%%%-%%%%");
    for (const char* sub : {"home", "runtime", "runtime/pulse", "state"}) {
      fs::create_directories(root / sub);
      chmod((root / sub).c_str(), 0700);
    }
    socket = (root / "native").string();
  }
  ~SoundServer() {
    stop();
    boost::system::error_code ignored;
    boost::filesystem::remove_all(root, ignored);
  }
  SoundServer(const SoundServer&) = delete;
  SoundServer& operator=(const SoundServer&) = delete;

  /// The address for PulseOutputOptions::server.
  std::string address() const { return "unix:" + socket; }

  /// Starts the server and waits until a stream opens on it; returns an empty string on
  /// success, else why the server cannot run here.
  std::string start() {
    const std::vector<std::string> arguments = {
        "pulseaudio",
        "--daemonize=no",
        "--system=no",
        "--exit-idle-time=20",
        "-n",
        "--use-pid-file=no",
        "--log-target=file:" + (root / "server.log").string(),
        std::string("--load=module-null-sink sink_name=") + sink + " rate=22050",
        "--load=module-native-protocol-unix auth-anonymous=1 socket=" + socket};
    std::vector<std::string> environment = {
        "HOME=" + (root / "home").string(),
        "XDG_RUNTIME_DIR=" + (root / "runtime").string(),
        "XDG_CONFIG_HOME=" + (root / "home").string(),
        "PULSE_RUNTIME_PATH=" + (root / "runtime/pulse").string(),
        "PULSE_STATE_PATH=" + (root / "state").string(),
        "LANG=C.UTF-8"};
    if (const char* path = std::getenv("PATH")) environment.push_back(std::string("PATH=") + path);
    std::vector<char*> argv;
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    if (posix_spawnp(&pid, "pulseaudio", nullptr, nullptr, argv.data(), envp.data()) != 0) {
      pid = 0;
      return "pulseaudio cannot be started (is it installed? scripts/install-deps.sh)";
    }
    std::string lastError;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid, &status, WNOHANG) == pid) {
        pid = 0;
        return "pulseaudio exited with status " + std::to_string(WEXITSTATUS(status)) + "; see " +
               (root / "server.log").string();
      }
      if (boost::filesystem::exists(socket)) {
        try {
          PulseOutputOptions options;
          options.server = address();
          options.sink = sink;
          keeper = std::make_unique<PulseOutput>(options);
          // Idle, the null sink renders blocks of up to two seconds and adopts a new stream's
          // latency only when its current block ends, so that the first audio of every test
          // would wait for it. A stream kept open keeps the sink's latency low, as the host's
          // own stream does; the drain returns once the sink has taken it on.
          const std::vector<char> silence(options.sampleInfo.bytesPerFrame() * 441);
          keeper->write(silence.data(), silence.size());
          keeper->drain();
          return {};
        } catch (const std::exception& e) {
          lastError = e.what();
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return "pulseaudio did not answer within 15 s: " + lastError;
  }

  void stop() {
    keeper.reset();
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    pid = 0;
  }

 private:
  boost::filesystem::path root;
  std::string socket;
  pid_t pid = 0;
  std::unique_ptr<PulseOutput> keeper;
};

}  // namespace bexko::audiooutput::testing
