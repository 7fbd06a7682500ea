#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace bexko {
namespace engine {
namespace detail {

/// A text prepared for synthesis, with the way back from its characters to the caller's.
struct ReplacedText {
  std::string text;
  /// For each character (code point) of the tag-free form of `text`, the index of the
  /// character of the original tag-free text that it comes from.
  std::vector<int> originalIndex;
  /// Number of characters of the original tag-free text.
  int originalLength = 0;

  /// Maps a character index of `text` (without tags) back to the original text.
  int toOriginal(int index) const;
};

/// A user dictionary of one language, kept in a text file: one entry per line, fields
/// separated by tabs, first field the kind of entry:
///   "replace" <text> <replacement>       the text is replaced before synthesis
///   "reading" <type> <word> <priority> <phonetic> <accent>   a stored reading of a word
/// Lines that are empty or start with '#' are skipped. Not thread-safe.
class Dictionary {
 public:
  struct Entry {
    bool isReading = false;
    /// Replacement: text, replacement. Reading: type, word, priority, phonetic, accent.
    std::vector<std::string> fields;
    /// The word by which the entry is deleted: the replaced text, or the read word.
    const std::string& key() const { return isReading ? fields[1] : fields[0]; }
  };

  /// Reads `path`; a missing file is an empty dictionary. Throws std::runtime_error when the
  /// file exists and cannot be read. Malformed lines are skipped and counted.
  void load(const std::string& path, int* skippedLines = nullptr);
  /// Writes the entries to `path` (replacing it), creating its folder. Throws
  /// std::runtime_error.
  void save(const std::string& path) const;
  void clear() { entries_.clear(); }

  /// Adds or replaces (same key and kind) an entry. False when a field holds a tab or a line
  /// break, or a needed field is empty.
  bool addReplacement(const std::string& text, const std::string& replacement);
  bool addReading(const std::string& type, const std::string& word, const std::string& priority,
                  const std::string& phonetic, const std::string& accent);
  /// Removes the entries whose key is `word` (only readings of `type` when `type` is not
  /// empty). False when none was removed.
  bool remove(const std::string& type, const std::string& word);

  const std::vector<Entry>& entries() const { return entries_; }

  /// Applies the replacements to the text outside its engine tags, whole words only and
  /// longest text first.
  ReplacedText apply(const std::string& text) const;

 private:
  std::vector<Entry> entries_;
};

}  // namespace detail
}  // namespace engine
}  // namespace bexko
