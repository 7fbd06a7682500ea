#pragma once

#include <map>
#include <string>

#include <zr/export.h>

namespace bexko {
namespace engine {

/// The engine parameters that every backend understands, all percentages of the engine's own
/// normal value, clamped into the range the eSpeak NG backend can render:
///
/// - "speed" (default 100, 50 to 400): speaking rate.
/// - "defaultVoiceSpeed" (100, 50 to 400): the rate that resetSpeed returns to; setting it also
///   sets "speed".
/// - "pitch" (100, 0 to 198): base pitch.
/// - "volume" (100, 0 to 200): amplitude.
/// - "presel", "selBreak", "inputMode" (0, any value): accepted and kept, not applied (the
///   speech service sets "inputMode" to 3 for Japanese).
///
/// Not thread-safe: a backend guards it with its own lock.
class BEXKO_API ParameterSet {
 public:
  ParameterSet();

  /// Stores `value` clamped into the parameter's range. Throws ZR::ZRError (module
  /// "TextToSpeech", method "setParameter") for an unknown name or a NaN value.
  void set(const std::string& name, float value);
  /// The value as stored (after clamping). Throws ZR::ZRError (method "getParameter") for an
  /// unknown name.
  float get(const std::string& name) const;
  /// Sets "speed" back to "defaultVoiceSpeed".
  void resetSpeed();

  /// Whether `name` is one of the parameters above.
  static bool isKnown(const std::string& name);

  float speed() const { return values_.at("speed"); }
  float pitch() const { return values_.at("pitch"); }
  float volume() const { return values_.at("volume"); }

 private:
  std::map<std::string, float> values_;
};

}  // namespace engine
}  // namespace bexko
