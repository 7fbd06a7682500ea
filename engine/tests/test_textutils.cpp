#include <zr/tts/textutils.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct TagCase {
  const char* name;
  std::string text;
  std::string withoutTags;
  bool endsWithTag;
};

class TagHandling : public ::testing::TestWithParam<TagCase> {};

TEST_P(TagHandling, ReplaceTagsAndCheckLastTagAgree) {
  const TagCase& c = GetParam();
  EXPECT_EQ(ZR::replaceTags(c.text, ""), c.withoutTags);
  EXPECT_EQ(ZR::checkLastTag(c.text), c.endsWithTag);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TagHandling,
    ::testing::Values(
        TagCase{"plain", "Hello world", "Hello world", false}, TagCase{"empty", "", "", false},
        TagCase{"bookmark", "Hello \\mrk=5\\world", "Hello world", false},
        TagCase{"every_tag_kind",
                "\\rspd=120\\A \\vct=90\\b \\vol=50\\c \\pau=300\\d \\rst\\e \\style=joyful\\f",
                "A b c d e f", false},
        TagCase{"ends_with_tag", "Hello \\mrk=1\\", "Hello ", true},
        TagCase{"ends_with_tag_and_spaces", "Hello \\pau=200\\   ", "Hello    ", true},
        TagCase{"tags_only", "\\style=reset\\ \\rst\\", " ", true},
        TagCase{"adjacent_tags", "a\\mrk=1\\\\mrk=2\\b", "ab", false},
        // A backslash that opens no well-formed tag is text.
        TagCase{"unterminated", "Hello \\mrk=5 world", "Hello \\mrk=5 world", false},
        TagCase{"lone_backslash_then_tag", "a \\ b \\mrk=1\\ c", "a \\ b  c", false},
        TagCase{"space_inside_is_not_a_tag", "C:\\my files\\x", "C:\\my files\\x", false},
        TagCase{"trailing_backslash", "end\\", "end\\", false},
        // Nested tags: the first well-formed tag wins and scanning goes on after it.
        TagCase{"nested", "x\\vct=\\mrk=1\\\\y", "xmrk=1\\\\y", false},
        TagCase{"nested_value_holding_a_tag_name", "\\mrk=\\rst\\\\ z", "rst\\\\ z", false},
        TagCase{"multibyte", "Ça \\mrk=2\\va très bien 日本語\\mrk=3\\", "Ça va très bien 日本語",
                true},
        TagCase{"invalid_utf8", std::string("a\xff\xfe \\mrk=1\\b\xc3"), "a\xff\xfe b\xc3", false}),
    [](const ::testing::TestParamInfo<TagCase>& info) { return std::string(info.param.name); });

TEST(ReplaceTags, UsesTheReplacementForEveryTag) {
  EXPECT_EQ(ZR::replaceTags("a\\mrk=1\\b\\rst\\c", "_"), "a_b_c");
  EXPECT_EQ(ZR::replaceTags("a\\mrk=1\\b", nullptr), "ab");
}

struct CountCase {
  const char* name;
  std::string text;
  int count;
};

class Utf8Counting : public ::testing::TestWithParam<CountCase> {};

TEST_P(Utf8Counting, CountsCodePointsAndInvalidBytesAsOneEach) {
  EXPECT_EQ(ZR::countUtf8Chars(GetParam().text.c_str()), GetParam().count);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Utf8Counting,
    ::testing::Values(
        CountCase{"ascii", "Hello", 5}, CountCase{"empty", "", 0},
        CountCase{"accents", "été à Noël", 10}, CountCase{"cjk", "日本語", 3},
        CountCase{"emoji", "a\xF0\x9F\x98\x80z", 3}, CountCase{"stray_continuation", "a\x80z", 3},
        CountCase{"truncated_sequence", "a\xE2\x82", 3}, CountCase{"overlong", "\xC0\xAF", 2},
        CountCase{"surrogate", "\xED\xA0\x80", 3},
        CountCase{"above_unicode", "\xF4\x90\x80\x80", 4}, CountCase{"invalid_lead", "\xFF", 1}),
    [](const ::testing::TestParamInfo<CountCase>& info) { return std::string(info.param.name); });

TEST(CountUtf8Chars, NullIsZero) { EXPECT_EQ(ZR::countUtf8Chars(nullptr), 0); }

TEST(ReplaceMrkPause, PrecedesEachPauseWithANumberedPauseMark) {
  std::string text = "Hello \\pau=300\\ world \\mrk=4\\ again \\pau=50\\!";
  ZR::replaceMrkPause(text);
  EXPECT_EQ(text, "Hello \\mrk=64536\\\\pau=300\\ world \\mrk=4\\ again \\mrk=64537\\\\pau=50\\!");
  EXPECT_EQ(ZR::makeSpecificId(64536), 0);
  EXPECT_EQ(ZR::makeSpecificId(64537), 1);
}

TEST(ReplaceMrkPause, LeavesTextWithoutPausesAndMalformedPausesAlone) {
  for (std::string text :
       {std::string("Hello"), std::string("a \\pau=300 b"), std::string("\xff\\pau\xfe\\")}) {
    const std::string before = text;
    ZR::replaceMrkPause(text);
    EXPECT_EQ(text, before);
  }
}

TEST(ReplaceIncorrectApostrophe, TurnsTypographicFormsIntoAnApostrophe) {
  std::string text =
      "l\xE2\x80\x99homme l\xE2\x80\x98"
      "a l\xC2\xB4"
      "eau d`or";
  ZR::replaceIncorrectApostrophe(text);
  EXPECT_EQ(text, "l'homme l'a l'eau d'or");
}

TEST(ReplaceIncorrectApostrophe, KeepsOtherTextAndSurvivesInvalidUtf8) {
  std::string text = "l'été \xE2\x80 \xC2";
  ZR::replaceIncorrectApostrophe(text);
  EXPECT_EQ(text, "l'été \xE2\x80 \xC2");
}

struct TokenCase {
  const char* name;
  std::string text;
  std::vector<std::string> tokens;
};

class Tokenizing : public ::testing::TestWithParam<TokenCase> {};

TEST_P(Tokenizing, SplitsOnAnySeparatorAndDropsEmptyPieces) {
  std::string text = GetParam().text;
  std::vector<std::string> out{"kept"};
  ZR::tokenizeString(text, out, " .,;:!");
  std::vector<std::string> expected{"kept"};
  expected.insert(expected.end(), GetParam().tokens.begin(), GetParam().tokens.end());
  EXPECT_EQ(out, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Tokenizing,
    ::testing::Values(TokenCase{"sentence", "Hello, big world!", {"Hello", "big", "world"}},
                      TokenCase{"only_separators", " ,.; ", {}}, TokenCase{"empty", "", {}},
                      TokenCase{"accents", "Ça va; très bien.", {"Ça", "va", "très", "bien"}},
                      TokenCase{"invalid_utf8", "a\xff b\xc3", {"a\xff", "b\xc3"}}),
    [](const ::testing::TestParamInfo<TokenCase>& info) { return std::string(info.param.name); });

}  // namespace
