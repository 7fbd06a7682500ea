#include <zr/tts/voicesetting.h>

#include <fstream>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <zr/zrpreferencesproxy.h>

namespace {

namespace fs = boost::filesystem;
using namespace ::testing;

// Pieces of a preference file: an array, a [key, value] entry (a value not written as XML is a
// string), the file around one value.
std::string array(const std::string& items) {
  return "<value type=\"array\">" + items + "</value>";
}
std::string entry(const std::string& key, const std::string& value) {
  const auto xml = [](const std::string& v) {
    return v.compare(0, 6, "<value") == 0 ? v : "<value type=\"string\">" + v + "</value>";
  };
  return array(xml(key) + xml(value));
}
std::string file(const std::string& value) {
  return "<preferences version=\"1\">" + value + "</preferences>";
}

class VoiceSettingFiles : public ::testing::Test {
 protected:
  VoiceSettingFiles() { fs::create_directories(folder_); }
  ~VoiceSettingFiles() override {
    boost::system::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  std::string write(const std::string& name, const std::string& content) {
    const fs::path path = folder_ / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path.string()) << content;
    return path.string();
  }
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
  const std::string path = (folder_ / "ZRTextToSpeech_DefaultVoiceEnglish.xml").string();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    ZR::VoiceSetting setting(c.type, c.value);
    for (const auto& change : c.changes) setting.parameters[change.first] = change.second;
    const ZR::ZRValue value = ZR::formatVoicePreferences(setting, "DefaultVoiceEnglish");
    EXPECT_EQ(value[0],
              (ZR::ZRValue::array<std::string, std::string>("name", "DefaultVoiceEnglish")));
    EXPECT_EQ(value[1], (ZR::ZRValue::array<std::string, std::string>("type", c.typeName)));
    EXPECT_EQ(value[3][1][0][0], ZR::ZRValue("defaultVoiceSpeed"));  // parameters in name order
    ZR::writePreferenceXml(path, value);
    EXPECT_EQ(ZR::makeVoiceSettingFromXml(path), setting);
    EXPECT_EQ(ZR::makeVoiceSettingFromSysXml(ZR::readPreferenceXml(path), "DefaultVoiceEnglish"),
              setting);
  }
}

TEST_F(VoiceSettingFiles, AFileWithSomeParametersKeepsTheOtherDefaults) {
  const std::string path = write(
      "partial.xml",
      file(array(entry("value", "de") + entry("type", "VOICE") +
                 entry("parameters",
                       array(entry("defaultVoiceSpeed", "<value type=\"int\">120</value>"))))));
  ZR::VoiceSetting expected(ZR::VOICE, "de");
  expected.parameters["defaultVoiceSpeed"] = 120.0f;
  EXPECT_EQ(ZR::makeVoiceSettingFromXml(path), expected);
}

TEST_F(VoiceSettingFiles, UnreadableSettingsThrowNamingTheReaderAndTheSetting) {
  const auto error = [](const std::string& method, const std::string& named) {
    return Throws<ZR::ZRError>(
        Property(&ZR::ZRError::toString,
                 AllOf(StartsWith("TextToSpeech::" + method + ": "), HasSubstr(named))));
  };
  for (const std::string& path :
       {(folder_ / "missing.xml").string(), write("notxml.xml", "this is not XML"),
        write("noarray.xml", file("<value type=\"int\">3</value>")),
        write("notype.xml", file(array(entry("value", "x")))),
        write("badtype.xml", file(array(entry("type", "ROBOT")))),
        write("badparameter.xml",
              file(array(entry("type", "VOICE") +
                         entry("parameters", array(entry("speed", "fast"))))))}) {
    EXPECT_THAT([&] { ZR::makeVoiceSettingFromXml(path); }, error("makeVoiceSettingFromXml", path));
  }
  EXPECT_THAT([] { ZR::makeVoiceSettingFromSysXml(ZR::ZRValue(3), "BexOfficialVoiceEnglish"); },
              error("makeVoiceSettingFromSysXml", "BexOfficialVoiceEnglish"));
}

TEST_F(VoiceSettingFiles, RetrieveFindsTheVoicesFileOfItsInstallFolderOnly) {
  const std::string found = write("voices/en-us.xml", "<preferences/>");
  write("outside.xml", "<preferences/>");  // a voice name cannot lead out of the folder
  const std::string folder = folder_.string();
  EXPECT_EQ(fs::path(ZR::xRetrieveVoiceSettingsFile("en-us", folder)), fs::path(found));
  EXPECT_EQ(ZR::xRetrieveVoiceSettingsFile("fr-fr", folder) +
                ZR::xRetrieveVoiceSettingsFile("../outside", folder) +
                ZR::xRetrieveVoiceSettingsFile("", folder) +
                ZR::xRetrieveVoiceSettingsFile("en-us", ""),
            "");
}

}  // namespace
