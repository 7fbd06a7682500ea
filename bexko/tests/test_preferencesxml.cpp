#include <zr/zrpreferencesproxy.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using ZR::ZRError;
using ZR::ZRValue;
using Array = ZRValue::Array;

std::string readText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

ZRValue everyType() {
  return ZRValue(Array{
      "English",
      "",
      "  padded  ",
      " ",
      "a < b && c > \"d\" 'e'",
      "line one\nline two\ttab",
      "h\xc3\xa9llo \xe6\x97\xa5\xe6\x9c\xac",
      0,
      -17,
      INT_MAX,
      INT_MIN,
      0.1f,
      1.5f,
      -3.25e-7f,
      FLT_MAX,
      std::numeric_limits<float>::denorm_min(),
      -0.0f,
      std::numeric_limits<float>::infinity(),
      true,
      false,
      ZRValue(),
      ZRValue(Array{}),
      ZRValue(Array{ZRValue(Array{"deep", ZRValue(Array{1, ZRValue()})}), 2.5f}),
  });
}

TEST(PreferenceXmlFormat, MatchesTheDocumentedLayout) {
  const std::string expected =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<preferences version=\"1\">\n"
      "  <value type=\"array\">\n"
      "    <value type=\"string\">English</value>\n"
      "    <value type=\"int\">3</value>\n"
      "    <value type=\"float\">1.5</value>\n"
      "    <value type=\"bool\">true</value>\n"
      "    <value type=\"empty\" />\n"
      "  </value>\n"
      "</preferences>\n";
  EXPECT_EQ(ZR::formatPreferenceXml(ZRValue(Array{"English", 3, 1.5f, true, ZRValue()})), expected);
}

TEST(PreferenceXmlFormat, TextRoundTripsEveryTypeExactly) {
  const ZRValue original = everyType();
  const ZRValue parsed = ZR::parsePreferenceXml(ZR::formatPreferenceXml(original));
  EXPECT_EQ(parsed, original) << parsed.toDebugString();
  // -0.0 equals 0.0 as a float: check the sign survived too.
  EXPECT_TRUE(std::signbit(parsed[16].toFloat()));
}

TEST(PreferenceXmlFormat, NanRoundTrips) {
  const ZRValue parsed = ZR::parsePreferenceXml(
      ZR::formatPreferenceXml(ZRValue(std::numeric_limits<float>::quiet_NaN())));
  ASSERT_TRUE(parsed.isFloat());
  EXPECT_TRUE(std::isnan(parsed.toFloat()));
}

TEST(PreferenceXmlFormat, ScalarTreeRoundTrips) {
  for (const ZRValue& value : {ZRValue("alone"), ZRValue(5), ZRValue(), ZRValue(false)}) {
    EXPECT_EQ(ZR::parsePreferenceXml(ZR::formatPreferenceXml(value)), value);
  }
}

TEST(PreferenceXmlParse, AcceptsHandWrittenWhitespace) {
  const ZRValue parsed = ZR::parsePreferenceXml(
      "<preferences>\n<!-- edited by hand -->\n  <value type=\"array\">\n"
      "    <value type=\"int\"> 42 </value>\n    <value type=\"bool\">\nfalse\n</value>\n"
      "    <value type=\"array\">\n    </value>\n"
      "    <value type=\"string\"><![CDATA[<raw>]]></value>\n"
      "  </value>\n</preferences>");
  EXPECT_EQ(parsed, ZRValue(Array{42, false, ZRValue(Array{}), "<raw>"}));
}

struct MalformedCase {
  const char* name;
  const char* text;
  const char* reasonPart;
};

class PreferenceXmlMalformed : public ::testing::TestWithParam<MalformedCase> {};

TEST_P(PreferenceXmlMalformed, ThrowsWithReason) {
  try {
    ZR::parsePreferenceXml(GetParam().text);
    FAIL() << "accepted " << GetParam().text;
  } catch (const ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRPreferences");
    EXPECT_EQ(e.methodName(), "readPrefFile");
    EXPECT_NE(std::string(e.what()).find(GetParam().reasonPart), std::string::npos) << e.what();
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, PreferenceXmlMalformed,
    ::testing::Values(
        MalformedCase{"NotXml", "this is not xml", "malformed XML"},
        MalformedCase{"Truncated", "<preferences><value type=\"int\">3</value>", "malformed XML"},
        MalformedCase{"Empty", "", "malformed XML"},
        MalformedCase{"WrongRoot", "<prefs><value type=\"int\">1</value></prefs>", "<prefs>"},
        MalformedCase{"NoValue", "<preferences/>", "exactly one <value>"},
        MalformedCase{"TwoValues",
                      "<preferences><value type=\"int\">1</value><value type=\"int\">2</value>"
                      "</preferences>",
                      "exactly one <value>"},
        MalformedCase{"OtherElement", "<preferences><item/></preferences>", "exactly one <value>"},
        MalformedCase{"NewerVersion",
                      "<preferences version=\"2\"><value type=\"int\">1</value></preferences>",
                      "version \"2\""},
        MalformedCase{"MissingType", "<preferences><value>1</value></preferences>",
                      "without a type"},
        MalformedCase{"UnknownType", "<preferences><value type=\"double\">1</value></preferences>",
                      "unknown value type \"double\""},
        MalformedCase{"BadInt", "<preferences><value type=\"int\">3x</value></preferences>",
                      "\"3x\" is not an int"},
        MalformedCase{"IntOverflow",
                      "<preferences><value type=\"int\">99999999999</value></preferences>",
                      "is not an int"},
        MalformedCase{"EmptyInt", "<preferences><value type=\"int\"></value></preferences>",
                      "is not an int"},
        MalformedCase{"BadFloat", "<preferences><value type=\"float\">1,5</value></preferences>",
                      "is not a float"},
        MalformedCase{"BadBool", "<preferences><value type=\"bool\">yes</value></preferences>",
                      "is not a bool"},
        MalformedCase{"ElementInScalar",
                      "<preferences><value type=\"int\"><value type=\"int\">1</value></value>"
                      "</preferences>",
                      "cannot contain elements"},
        MalformedCase{"TextInArray",
                      "<preferences><value type=\"array\">loose<value type=\"int\">1</value>"
                      "</value></preferences>",
                      "text inside an array"},
        MalformedCase{"ForeignInArray",
                      "<preferences><value type=\"array\"><item/></value></preferences>",
                      "unexpected element <item>"},
        MalformedCase{"TextInEmpty", "<preferences><value type=\"empty\">x</value></preferences>",
                      "cannot hold text"}),
    [](const ::testing::TestParamInfo<MalformedCase>& info) { return info.param.name; });

// --- Files -------------------------------------------------------------------------------------

class PreferenceXmlFile : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::path(std::getenv("BEXKO_TEST_ROOT")) / "prefs" /
              ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(folder_);  // a repeated run starts from an empty folder
    fs::create_directories(folder_);
  }
  std::vector<std::string> folderEntries() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder_)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  fs::path folder_;
};

TEST_F(PreferenceXmlFile, WriteThenReadRoundTripsAndLeavesNoTemporary) {
  const std::string file = (folder_ / "ZRTextToSpeech_DefaultVoiceEnglish.xml").string();
  ZR::writePreferenceXml(file, everyType());
  EXPECT_EQ(ZR::readPreferenceXml(file), everyType());
  EXPECT_EQ(folderEntries(), std::vector<std::string>{"ZRTextToSpeech_DefaultVoiceEnglish.xml"});
}

TEST_F(PreferenceXmlFile, WriteCreatesMissingFolders) {
  const fs::path file = folder_ / "a" / "b" / "prefs.xml";
  ZR::writePreferenceXml(file.string(), ZRValue(3));
  EXPECT_EQ(ZR::readPreferenceXml(file.string()), ZRValue(3));
}

TEST_F(PreferenceXmlFile, RewriteReplacesContentAndKeepsPermissions) {
  const fs::path file = folder_ / "prefs.xml";
  ZR::writePreferenceXml(file.string(), ZRValue("old"));
  fs::permissions(file, fs::perms(0640));
  ZR::writePreferenceXml(file.string(), ZRValue("new"));
  EXPECT_EQ(ZR::readPreferenceXml(file.string()), ZRValue("new"));
  EXPECT_EQ(fs::status(file).permissions() & fs::perms::mask, fs::perms(0640));
}

TEST_F(PreferenceXmlFile, MissingFileErrorNamesFile) {
  const std::string file = (folder_ / "absent.xml").string();
  try {
    ZR::readPreferenceXml(file);
    FAIL() << "no error";
  } catch (const ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRPreferences");
    EXPECT_EQ(e.methodName(), "readPrefFile");
    EXPECT_NE(std::string(e.what()).find(file), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("No such file"), std::string::npos) << e.what();
  }
}

TEST_F(PreferenceXmlFile, MalformedFileErrorNamesFileAndReason) {
  const fs::path file = folder_ / "broken.xml";
  std::ofstream(file) << "<preferences><value type=\"int\">x</value></preferences>";
  try {
    ZR::readPreferenceXml(file.string());
    FAIL() << "no error";
  } catch (const ZRError& e) {
    EXPECT_NE(std::string(e.what()).find(file.string()), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("\"x\" is not an int"), std::string::npos) << e.what();
  }
}

TEST_F(PreferenceXmlFile, CrashLeftoverDoesNotDisturbReadOrNextWrite) {
  // A writer that died between creating its temporary file and renaming it leaves the
  // temporary beside an intact old file.
  const fs::path file = folder_ / "prefs.xml";
  ZR::writePreferenceXml(file.string(), ZRValue(Array{"old", 1}));
  const std::string oldText = readText(file);
  const fs::path leftover = folder_ / "prefs.xml.tmp-Ab12Cd";
  std::ofstream(leftover) << oldText.substr(0, oldText.size() / 2);

  EXPECT_EQ(ZR::readPreferenceXml(file.string()), ZRValue(Array{"old", 1}));
  ZR::writePreferenceXml(file.string(), ZRValue(Array{"new", 2}));
  EXPECT_EQ(ZR::readPreferenceXml(file.string()), ZRValue(Array{"new", 2}));
  EXPECT_EQ(folderEntries(), (std::vector<std::string>{"prefs.xml", "prefs.xml.tmp-Ab12Cd"}));
}

TEST_F(PreferenceXmlFile, FailedReplaceKeepsTargetAndRemovesTemporary) {
  // The target is a non-empty folder: the rename fails after the new content was written.
  const fs::path target = folder_ / "occupied.xml";
  fs::create_directories(target / "inside");
  try {
    ZR::writePreferenceXml(target.string(), ZRValue(1));
    FAIL() << "no error";
  } catch (const ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRPreferences");
    EXPECT_EQ(e.methodName(), "writePrefFile");
    EXPECT_NE(std::string(e.what()).find(target.string()), std::string::npos) << e.what();
  }
  EXPECT_TRUE(fs::is_directory(target / "inside"));
  EXPECT_EQ(folderEntries(), std::vector<std::string>{"occupied.xml"});
}

TEST_F(PreferenceXmlFile, UncreatableFolderFailsWithReason) {
  const fs::path blocker = folder_ / "plain-file";
  std::ofstream(blocker) << "x";
  try {
    ZR::writePreferenceXml((blocker / "prefs.xml").string(), ZRValue(1));
    FAIL() << "no error";
  } catch (const ZRError& e) {
    EXPECT_EQ(e.methodName(), "writePrefFile");
    EXPECT_NE(std::string(e.what()).find("cannot create folder"), std::string::npos) << e.what();
  }
}

}  // namespace
