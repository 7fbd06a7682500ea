#include <bexko/services/packagemanager.h>

#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/testing/testhost.h>
#include <ko/object.h>
#include <zr/zrproxy.h>

namespace {

namespace fs = boost::filesystem;
using bexko::services::writeManifest;
using bexko::testing::TestHost;
using Named = std::vector<std::pair<std::string, ko::PackageInfo>>;  // signal or event, package

ko::PackageInfo makePackage(const std::string& identifier, const std::string& version,
                            std::vector<ko::LanguageInfo> languages = {}) {
  ko::PackageInfo package;
  package.setIdentifier(identifier);
  package.setVersion(version);
  package.setName(identifier + " voices", "en_US");
  package.setName("voix " + identifier, "fr_FR");
  for (const auto& language : languages) package.addLanguage(language);
  return package;
}

void writeText(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path.string(), std::ios::binary) << text;
}

class PackageManagerTest : public ::testing::Test {
 protected:
  std::vector<ko::PackageInfo> packages() {
    return proxy->call<std::vector<ko::PackageInfo>>("packages");
  }
  /// Writes `package` into the user's (or the system's) packages folder; returns it with its path.
  ko::PackageInfo place(ko::PackageInfo package, bool system = false) {
    const fs::path folder = (system ? systemPackages : userPackages) / package.identifier();
    writeManifest(folder.string(), package);
    package.setPath(folder.string());
    return package;
  }

  TestHost host;
  boost::shared_ptr<ZR::ZRProxy> proxy = host.broker()->getProxy("PackageManager");
  const fs::path userPackages = fs::path(host.dataDir()) / "packages";
  const fs::path systemPackages = fs::path(host.root()) / "data-system" / "bexko" / "packages";
};

TEST_F(PackageManagerTest, ListsUserPackagesFirstAndSkipsMalformedOnes) {
  EXPECT_TRUE(packages().empty());  // the packages shipped in the build tree are hidden
  ko::PackageInfo user = place(makePackage("user-voices", "2.0", {{"fr_FR", "tts_espeak"}}));
  ko::PackageInfo shadowing = place(makePackage("espeak-ng", "2.0"));
  place(makePackage("espeak-ng", "1.0"), true);
  ko::PackageInfo system = place(
      makePackage("more-voices", "1.51", {{"en_US", "tts_espeak"}, {"en_GB", "tts_espeak"}}), true);
  const fs::path bad = userPackages / "bad";
  writeText(bad / "manifest.xml", "<package version=\"1.0\"/>");
  writeText(userPackages / "not-a-package" / "readme.txt", "no manifest here");

  EXPECT_EQ(packages(), (std::vector<ko::PackageInfo>{shadowing, user, system}));
  EXPECT_TRUE(host.hasLog(ko::log::warning, "packages",
                          "Skipping the package in " + bad.string() +
                              ": Malformed package manifest " + (bad / "manifest.xml").string() +
                              ": the package has no identifier"));
}

TEST_F(PackageManagerTest, InstallReplacesAndRemoveDeletesWithSignalsAndEvents) {
  std::mutex mutex;
  Named signalled;
  ko::Object service = host.broker()->session()->service("PackageManager").value(1000);
  for (const std::string name : {"onPackageInstalled", "onPackageRemoved"}) {
    service
        .connect(name, ko::SignalSubscriber(boost::function<void(const ko::PackageInfo&)>(
                           [&, name](const ko::PackageInfo& package) {
                             std::lock_guard<std::mutex> lock(mutex);
                             signalled.emplace_back(name, package);
                           })))
        .value(1000);
  }
  const fs::path source = fs::path(host.root()) / "downloads" / "extra";
  const fs::path installed = userPackages / "extra-voices";
  writeText(source / "voices" / "data.bin", "voice data");
  ko::PackageInfo old = makePackage("extra-voices", "0.3");
  writeManifest(source.string(), old);
  proxy->call<void>("install", source.string());
  writeText(installed / "stale.bin", "old");
  ko::PackageInfo package = makePackage("extra-voices", "0.4", {{"de_DE", "tts_espeak"}});
  writeManifest(source.string(), package);
  proxy->call<void>("install", source.string());

  old.setPath(installed.string());
  package.setPath(installed.string());
  EXPECT_TRUE(fs::is_regular_file(installed / "voices" / "data.bin"));
  EXPECT_FALSE(fs::exists(installed / "stale.bin"));
  EXPECT_EQ(packages(), std::vector<ko::PackageInfo>{package});

  proxy->call<void>("remove", std::string("extra-voices"));
  EXPECT_FALSE(fs::exists(installed));
  EXPECT_TRUE(packages().empty());
  {
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(signalled, (Named{{"onPackageInstalled", old},
                                {"onPackageInstalled", package},
                                {"onPackageRemoved", package}}));
  }
  Named events;
  for (const auto& event : host.events("package")) events.emplace_back(event.key, event.value);
  EXPECT_EQ(events, (Named{{"packageInstalled", old},
                           {"packageInstalled", package},
                           {"packageRemoved", package}}));
}

TEST_F(PackageManagerTest, RefusedInstallOrRemoveIsZRErrorAndChangesNothing) {
  place(makePackage("system-voices", "1.0"), true);
  const fs::path folder = fs::path(host.root()) / "downloads" / "bad";
  fs::create_directories(folder);
  EXPECT_THROW(proxy->call<void>("install", folder.string()), ZR::ZRError);  // no manifest at all
  // A manifest without an identifier is checked by the listing test above.
  for (const char* manifest :
       {"<package", "<bundle identifier=\"x\"/>", "<package identifier=\"../x\"/>",
        "<package identifier=\"x\"><languages><language "
        "locale=\"en_US\"/></languages></package>"}) {
    writeText(folder / "manifest.xml", manifest);
    EXPECT_THROW(proxy->call<void>("install", folder.string()), ZR::ZRError) << manifest;
  }
  for (const std::string id : {"no-such-package", "system-voices", "../system-voices"}) {
    EXPECT_THROW(proxy->call<void>("remove", id), ZR::ZRError) << id;
  }
  EXPECT_EQ(1u, packages().size());
  EXPECT_TRUE(host.events("package").empty());
  EXPECT_THROW(writeManifest(folder.string(), ko::PackageInfo()), ZR::ZRError);
}

}  // namespace
