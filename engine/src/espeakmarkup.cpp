#include "espeakmarkup.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>

#include "tags.h"
#include "utf8.h"

namespace bexko {
namespace engine {
namespace detail {

namespace {

// One piece of the output: a character of the sentence, or one markup element.
struct Unit {
  std::string utf8;
  int index;  // tag-free index of the character (markup: filled in at the end)
  bool isMarkup;
  char32_t codePoint;
  long mark;  // the number of a mark, -1 for anything else
};

bool parseWhole(const std::string& text, long& value) {
  if (text.empty() || text.size() > 9) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  value = std::strtol(text.c_str(), nullptr, 10);
  return true;
}

// The separators of the speech service's words.
bool separatesTokens(char32_t c) {
  return c == ' ' || c == '.' || c == ',' || c == ';' || c == ':' || c == '!';
}

bool isSpace(char32_t c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == 0xA0; }

// Characters that corrupt eSpeak NG 1.51's memory (the version Debian 12 ships). In a word of a
// script whose letters eSpeak reads with another language's dictionary (Greek in most Latin
// script voices, Bengali, Gurmukhi, Gujarati, Tamil, Kannada, Malayalam, Sinhala, Georgian,
// Hangul Jamo), a character of that block that the other language cannot read (digits, signs,
// unassigned code points, the archaic Jamo vowels and finals) makes eSpeak switch dictionaries
// while it still reads the freed one: a heap use-after-free, found with "\u1186" and confirmed
// for every range below by synthesising each code point alone under AddressSanitizer in every
// voice that the backend serves, and by the engine input fuzz target (engine/fuzz). They are
// not spoken properly in any case; each becomes a space, one character for one. The list
// comes from each code point alone; the fuzzer found Greek ones that fail only in pairs, so
// all of the Greek block but the modern letters is listed.
struct CodePointRange {
  char32_t first;
  char32_t last;
};
constexpr CodePointRange kUnsafeForEspeak[] = {
    // Greek: all but the letters of modern Greek (U+0386-U+03CE), which it reads; the archaic
    // letters and symbols around them also fail in pairs ("\u0370\u03F5" in Portuguese).
    {0x0370, 0x0385}, {0x0387, 0x0387}, {0x038B, 0x038B}, {0x038D, 0x038D}, {0x03A2, 0x03A2},
    {0x03CF, 0x03FF}, {0x0970, 0x0970}, {0x09E4, 0x09EF}, {0x09F2, 0x09F3}, {0x09F7, 0x09F9},
    {0x09FB, 0x09FB}, {0x09FD, 0x09FF}, {0x0A64, 0x0A6F}, {0x0A76, 0x0A77}, {0x0A7B, 0x0A7B},
    {0x0A7E, 0x0A7F}, {0x0AE4, 0x0AF8}, {0x0AFD, 0x0AFF}, {0x0B80, 0x0B80}, {0x0B84, 0x0B84},
    {0x0B8B, 0x0B8C}, {0x0B96, 0x0B98}, {0x0B9B, 0x0B9B}, {0x0B9D, 0x0B9D}, {0x0BA0, 0x0BA2},
    {0x0BA6, 0x0BA7}, {0x0BAB, 0x0BAD}, {0x0BBA, 0x0BBC}, {0x0BC4, 0x0BC4}, {0x0BD3, 0x0BD4},
    {0x0BDA, 0x0BEF}, {0x0BFB, 0x0BFF}, {0x0C80, 0x0C80}, {0x0C84, 0x0C84}, {0x0CC5, 0x0CC5},
    {0x0CCE, 0x0CD2}, {0x0CE6, 0x0CEF}, {0x0CFD, 0x0D01}, {0x0D04, 0x0D04}, {0x0D0D, 0x0D0D},
    {0x0D45, 0x0D45}, {0x0D49, 0x0D49}, {0x0D52, 0x0D52}, {0x0D55, 0x0D56}, {0x0D5B, 0x0D5B},
    {0x0D5E, 0x0D5F}, {0x0D62, 0x0D62}, {0x0D66, 0x0D6F}, {0x0DC7, 0x0DC9}, {0x0DCB, 0x0DCD},
    {0x0DD5, 0x0DD5}, {0x0DD7, 0x0DD7}, {0x0DE2, 0x0DF1}, {0x0DF5, 0x0DF9}, {0x0DFB, 0x0DFF},
    {0x10C6, 0x10C6}, {0x10C8, 0x10CC}, {0x10CE, 0x10CF}, {0x10FB, 0x10FB}, {0x1180, 0x11A7},
    {0x11C3, 0x11FF},
};

// The blocks whose words eSpeak NG reads with another language's dictionary. A word that mixes
// one of them with another script makes 1.51 switch dictionaries inside the word and read the
// freed one ("\u0581e" in the French or Japanese voice): such a word reaches it as two.
constexpr CodePointRange kForeignDictionaryScripts[] = {
    {0x0370, 0x03FF},                                                        // Greek
    {0x0530, 0x058F},                                                        // Armenian
    {0x0900, 0x097F}, {0x0980, 0x09FF}, {0x0A00, 0x0A7F}, {0x0A80, 0x0AFF},  // Indic scripts
    {0x0B00, 0x0B7F}, {0x0B80, 0x0BFF}, {0x0C00, 0x0C7F}, {0x0C80, 0x0CFF},
    {0x0D00, 0x0D7F}, {0x0D80, 0x0DFF}, {0x10A0, 0x10FF},  // Georgian
    {0x1100, 0x11FF},                                      // Hangul Jamo
};

// The language code of the one served voice that reads each of those blocks with its own
// dictionary ("" for none). In any other voice, 1.51 switches to another dictionary for such a
// word and may read the freed one: two Armenian letters ("\u0546\u0546") in the Polish voice,
// found by the engine input fuzz target after every range and pairing above was made safe. A
// voice of another language cannot speak them anyway: their letters reach it as spaces.
constexpr const char* kOwnVoiceOfScript[] = {"el", "", "", "", "", "", "",
                                             "",   "", "", "", "", "", "ko"};
static_assert(std::size(kOwnVoiceOfScript) == std::size(kForeignDictionaryScripts),
              "one entry per block");

// The block of kForeignDictionaryScripts that holds `c`, or -1.
int foreignDictionaryScript(char32_t c) {
  for (std::size_t i = 0; i < std::size(kForeignDictionaryScripts); ++i) {
    if (c >= kForeignDictionaryScripts[i].first && c <= kForeignDictionaryScripts[i].last) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

bool isUnsafeForEspeak(char32_t c) {
  // Control characters other than tabs and line breaks (which the speech service refuses, but
  // the engine's own callers may not): in the Korean voice a few of them leave eSpeak NG 1.51's
  // memory corrupted, and a later sentence reads past the end of its heap.
  if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || (c >= 0x7F && c <= 0x9F)) {
    return true;
  }
  const auto* end = std::end(kUnsafeForEspeak);
  const auto* range =
      std::upper_bound(std::begin(kUnsafeForEspeak), end, c,
                       [](char32_t v, const CodePointRange& r) { return v < r.first; });
  return range != std::begin(kUnsafeForEspeak) && c <= (range - 1)->last;
}

struct Prosody {
  long rate = 100;
  long pitch = 100;
  long volume = 100;
  bool isDefault() const { return rate == 100 && pitch == 100 && volume == 100; }
};

}  // namespace

int EspeakMarkup::toTagFreeIndex(int espeakPosition) const {
  const int offset = espeakPosition - 1;
  if (offset < 0 || offset >= static_cast<int>(tagFreeIndex.size())) return -1;
  return tagFreeIndex[offset];
}

bool EspeakMarkup::startsWord(int index) const {
  if (index < 0 || index >= static_cast<int>(tagFree.size())) return false;
  const char32_t c = tagFree[index];
  // The punctuation that ends words and clauses (eSpeak NG sometimes reports it as a word).
  return !isSpace(c) && c != '.' && c != ',' && c != ';' && c != ':' && c != '!' && c != '?';
}

EspeakMarkup toEspeakMarkup(const std::string& sentence, const std::string& voiceCode) {
  const std::string voiceLanguage = voiceCode.substr(0, voiceCode.find('-'));
  // Whether eSpeak NG must read a space in place of `c` in this voice.
  const auto unreadable = [&voiceLanguage](char32_t c) {
    if (isUnsafeForEspeak(c)) return true;
    const int script = foreignDictionaryScript(c);
    return script >= 0 && voiceLanguage != kOwnVoiceOfScript[script];
  };
  std::vector<Unit> units;
  EspeakMarkup result;
  Prosody prosody;
  bool prosodyOpen = false;

  const auto addMarkup = [&](std::string markup) {
    units.push_back(Unit{std::move(markup), -1, true, 0, -1});
  };
  const auto applyProsody = [&]() {
    if (prosodyOpen) addMarkup("</prosody>");
    prosodyOpen = !prosody.isDefault();
    if (!prosodyOpen) return;
    std::string open = "<prosody";
    if (prosody.rate != 100) open += " rate=\"" + std::to_string(prosody.rate) + "%\"";
    if (prosody.pitch != 100) open += " pitch=\"" + std::to_string(prosody.pitch) + "%\"";
    if (prosody.volume != 100) open += " volume=\"" + std::to_string(prosody.volume) + "%\"";
    addMarkup(open + ">");
  };
  // A mark that follows a '.' or '!' (with only spaces and markup between) goes before it.
  const auto addMark = [&](long number) {
    Unit mark{"<mark name=\"" + std::to_string(number) + "\"/>", -1, true, 0, number};
    for (auto it = units.end(); it != units.begin();) {
      --it;
      if (it->isMarkup || isSpace(it->codePoint)) continue;
      if (it->codePoint == '.' || it->codePoint == '!') {
        units.insert(it, std::move(mark));
        return;
      }
      break;
    }
    units.push_back(std::move(mark));
  };

  const std::vector<Tag> tags = findTags(sentence);
  std::size_t nextTag = 0;
  std::size_t pos = 0;
  int index = 0;
  while (pos < sentence.size()) {
    if (nextTag < tags.size() && tags[nextTag].begin == pos) {
      const Tag& tag = tags[nextTag++];
      pos = tag.end;
      long number = 0;
      if (tag.name == "mrk" && parseWhole(tag.value, number)) {
        addMark(number);
      } else if (tag.name == "pau" && parseWhole(tag.value, number)) {
        addMarkup("<break time=\"" + std::to_string(number) + "ms\"/>");
      } else if (tag.name == "rspd" && parseWhole(tag.value, number)) {
        prosody.rate = number;
        applyProsody();
      } else if (tag.name == "vct" && parseWhole(tag.value, number)) {
        prosody.pitch = number;
        applyProsody();
      } else if (tag.name == "vol" && parseWhole(tag.value, number)) {
        prosody.volume = number;
        applyProsody();
      } else if (tag.name == "rst") {
        prosody = Prosody();
        applyProsody();
      }
      continue;
    }
    char32_t cp = 0;
    // eSpeak NG loses its word positions on U+FFFD: an invalid byte or a NUL is a space, one
    // character as countUtf8Chars counts it; for the service it stays part of its word.
    const bool valid = decodeUtf8(sentence.data(), sentence.size(), pos, cp);
    if (!valid || !separatesTokens(cp)) {
      if (result.tokens.empty() || result.tokens.back().end != index) {
        result.tokens.push_back(EspeakMarkup::Token{index, index + 1});
      } else {
        ++result.tokens.back().end;
      }
    }
    if (!valid || cp == 0) cp = ' ';
    // A space between the scripts of a word that mixes one read with another dictionary, and
    // between ASCII punctuation and a symbol right after it (";\U0001F3D4" made the Korean
    // voice of 1.51 read freed memory). Markup: it stands for the character after it, so no
    // position moves.
    if (!isSpace(cp) && !separatesTokens(cp)) {
      for (auto it = units.rbegin(); it != units.rend(); ++it) {
        if (it->isMarkup) continue;
        const char32_t previous = it->codePoint;
        const bool mixesScripts = !isSpace(previous) && !separatesTokens(previous) &&
                                  foreignDictionaryScript(previous) != foreignDictionaryScript(cp);
        const bool symbolAfterPunctuation =
            previous < 0x80 && std::ispunct(static_cast<int>(previous)) && cp >= 0x2000;
        if (mixesScripts || symbolAfterPunctuation) addMarkup(" ");
        break;
      }
    }
    result.tagFree.push_back(cp);
    std::string utf8;
    switch (cp) {
      case '<':
        utf8 = "&lt;";
        break;
      case '>':
        utf8 = "&gt;";
        break;
      case '&':
        utf8 = "&amp;";
        break;
      default:
        // The sentence keeps the character (tagFree, tokens, the mark placement above); only
        // eSpeak NG reads a space in its place.
        appendUtf8(utf8, unreadable(cp) ? U' ' : cp);
    }
    units.push_back(Unit{std::move(utf8), index++, false, cp, -1});
  }
  if (prosodyOpen) addMarkup("</prosody>");

  // Markup stands for the character after it (or the end of the sentence).
  int following = index;
  for (auto it = units.rbegin(); it != units.rend(); ++it) {
    if (it->isMarkup) {
      it->index = following;
    } else {
      following = it->index;
    }
  }
  for (const Unit& unit : units) {
    if (unit.mark >= 0) result.marks.push_back(EspeakMarkup::Mark{unit.mark, unit.index});
    result.text += unit.utf8;
    std::size_t at = 0;
    char32_t ignored;
    while (at < unit.utf8.size()) {
      decodeUtf8(unit.utf8.data(), unit.utf8.size(), at, ignored);
      result.tagFreeIndex.push_back(unit.index);
    }
  }
  return result;
}

}  // namespace detail
}  // namespace engine
}  // namespace bexko
