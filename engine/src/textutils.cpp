#include <zr/tts/textutils.h>

#include <cstring>

#include "tags.h"
#include "utf8.h"

namespace ZR {

using bexko::engine::detail::findTags;
using bexko::engine::detail::Tag;

void replaceMrkPause(std::string& text) {
  const std::vector<Tag> tags = findTags(text);
  std::string out;
  out.reserve(text.size() + 16);
  std::size_t copied = 0;
  int pauseIndex = 0;
  for (const Tag& tag : tags) {
    if (tag.name != "pau") continue;
    out.append(text, copied, tag.begin - copied);
    out += "\\mrk=" + std::to_string(kPauseMarkBase + 1 + pauseIndex++) + "\\";
    copied = tag.begin;
  }
  out.append(text, copied, std::string::npos);
  text.swap(out);
}

void replaceIncorrectApostrophe(std::string& text) {
  static const char* const kApostrophes[] = {"\xE2\x80\x99", "\xE2\x80\x98", "\xC2\xB4", "`"};
  for (const char* apostrophe : kApostrophes) {
    const std::size_t length = std::strlen(apostrophe);
    std::size_t pos = 0;
    while ((pos = text.find(apostrophe, pos, length)) != std::string::npos) {
      text.replace(pos, length, "'");
      ++pos;
    }
  }
}

bool checkLastTag(const std::string& text) {
  std::size_t end = text.find_last_not_of(" \t\r\n");
  if (end == std::string::npos) return false;
  const std::vector<Tag> tags = findTags(text);
  return !tags.empty() && tags.back().end == end + 1;
}

std::string replaceTags(const std::string& text, const char* replacement) {
  const std::string with = replacement ? replacement : "";
  std::string out;
  out.reserve(text.size());
  std::size_t copied = 0;
  for (const Tag& tag : findTags(text)) {
    out.append(text, copied, tag.begin - copied);
    out += with;
    copied = tag.end;
  }
  out.append(text, copied, std::string::npos);
  return out;
}

int countUtf8Chars(const char* text) {
  if (!text) return 0;
  const std::size_t size = std::strlen(text);
  std::size_t index = 0;
  int count = 0;
  char32_t codePoint;
  while (index < size) {
    bexko::engine::detail::decodeUtf8(text, size, index, codePoint);
    ++count;
  }
  return count;
}

void tokenizeString(std::string& text, std::vector<std::string>& out,
                    const std::string& separators) {
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t begin = text.find_first_not_of(separators, pos);
    if (begin == std::string::npos) break;
    std::size_t end = text.find_first_of(separators, begin);
    if (end == std::string::npos) end = text.size();
    out.push_back(text.substr(begin, end - begin));
    pos = end;
  }
}

int makeSpecificId(int mark) { return mark - (kPauseMarkBase + 1); }

}  // namespace ZR
