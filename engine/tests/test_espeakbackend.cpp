#include <bexko/engine/espeakbackend.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <future>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include <bexko/engine/parameters.h>
#include <zr/tts/texttospeechmanager.h>
#include <zr/tts/textutils.h>

#include "recordingcallback.h"

namespace {

using bexko::engine::EspeakBackend;
using bexko::engine::LanguageRequest;
using bexko::engine::VoiceDescription;
using bexko::engine::testing::RecordingCallback;
using Clock = std::chrono::steady_clock;

const std::string kLongText =
    "This sentence is long enough to be heard for many seconds, so that a test can stop it or "
    "pause it while it is being spoken, and then check that nothing more comes out of the "
    "engine after that moment, whatever the machine is doing at the same time.";

std::vector<LanguageRequest> englishAndFrench() {
  return {LanguageRequest{"English", "en_US", "/packages/espeak"},
          LanguageRequest{"French", "fr_FR", "/packages/espeak"}};
}

std::vector<int> wordIndexes(const RecordingCallback& callback) {
  std::vector<int> indexes;
  for (const auto& e : callback.events(ZR::TTS_EVENT_WORD)) indexes.push_back(e.value);
  return indexes;
}

// Character index of every word of a text without tags (separators as the speech service
// uses them).
std::vector<int> expectedWordStarts(const std::string& tagged) {
  const std::string text = ZR::replaceTags(tagged, "");
  std::vector<int> starts;
  int index = 0;
  bool inWord = false;
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const std::size_t length = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : 4;
    const bool separator = std::string(" .,;:!?").find(text[i]) != std::string::npos;
    if (!separator && !inWord) starts.push_back(index);
    inWord = !separator;
    i += length;
    ++index;
  }
  return starts;
}

class EspeakFast : public ::testing::Test {
 protected:
  EspeakFast() : backend_(EspeakBackend::Options{false}) {
    voices_ = backend_.load(englishAndFrench());
    backend_.setCurrentLanguage("English");
  }

  const VoiceDescription* voice(const std::string& name) const {
    for (const VoiceDescription& v : voices_) {
      if (v.name == name) return &v;
    }
    return nullptr;
  }

  EspeakBackend backend_;
  std::vector<VoiceDescription> voices_;
  RecordingCallback callback_;
};

TEST_F(EspeakFast, OffersTheVoicesOfTheLanguagesAskedForUnderStableNames) {
  ASSERT_NE(voice("en-us"), nullptr);
  ASSERT_NE(voice("en-gb"), nullptr);
  ASSERT_NE(voice("fr-fr"), nullptr);
  EXPECT_TRUE(voice("en-us")->isDefault);
  EXPECT_FALSE(voice("en-gb")->isDefault);
  EXPECT_TRUE(voice("fr-fr")->isDefault);
  EXPECT_EQ(voice("fr-fr")->language, "French");
  EXPECT_EQ(voice("en-gb")->language, "English");
  EXPECT_EQ(voice("en-us")->installDir, "/packages/espeak");
  EXPECT_EQ(voice("de"), nullptr);  // German was not asked for
  EXPECT_EQ(backend_.voiceIdentifier("en-us"), "gmw/en-US");
  std::set<std::string> names;
  for (const VoiceDescription& v : voices_) {
    EXPECT_EQ(v.name.find(' '), std::string::npos) << v.name;
    EXPECT_TRUE(names.insert(v.name).second) << "duplicate " << v.name;
  }
}

TEST_F(EspeakFast, EveryLanguageOfTheTableHasADefaultVoice) {
  ZR::TTSLanguageInfo info;
  std::vector<LanguageRequest> all;
  for (const std::string& language : info.getLanguages()) {
    all.push_back(LanguageRequest{language, info.getLocale(language), "/p"});
  }
  const std::vector<VoiceDescription> voices = backend_.load(all);
  std::map<std::string, std::string> defaults;
  for (const VoiceDescription& v : voices) {
    if (v.isDefault) {
      EXPECT_TRUE(defaults.emplace(v.language, v.name).second) << v.language;
    }
  }
  EXPECT_EQ(defaults.size(), all.size());
  EXPECT_EQ(defaults["Portuguese"], "pt");
  EXPECT_EQ(defaults["Brazilian"], "pt-br");
  EXPECT_EQ(defaults["Chinese"], "cmn");
  EXPECT_EQ(defaults["Norwegian"], "nb");
  EXPECT_EQ(defaults["Spanish"], "es");
}

TEST_F(EspeakFast, SpeaksASentenceWithWordEventsAtItsWords) {
  const std::string text = "Hello big world, how are you?";
  backend_.startSynthetizer(text, callback_);
  EXPECT_EQ(wordIndexes(callback_), expectedWordStarts(text));

  const auto events = callback_.events();
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back().event, ZR::TTS_EVENT_END);
  EXPECT_EQ(callback_.events(ZR::TTS_EVENT_END).size(), 1u);
  EXPECT_EQ(events.back().position, callback_.audioBytes());
  EXPECT_GT(callback_.audioBytes(), 22050u * 4 / 2);  // more than half a second

  unsigned int previous = 0;
  for (const auto& word : callback_.events(ZR::TTS_EVENT_WORD)) {
    EXPECT_GE(word.position, previous);
    EXPECT_LE(word.position, word.audioBytesBefore);  // its audio has been delivered
    previous = word.position;
  }
}

struct AccentedCase {
  const char* name;
  const char* language;
  std::string text;
};

class EspeakAccented : public EspeakFast, public ::testing::WithParamInterface<AccentedCase> {};

TEST_P(EspeakAccented, WordIndexesCountCharactersOfTheTextWithoutTags) {
  backend_.setCurrentLanguage(GetParam().language);
  backend_.startSynthetizer(GetParam().text, callback_);
  EXPECT_EQ(wordIndexes(callback_), expectedWordStarts(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, EspeakAccented,
    ::testing::Values(
        AccentedCase{"french", "French", "Ça va très bien, merci à vous."},
        AccentedCase{"french_with_tags", "French",
                     "\\rspd=90\\Où est \\mrk=1\\l'élève? \\vct=120\\Il étudie \\pau=200\\à "
                     "l'école."},
        AccentedCase{
            "english_with_every_tag", "English",
            "\\vol=80\\One \\rspd=150\\two\\mrk=2\\ three \\rst\\four \\style=joyful\\five"}),
    [](const ::testing::TestParamInfo<AccentedCase>& info) {
      return std::string(info.param.name);
    });

TEST_F(EspeakFast, CharactersOfTheMarkupLanguageDoNotShiftWordIndexes) {
  // eSpeak NG decides itself whether a symbol is a word; the words around it keep their index.
  const std::string text = "Tom & Jerry <3 > cats";
  backend_.startSynthetizer(text, callback_);
  const std::vector<int> indexes = wordIndexes(callback_);
  for (int expected : {0, 6, 17}) {
    EXPECT_NE(std::find(indexes.begin(), indexes.end(), expected), indexes.end()) << expected;
  }
  for (int index : indexes) {
    ASSERT_LT(static_cast<std::size_t>(index), text.size());
    EXPECT_NE(text[index], ' ') << index;
  }
}

TEST_F(EspeakFast, ATagsOnlySentenceEndsWithoutWords) {
  backend_.startSynthetizer("\\style=reset\\ \\rst\\", callback_);
  EXPECT_TRUE(callback_.events(ZR::TTS_EVENT_WORD).empty());
  EXPECT_EQ(callback_.events(ZR::TTS_EVENT_END).size(), 1u);
}

TEST_F(EspeakFast, InvalidUtf8IsSpokenWithoutCrashingAndIndexesStayInTheText) {
  const std::string text = "caf\xC3 \xFF\xFE ok \xE2\x82 fine";
  backend_.startSynthetizer(text, callback_);
  const int length = ZR::countUtf8Chars(text.c_str());
  const std::vector<int> indexes = wordIndexes(callback_);
  ASSERT_FALSE(indexes.empty());
  EXPECT_EQ(indexes.front(), 0);
  EXPECT_EQ(indexes.back(), length - 4);  // "fine"
  for (int index : indexes) EXPECT_LT(index, length);
  EXPECT_EQ(callback_.events(ZR::TTS_EVENT_END).size(), 1u);
}

TEST_F(EspeakFast, ABookmarkIsReportedAtItsPlaceInTheAudio) {
  backend_.startSynthetizer("One two three \\mrk=5\\four five six.", callback_);
  const auto markers = callback_.events(ZR::TTS_EVENT_MARKER);
  const auto words = callback_.events(ZR::TTS_EVENT_WORD);
  ASSERT_EQ(markers.size(), 1u);
  ASSERT_EQ(words.size(), 6u);
  const auto& mark = markers[0];
  EXPECT_EQ(mark.value, 5);
  // Between the words around it, and within the audio delivered before it was reported.
  EXPECT_GT(mark.position, words[2].position);
  EXPECT_LE(mark.position, words[3].position);
  EXPECT_LE(mark.position, mark.audioBytesBefore);
  EXPECT_GT(mark.position + callback_.largestBlockBytes(), mark.audioBytesBefore);
  EXPECT_EQ(mark.position % 4, 0u);  // a whole stereo frame

  // The audio before the mark is about that of the words before it said alone.
  RecordingCallback alone;
  backend_.startSynthetizer("One two three", alone);
  const double ratio = static_cast<double>(mark.position) / alone.audioBytes();
  EXPECT_GT(ratio, 0.6);
  EXPECT_LT(ratio, 1.4);
}

TEST_F(EspeakFast, MarksAfterFinalPunctuationAndPauseMarksAreAllReported) {
  std::string text = "Hello world. \\mrk=7\\ Again! \\pau=300\\ And again.\\mrk=8\\";
  ZR::replaceMrkPause(text);
  backend_.startSynthetizer(text, callback_);
  std::vector<int> values;
  for (const auto& e : callback_.events(ZR::TTS_EVENT_MARKER)) values.push_back(e.value);
  EXPECT_EQ(values, (std::vector<int>{7, 64536, 8}));
  EXPECT_EQ(wordIndexes(callback_), expectedWordStarts(text));
}

TEST_F(EspeakFast, SpeedChangesTheLengthOfTheAudio) {
  backend_.startSynthetizer("One two three four five six seven eight.", callback_);
  const auto normal = callback_.audioBytes();
  backend_.setParameter("speed", 200.0f);
  RecordingCallback faster;
  backend_.startSynthetizer("One two three four five six seven eight.", faster);
  const double ratio = static_cast<double>(faster.audioBytes()) / normal;
  EXPECT_GT(ratio, 0.35);
  EXPECT_LT(ratio, 0.7);
}

TEST_F(EspeakFast, PauseBeforeASentenceHoldsItUntilRestart) {
  backend_.pauseSynthetizer();
  EXPECT_TRUE(backend_.isPaused());
  auto speaking =
      std::async(std::launch::async, [&] { backend_.startSynthetizer("Hello there.", callback_); });
  EXPECT_EQ(speaking.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
  EXPECT_EQ(callback_.audioBytes(), 0u);
  backend_.restartSynthetizer();
  EXPECT_FALSE(backend_.isPaused());
  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_GT(callback_.audioBytes(), 0u);
  EXPECT_EQ(callback_.events().back().event, ZR::TTS_EVENT_END);
}

TEST_F(EspeakFast, StopOfAPausedSentenceEndsItAndTheNextOneIsSpoken) {
  backend_.stopSynthetizer();  // idle: no effect on the next sentence
  backend_.pauseSynthetizer();
  auto speaking =
      std::async(std::launch::async, [&] { backend_.startSynthetizer(kLongText, callback_); });
  EXPECT_EQ(speaking.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  backend_.stopSynthetizer();
  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(callback_.audioBytes(), 0u);
  EXPECT_EQ(callback_.events(ZR::TTS_EVENT_END).size(), 1u);
  EXPECT_FALSE(backend_.isPaused());  // the stop ended the pause with the sentence

  RecordingCallback next;
  backend_.startSynthetizer("Hello big world", next);
  EXPECT_EQ(wordIndexes(next), (std::vector<int>{0, 6, 10}));
}

struct EncodingCase {
  const char* name;
  std::string text;
  bool accepted;
};

class EspeakEncoding : public EspeakFast, public ::testing::WithParamInterface<EncodingCase> {};

TEST_P(EspeakEncoding, AcceptsSpeakableUtf8Only) {
  EXPECT_EQ(backend_.testTextEncoding(GetParam().text, "English"), GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(Texts, EspeakEncoding,
                         ::testing::Values(EncodingCase{"ascii", "Hello", true},
                                           EncodingCase{"accents", "Ça va très bien", true},
                                           EncodingCase{"cjk", "日本語", true},
                                           EncodingCase{"line_breaks", "one\ntwo\tthree\r", true},
                                           EncodingCase{"latin1",
                                                        "\xC7"
                                                        "a va",
                                                        false},
                                           EncodingCase{"truncated", "caf\xC3", false},
                                           EncodingCase{"control", "bell\x07", false}),
                         [](const ::testing::TestParamInfo<EncodingCase>& info) {
                           return std::string(info.param.name);
                         });

struct ParameterCase {
  const char* name;
  std::string parameter;
  float value;
  float readBack;
};

class ParameterClamping : public ::testing::TestWithParam<ParameterCase> {};

TEST_P(ParameterClamping, ClampsIntoWhatTheEngineCanRender) {
  EspeakBackend backend(EspeakBackend::Options{false});
  backend.setParameter(GetParam().parameter, GetParam().value);
  EXPECT_EQ(backend.getParameter(GetParam().parameter), GetParam().readBack);
}

INSTANTIATE_TEST_SUITE_P(
    Values, ParameterClamping,
    ::testing::Values(ParameterCase{"speed_in_range", "speed", 150.0f, 150.0f},
                      ParameterCase{"speed_too_slow", "speed", 10.0f, 50.0f},
                      ParameterCase{"speed_too_fast", "speed", 1000.0f, 400.0f},
                      ParameterCase{"pitch_too_high", "pitch", 500.0f, 198.0f},
                      ParameterCase{"pitch_negative", "pitch", -3.0f, 0.0f},
                      ParameterCase{"volume_too_loud", "volume", 250.0f, 200.0f},
                      ParameterCase{"volume_quiet", "volume", 20.0f, 20.0f},
                      ParameterCase{"default_speed", "defaultVoiceSpeed", 999.0f, 400.0f},
                      ParameterCase{"presel_kept", "presel", 7.5f, 7.5f},
                      ParameterCase{"selbreak_kept", "selBreak", -1.0f, -1.0f}),
    [](const ::testing::TestParamInfo<ParameterCase>& info) {
      return std::string(info.param.name);
    });

TEST(EspeakParameters, DefaultVoiceSpeedSetsSpeedAndResetSpeedReturnsToIt) {
  EspeakBackend backend(EspeakBackend::Options{false});
  for (const char* name : {"speed", "defaultVoiceSpeed", "pitch", "volume"}) {
    EXPECT_EQ(backend.getParameter(name), 100.0f) << name;
  }
  backend.setParameter("defaultVoiceSpeed", 120.0f);
  EXPECT_EQ(backend.getParameter("speed"), 120.0f);
  backend.setParameter("speed", 180.0f);
  backend.resetSpeed();
  EXPECT_EQ(backend.getParameter("speed"), 120.0f);
}

TEST(EspeakParameters, UnknownNamesAndNaNAreErrors) {
  EspeakBackend backend(EspeakBackend::Options{false});
  try {
    backend.setParameter("loudness", 1.0f);
    FAIL() << "no error";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "TextToSpeech");
    EXPECT_EQ(e.methodName(), "setParameter");
    EXPECT_NE(e.description().find("loudness"), std::string::npos);
  }
  EXPECT_THROW(backend.getParameter("loudness"), ZR::ZRError);
  EXPECT_THROW(backend.setParameter("speed", std::nanf("")), ZR::ZRError);
  EXPECT_EQ(backend.getParameter("speed"), 100.0f);
}

TEST(EspeakBackendErrors, SynthesisWithoutAVoiceIsAnError) {
  EspeakBackend backend(EspeakBackend::Options{false});
  RecordingCallback callback;
  EXPECT_THROW(backend.startSynthetizer("Hello", callback), ZR::ZRError);
  backend.load(englishAndFrench());
  EXPECT_THROW(backend.setCurrentLanguage("German"), ZR::ZRError);
  EXPECT_THROW(backend.setCurrentVoice("de"), ZR::ZRError);
}

// Real-time pacing: generous bounds, for a loaded two-core machine.
class EspeakRealTime : public ::testing::Test {
 protected:
  EspeakRealTime() : backend_(EspeakBackend::Options{true}) {
    backend_.load(englishAndFrench());
    backend_.setCurrentLanguage("English");
  }
  static double audioSeconds(unsigned long long bytes) { return bytes / (22050.0 * 4); }

  EspeakBackend backend_;
  RecordingCallback callback_;
};

TEST_F(EspeakRealTime, ASentenceTakesAboutAsLongAsItSounds) {
  const auto start = Clock::now();
  backend_.startSynthetizer("One two three four.", callback_);
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  const double heard = audioSeconds(callback_.audioBytes());
  EXPECT_GT(elapsed, heard * 0.9);
  EXPECT_LT(elapsed, heard + 2.0);
}

TEST_F(EspeakRealTime, StopFromAnotherThreadEndsTheSentenceQuickly) {
  auto speaking =
      std::async(std::launch::async, [&] { backend_.startSynthetizer(kLongText, callback_); });
  ASSERT_TRUE(callback_.waitForAudio(5000));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto stopAt = Clock::now();
  backend_.stopSynthetizer();
  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  const double latency = std::chrono::duration<double>(Clock::now() - stopAt).count();
  speaking.get();
  EXPECT_LT(latency, 1.0);
  EXPECT_LT(audioSeconds(callback_.audioBytes()), 5.0);  // the whole text lasts over 10 s
  EXPECT_EQ(callback_.events().back().event, ZR::TTS_EVENT_END);
  EXPECT_EQ(callback_.events(ZR::TTS_EVENT_END).size(), 1u);
}

TEST_F(EspeakRealTime, PauseSuspendsTheAudioAndRestartResumesIt) {
  auto speaking =
      std::async(std::launch::async, [&] { backend_.startSynthetizer(kLongText, callback_); });
  ASSERT_TRUE(callback_.waitForAudio(5000));
  backend_.pauseSynthetizer();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const auto whilePaused = callback_.audioBytes();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  EXPECT_EQ(callback_.audioBytes(), whilePaused);
  EXPECT_TRUE(backend_.isPaused());

  backend_.restartSynthetizer();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  EXPECT_GT(callback_.audioBytes(), whilePaused);
  backend_.stopSynthetizer();
  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(5)), std::future_status::ready);
}

// The backend as the manager finds it: registered under "tts_espeak".
class EspeakThroughTheManager : public ::testing::Test {
 protected:
  void SetUp() override { setenv("BEXKO_ENGINE_FAST", "1", 1); }
  RecordingCallback callback_;
  ZR::TextToSpeechManager manager_{&callback_, boost::shared_ptr<ZR::TTSLanguageInfo>()};
};

TEST_F(EspeakThroughTheManager, ServesEveryLanguageOfTheTable) {
  ZR::TTSLanguageInfo info;
  ko::PackageInfo package;
  package.setIdentifier("espeak-ng");
  package.setPath("/packages/espeak-ng");
  for (const std::string& language : info.getLanguages()) {
    package.addLanguage(ko::LanguageInfo(info.getLocale(language), "tts_espeak"));
  }
  ASSERT_TRUE(manager_.initialize({package}));
  EXPECT_EQ(manager_.getAvailableLanguages(), info.getLanguages());
  EXPECT_EQ(manager_.getCurrentVoice(), "en-us");
  manager_.setCurrentLanguage("French");
  EXPECT_EQ(manager_.getCurrentVoice(), "fr-fr");
  EXPECT_EQ(manager_.getLanguage("fr-be"), "French");

  const std::string text = "Je m'appelle \\mrk=1\\Marie, enchantée.";
  manager_.startSynthetizer(text);
  EXPECT_EQ(wordIndexes(callback_), expectedWordStarts(text));
  EXPECT_EQ(callback_.events(ZR::TTS_EVENT_MARKER).size(), 1u);
}

}  // namespace
