#include <zr/tts/voicesetting.h>

#include <cmath>

#include <boost/filesystem.hpp>

#include <ko/log.h>
#include <zr/zrpreferencesproxy.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("engine.voicesetting");
  return category;
}

const char* typeName(VOICE_SETTING_TYPE type) {
  switch (type) {
    case LANGUAGE:
      return "LANGUAGE";
    case VOICE:
      return "VOICE";
    default:
      return "UNDEFINED";
  }
}

// The type as written by formatVoicePreferences, or its number.
VOICE_SETTING_TYPE parseType(const ZRValue& value, const std::string& where) {
  if (value.isString()) {
    const std::string& text = value.toString();
    if (text == "LANGUAGE") return LANGUAGE;
    if (text == "VOICE") return VOICE;
    if (text == "UNDEFINED") return UNDEFINED;
    throw ZRError("TextToSpeech", where, "unknown voice setting type \"" + text + "\"");
  }
  if (value.isInt() && value.toInt() >= LANGUAGE && value.toInt() <= UNDEFINED) {
    return static_cast<VOICE_SETTING_TYPE>(value.toInt());
  }
  throw ZRError("TextToSpeech", where, "bad voice setting type " + value.toDebugString());
}

VoiceSetting parseVoiceSetting(const ZRValue& value, const std::string& name,
                               const std::string& where) {
  const auto fail = [&](const std::string& reason) {
    throw ZRError("TextToSpeech", where, "voice setting " + name + ": " + reason);
  };
  if (!value.isArray()) fail("not an array of [key, value] pairs");
  bool typeSeen = false;
  VOICE_SETTING_TYPE type = UNDEFINED;
  std::string settingValue;
  const ZRValue* parameters = nullptr;
  for (const ZRValue& pair : value.toArray()) {
    if (!pair.isArray() || pair.getSize() != 2 || !pair[0].isString()) {
      fail("bad entry " + pair.toDebugString());
    }
    const std::string& key = pair[0].toString();
    if (key == "type") {
      try {
        type = parseType(pair[1], where);
      } catch (const ZRError& e) {
        fail(e.description());
      }
      typeSeen = true;
    } else if (key == "value") {
      if (!pair[1].isString()) fail("the value is not a string");
      settingValue = pair[1].toString();
    } else if (key == "parameters") {
      if (!pair[1].isArray() && !pair[1].isEmpty()) fail("the parameters are not an array");
      parameters = &pair[1];
    }
  }
  if (!typeSeen) fail("no type");
  VoiceSetting setting(type, settingValue);
  if (parameters && parameters->isArray()) {
    for (const ZRValue& entry : parameters->toArray()) {
      if (!entry.isArray() || entry.getSize() != 2 || !entry[0].isString() ||
          !(entry[1].isFloat() || entry[1].isInt())) {
        fail("bad parameter " + entry.toDebugString());
      }
      setting.parameters[entry[0].toString()] = entry[1].toFloat();
    }
  }
  return setting;
}

}  // namespace

VoiceSetting::VoiceSetting(VOICE_SETTING_TYPE type, const std::string& value)
    : type(type), value(value), parameters{{"pitchShift", 0.0f},
                                           {"doubleVoice", 0.0f},
                                           {"doubleVoiceLevel", 0.0f},
                                           {"doubleVoiceTimeShift", 0.0f},
                                           {"voiceLevel", 1.0f},
                                           {"defaultVoiceSpeed", 100.0f}} {}

bool operator==(const VoiceSetting& a, const VoiceSetting& b) {
  if (a.type != b.type || a.value != b.value || a.parameters.size() != b.parameters.size()) {
    return false;
  }
  auto left = a.parameters.begin();
  auto right = b.parameters.begin();
  for (; left != a.parameters.end(); ++left, ++right) {
    if (left->first != right->first) return false;
    const bool bothNaN = std::isnan(left->second) && std::isnan(right->second);
    if (!bothNaN && left->second != right->second) return false;
  }
  return true;
}

bool operator!=(const VoiceSetting& a, const VoiceSetting& b) { return !(a == b); }

VoiceSetting makeVoiceSettingFromXml(const std::string& path) {
  ZRValue value;
  try {
    value = readPreferenceXml(path);
  } catch (const ZRError& e) {
    throw ZRError("TextToSpeech", "makeVoiceSettingFromXml",
                  "cannot read the voice settings file " + path + ": " + e.description());
  }
  return parseVoiceSetting(value, path, "makeVoiceSettingFromXml");
}

VoiceSetting makeVoiceSettingFromSysXml(const ZRValue& value, const std::string& name) {
  return parseVoiceSetting(value, name, "makeVoiceSettingFromSysXml");
}

ZRValue formatVoicePreferences(const VoiceSetting& setting, const std::string& name) {
  ZRValue parameters{ZRValue::Array{}};
  for (const auto& entry : setting.parameters) {
    parameters.push_back(ZRValue::Array{ZRValue(entry.first), ZRValue(entry.second)});
  }
  return ZRValue(ZRValue::Array{
      ZRValue::Array{ZRValue("name"), ZRValue(name)},
      ZRValue::Array{ZRValue("type"), ZRValue(typeName(setting.type))},
      ZRValue::Array{ZRValue("value"), ZRValue(setting.value)},
      ZRValue::Array{ZRValue("parameters"), std::move(parameters)},
  });
}

std::string xRetrieveVoiceSettingsFile(const std::string& voice, const std::string& installDir) {
  namespace fs = boost::filesystem;
  if (voice.empty() || installDir.empty() || voice.find('/') != std::string::npos || voice == "." ||
      voice == "..") {
    return {};
  }
  const fs::path file = fs::path(installDir) / "voices" / (voice + ".xml");
  boost::system::error_code error;
  if (!fs::is_regular_file(file, error)) return {};
  KO_LOG(logCategory(), ko::log::debug, "xRetrieveVoiceSettingsFile")
      << "Settings of voice " << voice << ": " << file.string();
  return file.string();
}

}  // namespace ZR
