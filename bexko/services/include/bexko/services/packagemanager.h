#pragma once

#include <memory>
#include <string>
#include <vector>

#include <ko/packageinfo.h>
#include <ko/signal.h>
#include <zr/zrmodule.h>

namespace bexko {
namespace services {

/// Installed packages, published as "PackageManager".
///
/// A package is a folder "<data folder>/packages/<identifier>" holding "manifest.xml":
///
///     <package identifier="espeak-ng" version="1.51">
///       <names><name locale="en_US">eSpeak NG languages</name></names>
///       <languages><language locale="en_US" engine="tts_espeak"/></languages>
///     </package>
///
/// Packages are looked for in every data folder of "bexko" (ko::path::dataPaths), the user's
/// first; a user package hides a system package of the same identifier. The folders are scanned
/// again on each call, so packages copied by hand are seen at once. A malformed manifest is
/// skipped with a warning; hidden folders (the manager's own work folders) are never packages.
///
/// An identifier names the package's folder, so it must be one plain folder name: not empty,
/// not "." or "..", not beginning with '.', with no '/' or '\\' and no control character.
/// A package is plain files and folders: install refuses a package that holds a symbolic link,
/// and remove never follows one (a package folder that is itself a link loses only the link).
///
/// install and remove emit the signals "onPackageInstalled" / "onPackageRemoved" of the module's
/// object (published in the session under "PackageManager") and raise the memory events
/// "packageInstalled" / "packageRemoved" with the package's ZRValue form.
class PackageManager : public ZR::ZRModule {
 public:
  explicit PackageManager(boost::shared_ptr<ZR::ZRBroker> broker);
  ~PackageManager() override;

  /// The installed packages: the user's folder first, then the system folders, each in
  /// identifier order; path() is the package's folder.
  std::vector<ko::PackageInfo> packages();
  /// Copies `folder` (which holds a manifest) into the user's packages folder under the
  /// manifest's identifier, replacing an installed user package of that identifier. The copy is
  /// made beside the installed version and renamed into place, so a failed install leaves that
  /// version as it was and nothing half-copied. Throws ZRError for a missing or malformed
  /// manifest (an invalid identifier included, named in the message), a symbolic link inside
  /// `folder`, or a failed copy.
  void install(const std::string& folder);
  /// Deletes the user's package `identifier`. Throws ZRError for an invalid identifier (named in
  /// the message), an unknown package or one installed only in a system folder.
  void remove(const std::string& identifier);

  /// The user's packages folder ("<user data folder>/packages"); not created.
  static std::string userPackagesPath();

  ko::Signal<const ko::PackageInfo&> onPackageInstalled;
  ko::Signal<const ko::PackageInfo&> onPackageRemoved;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// Reads "<folder>/manifest.xml"; path() of the result is `folder`. Throws ZRError (module
/// "PackageManager", method `method`) naming the file and the reason when it is missing or
/// malformed (no identifier or an invalid one, a name or language without its locale or engine).
ko::PackageInfo readManifest(const std::string& folder, const std::string& method = "packages");

/// Writes "<folder>/manifest.xml" for `package` (its path is not written), creating `folder`.
/// Throws ZRError when the package has no identifier or the file cannot be written.
void writeManifest(const std::string& folder, const ko::PackageInfo& package);

}  // namespace services
}  // namespace bexko
