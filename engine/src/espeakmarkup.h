#pragma once

#include <string>
#include <vector>

namespace bexko {
namespace engine {
namespace detail {

/// A sentence with engine tags turned into the SSML subset that eSpeak NG reads, with the way
/// back from eSpeak's text positions to the sentence without its tags.
///
///   \mrk=N\    <mark name="N"/> (N a whole number; a mark right after a '.' or '!' moves
///              before that punctuation, where eSpeak NG reports it reliably)
///   \pau=MS\   <break time="MSms"/>
///   \rspd=P\   speaking rate P % of the current one     |
///   \vct=P\    pitch P %                                 | one <prosody> element
///   \vol=P\    volume P %                                | carries the three
///   \rst\      rate, pitch and volume back to 100 %
///   \style=X\  and any other tag: dropped (not spoken)
/// '<', '>' and '&' of the text are escaped; each invalid UTF-8 byte becomes a space, and so
/// does each character that eSpeak NG 1.51 cannot read without corrupting its memory (digits,
/// signs and unassigned code points of some scripts it reads with another language's
/// dictionary, archaic Hangul Jamo, control characters other than tabs and line breaks):
/// `tagFree` and `tokens` keep such a character as it is.
/// A word that mixes one of those scripts with another, and ASCII punctuation followed by a
/// symbol, reach eSpeak NG split by a space, which is markup (it stands for the character after
/// it).
struct EspeakMarkup {
  /// A word as the speech service splits the tag-free sentence (on any of " .,;:!", an
  /// invalid byte being a character of its word): its first character and one past its last.
  struct Token {
    int begin;
    int end;
  };

  /// The SSML text (UTF-8).
  std::string text;
  /// For each code point of `text`, the index of the character of the tag-free sentence that
  /// it stands for; markup stands for the character that follows it.
  std::vector<int> tagFreeIndex;
  /// The tag-free sentence's characters.
  std::u32string tagFree;
  /// A mark of the text: its number and the tag-free index of the character it stands before.
  /// eSpeak NG reports marks without a text position.
  struct Mark {
    long value;
    int index;
  };
  /// The marks in the order of the text (which is the order eSpeak NG reports them in).
  std::vector<Mark> marks;
  /// The words of the tag-free sentence, in order: the service announces the n-th of them at
  /// the n-th word event.
  std::vector<Token> tokens;

  /// The tag-free index of eSpeak's 1-based text position; -1 when out of range.
  int toTagFreeIndex(int espeakPosition) const;
  /// Whether a word can start at tag-free index `index`: not a space, nor the punctuation that
  /// ends words and clauses.
  bool startsWord(int index) const;
};

/// The markup of `sentence` for a voice whose eSpeak NG language code is `voiceCode` ("en-us",
/// "el", "ko"; empty when unknown). The letters of the scripts that eSpeak NG reads with another
/// language's dictionary reach it as spaces unless the voice is of that language (see
/// kForeignDictionaryScripts in the source); the sentence, its words and positions keep them.
EspeakMarkup toEspeakMarkup(const std::string& sentence, const std::string& voiceCode = {});

}  // namespace detail
}  // namespace engine
}  // namespace bexko
