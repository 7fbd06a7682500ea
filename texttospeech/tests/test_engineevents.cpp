// What the service makes of the engine's callbacks: bookmarks timed against the event loop's
// clock, one timer at a time; trimming of quiet audio; the tags-only test. Word events within a
// sentence, flushed bookmarks and pause marks are shown with the sentences and the stops
// (test_speechtasks.cpp).
#include <zr/zrtexttospeech.h>

#include <ko/clock.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

using EngineEventTest = SpeechServiceTest;

TEST_F(EngineEventTest, KeepOnlyAudibleSamplesTrimsOnlyALongEnoughQuietTail) {
  // Each row {n1, v1, n2, v2, kept}: n1 samples of v1, then n2 of v2, and how many are kept. Quiet
  // is at most 1000 either way; a quiet tail is cut from 200 samples on, or when it is the whole of
  // a shorter block. So: a tail of 199 is kept, one of 200 cut; 1000 and -1000 are quiet, 1001 and
  // -32768 loud; a short block quiet all through is emptied, a short one keeps its tail after
  // sound; quiet inside is kept; an empty block stays empty.
  const int rows[][5] = {{801, 5000, 199, 0, 1000},   {800, 5000, 200, 0, 800},
                         {700, 5000, 300, 1000, 700}, {700, 5000, 300, -1000, 700},
                         {0, 0, 1000, 1001, 1000},    {0, 0, 1000, -32768, 1000},
                         {0, 0, 100, 0, 0},           {20, 5000, 80, 0, 100},
                         {300, 0, 1, 4000, 301},      {0, 0, 0, 0, 0}};
  for (const auto& row : rows) {
    std::vector<short> block(row[0], static_cast<short>(row[1]));
    block.insert(block.end(), row[2], static_cast<short>(row[3]));
    int count = row[0] + row[2];
    tts->keepOnlyAudibleSamples(block.data(), count);
    EXPECT_EQ(count, row[4]) << "row " << &row - rows;
  }
  int negative = -4;
  EXPECT_FALSE(tts->keepOnlyAudibleSamples(nullptr, negative));
  EXPECT_EQ(negative, -4);
}

TEST(TagsOnlySentenceTest, MatchesSpacesAndTagsOnly) {
  for (const char* text :
       {"", "  ", "\\rst\\ ", "\\style=reset\\ \\rst\\", "\\\\", "  \\rspd=90\\\\vct=120\\  "}) {
    EXPECT_TRUE(ZR::ZRTextToSpeech::isTagsOnlySentence(text)) << '"' << text << '"';
  }
  for (const char* text :
       {"Hello", "\\rst\\Hello", "Hello \\rst\\", "\\unclosed", " \\rst\\ x", "\t\\rst\\"}) {
    EXPECT_FALSE(ZR::ZRTextToSpeech::isTagsOnlySentence(text)) << '"' << text << '"';
  }
}

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
