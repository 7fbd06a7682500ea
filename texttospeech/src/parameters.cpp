// Voice parameters and volume: the service's own parameters are checked and kept here, every
// other name is handed to the engine and read back from it.

#include <climits>
#include <cmath>
#include <string>

#include <zr/zrerror.h>
#include <zr/zrtexttospeech.h>

namespace ZR {

namespace {

// Truncation toward zero that stays defined for NaN and values beyond the int range.
int truncateToInt(float value) {
  if (std::isnan(value)) return 0;
  if (value >= static_cast<float>(INT_MAX)) return INT_MAX;
  if (value <= static_cast<float>(INT_MIN)) return INT_MIN;
  return static_cast<int>(value);
}

bool isIgnoredEngineParameter(const std::string& name) {
  return name == "presel" || name == "selBreak";
}

}  // namespace

void ZRTextToSpeech::setParameter(const std::string& name, const float& value) {
  // A stop's clean-up applies the settings under taskQueueLock; clients change them under it too.
  boost::unique_lock<boost::shared_mutex> settingsLock(taskQueueLock);
  xSetParameter(name, value);
  globalVoiceSetting.parameters[name] = value;
}

void ZRTextToSpeech::xSetParameter(const std::string& name, const float& value) {
  // Every range test is written so that NaN passes it: a NaN is stored as given.
  bool engineParameter = false;
  if (name == "pitchShift" || name == "doubleVoice") {
    if (value != 0.0f && (value > 4.0f || value < 0.5f)) {
      throw ZRError(getName(), "xSetParameter",
                    "Wrong argument value for " + name +
                        " effect : correct range is (0.5 -- 4), or 0 to disable effect");
    }
  } else if (name == "doubleVoiceLevel") {
    if (value > 4.0f || value < 0.0f) {
      throw ZRError(getName(), "xSetParameter",
                    "Wrong argument value for double voice level: correct range is (0 -- 4)");
    }
  } else if (name == "doubleVoiceTimeShift") {
    if (value > 0.5f || value < 0.0f) {
      throw ZRError(
          getName(), "xSetParameter",
          "Wrong argument value for double voice time shift: correct range is (0 -- 0.5)");
    }
  } else if (name == "voiceLevel") {
    if (value > 2.0f || value < 0.0f) {
      throw ZRError(getName(), "xSetParameter",
                    "Wrong argument value for voice level: correct range is (0 -- 2.0)");
    }
  } else if (name == "maxLevel") {
    maxLevel = truncateToInt(value);
  } else if (name == "minSize") {
    minSize = truncateToInt(value);
  } else if (name == "mrkAdvance") {
    // Read by the bookmark scheduler under markerMutex.
    boost::mutex::scoped_lock markerLock(markerMutex);
    mrkAdvance = truncateToInt(value);
  } else {
    ttsManager->setParameter(name, value);
    engineParameter = true;
  }

  if (isIgnoredEngineParameter(name)) return;
  if (engineParameter) {
    appliedVoiceSetting.parameters[name] = ttsManager->getParameter(name);
    // The default speed also resets the speed itself.
    if (name == "defaultVoiceSpeed") {
      appliedVoiceSetting.parameters["speed"] = ttsManager->getParameter("speed");
    }
  } else {
    appliedVoiceSetting.parameters[name] = value;
  }
}

float ZRTextToSpeech::getParameter(const std::string& name) {
  {
    boost::shared_lock<boost::shared_mutex> settingsLock(taskQueueLock);
    auto found = appliedVoiceSetting.parameters.find(name);
    if (found != appliedVoiceSetting.parameters.end() && !isIgnoredEngineParameter(name)) {
      return found->second;
    }
  }
  return ttsManager->getParameter(name);
}

void ZRTextToSpeech::resetSpeed() {
  boost::unique_lock<boost::shared_mutex> settingsLock(taskQueueLock);
  ttsManager->resetSpeed();
  const float speed = ttsManager->getParameter("speed");
  appliedVoiceSetting.parameters["speed"] = speed;
  globalVoiceSetting.parameters["speed"] = speed;
}

void ZRTextToSpeech::setVolume(const float& newVolume) {
  // Written so that NaN fails. The published range says 1.0; the output accepts up to 2.0.
  if (!(newVolume >= 0.0f && newVolume <= 2.0f)) {
    throw ZRError("ZRTextToSpeech", "setVolume",
                  "Wrong value for volume, must be between 0.0 and 1.0");
  }
  volume = newVolume;
}

float ZRTextToSpeech::getVolume() { return volume; }

bool ZRTextToSpeech::shouldFxBeAppliedOnVoice() {
  auto parameters = xAppliedSetting().parameters;
  const float pitchShift = parameters["pitchShift"];
  if (pitchShift != 0.0f && pitchShift != 1.0f) return true;
  const float doubleVoice = parameters["doubleVoice"];
  if (doubleVoice == 0.0f) return false;
  if (doubleVoice == 1.0f) return false;
  return parameters["doubleVoiceLevel"] != 0.0f;
}

void ZRTextToSpeech::enableFilter(bool enable) { ttsManager->enableFilter(enable); }

void ZRTextToSpeech::loadEffect(const std::string& effectPath) {
  ttsManager->loadEffect(effectPath);
}

void ZRTextToSpeech::applyEffect(const std::string& effectName, bool enable) {
  ttsManager->applyEffect(effectName, enable);
}

}  // namespace ZR
