// Bookmarks timed against the event loop's clock, chained one timer at a time, flushed by a
// stop; pause marks handed to the animated-speech module one per clean-up.
#include <zr/zrtexttospeech.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ko/clock.h>
#include <zr/tts/textutils.h>

#include "speechfixture.h"

namespace bexko {
namespace testing {
namespace {

using ZR::TTS_EVENT_MARKER;
using ZR::TTS_EVENT_WORD;

// Generous bounds for a loaded 2-core machine: a timer never fires early, and fires within
// this much of its time.
constexpr long long kLateToleranceMs = 800;

long long msSince(ko::Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(ko::Clock::now() - start).count();
}

std::string scheduleText(int value, unsigned int delayMs, unsigned int positionBytes) {
  return "schedule marker " + std::to_string(value) + " in " + std::to_string(delayMs) +
         " ms  current 0 at " + std::to_string(positionBytes / 2) + " samples";
}

std::string sendingText(int value, unsigned int positionMs) {
  return "sending marker: " + std::to_string(value) +
         " position msec: " + std::to_string(positionMs) + " current time in the sink: 0";
}

class BookmarkTimingTest : public SpeechServiceTest {
 protected:
  bool waitForBookmark(int value, int timeoutMs = 5000) {
    return host.waitForEvent(ZR::ZRTextToSpeech::strCurrentBookMarkEvent, value, timeoutMs);
  }
  std::vector<std::string> bookmarks() const {
    return describe(host.events(ZR::ZRTextToSpeech::strCurrentBookMarkEvent));
  }
};

TEST_F(BookmarkTimingTest, BookmarkIsRaisedItsLeadAndAdvanceBeforeItsAudioPosition) {
  const unsigned int position = bytesForMs(1000);
  backend.setScript({{TTS_EVENT_MARKER, 7, position}});

  const ko::Clock::time_point start = ko::Clock::now();
  tts->say("Wait for it");
  ASSERT_TRUE(waitForBookmark(7));
  const long long elapsed = msSince(start);

  // 1000 ms of audio, raised 20 ms early, then 100 ms more of advance: 880 ms.
  EXPECT_GE(elapsed, 880 - 2);
  EXPECT_LE(elapsed, 880 + kLateToleranceMs);
  EXPECT_TRUE(host.hasLog(ko::log::verbose, "scheduleMarker", scheduleText(7, 880, position)));
  EXPECT_TRUE(host.hasLog(ko::log::verbose, "markerCB", sendingText(7, 1000)));
  EXPECT_EQ(bookmarks(), (std::vector<std::string>{eventText("CurrentBookMark", 7)}));
}

TEST_F(BookmarkTimingTest, DelaysFollowTheLeadAndAdvanceRules) {
  const struct {
    int value;
    unsigned int positionMs;
    unsigned int delayMs;
  } cases[] = {
      {11, 15, 15},    // 20 ms or less: no lead; within the advance: not pulled forward
      {12, 120, 100},  // 100 ms after the lead: kept at 100
      {13, 121, 1},    // 101 ms after the lead: the advance is taken off
      {14, 300, 180},
  };
  for (const auto& c : cases) {
    backend.queueSentenceEvents({{TTS_EVENT_MARKER, c.value, bytesForMs(c.positionMs)}});
    tts->say("Marked");
    ASSERT_TRUE(waitForBookmark(c.value)) << c.value;
    EXPECT_TRUE(host.hasLog(ko::log::verbose, "scheduleMarker",
                            scheduleText(c.value, c.delayMs, bytesForMs(c.positionMs))))
        << c.value;
  }
}

TEST_F(BookmarkTimingTest, LateBookmarkIsRaisedAtOnceWithAWarning) {
  backend.setScript({{TTS_EVENT_MARKER, 3, 0}});
  const ko::Clock::time_point start = ko::Clock::now();
  tts->say("Right away");
  ASSERT_TRUE(waitForBookmark(3));
  EXPECT_LE(msSince(start), kLateToleranceMs);
  EXPECT_TRUE(host.hasLog(ko::log::warning, "scheduleMarker",
                          "Marker 3 late raise it now ! Marker position: 0 Current position: 0"));
}

TEST_F(BookmarkTimingTest, BookmarksReportedTogetherAreChainedOneTimerAtATime) {
  backend.setScript({{TTS_EVENT_MARKER, 1, bytesForMs(300)},
                     {TTS_EVENT_MARKER, 2, bytesForMs(600)},
                     {TTS_EVENT_MARKER, 3, bytesForMs(900)}});
  const ko::Clock::time_point start = ko::Clock::now();
  tts->say("One two three");

  ASSERT_TRUE(waitForBookmark(1));
  const long long first = msSince(start);
  ASSERT_TRUE(waitForBookmark(2));
  const long long second = msSince(start);
  ASSERT_TRUE(waitForBookmark(3));
  const long long third = msSince(start);

  // Each delay is computed when the previous bookmark fires, from the start of the sentence:
  // 300-20-100, then 600-20-100, then 900-20-100.
  EXPECT_GE(first, 180 - 2);
  EXPECT_GE(second - first, 480 - 2);
  EXPECT_GE(third - second, 780 - 2);
  EXPECT_LE(third, 180 + 480 + 780 + 2 * kLateToleranceMs);
  EXPECT_EQ(bookmarks(), (std::vector<std::string>{eventText("CurrentBookMark", 1),
                                                   eventText("CurrentBookMark", 2),
                                                   eventText("CurrentBookMark", 3)}));

  // The callback logs right after it raises: wait for its last line.
  const auto timeline = [this] {
    std::vector<std::string> lines;
    for (const ko::log::Record& record : host.logRecords(kServiceCategory)) {
      if (record.function == "scheduleMarker" || record.function == "markerCB") {
        lines.push_back(record.message);
      }
    }
    return lines;
  };
  EXPECT_TRUE(eventually([&] { return timeline().size() >= 6; }));
  EXPECT_EQ(timeline(),
            (std::vector<std::string>{scheduleText(1, 180, bytesForMs(300)), sendingText(1, 300),
                                      scheduleText(2, 480, bytesForMs(600)), sendingText(2, 600),
                                      scheduleText(3, 780, bytesForMs(900)), sendingText(3, 900)}));
}

TEST_F(BookmarkTimingTest, FlushedBookmarkIsRaisedOnceAndItsTimerCancelled) {
  backend.queueSentenceEvents({{TTS_EVENT_MARKER, 9, bytesForMs(600)}, {TTS_EVENT_WORD, 0, 0}});
  backend.setBlocking(true);
  BackgroundCall speaking([this] { tts->say("Stop me"); });
  ASSERT_TRUE(
      host.waitForEvent(ZR::ZRTextToSpeech::strCurrentWordEvent, std::string("Stop"), 5000));
  tts->stopAll();
  ASSERT_TRUE(speaking.joinWithin(5000));
  backend.setBlocking(false);
  EXPECT_EQ(bookmarks(), (std::vector<std::string>{eventText("CurrentBookMark", 9)}));

  // Past the time the timer was set for: nothing more, not even a search for the marker.
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  EXPECT_EQ(bookmarks(), (std::vector<std::string>{eventText("CurrentBookMark", 9)}));
  EXPECT_FALSE(host.hasLog(ko::log::info, "markerCB", "marker not found"));
}

// --- Pause marks -----------------------------------------------------------------------------

class PauseMarkTest : public SpeechServiceTest {
 protected:
  FakeModule& animatedSpeech() {
    FakeModule& module = host.addFakeModule("ZRAnimatedSpeech");
    module.addMethod("_mrkpauseCallback", 1);
    return module;
  }
};

TEST_F(PauseMarkTest, NumbersAbove64535ArePauseMarksNeverRaisedAsBookmarks) {
  FakeModule& animated = animatedSpeech();
  backend.queueSentenceEvents({{TTS_EVENT_MARKER, 64536, 0}, {TTS_EVENT_MARKER, 64535, 0}});
  tts->say("Bookmark and pause");
  ASSERT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strCurrentBookMarkEvent, 64535, 5000));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(describe(host.events(ZR::ZRTextToSpeech::strCurrentBookMarkEvent)),
            (std::vector<std::string>{eventText("CurrentBookMark", 64535)}));
  EXPECT_TRUE(animated.calls().empty()) << "pause marks wait for a clean-up";

  tts->stopAll();  // the last task is still current: its clean-up hands the pause mark over
  const std::vector<FakeModule::Call> calls = animated.calls("_mrkpauseCallback");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].args, (std::vector<ZR::ZRValue>{ZR::makeSpecificId(64536)}));
}

TEST_F(PauseMarkTest, EachCleanUpHandsOverOnePauseMark) {
  FakeModule& animated = animatedSpeech();
  backend.queueSentenceEvents({{TTS_EVENT_MARKER, 64536, 0}, {TTS_EVENT_MARKER, 64537, 0}});
  tts->say("Two \\pau=10\\ pauses \\pau=10\\ here");
  tts->stopAll();
  ASSERT_EQ(animated.calls("_mrkpauseCallback").size(), 1u);

  tts->say("Next sentence");
  tts->stopAll();
  const std::vector<FakeModule::Call> calls = animated.calls("_mrkpauseCallback");
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].args, (std::vector<ZR::ZRValue>{ZR::makeSpecificId(64536)}));
  EXPECT_EQ(calls[1].args, (std::vector<ZR::ZRValue>{ZR::makeSpecificId(64537)}));
}

TEST_F(PauseMarkTest, MissingAnimatedSpeechCostsOnlyAnErrorLine) {
  backend.queueSentenceEvents({{TTS_EVENT_MARKER, 64536, 0}});
  tts->say("Nobody listens");
  EXPECT_NO_THROW(tts->stopAll());
  EXPECT_EQ(serviceLogTexts(host, "raiseMrkPause", ko::log::error),
            (std::vector<std::string>{"Cannot call AnimatedSpeech->_mrkpauseCallback."}));

  // The pause mark was removed all the same: the next clean-up has nothing to hand over.
  tts->say("Again");
  tts->stopAll();
  EXPECT_EQ(serviceLogTexts(host, "raiseMrkPause", ko::log::error).size(), 1u);
}

}  // namespace
}  // namespace testing
}  // namespace bexko
