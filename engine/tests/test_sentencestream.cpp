#include "sentencestream.h"

#include <string>
#include <variant>
#include <vector>

#include <gmock/gmock.h>

namespace {

using bexko::engine::detail::EspeakMarkup;
using bexko::engine::detail::SentenceStream;
using bexko::engine::detail::StreamEvent;
using bexko::engine::detail::StreamSink;
using bexko::engine::detail::toEspeakMarkup;
using namespace ::testing;

// What a sink received, as text: "w11@1044" a word, "m3@1400" a mark, "s0@0" a sentence; and
// whether each event came after exactly the audio before it.
class RecordingSink : public StreamSink {
 public:
  bool audio(const short*, std::size_t count, long long first) override {
    if (first != samples) outOfOrder = true;
    largestPiece = std::max(largestPiece, count);
    samples += static_cast<long long>(count);
    return stopAfterAudio < 0 || samples < stopAfterAudio;
  }
  bool event(const StreamEvent& event) override {
    if (event.sample != samples) outOfOrder = true;
    const char* kind = event.type == ZR::TTS_EVENT_WORD     ? "w"
                       : event.type == ZR::TTS_EVENT_MARKER ? "m"
                                                            : "s";
    events.push_back(kind + std::to_string(event.value) + "@" + std::to_string(event.sample));
    return true;
  }

  std::vector<std::string> events;
  long long samples = 0;
  std::size_t largestPiece = 0;
  bool outOfOrder = false;
  long long stopAfterAudio = -1;
};

// What eSpeak NG reports, in order; positions are tag-free character indexes.
struct Audio {
  long long samples;
};
struct Silence {
  long long samples;
};
struct Word {
  int index;
  long long sample;
};
struct Mark {
  int value;
  long long sample;
};
struct ClauseEnd {
  int index;
  long long sample;
};
using Report = std::variant<Audio, Silence, Word, Mark, ClauseEnd>;

// eSpeak's 1-based position in the markup of the character at tag-free `index`: the last code
// point that stands for it (markup before a character stands for it too).
int espeakPosition(const EspeakMarkup& markup, int index) {
  int position = -1;
  for (std::size_t i = 0; i < markup.tagFreeIndex.size(); ++i) {
    if (markup.tagFreeIndex[i] == index) position = static_cast<int>(i) + 1;
  }
  return position;
}

void feed(SentenceStream& stream, const EspeakMarkup& markup, const Report& report) {
  if (const auto* audio = std::get_if<Audio>(&report)) {
    stream.addAudio(std::vector<short>(audio->samples, 3000).data(),
                    static_cast<std::size_t>(audio->samples));
  } else if (const auto* silence = std::get_if<Silence>(&report)) {
    stream.addAudio(std::vector<short>(silence->samples, 20).data(),
                    static_cast<std::size_t>(silence->samples));
  } else if (const auto* word = std::get_if<Word>(&report)) {
    stream.addWord(espeakPosition(markup, word->index), word->sample);
  } else if (const auto* mark = std::get_if<Mark>(&report)) {
    stream.addMarker(mark->value, 0, mark->sample);  // eSpeak gives marks no position
  } else if (const auto* end = std::get_if<ClauseEnd>(&report)) {
    stream.addClauseEnd(espeakPosition(markup, end->index), end->sample);
  }
}

// Each case: eSpeak's reports with their audio (one block per report group, as eSpeak hands
// them over), then the stream the service sees.
TEST(SentenceStream, GivesEveryWordOfTheServiceSplitItsPlaceInTheAudio) {
  const struct {
    const char* name;
    std::string text;
    std::vector<Report> reports;
    std::vector<std::string> expected;
  } cases[] = {
      {"a word folded into the next: in proportion to characters",
       "Hello from the shell",
       {Word{0, 0}, Audio{1000}, Word{6, 600}, Audio{1000}, Word{15, 1400}, ClauseEnd{19, 2000}},
       {"w0@0", "w6@600", "w11@1044", "w15@1400"}},
      {"two words read as one, up to the clause end",
       "at 5 p.m.",
       {Word{0, 0}, Word{3, 300}, Audio{1000}, Word{5, 500}, ClauseEnd{8, 1000}},
       {"w0@0", "w3@300", "w5@500", "w7@833"}},
      {"two words read as one before a pause: in its sound, not in the pause",
       "at 5 p.m.",
       {Word{0, 0}, Word{3, 300}, Audio{700}, Word{5, 500}, Silence{300}, ClauseEnd{8, 1000}},
       {"w0@0", "w3@300", "w5@500", "w7@633"}},
      {"a symbol eSpeak skips between clauses: at the clause end",
       "Hello, # world",
       {Word{0, 0}, Audio{500}, ClauseEnd{6, 500}, Audio{500}, Word{9, 700}, ClauseEnd{13, 1000}},
       {"w0@0", "w7@500", "w9@700"}},
      {"a symbol eSpeak skips at the start: where the audio starts",
       "- Hello",
       {Audio{100}, Word{2, 100}, Audio{900}, ClauseEnd{6, 1000}},
       {"w0@0", "w2@100"}},
      {"a word reported on the space after a full stop",
       "the end. and then",
       {Word{0, 0}, Audio{1200}, Word{4, 300}, Word{8, 600}, Word{13, 900}, ClauseEnd{16, 1200}},
       {"w0@0", "w4@300", "w9@600", "w13@900"}},
      {"a word reported twice, and one on punctuation",
       "Hi! Go",
       {Word{0, 0}, Audio{1000}, Word{0, 100}, Word{2, 400}, Word{4, 500}, ClauseEnd{5, 1000}},
       {"w0@0", "w4@500"}},
      {"a mark before a folded word: the word follows it",
       "Hello from \\mrk=3\\the shell",
       {Word{0, 0}, Audio{2000}, Word{6, 600}, Mark{3, 1400}, Word{15, 1400}, ClauseEnd{19, 2000}},
       {"w0@0", "w6@600", "m3@1400", "w11@1400", "w15@1400"}},
      {"a mark after a folded word: the word precedes it",
       "Hello from the \\mrk=3\\shell",
       {Word{0, 0}, Audio{2000}, Word{6, 600}, Mark{3, 1400}, Word{15, 1400}, ClauseEnd{19, 2000}},
       {"w0@0", "w6@600", "w11@1044", "m3@1400", "w15@1400"}},
      {"a mark eSpeak reports early, before a folded word",
       "Hello from \\mrk=3\\the shell",
       {Word{0, 0}, Audio{2000}, Word{6, 600}, Mark{3, 700}, Word{15, 1400}, ClauseEnd{19, 2000}},
       {"w0@0", "w6@600", "m3@700", "w11@1044", "w15@1400"}},
      // eSpeak reads "a while" as one word and reports the mark inside it at the clause end.
      {"a mark inside the last word of a clause, reported at its end: it moves to the next word",
       "rest for a \\mrk=31\\while.",
       {Word{0, 0}, Audio{3000}, Word{5, 1000}, Word{9, 2000}, Mark{31, 2950},
        ClauseEnd{16, 3000}},
       {"w0@0", "w5@1000", "w9@2000", "m31@2285", "w11@2285"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const EspeakMarkup markup = toEspeakMarkup(c.text);
    SentenceStream stream(markup);
    RecordingSink sink;
    for (const Report& report : c.reports) {
      feed(stream, markup, report);
      ASSERT_TRUE(stream.release(sink));
    }
    stream.finish();
    ASSERT_TRUE(stream.release(sink));
    EXPECT_EQ(sink.events, c.expected);
    EXPECT_FALSE(sink.outOfOrder);
    EXPECT_EQ(sink.samples, stream.receivedSamples());
    EXPECT_LE(sink.largestPiece, 1024u);
  }
}

// Audio after eSpeak's latest word waits for the next word or clause end, which tells how long
// the latest word is; the rest goes out at once.
TEST(SentenceStream, HoldsBackOnlyTheAudioAfterTheLatestWord) {
  const EspeakMarkup markup = toEspeakMarkup("Hello from the shell again");
  SentenceStream stream(markup);
  RecordingSink sink;
  stream.addWord(espeakPosition(markup, 0), 0);
  stream.addAudio(std::vector<short>(3000, 1).data(), 3000);
  ASSERT_TRUE(stream.release(sink));
  EXPECT_EQ(sink.samples, 0);
  EXPECT_THAT(sink.events, IsEmpty());

  stream.addWord(espeakPosition(markup, 6), 600);
  ASSERT_TRUE(stream.release(sink));
  EXPECT_EQ(sink.samples, 600);
  EXPECT_THAT(sink.events, ElementsAre("w0@0"));

  // "the" and "shell" are still to be placed in the audio of "from": nothing more goes out.
  stream.addAudio(std::vector<short>(3000, 1).data(), 3000);
  ASSERT_TRUE(stream.release(sink));
  EXPECT_EQ(sink.samples, 600);

  stream.addWord(espeakPosition(markup, 15), 5000);
  ASSERT_TRUE(stream.release(sink));
  EXPECT_EQ(sink.samples, 5000);
  EXPECT_THAT(sink.events, ElementsAre("w0@0", "w6@600", "w11@3044"));

  // Once every word is placed, nothing is left to wait for.
  stream.addWord(espeakPosition(markup, 21), 5500);
  stream.addAudio(std::vector<short>(1000, 1).data(), 1000);
  ASSERT_TRUE(stream.release(sink));
  EXPECT_EQ(sink.samples, 7000);
  EXPECT_THAT(sink.events, ElementsAre("w0@0", "w6@600", "w11@3044", "w15@5000", "w21@5500"));
  EXPECT_FALSE(sink.outOfOrder);
}

TEST(SentenceStream, HandsOutNothingMoreOnceTheSinkEndsTheSentence) {
  const EspeakMarkup markup = toEspeakMarkup("One two three");
  SentenceStream stream(markup);
  RecordingSink sink;
  sink.stopAfterAudio = 1024;
  stream.addWord(espeakPosition(markup, 0), 0);
  stream.addAudio(std::vector<short>(5000, 1).data(), 5000);
  stream.addWord(espeakPosition(markup, 4), 2000);
  stream.addWord(espeakPosition(markup, 8), 4000);
  EXPECT_FALSE(stream.release(sink));
  EXPECT_EQ(sink.samples, 1024);
  EXPECT_THAT(sink.events, ElementsAre("w0@0"));
}

}  // namespace
