// Whether a file is a sound file the player accepts: by extension, then by openability. The
// contents are never read; the external player judges them.
#include <zr/zraudioplayerdesktop.h>

#include <cctype>
#include <fstream>
#include <string>

#include <boost/filesystem/path.hpp>

#include <zr/zrerror.h>

namespace ZR {

namespace {

bool sameIgnoringCase(const std::string& left, const std::string& right) {
  if (left.size() != right.size()) {
    return false;
  }
  for (std::string::size_type i = 0; i < left.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(left[i])) !=
        std::toupper(static_cast<unsigned char>(right[i]))) {
      return false;
    }
  }
  return true;
}

/// True when `fileName` has `extension` and opens for reading; throws when it has the extension
/// but cannot be opened.
bool xIsSoundFile(const std::string& fileName, const std::string& extension,
                  const std::string& method, const std::string& formatName) {
  if (!sameIgnoringCase(boost::filesystem::path(fileName).extension().string(), extension)) {
    return false;
  }
  std::ifstream file(fileName, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    throw ZRError("ZRAudioPlayerTask", method,
                  "Cannot open the " + formatName + " file \"" + fileName + "\"");
  }
  file.close();
  return true;
}

}  // namespace

bool ZRAudioPlayerDesktop::isAWavFile(const std::string& fileName) {
  return xIsSoundFile(fileName, ".wav", "xIsAWavFile()", "wav");
}

bool ZRAudioPlayerDesktop::isAOggFile(const std::string& fileName) {
  return xIsSoundFile(fileName, ".ogg", "xIsAOggFile()", "ogg");
}

}  // namespace ZR
