#include <zr/zrvalue.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <zr/zrerror.h>
#include <zr/zrfunctor.h>
#include <zr/zrmutex.h>

namespace {

using ZR::ZRError;
using ZR::ZRValue;

// --- Conversions -------------------------------------------------------------------------------

struct ConversionCase {
  const char* name;
  std::function<void()> convert;
  const char* expectedError;  // null when the conversion must succeed
};

template <typename T>
std::function<void()> expectConverts(ZRValue input, T expected) {
  return [input, expected] { EXPECT_EQ(ZR::fromZRValue<T>(input), expected); };
}

template <typename T>
std::function<void()> convertOnly(ZRValue input) {
  return [input] { (void)ZR::fromZRValue<T>(input); };
}

class ValueConversion : public ::testing::TestWithParam<ConversionCase> {};

TEST_P(ValueConversion, ConvertsOrReportsExpectedAndActualType) {
  const ConversionCase& c = GetParam();
  if (!c.expectedError) {
    EXPECT_NO_THROW(c.convert());
    return;
  }
  try {
    c.convert();
    FAIL() << "no error for " << c.name;
  } catch (const ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRValue");
    EXPECT_EQ(e.methodName(), "convert");
    EXPECT_EQ(std::string(e.what()).rfind(c.expectedError, 0), 0u)
        << "message \"" << e.what() << "\" does not start with \"" << c.expectedError << "\"";
  }
}

const float kNan = std::numeric_limits<float>::quiet_NaN();

INSTANTIATE_TEST_SUITE_P(
    Table, ValueConversion,
    ::testing::Values(
        ConversionCase{"IntFromInt", expectConverts<int>(ZRValue(42), 42), nullptr},
        ConversionCase{"IntFromWholeFloat", expectConverts<int>(ZRValue(3.0f), 3), nullptr},
        ConversionCase{"IntFromNegativeWholeFloat", expectConverts<int>(ZRValue(-2.0f), -2),
                       nullptr},
        ConversionCase{"IntFromLowestFloat",
                       expectConverts<int>(ZRValue(-2147483648.0f), -2147483647 - 1), nullptr},
        ConversionCase{"IntFromFractionalFloat", convertOnly<int>(ZRValue(2.5f)),
                       "expected int, got float"},
        ConversionCase{"IntFromHugeFloat", convertOnly<int>(ZRValue(2147483648.0f)),
                       "expected int, got float"},
        ConversionCase{"IntFromNan", convertOnly<int>(ZRValue(kNan)), "expected int, got float"},
        ConversionCase{"IntFromString", convertOnly<int>(ZRValue("3")), "expected int, got string"},
        ConversionCase{"IntFromBool", convertOnly<int>(ZRValue(true)), "expected int, got bool"},
        ConversionCase{"IntFromEmpty", convertOnly<int>(ZRValue()), "expected int, got empty"},
        ConversionCase{"FloatFromFloat", expectConverts<float>(ZRValue(1.5f), 1.5f), nullptr},
        ConversionCase{"FloatFromInt", expectConverts<float>(ZRValue(7), 7.0f), nullptr},
        ConversionCase{"FloatFromString", convertOnly<float>(ZRValue("text")),
                       "expected float, got string"},
        ConversionCase{"FloatFromBool", convertOnly<float>(ZRValue(false)),
                       "expected float, got bool"},
        ConversionCase{"DoubleFromFloat", expectConverts<double>(ZRValue(0.25f), 0.25), nullptr},
        ConversionCase{"DoubleFromInt", expectConverts<double>(ZRValue(-9), -9.0), nullptr},
        ConversionCase{"DoubleFromArray", convertOnly<double>(ZRValue(ZRValue::Array{})),
                       "expected float, got array"},
        ConversionCase{"BoolFromBool", expectConverts<bool>(ZRValue(true), true), nullptr},
        ConversionCase{"BoolFromInt", convertOnly<bool>(ZRValue(1)), "expected bool, got int"},
        ConversionCase{"BoolFromString", convertOnly<bool>(ZRValue("true")),
                       "expected bool, got string"},
        ConversionCase{"StringFromString",
                       expectConverts<std::string>(ZRValue("hello"), std::string("hello")),
                       nullptr},
        ConversionCase{"StringFromInt", convertOnly<std::string>(ZRValue(1)),
                       "expected string, got int"},
        ConversionCase{"StringFromEmpty", convertOnly<std::string>(ZRValue()),
                       "expected string, got empty"},
        ConversionCase{"VectorFromArray",
                       expectConverts<std::vector<int>>(ZRValue(ZRValue::Array{1, 2.0f, 3}),
                                                        std::vector<int>{1, 2, 3}),
                       nullptr},
        ConversionCase{
            "VectorFromEmpty",
            expectConverts<std::vector<std::string>>(ZRValue(), std::vector<std::string>{}),
            nullptr},
        ConversionCase{"VectorFromInt", convertOnly<std::vector<int>>(ZRValue(5)),
                       "expected array, got int"},
        ConversionCase{"VectorWithBadItem",
                       convertOnly<std::vector<int>>(ZRValue(ZRValue::Array{1, "a"})),
                       "expected int, got string"}),
    [](const ::testing::TestParamInfo<ConversionCase>& info) { return info.param.name; });

TEST(ValueTypedRead, ToFloatAcceptsIntButToIntRejectsFloat) {
  EXPECT_EQ(ZRValue(4).toFloat(), 4.0f);
  EXPECT_THROW(ZRValue(4.0f).toInt(), ZRError);
  EXPECT_THROW(ZRValue(1).toString(), ZRError);
  EXPECT_THROW(ZRValue("x").toBool(), ZRError);
  EXPECT_THROW(ZRValue(1).toArray(), ZRError);
}

TEST(ValueTypedRead, DoubleIsStoredAsFloat) {
  ZRValue v(0.5);
  EXPECT_TRUE(v.isFloat());
  EXPECT_EQ(v.toFloat(), 0.5f);
}

// --- Arrays and equality -----------------------------------------------------------------------

TEST(ValueArray, ArraySetSizeKeepsItemsAndPadsWithEmpty) {
  ZRValue v(ZRValue::Array{1, "a"});
  v.arraySetSize(4);
  ASSERT_EQ(v.getSize(), 4);
  EXPECT_EQ(v[0], ZRValue(1));
  EXPECT_EQ(v[1], ZRValue("a"));
  EXPECT_TRUE(v[2].isEmpty());
  EXPECT_TRUE(v[3].isEmpty());
  v.arraySetSize(1);
  EXPECT_EQ(v, ZRValue(ZRValue::Array{1}));
}

TEST(ValueArray, ArraySetSizeTurnsScalarIntoArray) {
  ZRValue v(7);
  v.arraySetSize(2);
  EXPECT_TRUE(v.isArray());
  EXPECT_EQ(v.getSize(), 2);
  EXPECT_TRUE(v[0].isEmpty());
}

TEST(ValueArray, IndexOutOfRangeOrOnScalarThrows) {
  ZRValue v(ZRValue::Array{1});
  EXPECT_THROW(v[1], ZRError);
  EXPECT_THROW(v[-1], ZRError);
  const ZRValue scalar(3);
  EXPECT_THROW(scalar[0], ZRError);
  EXPECT_EQ(scalar.getSize(), 0);
}

TEST(ValueArray, IndexedItemIsWritable) {
  ZRValue v;
  v.arraySetSize(2);
  v[1] = ZRValue("done");
  EXPECT_EQ(v, (ZRValue::array<ZRValue, std::string>(ZRValue(), "done")));
}

TEST(ValueArray, PushBackTurnsEmptyIntoArrayAndRejectsScalar) {
  ZRValue v;
  v.push_back(1);
  v.push_back("b");
  EXPECT_EQ(v, ZRValue(ZRValue::Array{1, "b"}));
  ZRValue scalar("x");
  EXPECT_THROW(scalar.push_back(1), ZRError);
}

TEST(ValueArray, ArrayHelperConvertsEachItem) {
  const ZRValue status = ZRValue::array<int, std::string>(12, "done");
  ASSERT_EQ(status.getSize(), 2);
  EXPECT_EQ(status[0].toInt(), 12);
  EXPECT_EQ(status[1].toString(), "done");
}

TEST(ValueEquality, ComparesTypeAndContent) {
  EXPECT_NE(ZRValue(1), ZRValue(1.0f));
  EXPECT_NE(ZRValue(1), ZRValue(true));
  EXPECT_NE(ZRValue("1"), ZRValue(1));
  EXPECT_EQ(ZRValue(ZRValue::Array{1, "a"}), ZRValue(ZRValue::Array{1, "a"}));
  EXPECT_NE(ZRValue(ZRValue::Array{1, "a"}), ZRValue(ZRValue::Array{1, "b"}));
  EXPECT_NE(ZRValue(), ZRValue(ZRValue::Array{}));
}

// --- Debug strings -----------------------------------------------------------------------------

struct DebugCase {
  ZRValue value;
  const char* expected;
};

class ValueDebugString : public ::testing::TestWithParam<DebugCase> {};

TEST_P(ValueDebugString, IsCompactAndUnambiguous) {
  EXPECT_EQ(GetParam().value.toDebugString(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ValueDebugString,
    ::testing::Values(DebugCase{ZRValue(1), "1"}, DebugCase{ZRValue(-20), "-20"},
                      DebugCase{ZRValue(1.5f), "1.5"}, DebugCase{ZRValue(2.0f), "2.0"},
                      DebugCase{ZRValue(true), "true"}, DebugCase{ZRValue(false), "false"},
                      DebugCase{ZRValue("text"), "\"text\""},
                      DebugCase{ZRValue("say \"hi\"\n\\"), "\"say \\\"hi\\\"\\n\\\\\""},
                      DebugCase{ZRValue(std::string("a\x01", 2)), "\"a\\x01\""},
                      DebugCase{ZRValue(ZRValue::Array{1, "a"}), "[1, \"a\"]"},
                      DebugCase{ZRValue(ZRValue::Array{}), "[]"},
                      DebugCase{ZRValue(ZRValue::Array{ZRValue(ZRValue::Array{ZRValue()}), 0.5f}),
                                "[[<empty>], 0.5]"},
                      DebugCase{ZRValue(), "<empty>"}));

// --- Errors ------------------------------------------------------------------------------------

TEST(ValueError, WhatIsTheDescriptionAndToStringTheFullReport) {
  const ZRError withFile("ZRTextToSpeech", "say", "No language", "tts.cpp", 42);
  EXPECT_STREQ(withFile.what(), "No language");
  EXPECT_EQ(withFile.toString(), "ZRTextToSpeech::say: No language (tts.cpp:42)");
  EXPECT_EQ(withFile.file(), "tts.cpp");
  EXPECT_EQ(withFile.line(), 42u);

  const ZRError withoutFile("ZRAudioPlayer", "playFile", "missing file");
  EXPECT_EQ(withoutFile.toString(), "ZRAudioPlayer::playFile: missing file");
  EXPECT_EQ(withoutFile.file(), "");
}

TEST(ValueError, CopiesKeepEveryField) {
  const ZRError original("M", "m", "d", "f.cpp", 3);
  const ZRError copy = original;
  EXPECT_EQ(copy.toString(), original.toString());
  EXPECT_STREQ(copy.what(), "d");
}

TEST(ValueError, ArgumentErrorCarriesIndexAndMessageOnly) {
  try {
    throw ZR::ZRArgumentError(2, "expected int, got string");
  } catch (const ZRError& e) {
    const auto* argumentError = dynamic_cast<const ZR::ZRArgumentError*>(&e);
    ASSERT_NE(argumentError, nullptr);
    EXPECT_EQ(argumentError->index(), 2);
    EXPECT_STREQ(e.what(), "expected int, got string");
    EXPECT_EQ(e.moduleName(), "");
    EXPECT_EQ(e.methodName(), "");
  }
}

TEST(ValueMutex, CreatedMutexExcludesOtherThreads) {
  auto mutex = ZR::ZRMutex::createZRMutex();
  ASSERT_TRUE(mutex);
  bool otherGotIt = true;
  {
    ZR::ZRCriticalSection section(mutex);
    std::thread other([&] { otherGotIt = mutex->tryLock(); });
    other.join();
  }
  EXPECT_FALSE(otherGotIt);
  EXPECT_TRUE(mutex->tryLock());
  mutex->unlock();
  EXPECT_NE(ZR::ZRMutex::createZRMutex(), mutex);
}

}  // namespace
