#include <bexko/services/packagemanager.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <sstream>

#include <boost/filesystem.hpp>
#include <pugixml.hpp>

#include <ko/log.h>
#include <ko/path.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>
#include <zr/zrmemoryproxy.h>

#include "names.h"

namespace fs = boost::filesystem;

namespace bexko {
namespace services {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.services.packagemanager");
  return category;
}

const char* const moduleName = "PackageManager";
const char* const manifestName = "manifest.xml";

/// Package folders of one packages folder, in name order.
std::vector<fs::path> packageFolders(const fs::path& packagesFolder) {
  std::vector<fs::path> folders;
  boost::system::error_code error;
  if (!fs::is_directory(packagesFolder, error)) return folders;
  for (fs::directory_iterator it(packagesFolder, error), end; !error && it != end;
       it.increment(error)) {
    if (fs::is_directory(it->path(), error)) folders.push_back(it->path());
  }
  std::sort(folders.begin(), folders.end());
  return folders;
}

void copyFolder(const fs::path& from, const fs::path& to) {
  fs::create_directories(to);
  for (fs::directory_iterator it(from), end; it != end; ++it) {
    const fs::path target = to / it->path().filename();
    if (fs::is_directory(it->status())) {
      copyFolder(it->path(), target);
    } else if (fs::is_regular_file(it->status())) {
      fs::copy_file(it->path(), target, fs::copy_option::overwrite_if_exists);
    }
    // Other entries (sockets, dangling links) are not part of a package.
  }
}

bool isSameFolder(const fs::path& a, const fs::path& b) {
  boost::system::error_code error;
  return fs::equivalent(a, b, error);
}

}  // namespace

ko::PackageInfo readManifest(const std::string& folder, const std::string& method) {
  const std::string file = (fs::path(folder) / manifestName).string();
  auto malformed = [&](const std::string& reason) {
    return ZR::ZRError(moduleName, method, "Malformed package manifest " + file + ": " + reason);
  };
  boost::system::error_code error;
  if (!fs::is_regular_file(file, error)) {
    throw ZR::ZRError(moduleName, method, "No package manifest " + file);
  }
  pugi::xml_document document;
  pugi::xml_parse_result parsed = document.load_file(file.c_str());
  if (!parsed) throw malformed(parsed.description());
  pugi::xml_node root = document.child("package");
  if (!root) throw malformed("no <package> element");
  ko::PackageInfo package;
  std::string identifier = root.attribute("identifier").as_string();
  if (identifier.empty()) throw malformed("the package has no identifier");
  if (!detail::isPlainFileName(identifier)) {
    throw malformed("the identifier \"" + identifier + "\" is not a valid folder name");
  }
  package.setIdentifier(identifier);
  package.setVersion(root.attribute("version").as_string());
  package.setPath(folder);
  for (pugi::xml_node name : root.child("names").children("name")) {
    std::string locale = name.attribute("locale").as_string();
    if (locale.empty()) throw malformed("a name has no locale");
    package.setName(name.text().as_string(), locale);
  }
  for (pugi::xml_node language : root.child("languages").children("language")) {
    std::string locale = language.attribute("locale").as_string();
    std::string engine = language.attribute("engine").as_string();
    if (locale.empty()) throw malformed("a language has no locale");
    if (engine.empty()) throw malformed("the language " + locale + " has no engine");
    package.addLanguage(ko::LanguageInfo(locale, engine));
  }
  return package;
}

void writeManifest(const std::string& folder, const ko::PackageInfo& package) {
  const char* method = "writeManifest";
  if (package.identifier().empty()) {
    throw ZR::ZRError(moduleName, method, "A package manifest needs an identifier");
  }
  pugi::xml_document document;
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
  pugi::xml_node root = document.append_child("package");
  root.append_attribute("identifier") = package.identifier().c_str();
  root.append_attribute("version") = package.version().c_str();
  pugi::xml_node names = root.append_child("names");
  for (const auto& entry : package.names()) {
    pugi::xml_node name = names.append_child("name");
    name.append_attribute("locale") = entry.first.c_str();
    name.text() = entry.second.c_str();
  }
  pugi::xml_node languages = root.append_child("languages");
  for (const ko::LanguageInfo& entry : package.languages()) {
    pugi::xml_node language = languages.append_child("language");
    language.append_attribute("locale") = entry.locale().c_str();
    language.append_attribute("engine") = entry.engineName().c_str();
  }
  const fs::path file = fs::path(folder) / manifestName;
  try {
    fs::create_directories(folder);
  } catch (const fs::filesystem_error& e) {
    throw ZR::ZRError(moduleName, method, "Cannot create " + folder + ": " + e.what());
  }
  if (!document.save_file(file.c_str(), "  ")) {
    throw ZR::ZRError(moduleName, method, "Cannot write " + file.string());
  }
}

struct PackageManager::Impl {
  boost::weak_ptr<ZR::ZRBroker> broker;
  // Serialises install and remove, so that a package is never half-copied while removed.
  std::mutex changeMutex;

  void raise(const std::string& key, const ko::PackageInfo& package, const char* method) {
    boost::shared_ptr<ZR::ZRBroker> owner = broker.lock();
    if (!owner) return;
    try {
      ZR::ZRMemoryProxy memory(owner);
      memory.raiseEvent(key, package.toValue());
    } catch (const ZR::ZRError& e) {
      KO_LOG(logCategory(), ko::log::warning, method)
          << "Could not raise \"" << key << "\": " << e.what();
    }
  }
};

PackageManager::PackageManager(boost::shared_ptr<ZR::ZRBroker> broker)
    : ZR::ZRModule(broker, moduleName), impl_(new Impl) {
  impl_->broker = broker;
  setModuleDescription(
      "Installed packages: folders holding a manifest, found in the data folders of the "
      "application \"bexko\", the user's first. Emits \"onPackageInstalled\" and "
      "\"onPackageRemoved\" and raises the memory events \"packageInstalled\" and "
      "\"packageRemoved\".");
  addModuleExample("python",
                   "packages = ZRProxy(\"PackageManager\")\n"
                   "for package in packages.packages():\n"
                   "    print(package)");

  functionName("packages", getName(), "Returns the installed packages.");
  setReturn("packages",
            "Each package as [[\"identifier\", id], [\"version\", v], [\"path\", folder], "
            "[\"names\", [[locale, name], ...]], [\"languages\", [[locale, engine], ...]]].");
  addMethodExample("python", "print(packages.packages())");
  bindMethodOverload(ZR::createFunctor(this, &PackageManager::packages));

  functionName("install", getName(),
               "Installs a package: copies a folder holding a manifest into the user's "
               "packages folder, replacing an installed package of the same identifier.");
  addParam("folder", "Folder holding the package's manifest.xml.");
  addMethodExample("python", "packages.install(\"/tmp/my-voices\")");
  bindMethodOverload(ZR::createFunctor(this, &PackageManager::install));

  functionName("remove", getName(), "Removes a package installed in the user's folder.");
  addParam("identifier", "Identifier of the package.");
  addMethodExample("python", "packages.remove(\"my-voices\")");
  bindMethodOverload(ZR::createFunctor(this, &PackageManager::remove));

  objectBuilder().advertiseSignal("onPackageInstalled", onPackageInstalled);
  objectBuilder().advertiseSignal("onPackageRemoved", onPackageRemoved);
}

PackageManager::~PackageManager() = default;

std::string PackageManager::userPackagesPath() {
  std::vector<std::string> folders = ko::path::dataPaths("bexko");
  return (folders.empty() ? std::string() : folders.front()) + "/packages";
}

std::vector<ko::PackageInfo> PackageManager::packages() {
  std::vector<ko::PackageInfo> found;
  std::set<std::string> identifiers;
  for (const std::string& dataFolder : ko::path::dataPaths("bexko")) {
    for (const fs::path& folder : packageFolders(fs::path(dataFolder) / "packages")) {
      if (!fs::exists(folder / manifestName)) continue;  // not a package (a leftover folder)
      try {
        ko::PackageInfo package = readManifest(folder.string(), "packages");
        if (identifiers.insert(package.identifier()).second) found.push_back(package);
      } catch (const ZR::ZRError& e) {
        KO_LOG(logCategory(), ko::log::warning, "packages")
            << "Skipping the package in " << folder.string() << ": " << e.what();
      }
    }
  }
  return found;
}

void PackageManager::install(const std::string& folder) {
  const char* method = "install";
  ko::PackageInfo package;
  {
    std::lock_guard<std::mutex> lock(impl_->changeMutex);
    package = readManifest(folder, method);
    const fs::path packages = userPackagesPath();
    const fs::path target = packages / package.identifier();
    if (!isSameFolder(folder, target)) {
      // Copy beside the target first, so that a failed copy leaves the installed package as is.
      const fs::path staging = packages / (".install-" + package.identifier());
      try {
        fs::create_directories(packages);
        fs::remove_all(staging);
        copyFolder(folder, staging);
        fs::remove_all(target);
        fs::rename(staging, target);
      } catch (const fs::filesystem_error& e) {
        boost::system::error_code ignored;
        fs::remove_all(staging, ignored);
        throw ZR::ZRError(
            moduleName, method,
            "Cannot install " + folder + " into " + target.string() + ": " + e.what());
      }
    }
    package.setPath(target.string());
  }
  KO_LOG(logCategory(), ko::log::info, method)
      << "Installed the package " << package.identifier() << " " << package.version() << " in "
      << package.path();
  onPackageInstalled(package);
  impl_->raise("packageInstalled", package, method);
}

void PackageManager::remove(const std::string& identifier) {
  const char* method = "remove";
  if (!detail::isPlainFileName(identifier)) {
    throw ZR::ZRError(moduleName, method, "Invalid package identifier \"" + identifier + "\"");
  }
  ko::PackageInfo package;
  {
    std::lock_guard<std::mutex> lock(impl_->changeMutex);
    const fs::path userFolder = userPackagesPath();
    bool found = false;
    for (const ko::PackageInfo& candidate : packages()) {
      if (candidate.identifier() != identifier) continue;
      found = true;
      if (fs::path(candidate.path()).parent_path() != userFolder) {
        throw ZR::ZRError(moduleName, method,
                          "The package \"" + identifier + "\" is a system package (" +
                              candidate.path() + ") and cannot be removed");
      }
      package = candidate;
      break;
    }
    if (!found) {
      throw ZR::ZRError(moduleName, method,
                        "No package with the identifier \"" + identifier + "\" is installed");
    }
    try {
      fs::remove_all(package.path());
    } catch (const fs::filesystem_error& e) {
      throw ZR::ZRError(moduleName, method,
                        "Cannot remove " + package.path() + ": " + std::string(e.what()));
    }
  }
  KO_LOG(logCategory(), ko::log::info, method)
      << "Removed the package " << identifier << " from " << package.path();
  onPackageRemoved(package);
  impl_->raise("packageRemoved", package, method);
}

}  // namespace services
}  // namespace bexko
