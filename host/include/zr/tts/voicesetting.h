#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <zr/export.h>
#include <zr/zrvalue.h>

namespace ZR {

enum VOICE_SETTING_TYPE : std::int32_t { LANGUAGE = 0, VOICE = 1, UNDEFINED = 2 };

/// A voice choice (a language's default voice, or a voice, by name) with its voice parameters.
struct BEXKO_API VoiceSetting {
  /// The six default parameters: pitchShift 0, doubleVoice 0, doubleVoiceLevel 0,
  /// doubleVoiceTimeShift 0, voiceLevel 1, defaultVoiceSpeed 100.
  explicit VoiceSetting(VOICE_SETTING_TYPE type = UNDEFINED, const std::string& value = "");

  VOICE_SETTING_TYPE type;
  std::string value;
  std::map<std::string, float> parameters;
};

/// Equal when type, value and every parameter are equal (a NaN parameter equals a NaN).
BEXKO_API bool operator==(const VoiceSetting& a, const VoiceSetting& b);
BEXKO_API bool operator!=(const VoiceSetting& a, const VoiceSetting& b);

/// Reads a voice-settings file: a preference file (the XML layout of zr/zrpreferencesproxy.h)
/// whose value is the form formatVoicePreferences writes. Throws ZRError (module
/// "TextToSpeech", method "makeVoiceSettingFromXml") for a missing or malformed file.
BEXKO_API VoiceSetting makeVoiceSettingFromXml(const std::string& path);

/// Makes a voice setting from a preference value read through the preferences module (the
/// form formatVoicePreferences writes); `name` names it in errors. Throws ZRError.
BEXKO_API VoiceSetting makeVoiceSettingFromSysXml(const ZRValue& value, const std::string& name);

/// The preference value for a voice setting named `name`, as the preferences module writes it:
/// [["name", name], ["type", "VOICE"|"LANGUAGE"|"UNDEFINED"], ["value", value],
///  ["parameters", [[parameter, float], ...]]], parameters in name order.
BEXKO_API ZRValue formatVoicePreferences(const VoiceSetting& setting, const std::string& name);

/// The settings file of `voice` in its install folder, or empty when it has none.
BEXKO_API std::string xRetrieveVoiceSettingsFile(const std::string& voice,
                                                 const std::string& installDir);

}  // namespace ZR
