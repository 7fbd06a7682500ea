#include <bexko/services/packagemanager.h>

#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/testing/testhost.h>
#include <ko/object.h>
#include <ko/path.h>
#include <zr/zrproxy.h>

namespace {

namespace fs = boost::filesystem;
using bexko::testing::TestHost;
using ZR::ZRValue;

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
  std::ofstream out(path.string(), std::ios::binary);
  out << text;
}

class PackageManagerTest : public ::testing::Test {
 protected:
  std::vector<ko::PackageInfo> packages() {
    return proxy->call<std::vector<ko::PackageInfo>>("packages");
  }
  fs::path userPackages() const { return fs::path(host.dataDir()) / "packages"; }
  fs::path systemPackages() const {
    return fs::path(host.root()) / "data-system" / "bexko" / "packages";
  }
  /// A package folder to install from, outside every packages folder.
  fs::path sourceFolder(const ko::PackageInfo& package) {
    fs::path folder = fs::path(host.root()) / "downloads" / package.identifier();
    bexko::services::writeManifest(folder.string(), package);
    writeText(folder / "voices" / "data.bin", "voice data");
    return folder;
  }

  TestHost host;
  boost::shared_ptr<ZR::ZRProxy> proxy = host.broker()->getProxy("PackageManager");
};

TEST_F(PackageManagerTest, ListsUserPackagesBeforeSystemPackages) {
  ko::PackageInfo user = makePackage("user-voices", "2.0", {{"fr_FR", "tts_espeak"}});
  ko::PackageInfo system =
      makePackage("espeak-ng", "1.51", {{"en_US", "tts_espeak"}, {"en_GB", "tts_espeak"}});
  host.addPackage(user);
  bexko::services::writeManifest((systemPackages() / "espeak-ng").string(), system);

  auto found = packages();
  ASSERT_EQ(2u, found.size());
  user.setPath((userPackages() / "user-voices").string());
  system.setPath((systemPackages() / "espeak-ng").string());
  EXPECT_EQ(user, found[0]);
  EXPECT_EQ(system, found[1]);
  EXPECT_EQ("voix espeak-ng", found[1].name("fr_FR"));
}

TEST_F(PackageManagerTest, UserPackageHidesSystemPackageOfTheSameIdentifier) {
  bexko::services::writeManifest((systemPackages() / "espeak-ng").string(),
                                 makePackage("espeak-ng", "1.0"));
  host.addPackage(makePackage("espeak-ng", "2.0"));

  auto found = packages();
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ("2.0", found[0].version());
  EXPECT_EQ((userPackages() / "espeak-ng").string(), found[0].path());
}

TEST_F(PackageManagerTest, ShippedPackagesAreHiddenByDefault) { EXPECT_TRUE(packages().empty()); }

TEST_F(PackageManagerTest, InstallThenRemoveEmitsSignalsAndEvents) {
  std::mutex mutex;
  std::vector<std::pair<std::string, ko::PackageInfo>> signalled;
  ko::Object service = host.broker()->session()->service("PackageManager").value(1000);
  ASSERT_TRUE(service.isValid());
  for (const std::string name : {"onPackageInstalled", "onPackageRemoved"}) {
    service
        .connect(name, ko::SignalSubscriber(boost::function<void(const ko::PackageInfo&)>(
                           [&, name](const ko::PackageInfo& package) {
                             std::lock_guard<std::mutex> lock(mutex);
                             signalled.emplace_back(name, package);
                           })))
        .value(1000);
  }
  ko::PackageInfo package = makePackage("extra-voices", "0.3", {{"de_DE", "tts_espeak"}});
  fs::path source = sourceFolder(package);
  host.clearEvents();

  proxy->call<void>("install", source.string());
  package.setPath((userPackages() / "extra-voices").string());
  EXPECT_TRUE(fs::is_regular_file(userPackages() / "extra-voices" / "voices" / "data.bin"));
  auto found = packages();
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(package, found[0]);

  proxy->call<void>("remove", std::string("extra-voices"));
  EXPECT_FALSE(fs::exists(userPackages() / "extra-voices"));
  EXPECT_TRUE(packages().empty());

  {
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(2u, signalled.size());
    EXPECT_EQ("onPackageInstalled", signalled[0].first);
    EXPECT_EQ(package, signalled[0].second);
    EXPECT_EQ("onPackageRemoved", signalled[1].first);
    EXPECT_EQ(package, signalled[1].second);
  }
  auto events = host.events("package");
  ASSERT_EQ(2u, events.size());
  EXPECT_EQ("packageInstalled", events[0].key);
  EXPECT_EQ(package, ko::PackageInfo(events[0].value));
  EXPECT_EQ("packageRemoved", events[1].key);
  EXPECT_EQ(package, ko::PackageInfo(events[1].value));
}

TEST_F(PackageManagerTest, InstallingAgainReplacesThePackage) {
  fs::path first = sourceFolder(makePackage("voices", "1.0"));
  proxy->call<void>("install", first.string());
  writeText(userPackages() / "voices" / "stale.bin", "old");

  ko::PackageInfo newer = makePackage("voices", "1.1", {{"it_IT", "tts_espeak"}});
  bexko::services::writeManifest(first.string(), newer);
  proxy->call<void>("install", first.string());

  auto found = packages();
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ("1.1", found[0].version());
  EXPECT_FALSE(fs::exists(userPackages() / "voices" / "stale.bin"));
}

struct BadInstallCase {
  const char* label;
  const char* manifest;  // null: no manifest at all
};

class BadInstallTest : public PackageManagerTest,
                       public ::testing::WithParamInterface<BadInstallCase> {};

TEST_P(BadInstallTest, IsZRErrorAndChangesNothing) {
  fs::path folder = fs::path(host.root()) / "downloads" / "bad";
  fs::create_directories(folder);
  if (GetParam().manifest) writeText(folder / "manifest.xml", GetParam().manifest);
  host.clearEvents();

  try {
    proxy->call<void>("install", folder.string());
    FAIL() << "install of a bad package returned";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ("PackageManager", e.moduleName());
    EXPECT_EQ("install", e.methodName());
    EXPECT_NE(std::string(e.what()).find("manifest"), std::string::npos) << e.what();
  }
  EXPECT_TRUE(packages().empty());
  EXPECT_TRUE(host.events("package").empty());
}

INSTANTIATE_TEST_SUITE_P(
    Manifests, BadInstallTest,
    ::testing::Values(BadInstallCase{"NoManifest", nullptr}, BadInstallCase{"NotXml", "<package"},
                      BadInstallCase{"WrongRoot", "<bundle identifier=\"x\"/>"},
                      BadInstallCase{"NoIdentifier", "<package version=\"1\"/>"},
                      BadInstallCase{"IdentifierWithSlash", "<package identifier=\"../x\"/>"},
                      BadInstallCase{
                          "LanguageWithoutEngine",
                          "<package identifier=\"x\"><languages><language locale=\"en_US\"/>"
                          "</languages></package>"}),
    [](const ::testing::TestParamInfo<BadInstallCase>& info) { return info.param.label; });

struct BadRemoveCase {
  const char* label;
  const char* identifier;
};

class BadRemoveTest : public PackageManagerTest,
                      public ::testing::WithParamInterface<BadRemoveCase> {};

TEST_P(BadRemoveTest, IsZRErrorAndChangesNothing) {
  bexko::services::writeManifest((systemPackages() / "system-voices").string(),
                                 makePackage("system-voices", "1.0"));
  host.clearEvents();

  try {
    proxy->call<void>("remove", std::string(GetParam().identifier));
    FAIL() << "remove returned";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ("PackageManager", e.moduleName());
    EXPECT_EQ("remove", e.methodName());
  }
  EXPECT_EQ(1u, packages().size());
  EXPECT_TRUE(host.events("package").empty());
}

INSTANTIATE_TEST_SUITE_P(Identifiers, BadRemoveTest,
                         ::testing::Values(BadRemoveCase{"Unknown", "no-such-package"},
                                           BadRemoveCase{"SystemPackage", "system-voices"},
                                           BadRemoveCase{"PathEscape", "../system-voices"}),
                         [](const ::testing::TestParamInfo<BadRemoveCase>& info) {
                           return info.param.label;
                         });

TEST_F(PackageManagerTest, MalformedManifestIsSkippedWithAWarning) {
  host.addPackage(makePackage("good", "1.0"));
  const fs::path bad = userPackages() / "bad";
  writeText(bad / "manifest.xml", "<package version=\"1.0\"/>");
  writeText(userPackages() / "not-a-package" / "readme.txt", "no manifest here");

  auto found = packages();
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ("good", found[0].identifier());
  EXPECT_TRUE(host.hasLog(ko::log::warning, "packages",
                          "Skipping the package in " + bad.string() +
                              ": Malformed package manifest " + (bad / "manifest.xml").string() +
                              ": the package has no identifier"));
}

TEST_F(PackageManagerTest, PackageWithoutLanguages) {
  ko::PackageInfo package = makePackage("documentation", "1.0");
  proxy->call<void>("install", sourceFolder(package).string());

  auto found = packages();
  ASSERT_EQ(1u, found.size());
  EXPECT_TRUE(found[0].languages().empty());
  auto events = host.events("packageInstalled");
  ASSERT_EQ(1u, events.size());
  EXPECT_TRUE(ko::PackageInfo(events[0].value).languages().empty());
  EXPECT_EQ("documentation", ko::PackageInfo(events[0].value).identifier());
}

TEST_F(PackageManagerTest, ManifestRoundTripsEveryField) {
  ko::PackageInfo package =
      makePackage("round-trip", "3.2.1", {{"en_US", "tts_espeak"}, {"ja_JP", "tts_other"}});
  fs::path folder = fs::path(host.root()) / "manifest-only";
  bexko::services::writeManifest(folder.string(), package);

  ko::PackageInfo back = bexko::services::readManifest(folder.string());
  package.setPath(folder.string());
  EXPECT_EQ(package, back);
  EXPECT_THROW(bexko::services::writeManifest(folder.string(), ko::PackageInfo()), ZR::ZRError);
}

}  // namespace

namespace {

TEST(ShippedPackageTest, BuildTreeShipsTheEspeakLanguages) {
  bexko::testing::TestHost host(bexko::testing::TestHostOptions{true});
  auto found =
      host.broker()->getProxy("PackageManager")->call<std::vector<ko::PackageInfo>>("packages");
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ("espeak-ng", found[0].identifier());
  EXPECT_FALSE(found[0].languages().empty());
  for (const auto& language : found[0].languages()) {
    EXPECT_EQ("tts_espeak", language.engineName()) << language.locale();
  }
  EXPECT_EQ(ko::path::sdkPrefix() + "/share/bexko/packages/espeak-ng", found[0].path());
}

}  // namespace
