// Bookmarks timed against the event loop's clock, one timer at a time. Flushing them and pause
// marks are shown with the stops (test_speechtasks.cpp).
#include <zr/zrtexttospeech.h>

#include <ko/clock.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

// Generous bound for a loaded 2-core machine: a timer never fires early, and fires within this
// much of its time.
constexpr long long kLateToleranceMs = 800;

using BookmarkTimingTest = SpeechServiceTest;

TEST_F(BookmarkTimingTest, BookmarksAreRaisedOneTimerAtATimeAheadOfTheirAudio) {
  // Bookmarks 1 to 6 at these audio positions get these delays: 20 ms of lead (none at 20 ms or
  // less), then 100 ms of advance when more than that is left. Bookmark 1 is already late.
  const struct {
    unsigned int positionMs, delayMs;
  } marks[] = {{0, 0}, {15, 15}, {120, 100}, {121, 1}, {600, 480}, {900, 780}};
  std::vector<ScriptedEvent> script;
  std::vector<std::string> bookmarks, logs;
  for (int i = 0; i < 6; ++i) {
    const std::string value = std::to_string(i + 1);
    script.push_back({ZR::TTS_EVENT_MARKER, i + 1, bytesForMs(marks[i].positionMs)});
    bookmarks.push_back("CurrentBookMark=" + value);
    logs.push_back(i == 0 ? "Marker 1 late raise it now ! Marker position: 0 Current position: 0"
                          : "schedule marker " + value + " in " + std::to_string(marks[i].delayMs) +
                                " ms  current 0 at " +
                                std::to_string(bytesForMs(marks[i].positionMs) / 2) + " samples");
    logs.push_back("sending marker: " + value + " position msec: " +
                   std::to_string(marks[i].positionMs) + " current time in the sink: 0");
  }
  backend.setScript(script);
  const ko::Clock::time_point start = ko::Clock::now();
  tts->say("Marked");

  // Each timer starts when the bookmark before it is raised, so the delays add up.
  long long due = 0;
  for (int i = 0; i < 6; ++i) {
    ASSERT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strCurrentBookMarkEvent, i + 1, 5000));
    const long long raised =
        std::chrono::duration_cast<std::chrono::milliseconds>(ko::Clock::now() - start).count();
    due += marks[i].delayMs;
    EXPECT_GE(raised, due - 2) << "bookmark " << i + 1;
    // A late bookmark is raised at once.
    EXPECT_LE(raised, i == 0 ? kLateToleranceMs : due + 2 * kLateToleranceMs)
        << "bookmark " << i + 1;
  }
  EXPECT_EQ(serviceEvents(ZR::ZRTextToSpeech::strCurrentBookMarkEvent), bookmarks);
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
  EXPECT_TRUE(eventually([&] { return timeline().size() >= logs.size(); }));
  EXPECT_EQ(timeline(), logs);
}

}  // namespace
}  // namespace bexko::testing
