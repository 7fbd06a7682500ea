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
  ZRValue inner = ZRValue::array(std::string("speed"), 95.5f);
  inner.push_back(ZRValue(ZRValue::Array{ZRValue::Array{}, ZRValue("<&\"'> é")}));
  const ZRValue tree(ZRValue::Array{ZRValue("English"), ZRValue(-3), ZRValue(0.1f), ZRValue(true),
                                    ZRValue(), inner});
  prefs.writePrefFile("ZRTextToSpeech_DefaultVoiceEnglish", tree, false);
  EXPECT_TRUE(fs::is_regular_file(configDir / "ZRTextToSpeech_DefaultVoiceEnglish.xml"));
  EXPECT_EQ(tree, prefs.readPrefFile("ZRTextToSpeech_DefaultVoiceEnglish", true));
  EXPECT_EQ(tree, prefs.readPrefFile("ZRTextToSpeech_DefaultVoiceEnglish", false));

  // What a crash after writing the temporary file and before renaming it leaves behind: a
  // half-written temporary beside the intact old file.
  writeText(configDir / "ZRTextToSpeech_DefaultVoiceEnglish.xml.tmp-a1b2c3",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<preferences version=\"1\">\n  <val");
  EXPECT_EQ(tree, prefs.readPrefFile("ZRTextToSpeech_DefaultVoiceEnglish", true));
  prefs.writePrefFile("ZRTextToSpeech_DefaultVoiceEnglish", ZRValue("new"), true);
  EXPECT_EQ(ZRValue("new"), prefs.readPrefFile("ZRTextToSpeech_DefaultVoiceEnglish", true));
}

TEST_F(PreferencesTest, SystemFolderIsReadOnlyAndReadOnlyWhenAsked) {
  const fs::path systemFile = fs::path(host.root()) / "config-system" / "bexko" / "System.xml";
  writeText(systemFile, ZR::formatPreferenceXml(ZRValue("from the system")));

  EXPECT_EQ(ZRValue("from the system"), prefs.readPrefFile("System", true));
  EXPECT_THROW(prefs.readPrefFile("System", false), ZR::ZRError);
  prefs.writePrefFile("System", ZRValue("from the user"), false);
  EXPECT_EQ(ZRValue("from the user"), prefs.readPrefFile("System", true));
  EXPECT_EQ(ZRValue("from the system"), ZR::readPreferenceXml(systemFile.string()));
}

TEST_F(PreferencesTest, MissingMalformedOrBadlyNamedFilesAreZRErrors) {
  writeText(configDir / "Broken.xml", "<preferences version=\"1\"><value type=\"int\">3</value>");
  auto refused = [](const std::string& method, const std::string& reason) {
    return Throws<ZR::ZRError>(Property(
        &ZR::ZRError::toString, MatchesRegex("ZRPreferences::" + method + ": .*" + reason + ".*")));
  };
  EXPECT_THAT([&] { prefs.readPrefFile("NeverWritten", true); },
              refused("readPrefFile", "NeverWritten\\.xml"));
  EXPECT_THAT([&] { prefs.readPrefFile("Broken", true); },
              refused("readPrefFile", "malformed XML"));
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
