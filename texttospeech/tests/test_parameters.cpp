#include <zr/zrtexttospeech.h>

#include <limits>
#include <tuple>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

using ::testing::NanSensitiveFloatEq;

const float nan = std::numeric_limits<float>::quiet_NaN();

using ServiceParameterTest = SpeechServiceTest;

TEST_F(ServiceParameterTest, EffectBoundsAndNaNAreStoredAndValuesJustOutsideRefused) {
  // Each of the service's own voice parameters: the values it accepts (the bounds, and NaN,
  // which every range test lets through), those just outside, and the message refusing them.
  const std::string effect = " effect : correct range is (0.5 -- 4), or 0 to disable effect";
  const struct {
    std::string name;
    std::vector<float> accepted, refused;
    std::string message;
  } ranges[] = {
      {"pitchShift", {0, 0.5f, 1, 4, nan}, {0.49f, 4.01f, -1}, "pitchShift" + effect},
      {"doubleVoice", {0, 0.5f, 1, 4, nan}, {0.49f, 4.01f, -1}, "doubleVoice" + effect},
      {"doubleVoiceLevel",
       {0, 4, nan},
       {-0.01f, 4.01f},
       "double voice level: correct range is (0 -- 4)"},
      {"doubleVoiceTimeShift",
       {0, 0.5f, nan},
       {-0.01f, 0.51f},
       "double voice time shift: correct range is (0 -- 0.5)"},
      {"voiceLevel", {0, 2, nan}, {-0.01f, 2.01f}, "voice level: correct range is (0 -- 2.0)"},
  };
  for (const auto& r : ranges) {
    for (float value : r.accepted) {
      SCOPED_TRACE(r.name + " = " + std::to_string(value));
      tts->setParameter(r.name, value);
      EXPECT_THAT(tts->getParameter(r.name), NanSensitiveFloatEq(value));
      EXPECT_THAT(tts->globalSetting().parameters.at(r.name), NanSensitiveFloatEq(value));
    }
    for (float value : r.refused) {
      SCOPED_TRACE(r.name + " = " + std::to_string(value));
      const ZR::VoiceSetting applied = tts->appliedSetting(), global = tts->globalSetting();
      EXPECT_EQ(errorOf([&] { tts->setParameter(r.name, value); }),
                "ZRTextToSpeech.xSetParameter: Wrong argument value for " + r.message);
      EXPECT_EQ(tts->appliedSetting(), applied);
      EXPECT_EQ(tts->globalSetting(), global);
    }
  }
  // The service's own parameters never reach the engine.
  EXPECT_TRUE(backend.calls("setParameter").empty());
}

TEST_F(ServiceParameterTest, MarkerAndAudibleLimitsAreSetByTruncationAndKeepTheGivenValue) {
  tts->setParameter("mrkAdvance", 150.9f);
  tts->setParameter("maxLevel", 2000.7f);
  tts->setParameter("minSize", -3.9f);
  EXPECT_EQ(tts->markerAdvance(), 150);
  EXPECT_EQ(tts->audibleMaxLevel(), 2000);
  EXPECT_EQ(tts->audibleMinSize(), -3);
  EXPECT_FLOAT_EQ(tts->getParameter("mrkAdvance"), 150.9f);
  EXPECT_FLOAT_EQ(tts->appliedSetting().parameters.at("maxLevel"), 2000.7f);
  EXPECT_FLOAT_EQ(tts->globalSetting().parameters.at("minSize"), -3.9f);
  EXPECT_TRUE(backend.calls("setParameter").empty());
}

using EngineParameterTest = SpeechServiceTest;

// The engine clamps "speed" and "defaultVoiceSpeed" into 50 -- 400; setting the default speed
// also sets the speed, and resetSpeed returns to it. It keeps "presel" without applying it.
TEST_F(EngineParameterTest, OtherNamesReachTheEngineAndTheAppliedValueIsReadBack) {
  tts->setParameter("speed", 500.0f);
  EXPECT_EQ(backend.calls("setParameter").size(), 1u);
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

using VolumeTest = SpeechServiceTest;

TEST_F(VolumeTest, AcceptsUpToTwoAndRefusesOutsideAndNaNWithTheMessageNamingOne) {
  for (float volume : {0.0f, 0.5f, 1.5f, 2.0f}) {
    tts->setVolume(volume);
    EXPECT_FLOAT_EQ(tts->getVolume(), volume);
  }
  for (float volume : {2.1f, -0.1f, nan}) {
    SCOPED_TRACE(volume);
    EXPECT_EQ(errorOf([&] { tts->setVolume(volume); }),
              "ZRTextToSpeech.setVolume: Wrong value for volume, must be between 0.0 and 1.0");
    EXPECT_FLOAT_EQ(tts->getVolume(), 2.0f);
  }
}

using VoiceEffectTest = SpeechServiceTest;

TEST_F(VoiceEffectTest, ShouldFxBeAppliedFollowsPitchShiftThenDoubleVoice) {
  // pitchShift, doubleVoice, doubleVoiceLevel, and whether the effects apply.
  const std::tuple<float, float, float, bool> cases[] = {
      {0, 0, 0, false}, {1, 0, 0, false},   {1.5f, 0, 0, true}, {0, 1, 2, false},
      {1, 2, 0, false}, {1, 2, 0.5f, true}, {0, 2, 4, true}};
  for (const auto& [pitchShift, doubleVoice, level, applied] : cases) {
    tts->setParameter("pitchShift", pitchShift);
    tts->setParameter("doubleVoice", doubleVoice);
    tts->setParameter("doubleVoiceLevel", level);
    EXPECT_EQ(tts->shouldFxBeAppliedOnVoice(), applied)
        << pitchShift << ", " << doubleVoice << ", " << level;
  }
}

}  // namespace
}  // namespace bexko::testing
