#include <bexko/engine/espeakbackend.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <zr/tts/textutils.h>

#include "espeakmarkup.h"
#include "recordingcallback.h"
#include "utf8.h"

// eSpeak NG 1.51 reads freed memory on some characters (see espeakmarkup.cpp). These tests run
// them through the backend in every language of the shipped package; the AddressSanitizer build
// (BEXKO_SANITIZE=address) reports any read of freed memory inside the library.

namespace {

using bexko::engine::EspeakBackend;
using bexko::engine::LanguageRequest;
using bexko::engine::detail::EspeakMarkup;
using bexko::engine::detail::toEspeakMarkup;
using bexko::engine::testing::RecordingCallback;
using namespace ::testing;

// The locales of data/packages/espeak-ng/manifest.xml.
const char* const kServedLocales[] = {"en_US", "fr_FR", "de_DE", "es_ES", "it_IT", "pt_PT",
                                      "pt_BR", "nl_NL", "pl_PL", "ru_RU", "cs_CZ", "da_DK",
                                      "fi_FI", "el_GR", "sv_SE", "nb_NO", "tr_TR", "ar_SA",
                                      "zh_CN", "ja_JP", "ko_KR"};

std::string utf8(char32_t c) {
  std::string out;
  bexko::engine::detail::appendUtf8(out, c);
  return out;
}

// The blocks whose characters eSpeak NG reads with another language's dictionary and in which
// it mishandles some: every code point of each, alone and in a word with a Latin letter.
std::string everyCodePointOf(char32_t first, char32_t last) {
  std::string text;
  for (char32_t c = first; c <= last; ++c) {
    text += utf8(c) + " " + utf8(c) + "e e" + utf8(c) + " ";
  }
  return text;
}

class EspeakInputSafety : public TestWithParam<const char*> {
 protected:
  static void SetUpTestSuite() {
    backend = new EspeakBackend(EspeakBackend::Options{false});
    std::vector<LanguageRequest> languages;
    for (const char* locale : kServedLocales) {
      languages.push_back(LanguageRequest{locale, locale, "/p"});
    }
    backend->load(languages);
  }
  static void TearDownTestSuite() {
    delete backend;
    backend = nullptr;
  }

  // Synthesises `text` in the language under test: no error, one end, and one word event per
  // word of the service's split.
  void speaks(const std::string& text) {
    SCOPED_TRACE(testing::PrintToString(text));
    backend->setCurrentLanguage(GetParam());
    RecordingCallback callback;
    ASSERT_NO_THROW(backend->startSynthetizer(text, callback));
    ASSERT_EQ(callback.events(ZR::TTS_EVENT_END).size(), 1u);
    EXPECT_EQ(callback.events().back().event, ZR::TTS_EVENT_END);
    std::string tagFree = ZR::replaceTags(text, "");
    std::vector<std::string> words;
    ZR::tokenizeString(tagFree, words, " .,;:!");
    EXPECT_EQ(callback.events(ZR::TTS_EVENT_WORD).size(), words.size());
  }

  static EspeakBackend* backend;
};

EspeakBackend* EspeakInputSafety::backend = nullptr;

TEST_P(EspeakInputSafety, SpeaksTheCharactersThatCorruptTheLibrarysMemory) {
  const std::string cases[] = {
      "\u1186",                                    // the first report: a Hangul Jamo vowel
      "Hello \u1186 world.",                       // inside a sentence
      "a\u1186b \u11A7\u11C3, \u11FF.",            // inside words, and at a block's ends
      "\u1100\u1186 \u1112\u11C3\u1161",           // after and before Jamo that are read
      "\u09E6\u09E7 \u0986\u09F2 \u0A66 \u0AE6",   // Bengali, Gurmukhi, Gujarati signs
      "\u0BE6 \u0CE6 \u0D66 \u0DE6 \u0970",        // Tamil, Kannada, Malayalam, Sinhala digits
      "\u0384\u0391 \u0387 \u03F6 \u10FB \u10C7",  // Greek and Georgian signs
      "\\mrk=1\\\u1186\\pau=10\\ \u1186.\\mrk=2\\ ok",
      // Found by the engine input fuzz target: an Armenian letter before a Latin one.
      "\u0588e",
      "\u0581e \u0531\u0532x1 e\u0581",
      "\u0581\\mrk=4\\e",
      // Found by the engine input fuzz target: control characters that corrupt the library's
      // memory in the Korean voice (a later sentence crashed).
      "\x1d\x14\x1dj;g\x13j;g\x13sta",
      "Tom & Jerry <\x01"
      "B \u0080\u009f\x7f ok",
      // Found by the engine input fuzz target: ASCII punctuation right before a symbol, which
      // the Korean voice mishandles.
      ";\U0001F3D4",
      "\u0370\u03F5",
      // Found by the engine input fuzz target: two Armenian letters in the Polish voice.
      "\u0546\u0546, sssssss, ssssssss",
      "\u0546\u0546 \u0531\u0561\u0562 \u10D0\u10D1 \u0915\u0916 \u03B1\u03B2 \u1100\u1161",
      "\u03D0\u03F5\u03FF\u0370 \u0391\u03CE",
      "Hi,\U0001F600 (\u2605) \"\u2192\" [\u20AC] -\U0001F3FE! ok?\u2600",
  };
  for (const std::string& text : cases) speaks(text);
}

TEST_P(EspeakInputSafety, SpeaksEveryCodePointOfTheBlocksItReadsWithAnotherDictionary) {
  const struct {
    char32_t first;
    char32_t last;
  } blocks[] = {{0x0370, 0x058F}, {0x0900, 0x0DFF}, {0x10A0, 0x11FF}};
  for (const auto& block : blocks) speaks(everyCodePointOf(block.first, block.last));
}

INSTANTIATE_TEST_SUITE_P(ServedLanguages, EspeakInputSafety, ValuesIn(kServedLocales));

// What eSpeak NG reads in place of such a character is one character for one: the sentence,
// its words and the positions of everything around it are those of an ordinary letter.
TEST(EspeakMarkupSafety, AReplacedCharacterKeepsItsPlace) {
  const struct {
    std::string text;
    // The same sentence with a letter of the same script in place of each.
    std::string ordinary;
  } cases[] = {
      {"ab\u1186cd ef", "ab\u1100cd ef"},
      {"\u1186 \\mrk=3\\go.\\pau=20\\ \u11A7\u09E6!",
       "\u1100 \\mrk=3\\go.\\pau=20\\ \u1100\u0995!"},
      {"Tom & \u0BE6 <3", "Tom & \u0B95 <3"},
      {"\u0581e \u0BE6x", "\u0581e \u0B95x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const EspeakMarkup markup = toEspeakMarkup(c.text);
    const EspeakMarkup ordinary = toEspeakMarkup(c.ordinary);
    std::u32string tagFree;
    std::size_t at = 0;
    const std::string expected = ZR::replaceTags(c.text, "");
    while (at < expected.size()) {
      char32_t cp;
      bexko::engine::detail::decodeUtf8(expected.data(), expected.size(), at, cp);
      tagFree.push_back(cp);
    }
    EXPECT_EQ(markup.tagFree, tagFree);
    EXPECT_EQ(markup.tagFreeIndex, ordinary.tagFreeIndex);
    ASSERT_EQ(markup.tokens.size(), ordinary.tokens.size());
    for (std::size_t i = 0; i < markup.tokens.size(); ++i) {
      EXPECT_EQ(markup.tokens[i].begin, ordinary.tokens[i].begin);
      EXPECT_EQ(markup.tokens[i].end, ordinary.tokens[i].end);
    }
    ASSERT_EQ(markup.marks.size(), ordinary.marks.size());
    for (std::size_t i = 0; i < markup.marks.size(); ++i) {
      EXPECT_EQ(markup.marks[i].index, ordinary.marks[i].index);
    }
    for (const char* unsafe : {"\u1186", "\u11A7", "\u09E6", "\u0BE6"}) {
      EXPECT_EQ(markup.text.find(unsafe), std::string::npos) << unsafe;
    }
  }
}

}  // namespace
