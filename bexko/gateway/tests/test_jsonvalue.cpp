#include <bexko/gateway/jsonvalue.h>

#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace bexko {
namespace gateway {
namespace {

using nlohmann::json;
using ZR::ZRValue;

TEST(JsonValueConversion, ValueAndJsonTextMapBothWays) {
  struct Case {
    ZRValue value;
    const char* text;
  };
  // Value equality compares the type too: 2.0 stays a float, 2 an int.
  for (const Case& c :
       {Case{ZRValue(), "null"}, Case{ZRValue(-42), "-42"}, Case{ZRValue(2147483647), "2147483647"},
        Case{ZRValue(-2147483647 - 1), "-2147483648"}, Case{ZRValue(2.0f), "2.0"},
        Case{ZRValue(0.1f), "0.1"}, Case{ZRValue(true), "true"},
        Case{ZRValue("Bonjour à tous"), "\"Bonjour à tous\""},
        Case{ZRValue(ZRValue::Array{ZRValue(ZRValue::Array{ZRValue()}), ZRValue(1.5f)}),
             "[[null],1.5]"},
        Case{ZRValue(ZRValue::Array{}), "[]"}}) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(toJson(c.value).dump(), c.text);
    EXPECT_EQ(fromJson(json::parse(c.text)), c.value);
  }
  EXPECT_TRUE(toJson(ZRValue(std::numeric_limits<float>::infinity())).is_null());
  for (const char* refused : {"{\"a\":1}", "[1,{\"a\":1}]", "2147483648", "-2147483649", "-1e39"}) {
    EXPECT_THROW(fromJson(json::parse(refused)), JsonConversionError) << refused;
  }
}

TEST(JsonNestingDepth, CountsArraysAndObjectsOutsideStringsUpToJustPastTheLimit) {
  EXPECT_EQ(jsonNestingDepth("[1,[2,[3]],{\"a\":[]}]", 10), 3u);
  EXPECT_EQ(jsonNestingDepth(R"(["[[[[", "\"[[[", "{{"])", 10), 1u);
  EXPECT_EQ(jsonNestingDepth(std::string(100000, '['), 64), 65u);
}

TEST(ModuleInfoJson, KeepsMethodsAndEventsInOrderWithReturnsAndExamples) {
  const ZR::ZRMethodInfo say{"say", "ZRTest", "Says", {{"text", "Text"}}, false, {}, {}};
  const ZR::ZRMethodInfo get{"get", "ZRTest", "Gets", {}, true, {"v", "Volume"}, {{"py", "a\n"}}};
  const ZR::ZRModuleInfo info{"ZRTest",   "A module",  {{"py", "t"}},
                              {say, get}, {"changed"}, {{"ZRTest/B", "int: b"}, {"ZRTest/A", "a"}}};
  EXPECT_EQ(toJson(info), json::parse(R"({
    "name": "ZRTest", "description": "A module", "signals": ["changed"],
    "events": [{"key": "ZRTest/B", "description": "int: b"},
               {"key": "ZRTest/A", "description": "a"}],
    "examples": [{"language": "py", "text": "t"}],
    "methods": [
      {"name": "say", "description": "Says", "return": null, "examples": [],
       "parameters": [{"name": "text", "description": "Text"}]},
      {"name": "get", "description": "Gets", "parameters": [],
       "return": {"name": "v", "description": "Volume"},
       "examples": [{"language": "py", "text": "a\n"}]}]})"));
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
