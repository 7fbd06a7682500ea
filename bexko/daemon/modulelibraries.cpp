#include "modulelibraries.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <system_error>

#include <ko/log.h>
#include <ko/path.h>

namespace fs = std::filesystem;

namespace bexko {
namespace daemon {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.daemon.modules");
  return category;
}

bool isLibraryName(const std::string& name) {
  return name.size() > 3 && name.compare(name.size() - 3, 3, ".so") == 0 && name.front() != '.';
}

// The libraries of one folder, in name order; nothing for a missing folder.
std::vector<fs::path> librariesIn(const std::string& folder) {
  std::vector<fs::path> found;
  std::error_code error;
  if (!fs::is_directory(folder, error)) {
    if (fs::exists(folder, error)) {
      KO_LOG(logCategory(), ko::log::warning, "folderModuleLibraries")
          << folder << " is not a folder: no module library is loaded from it";
    }
    return found;
  }
  fs::directory_iterator it(folder, error);
  for (; !error && it != fs::directory_iterator(); it.increment(error)) {
    const fs::path& path = it->path();
    if (!isLibraryName(path.filename().string())) continue;
    std::error_code typeError;
    if (!fs::is_regular_file(path, typeError)) {
      KO_LOG(logCategory(), ko::log::warning, "folderModuleLibraries")
          << path.string() << " is not a regular file: not loaded";
      continue;
    }
    found.push_back(path);
  }
  if (error) {
    KO_LOG(logCategory(), ko::log::error, "folderModuleLibraries")
        << "cannot read the module folder " << folder << ": " << error.message();
  }
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace

std::vector<std::string> moduleFolders() {
  return {ko::path::sdkPrefix() + "/lib/bexko/modules",
          ko::path::dataPaths("bexko").front() + "/modules"};
}

std::vector<std::string> folderModuleLibraries(const std::vector<std::string>& folders,
                                               const std::vector<std::string>& commandLine) {
  std::set<std::string> named;
  for (const auto& library : commandLine) named.insert(fs::path(library).filename().string());

  std::vector<std::vector<fs::path>> perFolder;
  std::map<std::string, std::size_t> lastFolderOf;  // file name -> index of the folder that wins
  for (std::size_t i = 0; i < folders.size(); ++i) {
    perFolder.push_back(librariesIn(folders[i]));
    for (const auto& path : perFolder.back()) lastFolderOf[path.filename().string()] = i;
  }

  std::vector<std::string> libraries;
  for (std::size_t i = 0; i < folders.size(); ++i) {
    for (const auto& path : perFolder[i]) {
      const std::string name = path.filename().string();
      if (named.count(name)) {
        KO_LOG(logCategory(), ko::log::info, "folderModuleLibraries")
            << "module library " << path.string()
            << " left out: the command line names a library of that name";
      } else if (lastFolderOf[name] != i) {
        KO_LOG(logCategory(), ko::log::info, "folderModuleLibraries")
            << "module library " << path.string() << " left out: " << folders[lastFolderOf[name]]
            << " has one of that name";
      } else {
        KO_LOG(logCategory(), ko::log::info, "folderModuleLibraries")
            << "module library " << path.string() << " found in " << folders[i];
        libraries.push_back(path.string());
      }
    }
  }
  return libraries;
}

}  // namespace daemon
}  // namespace bexko
