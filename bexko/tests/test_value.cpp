#include <zr/zrvalue.h>

#include <limits>

#include <zr/zrfunctor.h>
#include <zr/zrmutex.h>

#include "support.h"

namespace {

using namespace bexko::test;

/// Converts `value` to the C++ type named `type` and back, so that the result shows both the
/// converted value and its type.
ZRValue convertTo(const std::string& type, const ZRValue& value) {
  if (type == "int") return ZR::toZRValue(ZR::fromZRValue<int>(value));
  if (type == "float") return ZR::toZRValue(ZR::fromZRValue<float>(value));
  if (type == "double") return ZR::toZRValue(ZR::fromZRValue<double>(value));
  if (type == "bool") return ZR::toZRValue(ZR::fromZRValue<bool>(value));
  if (type == "string") return ZR::toZRValue(ZR::fromZRValue<std::string>(value));
  if (type == "ints") return ZR::toZRValue(ZR::fromZRValue<std::vector<int>>(value));
  if (type == "strings") return ZR::toZRValue(ZR::fromZRValue<std::vector<std::string>>(value));
  ADD_FAILURE() << "no conversion to " << type;
  return ZRValue();
}

// Errors give how the message starts.
TEST(ValueConversion, ConvertsOrReportsExpectedAndActualType) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::tuple<ZRValue, std::string, ZRValue> converts[] = {
      {42, "int", 42},
      {3.0f, "int", 3},
      {-2.0f, "int", -2},
      {-2147483648.0f, "int", -2147483647 - 1},
      {1.5f, "float", 1.5f},
      {7, "float", 7.0f},
      {0.25f, "double", 0.25f},
      {-9, "double", -9.0f},
      {true, "bool", true},
      {"hello", "string", "hello"},
      {Array{1, 2.0f, 3}, "ints", Array{1, 2, 3}},
      {ZRValue(), "strings", Array{}}};
  for (const auto& [input, type, expected] : converts) {
    EXPECT_EQ(convertTo(type, input), expected) << input.toDebugString() << " to " << type;
  }
  const std::tuple<ZRValue, std::string, const char*> fails[] = {
      {2.5f, "int", "expected int, got float"},
      {2147483648.0f, "int", "expected int, got float"},
      {nan, "int", "expected int, got float"},
      {"3", "int", "expected int, got string"},
      {true, "int", "expected int, got bool"},
      {ZRValue(), "int", "expected int, got empty"},
      {"text", "float", "expected float, got string"},
      {false, "float", "expected float, got bool"},
      {Array{}, "double", "expected float, got array"},
      {1, "bool", "expected bool, got int"},
      {"true", "bool", "expected bool, got string"},
      {1, "string", "expected string, got int"},
      {ZRValue(), "string", "expected string, got empty"},
      {5, "ints", "expected array, got int"},
      {Array{1, "a"}, "ints", "expected int, got string"}};
  for (const auto& c : fails) {
    SCOPED_TRACE(std::get<0>(c).toDebugString() + " to " + std::get<1>(c));
    const ZRError e = errorOf([&] { convertTo(std::get<1>(c), std::get<0>(c)); });
    EXPECT_EQ(e.moduleName() + "::" + e.methodName(), "ZRValue::convert");
    EXPECT_THAT(e.what(), ::testing::StartsWith(std::get<2>(c)));
  }
}

TEST(ValueTypedRead, ToFloatAcceptsIntButOtherReadsWantTheirOwnType) {
  EXPECT_EQ(ZRValue(4).toFloat(), 4.0f);
  EXPECT_THROW(ZRValue(4.0f).toInt(), ZRError);
  EXPECT_THROW(ZRValue(1).toString(), ZRError);
  EXPECT_THROW(ZRValue("x").toBool(), ZRError);
  EXPECT_THROW(ZRValue(1).toArray(), ZRError);
}

// Arrays ----------------------------------------------------------------------------------------

TEST(ValueArray, ItemsAreKeptPaddedWithEmptyAndIndexedWithinRange) {
  ZRValue v;
  v.push_back(1);  // an empty value becomes an array
  v.push_back("a");
  v.arraySetSize(4);
  EXPECT_EQ(v, ZRValue(Array{1, "a", ZRValue(), ZRValue()}));
  v.arraySetSize(1);
  EXPECT_EQ(v, ZRValue(Array{1}));
  EXPECT_THROW(v[1], ZRError);
  EXPECT_THROW(v[-1], ZRError);
  ZRValue scalar(7);
  EXPECT_THROW(scalar.push_back(1), ZRError);
  EXPECT_THROW(static_cast<const ZRValue&>(scalar)[0], ZRError);
  EXPECT_EQ(scalar.getSize(), 0);
  scalar.arraySetSize(2);
  scalar[1] = ZRValue("done");
  EXPECT_EQ(scalar, (ZRValue::array<ZRValue, std::string>(ZRValue(), "done")));
  EXPECT_EQ(scalar.getSize(), 2);
}

TEST(ValueDebugString, IsCompactAndUnambiguous) {
  const std::pair<ZRValue, const char*> cases[] = {
      {1, "1"},
      {-20, "-20"},
      {1.5f, "1.5"},
      {2.0f, "2.0"},
      {true, "true"},
      {false, "false"},
      {"text", "\"text\""},
      {ZRValue(), "<empty>"},
      {"say \"hi\"\n\\", R"("say \"hi\"\n\\")"},
      {std::string("a\x01", 2), R"("a\x01")"},
      {Array{1, "a"}, "[1, \"a\"]"},
      {Array{}, "[]"},
      {Array{ZRValue(Array{ZRValue()}), 0.5f}, "[[<empty>], 0.5]"}};
  for (const auto& [value, expected] : cases) EXPECT_EQ(value.toDebugString(), expected);
}

// Errors and mutexes -----------------------------------------------------------------------------

TEST(ValueError, WhatIsTheDescriptionAndToStringTheFullReport) {
  const ZRError error = ZRError("ZRTextToSpeech", "say", "No language", "tts.cpp", 42);
  EXPECT_STREQ(error.what(), "No language");
  EXPECT_EQ(error.toString(), "ZRTextToSpeech::say: No language (tts.cpp:42)");
}

TEST(ValueMutex, EachCreatedMutexIsItsOwnAndACriticalSectionHoldsIt) {
  auto mutex = ZR::ZRMutex::createZRMutex();
  {
    ZR::ZRCriticalSection section(mutex);
    std::thread([&] { EXPECT_FALSE(mutex->tryLock()); }).join();
  }
  EXPECT_TRUE(mutex->tryLock());
  mutex->unlock();
  EXPECT_NE(ZR::ZRMutex::createZRMutex(), mutex);
}

}  // namespace
