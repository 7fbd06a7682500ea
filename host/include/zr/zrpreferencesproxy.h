#pragma once

#include <string>

#include <zr/export.h>
#include <zr/zrproxy.h>
#include <zr/zrvalue.h>

namespace ZR {

/// The XML layout of preference files. A file holds one ZRValue tree:
///
///     <?xml version="1.0" encoding="UTF-8"?>
///     <preferences version="1">
///       <value type="array">
///         <value type="string">English</value>
///         <value type="int">3</value>
///         <value type="float">1.5</value>
///         <value type="bool">true</value>
///         <value type="empty"/>
///       </value>
///     </preferences>
///
/// `<preferences>` has exactly one `<value>` child; an array's items are its `<value>` children
/// in order. Floats are written with enough digits to read back exactly.

/// Reads a preference file. Throws ZRError (module "ZRPreferences", method "readPrefFile") when
/// the file is missing or malformed, naming the file and the reason.
BEXKO_API ZRValue readPreferenceXml(const std::string& path);
/// Writes a preference file atomically: a temporary file beside it, flushed, then renamed over
/// it, so that a crash leaves either the old or the new file. Creates missing parent folders.
/// Throws ZRError (module "ZRPreferences", method "writePrefFile").
BEXKO_API void writePreferenceXml(const std::string& path, const ZRValue& value);
/// The XML text of a value in this layout.
BEXKO_API std::string formatPreferenceXml(const ZRValue& value);
/// Parses XML text in this layout; throws ZRError as readPreferenceXml.
BEXKO_API ZRValue parsePreferenceXml(const std::string& text);

/// Typed proxy of the preferences module "ZRPreferences": preference files named
/// `<name>.xml` in the configuration folder of the application "bexko".
class BEXKO_API ZRPreferencesProxy : public ZRProxy {
 public:
  ZRPreferencesProxy(boost::shared_ptr<ZRBroker> broker,
                     const std::string& moduleName = "ZRPreferences")
      : ZRProxy(std::move(broker), moduleName) {}

  /// Reads `<name>.xml`, found with ko::path::findConf("bexko", ...). With `searchSystem`
  /// false only the user's folder is read. Throws ZRError for a missing or malformed file.
  ZRValue readPrefFile(const std::string& name, bool searchSystem) {
    return call<ZRValue>("readPrefFile", name, searchSystem);
  }
  /// Writes `<name>.xml` into the user's configuration folder of "bexko", atomically.
  /// `ignored` is unused and kept for the contract.
  void writePrefFile(const std::string& name, const ZRValue& value, bool ignored) {
    call<void>("writePrefFile", name, value, ignored);
  }
};

/// Typed proxy of the preference database "ZRPreferenceManager": values by domain and key.
class BEXKO_API ZRPreferenceManagerProxy : public ZRProxy {
 public:
  /// Throws ZRError when the module "ZRPreferenceManager" is not registered.
  explicit ZRPreferenceManagerProxy(boost::shared_ptr<ZRBroker> broker,
                                    const std::string& moduleName = "ZRPreferenceManager")
      : ZRProxy(std::move(broker), moduleName) {}

  /// Throws ZRError for a missing key.
  ZRValue getValue(const std::string& domain, const std::string& key) {
    return call<ZRValue>("getValue", domain, key);
  }
  void setValue(const std::string& domain, const std::string& key, const ZRValue& value) {
    call<void>("setValue", domain, key, value);
  }
  /// Removing a missing key changes nothing.
  void removeValue(const std::string& domain, const std::string& key) {
    call<void>("removeValue", domain, key);
  }
  /// The domain's [key, value] pairs in key order.
  ZRValue getValueList(const std::string& domain) {
    return call<ZRValue>("getValueList", domain);
  }
  std::vector<std::string> getDomainList() {
    return call<std::vector<std::string>>("getDomainList");
  }
};

}  // namespace ZR
