#include <zr/tts/voicesetting.h>

#include <cmath>
#include <fstream>
#include <limits>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <zr/zrpreferencesproxy.h>

namespace {

namespace fs = boost::filesystem;

class VoiceSettingFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::temp_directory_path() / fs::unique_path("bexko-voicesetting-%%%%-%%%%");
    fs::create_directories(folder_);
  }
  void TearDown() override {
    boost::system::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  std::string write(const std::string& name, const std::string& content) {
    const fs::path file = folder_ / name;
    fs::create_directories(file.parent_path());
    std::ofstream(file.string()) << content;
    return file.string();
  }
  fs::path folder_;
};

TEST(VoiceSetting, StartsWithTheSixDefaultParameters) {
  const ZR::VoiceSetting setting(ZR::VOICE, "en-us");
  EXPECT_EQ(setting.type, ZR::VOICE);
  EXPECT_EQ(setting.value, "en-us");
  const std::map<std::string, float> expected = {
      {"defaultVoiceSpeed", 100.0f},  {"doubleVoice", 0.0f}, {"doubleVoiceLevel", 0.0f},
      {"doubleVoiceTimeShift", 0.0f}, {"pitchShift", 0.0f},  {"voiceLevel", 1.0f}};
  EXPECT_EQ(setting.parameters, expected);
  EXPECT_EQ(ZR::VoiceSetting().type, ZR::UNDEFINED);
  EXPECT_EQ(ZR::VoiceSetting().value, "");
}

TEST(VoiceSetting, EqualityComparesTypeValueAndEveryParameter) {
  const ZR::VoiceSetting base(ZR::LANGUAGE, "French");
  ZR::VoiceSetting other = base;
  EXPECT_TRUE(base == other);
  EXPECT_FALSE(base != other);

  other.type = ZR::VOICE;
  EXPECT_TRUE(base != other);
  other = base;
  other.value = "German";
  EXPECT_TRUE(base != other);
  other = base;
  other.parameters["pitchShift"] = 1.5f;
  EXPECT_TRUE(base != other);
  other = base;
  other.parameters["speed"] = 100.0f;  // an extra parameter
  EXPECT_TRUE(base != other);
  other = base;
  other.parameters.erase("voiceLevel");
  other.parameters["voiceLevelX"] = 1.0f;  // same size, other name
  EXPECT_TRUE(base != other);
}

TEST(VoiceSetting, NaNParametersEqualEachOther) {
  ZR::VoiceSetting a(ZR::VOICE, "v");
  ZR::VoiceSetting b(ZR::VOICE, "v");
  a.parameters["pitchShift"] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_NE(a, b);
  b.parameters["pitchShift"] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(a, b);
}

TEST(FormatVoicePreferences, WritesNameTypeValueAndParametersInNameOrder) {
  ZR::VoiceSetting setting(ZR::LANGUAGE, "English");
  const ZR::ZRValue value = ZR::formatVoicePreferences(setting, "DefaultVoiceEnglish");
  ASSERT_EQ(value.getSize(), 4);
  EXPECT_EQ(value[0],
            (ZR::ZRValue::array<std::string, std::string>("name", "DefaultVoiceEnglish")));
  EXPECT_EQ(value[1], (ZR::ZRValue::array<std::string, std::string>("type", "LANGUAGE")));
  EXPECT_EQ(value[2], (ZR::ZRValue::array<std::string, std::string>("value", "English")));
  ASSERT_EQ(value[3][0], ZR::ZRValue("parameters"));
  const ZR::ZRValue& parameters = value[3][1];
  ASSERT_EQ(parameters.getSize(), 6);
  EXPECT_EQ(parameters[0], (ZR::ZRValue::array<std::string, float>("defaultVoiceSpeed", 100.0f)));
  EXPECT_EQ(parameters[5], (ZR::ZRValue::array<std::string, float>("voiceLevel", 1.0f)));
}

struct RoundTripCase {
  const char* name;
  ZR::VOICE_SETTING_TYPE type;
  std::string value;
  std::map<std::string, float> changes;
};

class VoiceSettingRoundTrip : public VoiceSettingFiles,
                              public ::testing::WithParamInterface<RoundTripCase> {};

TEST_P(VoiceSettingRoundTrip, AWrittenFileReadsBackEqual) {
  ZR::VoiceSetting setting(GetParam().type, GetParam().value);
  for (const auto& change : GetParam().changes) setting.parameters[change.first] = change.second;
  const std::string path = (folder_ / "ZRTextToSpeech_DefaultVoiceEnglish.xml").string();
  ZR::writePreferenceXml(path, ZR::formatVoicePreferences(setting, "DefaultVoiceEnglish"));

  EXPECT_EQ(ZR::makeVoiceSettingFromXml(path), setting);
  EXPECT_EQ(ZR::makeVoiceSettingFromSysXml(ZR::readPreferenceXml(path), "DefaultVoiceEnglish"),
            setting);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, VoiceSettingRoundTrip,
    ::testing::Values(
        RoundTripCase{"voice_defaults", ZR::VOICE, "en-us", {}},
        RoundTripCase{"language", ZR::LANGUAGE, "French", {{"pitchShift", 1.25f}}},
        RoundTripCase{"undefined", ZR::UNDEFINED, "", {}},
        RoundTripCase{"extra_and_awkward_values",
                      ZR::VOICE,
                      "fr-fr",
                      {{"speed", 133.33333f}, {"doubleVoiceTimeShift", 0.1f}, {"inputMode", 3.0f}}},
        RoundTripCase{"utf8_value", ZR::VOICE, "voix \xC3\xA9t\xC3\xA9", {{"voiceLevel", 0.0f}}}),
    [](const ::testing::TestParamInfo<RoundTripCase>& info) {
      return std::string(info.param.name);
    });

TEST_F(VoiceSettingFiles, AFileWithSomeParametersKeepsTheOtherDefaults) {
  const std::string path = write("partial.xml", R"(<?xml version="1.0" encoding="UTF-8"?>
<preferences version="1">
  <value type="array">
    <value type="array"><value type="string">value</value><value type="string">de</value></value>
    <value type="array"><value type="string">type</value><value type="string">VOICE</value></value>
    <value type="array"><value type="string">parameters</value>
      <value type="array">
        <value type="array"><value type="string">defaultVoiceSpeed</value><value type="int">120</value></value>
      </value>
    </value>
  </value>
</preferences>
)");
  ZR::VoiceSetting expected(ZR::VOICE, "de");
  expected.parameters["defaultVoiceSpeed"] = 120.0f;
  EXPECT_EQ(ZR::makeVoiceSettingFromXml(path), expected);
}

TEST_F(VoiceSettingFiles, MissingOrMalformedFilesThrowWithTheReaderName) {
  const std::vector<std::string> paths = {
      (folder_ / "missing.xml").string(),
      write("notxml.xml", "this is not XML"),
      write("noarray.xml", R"(<preferences version="1"><value type="int">3</value></preferences>)"),
      write("notype.xml", R"(<preferences version="1"><value type="array">
        <value type="array"><value type="string">value</value><value type="string">x</value></value>
        </value></preferences>)"),
      write("badtype.xml", R"(<preferences version="1"><value type="array">
        <value type="array"><value type="string">type</value><value type="string">ROBOT</value></value>
        </value></preferences>)"),
      write("badparameter.xml", R"(<preferences version="1"><value type="array">
        <value type="array"><value type="string">type</value><value type="string">VOICE</value></value>
        <value type="array"><value type="string">parameters</value><value type="array">
          <value type="array"><value type="string">speed</value><value type="string">fast</value></value>
        </value></value></value></preferences>)"),
  };
  for (const std::string& path : paths) {
    try {
      ZR::makeVoiceSettingFromXml(path);
      ADD_FAILURE() << "no error for " << path;
    } catch (const ZR::ZRError& e) {
      EXPECT_EQ(e.moduleName(), "TextToSpeech") << path;
      EXPECT_EQ(e.methodName(), "makeVoiceSettingFromXml") << path;
      EXPECT_NE(e.description().find(path), std::string::npos) << e.description();
    }
  }
}

TEST(MakeVoiceSettingFromSysXml, NamesTheSettingInItsErrors) {
  try {
    ZR::makeVoiceSettingFromSysXml(ZR::ZRValue(3), "BexOfficialVoiceEnglish");
    FAIL() << "no error";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.methodName(), "makeVoiceSettingFromSysXml");
    EXPECT_NE(e.description().find("BexOfficialVoiceEnglish"), std::string::npos);
  }
}

TEST_F(VoiceSettingFiles, RetrieveFindsTheVoicesFileOfItsInstallFolder) {
  const std::string file = write("voices/en-us.xml", "<preferences/>");
  EXPECT_EQ(fs::path(ZR::xRetrieveVoiceSettingsFile("en-us", folder_.string())), fs::path(file));
  EXPECT_EQ(ZR::xRetrieveVoiceSettingsFile("fr-fr", folder_.string()), "");
  EXPECT_EQ(ZR::xRetrieveVoiceSettingsFile("en-us", ""), "");
  EXPECT_EQ(ZR::xRetrieveVoiceSettingsFile("", folder_.string()), "");
  // A voice name cannot lead out of the folder.
  write("outside.xml", "<preferences/>");
  EXPECT_EQ(ZR::xRetrieveVoiceSettingsFile("../outside", folder_.string()), "");
}

}  // namespace
