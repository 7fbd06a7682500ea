#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace bexko {
namespace engine {
namespace detail {

/// One engine tag found in a text: "\name\" or "\name=value\".
struct Tag {
  std::size_t begin = 0;  ///< byte offset of the opening backslash
  std::size_t end = 0;    ///< byte offset just past the closing backslash
  std::string name;       ///< the name as written (letters, digits, '_'; starts with a letter)
  std::string value;      ///< the value after '=', possibly empty
  bool hasValue = false;  ///< whether '=' was written
};

/// Whether a tag starts at `text[pos]` (a backslash); fills `tag` when it does. The value runs
/// to the next backslash and may hold neither whitespace nor a backslash; anything else makes
/// the opening backslash plain text.
bool matchTag(const std::string& text, std::size_t pos, Tag& tag);

/// Every tag of `text`, in order, none overlapping.
std::vector<Tag> findTags(const std::string& text);

}  // namespace detail
}  // namespace engine
}  // namespace bexko
