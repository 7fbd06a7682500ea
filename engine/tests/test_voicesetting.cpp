#include <zr/tts/voicesetting.h>

#include <fstream>
#include <limits>

#include <gmock/gmock.h>
#include <boost/filesystem.hpp>

#include <zr/zrpreferencesproxy.h>

namespace {

namespace fs = boost::filesystem;
using namespace ::testing;
using Array = ZR::ZRValue::Array;

class VoiceSettingFiles : public Test {
 protected:
  VoiceSettingFiles() { fs::create_directories(folder_ / "voices"); }
  ~VoiceSettingFiles() override {
    boost::system::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  std::string path(const std::string& name) const { return (folder_ / name).string(); }
  const fs::path folder_ = fs::temp_directory_path() / fs::unique_path("bexko-voice-%%%%-%%%%");
};

TEST(VoiceSetting, EqualityComparesTypeValueAndEveryParameterWithNaNEqualToNaN) {
  ZR::VoiceSetting base(ZR::LANGUAGE, "French");
  base.parameters["pitchShift"] = std::numeric_limits<float>::quiet_NaN();
  ZR::VoiceSetting type = base, value = base, parameter = base, extra = base, renamed = base;
  type.type = ZR::VOICE;
  value.value = "German";
  parameter.parameters["pitchShift"] = 1.5f;
  extra.parameters["speed"] = 100.0f;
  renamed.parameters.erase("voiceLevel");
  renamed.parameters["voiceLevelX"] = 1.0f;  // as many parameters, another name
  EXPECT_TRUE(ZR::VoiceSetting(base) == base);
  for (const ZR::VoiceSetting& other : {type, value, parameter, extra, renamed}) {
    EXPECT_TRUE(base != other);
  }
}

TEST_F(VoiceSettingFiles, AWrittenSettingReadsBackEqualFromItsFileAndItsValue) {
  struct Case {
    ZR::VOICE_SETTING_TYPE type;
    const char* typeName;
    std::string value;
    std::map<std::string, float> changes;
  };
  const Case cases[] = {
      {ZR::VOICE, "VOICE", "en-us", {}},
      {ZR::LANGUAGE,
       "LANGUAGE",
       "French",
       {{"pitchShift", 1.25f}, {"speed", 133.33333f}, {"doubleVoiceTimeShift", 0.1f}}},
      {ZR::UNDEFINED, "UNDEFINED", "voix \xC3\xA9t\xC3\xA9", {{"voiceLevel", 0.0f}}},
  };
  const std::string file = path("ZRTextToSpeech_DefaultVoiceEnglish.xml");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    ZR::VoiceSetting setting(c.type, c.value);
    for (const auto& change : c.changes) setting.parameters[change.first] = change.second;
    const ZR::ZRValue value = ZR::formatVoicePreferences(setting, "DefaultVoiceEnglish");
    EXPECT_EQ(value[0],
              (ZR::ZRValue::array<std::string, std::string>("name", "DefaultVoiceEnglish")));
    EXPECT_EQ(value[1], (ZR::ZRValue::array<std::string, std::string>("type", c.typeName)));
    ZR::writePreferenceXml(file, value);
    EXPECT_EQ(ZR::makeVoiceSettingFromXml(file), setting);
    EXPECT_EQ(ZR::makeVoiceSettingFromSysXml(ZR::readPreferenceXml(file), "DefaultVoiceEnglish"),
              setting);
  }
}

TEST(VoiceSetting, AValueWithSomeParametersKeepsTheOtherDefaults) {
  ZR::VoiceSetting expected(ZR::VOICE, "de");
  expected.parameters["defaultVoiceSpeed"] = 120.0f;
  const ZR::ZRValue value = Array{Array{"value", "de"}, Array{"type", "VOICE"},
                                  Array{"parameters", Array{Array{"defaultVoiceSpeed", 120}}}};
  EXPECT_EQ(ZR::makeVoiceSettingFromSysXml(value, "Partial"), expected);
}

TEST_F(VoiceSettingFiles, UnreadableSettingsThrowNamingTheReaderTheSettingAndTheReason) {
  const auto error = [](const std::string& method, const std::string& named,
                        const std::string& reason) {
    return Throws<ZR::ZRError>(Property(
        &ZR::ZRError::toString,
        AllOf(StartsWith("TextToSpeech::" + method + ": "), HasSubstr(named), HasSubstr(reason))));
  };
  const std::pair<ZR::ZRValue, const char*> unreadable[] = {
      {3, "not an array"},
      {Array{Array{"value", "x"}}, "no type"},
      {Array{Array{"type", "ROBOT"}}, "ROBOT"},
      {Array{Array{"type", "VOICE"}, Array{"parameters", Array{Array{"speed", "fast"}}}},
       "bad parameter"}};
  for (const auto& u : unreadable) {
    EXPECT_THAT([&] { ZR::makeVoiceSettingFromSysXml(u.first, "BexOfficialVoiceEnglish"); },
                error("makeVoiceSettingFromSysXml", "BexOfficialVoiceEnglish", u.second));
  }
  ZR::writePreferenceXml(path("notype.xml"), unreadable[1].first);
  EXPECT_THAT([&] { ZR::makeVoiceSettingFromXml(path("notype.xml")); },
              error("makeVoiceSettingFromXml", path("notype.xml"), "no type"));
  EXPECT_THAT([&] { ZR::makeVoiceSettingFromXml(path("missing.xml")); },
              error("makeVoiceSettingFromXml", path("missing.xml"), "cannot read"));
}

TEST_F(VoiceSettingFiles, RetrieveFindsTheVoicesFileOfItsInstallFolderOnly) {
  std::ofstream(path("voices/en-us.xml")) << "<preferences/>";
  std::ofstream(path("outside.xml")) << "<preferences/>";  // a voice name cannot lead out
  EXPECT_EQ(ZR::xRetrieveVoiceSettingsFile("en-us", folder_.string()), path("voices/en-us.xml"));
  EXPECT_EQ(ZR::xRetrieveVoiceSettingsFile("../outside", folder_.string()) +
                ZR::xRetrieveVoiceSettingsFile("en-us", ""),
            "");
}

}  // namespace
