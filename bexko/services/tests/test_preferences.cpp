#include <bexko/services/preferences.h>

#include <fstream>
#include <string>

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

}  // namespace
