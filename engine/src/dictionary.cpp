#include "dictionary.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem.hpp>

#include <zr/tts/textutils.h>

#include "tags.h"
#include "utf8.h"

namespace bexko {
namespace engine {
namespace detail {

namespace {

bool isClean(const std::string& field) {
  return field.find_first_of("\t\r\n") == std::string::npos;
}

std::vector<std::string> splitTabs(const std::string& line) {
  std::vector<std::string> fields;
  std::size_t begin = 0;
  while (true) {
    const std::size_t tab = line.find('\t', begin);
    fields.push_back(
        line.substr(begin, tab == std::string::npos ? std::string::npos : tab - begin));
    if (tab == std::string::npos) break;
    begin = tab + 1;
  }
  return fields;
}

// Letters and digits join into words; so does everything from U+00C0 on (accented letters and
// other scripts), which keeps a replacement from cutting a word in two.
bool isWordChar(char32_t c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         c >= 0xC0;
}

// The code point that ends just before `index`, or 0 at the start.
char32_t previousCodePoint(const std::string& text, std::size_t begin, std::size_t index) {
  if (index <= begin) return 0;
  std::size_t start = index - 1;
  while (start > begin && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80 &&
         index - start < 4) {
    --start;
  }
  std::size_t at = start;
  char32_t cp = 0;
  if (decodeUtf8(text.data(), index, at, cp) && at == index) return cp;
  return static_cast<unsigned char>(text[index - 1]);
}

}  // namespace

int ReplacedText::toOriginal(int index) const {
  if (index < 0) return index;
  if (static_cast<std::size_t>(index) < originalIndex.size()) return originalIndex[index];
  return originalLength + (index - static_cast<int>(originalIndex.size()));
}

void Dictionary::load(const std::string& path, int* skippedLines) {
  entries_.clear();
  int skipped = 0;
  boost::system::error_code error;
  if (!boost::filesystem::exists(path, error)) {
    if (skippedLines) *skippedLines = 0;
    return;
  }
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot open " + path);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> fields = splitTabs(line);
    const std::string kind = fields.front();
    fields.erase(fields.begin());
    if (kind == "replace" && fields.size() == 2 && !fields[0].empty()) {
      entries_.push_back(Entry{false, std::move(fields)});
    } else if (kind == "reading" && fields.size() == 5 && !fields[1].empty()) {
      entries_.push_back(Entry{true, std::move(fields)});
    } else {
      ++skipped;
    }
  }
  if (skippedLines) *skippedLines = skipped;
}

void Dictionary::save(const std::string& path) const {
  namespace fs = boost::filesystem;
  const fs::path file(path);
  boost::system::error_code error;
  fs::create_directories(file.parent_path(), error);
  if (error) throw std::runtime_error("cannot create " + file.parent_path().string());
  const fs::path temporary = file.string() + ".tmp";
  {
    std::ofstream out(temporary.string(), std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + temporary.string());
    out << "# bexko user dictionary: kind<TAB>fields...\n";
    for (const Entry& entry : entries_) {
      out << (entry.isReading ? "reading" : "replace");
      for (const std::string& field : entry.fields) out << '\t' << field;
      out << '\n';
    }
    out.flush();
    if (!out) throw std::runtime_error("cannot write " + temporary.string());
  }
  fs::rename(temporary, file, error);
  if (error) throw std::runtime_error("cannot replace " + path + ": " + error.message());
}

bool Dictionary::addReplacement(const std::string& text, const std::string& replacement) {
  if (text.empty() || replacement.empty() || !isClean(text) || !isClean(replacement)) {
    return false;
  }
  for (Entry& entry : entries_) {
    if (!entry.isReading && entry.fields[0] == text) {
      entry.fields[1] = replacement;
      return true;
    }
  }
  entries_.push_back(Entry{false, {text, replacement}});
  return true;
}

bool Dictionary::addReading(const std::string& type, const std::string& word,
                            const std::string& priority, const std::string& phonetic,
                            const std::string& accent) {
  for (const std::string* field : {&type, &word, &priority, &phonetic, &accent}) {
    if (!isClean(*field)) return false;
  }
  if (word.empty() || phonetic.empty()) return false;
  for (Entry& entry : entries_) {
    if (entry.isReading && entry.fields[1] == word && entry.fields[0] == type) {
      entry.fields = {type, word, priority, phonetic, accent};
      return true;
    }
  }
  entries_.push_back(Entry{true, {type, word, priority, phonetic, accent}});
  return true;
}

bool Dictionary::remove(const std::string& type, const std::string& word) {
  const auto before = entries_.size();
  entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                [&](const Entry& entry) {
                                  if (entry.key() != word) return false;
                                  return type.empty() ||
                                         (entry.isReading && entry.fields[0] == type);
                                }),
                 entries_.end());
  return entries_.size() != before;
}

ReplacedText Dictionary::apply(const std::string& text) const {
  std::vector<const Entry*> replacements;
  for (const Entry& entry : entries_) {
    if (!entry.isReading) replacements.push_back(&entry);
  }
  std::stable_sort(replacements.begin(), replacements.end(), [](const Entry* a, const Entry* b) {
    return a->fields[0].size() > b->fields[0].size();
  });

  ReplacedText result;
  result.text.reserve(text.size());
  int original = 0;
  std::size_t pos = 0;
  const std::vector<Tag> tags = findTags(text);
  std::size_t nextTag = 0;
  while (pos < text.size()) {
    if (nextTag < tags.size() && tags[nextTag].begin == pos) {
      result.text.append(text, pos, tags[nextTag].end - pos);
      pos = tags[nextTag].end;
      ++nextTag;
      continue;
    }
    const std::size_t segmentEnd = nextTag < tags.size() ? tags[nextTag].begin : text.size();
    const Entry* match = nullptr;
    if (!replacements.empty() && !isWordChar(previousCodePoint(text, 0, pos))) {
      for (const Entry* entry : replacements) {
        const std::string& key = entry->fields[0];
        if (key.size() > segmentEnd - pos || text.compare(pos, key.size(), key) != 0) continue;
        std::size_t after = pos + key.size();
        char32_t next = 0;
        if (after < segmentEnd) decodeUtf8(text.data(), text.size(), after, next);
        if (isWordChar(next)) continue;
        match = entry;
        break;
      }
    }
    if (match) {
      const std::string& replacement = match->fields[1];
      result.text += replacement;
      const int added = ::ZR::countUtf8Chars(replacement.c_str());
      for (int k = 0; k < added; ++k) result.originalIndex.push_back(original);
      original += ::ZR::countUtf8Chars(match->fields[0].c_str());
      pos += match->fields[0].size();
      continue;
    }
    const std::size_t start = pos;
    char32_t cp;
    decodeUtf8(text.data(), text.size(), pos, cp);
    result.text.append(text, start, pos - start);
    result.originalIndex.push_back(original++);
  }
  result.originalLength = original;
  return result;
}

}  // namespace detail
}  // namespace engine
}  // namespace bexko
