#pragma once

#include <string>

#include <zr/zrmodule.h>
#include <zr/zrvalue.h>

namespace bexko {
namespace services {

/// Preference files, published as "ZRPreferences": one ZRValue tree per file "<name>.xml" in the
/// configuration folders of the application "bexko", in the XML layout of
/// zr/zrpreferencesproxy.h.
class Preferences : public ZR::ZRModule {
 public:
  /// Publishes the methods and deletes the temporary files ("<name>.xml.tmp-XXXXXX") that writes
  /// cut short by a crash left in the user's configuration folder, logging their count at info.
  /// Nothing else there, and nothing in the system folders, is touched. The folder is taken to
  /// belong to this host alone.
  explicit Preferences(boost::shared_ptr<ZR::ZRBroker> broker);
  ~Preferences() override;

  /// Reads "<name>.xml": from the user's configuration folder first and, when `searchSystem` is
  /// true, from the system configuration folders after it. Throws ZRError for a bad name (empty,
  /// or holding '/' or ".."), a missing file or a malformed one.
  ZR::ZRValue readPrefFile(const std::string& name, bool searchSystem);
  /// Writes "<name>.xml" into the user's configuration folder atomically: a crash leaves the old
  /// file or the new one, never a half-written one. `ignored` is kept for the contract.
  /// Throws ZRError for a bad name or a failed write.
  void writePrefFile(const std::string& name, const ZR::ZRValue& value, bool ignored);
};

}  // namespace services
}  // namespace bexko
