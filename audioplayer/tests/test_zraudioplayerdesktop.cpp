#include <zr/zraudioplayerdesktop.h>

#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/testing/testhost.h>
#include <ko/log.h>
#include <ko/path.h>
#include <zr/zrerror.h>

namespace bexko {
namespace testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::StartsWith;
using ZR::ZRValue;

// The fake player of tests/support: it records each run beside the file it plays (calls: one pid
// a line; <pid>.args: its argument vector; <pid>.signal: "15" when ended by that signal), plays
// for $FAKE_PLAYER_SECONDS and exits with $FAKE_PLAYER_EXIT.
const std::string kFakePlayer = std::string(BEXKO_FAKE_PLAYER_DIR) + "/sndfile-play";

/// Gives tests access to the player's identifier sequence.
class PlayerUnderTest : public ZR::ZRAudioPlayerDesktop {
 public:
  using ZR::ZRAudioPlayerDesktop::lastTaskId;
  using ZR::ZRAudioPlayerDesktop::ZRAudioPlayerDesktop;
};

/// Polls `done` every 10 ms until it holds or 10 s pass; returns its last value.
bool eventually(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

template <typename T>
bool isReady(std::future<T>& future, int waitMs) {
  return future.wait_for(std::chrono::milliseconds(waitMs)) == std::future_status::ready;
}

std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

/// "module/method: message" of the ZRError that `call` throws, or "" when it succeeds.
std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const ZR::ZRError& e) {
    return e.moduleName() + "/" + e.methodName() + ": " + e.what();
  }
  return "";
}

class FakePlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    savedPath_ = std::getenv("PATH") ? std::getenv("PATH") : "";
    setenv("PATH", (std::string(BEXKO_FAKE_PLAYER_DIR) + ":" + savedPath_).c_str(), 1);
    // Every song is in this folder, so the fake's records are too.
    soundDir_ = host_.root() + "/sounds";
    boost::filesystem::create_directories(soundDir_);
    clearFakeSettings();
  }

  void TearDown() override {
    // Every player this test started has been waited for: none is left as a zombie.
    for (int pid : playerPids()) {
      EXPECT_THAT(readLines("/proc/" + std::to_string(pid) + "/status"),
                  Not(Contains(StartsWith("State:\tZ"))))
          << "player " << pid << " left as a zombie";
    }
    errno = 0;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child process is left";
    EXPECT_EQ(errno, ECHILD);
    setenv("PATH", savedPath_.c_str(), 1);
    clearFakeSettings();
  }

  static void clearFakeSettings() {
    for (const char* name :
         {"FAKE_PLAYER_LOG", "FAKE_PLAYER_SECONDS", "FAKE_PLAYER_EXIT", "FAKE_PLAYER_SETTINGS"})
      unsetenv(name);
  }

  boost::shared_ptr<PlayerUnderTest> createPlayer() {
    return ZR::ZRModule::createModule<PlayerUnderTest>(host_.broker());
  }

  /// Creates an empty file in the sounds folder and returns its path.
  std::string soundFile(const std::string& name) {
    const std::string path = soundDir_ + "/" + name;
    std::ofstream{path};
    return path;
  }

  /// Plays `song` once on another thread; the future holds what the play returned.
  static std::future<bool> playInBackground(PlayerUnderTest& player, const std::string& song) {
    return std::async(std::launch::async, [&player, song] {
      return player._playFileFromPosition(song, 0, 1.0f, 0, false);
    });
  }

  /// Process ids of the fake's runs, in start order.
  std::vector<int> playerPids() const {
    std::vector<int> pids;
    for (const std::string& line : readLines(soundDir_ + "/calls")) pids.push_back(std::stoi(line));
    return pids;
  }
  /// What the fake recorded of run `pid`: ".args" its argument vector, ".signal" {"15"} when
  /// it was ended by that signal (else nothing).
  std::vector<std::string> runRecord(int pid, const char* what) const {
    return readLines(soundDir_ + "/" + std::to_string(pid) + what);
  }
  bool waitForRuns(std::size_t count) const {
    return eventually([&] { return playerPids().size() >= count; });
  }

  /// The records of `category` as "<level> <function>: <message>", in emission order.
  std::vector<std::string> records(const std::string& category = "ZRAudioPlayer") const {
    std::vector<std::string> lines;
    for (const auto& r : host_.logRecords(category)) {
      lines.push_back(std::string(ko::log::levelName(r.level)) + " " + r.function + ": " +
                      r.message);
    }
    return lines;
  }

  TestHost host_;
  std::string savedPath_;
  std::string soundDir_;
};

using PlayerModule = FakePlayerTest;

TEST_F(PlayerModule, FailsToBeCreatedWhenThePlayerIsNotOnPath) {
  setenv("PATH", (host_.root() + "/no-programs-here").c_str(), 1);
  EXPECT_EQ(failureOf([&] { createPlayer(); }), "ZRAudioPlayer/init: Couldn't find audioplayer");
}

// Pause is published but not supported: it only warns, under the category spelling
// "ZRAudioPLayer" that scripts filter on; so does loading a file, which answers -1.
TEST_F(PlayerModule, UnsupportedOperationsOnlyWarn) {
  auto player = createPlayer();
  host_.broker()->call("ZRAudioPlayer", "pause", {ZRValue(1)});
  EXPECT_EQ(player->loadFile(soundFile("song.wav")), -1);
  EXPECT_THAT(records("ZRAudioPLayer"),
              ElementsAre("warning pause: pause is not yet supported",
                          "warning loadFile: LoadFile is not implemented yet..."));
}

struct PlayCase {
  const char* file;  // in the sounds folder; it exists only when it is to be played
  const char* method;
  std::vector<float> extraArgs;
  const char* failure;  // "" when played; '@' stands for the file's path
  friend void PrintTo(const PlayCase& c, std::ostream* os) { *os << c.method << " " << c.file; }
};

class PlayerFormats : public FakePlayerTest, public ::testing::WithParamInterface<PlayCase> {};

// Only the extension decides, in any letter case: a file whose name does not match is refused
// without being opened (none of the refused files exists), one whose name matches must open.
// Every published play method starts the player with the same three arguments (position, volume
// and balance are not passed on); a refused file starts no process.
TEST_P(PlayerFormats, PlaysOnlyWavAndOggFiles) {
  const PlayCase& c = GetParam();
  std::string failure = c.failure;
  const std::string song = failure.empty() ? soundFile(c.file) : soundDir_ + "/" + c.file;
  if (failure.find('@') != std::string::npos) failure.replace(failure.find('@'), 1, song);
  createPlayer();
  std::vector<ZRValue> args{ZRValue(song)};
  args.insert(args.end(), c.extraArgs.begin(), c.extraArgs.end());

  EXPECT_EQ(failureOf([&] { host_.broker()->call("ZRAudioPlayer", c.method, args); }), failure);

  const auto pids = playerPids();
  if (!failure.empty()) {
    EXPECT_THAT(pids, IsEmpty());
    EXPECT_THAT(records(), IsEmpty());
    return;
  }
  ASSERT_EQ(pids.size(), 1u);
  EXPECT_THAT(runRecord(pids[0], ".args"),
              ElementsAre(kFakePlayer, song,
                          "DYLD_LIBRARY_PATH=" +
                              (boost::filesystem::path(ko::path::sdkPrefix()) / "lib").string()));
  // The launch is the only record: the player ended normally.
  EXPECT_THAT(records(), ElementsAre("info _playFileFromPosition: Launch " + kFakePlayer + " " +
                                     song + " -> pid = " + std::to_string(pids[0])));
}

const char* const kRefused =
    "ZRAudioPlayer/_playFileFromPosition: Format not supported. Only .ogg and .wav are supported";
const char* const kNoWav = "ZRAudioPlayerTask/xIsAWavFile(): Cannot open the wav file \"@\"";
const char* const kNoOgg = "ZRAudioPlayerTask/xIsAOggFile(): Cannot open the ogg file \"@\"";

INSTANTIATE_TEST_SUITE_P(
    Files, PlayerFormats,
    ::testing::Values(PlayCase{"song.mp3", "playFile", {}, kRefused},
                      PlayCase{"song.wave", "playFile", {}, kRefused},
                      PlayCase{"song.wav.mp3", "playFile", {}, kRefused},
                      PlayCase{"song.wav", "playFile", {}, kNoWav},
                      PlayCase{"Song.OGG", "playFile", {}, kNoOgg},
                      PlayCase{"SONG.WAV", "playFile", {}, ""},
                      PlayCase{"song.Ogg", "playFile", {0.5f, -1.0f}, ""},
                      PlayCase{"empty.wav", "playFileFromPosition", {12.5f}, ""},
                      PlayCase{"song.mp3.wav", "playFileFromPosition", {12.5f, 0.2f, 1}, ""}));

using PlaybackEnding = FakePlayerTest;

// Two playbacks at once: stopping the first ends its player with signal 15 and its play returns
// false; the second plays on to its end, where an error exit code is only a warning.
// Identifiers run up to 2147483646, then wrap to 1.
TEST_F(PlaybackEnding, StopEndsOnlyThatPlaybackWithSignal15) {
  const int first = 2147483646;
  // Every variable exists before the first spawn: adding one while a playback thread may still
  // be spawning would reallocate the environment under it. The first playback ends by signal.
  setenv("FAKE_PLAYER_SECONDS", "60", 1);
  setenv("FAKE_PLAYER_EXIT", "3", 1);
  auto player = createPlayer();
  player->lastTaskId = first - 1;
  auto stopped = playInBackground(*player, soundFile("first.wav"));
  ASSERT_TRUE(waitForRuns(1));
  setenv("FAKE_PLAYER_SECONDS", "0.5", 1);
  auto finishing = playInBackground(*player, soundFile("second.wav"));
  ASSERT_TRUE(waitForRuns(2));

  // A stop that comes before the player has entered the process finds nothing, so it is
  // repeated until the playback ends.
  ASSERT_TRUE(eventually([&] {
    player->stop(first);
    return isReady(stopped, 20);
  }));
  EXPECT_FALSE(stopped.get());
  EXPECT_TRUE(finishing.get());
  const auto pids = playerPids();
  EXPECT_THAT(runRecord(pids[0], ".signal"), ElementsAre("15"));
  EXPECT_THAT(runRecord(pids[1], ".signal"), IsEmpty());
  const std::string exited = "warning _playFileFromPosition: Audioplayer exited abnormally with ";
  EXPECT_THAT(records(), IsSupersetOf({"verbose stop: kill " + std::to_string(pids[0]),
                                       exited + "the code=143", exited + "the code=3"}));

  // Both have ended and left the bookkeeping: stopping them, or an id never used, is silent.
  host_.clearLogs();
  player->stop(first);
  player->stop(1);
  host_.broker()->stop("ZRAudioPlayer", 42);
  EXPECT_THAT(records(), IsEmpty());
  EXPECT_EQ(player->xGenerateUniqueTaskID(), 2);
}

// A failed launch is never entered: the stop of its identifier must not signal pid -1, which
// would reach every process of the user.
TEST_F(PlaybackEnding, APlayerGoneSinceCreationIsALaunchError) {
  const std::string gone = host_.root() + "/sndfile-play";
  boost::filesystem::copy_file(kFakePlayer, gone);
  setenv("PATH", (host_.root() + ":" + savedPath_).c_str(), 1);
  auto player = createPlayer();
  boost::filesystem::remove(gone);
  const std::string song = soundFile("song.wav");

  EXPECT_EQ(failureOf([&] { player->playFile(song); }),
            "ZRAudioPlayer/_playFileFromPosition: Cannot launch " + gone + " --file " + song);
  player->stop(1);
  EXPECT_THAT(records(), ElementsAre("info _playFileFromPosition: Launch " + gone + " " + song +
                                     " -> pid = -1"));
}

TEST_F(PlaybackEnding, ALoopRunsUntilItsRunningPassIsStopped) {
  setenv("FAKE_PLAYER_SECONDS", "0.05", 1);
  auto player = createPlayer();
  const std::string song = soundFile("loop.ogg");
  auto looping = std::async(std::launch::async, [&] { player->playFileInLoop(song); });
  ASSERT_TRUE(waitForRuns(3));
  EXPECT_FALSE(isReady(looping, 0));

  // Each pass has a fresh identifier: pass n of a new player runs as task n.
  ASSERT_TRUE(eventually([&] {
    player->stop(static_cast<int>(playerPids().size()));
    return isReady(looping, 5);
  }));
  looping.get();

  const auto pids = playerPids();
  EXPECT_EQ(std::set<int>(pids.begin(), pids.end()).size(), pids.size());
  // The kill may meet a short pass already on its way out, so the signal is checked by the
  // stop tests with long playbacks; here the last pass is the one that was killed.
  EXPECT_THAT(records(), Contains("verbose stop: kill " + std::to_string(pids.back())));
  for (std::size_t i = 0; i + 1 < pids.size(); ++i) {
    EXPECT_THAT(runRecord(pids[i], ".signal"), IsEmpty()) << "pass " << i;
    EXPECT_EQ(runRecord(pids[i], ".args").at(1), song);
  }
}

using PostedPlayback = FakePlayerTest;

// A posted call runs under the host's call id, every pass of a loop included, so the host's
// stop ends it; the player's own identifiers are not used.
TEST_F(PostedPlayback, IsStoppedThroughTheHostByItsCallId) {
  struct Case {
    const char* method;
    std::vector<ZRValue> args;
    const char* seconds;
    std::size_t passes;
  };
  auto player = createPlayer();
  const std::string song = soundFile("song.wav");
  for (const Case& c :
       {Case{"playFile", {ZRValue(song)}, "60", 1},
        Case{"playFileInLoop", {ZRValue(song), ZRValue(0.3f), ZRValue(0.0f)}, "0.05", 3}}) {
    SCOPED_TRACE(c.method);
    setenv("FAKE_PLAYER_SECONDS", c.seconds, 1);
    const std::size_t before = playerPids().size();
    const ZR::ZRPostedCall posted = host_.broker()->post("ZRAudioPlayer", c.method, c.args);
    ASSERT_TRUE(waitForRuns(before + c.passes));
    EXPECT_TRUE(host_.broker()->isRunning(posted.id));

    ASSERT_TRUE(eventually([&] {
      host_.broker()->stop("ZRAudioPlayer", posted.id);
      return host_.broker()->wait(posted.id, 20);
    }));
    EXPECT_THAT(records(), Contains("verbose stop: kill " + std::to_string(playerPids().back())));
  }
  EXPECT_THAT(runRecord(playerPids()[0], ".signal"), ElementsAre("15"));
  EXPECT_EQ(player->xGenerateUniqueTaskID(), 1);
}

using LoopBackOff = FakePlayerTest;

// A player that refuses the file exits at once; the loop used to start it again at once, dozens
// of times a second for as long as the daemon ran. Now it waits 100 ms, then twice as long after
// each further failure, logs the failure once, and a stop ends the wait.
TEST_F(LoopBackOff, ALoopWhosePlayerFailsAtOnceWaitsLongerEachTimeAndStopsAtOnce) {
  setenv("FAKE_PLAYER_SECONDS", "0", 1);
  setenv("FAKE_PLAYER_EXIT", "3", 1);
  createPlayer();
  const std::string song = soundFile("refused.wav");
  const ZR::ZRPostedCall posted =
      host_.broker()->post("ZRAudioPlayer", "playFileInLoop", {ZRValue(song)});
  // Passes start at about 0, 0.1, 0.3, 0.7 and 1.5 s; without the waits there were over 100.
  std::this_thread::sleep_for(std::chrono::seconds(2));
  const std::size_t runs = playerPids().size();
  EXPECT_GE(runs, 2u);
  EXPECT_LE(runs, 8u);

  // The loop is now in a wait of over a second, which the stop cuts short: the loop has no
  // player to kill, and without the stop it would go on for ever.
  host_.broker()->stop("ZRAudioPlayer", posted.id);
  EXPECT_TRUE(host_.broker()->wait(posted.id, 800));
  EXPECT_EQ(posted.result.error(), "");

  std::vector<std::string> warnings;
  for (const std::string& record : records()) {
    if (record.rfind("warning ", 0) == 0) warnings.push_back(record);
  }
  EXPECT_THAT(warnings,
              ElementsAre("warning playFileInLoop: The player failed at once on " + song +
                          " (exit code 3): the loop waits before each new pass, from 100 ms up "
                          "to 5000 ms, until a pass plays"));
  EXPECT_THAT(records(), Contains("verbose playFileInLoop: The player failed at once on " + song +
                                  " 2 times in a row (exit code 3); next pass in 200 ms"));
}

// Passes that play, even ones that end with an error after a while, follow each other without a
// wait; a loop whose player plays again after failing returns to that pace and says so.
TEST_F(LoopBackOff, OnlyPassesThatFailAtOnceAreFollowedByAWait) {
  struct Case {
    const char* seconds;
    const char* exitCode;
  };
  createPlayer();
  const std::string song = soundFile("song.ogg");
  for (const Case& c : {Case{"0.05", "0"}, Case{"0.25", "3"}}) {
    SCOPED_TRACE(std::string(c.seconds) + " s, exit " + c.exitCode);
    setenv("FAKE_PLAYER_SECONDS", c.seconds, 1);
    setenv("FAKE_PLAYER_EXIT", c.exitCode, 1);
    host_.clearLogs();
    const std::size_t before = playerPids().size();
    const ZR::ZRPostedCall posted =
        host_.broker()->post("ZRAudioPlayer", "playFileInLoop", {ZRValue(song)});
    ASSERT_TRUE(waitForRuns(before + 3));
    ASSERT_TRUE(eventually([&] {
      host_.broker()->stop("ZRAudioPlayer", posted.id);
      return host_.broker()->wait(posted.id, 20);
    }));
    for (const std::string& record : records()) {
      EXPECT_EQ(record.find("playFileInLoop"), std::string::npos) << record;
    }
  }
}

TEST_F(LoopBackOff, ALoopThatRecoversSaysSoOnceAndWaitsNoMore) {
  // What the player does is changed through a file the player reads, not the environment,
  // which the loop's thread reads whenever it starts a player.
  const std::string settings =
      (std::filesystem::path(soundFile("song.wav")).parent_path() / "player-settings").string();
  auto writeSettings = [&](const char* text) {
    const std::string temporary = settings + ".tmp";
    std::ofstream(temporary) << text;
    std::filesystem::rename(temporary, settings);
  };
  writeSettings("0 3\n");
  setenv("FAKE_PLAYER_SETTINGS", settings.c_str(), 1);
  createPlayer();
  const std::string song = soundFile("song.wav");
  const ZR::ZRPostedCall posted =
      host_.broker()->post("ZRAudioPlayer", "playFileInLoop", {ZRValue(song)});
  ASSERT_TRUE(waitForRuns(2));
  // From now on the player plays.
  writeSettings("0.05 0\n");
  ASSERT_TRUE(waitForRuns(8));
  ASSERT_TRUE(eventually([&] {
    host_.broker()->stop("ZRAudioPlayer", posted.id);
    return host_.broker()->wait(posted.id, 20);
  }));

  std::vector<std::string> loopRecords;
  for (const std::string& record : records()) {
    if (record.find(" playFileInLoop: ") != std::string::npos) loopRecords.push_back(record);
  }
  ASSERT_GE(loopRecords.size(), 2u);
  EXPECT_EQ(loopRecords.front().rfind("warning playFileInLoop: The player failed at once", 0), 0u);
  // Two or three passes failed, depending on when the change was seen; then it played on.
  EXPECT_THAT(loopRecords.back(), ::testing::AnyOf("info playFileInLoop: The player plays " + song +
                                                       " again after 2 failed passes",
                                                   "info playFileInLoop: The player plays " + song +
                                                       " again after 3 failed passes"));
}

}  // namespace
}  // namespace testing
}  // namespace bexko
