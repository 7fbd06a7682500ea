#include <zr/zraudioplayerdesktop.h>

#include <future>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <ko/path.h>
#include <zr/zrerror.h>
#include <zr/zrmethodinfo.h>

#include "fakeplayerfixture.h"

namespace bexko {
namespace testing {
namespace {

using ko::log::LogLevel;
using ZR::ZRValue;

const char* const kFormatError = "Format not supported. Only .ogg and .wav are supported";

std::string expectedLibraryArgument() {
  return "DYLD_LIBRARY_PATH=" + (boost::filesystem::path(ko::path::sdkPrefix()) / "lib").string();
}

// Creation ------------------------------------------------------------------------------------

using PlayerCreation = FakePlayerTest;

TEST_F(PlayerCreation, FindsThePlayerProgramOnPath) {
  const std::string fake = std::string(BEXKO_FAKE_PLAYER_DIR) + "/sndfile-play";
  EXPECT_EQ(ZR::ZRAudioPlayerDesktop::findAudioPlayer(), fake);
  auto player = createPlayer();
  EXPECT_EQ(player->playerPath, fake);
  EXPECT_EQ(host_.broker()->getModuleByName("ZRAudioPlayer"), player);
}

TEST_F(PlayerCreation, InitFailsWhenThePlayerIsNotOnPath) {
  setenv("PATH", (host_.root() + "/no-programs-here").c_str(), 1);
  EXPECT_EQ(ZR::ZRAudioPlayerDesktop::findAudioPlayer(), "");
  try {
    createPlayer();
    FAIL() << "the player module was created without a player program";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRAudioPlayer");
    EXPECT_EQ(e.methodName(), "init");
    EXPECT_EQ(std::string(e.what()), "Couldn't find audioplayer");
  }
  EXPECT_EQ(host_.broker()->getModuleByName("ZRAudioPlayer"), nullptr);
}

TEST_F(PlayerCreation, PublishesItsDocumentedMethodsInOrder) {
  auto player = createPlayer();
  const ZR::ZRModuleInfo info = player->moduleInfo();
  EXPECT_EQ(info.name, "ZRAudioPlayer");
  EXPECT_EQ(info.description, "This module allows to play wav files on BEX");

  const std::string volume = "volume of the sound file (must be between 0.0 and 1.0)";
  const std::string position = "Position in second where the playing has to begin";
  const std::string panCentered =
      "audio balance of the sound file (-1.0 : left / 1.0 : right / 0.0 : centered)";
  const std::string pan = "audio balance of the sound file (-1.0 : left / 1.0 : right)";
  struct Expected {
    std::string name;
    std::string description;
    std::vector<ZR::ZRParameterInfo> parameters;
  };
  const std::vector<Expected> expected = {
      {"playFile", "Plays a wav or mp3 file", {{"fileName", "Path of the sound file"}}},
      {"playFile",
       "Plays a wav or mp3 file, with specific volume and audio balance",
       {{"fileName", "Path of the sound file"}, {"volume", volume}, {"pan", panCentered}}},
      {"playFileInLoop",
       "Plays a wav or mp3 file in loop",
       {{"fileName", "Path of the sound file"}}},
      {"playFileInLoop",
       "Plays a wav or mp3 file in loop, with specific volume and audio balance",
       {{"fileName", "Path of the sound file"}, {"volume", volume}, {"pan", pan}}},
      {"playFileFromPosition",
       "Plays a wav or mp3 file from a given position in the file.",
       {{"fileName", "Name of the sound file"}, {"position", position}}},
      {"playFileFromPosition",
       "Plays a wav or mp3 file from a given position in the file, with specific volume and "
       "audio balance",
       {{"fileName", "Name of the sound file"},
        {"position", position},
        {"volume", volume},
        {"pan", pan}}},
      {"pause",
       "Pause a play back",
       {{"id", "Id of the process that is playing the file you want to put in pause"}}},
  };
  ASSERT_EQ(info.methods.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE(expected[i].name + " #" + std::to_string(i));
    const ZR::ZRMethodInfo& method = info.methods[i];
    EXPECT_EQ(method.name, expected[i].name);
    EXPECT_EQ(method.moduleName, "ZRAudioPlayer");
    EXPECT_EQ(method.description, expected[i].description);
    EXPECT_EQ(method.parameters, expected[i].parameters);
    EXPECT_EQ(method.arity, static_cast<int>(expected[i].parameters.size()));
    EXPECT_FALSE(method.hasReturn);
  }
}

// Formats -------------------------------------------------------------------------------------

using PlayerFormats = FakePlayerTest;

TEST_F(PlayerFormats, Mp3IsRefusedBeforeAnyProcessStarts) {
  auto player = createPlayer();
  const std::string song = soundFile("song.mp3");
  try {
    player->playFile(song);
    FAIL() << "an mp3 file was accepted";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRAudioPlayer");
    EXPECT_EQ(e.methodName(), "_playFileFromPosition");
    EXPECT_EQ(std::string(e.what()), kFormatError);
  }
  EXPECT_TRUE(playerPids().empty());
  EXPECT_TRUE(host_.logRecords("ZRAudioPlayer").empty());
}

TEST_F(PlayerFormats, MissingWavFileFailsWithTheProbeErrorAndStartsNothing) {
  auto player = createPlayer();
  const std::string song = soundDir_ + "/song.wav";
  try {
    host_.broker()->call("ZRAudioPlayer", "playFile", {ZRValue(song)});
    FAIL() << "a missing wav file was played";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRAudioPlayerTask");
    EXPECT_EQ(e.methodName(), "xIsAWavFile()");
    EXPECT_EQ(std::string(e.what()), "Cannot open the wav file \"" + song + "\"");
  }
  EXPECT_TRUE(playerPids().empty());
}

class AcceptedFormat : public FakePlayerTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(AcceptedFormat, IsPlayedToItsEnd) {
  auto player = createPlayer();
  const std::string song = soundFile(GetParam());
  EXPECT_TRUE(player->_playFileFromPosition(song, 0, 1.0f, 0, false));
  ASSERT_EQ(playerPids().size(), 1u);
  EXPECT_EQ(argumentsOf(playerPids()[0]).at(1), song);
}

INSTANTIATE_TEST_SUITE_P(Names, AcceptedFormat,
                         ::testing::Values("SONG.WAV", "song.Ogg", "empty.wav", "song.ogg"));

// The player's command line -------------------------------------------------------------------

struct CallCase {
  const char* method;
  std::vector<ZRValue> extraArgs;
};

class PlayerCommandLine : public FakePlayerTest, public ::testing::WithParamInterface<CallCase> {};

// Every published play method starts the player with the same three arguments: position,
// volume and balance are not passed on.
TEST_P(PlayerCommandLine, IsPlayerPathFileAndLibraryPath) {
  auto player = createPlayer();
  const std::string song = soundFile("song.wav");
  std::vector<ZRValue> args{ZRValue(song)};
  args.insert(args.end(), GetParam().extraArgs.begin(), GetParam().extraArgs.end());

  host_.broker()->call("ZRAudioPlayer", GetParam().method, args);

  const auto pids = playerPids();
  ASSERT_EQ(pids.size(), 1u);
  const std::vector<std::string> expected{std::string(BEXKO_FAKE_PLAYER_DIR) + "/sndfile-play",
                                          song, expectedLibraryArgument()};
  EXPECT_EQ(argumentsOf(pids[0]), expected);
  EXPECT_TRUE(hasRecord(
      "ZRAudioPlayer", ko::log::info, "_playFileFromPosition",
      "Launch " + player->playerPath + " " + song + " -> pid = " + std::to_string(pids[0])));
}

INSTANTIATE_TEST_SUITE_P(Overloads, PlayerCommandLine,
                         ::testing::Values(CallCase{"playFile", {}},
                                           CallCase{"playFile", {ZRValue(0.5f), ZRValue(-1.0f)}},
                                           CallCase{"playFileFromPosition", {ZRValue(12.5f)}},
                                           CallCase{"playFileFromPosition",
                                                    {ZRValue(12.5f), ZRValue(0.2f), ZRValue(1)}}));

// Endings -------------------------------------------------------------------------------------

using PlaybackEnding = FakePlayerTest;

TEST_F(PlaybackEnding, PlaybackThatEndsByItselfReturnsTrue) {
  auto player = createPlayer();
  EXPECT_TRUE(player->_playFileFromPosition(soundFile("song.wav"), 0, 1.0f, 0, false));
  ASSERT_EQ(playerPids().size(), 1u);
  EXPECT_FALSE(endedBySignal15(playerPids()[0]));
  for (const auto& record : host_.logRecords("ZRAudioPlayer")) {
    EXPECT_NE(record.level, ko::log::warning) << record.message;
  }
}

TEST_F(PlaybackEnding, AbnormalExitCodeIsOnlyAWarning) {
  setenv("FAKE_PLAYER_EXIT", "3", 1);
  auto player = createPlayer();
  EXPECT_TRUE(player->_playFileFromPosition(soundFile("song.wav"), 0, 1.0f, 0, false));
  EXPECT_TRUE(hasRecord("ZRAudioPlayer", ko::log::warning, "_playFileFromPosition",
                        "Audioplayer exited abnormally with the code=3"));
}

TEST_F(PlaybackEnding, StopEndsARunningPlaybackWithSignal15) {
  setenv("FAKE_PLAYER_SECONDS", "60", 1);
  auto player = createPlayer();
  const std::string song = soundFile("song.wav");
  auto playing = std::async(std::launch::async,
                            [&] { return player->_playFileFromPosition(song, 0, 1.0f, 0, false); });
  ASSERT_TRUE(waitForRuns(1));
  const int pid = playerPids()[0];

  // The first playback of a player gets the identifier 1. A stop that comes before the player
  // has entered the process finds nothing, so it is repeated until the playback ends.
  ASSERT_TRUE(eventually([&] {
    player->stop(1);
    return playing.wait_for(std::chrono::milliseconds(20)) == std::future_status::ready;
  }));
  EXPECT_FALSE(playing.get());
  EXPECT_TRUE(endedBySignal15(pid));
  EXPECT_TRUE(hasRecord("ZRAudioPlayer", ko::log::verbose, "stop", "kill " + std::to_string(pid)));
  EXPECT_TRUE(hasRecord("ZRAudioPlayer", ko::log::verbose, "stop", "kill ret = 0"));
  EXPECT_TRUE(hasRecord("ZRAudioPlayer", ko::log::warning, "_playFileFromPosition",
                        "Audioplayer exited abnormally with the code=143"));
}

TEST_F(PlaybackEnding, StopOfAnUnknownOrFinishedIdIsSilent) {
  auto player = createPlayer();
  player->playFile(soundFile("song.wav"));
  host_.clearLogs();
  EXPECT_NO_THROW(player->stop(1));   // finished
  EXPECT_NO_THROW(player->stop(42));  // never used
  EXPECT_NO_THROW(host_.broker()->stop("ZRAudioPlayer", 7));
  EXPECT_TRUE(host_.logRecords("ZRAudioPlayer").empty());
}

TEST_F(PlaybackEnding, StoppingOnePlaybackLeavesAnotherRunning) {
  setenv("FAKE_PLAYER_SECONDS", "60", 1);
  auto player = createPlayer();
  const std::string first = soundFile("first.wav");
  auto stopped = std::async(
      std::launch::async, [&] { return player->_playFileFromPosition(first, 0, 1.0f, 0, false); });
  ASSERT_TRUE(waitForRuns(1));
  setenv("FAKE_PLAYER_SECONDS", "0.5", 1);
  const std::string second = soundFile("second.wav");
  auto finishing = std::async(
      std::launch::async, [&] { return player->_playFileFromPosition(second, 0, 1.0f, 0, false); });
  ASSERT_TRUE(waitForRuns(2));

  ASSERT_TRUE(eventually([&] {
    player->stop(1);
    return stopped.wait_for(std::chrono::milliseconds(20)) == std::future_status::ready;
  }));
  EXPECT_FALSE(stopped.get());
  EXPECT_TRUE(finishing.get());
  const auto pids = playerPids();
  EXPECT_TRUE(endedBySignal15(pids[0]));
  EXPECT_FALSE(endedBySignal15(pids[1]));
}

TEST_F(PlaybackEnding, PlayerThatCannotBeStartedIsALaunchError) {
  // A player found at construction that has gone by the time of the call.
  const std::string programs = host_.root() + "/programs";
  boost::filesystem::create_directories(programs);
  boost::filesystem::copy_file(std::string(BEXKO_FAKE_PLAYER_DIR) + "/sndfile-play",
                               programs + "/sndfile-play");
  setenv("PATH", (programs + ":" + savedPath_).c_str(), 1);
  auto player = createPlayer();
  ASSERT_EQ(player->playerPath, programs + "/sndfile-play");
  boost::filesystem::remove(programs + "/sndfile-play");

  const std::string song = soundFile("song.wav");
  try {
    player->playFile(song);
    FAIL() << "a missing player was started";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRAudioPlayer");
    EXPECT_EQ(e.methodName(), "_playFileFromPosition");
    EXPECT_EQ(std::string(e.what()), "Cannot launch " + player->playerPath + " --file " + song);
  }
  EXPECT_TRUE(hasRecord("ZRAudioPlayer", ko::log::info, "_playFileFromPosition",
                        "Launch " + player->playerPath + " " + song + " -> pid = -1"));
  // Nothing was entered for the failed launch: the next identifier's stop finds nothing.
  host_.clearLogs();
  player->stop(1);
  EXPECT_TRUE(host_.logRecords("ZRAudioPlayer").empty());
}

// Loops ---------------------------------------------------------------------------------------

using PlaybackLoop = FakePlayerTest;

TEST_F(PlaybackLoop, LoopsUntilTheRunningPassIsStopped) {
  setenv("FAKE_PLAYER_SECONDS", "0.05", 1);
  auto player = createPlayer();
  const std::string song = soundFile("loop.ogg");
  auto looping = std::async(std::launch::async, [&] { player->playFileInLoop(song); });
  ASSERT_TRUE(waitForRuns(3));
  EXPECT_EQ(looping.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

  // Each pass has a fresh identifier: pass n of a new player runs as task n.
  ASSERT_TRUE(eventually([&] {
    player->stop(static_cast<int>(playerPids().size()));
    return looping.wait_for(std::chrono::milliseconds(5)) == std::future_status::ready;
  }));
  looping.get();

  const auto pids = playerPids();
  EXPECT_GE(pids.size(), 3u);
  EXPECT_EQ(std::set<int>(pids.begin(), pids.end()).size(), pids.size());
  // The kill may meet a short pass already on its way out, so the signal is checked by the
  // stop tests with long playbacks; here the last pass is the one that was killed.
  EXPECT_TRUE(
      hasRecord("ZRAudioPlayer", ko::log::verbose, "stop", "kill " + std::to_string(pids.back())));
  for (std::size_t i = 0; i + 1 < pids.size(); ++i) {
    EXPECT_FALSE(endedBySignal15(pids[i])) << "pass " << i;
    EXPECT_EQ(argumentsOf(pids[i]).at(1), song);
  }
}

TEST_F(PlaybackLoop, PublishedLoopWithVolumeAndPanLoopsToo) {
  setenv("FAKE_PLAYER_SECONDS", "0.05", 1);
  auto player = createPlayer();
  const std::string song = soundFile("loop.wav");
  auto looping = std::async(std::launch::async, [&] {
    host_.broker()->call("ZRAudioPlayer", "playFileInLoop",
                         {ZRValue(song), ZRValue(0.3f), ZRValue(0.0f)});
  });
  ASSERT_TRUE(waitForRuns(2));
  ASSERT_TRUE(eventually([&] {
    player->stop(static_cast<int>(playerPids().size()));
    return looping.wait_for(std::chrono::milliseconds(5)) == std::future_status::ready;
  }));
  looping.get();
  EXPECT_TRUE(hasRecord("ZRAudioPlayer", ko::log::verbose, "stop",
                        "kill " + std::to_string(playerPids().back())));
}

// Posted calls --------------------------------------------------------------------------------

using PostedPlayback = FakePlayerTest;

TEST_F(PostedPlayback, IsStoppedThroughTheHostByItsCallId) {
  setenv("FAKE_PLAYER_SECONDS", "60", 1);
  auto player = createPlayer();
  const std::string song = soundFile("song.wav");
  ZR::ZRPostedCall posted = host_.broker()->post("ZRAudioPlayer", "playFile", {ZRValue(song)});
  ASSERT_TRUE(waitForRuns(1));
  const int pid = playerPids()[0];

  ASSERT_TRUE(eventually([&] {
    host_.broker()->stop("ZRAudioPlayer", posted.id);
    return host_.broker()->wait(posted.id, 20);
  }));
  EXPECT_TRUE(endedBySignal15(pid));
  EXPECT_TRUE(hasRecord("ZRAudioPlayer", ko::log::verbose, "stop", "kill " + std::to_string(pid)));
}

// A posted loop runs every pass under its call id, so the host's stop ends it at any pass.
TEST_F(PostedPlayback, LoopKeepsItsCallIdForEveryPass) {
  setenv("FAKE_PLAYER_SECONDS", "0.05", 1);
  auto player = createPlayer();
  const std::string song = soundFile("loop.wav");
  ZR::ZRPostedCall posted =
      host_.broker()->post("ZRAudioPlayer", "playFileInLoop", {ZRValue(song)});
  ASSERT_TRUE(waitForRuns(3));
  EXPECT_TRUE(host_.broker()->isRunning(posted.id));

  ASSERT_TRUE(eventually([&] {
    host_.broker()->stop("ZRAudioPlayer", posted.id);
    return host_.broker()->wait(posted.id, 5);
  }));
  EXPECT_TRUE(hasRecord("ZRAudioPlayer", ko::log::verbose, "stop",
                        "kill " + std::to_string(playerPids().back())));
  // The direct-call sequence was never used by the posted loop.
  EXPECT_EQ(player->xGenerateUniqueTaskID(), 1);
}

// Identifiers and unsupported operations ------------------------------------------------------

using PlayerTasks = FakePlayerTest;

TEST_F(PlayerTasks, IdentifiersCountFromOneAndWrapAfterTheLargest) {
  auto player = createPlayer();
  EXPECT_EQ(player->xGenerateUniqueTaskID(), 1);
  EXPECT_EQ(player->xGenerateUniqueTaskID(), 2);
  player->lastTaskId = 2147483645;
  EXPECT_EQ(player->xGenerateUniqueTaskID(), 2147483646);
  EXPECT_EQ(player->xGenerateUniqueTaskID(), 1);
  EXPECT_EQ(player->xGenerateUniqueTaskID(), 2);
}

TEST_F(PlayerTasks, PlaybacksTakeTheNextIdentifier) {
  setenv("FAKE_PLAYER_SECONDS", "60", 1);
  auto player = createPlayer();
  player->lastTaskId = 2147483646;  // the next playback wraps to 1
  const std::string song = soundFile("song.wav");
  auto playing = std::async(std::launch::async,
                            [&] { return player->_playFileFromPosition(song, 0, 1.0f, 0, false); });
  ASSERT_TRUE(waitForRuns(1));
  ASSERT_TRUE(eventually([&] {
    player->stop(1);
    return playing.wait_for(std::chrono::milliseconds(20)) == std::future_status::ready;
  }));
  EXPECT_FALSE(playing.get());
}

TEST_F(PlayerTasks, UnsupportedOperationsOnlyWarn) {
  setenv("FAKE_PLAYER_SECONDS", "0.3", 1);
  auto player = createPlayer();
  const std::string song = soundFile("song.wav");
  auto playing = std::async(std::launch::async,
                            [&] { return player->_playFileFromPosition(song, 0, 1.0f, 0, false); });
  ASSERT_TRUE(waitForRuns(1));

  host_.broker()->call("ZRAudioPlayer", "pause", {ZRValue(1)});
  EXPECT_EQ(player->loadFile(song), -1);
  player->_play(1, 1.0f, 0.0f, false);

  EXPECT_TRUE(hasRecord("ZRAudioPLayer", ko::log::warning, "pause", "pause is not yet supported"));
  EXPECT_TRUE(hasRecord("ZRAudioPLayer", ko::log::warning, "loadFile",
                        "LoadFile is not implemented yet..."));
  EXPECT_TRUE(hasRecord("ZRAudioPLayer", ko::log::warning, "_play", "play is not yet supported"));
  // The playback was neither paused nor stopped.
  EXPECT_TRUE(playing.get());
  EXPECT_FALSE(endedBySignal15(playerPids()[0]));
}

}  // namespace
}  // namespace testing
}  // namespace bexko
