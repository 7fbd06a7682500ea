#pragma once

#include <map>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

namespace ZR {
class ZRBroker;
}

namespace bexko {
namespace daemon {

/// Where the desktop's locale came from and what the first run made of it.
struct FirstRunChoice {
  std::string language;  ///< a language name, such as "French"
  std::string locale;    ///< the desktop's locale as found, such as "fr_FR.UTF-8"; may be empty
  std::string variable;  ///< the variable that held it (LC_ALL, LC_MESSAGES or LANG); may be empty
  std::string reason;    ///< why this language, for the log
};

/// The language of a workstation on which nobody has chosen one: the language of the desktop's
/// locale (the first set of LC_ALL, LC_MESSAGES and LANG, as for messages) when one of
/// `installedLocales` (the locales that installed packages provide, such as "fr_FR") is of
/// that language, else "English". A locale matches an installed one of the same language and
/// country first ("pt_BR" gives "Brazilian"), then one of the same language in the order the
/// engine lists its languages ("fr_CA" gives "French").
FirstRunChoice chooseFirstRunLanguage(const std::map<std::string, std::string>& environment,
                                      const std::vector<std::string>& installedLocales);

/// The same from this process's environment and the broker's PackageManager.
FirstRunChoice chooseFirstRunLanguage(const boost::shared_ptr<ZR::ZRBroker>& broker);

/// When the preference "ChosenLanguage" of the domain "com.veltra.robotwebpage" does not exist,
/// sets it to the first-run choice and logs the choice at info level; otherwise leaves it as
/// it is. Never throws: a failure is logged as a warning and the modules start without it.
void ensureChosenLanguage(const boost::shared_ptr<ZR::ZRBroker>& broker);

}  // namespace daemon
}  // namespace bexko
