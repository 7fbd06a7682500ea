#pragma once

#include <memory>
#include <string>
#include <vector>

#include <zr/export.h>

namespace ZR {

/// The table of supported languages: names ("English", "French", ...) and their locales
/// ("en_US", "fr_FR", ...).
class BEXKO_API TTSLanguageInfo {
 public:
  TTSLanguageInfo();
  ~TTSLanguageInfo();

  /// The language name of a locale; empty when unknown. Matches "en_US", "en-US" and "en_us".
  std::string getLanguage(std::string locale) const;
  /// Every supported language name, in table order.
  std::vector<std::string> getLanguages() const;
  /// The locale of a language name (compared without regard to case); empty when unknown.
  std::string getLocale(std::string language) const;
};

}  // namespace ZR
