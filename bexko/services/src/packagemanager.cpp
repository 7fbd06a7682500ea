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

/// The identifier as it is shown in messages: control bytes written as \xNN, so that a message
/// naming a hostile identifier stays one readable line.
std::string shownIdentifier(const std::string& identifier) {
  std::string shown;
  for (char c : identifier) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      static const char digits[] = "0123456789abcdef";
      shown += "\\x";
      shown += digits[byte >> 4];
      shown += digits[byte & 0xf];
    } else {
      shown += c;
    }
  }
  return shown;
}

/// Why `identifier` cannot name a package folder, or "" when it can. An identifier becomes one
/// path component under the packages folder, and that folder is what remove deletes: ".", ".."
/// or a separator would make it name the packages folder itself or a place outside it.
std::string identifierProblem(const std::string& identifier) {
  if (identifier.empty()) return "it is empty";
  for (char c : identifier) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '/' || c == '\\') return "it contains a path separator";
    if (byte < 0x20 || byte == 0x7f) return "it contains a control character";
  }
  if (identifier == "." || identifier == "..") return "it names a folder, not a package";
  if (identifier.front() == '.') {
    return "it begins with '.', which is kept for the package manager's own work folders";
  }
  return "";
}

/// Package folders of one packages folder, in name order. Hidden folders are the manager's own
/// work folders (an install being copied, a version being replaced) and are never packages.
std::vector<fs::path> packageFolders(const fs::path& packagesFolder) {
  std::vector<fs::path> folders;
  boost::system::error_code error;
  if (!fs::is_directory(packagesFolder, error)) return folders;
  for (fs::directory_iterator it(packagesFolder, error), end; !error && it != end;
       it.increment(error)) {
    if (it->path().filename().string().front() == '.') continue;
    if (fs::is_directory(it->path(), error)) folders.push_back(it->path());
  }
  std::sort(folders.begin(), folders.end());
  return folders;
}

/// Copies the tree `from` into `to`, which must not exist. Symbolic links are never followed:
/// a link inside a package is refused (a package is plain files and folders, and a link could
/// pull in anything the host can read, or loop), so the copy holds only what lies in `from`.
/// Entries that are neither files, folders nor links (sockets, pipes) are not part of a package
/// and are left out. Throws fs::filesystem_error.
void copyFolder(const fs::path& from, const fs::path& to) {
  fs::create_directory(to);
  for (fs::directory_iterator it(from), end; it != end; ++it) {
    const fs::path target = to / it->path().filename();
    const fs::file_status status = it->symlink_status();
    if (fs::is_symlink(status)) {
      throw fs::filesystem_error(
          "a package must not contain a symbolic link (" + it->path().string() + ")",
          boost::system::errc::make_error_code(boost::system::errc::operation_not_permitted));
    }
    if (fs::is_directory(status)) {
      copyFolder(it->path(), target);
    } else if (fs::is_regular_file(status)) {
      fs::copy_file(it->path(), target);
    }
  }
}

/// Deletes `path` without following links: a link is removed itself, never what it points to,
/// and the walk never enters a linked folder.
void removeTree(const fs::path& path) {
  const fs::file_status status = fs::symlink_status(path);
  if (fs::is_directory(status)) {
    for (fs::directory_iterator it(path), end; it != end; ++it) removeTree(it->path());
  }
  if (fs::exists(status)) fs::remove(path);
}

bool isSameFolder(const fs::path& a, const fs::path& b) {
  boost::system::error_code error;
  return fs::equivalent(a, b, error);
}

/// True when `inner` is `outer` or lies inside it (both existing).
bool isWithin(const fs::path& inner, const fs::path& outer) {
  boost::system::error_code error;
  for (fs::path at = fs::canonical(inner, error); !error && !at.empty(); at = at.parent_path()) {
    if (isSameFolder(at, outer)) return true;
    if (at == at.root_path()) break;
  }
  return false;
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
  const std::string problem = identifierProblem(identifier);
  if (!problem.empty()) {
    throw malformed("invalid package identifier \"" + shownIdentifier(identifier) +
                    "\": " + problem);
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
  addModuleEvent("packageInstalled",
                 "the description of a package (as packages() gives it), once it is installed.");
  addModuleEvent("packageRemoved",
                 "the description of a package (as packages() gave it), once it is removed.");

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
    // A folder that holds the packages folder would be copied into itself without end.
    boost::system::error_code exists;
    if (fs::exists(packages, exists) && isWithin(packages, folder)) {
      throw ZR::ZRError(
          moduleName, method,
          "Cannot install " + folder + ": it holds the packages folder " + packages.string());
    }
    if (!isSameFolder(folder, target)) {
      // The new version is copied beside the target and renamed into place; the old one is
      // first renamed aside and deleted only once the new one is in place. A failure at any
      // step leaves the installed version as it was and no partial copy; a crash leaves the
      // hidden work folders, which the next install of this identifier clears.
      const fs::path staging = packages / (".install-" + package.identifier());
      const fs::path replaced = packages / (".replaced-" + package.identifier());
      bool movedAside = false;
      try {
        fs::create_directories(packages);
        removeTree(staging);
        removeTree(replaced);
        copyFolder(folder, staging);
        if (fs::exists(fs::symlink_status(target))) {
          fs::rename(target, replaced);
          movedAside = true;
        }
        fs::rename(staging, target);
      } catch (const fs::filesystem_error& e) {
        boost::system::error_code ignored;
        if (movedAside && !fs::exists(fs::symlink_status(target, ignored))) {
          fs::rename(replaced, target, ignored);
        }
        try {
          removeTree(staging);
        } catch (const fs::filesystem_error& cleanup) {
          KO_LOG(logCategory(), ko::log::warning, method)
              << "Could not clear " << staging.string() << ": " << cleanup.what();
        }
        throw ZR::ZRError(
            moduleName, method,
            "Cannot install " + folder + " into " + target.string() + ": " + e.what());
      }
      if (movedAside) {
        try {
          removeTree(replaced);
        } catch (const fs::filesystem_error& e) {
          // The new version is in place; the old one only takes room until the next install.
          KO_LOG(logCategory(), ko::log::warning, method)
              << "Could not delete the replaced version in " << replaced.string() << ": "
              << e.what();
        }
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
  const std::string problem = identifierProblem(identifier);
  if (!problem.empty()) {
    throw ZR::ZRError(
        moduleName, method,
        "Invalid package identifier \"" + shownIdentifier(identifier) + "\": " + problem);
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
      // A package folder that is a link is unlinked: what it points to is not ours to delete.
      removeTree(package.path());
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
