#include <bexko/engine/espeakbackend.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <future>
#include <iostream>
#include <map>
#include <optional>
#include <thread>

#include <gmock/gmock.h>

#include <ko/audiooutput.h>
#include <zr/tts/textutils.h>
#include <zr/tts/ttslanguageinfo.h>
#include <zr/zrerror.h>

#include "recordingcallback.h"

namespace {

using bexko::engine::EspeakBackend;
using bexko::engine::LanguageRequest;
using bexko::engine::testing::RecordingCallback;
using std::chrono::milliseconds;
using namespace ::testing;

double audioSeconds(unsigned long long bytes) { return bytes / (22050.0 * 4); }

// The character index of every word of `text` as the speech service splits it.
std::vector<int> serviceWordIndexes(const std::string& text) {
  std::string tagFree = ZR::replaceTags(text, "");
  std::vector<std::string> words;
  ZR::tokenizeString(tagFree, words, " .,;:!");
  std::vector<int> indexes;
  std::size_t from = 0;
  for (const std::string& word : words) {
    from = tagFree.find(word, from);
    indexes.push_back(ZR::countUtf8Chars(tagFree.substr(0, from).c_str()));
    from += word.size();
  }
  return indexes;
}

// Sixty words in twelve sentences, each after the first starting with a lower-case word.
std::string lowerCaseAfterFullStops() {
  const char* const sentences[] = {
      "The cat sat down quietly.", "and then it ran away.",           "so we went out again.",
      "but the air was cold.",     "still the dog kept going.",       "then a bird sang loudly.",
      "and the sun came out.",     "so the children played outside.", "but nobody saw the fox.",
      "maybe it was far away.",    "yet the farmer was worried.",     "and the day went on."};
  std::string text;
  for (const char* sentence : sentences) text += (text.empty() ? "" : " ") + std::string(sentence);
  return text;
}

class EspeakFast : public Test {
 protected:
  explicit EspeakFast(bool realTime = false) : backend_(EspeakBackend::Options{realTime}) {
    backend_.load(
        {LanguageRequest{"English", "en_US", "/p"}, LanguageRequest{"French", "fr_FR", "/p"}});
    backend_.setCurrentLanguage("English");
  }
  EspeakBackend backend_;
  RecordingCallback callback_;
};

TEST_F(EspeakFast, WordAndMarkEventsPointAtTheTextWithoutTags) {
  struct Case {
    const char* language;
    std::string text;
    std::vector<int> words;  // character index of each word in the text without tags
    std::vector<int> marks;
  };
  const std::string french =
      "\\rspd=90\\Où est \\mrk=1\\l'élève? \\vct=120\\Il \\vol=80\\étudie \\pau=200\\à "
      "\\rst\\l'école \\style=joyful\\Ça va.";
  const Case cases[] = {
      {"English", "Hello big world, how are you?", {0, 6, 10, 17, 21, 25}, {}},
      {"French", french, {0, 3, 7, 16, 19, 26, 28, 36, 39}, {1}},
      // Marks after final punctuation, and the mark that precedes a pause.
      {"English", "Hi. \\mrk=7\\Go! \\mrk=9\\\\pau=90\\On.\\mrk=8\\", {0, 4, 8}, {7, 9, 8}},
      {"English", "\\style=reset\\ \\rst\\", {}, {}},
      // The characters of the engine's markup language must not shift the indexes; symbols
      // that eSpeak NG does not speak and invalid bytes are words of the service's split.
      {"English", "Tom & Jerry <3 > cats", {0, 4, 6, 12, 15, 17}, {}},
      {"English", "caf\xC3 \xFF\xFE ok \xE2\x82 fine", {0, 5, 8, 11, 14}, {}},
      {"English", "- Hello, # world .", {0, 2, 9, 11}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    RecordingCallback callback;
    backend_.setCurrentLanguage(c.language);
    backend_.startSynthetizer(c.text, callback);
    EXPECT_EQ(callback.values(ZR::TTS_EVENT_WORD), c.words);
    EXPECT_EQ(callback.values(ZR::TTS_EVENT_MARKER), c.marks);
    const auto events = callback.events();
    ASSERT_EQ(callback.events(ZR::TTS_EVENT_END).size(), 1u);
    EXPECT_EQ(events.back().event, ZR::TTS_EVENT_END);
    EXPECT_EQ(events.back().position, callback.audioBytes());
    const auto words = callback.events(ZR::TTS_EVENT_WORD);
    EXPECT_GE(audioSeconds(callback.audioBytes()), 0.1 * words.size());
    for (std::size_t i = 0; i < words.size(); ++i) {
      EXPECT_GE(words[i].position, i > 0 ? words[i - 1].position : 0u);
    }
    for (const auto& e : events) {
      EXPECT_EQ(e.audioBytesBefore, e.position) << "event " << e.event << " value " << e.value;
    }
  }
}

// The service announces the n-th word of its split at the n-th word event: eSpeak NG's own
// words fold "the" into the next word, read "p.m." as one word and report the word after a
// full stop that does not end the sentence on the space before it.
TEST_F(EspeakFast, EveryWordOfTheServiceSplitHasOneEventAfterExactlyTheAudioBeforeIt) {
  const struct {
    std::string text;
    std::vector<int> words;  // empty: the indexes of the service's split
  } cases[] = {
      {"Hello from the shell", {0, 6, 11, 15}},
      {"We met Dr. Smith at 5 p.m. near the station, and then we went home.",
       {0, 3, 7, 11, 17, 20, 22, 24, 27, 32, 36, 45, 49, 54, 57, 62}},
      {lowerCaseAfterFullStops(), {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    RecordingCallback callback;
    backend_.startSynthetizer(c.text, callback);
    const std::vector<int> expected = c.words.empty() ? serviceWordIndexes(c.text) : c.words;
    EXPECT_EQ(callback.values(ZR::TTS_EVENT_WORD), expected);
    const auto words = callback.events(ZR::TTS_EVENT_WORD);
    for (std::size_t i = 1; i < words.size(); ++i) {
      // Every word here is heard: none shares its place with the word before it.
      EXPECT_GT(words[i].position, words[i - 1].position) << "word " << i;
    }
    ASSERT_FALSE(words.empty());
    EXPECT_LT(words.back().position, callback.audioBytes());
    for (const auto& e : callback.events()) {
      EXPECT_EQ(e.audioBytesBefore, e.position) << "event " << e.event << " value " << e.value;
      EXPECT_EQ(e.position % 4, 0u);
    }
    EXPECT_EQ(callback.events().back().event, ZR::TTS_EVENT_END);
  }
}

// Marks inside what eSpeak NG reads as one word: before "shell", whose "the" it folds in, and
// inside "p.m." (a mark after a full stop moves before it); a pause mark as the service sends
// it before a pause.
TEST_F(EspeakFast, AMarkStaysBetweenTheWordsAroundIt) {
  const struct {
    std::string text;
    int mark;
    int wordsBefore;
  } cases[] = {
      {"Hello from the \\mrk=3\\shell", 3, 3},
      {"Hello from \\mrk=3\\the shell", 3, 2},
      {"We met at 5 p.\\mrk=3\\m. near the station.", 3, 5},
      {"One two three \\mrk=3\\four five six.", 3, 3},
      {"Hello from the \\mrk=64536\\\\pau=200\\shell", 64536, 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    RecordingCallback callback;
    backend_.startSynthetizer(c.text, callback);
    const auto events = callback.events();
    const auto mark = std::find_if(events.begin(), events.end(),
                                   [](const auto& e) { return e.event == ZR::TTS_EVENT_MARKER; });
    ASSERT_NE(mark, events.end());
    EXPECT_EQ(mark->value, c.mark);
    EXPECT_EQ(std::count_if(events.begin(), mark,
                            [](const auto& e) { return e.event == ZR::TTS_EVENT_WORD; }),
              c.wordsBefore);
    EXPECT_EQ(callback.values(ZR::TTS_EVENT_WORD), serviceWordIndexes(c.text));
    EXPECT_EQ(mark->audioBytesBefore, mark->position);
  }
}

TEST_F(EspeakFast, AMarkIsReportedAtItsPlaceInTheAudio) {
  backend_.startSynthetizer("One two three \\mrk=5\\four five six.", callback_);
  const auto markers = callback_.events(ZR::TTS_EVENT_MARKER);
  const auto words = callback_.events(ZR::TTS_EVENT_WORD);
  ASSERT_EQ(markers.size(), 1u);
  ASSERT_EQ(words.size(), 6u);
  const auto& mark = markers[0];
  EXPECT_EQ(mark.value, 5);
  // Between the words around it, after exactly the audio before it.
  EXPECT_GT(mark.position, words[2].position);
  EXPECT_LE(mark.position, words[3].position);
  EXPECT_EQ(mark.position, mark.audioBytesBefore);
  EXPECT_EQ(mark.position % 4, 0u);  // a whole stereo frame
}

TEST_F(EspeakFast, AStopWhileAudioIsHeldBackEndsTheSentenceAtOnce) {
  // About half a second to synthesise in fast mode.
  std::string text;
  for (int i = 0; i < 40; ++i) text += lowerCaseAfterFullStops() + " ";
  auto speaking =
      std::async(std::launch::async, [&] { backend_.startSynthetizer(text, callback_); });
  for (int i = 0; i < 1000 && callback_.events(ZR::TTS_EVENT_WORD).size() < 2; ++i) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  const auto stopAt = std::chrono::steady_clock::now();
  backend_.stopSynthetizer();
  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  speaking.get();
  EXPECT_LT(std::chrono::steady_clock::now() - stopAt, milliseconds(100));
  // Nothing held back is delivered after the stop: the end is where the audio stopped.
  const auto events = callback_.events();
  ASSERT_EQ(events.back().event, ZR::TTS_EVENT_END);
  EXPECT_EQ(events.back().position, callback_.audioBytes());
  EXPECT_LT(callback_.values(ZR::TTS_EVENT_WORD).size(), serviceWordIndexes(text).size() / 2);
}

// eSpeak NG synthesises a clause in a few milliseconds; the words of a clause are placed once
// its next word is known, so the first audio comes long before the sentence is synthesised.
TEST_F(EspeakFast, TheFirstAudioComesWithoutWaitingForTheWholeSentence) {
  struct FirstAudio : RecordingCallback {
    void TTSCallBack(short* samples, unsigned int count) override {
      if (!first) first = std::chrono::steady_clock::now();
      RecordingCallback::TTSCallBack(samples, count);
    }
    std::optional<std::chrono::steady_clock::time_point> first;
  };
  const std::string text =
      "The first clause of this sentence is rather long and keeps going for a while, the second "
      "clause is just as long as the first one and says nothing new, and the third clause ends "
      "the sentence at last after all those words.";
  double bestFirst = 1e9, bestTotal = 1e9;
  for (int run = 0; run < 5; ++run) {
    FirstAudio callback;
    const auto start = std::chrono::steady_clock::now();
    backend_.startSynthetizer(text, callback);
    const auto end = std::chrono::steady_clock::now();
    ASSERT_TRUE(callback.first);
    bestFirst = std::min(
        bestFirst, std::chrono::duration<double, std::milli>(*callback.first - start).count());
    bestTotal = std::min(bestTotal, std::chrono::duration<double, std::milli>(end - start).count());
  }
  RecordProperty("firstAudioMs", std::to_string(bestFirst));
  RecordProperty("sentenceMs", std::to_string(bestTotal));
  std::cout << "first audio after " << bestFirst << " ms, sentence synthesised in " << bestTotal
            << " ms\n";
  EXPECT_LT(bestFirst, bestTotal / 3);
}

// The clamps of "speed" and "defaultVoiceSpeed", "presel" and resetSpeed are shown through the
// speech service, whose test backend keeps the same parameters (test_parameters.cpp).
TEST_F(EspeakFast, ParametersAreClampedOrRefusedAndSpeedChangesTheLengthOfTheAudio) {
  const struct {
    const char* name;
    float value, readBack;
  } cases[] = {{"speed", 10, 50}, {"pitch", 500, 198}, {"volume", 250, 200}, {"selBreak", -1, -1}};
  for (const auto& c : cases) {
    backend_.setParameter(c.name, c.value);
    EXPECT_EQ(backend_.getParameter(c.name), c.readBack) << c.name;
  }
  EXPECT_THAT([&] { backend_.setParameter("loudness", 1.0f); },
              Throws<ZR::ZRError>(Property(
                  &ZR::ZRError::toString,
                  AllOf(StartsWith("TextToSpeech::setParameter: "), HasSubstr("loudness")))));
  EXPECT_THROW(backend_.getParameter("loudness"), ZR::ZRError);
  EXPECT_THROW(backend_.setParameter("speed", std::nanf("")), ZR::ZRError);
  EXPECT_EQ(backend_.getParameter("speed"), 50.0f);

  const std::string text = "One two three four five six seven eight.";
  backend_.setParameter("speed", 100.0f);
  backend_.startSynthetizer(text, callback_);
  backend_.setParameter("speed", 200.0f);
  RecordingCallback faster;
  backend_.startSynthetizer(text, faster);
  const double ratio = static_cast<double>(faster.audioBytes()) / callback_.audioBytes();
  EXPECT_GT(ratio, 0.35);
  EXPECT_LT(ratio, 0.7);
}

TEST_F(EspeakFast, RefusesLanguagesAndVoicesNotLoadedAndTextsItCannotSpeak) {
  EXPECT_THROW(backend_.setCurrentLanguage("German"), ZR::ZRError);
  EXPECT_THROW(backend_.setCurrentVoice("de"), ZR::ZRError);
  EspeakBackend unloaded(EspeakBackend::Options{false});
  EXPECT_THROW(unloaded.startSynthetizer("Hello", callback_), ZR::ZRError);
  const std::pair<std::string, bool> texts[] = {
      {"Ça va, 日本語\n\ttrès\r", true}, {"caf\xC3", false}, {"bell\x07", false}};
  for (const auto& t : texts) {
    EXPECT_EQ(backend_.testTextEncoding(t.first, "English"), t.second) << t.first;
  }
}

// Real-time pacing: generous bounds, for a loaded two-core machine.
class EspeakRealTime : public EspeakFast {
 protected:
  EspeakRealTime() : EspeakFast(true) {}
};

TEST_F(EspeakRealTime, KeepsPaceAndObeysAPauseARestartAndAStopFromAnotherThread) {
  backend_.stopSynthetizer();  // idle: no effect on the next sentence
  const auto start = std::chrono::steady_clock::now();
  auto speaking = std::async(std::launch::async, [&] {
    backend_.startSynthetizer(
        "This sentence is long enough to be heard for several seconds, so that a test can pause "
        "it, let it go on and stop it while it is being spoken, whatever the machine is doing.",
        callback_);
  });
  for (int i = 0; i < 1000 && callback_.audioBytes() == 0; ++i) {
    std::this_thread::sleep_for(milliseconds(5));
  }
  ASSERT_GT(callback_.audioBytes(), 0u);
  std::this_thread::sleep_for(milliseconds(300));
  backend_.pauseSynthetizer();
  std::this_thread::sleep_for(milliseconds(100));
  const auto whilePaused = callback_.audioBytes();
  std::this_thread::sleep_for(milliseconds(400));
  EXPECT_EQ(callback_.audioBytes(), whilePaused);
  EXPECT_TRUE(backend_.isPaused());
  backend_.restartSynthetizer();
  std::this_thread::sleep_for(milliseconds(400));
  EXPECT_GT(callback_.audioBytes(), whilePaused);

  backend_.pauseSynthetizer();  // the stop comes while paused
  std::this_thread::sleep_for(milliseconds(100));
  const auto stopAt = std::chrono::steady_clock::now();
  backend_.stopSynthetizer();
  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  speaking.get();
  EXPECT_LT(std::chrono::steady_clock::now() - stopAt, std::chrono::seconds(1));
  EXPECT_FALSE(backend_.isPaused());  // the stop ended the pause with the sentence
  EXPECT_EQ(callback_.events().back().event, ZR::TTS_EVENT_END);
  EXPECT_EQ(callback_.events(ZR::TTS_EVENT_END).size(), 1u);
  // About a block ahead of the clock at most, not far behind it (paused for 0.6 s in all).
  const double heard = audioSeconds(callback_.audioBytes());
  const double playing = std::chrono::duration<double>(stopAt - start).count() - 0.6;
  EXPECT_LT(heard, playing + audioSeconds(callback_.largestBlockBytes()) + 0.1);
  EXPECT_GT(heard, playing - 2.0);

  RecordingCallback next;  // the stop was for that sentence only
  backend_.startSynthetizer("Hello big world", next);
  EXPECT_EQ(next.values(ZR::TTS_EVENT_WORD), (std::vector<int>{0, 6, 10}));
}

// With a host audio output, the output paces the consumer: the backend does not.
TEST_F(EspeakRealTime, IsNotPacedWhileTheHostHasAnAudioOutput) {
  struct SilentOutput : ko::AudioOutput {
    std::string name() const override { return "silent"; }
    ko::AudioSampleInfo sampleInfo() const override { return {}; }
    bool write(const void*, std::size_t bytes) override { return written += bytes, true; }
    bool drain() override { return true; }
    void flush() override {}
    void pause() override {}
    void resume() override {}
    std::uint64_t writtenBytes() const override { return written; }
    std::uint64_t playedBytes() const override { return written; }
    std::uint64_t written = 0;
  };
  struct OutputSet {
    OutputSet() { ko::setAudioOutput(std::make_shared<SilentOutput>()); }
    ~OutputSet() { ko::setAudioOutput(nullptr); }
  };
  const std::string text = "One two three four five six seven eight nine ten.";
  {
    OutputSet output;
    const auto start = std::chrono::steady_clock::now();
    backend_.startSynthetizer(text, callback_);
    const double took =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_GT(audioSeconds(callback_.audioBytes()), 2.0);
    EXPECT_LT(took, audioSeconds(callback_.audioBytes()) / 4);

    // A pause still holds the delivery back, and a restart lets it go on.
    backend_.pauseSynthetizer();
    RecordingCallback paused;
    auto speaking =
        std::async(std::launch::async, [&] { backend_.startSynthetizer(text, paused); });
    EXPECT_EQ(speaking.wait_for(milliseconds(300)), std::future_status::timeout);
    EXPECT_EQ(paused.audioBytes(), 0u);
    backend_.restartSynthetizer();
    ASSERT_EQ(speaking.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    speaking.get();
    EXPECT_EQ(paused.values(ZR::TTS_EVENT_WORD), callback_.values(ZR::TTS_EVENT_WORD));
  }
  // Without an output, the same backend keeps the pace again.
  RecordingCallback paced;
  const auto start = std::chrono::steady_clock::now();
  backend_.startSynthetizer(text, paced);
  const double took =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GT(took, audioSeconds(paced.audioBytes()) * 0.9);
}

TEST_F(EspeakFast, OffersOneDefaultVoiceForEveryLanguageOfTheTable) {
  const ZR::TTSLanguageInfo info;
  std::vector<LanguageRequest> all;
  for (const std::string& language : info.getLanguages()) {
    all.push_back(LanguageRequest{language, info.getLocale(language), "/p"});
  }
  std::map<std::string, std::string> defaults;
  for (const bexko::engine::VoiceDescription& v : backend_.load(all)) {
    EXPECT_EQ(v.name.find(' '), std::string::npos) << v.name;
    EXPECT_TRUE(!v.isDefault || defaults.emplace(v.language, v.name).second) << v.language;
  }
  EXPECT_EQ(defaults.size(), all.size());
  // Named after the locale, another of the voice's codes, the primary code (Chinese: "cmn").
  EXPECT_THAT(defaults, IsSupersetOf({Pair("English", "en-us"), Pair("Brazilian", "pt-br"),
                                      Pair("Portuguese", "pt"), Pair("Chinese", "cmn"),
                                      Pair("Spanish", "es")}));
}

}  // namespace
