#include <zr/zraudioplayerdesktop.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/testing/testhost.h>
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

// The fake player of tests/support: it records each run in $FAKE_PLAYER_LOG (calls: one pid a
// line; <pid>.args: its argument vector; <pid>.signal: "15" when ended by that signal), plays
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
    if (std::chrono::steady_clock::now() > deadline) {
      return done();
    }
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
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
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
    soundDir_ = host_.root() + "/sounds";
    boost::filesystem::create_directories(soundDir_);
    clearFakeSettings();
    setenv("FAKE_PLAYER_LOG", soundDir_.c_str(), 1);
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
    for (const char* name : {"FAKE_PLAYER_LOG", "FAKE_PLAYER_SECONDS", "FAKE_PLAYER_EXIT"}) {
      unsetenv(name);
    }
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
    for (const std::string& line : readLines(soundDir_ + "/calls")) {
      pids.push_back(std::stoi(line));
    }
    return pids;
  }
  std::vector<std::string> argumentsOf(int pid) const {
    return readLines(soundDir_ + "/" + std::to_string(pid) + ".args");
  }
  bool endedBySignal15(int pid) const {
    return readLines(soundDir_ + "/" + std::to_string(pid) + ".signal") ==
           std::vector<std::string>{"15"};
  }
  bool waitForRuns(std::size_t count) const {
    return eventually([&] { return playerPids().size() >= count; });
  }

  /// The records of `category` as "<level> <function>: <message>", in emission order.
  std::vector<std::string> records(const std::string& category = "ZRAudioPlayer") const {
    static const char* const levels[] = {"silent", "fatal",   "error", "warning",
                                         "info",   "verbose", "debug"};
    std::vector<std::string> lines;
    for (const auto& record : host_.logRecords(category)) {
      lines.push_back(std::string(levels[record.level]) + " " + record.function + ": " +
                      record.message);
    }
    return lines;
  }

  TestHost host_;
  std::string savedPath_;
  std::string soundDir_;
};

// Each probe matches only its own extension: given the other's (missing) file, it answers false
// without trying to open it.
TEST(SoundFileProbes, EachMatchesOnlyItsOwnExtension) {
  EXPECT_FALSE(ZR::ZRAudioPlayerDesktop::isAOggFile("/no/such/folder/song.wav"));
  EXPECT_FALSE(ZR::ZRAudioPlayerDesktop::isAWavFile("/no/such/folder/song.ogg"));
}

using PlayerCreation = FakePlayerTest;

TEST_F(PlayerCreation, FailsWhenThePlayerIsNotOnPath) {
  setenv("PATH", (host_.root() + "/no-programs-here").c_str(), 1);
  EXPECT_EQ(failureOf([&] { createPlayer(); }), "ZRAudioPlayer/init: Couldn't find audioplayer");
}

enum FileState { Empty, Missing, Unreadable };

struct PlayCase {
  const char* file;  // in the sounds folder; a name with a folder is passed as it stands
  FileState state;
  const char* method;
  std::vector<float> extraArgs;
  const char* failure;  // "" when played; '@' stands for the file's path
};

class PlayerFormats : public FakePlayerTest, public ::testing::WithParamInterface<PlayCase> {};

// Only the extension decides, in any letter case: a file whose name does not match is refused
// without being opened, one whose name matches must open. Every published play method starts
// the player with the same three arguments (position, volume and balance are not passed on); a
// refused file starts no process.
TEST_P(PlayerFormats, PlaysOnlyWavAndOggFiles) {
  const PlayCase& c = GetParam();
  const std::string name = c.file;
  // A relative name stays relative, under a working folder that does not have it.
  const std::string song = name.find('/') != std::string::npos ? name : soundDir_ + "/" + name;
  if (c.state != Missing) {
    std::ofstream{song};
  }
  if (c.state == Unreadable) {
    if (::geteuid() == 0) {
      GTEST_SKIP() << "root opens any file";
    }
    ASSERT_EQ(::chmod(song.c_str(), 0), 0);
  }
  createPlayer();
  std::vector<ZRValue> args{ZRValue(song)};
  args.insert(args.end(), c.extraArgs.begin(), c.extraArgs.end());
  std::string failure = c.failure;
  if (failure.find('@') != std::string::npos) {
    failure.replace(failure.find('@'), 1, song);
  }

  EXPECT_EQ(failureOf([&] { host_.broker()->call("ZRAudioPlayer", c.method, args); }), failure);

  const auto pids = playerPids();
  if (!failure.empty()) {
    EXPECT_THAT(pids, IsEmpty());
    EXPECT_THAT(records(), IsEmpty());
    return;
  }
  ASSERT_EQ(pids.size(), 1u);
  EXPECT_THAT(argumentsOf(pids[0]),
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
    ::testing::Values(PlayCase{"song.mp3", Empty, "playFile", {}, kRefused},
                      PlayCase{"song.wave", Empty, "playFile", {}, kRefused},
                      PlayCase{"song.wa", Empty, "playFile", {}, kRefused},
                      PlayCase{"song", Empty, "playFile", {}, kRefused},
                      PlayCase{"song.wav.mp3", Empty, "playFile", {}, kRefused},
                      PlayCase{"song.flac", Missing, "playFile", {}, kRefused},
                      PlayCase{"song.wav", Missing, "playFile", {}, kNoWav},
                      PlayCase{"Song.OGG", Missing, "playFile", {}, kNoOgg},
                      PlayCase{"no/such/folder/../song.wav", Missing, "playFile", {}, kNoWav},
                      PlayCase{"locked.wav", Unreadable, "playFile", {}, kNoWav},
                      PlayCase{"SONG.WAV", Empty, "playFile", {}, ""},
                      PlayCase{"song.Ogg", Empty, "playFile", {0.5f, -1.0f}, ""},
                      PlayCase{"empty.wav", Empty, "playFileFromPosition", {12.5f}, ""},
                      PlayCase{
                          "song.mp3.wav", Empty, "playFileFromPosition", {12.5f, 0.2f, 1}, ""}));

using PlaybackEnding = FakePlayerTest;

// Two playbacks at once: stopping the first ends its player with signal 15 and its play returns
// false; the second plays on to its end. Identifiers run up to 2147483646, then wrap to 1.
TEST_F(PlaybackEnding, StopEndsOnlyThatPlaybackWithSignal15) {
  const int first = 2147483646;
  setenv("FAKE_PLAYER_SECONDS", "60", 1);
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
  EXPECT_TRUE(endedBySignal15(pids[0]));
  EXPECT_FALSE(endedBySignal15(pids[1]));
  EXPECT_THAT(records(), IsSupersetOf({"verbose stop: kill " + std::to_string(pids[0]),
                                       std::string("verbose stop: kill ret = 0"),
                                       std::string("warning _playFileFromPosition: Audioplayer "
                                                   "exited abnormally with the code=143")}));

  // Both have ended and left the bookkeeping: stopping them, or an id never used, is silent.
  host_.clearLogs();
  player->stop(first);
  player->stop(1);
  host_.broker()->stop("ZRAudioPlayer", 42);
  EXPECT_THAT(records(), IsEmpty());
  EXPECT_EQ(player->xGenerateUniqueTaskID(), 2);
}

TEST_F(PlaybackEnding, APlayerGoneSinceCreationIsALaunchError) {
  const std::string programs = host_.root() + "/programs";
  const std::string gone = programs + "/sndfile-play";
  boost::filesystem::create_directories(programs);
  boost::filesystem::copy_file(kFakePlayer, gone);
  setenv("PATH", (programs + ":" + savedPath_).c_str(), 1);
  auto player = createPlayer();
  boost::filesystem::remove(gone);
  const std::string song = soundFile("song.wav");

  EXPECT_EQ(failureOf([&] { player->playFile(song); }),
            "ZRAudioPlayer/_playFileFromPosition: Cannot launch " + gone + " --file " + song);
  EXPECT_THAT(records(), ElementsAre("info _playFileFromPosition: Launch " + gone + " " + song +
                                     " -> pid = -1"));
  // Nothing was entered for the failed launch: the stop of its identifier finds nothing.
  player->stop(1);
  EXPECT_EQ(records().size(), 1u);
}

using PlaybackLoop = FakePlayerTest;

TEST_F(PlaybackLoop, LoopsUntilTheRunningPassIsStopped) {
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
    EXPECT_FALSE(endedBySignal15(pids[i])) << "pass " << i;
    EXPECT_EQ(argumentsOf(pids[i]).at(1), song);
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
  EXPECT_TRUE(endedBySignal15(playerPids()[0]));
  EXPECT_EQ(player->xGenerateUniqueTaskID(), 1);
}

using UnsupportedOperations = FakePlayerTest;

// They log under the category spelling "ZRAudioPLayer", which scripts filter on. The playback
// they were aimed at plays on to its end, where an error exit code is only a warning.
TEST_F(UnsupportedOperations, OnlyWarn) {
  setenv("FAKE_PLAYER_SECONDS", "0.3", 1);
  setenv("FAKE_PLAYER_EXIT", "3", 1);
  auto player = createPlayer();
  const std::string song = soundFile("song.wav");
  auto playing = playInBackground(*player, song);
  ASSERT_TRUE(waitForRuns(1));

  host_.broker()->call("ZRAudioPlayer", "pause", {ZRValue(1)});
  EXPECT_EQ(player->loadFile(song), -1);
  player->_play(1, 1.0f, 0.0f, false);

  EXPECT_THAT(records("ZRAudioPLayer"),
              ElementsAre("warning pause: pause is not yet supported",
                          "warning loadFile: LoadFile is not implemented yet...",
                          "warning _play: play is not yet supported"));
  EXPECT_TRUE(playing.get());
  EXPECT_FALSE(endedBySignal15(playerPids()[0]));
  EXPECT_THAT(records(), Contains("warning _playFileFromPosition: Audioplayer exited abnormally "
                                  "with the code=3"));
}

}  // namespace
}  // namespace testing
}  // namespace bexko
