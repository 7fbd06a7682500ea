// A package manifest through the PackageManager, as a manifest copied by hand into the user's
// packages folder reaches it: the listing skips a malformed one, and a package that it lists
// has an identifier that names one plain folder.
#include <bexko/services/packagemanager.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <boost/filesystem.hpp>
#include <boost/shared_ptr.hpp>

#include <bexko/services/builtinservices.h>
#include <zr/zrbroker.h>
#include <zr/zrbrokermanager.h>
#include <zr/zrerror.h>

#include "fuzzhost.h"
#include "fuzzsupport.h"

namespace {

boost::shared_ptr<bexko::services::PackageManager> packageManager;
std::string packageFolder;

void fail(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  bexko::fuzz::prepareFuzzing();
  packageManager = bexko::fuzz::startFuzzHost().services.packageManager;
  packageFolder = bexko::services::PackageManager::userPackagesPath() + "/fuzzed";
  boost::filesystem::create_directories(packageFolder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  {
    std::ofstream out(packageFolder + "/manifest.xml", std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  std::vector<ko::PackageInfo> packages;
  try {
    packages = packageManager->packages();
  } catch (const std::exception& e) {
    fail(std::string("the listing failed instead of skipping a manifest: ") + e.what());
  }
  for (const ko::PackageInfo& package : packages) {
    const std::string& identifier = package.identifier();
    if (identifier.empty() || identifier == "." || identifier == ".." || identifier[0] == '.' ||
        identifier.find_first_of("/\\") != std::string::npos) {
      fail("a listed package has the identifier \"" + identifier + "\"");
    }
    for (const ko::LanguageInfo& language : package.languages()) {
      if (language.locale().empty() || language.engineName().empty()) {
        fail("a listed language has no locale or no engine");
      }
    }
    package.toValue();
  }
  // The reader itself, as install uses it.
  try {
    const ko::PackageInfo package = bexko::services::readManifest(packageFolder, "install");
    if (package.path() != packageFolder) fail("the manifest's package has another path");
  } catch (const ZR::ZRError&) {
  }
  return 0;
}
