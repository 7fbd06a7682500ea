#include <zr/tts/ttslanguageinfo.h>

#include <algorithm>

#include "utf8.h"

namespace ZR {

namespace {

struct LanguageEntry {
  const char* name;
  const char* locale;
};

// Table order is the order in which languages are listed everywhere.
constexpr LanguageEntry kLanguages[] = {
    {"English", "en_US"}, {"French", "fr_FR"},     {"German", "de_DE"},    {"Spanish", "es_ES"},
    {"Italian", "it_IT"}, {"Portuguese", "pt_PT"}, {"Brazilian", "pt_BR"}, {"Dutch", "nl_NL"},
    {"Polish", "pl_PL"},  {"Russian", "ru_RU"},    {"Czech", "cs_CZ"},     {"Danish", "da_DK"},
    {"Finnish", "fi_FI"}, {"Greek", "el_GR"},      {"Swedish", "sv_SE"},   {"Norwegian", "nb_NO"},
    {"Turkish", "tr_TR"}, {"Arabic", "ar_SA"},     {"Chinese", "zh_CN"},   {"Japanese", "ja_JP"},
    {"Korean", "ko_KR"},
};

// "en-US", "en_us" and "EN_US" all become "en_us".
std::string normalizeLocale(std::string locale) {
  std::replace(locale.begin(), locale.end(), '-', '_');
  return bexko::engine::detail::toLowerAscii(std::move(locale));
}

}  // namespace

TTSLanguageInfo::TTSLanguageInfo() = default;
TTSLanguageInfo::~TTSLanguageInfo() = default;

std::string TTSLanguageInfo::getLanguage(std::string locale) const {
  const std::string wanted = normalizeLocale(std::move(locale));
  for (const LanguageEntry& entry : kLanguages) {
    if (normalizeLocale(entry.locale) == wanted) return entry.name;
  }
  return {};
}

std::vector<std::string> TTSLanguageInfo::getLanguages() const {
  std::vector<std::string> names;
  for (const LanguageEntry& entry : kLanguages) names.emplace_back(entry.name);
  return names;
}

std::string TTSLanguageInfo::getLocale(std::string language) const {
  const std::string wanted = bexko::engine::detail::toLowerAscii(std::move(language));
  for (const LanguageEntry& entry : kLanguages) {
    if (bexko::engine::detail::toLowerAscii(entry.name) == wanted) return entry.locale;
  }
  return {};
}

}  // namespace ZR
