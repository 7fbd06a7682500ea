#include "utf8.h"

#include <cctype>

namespace bexko {
namespace engine {
namespace detail {

bool decodeUtf8(const char* text, std::size_t size, std::size_t& index, char32_t& codePoint) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(index);
  if (lead < 0x80) {
    codePoint = lead;
    ++index;
    return true;
  }
  std::size_t length;
  char32_t value;
  char32_t minimum;
  if ((lead & 0xE0) == 0xC0) {
    length = 2;
    value = lead & 0x1F;
    minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
    value = lead & 0x0F;
    minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
    value = lead & 0x07;
    minimum = 0x10000;
  } else {
    ++index;
    return false;
  }
  if (index + length > size) {
    ++index;
    return false;
  }
  for (std::size_t k = 1; k < length; ++k) {
    const unsigned char next = byte(index + k);
    if ((next & 0xC0) != 0x80) {
      ++index;
      return false;
    }
    value = (value << 6) | (next & 0x3F);
  }
  if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
    ++index;
    return false;
  }
  codePoint = value;
  index += length;
  return true;
}

bool isValidUtf8(const std::string& text) {
  std::size_t index = 0;
  char32_t codePoint;
  while (index < text.size()) {
    if (!decodeUtf8(text.data(), text.size(), index, codePoint)) return false;
  }
  return true;
}

void appendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

std::string toLowerAscii(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace detail
}  // namespace engine
}  // namespace bexko
