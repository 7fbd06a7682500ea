#pragma once

#include <string>
#include <vector>

#include <zr/export.h>

namespace ZR {

/// Engine tags. A tag is a backslash, a name, optionally "=" and a value, and a closing
/// backslash: bookmark \mrk=N\, pause \pau=MS\, speed \rspd=P\, pitch \vct=P\, volume \vol=P\,
/// reset \rst\, style \style=NAME\. A backslash without a closing one is plain text.
/// None of these functions crashes on invalid UTF-8.

/// Pause marks given to the animated-speech module are markers above this number.
constexpr int kPauseMarkBase = 64535;

/// In place: turns each pause tag \pau=MS\ into itself preceded by a pause mark
/// \mrk=64536+n\ (n counting the pause tags of the text from 0), so that the engine reports when
/// each pause starts.
BEXKO_API void replaceMrkPause(std::string& text);
/// In place: turns typographic apostrophes and acute/grave accents used as apostrophes
/// (U+2019, U+2018, U+00B4, U+0060) into "'".
BEXKO_API void replaceIncorrectApostrophe(std::string& text);
/// True when the text ends with a tag (trailing spaces ignored).
BEXKO_API bool checkLastTag(const std::string& text);
/// The text with every tag replaced by `replacement`.
BEXKO_API std::string replaceTags(const std::string& text, const char* replacement);
/// Number of UTF-8 characters (code points); an invalid byte counts as one character.
BEXKO_API int countUtf8Chars(const char* text);
/// Appends to `out` the non-empty pieces of `text` between any of the `separators` bytes.
BEXKO_API void tokenizeString(std::string& text, std::vector<std::string>& out,
                              const std::string& separators);
/// The identifier of a pause mark for the animated-speech module: the pause's index
/// (mark - 64536) in the sentence.
BEXKO_API int makeSpecificId(int mark);

}  // namespace ZR
