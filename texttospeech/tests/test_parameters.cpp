#include <zr/zrtexttospeech.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settingsfixture.h"

namespace {

using bexko::testing::ScriptedServiceTest;

struct RangeCase {
  std::string name;
  float value;
  bool accepted;
  std::string message;  // the error text when refused
};

std::string effectRange(const std::string& name) {
  return "Wrong argument value for " + name +
         " effect : correct range is (0.5 -- 4), or 0 to disable effect";
}

const char* const levelRange =
    "Wrong argument value for double voice level: correct range is (0 -- 4)";
const char* const timeShiftRange =
    "Wrong argument value for double voice time shift: correct range is (0 -- 0.5)";
const char* const voiceLevelRange =
    "Wrong argument value for voice level: correct range is (0 -- 2.0)";

std::vector<RangeCase> rangeCases() {
  std::vector<RangeCase> cases;
  for (const std::string name : {"pitchShift", "doubleVoice"}) {
    cases.push_back({name, 0.0f, true, ""});
    cases.push_back({name, 0.5f, true, ""});
    cases.push_back({name, 1.0f, true, ""});
    cases.push_back({name, 4.0f, true, ""});
    cases.push_back({name, 0.49f, false, effectRange(name)});
    cases.push_back({name, 4.01f, false, effectRange(name)});
    cases.push_back({name, -1.0f, false, effectRange(name)});
  }
  cases.push_back({"doubleVoiceLevel", 0.0f, true, ""});
  cases.push_back({"doubleVoiceLevel", 4.0f, true, ""});
  cases.push_back({"doubleVoiceLevel", -0.01f, false, levelRange});
  cases.push_back({"doubleVoiceLevel", 4.01f, false, levelRange});
  cases.push_back({"doubleVoiceTimeShift", 0.0f, true, ""});
  cases.push_back({"doubleVoiceTimeShift", 0.5f, true, ""});
  cases.push_back({"doubleVoiceTimeShift", -0.01f, false, timeShiftRange});
  cases.push_back({"doubleVoiceTimeShift", 0.51f, false, timeShiftRange});
  cases.push_back({"voiceLevel", 0.0f, true, ""});
  cases.push_back({"voiceLevel", 2.0f, true, ""});
  cases.push_back({"voiceLevel", -0.01f, false, voiceLevelRange});
  cases.push_back({"voiceLevel", 2.01f, false, voiceLevelRange});
  return cases;
}

class ParameterRangeTest : public ScriptedServiceTest {};

TEST_F(ParameterRangeTest, BoundsAreAcceptedAndValuesJustOutsideRefusedWithTheirMessage) {
  for (const RangeCase& c : rangeCases()) {
    SCOPED_TRACE(c.name + " = " + std::to_string(c.value));
    const ZR::VoiceSetting appliedBefore = tts->appliedSetting();
    const ZR::VoiceSetting globalBefore = tts->globalSetting();
    if (c.accepted) {
      tts->setParameter(c.name, c.value);
      EXPECT_EQ(tts->appliedSetting().parameters.at(c.name), c.value);
      EXPECT_EQ(tts->globalSetting().parameters.at(c.name), c.value);
      EXPECT_EQ(tts->getParameter(c.name), c.value);
    } else {
      try {
        tts->setParameter(c.name, c.value);
        ADD_FAILURE() << "accepted";
      } catch (const ZR::ZRError& e) {
        EXPECT_EQ(std::string(e.what()), c.message);
        EXPECT_EQ(e.moduleName(), "ZRTextToSpeech");
        EXPECT_EQ(e.methodName(), "xSetParameter");
      }
      EXPECT_TRUE(tts->appliedSetting() == appliedBefore);
      EXPECT_TRUE(tts->globalSetting() == globalBefore);
    }
  }
}

TEST_F(ParameterRangeTest, NaNPassesEveryRangeCheckAndIsStored) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (const std::string name :
       {"pitchShift", "doubleVoice", "doubleVoiceLevel", "doubleVoiceTimeShift", "voiceLevel"}) {
    SCOPED_TRACE(name);
    EXPECT_NO_THROW(tts->setParameter(name, nan));
    EXPECT_TRUE(std::isnan(tts->appliedSetting().parameters.at(name)));
    EXPECT_TRUE(std::isnan(tts->globalSetting().parameters.at(name)));
  }
}

class ServiceParameterTest : public ScriptedServiceTest {};

TEST_F(ServiceParameterTest, SetTheirFieldsByTruncationAndKeepTheGivenValue) {
  tts->setParameter("mrkAdvance", 150.9f);
  tts->setParameter("maxLevel", 2000.7f);
  tts->setParameter("minSize", -3.9f);
  EXPECT_EQ(tts->markerAdvance(), 150);
  EXPECT_EQ(tts->audibleMaxLevel(), 2000);
  EXPECT_EQ(tts->audibleMinSize(), -3);
  EXPECT_FLOAT_EQ(tts->getParameter("mrkAdvance"), 150.9f);
  EXPECT_FLOAT_EQ(tts->appliedSetting().parameters.at("maxLevel"), 2000.7f);
  EXPECT_FLOAT_EQ(tts->globalSetting().parameters.at("minSize"), -3.9f);
}

TEST_F(ServiceParameterTest, ServiceParametersNeverReachTheEngine) {
  backend.clearCalls();
  tts->setParameter("pitchShift", 1.5f);
  tts->setParameter("mrkAdvance", 50.0f);
  EXPECT_TRUE(backend.calls("setParameter").empty());
}

class EngineParameterTest : public ScriptedServiceTest {};

TEST_F(EngineParameterTest, OtherNamesReachTheEngineAndAreReadBackFromIt) {
  backend.clearCalls();
  tts->setParameter("speed", 80.0f);
  EXPECT_EQ(backend.calls("setParameter").size(), 1u);
  const float engineSpeed = tts->engine()->getParameter("speed");
  EXPECT_EQ(tts->appliedSetting().parameters.at("speed"), engineSpeed);
  EXPECT_EQ(tts->getParameter("speed"), engineSpeed);
  EXPECT_FLOAT_EQ(tts->globalSetting().parameters.at("speed"), 80.0f);
}

TEST_F(EngineParameterTest, DefaultVoiceSpeedAlsoReadsTheSpeedBack) {
  tts->setParameter("speed", 150.0f);
  tts->setParameter("defaultVoiceSpeed", 90.0f);
  EXPECT_EQ(tts->appliedSetting().parameters.at("defaultVoiceSpeed"),
            tts->engine()->getParameter("defaultVoiceSpeed"));
  EXPECT_EQ(tts->appliedSetting().parameters.at("speed"), tts->engine()->getParameter("speed"));
}

TEST_F(EngineParameterTest, PreselIsStoredOnlyInTheRequestedSettingAndReadFromTheEngine) {
  backend.clearCalls();
  tts->setParameter("presel", 1.0f);
  EXPECT_EQ(backend.calls("setParameter").size(), 1u);
  EXPECT_EQ(tts->appliedSetting().parameters.count("presel"), 0u);
  EXPECT_FLOAT_EQ(tts->globalSetting().parameters.at("presel"), 1.0f);

  backend.clearCalls();
  tts->getParameter("presel");
  EXPECT_EQ(backend.calls("getParameter").size(), 1u);
}

TEST_F(EngineParameterTest, AnEngineRefusalPropagatesAndNothingIsStored) {
  const ZR::VoiceSetting globalBefore = tts->globalSetting();
  EXPECT_THROW(tts->setParameter("noSuchParameter", 1.0f), ZR::ZRError);
  EXPECT_TRUE(tts->globalSetting() == globalBefore);
  EXPECT_EQ(tts->appliedSetting().parameters.count("noSuchParameter"), 0u);
}

TEST_F(EngineParameterTest, ResetSpeedStoresTheEngineSpeedInBothSettings) {
  tts->setParameter("speed", 150.0f);
  tts->resetSpeed();
  const float speed = tts->engine()->getParameter("speed");
  EXPECT_EQ(tts->appliedSetting().parameters.at("speed"), speed);
  EXPECT_EQ(tts->globalSetting().parameters.at("speed"), speed);
  EXPECT_EQ(speed, tts->engine()->getParameter("defaultVoiceSpeed"));
}

class VolumeTest : public ScriptedServiceTest {};

TEST_F(VolumeTest, AcceptsUpToTwoAndReturnsTheFloatAsSet) {
  EXPECT_FLOAT_EQ(tts->getVolume(), 1.0f);
  for (float v : {0.0f, 0.5f, 1.5f, 2.0f}) {
    tts->setVolume(v);
    EXPECT_FLOAT_EQ(tts->getVolume(), v);
  }
}

TEST_F(VolumeTest, RefusesOutsideAndNaNWithTheMessageNamingOne) {
  tts->setVolume(0.7f);
  for (float v : {2.1f, -0.1f, std::numeric_limits<float>::quiet_NaN()}) {
    SCOPED_TRACE(v);
    try {
      tts->setVolume(v);
      ADD_FAILURE() << "accepted";
    } catch (const ZR::ZRError& e) {
      EXPECT_EQ(std::string(e.what()), "Wrong value for volume, must be between 0.0 and 1.0");
      EXPECT_EQ(e.moduleName(), "ZRTextToSpeech");
      EXPECT_EQ(e.methodName(), "setVolume");
    }
    EXPECT_FLOAT_EQ(tts->getVolume(), 0.7f);
  }
}

struct FxCase {
  float pitchShift;
  float doubleVoice;
  float doubleVoiceLevel;
  bool expected;
};

class VoiceEffectTest : public ScriptedServiceTest {};

TEST_F(VoiceEffectTest, ShouldFxBeAppliedFollowsPitchShiftThenDoubleVoice) {
  const std::vector<FxCase> cases = {
      {0.0f, 0.0f, 0.0f, false}, {1.0f, 0.0f, 0.0f, false}, {1.5f, 0.0f, 0.0f, true},
      {0.0f, 1.0f, 2.0f, false}, {1.0f, 2.0f, 0.0f, false}, {1.0f, 2.0f, 0.5f, true},
      {0.0f, 2.0f, 4.0f, true},
  };
  for (const FxCase& c : cases) {
    SCOPED_TRACE(std::to_string(c.pitchShift) + " " + std::to_string(c.doubleVoice) + " " +
                 std::to_string(c.doubleVoiceLevel));
    tts->setParameter("pitchShift", c.pitchShift);
    tts->setParameter("doubleVoice", c.doubleVoice);
    tts->setParameter("doubleVoiceLevel", c.doubleVoiceLevel);
    EXPECT_EQ(tts->shouldFxBeAppliedOnVoice(), c.expected);
  }
}

TEST_F(VoiceEffectTest, EffectsAndFilterReachTheEngineManager) {
  tts->enableFilter(true);
  EXPECT_TRUE(tts->engine()->isFilterEnabled());
  tts->enableFilter(false);
  EXPECT_FALSE(tts->engine()->isFilterEnabled());
  tts->loadEffect("/tmp/robot.fx");
  const std::vector<std::string> effects = tts->engine()->loadedEffects();
  EXPECT_NE(std::find(effects.begin(), effects.end(), "robot"), effects.end());
  EXPECT_NO_THROW(tts->applyEffect("robot", true));
}

}  // namespace
