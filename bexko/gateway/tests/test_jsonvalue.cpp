#include <bexko/gateway/jsonvalue.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace bexko {
namespace gateway {
namespace {

using nlohmann::json;
using ZR::ZRValue;

struct RoundTripCase {
  const char* name;
  ZRValue value;
  std::string text;
};

class JsonValueRoundTrip : public ::testing::TestWithParam<RoundTripCase> {};

TEST_P(JsonValueRoundTrip, ValueAndJsonTextMapBothWays) {
  const auto& c = GetParam();
  EXPECT_EQ(toJson(c.value).dump(), c.text);
  EXPECT_EQ(fromJson(json::parse(c.text)), c.value);
}

INSTANTIATE_TEST_SUITE_P(
    AllTypes, JsonValueRoundTrip,
    ::testing::Values(
        RoundTripCase{"empty", ZRValue(), "null"}, RoundTripCase{"int", ZRValue(-42), "-42"},
        RoundTripCase{"intMax", ZRValue(2147483647), "2147483647"},
        RoundTripCase{"intMin", ZRValue(-2147483647 - 1), "-2147483648"},
        RoundTripCase{"float", ZRValue(0.5f), "0.5"},
        RoundTripCase{"floatShortest", ZRValue(0.1f), "0.1"},
        RoundTripCase{"floatThird", ZRValue(1.0f / 3.0f), "0.33333334"},
        RoundTripCase{"boolTrue", ZRValue(true), "true"},
        RoundTripCase{"string", ZRValue("Bonjour à tous"), "\"Bonjour à tous\""},
        RoundTripCase{"status", ZRValue(ZRValue::Array{ZRValue(3), ZRValue("done")}),
                      "[3,\"done\"]"},
        RoundTripCase{"nested",
                      ZRValue(ZRValue::Array{ZRValue(ZRValue::Array{ZRValue()}), ZRValue(1.5f)}),
                      "[[null],1.5]"},
        RoundTripCase{"emptyArray", ZRValue(ZRValue::Array{}), "[]"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(JsonValueConversion, WholeFloatInJsonStaysAFloat) {
  EXPECT_TRUE(fromJson(json::parse("2.0")).isFloat());
  EXPECT_TRUE(fromJson(json::parse("2")).isInt());
}

TEST(JsonValueConversion, NonFiniteFloatBecomesNull) {
  EXPECT_TRUE(toJson(ZRValue(std::numeric_limits<float>::infinity())).is_null());
}

class JsonValueRefused : public ::testing::TestWithParam<const char*> {};

TEST_P(JsonValueRefused, HasNoValueForm) {
  EXPECT_THROW(fromJson(json::parse(GetParam())), JsonConversionError);
}

INSTANTIATE_TEST_SUITE_P(Shapes, JsonValueRefused,
                         ::testing::Values("{}", "{\"a\":1}", "[1,{\"a\":1}]", "2147483648",
                                           "-2147483649", "18446744073709551615", "1e39",
                                           "-1e300"));

TEST(JsonNestingDepth, CountsArraysAndObjects) {
  EXPECT_EQ(jsonNestingDepth("1", 10), 0u);
  EXPECT_EQ(jsonNestingDepth("[1,[2,[3]],{\"a\":[]}]", 10), 3u);
}

TEST(JsonNestingDepth, IgnoresBracketsInsideStrings) {
  EXPECT_EQ(jsonNestingDepth(R"(["[[[[", "\"[[[", "{{"])", 10), 1u);
}

TEST(JsonNestingDepth, StopsJustPastTheLimit) {
  const std::string deep(100000, '[');
  EXPECT_EQ(jsonNestingDepth(deep, 64), 65u);
}

TEST(ModuleInfoJson, KeepsMethodsInOrderWithReturnsAndExamples) {
  ZR::ZRModuleInfo info;
  info.name = "ZRTest";
  info.description = "A module";
  info.examples = {{"python", "t = ZRProxy(\"ZRTest\")\n"}};
  ZR::ZRMethodInfo say;
  say.name = "say";
  say.description = "Says";
  say.parameters = {{"stringToSay", "Text"}};
  ZR::ZRMethodInfo get;
  get.name = "getVolume";
  get.hasReturn = true;
  get.returnInfo = {"pReturn", "Volume"};
  get.examples = {{"python", "a = t.getVolume()\n"}};
  info.methods = {say, get, say};
  info.signals = {"languageTTS"};

  const json out = toJson(info);
  EXPECT_EQ(out["name"], "ZRTest");
  EXPECT_EQ(out["examples"][0]["language"], "python");
  ASSERT_EQ(out["methods"].size(), 3u);
  EXPECT_EQ(out["methods"][0]["name"], "say");
  EXPECT_EQ(out["methods"][0]["parameters"][0]["name"], "stringToSay");
  EXPECT_TRUE(out["methods"][0]["return"].is_null());
  EXPECT_EQ(out["methods"][1]["return"]["name"], "pReturn");
  EXPECT_EQ(out["methods"][1]["examples"][0]["text"], "a = t.getVolume()\n");
  EXPECT_EQ(out["methods"][2]["name"], "say");
  EXPECT_EQ(out["signals"][0], "languageTTS");
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
