// A sentence through the eSpeak NG backend, as the speech service gives it, in one of the
// languages that the shipped package serves (the first byte chooses which). libespeak-ng runs
// inside the sanitized process, so a read of freed memory inside it is reported.
#include <bexko/engine/espeakbackend.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <zr/tts/texttospeechenginecallbackinterface.h>
#include <zr/tts/textutils.h>

#include "fuzzsupport.h"
#include "utf8.h"

namespace {

using bexko::engine::EspeakBackend;
using bexko::engine::LanguageRequest;

// The locales of data/packages/espeak-ng/manifest.xml; each is also the language's name here.
const char* const kLocales[] = {"en_US", "fr_FR", "de_DE", "es_ES", "it_IT", "pt_PT", "pt_BR",
                                "nl_NL", "pl_PL", "ru_RU", "cs_CZ", "da_DK", "fi_FI", "el_GR",
                                "sv_SE", "nb_NO", "tr_TR", "ar_SA", "zh_CN", "ja_JP", "ko_KR"};
constexpr std::size_t kLocaleCount = sizeof kLocales / sizeof kLocales[0];
// Longer sentences only take longer: the engine works clause by clause.
constexpr std::size_t kMaxSentenceBytes = 512;

class Checks : public TextToSpeechEngineCallbackInterface {
 public:
  void TTSCallBack(short*, unsigned int) override {}
  void TTSEventCallBack(ZR::TextToSpeechEngineEvent event, int value, unsigned int) override {
    if (ended) fail("an event after TTS_EVENT_END");
    if (event == ZR::TTS_EVENT_END) ended = true;
    if (event == ZR::TTS_EVENT_WORD && (value < 0 || value >= characters)) {
      fail("a word event outside the sentence");
    }
  }
  void fail(const char* what) {
    std::fprintf(stderr, "%s (language %s)\n", what, language);
    std::abort();
  }

  int characters = 0;
  const char* language = "";
  bool ended = false;
};

EspeakBackend* backend = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  bexko::fuzz::prepareFuzzing();
  static EspeakBackend instance(EspeakBackend::Options{false});
  std::vector<LanguageRequest> languages;
  for (const char* locale : kLocales) languages.push_back(LanguageRequest{locale, locale, "/"});
  instance.load(languages);
  for (const char* locale : kLocales) instance.setCurrentLanguage(locale);  // all served
  backend = &instance;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 1 || size > kMaxSentenceBytes + 1) return 0;
  Checks checks;
  checks.language = kLocales[data[0] % kLocaleCount];
  // The service hands the engine C strings.
  std::string sentence(reinterpret_cast<const char*>(data + 1), size - 1);
  sentence = sentence.substr(0, sentence.find('\0'));
  // The service refuses a sentence that is not valid UTF-8 (testTextEncoding), and only then
  // do its character counts and the engine's agree: word events are checked on valid ones.
  checks.characters = bexko::engine::detail::isValidUtf8(sentence)
                          ? ZR::countUtf8Chars(ZR::replaceTags(sentence, "").c_str())
                          : std::numeric_limits<int>::max();
  backend->setCurrentLanguage(checks.language);
  try {
    backend->startSynthetizer(sentence, checks);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "startSynthetizer failed: %s\n", e.what());
    checks.fail("an error for a sentence");
  }
  if (!checks.ended) checks.fail("no TTS_EVENT_END");
  return 0;
}
