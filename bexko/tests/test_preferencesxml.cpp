#include <zr/zrpreferencesproxy.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <limits>

#include "support.h"

namespace {

using namespace bexko::test;

/// A nested tree with every type and the awkward values of each.
ZRValue everyType() {
  const float tiny = std::numeric_limits<float>::denorm_min();
  const float infinity = std::numeric_limits<float>::infinity();
  const ZRValue nested(Array{ZRValue(Array{"deep", ZRValue(Array{1, ZRValue()})}), 2.5f});
  Array items = {0,    -17,   INT_MAX,  INT_MIN, 0.1f,  1.5f,      -3.25e-7f, FLT_MAX,
                 tiny, -0.0f, infinity, true,    false, ZRValue(), Array{},   nested};
  for (const char* text : {"English", "", "  padded  ", " ", "a < b && c > \"d\" 'e'",
                           "line one\nline two\ttab", "h\xc3\xa9llo \xe6\x97\xa5\xe6\x9c\xac"}) {
    items.push_back(text);
  }
  return items;
}

TEST(PreferenceXmlFormat, MatchesTheDocumentedLayout) {
  EXPECT_EQ(ZR::formatPreferenceXml(ZRValue(Array{"English", 3, 1.5f, true, ZRValue()})),
            R"(<?xml version="1.0" encoding="UTF-8"?>
<preferences version="1">
  <value type="array">
    <value type="string">English</value>
    <value type="int">3</value>
    <value type="float">1.5</value>
    <value type="bool">true</value>
    <value type="empty" />
  </value>
</preferences>
)");
}

TEST(PreferenceXmlFormat, TextRoundTripsEveryTypeExactly) {
  const auto roundTrip = [](const ZRValue& v) {
    return ZR::parsePreferenceXml(ZR::formatPreferenceXml(v));
  };
  for (const ZRValue& value :
       {everyType(), ZRValue("alone"), ZRValue(5), ZRValue(), ZRValue(false)}) {
    EXPECT_EQ(roundTrip(value), value) << roundTrip(value).toDebugString();
  }
  // -0.0 equals 0.0 as a float, and NaN equals nothing: check them apart.
  EXPECT_TRUE(std::signbit(roundTrip(everyType())[9].toFloat()));
  EXPECT_TRUE(std::isnan(roundTrip(std::numeric_limits<float>::quiet_NaN()).toFloat()));
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

TEST(PreferenceXmlParse, MalformedTextThrowsWithReason) {
  const auto inPreferences = [](const std::string& body) {
    return "<preferences>" + body + "</preferences>";
  };
  const std::pair<std::string, const char*> cases[] = {
      // text, reason
      {"this is not xml", "malformed XML"},
      {R"(<prefs><value type="int">1</value></prefs>)", "<prefs>"},
      {"<preferences/>", "exactly one <value>"},
      {inPreferences(R"(<value type="int">1</value><value type="int">2</value>)"),
       "exactly one <value>"},
      {R"(<preferences version="2"><value type="int">1</value></preferences>)", "version \"2\""},
      {inPreferences("<value>1</value>"), "without a type"},
      {inPreferences(R"(<value type="double">1</value>)"), "unknown value type \"double\""},
      {inPreferences(R"(<value type="int">3x</value>)"), "\"3x\" is not an int"},
      {inPreferences(R"(<value type="float">1,5</value>)"), "is not a float"},
      {inPreferences(R"(<value type="bool">yes</value>)"), "is not a bool"},
      {inPreferences(R"(<value type="int"><value type="int">1</value></value>)"),
       "cannot contain elements"},
      {inPreferences(R"(<value type="array">loose<value type="int">1</value></value>)"),
       "text inside an array"},
      {inPreferences(R"(<value type="array"><item/></value>)"), "unexpected element <item>"},
      {inPreferences(R"(<value type="empty">x</value>)"), "cannot hold text"}};
  for (const auto& [text, reason] : cases) {
    SCOPED_TRACE(text);
    const ZRError e = errorOf([&, &text = text] { ZR::parsePreferenceXml(text); });
    EXPECT_EQ(e.moduleName() + "::" + e.methodName(), "ZRPreferences::readPrefFile");
    EXPECT_THAT(e.what(), HasSubstr(reason));
  }
}

// Files ------------------------------------------------------------------------------------------

class PreferenceXmlFile : public ::testing::Test {
 protected:
  static Strings folderEntries(const fs::path& folder) {
    Strings names;
    for (const auto& entry : fs::directory_iterator(folder)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  const fs::path folder_ = freshFolder("prefs");
};

// A writer that died between creating its temporary file and renaming it leaves a half-written
// temporary beside the intact old file: neither a read nor the next write is disturbed by it.
TEST_F(PreferenceXmlFile, WriteReplacesTheFileWholeAndSurvivesACrashLeftover) {
  const fs::path folder = folder_ / "a" / "b";  // created by the write
  const std::string file = (folder / "prefs.xml").string();
  ZR::writePreferenceXml(file, everyType());
  EXPECT_EQ(ZR::readPreferenceXml(file), everyType());
  EXPECT_EQ(folderEntries(folder), Strings{"prefs.xml"});
  const std::string oldText = ZR::formatPreferenceXml(everyType());
  std::ofstream(file + ".tmp-Ab12Cd") << oldText.substr(0, oldText.size() / 2);
  EXPECT_EQ(ZR::readPreferenceXml(file), everyType());

  fs::permissions(file, fs::perms(0640));  // kept by a rewrite
  ZR::writePreferenceXml(file, ZRValue("new"));
  EXPECT_EQ(ZR::readPreferenceXml(file), ZRValue("new"));
  EXPECT_EQ(fs::status(file).permissions() & fs::perms::mask, fs::perms(0640));
  EXPECT_EQ(folderEntries(folder), (Strings{"prefs.xml", "prefs.xml.tmp-Ab12Cd"}));
}

TEST_F(PreferenceXmlFile, FailedWriteKeepsTheTargetAndRemovesTheTemporary) {
  // The target is a non-empty folder: the rename fails after the new content was written.
  const fs::path target = folder_ / "occupied.xml";
  fs::create_directories(target / "inside");
  const ZRError replace = errorOf([&] { ZR::writePreferenceXml(target.string(), ZRValue(1)); });
  EXPECT_EQ(replace.moduleName() + "::" + replace.methodName(), "ZRPreferences::writePrefFile");
  EXPECT_THAT(replace.what(), HasSubstr(target.string()));
  EXPECT_TRUE(fs::is_directory(target / "inside"));
  EXPECT_EQ(folderEntries(folder_), Strings{"occupied.xml"});

  std::ofstream(folder_ / "plain-file") << "x";
  const ZRError folder = errorOf(
      [&] { ZR::writePreferenceXml((folder_ / "plain-file" / "prefs.xml").string(), ZRValue(1)); });
  EXPECT_EQ(folder.methodName(), "writePrefFile");
  EXPECT_THAT(folder.what(), HasSubstr("cannot create folder"));
}

}  // namespace
