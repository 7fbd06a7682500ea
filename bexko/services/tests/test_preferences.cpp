#include <bexko/services/preferences.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/testing/testhost.h>
#include <zr/zrpreferencesproxy.h>

namespace {

namespace fs = boost::filesystem;
using bexko::testing::TestHost;
using ZR::ZRValue;

void writeText(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path.string(), std::ios::binary);
  out << text;
}

ZRValue nestedTree() {
  ZRValue tree;
  tree.push_back(ZRValue("English"));
  tree.push_back(ZRValue(-3));
  tree.push_back(ZRValue(0.1f));
  tree.push_back(ZRValue(true));
  tree.push_back(ZRValue());
  ZRValue inner = ZRValue::array(std::string("speed"), 95.5f);
  inner.push_back(ZRValue(ZRValue::Array{ZRValue::Array{}, ZRValue("<&\"'> é")}));
  tree.push_back(inner);
  return tree;
}

class PreferencesTest : public ::testing::Test {
 protected:
  TestHost host;
  ZR::ZRPreferencesProxy prefs{host.broker()};
};

TEST_F(PreferencesTest, NestedTreeRoundTripsThroughTheModule) {
  prefs.writePrefFile("ZRTextToSpeech_DefaultVoiceEnglish", nestedTree(), false);

  EXPECT_TRUE(
      fs::is_regular_file(fs::path(host.configDir()) / "ZRTextToSpeech_DefaultVoiceEnglish.xml"));
  EXPECT_EQ(nestedTree(), prefs.readPrefFile("ZRTextToSpeech_DefaultVoiceEnglish", true));
  EXPECT_EQ(nestedTree(), prefs.readPrefFile("ZRTextToSpeech_DefaultVoiceEnglish", false));
}

TEST_F(PreferencesTest, WritingAgainReplacesTheFile) {
  prefs.writePrefFile("Replace", ZRValue(1), false);
  prefs.writePrefFile("Replace", ZRValue("two"), true);
  EXPECT_EQ(ZRValue("two"), prefs.readPrefFile("Replace", true));
}

TEST_F(PreferencesTest, CrashBetweenWriteAndRenameKeepsTheOldFile) {
  prefs.writePrefFile("Voice", ZRValue("old"), false);
  // What a crash after writing the temporary file and before renaming it leaves behind: a
  // half-written temporary beside the intact old file.
  const fs::path leftover = fs::path(host.configDir()) / "Voice.xml.tmp-a1b2c3";
  writeText(leftover,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<preferences version=\"1\">\n  <val");

  EXPECT_EQ(ZRValue("old"), prefs.readPrefFile("Voice", true));
  prefs.writePrefFile("Voice", ZRValue("new"), false);
  EXPECT_EQ(ZRValue("new"), prefs.readPrefFile("Voice", true));
}

TEST_F(PreferencesTest, MissingFileIsZRError) {
  try {
    prefs.readPrefFile("NeverWritten", true);
    FAIL() << "reading a missing file returned";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ("ZRPreferences", e.moduleName());
    EXPECT_EQ("readPrefFile", e.methodName());
    EXPECT_NE(std::string(e.what()).find("NeverWritten.xml"), std::string::npos) << e.what();
  }
}

struct MalformedCase {
  const char* label;
  const char* text;
};

class MalformedPreferenceFileTest : public PreferencesTest,
                                    public ::testing::WithParamInterface<MalformedCase> {};

TEST_P(MalformedPreferenceFileTest, IsZRError) {
  writeText(fs::path(host.configDir()) / "Broken.xml", GetParam().text);
  try {
    prefs.readPrefFile("Broken", true);
    FAIL() << "reading a malformed file returned";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ("ZRPreferences", e.moduleName());
    EXPECT_EQ("readPrefFile", e.methodName());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Files, MalformedPreferenceFileTest,
    ::testing::Values(
        MalformedCase{"Empty", ""}, MalformedCase{"NotXml", "this is not xml"},
        MalformedCase{"Truncated", "<preferences version=\"1\"><value type=\"int\">3</value>"},
        MalformedCase{"WrongRoot", "<settings><value type=\"int\">3</value></settings>"},
        MalformedCase{"UnknownType",
                      "<preferences version=\"1\"><value type=\"colour\">red</value>"
                      "</preferences>"},
        MalformedCase{"BadInt",
                      "<preferences version=\"1\"><value type=\"int\">three</value>"
                      "</preferences>"},
        MalformedCase{"NoValue", "<preferences version=\"1\"></preferences>"}),
    [](const ::testing::TestParamInfo<MalformedCase>& info) { return info.param.label; });

class BadPreferenceNameTest : public PreferencesTest,
                              public ::testing::WithParamInterface<std::string> {};

TEST_P(BadPreferenceNameTest, IsRejectedForReadAndWrite) {
  EXPECT_THROW(prefs.writePrefFile(GetParam(), ZRValue(1), false), ZR::ZRError);
  EXPECT_THROW(prefs.readPrefFile(GetParam(), true), ZR::ZRError);
  // Nothing was written outside the configuration folder.
  EXPECT_FALSE(fs::exists(fs::path(host.configDir()).parent_path() / "escaped.xml"));
}

INSTANTIATE_TEST_SUITE_P(Names, BadPreferenceNameTest,
                         ::testing::Values("", "../escaped", "sub/name", "..", "a..b"));

TEST_F(PreferencesTest, SystemFolderIsReadOnlyWhenAsked) {
  const fs::path systemFile = fs::path(host.root()) / "config-system" / "bexko" / "System.xml";
  writeText(systemFile, ZR::formatPreferenceXml(ZRValue("from the system")));

  EXPECT_EQ(ZRValue("from the system"), prefs.readPrefFile("System", true));
  EXPECT_THROW(prefs.readPrefFile("System", false), ZR::ZRError);

  prefs.writePrefFile("System", ZRValue("from the user"), false);
  EXPECT_EQ(ZRValue("from the user"), prefs.readPrefFile("System", true));
  EXPECT_EQ(ZR::ZRValue("from the system"), ZR::readPreferenceXml(systemFile.string()));
}

}  // namespace
