#include <bexko/services/packagemanager.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
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

/// "module/method: message" of the ZRError that `call` throws, or "" when it returns.
std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const ZR::ZRError& e) {
    return e.moduleName() + "/" + e.methodName() + ": " + e.what();
  }
  return "";
}

/// `text` as an XML attribute value: markup characters and control bytes as references.
std::string xmlAttribute(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f || c == '&' || c == '<' || c == '"') {
      escaped += "&#" + std::to_string(byte) + ";";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

/// Every file and link under `folder`, relative to it, with a file's content or a link's target.
std::map<std::string, std::string> treeOf(const fs::path& folder) {
  std::map<std::string, std::string> tree;
  if (!fs::exists(fs::symlink_status(folder))) return tree;
  for (fs::recursive_directory_iterator it(folder), end; it != end; ++it) {
    const std::string name = it->path().lexically_relative(folder).string();
    const fs::file_status status = it->symlink_status();
    if (fs::is_symlink(status)) {
      tree[name] = "-> " + fs::read_symlink(it->path()).string();
    } else if (fs::is_regular_file(status)) {
      std::ifstream in(it->path().string(), std::ios::binary);
      tree[name] = std::string(std::istreambuf_iterator<char>(in), {});
    }
  }
  return tree;
}

/// Names of the entries of `folder`, in name order.
std::vector<std::string> entriesOf(const fs::path& folder) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(folder), end; it != end; ++it) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

struct RefusedIdentifier {
  std::string identifier;
  std::string shown;  // as the message names it
  std::string reason;
};

// An identifier is one folder name under the user's packages folder, the folder that remove
// deletes: "." named the packages folder itself, so removing it removed every user package.
TEST_F(PackageManagerTest, IdentifiersThatAreNotOnePlainFolderNameAreRefused) {
  const ko::PackageInfo kept = place(makePackage("kept-voices", "1.0"));
  const fs::path source = fs::path(host.root()) / "downloads" / "hostile";
  writeText(source / "voices" / "data.bin", "voice data");
  const std::string separator = "it contains a path separator";
  const std::string control = "it contains a control character";
  const RefusedIdentifier cases[] = {
      {".", ".", "it names a folder, not a package"},
      {"..", "..", "it names a folder, not a package"},
      {".hidden", ".hidden",
       "it begins with '.', which is kept for the package manager's own work folders"},
      {"a/b", "a/b", separator},
      {"/kept-voices", "/kept-voices", separator},
      {"..\\kept-voices", "..\\kept-voices", separator},
      {"tab\tname", "tab\\x09name", control},
      {"two\nlines", "two\\x0alines", control},
      {"bell\x07", "bell\\x07", control},
      {"del\x7f", "del\\x7f", control},
  };
  for (const RefusedIdentifier& c : cases) {
    SCOPED_TRACE(c.shown);
    const std::string manifest = (source / "manifest.xml").string();
    writeText(manifest, "<package identifier=\"" + xmlAttribute(c.identifier) + "\"/>");
    EXPECT_EQ(failureOf([&] { proxy->call<void>("install", source.string()); }),
              "PackageManager/install: Malformed package manifest " + manifest +
                  ": invalid package identifier \"" + c.shown + "\": " + c.reason);
    EXPECT_EQ(failureOf([&] { proxy->call<void>("remove", c.identifier); }),
              "PackageManager/remove: Invalid package identifier \"" + c.shown + "\": " + c.reason);
    EXPECT_EQ(packages(), std::vector<ko::PackageInfo>{kept});
  }
  EXPECT_EQ(failureOf([&] { proxy->call<void>("remove", std::string()); }),
            "PackageManager/remove: Invalid package identifier \"\": it is empty");
  EXPECT_EQ(treeOf(userPackages),
            (std::map<std::string, std::string>{
                {"kept-voices/manifest.xml", treeOf(kept.path())["manifest.xml"]}}));
  EXPECT_TRUE(host.events("package").empty());
}

class PackageLinks : public PackageManagerTest {
 protected:
  void SetUp() override {
    writeText(outside / "secret.txt", "not part of any package");
    writeText(source / "a-voice.bin", "voice data");
    writeText(source / "voices" / "more.bin", "more voice data");
  }
  const fs::path outside = fs::path(host.root()) / "elsewhere";
  const fs::path source = fs::path(host.root()) / "downloads" / "linked";
  const fs::path installed = userPackages / "linked-voices";
};

// Installing never reads through a link, so a package cannot pull in what lies outside it (nor
// copy itself forever). The copy that stopped at the link is cleared and the version installed
// before is left exactly as it was.
TEST_F(PackageLinks, InstallRefusesALinkAndKeepsThePreviousVersion) {
  writeManifest(source.string(), makePackage("linked-voices", "1.0"));
  proxy->call<void>("install", source.string());
  const auto previous = treeOf(installed);
  ASSERT_EQ(previous.count("voices/more.bin"), 1u);

  writeManifest(source.string(), makePackage("linked-voices", "2.0"));
  writeText(source / "voices" / "new.bin", "new voice data");
  const std::pair<std::string, fs::path> links[] = {
      {"voices/secret.txt", outside / "secret.txt"}, {"voices/loop", source}, {"outside", outside}};
  for (const auto& [name, target] : links) {
    SCOPED_TRACE(name);
    fs::create_symlink(target, source / name);
    const std::string failure = failureOf([&] { proxy->call<void>("install", source.string()); });
    EXPECT_EQ(
        failure.rfind("PackageManager/install: Cannot install " + source.string() + " into " +
                          installed.string() + ": a package must not contain a symbolic link (" +
                          (source / name).string() + ")",
                      0),
        0u)
        << failure;
    fs::remove(source / name);
    EXPECT_EQ(treeOf(installed), previous);
    // Nothing is left beside the installed version.
    EXPECT_EQ(entriesOf(userPackages), std::vector<std::string>{"linked-voices"});
  }
  EXPECT_EQ(packages().at(0).version(), "1.0");
  EXPECT_EQ(host.events("package").size(), 1u);
  EXPECT_EQ(treeOf(outside),
            (std::map<std::string, std::string>{{"secret.txt", "not part of any package"}}));
}

// Removing deletes links, never what they point to: neither a link inside a package nor a
// package folder that is itself a link to a folder elsewhere.
TEST_F(PackageLinks, RemoveDeletesLinksButNeverWhatTheyPointTo) {
  fs::create_directories(userPackages);
  writeManifest(outside.string(), makePackage("linked-voices", "1.0"));
  fs::create_symlink(outside, installed);
  const ko::PackageInfo inside = place(makePackage("inside-voices", "1.0"));
  fs::create_symlink(outside, fs::path(inside.path()) / "outside");
  fs::create_symlink(outside / "secret.txt", fs::path(inside.path()) / "secret.txt");
  const auto before = treeOf(outside);

  for (const std::string identifier : {"linked-voices", "inside-voices"}) {
    proxy->call<void>("remove", identifier);
  }
  EXPECT_FALSE(fs::exists(fs::symlink_status(installed)));
  EXPECT_FALSE(fs::exists(fs::symlink_status(inside.path())));
  EXPECT_TRUE(packages().empty());
  EXPECT_EQ(treeOf(outside), before);
  EXPECT_EQ(before.count("secret.txt"), 1u);
}

// A folder that holds the packages folder would be copied into itself without end.
TEST_F(PackageLinks, AFolderHoldingThePackagesFolderIsRefused) {
  place(makePackage("kept-voices", "1.0"));
  const fs::path dataDir = userPackages.parent_path();
  writeManifest(dataDir.string(), makePackage("whole-data", "1.0"));
  EXPECT_EQ(failureOf([&] { proxy->call<void>("install", dataDir.string()); }),
            "PackageManager/install: Cannot install " + dataDir.string() +
                ": it holds the packages folder " + userPackages.string());
  EXPECT_EQ(entriesOf(userPackages), std::vector<std::string>{"kept-voices"});
}

// A copy that a crash interrupted is a hidden work folder: it is never listed, even with a
// complete manifest, and the next install of its identifier clears it.
TEST_F(PackageLinks, AnInterruptedInstallIsNotAPackageAndIsClearedByTheNext) {
  const fs::path leftover = userPackages / ".install-linked-voices";
  writeManifest(leftover.string(), makePackage("linked-voices", "0.1"));
  writeText(leftover / "half.bin", "half");
  EXPECT_TRUE(packages().empty());

  writeManifest(source.string(), makePackage("linked-voices", "1.0"));
  proxy->call<void>("install", source.string());
  EXPECT_EQ(entriesOf(userPackages), std::vector<std::string>{"linked-voices"});
  EXPECT_EQ(treeOf(installed), treeOf(source));
}

}  // namespace
