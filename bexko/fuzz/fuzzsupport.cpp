#include "fuzzsupport.h"

#include <cstdlib>

#include <boost/filesystem.hpp>

#include <ko/log.h>

namespace bexko {
namespace fuzz {

namespace {

boost::filesystem::path& root() {
  static boost::filesystem::path path;
  return path;
}

void removeRoot() {
  boost::system::error_code ignored;
  boost::filesystem::remove_all(root(), ignored);
}

}  // namespace

std::string prepareFuzzing() {
  namespace fs = boost::filesystem;
  if (!root().empty()) return root().string();
  root() = fs::temp_directory_path() / fs::unique_path("bexko-fuzz-%%%%-%%%%-%%%%");
  for (const char* sub : {"home", "config", "data", "cache", "runtime"}) {
    fs::create_directories(root() / sub);
  }
  setenv("HOME", (root() / "home").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (root() / "config").c_str(), 1);
  setenv("XDG_DATA_HOME", (root() / "data").c_str(), 1);
  setenv("XDG_CACHE_HOME", (root() / "cache").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", (root() / "runtime").c_str(), 1);
  // System folders would let an input reach the machine's configuration.
  setenv("XDG_CONFIG_DIRS", (root() / "config-system").c_str(), 1);
  setenv("XDG_DATA_DIRS", (root() / "data-system").c_str(), 1);
  std::atexit(removeRoot);
  ko::log::setLevels("silent");
  ko::log::setLevelsFromEnvironment();
  return root().string();
}

}  // namespace fuzz
}  // namespace bexko
