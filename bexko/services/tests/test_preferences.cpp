#include <bexko/services/preferences.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/testing/testhost.h>
#include <zr/zrpreferencesproxy.h>

namespace {

namespace fs = boost::filesystem;
using bexko::testing::TestHost;
using ::testing::MatchesRegex;
using ::testing::Property;
using ::testing::Throws;
using ZR::ZRValue;

void writeText(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path.string(), std::ios::binary) << text;
}

class PreferencesTest : public ::testing::Test {
 protected:
  TestHost host;
  ZR::ZRPreferencesProxy prefs{host.broker()};
  const fs::path configDir{host.configDir()};
};

TEST_F(PreferencesTest, NestedTreeRoundTripsAndSurvivesACrashBeforeTheRename) {
  // Every value type's fidelity is checked with the file format (PreferenceXmlFormat).
  const ZRValue tree(
      ZRValue::Array{ZRValue("English"), ZRValue::array(std::string("speed"), 95.5f)});
  prefs.writePrefFile("DefaultVoice", tree, false);
  EXPECT_TRUE(fs::is_regular_file(configDir / "DefaultVoice.xml"));
  EXPECT_EQ(tree, prefs.readPrefFile("DefaultVoice", false));

  // What a crash after writing the temporary file and before renaming it leaves behind: a
  // half-written temporary beside the intact old file.
  writeText(configDir / "DefaultVoice.xml.tmp-a1b2c3",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<preferences version=\"1\">\n  <val");
  EXPECT_EQ(tree, prefs.readPrefFile("DefaultVoice", true));
  prefs.writePrefFile("DefaultVoice", ZRValue("new"), true);
  EXPECT_EQ(ZRValue("new"), prefs.readPrefFile("DefaultVoice", true));
}

TEST_F(PreferencesTest, SystemFolderIsReadOnlyWhenAsked) {
  // The user's folder before the system's, and where writes go: PathTest checks both.
  const fs::path systemFile = fs::path(host.root()) / "config-system" / "bexko" / "System.xml";
  writeText(systemFile, ZR::formatPreferenceXml(ZRValue("from the system")));

  EXPECT_EQ(ZRValue("from the system"), prefs.readPrefFile("System", true));
  EXPECT_THROW(prefs.readPrefFile("System", false), ZR::ZRError);
}

TEST_F(PreferencesTest, MissingOrBadlyNamedFilesAreZRErrors) {
  writeText(configDir / "Broken.xml", "<preferences version=\"1\"><value type=\"int\">3</value>");
  auto refused = [](const std::string& method, const std::string& reason) {
    return Throws<ZR::ZRError>(Property(
        &ZR::ZRError::toString, MatchesRegex("ZRPreferences::" + method + ": .*" + reason + ".*")));
  };
  EXPECT_THAT([&] { prefs.readPrefFile("NeverWritten", true); },
              refused("readPrefFile", "NeverWritten\\.xml"));
  EXPECT_THAT([&] { prefs.readPrefFile("Broken", true); },
              refused("readPrefFile", "Broken\\.xml: malformed XML"));
  for (const char* name : {"", "../escaped", "sub/name", "..", "a..b"}) {
    EXPECT_THAT([&] { prefs.readPrefFile(name, true); }, refused("readPrefFile", "file name"))
        << name;
    EXPECT_THAT([&] { prefs.writePrefFile(name, ZRValue(1), false); },
                refused("writePrefFile", "file name"))
        << name;
  }
  // Nothing was written outside the configuration folder.
  EXPECT_FALSE(fs::exists(configDir.parent_path() / "escaped.xml"));
}

/// Names of the entries under `folder`, relative to it, in name order.
std::vector<std::string> entriesUnder(const fs::path& folder) {
  std::vector<std::string> names;
  for (fs::recursive_directory_iterator it(folder), end; it != end; ++it) {
    names.push_back(it->path().lexically_relative(folder).string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// A write killed before its rename leaves "<name>.xml.tmp-XXXXXX" behind. The service deletes
// those when it starts: only regular files of exactly that name, only in the user's folder.
TEST_F(PreferencesTest, StartDeletesTheTemporaryFilesThatCrashedWritesLeft) {
  const fs::path systemDir = fs::path(host.root()) / "config-system" / "bexko";
  const fs::path outside = fs::path(host.root()) / "outside.xml";
  for (const char* name : {"DefaultVoice.xml.tmp-a1b2c3", "Other.xml.tmp-ZZZZZZ", "Kept.xml",
                           "Kept.xml.tmp-abcde", "Kept.xml.tmp-abcdefg", "Kept.txt.tmp-abcdef",
                           ".xml.tmp-abcdef", "Kept.xml.tmp-ab.def", "sub/Deep.xml.tmp-a1b2c3"}) {
    writeText(configDir / name, "<preferences");
  }
  writeText(systemDir / "System.xml.tmp-a1b2c3", "<preferences");
  writeText(outside, "not ours");
  fs::create_symlink(outside, configDir / "Link.xml.tmp-a1b2c3");

  // The service starts again, as the daemon's next run would.
  host.broker()->unregisterModule("ZRPreferences");
  host.clearLogs();
  ZR::ZRModule::createModule<bexko::services::Preferences>(host.broker());

  EXPECT_EQ(
      entriesUnder(configDir),
      (std::vector<std::string>{".xml.tmp-abcdef", "Kept.txt.tmp-abcdef", "Kept.xml",
                                "Kept.xml.tmp-ab.def", "Kept.xml.tmp-abcde", "Kept.xml.tmp-abcdefg",
                                "Link.xml.tmp-a1b2c3", "sub", "sub/Deep.xml.tmp-a1b2c3"}));
  EXPECT_TRUE(fs::exists(systemDir / "System.xml.tmp-a1b2c3"));
  EXPECT_TRUE(fs::exists(outside));
  EXPECT_TRUE(host.hasLog(ko::log::info, "removeStaleTemporaryFiles",
                          "Removed 2 stale temporary preference files from " + configDir.string()));
  // The service works as before, and a start with nothing to delete says nothing.
  prefs.writePrefFile("DefaultVoice", ZRValue("kept"), false);
  EXPECT_EQ(ZRValue("kept"), prefs.readPrefFile("DefaultVoice", false));
  host.broker()->unregisterModule("ZRPreferences");
  host.clearLogs();
  ZR::ZRModule::createModule<bexko::services::Preferences>(host.broker());
  EXPECT_TRUE(host.logRecords("bexko.services.preferences").empty());
}

}  // namespace
