#pragma once

#include <string>

namespace bexko {
namespace services {
namespace detail {

/// True when `name` can name a file inside a folder of ours: not empty, no '/', no "..".
inline bool isPlainFileName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos &&
         name.find("..") == std::string::npos && name.find('\0') == std::string::npos;
}

}  // namespace detail
}  // namespace services
}  // namespace bexko
