#pragma once

#include <cstddef>
#include <string>

namespace bexko {
namespace engine {
namespace detail {

/// Decodes the code point that starts at `text[index]` and moves `index` past it. An invalid
/// byte (stray continuation, overlong form, surrogate, value above U+10FFFF, truncated
/// sequence) is consumed alone and reported as false, so that a scan always advances.
bool decodeUtf8(const char* text, std::size_t size, std::size_t& index, char32_t& codePoint);

/// Whether `text` is valid UTF-8 throughout.
bool isValidUtf8(const std::string& text);

/// Appends the UTF-8 form of `codePoint`.
void appendUtf8(std::string& out, char32_t codePoint);

/// Lower-case ASCII copy (language and voice names are compared without regard to case).
std::string toLowerAscii(std::string text);

}  // namespace detail
}  // namespace engine
}  // namespace bexko
