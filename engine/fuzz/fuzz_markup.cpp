// Text through the helpers of zr/tts/textutils.h and the engine's markup step: nothing may
// crash, and the markup must agree with the speech service on the words of the sentence.
#include <zr/tts/textutils.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <pugixml.hpp>

#include "espeakmarkup.h"
#include "utf8.h"

namespace {

void fail(const char* what, const std::string& input) {
  std::fprintf(stderr, "%s for %zu bytes of input\n", what, input.size());
  std::abort();
}

int countCodePoints(const std::string& text) {
  int count = 0;
  std::size_t at = 0;
  char32_t ignored;
  while (at < text.size()) {
    bexko::engine::detail::decodeUtf8(text.data(), text.size(), at, ignored);
    ++count;
  }
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  // The service's own preparation of a sentence.
  std::string prepared = input;
  ZR::replaceIncorrectApostrophe(prepared);
  ZR::replaceMrkPause(prepared);
  ZR::checkLastTag(prepared);
  for (int mark : {0, ZR::kPauseMarkBase, ZR::kPauseMarkBase + 1, 1 << 30}) {
    ZR::makeSpecificId(mark);
  }

  // The C-string helpers see the text up to its first NUL, as the service gives it to them.
  const std::string sentence = prepared.substr(0, prepared.find('\0'));
  const int characters = ZR::countUtf8Chars(sentence.c_str());
  if (characters < 0 || characters > static_cast<int>(sentence.size())) {
    fail("countUtf8Chars out of range", input);
  }
  if (characters != countCodePoints(sentence)) fail("countUtf8Chars disagrees", input);

  std::string tagFree = ZR::replaceTags(sentence, "");
  std::vector<std::string> words;
  ZR::tokenizeString(tagFree, words, " .,;:!");
  for (const std::string& word : words) {
    if (word.empty() || word.find_first_of(" .,;:!") != std::string::npos) {
      fail("tokenizeString returned an empty or split word", input);
    }
  }

  const bexko::engine::detail::EspeakMarkup markup =
      bexko::engine::detail::toEspeakMarkup(sentence);
  // The service refuses a sentence that is not valid UTF-8 before it reaches the engine. In
  // one that is not, removing a tag can join two invalid bytes into a character, which the
  // markup (decoding the sentence with its tags) counts as two.
  if (bexko::engine::detail::isValidUtf8(sentence)) {
    if (static_cast<int>(markup.tagFree.size()) != ZR::countUtf8Chars(tagFree.c_str())) {
      fail("the markup's tag-free sentence differs from the service's", input);
    }
    if (markup.tokens.size() != words.size()) {
      fail("the markup's words differ from the service's", input);
    }
  }
  if (static_cast<int>(markup.tagFreeIndex.size()) != countCodePoints(markup.text)) {
    fail("tagFreeIndex does not cover every code point of the text", input);
  }
  int previous = 0;
  for (int index : markup.tagFreeIndex) {
    if (index < previous || index > static_cast<int>(markup.tagFree.size())) {
      fail("tagFreeIndex goes back or out of the sentence", input);
    }
    previous = index;
  }
  // eSpeak NG reads the text as SSML: what the sentence says must not become markup.
  pugi::xml_document document;
  const std::string ssml = "<speak>" + markup.text + "</speak>";
  if (!document.load_buffer(ssml.data(), ssml.size())) fail("the markup is not XML", input);
  return 0;
}
