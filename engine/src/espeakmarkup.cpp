#include "espeakmarkup.h"

#include <cstdlib>

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

EspeakMarkup toEspeakMarkup(const std::string& sentence) {
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
        appendUtf8(utf8, cp);
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
