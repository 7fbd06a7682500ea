// A voice-settings file through ZR::makeVoiceSettingFromXml; what it accepts must survive the
// preference form that the preferences module stores.
#include <zr/tts/voicesetting.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <zr/zrerror.h>

#include "fuzzsupport.h"

namespace {
std::string settingsFile;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  settingsFile = bexko::fuzz::prepareFuzzing() + "/voice.xml";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  {
    std::ofstream out(settingsFile, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  ZR::VoiceSetting setting;
  try {
    setting = ZR::makeVoiceSettingFromXml(settingsFile);
  } catch (const ZR::ZRError&) {
    return 0;  // a malformed file is refused with the contract's error
  }
  const ZR::ZRValue stored = ZR::formatVoicePreferences(setting, "fuzzed");
  ZR::VoiceSetting reread;
  try {
    reread = ZR::makeVoiceSettingFromSysXml(stored, "fuzzed");
  } catch (const ZR::ZRError& e) {
    std::fprintf(stderr, "the stored form is refused: %s\n", e.what());
    std::abort();
  }
  if (reread != setting) {
    std::fprintf(stderr, "a voice setting changed through its stored form: %s\n",
                 stored.toDebugString().c_str());
    std::abort();
  }
  return 0;
}
