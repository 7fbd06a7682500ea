#include "tags.h"

#include <cctype>

namespace bexko {
namespace engine {
namespace detail {

namespace {
bool isAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isNameChar(char c) { return isAsciiAlpha(c) || (c >= '0' && c <= '9') || c == '_'; }
bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
}  // namespace

bool matchTag(const std::string& text, std::size_t pos, Tag& tag) {
  if (pos >= text.size() || text[pos] != '\\') return false;
  std::size_t i = pos + 1;
  if (i >= text.size() || !isAsciiAlpha(text[i])) return false;
  const std::size_t nameBegin = i;
  while (i < text.size() && isNameChar(text[i])) ++i;
  const std::size_t nameEnd = i;
  bool hasValue = false;
  std::size_t valueBegin = i;
  if (i < text.size() && text[i] == '=') {
    hasValue = true;
    valueBegin = ++i;
    while (i < text.size() && text[i] != '\\' && !isSpace(text[i])) ++i;
  }
  if (i >= text.size() || text[i] != '\\') return false;
  tag.begin = pos;
  tag.end = i + 1;
  tag.name = text.substr(nameBegin, nameEnd - nameBegin);
  tag.hasValue = hasValue;
  tag.value = hasValue ? text.substr(valueBegin, i - valueBegin) : std::string();
  return true;
}

std::vector<Tag> findTags(const std::string& text) {
  std::vector<Tag> tags;
  std::size_t pos = 0;
  while ((pos = text.find('\\', pos)) != std::string::npos) {
    Tag tag;
    if (matchTag(text, pos, tag)) {
      pos = tag.end;
      tags.push_back(std::move(tag));
    } else {
      ++pos;
    }
  }
  return tags;
}

}  // namespace detail
}  // namespace engine
}  // namespace bexko
