#pragma once

#include <map>
#include <string>
#include <vector>

#include <zr/export.h>
#include <zr/zrvalue.h>

namespace ko {

/// One language carried by a package: its locale ("en_US") and the engine that serves it.
class BEXKO_API LanguageInfo {
 public:
  LanguageInfo() = default;
  LanguageInfo(std::string locale, std::string engineName)
      : locale_(std::move(locale)), engineName_(std::move(engineName)) {}

  const std::string& locale() const { return locale_; }
  void setLocale(const std::string& locale) { locale_ = locale; }
  const std::string& engineName() const { return engineName_; }
  void setEngineName(const std::string& name) { engineName_ = name; }

  bool operator==(const LanguageInfo& o) const {
    return locale_ == o.locale_ && engineName_ == o.engineName_;
  }

 private:
  std::string locale_;
  std::string engineName_;
};

/// Description of one installed package.
///
/// Its ZRValue form is an array of [key, value] pairs, in this order:
/// ["identifier", string], ["version", string], ["path", string],
/// ["names", [[locale, name], ...]], ["languages", [[locale, engineName], ...]].
/// Reading accepts the pairs in any order and ignores unknown keys.
class BEXKO_API PackageInfo {
 public:
  PackageInfo() = default;
  /// Builds from the ZRValue form; throws ZRError (module "PackageInfo") when it is not one.
  explicit PackageInfo(const ZR::ZRValue& value);
  ZR::ZRValue toValue() const;

  /// The package's stable identifier (its folder name); may be empty for ad-hoc packages.
  const std::string& identifier() const { return identifier_; }
  void setIdentifier(const std::string& id) { identifier_ = id; }

  /// The display name for `locale`; falls back to "en_US", then to any name, then to the
  /// identifier.
  std::string name(const std::string& locale = "en_US") const;
  void setName(const std::string& name, const std::string& locale = "en_US");
  const std::map<std::string, std::string>& names() const { return names_; }

  const std::string& path() const { return path_; }
  void setPath(const std::string& path) { path_ = path; }
  const std::string& version() const { return version_; }
  void setVersion(const std::string& version) { version_ = version; }

  const std::vector<LanguageInfo>& languages() const { return languages_; }
  void addLanguage(const LanguageInfo& language) { languages_.push_back(language); }

  bool operator==(const PackageInfo& o) const {
    return identifier_ == o.identifier_ && names_ == o.names_ && path_ == o.path_ &&
           version_ == o.version_ && languages_ == o.languages_;
  }

 private:
  std::string identifier_;
  std::map<std::string, std::string> names_;
  std::string path_;
  std::string version_;
  std::vector<LanguageInfo> languages_;
};

}  // namespace ko

namespace ZR {
template <>
struct ZRValueConverter<ko::PackageInfo> {
  static ZRValue toValue(const ko::PackageInfo& p) { return p.toValue(); }
  static ko::PackageInfo fromValue(const ZRValue& v) { return ko::PackageInfo(v); }
  static const char* typeName() { return "package"; }
};
}  // namespace ZR
