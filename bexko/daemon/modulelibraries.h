#pragma once

#include <string>
#include <vector>

namespace bexko {
namespace daemon {

/// The folders whose module libraries the daemon loads at start, in loading order:
/// <prefix>/lib/bexko/modules (the installation's), then $XDG_DATA_HOME/bexko/modules (the
/// user's, ~/.local/share/bexko/modules).
std::vector<std::string> moduleFolders();

/// The module libraries of `folders` to load after those named on the command line: every
/// regular file (or link to one) whose name ends in ".so", in name order within each folder.
/// A library whose file name is that of one given in `commandLine` is left out (the command
/// line wins), and so is one whose file name a later folder also holds (the user's folder wins
/// over the installation's). A folder that does not exist is skipped; one that cannot be read
/// is logged. Each library found and each one left out is logged.
std::vector<std::string> folderModuleLibraries(const std::vector<std::string>& folders,
                                               const std::vector<std::string>& commandLine);

}  // namespace daemon
}  // namespace bexko
