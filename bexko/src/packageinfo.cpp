#include <ko/packageinfo.h>

#include <zr/zrerror.h>

namespace ko {

namespace {

[[noreturn]] void throwMalformed(const std::string& reason) {
  throw ZR::ZRError("PackageInfo", "PackageInfo", "not a package description: " + reason);
}

const std::string& stringField(const ZR::ZRValue& value, const std::string& key) {
  if (!value.isString()) {
    throwMalformed("\"" + key + "\" must be a string, got " + value.toDebugString());
  }
  return value.toString();
}

/// The [[a, b], ...] lists of names and languages.
std::vector<std::pair<std::string, std::string>> stringPairs(const ZR::ZRValue& value,
                                                             const std::string& key) {
  std::vector<std::pair<std::string, std::string>> pairs;
  if (value.isEmpty()) return pairs;
  if (!value.isArray()) {
    throwMalformed("\"" + key + "\" must be an array, got " + value.toDebugString());
  }
  for (const auto& item : value.toArray()) {
    if (!item.isArray() || item.getSize() != 2 || !item[0].isString() || !item[1].isString()) {
      throwMalformed("each item of \"" + key + "\" must be a pair of strings, got " +
                     item.toDebugString());
    }
    pairs.emplace_back(item[0].toString(), item[1].toString());
  }
  return pairs;
}

ZR::ZRValue pair(const std::string& key, ZR::ZRValue value) {
  return ZR::ZRValue(ZR::ZRValue::Array{ZR::ZRValue(key), std::move(value)});
}

}  // namespace

PackageInfo::PackageInfo(const ZR::ZRValue& value) {
  if (!value.isArray())
    throwMalformed("expected an array of [key, value] pairs, got " + value.toDebugString());
  for (const auto& entry : value.toArray()) {
    if (!entry.isArray() || entry.getSize() != 2 || !entry[0].isString()) {
      throwMalformed("expected a [key, value] pair, got " + entry.toDebugString());
    }
    const std::string& key = entry[0].toString();
    const ZR::ZRValue& field = entry[1];
    if (key == "identifier") {
      identifier_ = stringField(field, key);
    } else if (key == "version") {
      version_ = stringField(field, key);
    } else if (key == "path") {
      path_ = stringField(field, key);
    } else if (key == "names") {
      names_.clear();
      for (auto& name : stringPairs(field, key)) names_[name.first] = name.second;
    } else if (key == "languages") {
      languages_.clear();
      for (auto& language : stringPairs(field, key)) {
        languages_.emplace_back(language.first, language.second);
      }
    }
    // Unknown keys are left for newer hosts.
  }
}

ZR::ZRValue PackageInfo::toValue() const {
  ZR::ZRValue::Array names;
  for (const auto& name : names_) {
    names.push_back(
        ZR::ZRValue(ZR::ZRValue::Array{ZR::ZRValue(name.first), ZR::ZRValue(name.second)}));
  }
  ZR::ZRValue::Array languages;
  for (const auto& language : languages_) {
    languages.push_back(ZR::ZRValue(
        ZR::ZRValue::Array{ZR::ZRValue(language.locale()), ZR::ZRValue(language.engineName())}));
  }
  return ZR::ZRValue(ZR::ZRValue::Array{pair("identifier", identifier_), pair("version", version_),
                                        pair("path", path_),
                                        pair("names", ZR::ZRValue(std::move(names))),
                                        pair("languages", ZR::ZRValue(std::move(languages)))});
}

std::string PackageInfo::name(const std::string& locale) const {
  auto found = names_.find(locale);
  if (found != names_.end()) return found->second;
  found = names_.find("en_US");
  if (found != names_.end()) return found->second;
  if (!names_.empty()) return names_.begin()->second;
  return identifier_;
}

void PackageInfo::setName(const std::string& name, const std::string& locale) {
  names_[locale] = name;
}

}  // namespace ko
