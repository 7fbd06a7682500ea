#include <bexko/services/preferences.h>

#include <cctype>
#include <exception>
#include <vector>

#include <boost/filesystem.hpp>

#include <ko/log.h>
#include <ko/path.h>
#include <zr/zrerror.h>
#include <zr/zrpreferencesproxy.h>

#include "names.h"

namespace bexko {
namespace services {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.services.preferences");
  return category;
}

const char* const moduleName = "ZRPreferences";
const char* const application = "bexko";

void checkName(const std::string& name, const char* method) {
  if (!detail::isPlainFileName(name)) {
    throw ZR::ZRError(moduleName, method,
                      "Invalid preference file name \"" + name +
                          "\": it must not be empty nor contain '/' or \"..\"");
  }
}

/// True for the name of a temporary file of writePreferenceXml: "<name>.xml.tmp-" and the six
/// letters or digits that mkstemp chose.
bool isTemporaryPreferenceFile(const std::string& fileName) {
  static const std::string marker = ".xml.tmp-";
  const std::size_t suffix = 6;
  if (fileName.size() <= marker.size() + suffix) return false;
  const std::size_t at = fileName.size() - suffix - marker.size();
  if (fileName.compare(at, marker.size(), marker) != 0) return false;
  for (std::size_t i = fileName.size() - suffix; i < fileName.size(); ++i) {
    if (!std::isalnum(static_cast<unsigned char>(fileName[i]))) return false;
  }
  return true;
}

/// Deletes the temporary files that writes cut short by a crash left in the user's
/// configuration folder (a write renames its temporary file over the target as its last step,
/// so any one found at start belongs to no write). Only regular files of that name, only in
/// that folder; links and everything else are left alone. Never throws.
void removeStaleTemporaryFiles() {
  namespace fs = boost::filesystem;
  static const char* const method = "removeStaleTemporaryFiles";
  std::string folder;
  try {
    std::vector<std::string> folders = ko::path::confPaths(application);
    if (folders.empty()) return;
    folder = folders.front();
    boost::system::error_code error;
    if (!fs::is_directory(folder, error)) return;
    int removed = 0;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
      if (!isTemporaryPreferenceFile(it->path().filename().string())) continue;
      if (!fs::is_regular_file(it->symlink_status())) continue;
      boost::system::error_code removal;
      if (fs::remove(it->path(), removal)) {
        ++removed;
      } else if (removal) {
        KO_LOG(logCategory(), ko::log::warning, method)
            << "Cannot remove the stale temporary file " << it->path().string() << ": "
            << removal.message();
      }
    }
    if (error) {
      KO_LOG(logCategory(), ko::log::warning, method)
          << "Cannot list " << folder << ": " << error.message();
    }
    if (removed > 0) {
      KO_LOG(logCategory(), ko::log::info, method)
          << "Removed " << removed << " stale temporary preference file"
          << (removed == 1 ? "" : "s") << " from " << folder;
    }
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::warning, method)
        << "Cannot clear stale temporary files from " << folder << ": " << e.what();
  }
}

bool isRegularFile(const std::string& path) {
  boost::system::error_code error;
  return boost::filesystem::is_regular_file(path, error);
}

}  // namespace

Preferences::Preferences(boost::shared_ptr<ZR::ZRBroker> broker)
    : ZR::ZRModule(broker, moduleName) {
  setModuleDescription(
      "Preference files: one value tree per file \"<name>.xml\" in the configuration folders of "
      "the application \"bexko\".");
  addModuleExample("python",
                   "prefs = ZRProxy(\"ZRPreferences\")\n"
                   "prefs.writePrefFile(\"MyModule\", [\"English\", 3], False)\n"
                   "print(prefs.readPrefFile(\"MyModule\", True))");

  functionName("readPrefFile", getName(),
               "Reads the preference file \"<name>.xml\" into a value tree. The user's "
               "configuration folder is read first, then, when asked, the system folders.");
  addParam("name", "Name of the file, without the \".xml\" extension.");
  addParam("searchSystem", "Also look in the system configuration folders.");
  setReturn("value", "The value tree held by the file.");
  addMethodExample("python", "print(prefs.readPrefFile(\"MyModule\", True))");
  bindMethodOverload(ZR::createFunctor(this, &Preferences::readPrefFile));

  functionName("writePrefFile", getName(),
               "Writes a value tree into the preference file \"<name>.xml\" of the user's "
               "configuration folder, atomically.");
  addParam("name", "Name of the file, without the \".xml\" extension.");
  addParam("value", "The value tree to store.");
  addParam("ignored", "Unused.");
  addMethodExample("python", "prefs.writePrefFile(\"MyModule\", [\"English\", 3], False)");
  bindMethodOverload(ZR::createFunctor(this, &Preferences::writePrefFile));

  removeStaleTemporaryFiles();
}

Preferences::~Preferences() = default;

ZR::ZRValue Preferences::readPrefFile(const std::string& name, bool searchSystem) {
  const char* method = "readPrefFile";
  checkName(name, method);
  const std::string file = name + ".xml";
  std::string path;
  if (searchSystem) {
    path = ko::path::findConf(application, file, false);
  } else {
    std::vector<std::string> folders = ko::path::confPaths(application);
    if (!folders.empty()) path = folders.front() + "/" + file;
  }
  if (!path.empty() && !isRegularFile(path)) path.clear();
  if (path.empty()) {
    KO_LOG(logCategory(), ko::log::debug, method) << "No preference file " << file;
    throw ZR::ZRError(moduleName, method, "The preference file \"" + file + "\" was not found");
  }
  return ZR::readPreferenceXml(path);
}

void Preferences::writePrefFile(const std::string& name, const ZR::ZRValue& value, bool ignored) {
  const char* method = "writePrefFile";
  checkName(name, method);
  std::string folder;
  try {
    folder = ko::path::userWritableConfPath(application);
  } catch (const std::exception& e) {
    throw ZR::ZRError(moduleName, method,
                      "Cannot create the configuration folder: " + std::string(e.what()));
  }
  ZR::writePreferenceXml(folder + "/" + name + ".xml", value);
  KO_LOG(logCategory(), ko::log::debug, method) << "Wrote " << folder << "/" << name << ".xml";
}

}  // namespace services
}  // namespace bexko
