#include <zr/zrvalue.h>

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

// One row per branch of each converter; errors give how the message starts, and each type's
// name appears once.
TEST(ValueConversion, ConvertsOrReportsExpectedAndActualType) {
  const std::tuple<ZRValue, std::string, ZRValue> converts[] = {
      {42, "int", 42},
      {-2147483648.0f, "int", -2147483647 - 1},
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
      {"3", "int", "expected int, got string"},
      {false, "float", "expected float, got bool"},
      {Array{}, "double", "expected float, got array"},
      {1, "bool", "expected bool, got int"},
      {ZRValue(), "string", "expected string, got empty"},
      {5, "ints", "expected array, got int"},
      {Array{1, "a"}, "ints", "expected int, got string"}};
  for (const auto& [input, type, message] : fails) {
    SCOPED_TRACE(input.toDebugString() + " to " + type);
    const ZRError e = errorOf([&, &input = input, &type = type] { convertTo(type, input); });
    EXPECT_EQ(e.moduleName() + "::" + e.methodName(), "ZRValue::convert");
    EXPECT_THAT(e.what(), ::testing::StartsWith(message));
  }
  // Typed reads: only toFloat accepts another type.
  EXPECT_EQ(ZRValue(4).toFloat(), 4.0f);
  EXPECT_THROW(ZRValue(4.0f).toInt(), ZRError);
}

TEST(ValueArray, ItemsAreKeptPaddedWithEmptyAndIndexedWithinRange) {
  ZRValue v;
  v.push_back(1);  // an empty value becomes an array
  v.arraySetSize(3);
  EXPECT_EQ(v, ZRValue(Array{1, ZRValue(), ZRValue()}));
  EXPECT_THROW(v[3], ZRError);
  ZRValue scalar(7);
  EXPECT_THROW(scalar.push_back(1), ZRError);
  EXPECT_THROW(scalar[0], ZRError);
  scalar.arraySetSize(2);
  EXPECT_EQ(scalar, ZRValue(Array{ZRValue(), ZRValue()}));
}

// A whole float reads as a float, strings are quoted with their control characters escaped.
TEST(ValueDebugString, IsCompactAndUnambiguous) {
  const ZRValue value(Array{1, 2.0f, 0.5f, true, ZRValue(Array{ZRValue()}), "say \"hi\"\n\\",
                            std::string("a\x01", 2)});
  EXPECT_EQ(value.toDebugString(), R"([1, 2.0, 0.5, true, [<empty>], "say \"hi\"\n\\", "a\x01"])");
}

TEST(ValueError, WhatIsTheDescriptionAndToStringTheFullReport) {
  const ZRError error = ZRError("ZRTextToSpeech", "say", "No language", "tts.cpp", 42);
  EXPECT_STREQ(error.what(), "No language");
  EXPECT_EQ(error.toString(), "ZRTextToSpeech::say: No language (tts.cpp:42)");
}

}  // namespace
