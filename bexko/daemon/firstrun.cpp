#include "firstrun.h"

#include <cstdlib>
#include <locale>

#include <boost/algorithm/string/case_conv.hpp>

#include <bexko/services/packagemanager.h>
#include <bexko/services/preferencemanager.h>
#include <ko/log.h>
#include <zr/tts/ttslanguageinfo.h>
#include <zr/zrbroker.h>

namespace bexko {
namespace daemon {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.daemon");
  return category;
}

const char* const kDomain = "com.veltra.robotwebpage";
const char* const kKey = "ChosenLanguage";
const char* const kFallback = "English";

/// "fr_FR.UTF-8@euro" -> "fr_fr"; "fr" -> "fr".
std::string bareLocale(const std::string& locale) {
  return boost::algorithm::to_lower_copy(locale.substr(0, locale.find_first_of(".@")),
                                         std::locale::classic());
}

std::string languagePart(const std::string& bare) { return bare.substr(0, bare.find('_')); }

}  // namespace

FirstRunChoice chooseFirstRunLanguage(const std::map<std::string, std::string>& environment,
                                      const std::vector<std::string>& installedLocales) {
  FirstRunChoice choice;
  choice.language = kFallback;
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    auto found = environment.find(variable);
    if (found != environment.end() && !found->second.empty()) {
      choice.variable = variable;
      choice.locale = found->second;
      break;
    }
  }
  const std::string wanted = bareLocale(choice.locale);
  if (wanted.empty() || wanted == "c" || wanted == "posix") {
    choice.reason = choice.locale.empty() ? "no locale is set" : "the locale names no language";
    return choice;
  }
  const ZR::TTSLanguageInfo languages;
  // Same language and country.
  for (const std::string& installed : installedLocales) {
    if (bareLocale(installed) != wanted) continue;
    const std::string name = languages.getLanguage(installed);
    if (name.empty()) continue;
    choice.language = name;
    choice.reason = "the language of the locale";
    return choice;
  }
  // Same language, in the engine's order of languages.
  for (const std::string& name : languages.getLanguages()) {
    const std::string locale = bareLocale(languages.getLocale(name));
    if (languagePart(locale) != languagePart(wanted)) continue;
    for (const std::string& installed : installedLocales) {
      if (bareLocale(installed) == locale) {
        choice.language = name;
        choice.reason = "the installed language nearest to the locale";
        return choice;
      }
    }
  }
  choice.reason = "no installed package provides the language of the locale";
  return choice;
}

FirstRunChoice chooseFirstRunLanguage(const boost::shared_ptr<ZR::ZRBroker>& broker) {
  std::map<std::string, std::string> environment;
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    if (const char* value = std::getenv(variable)) environment[variable] = value;
  }
  std::vector<std::string> installed;
  auto packages = boost::dynamic_pointer_cast<services::PackageManager>(
      broker->getModuleByName("PackageManager"));
  if (packages) {
    for (const ko::PackageInfo& package : packages->packages()) {
      for (const ko::LanguageInfo& language : package.languages()) {
        installed.push_back(language.locale());
      }
    }
  }
  return chooseFirstRunLanguage(environment, installed);
}

void ensureChosenLanguage(const boost::shared_ptr<ZR::ZRBroker>& broker) {
  try {
    auto preferences = boost::dynamic_pointer_cast<services::PreferenceManager>(
        broker->getModuleByName("ZRPreferenceManager"));
    if (!preferences) return;
    const ZR::ZRValue domain = preferences->getValueList(kDomain);
    for (const ZR::ZRValue& entry : domain.toArray()) {
      if (entry.isArray() && !entry.toArray().empty() && entry[0].isString() &&
          entry[0].toString() == kKey) {
        return;
      }
    }
    const FirstRunChoice choice = chooseFirstRunLanguage(broker);
    preferences->setValue(kDomain, kKey, ZR::ZRValue(choice.language));
    const std::string source =
        choice.locale.empty() ? "" : ": " + choice.variable + "=" + choice.locale;
    KO_LOG(logCategory(), ko::log::info, "ensureChosenLanguage")
        << "first run: the preference \"" << kKey << "\" of " << kDomain << " is now \""
        << choice.language << "\" (" << choice.reason << source
        << "); ZRPreferenceManager.setValue changes it";
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::warning, "ensureChosenLanguage")
        << "cannot set the first-run language: " << e.what();
  }
}

}  // namespace daemon
}  // namespace bexko
