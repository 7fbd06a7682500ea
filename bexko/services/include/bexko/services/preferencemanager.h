#pragma once

#include <memory>
#include <string>
#include <vector>

#include <zr/zrmodule.h>
#include <zr/zrvalue.h>

namespace bexko {
namespace services {

/// Domain/key/value preferences, published as "ZRPreferenceManager", kept in the SQLite
/// database "preferences.db" in the user's data folder of "bexko".
///
/// The database is opened (and created) on the first call, in WAL mode with a busy time-out, so
/// that another process reading it does not fail this one. Values keep their type: an int
/// stored comes back an int, a float a float, an array with its items. One connection serves
/// every caller, one call at a time.
class PreferenceManager : public ZR::ZRModule {
 public:
  /// The schema version written into the database (PRAGMA user_version).
  static constexpr int schemaVersion = 1;

  explicit PreferenceManager(boost::shared_ptr<ZR::ZRBroker> broker);
  ~PreferenceManager() override;

  /// The value of `key` in `domain`. Throws ZRError for a missing key or a database failure.
  ZR::ZRValue getValue(const std::string& domain, const std::string& key);
  /// Stores (or replaces) the value. Throws ZRError for an empty domain or key.
  void setValue(const std::string& domain, const std::string& key, const ZR::ZRValue& value);
  /// Removes the value; a missing key changes nothing.
  void removeValue(const std::string& domain, const std::string& key);
  /// The domain's [key, value] pairs in key order (an empty array for an unknown domain).
  ZR::ZRValue getValueList(const std::string& domain);
  /// Domains holding at least one value, in name order.
  std::vector<std::string> getDomainList();

  /// Full path of the database file (whether or not it exists yet).
  static std::string databasePath();

  /// Closes the database and unregisters the module.
  void exit() override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace services
}  // namespace bexko
