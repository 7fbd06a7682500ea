#include <zr/zrtexttospeech.h>

#include <limits>

#include "settingsfixture.h"

namespace bexko::testing {
namespace {

using ::testing::IsEmpty;
using ::testing::NanSensitiveFloatEq;

const float nan = std::numeric_limits<float>::quiet_NaN();

// One of the service's own voice parameters: the values it accepts (the bounds, and NaN, which
// every range test lets through) and those just outside, refused with its message.
struct Range {
  std::string name;
  std::vector<float> accepted, refused;
  std::string message;
};

Range range(std::string name, std::vector<float> accepted, std::vector<float> refused,
            const std::string& message) {
  return {name, accepted, refused, "Wrong argument value for " + message};
}

class ServiceParameterTest : public ScriptedServiceTest {};

TEST_F(ServiceParameterTest, EffectBoundsAndNaNAreStoredAndValuesJustOutsideRefused) {
  const std::string effect = " effect : correct range is (0.5 -- 4), or 0 to disable effect";
  const std::vector<Range> ranges = {
      range("pitchShift", {0, 0.5f, 1, 4, nan}, {0.49f, 4.01f, -1}, "pitchShift" + effect),
      range("doubleVoice", {0, 0.5f, 1, 4, nan}, {0.49f, 4.01f, -1}, "doubleVoice" + effect),
      range("doubleVoiceLevel", {0, 4, nan}, {-0.01f, 4.01f},
            "double voice level: correct range is (0 -- 4)"),
      range("doubleVoiceTimeShift", {0, 0.5f, nan}, {-0.01f, 0.51f},
            "double voice time shift: correct range is (0 -- 0.5)"),
      range("voiceLevel", {0, 2, nan}, {-0.01f, 2.01f}, "voice level: correct range is (0 -- 2.0)"),
  };
  backend.clearCalls();
  for (const Range& r : ranges) {
    for (float value : r.accepted) {
      SCOPED_TRACE(r.name + " = " + std::to_string(value));
      tts->setParameter(r.name, value);
      EXPECT_THAT(tts->appliedSetting().parameters.at(r.name), NanSensitiveFloatEq(value));
      EXPECT_THAT(tts->globalSetting().parameters.at(r.name), NanSensitiveFloatEq(value));
      EXPECT_THAT(tts->getParameter(r.name), NanSensitiveFloatEq(value));
    }
    for (float value : r.refused) {
      SCOPED_TRACE(r.name + " = " + std::to_string(value));
      const ZR::VoiceSetting applied = tts->appliedSetting(), global = tts->globalSetting();
      EXPECT_EQ(refusal([&] { tts->setParameter(r.name, value); }, "xSetParameter"), r.message);
      EXPECT_EQ(tts->appliedSetting(), applied);
      EXPECT_EQ(tts->globalSetting(), global);
    }
  }
  // The service's own parameters never reach the engine.
  EXPECT_THAT(backend.calls("setParameter"), IsEmpty());
}

TEST_F(ServiceParameterTest, MarkerAndAudibleLimitsAreSetByTruncationAndKeepTheGivenValue) {
  backend.clearCalls();
  tts->setParameter("mrkAdvance", 150.9f);
  tts->setParameter("maxLevel", 2000.7f);
  tts->setParameter("minSize", -3.9f);
  EXPECT_EQ(tts->markerAdvance(), 150);
  EXPECT_EQ(tts->audibleMaxLevel(), 2000);
  EXPECT_EQ(tts->audibleMinSize(), -3);
  EXPECT_FLOAT_EQ(tts->getParameter("mrkAdvance"), 150.9f);
  EXPECT_FLOAT_EQ(tts->appliedSetting().parameters.at("maxLevel"), 2000.7f);
  EXPECT_FLOAT_EQ(tts->globalSetting().parameters.at("minSize"), -3.9f);
  EXPECT_THAT(backend.calls("setParameter"), IsEmpty());
}

class EngineParameterTest : public ScriptedServiceTest {};

// The engine clamps "speed" and "defaultVoiceSpeed" into 50 -- 400; setting the default speed
// also sets the speed, and resetSpeed returns to it. It keeps "presel" without applying it.
TEST_F(EngineParameterTest, OtherNamesReachTheEngineAndTheAppliedValueIsReadBack) {
  backend.clearCalls();
  tts->setParameter("speed", 500.0f);
  EXPECT_EQ(backend.calls("setParameter").size(), 1u);
  EXPECT_EQ(tts->appliedSetting().parameters.at("speed"), 400.0f);
  EXPECT_EQ(tts->getParameter("speed"), 400.0f);
  EXPECT_EQ(tts->globalSetting().parameters.at("speed"), 500.0f);
  tts->setParameter("defaultVoiceSpeed", 90.0f);
  EXPECT_EQ(tts->appliedSetting().parameters.at("defaultVoiceSpeed"), 90.0f);
  EXPECT_EQ(tts->appliedSetting().parameters.at("speed"), 90.0f);
  tts->setParameter("speed", 150.0f);
  tts->resetSpeed();
  EXPECT_EQ(tts->appliedSetting().parameters.at("speed"), 90.0f);
  EXPECT_EQ(tts->globalSetting().parameters.at("speed"), 90.0f);

  backend.clearCalls();
  tts->setParameter("presel", 1.0f);
  tts->getParameter("presel");
  EXPECT_EQ(backend.calls("setParameter").size(), 1u);
  EXPECT_EQ(backend.calls("getParameter").size(), 1u);
  EXPECT_EQ(tts->appliedSetting().parameters.count("presel"), 0u);
  EXPECT_FLOAT_EQ(tts->globalSetting().parameters.at("presel"), 1.0f);

  // A name the engine refuses is stored nowhere.
  const ZR::VoiceSetting global = tts->globalSetting();
  EXPECT_THROW(tts->setParameter("noSuchParameter", 1.0f), ZR::ZRError);
  EXPECT_EQ(tts->globalSetting(), global);
  EXPECT_EQ(tts->appliedSetting().parameters.count("noSuchParameter"), 0u);
}

class VolumeTest : public ScriptedServiceTest {};

TEST_F(VolumeTest, AcceptsUpToTwoAndRefusesOutsideAndNaNWithTheMessageNamingOne) {
  for (float volume : {0.0f, 0.5f, 1.5f, 2.0f}) {
    tts->setVolume(volume);
    EXPECT_FLOAT_EQ(tts->getVolume(), volume);
  }
  for (float volume : {2.1f, -0.1f, nan}) {
    SCOPED_TRACE(volume);
    EXPECT_EQ(refusal([&] { tts->setVolume(volume); }, "setVolume"),
              "Wrong value for volume, must be between 0.0 and 1.0");
    EXPECT_FLOAT_EQ(tts->getVolume(), 2.0f);
  }
}

class VoiceEffectTest : public ScriptedServiceTest {
 protected:
  bool fxApplied(float pitchShift, float doubleVoice, float doubleVoiceLevel) {
    tts->setParameter("pitchShift", pitchShift);
    tts->setParameter("doubleVoice", doubleVoice);
    tts->setParameter("doubleVoiceLevel", doubleVoiceLevel);
    return tts->shouldFxBeAppliedOnVoice();
  }
};

TEST_F(VoiceEffectTest, ShouldFxBeAppliedFollowsPitchShiftThenDoubleVoice) {
  EXPECT_FALSE(fxApplied(0, 0, 0));
  EXPECT_FALSE(fxApplied(1, 0, 0));
  EXPECT_TRUE(fxApplied(1.5f, 0, 0));
  EXPECT_FALSE(fxApplied(0, 1, 2));
  EXPECT_FALSE(fxApplied(1, 2, 0));
  EXPECT_TRUE(fxApplied(1, 2, 0.5f));
  EXPECT_TRUE(fxApplied(0, 2, 4));
}

}  // namespace
}  // namespace bexko::testing
