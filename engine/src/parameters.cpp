#include <bexko/engine/parameters.h>

#include <algorithm>
#include <cmath>

#include <zr/zrerror.h>

namespace bexko {
namespace engine {

namespace {

struct Range {
  float minimum;
  float maximum;
};

// Ranges in percent of the engine's normal value; presel, selBreak and inputMode are kept
// unclamped.
const std::map<std::string, Range>& ranges() {
  static const std::map<std::string, Range> table = {
      {"speed", {50.0f, 400.0f}},
      {"defaultVoiceSpeed", {50.0f, 400.0f}},
      {"pitch", {0.0f, 198.0f}},
      {"volume", {0.0f, 200.0f}},
  };
  return table;
}

std::string knownNames() {
  return "speed, defaultVoiceSpeed, pitch, volume, presel, selBreak, inputMode";
}

}  // namespace

ParameterSet::ParameterSet()
    : values_{{"speed", 100.0f},  {"defaultVoiceSpeed", 100.0f},
              {"pitch", 100.0f},  {"volume", 100.0f},
              {"presel", 0.0f},   {"selBreak", 0.0f},
              {"inputMode", 0.0f}} {}

bool ParameterSet::isKnown(const std::string& name) {
  return name == "speed" || name == "defaultVoiceSpeed" || name == "pitch" || name == "volume" ||
         name == "presel" || name == "selBreak" || name == "inputMode";
}

void ParameterSet::set(const std::string& name, float value) {
  if (!isKnown(name)) {
    throw ZR::ZRError("TextToSpeech", "setParameter",
                      "Unknown parameter \"" + name + "\"; known parameters: " + knownNames());
  }
  if (std::isnan(value)) {
    throw ZR::ZRError("TextToSpeech", "setParameter", "The value of " + name + " is not a number");
  }
  auto range = ranges().find(name);
  if (range != ranges().end()) {
    value = std::min(std::max(value, range->second.minimum), range->second.maximum);
  }
  values_[name] = value;
  if (name == "defaultVoiceSpeed") values_["speed"] = value;
}

float ParameterSet::get(const std::string& name) const {
  auto it = values_.find(name);
  if (it == values_.end()) {
    throw ZR::ZRError("TextToSpeech", "getParameter",
                      "Unknown parameter \"" + name + "\"; known parameters: " + knownNames());
  }
  return it->second;
}

void ParameterSet::resetSpeed() { values_["speed"] = values_.at("defaultVoiceSpeed"); }

}  // namespace engine
}  // namespace bexko
