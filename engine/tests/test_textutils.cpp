#include <zr/tts/textutils.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(TextHelpers, AgreeOnTagsAndCountCharactersOfAnyText) {
  struct Case {
    std::string text;
    std::string withoutTags;
    bool endsWithTag;
    int characters;  // of the text without tags; an invalid byte counts as one
  };
  const Case cases[] = {
      {"", "", false, 0},
      {"\\rspd=120\\A \\vct=90\\b \\vol=50\\c \\pau=300\\d \\rst\\e \\style=joyful\\f",
       "A b c d e f", false, 11},
      {"Hello \\pau=200\\   ", "Hello    ", true, 9},
      {"a\\mrk=1\\\\mrk=2\\b", "ab", false, 2},
      // A backslash that opens no well-formed tag is text.
      {"Hello \\mrk=5 world", "Hello \\mrk=5 world", false, 18},
      {"a \\ b \\mrk=1\\ c", "a \\ b  c", false, 8},
      {"end\\", "end\\", false, 4},
      // Nested tags: the first well-formed tag wins and scanning goes on after it.
      {"x\\vct=\\mrk=1\\\\y", "xmrk=1\\\\y", false, 9},
      {"Ça \\mrk=2\\va 日本語\xF0\x9F\x98\x80\\mrk=3\\", "Ça va 日本語\xF0\x9F\x98\x80", true, 10},
      // Stray continuation, bad lead, lead without its continuation, truncated sequence; overlong
      // form, surrogate, above U+10FFFF.
      {"a\x80\xff\xC3z \\mrk=1\\b\xE2\x82", "a\x80\xff\xC3z b\xE2\x82", false, 9},
      {"\xC0\xAF\xED\xA0\x80\xF4\x90\x80\x80", "\xC0\xAF\xED\xA0\x80\xF4\x90\x80\x80", false, 9},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(ZR::replaceTags(c.text, ""), c.withoutTags);
    EXPECT_EQ(ZR::checkLastTag(c.text), c.endsWithTag);
    EXPECT_EQ(ZR::countUtf8Chars(c.withoutTags.c_str()), c.characters);
  }
  EXPECT_EQ(ZR::replaceTags("a\\mrk=1\\b\\rst\\c", "_"), "a_b_c");
  EXPECT_EQ(ZR::replaceTags("a\\mrk=1\\b", nullptr), "ab");
  EXPECT_EQ(ZR::countUtf8Chars(nullptr), 0);
}

TEST(TextHelpers, RewritesChangeOnlyWhatTheyTarget) {
  std::string pauses = "Hello \\pau=300\\ world \\mrk=4\\ again \\pau=50\\!";
  ZR::replaceMrkPause(pauses);
  EXPECT_EQ(pauses,
            "Hello \\mrk=64536\\\\pau=300\\ world \\mrk=4\\ again \\mrk=64537\\\\pau=50\\!");
  EXPECT_EQ(ZR::makeSpecificId(64537), 1);
  std::string apostrophes = "l\u2019homme l\u2018a l\u00B4eau d`or";
  ZR::replaceIncorrectApostrophe(apostrophes);
  EXPECT_EQ(apostrophes, "l'homme l'a l'eau d'or");

  const std::string untouched = "a \\pau=300 b \xff\\pau\xfe\\ l'été \xE2\x80 \xC2";
  std::string text = untouched;
  ZR::replaceMrkPause(text);
  ZR::replaceIncorrectApostrophe(text);
  EXPECT_EQ(text, untouched);
}

TEST(TextHelpers, TokenizeAppendsThePiecesBetweenSeparators) {
  std::string text = " Hello, big world! Ça va;\xff b\xc3.";
  std::vector<std::string> out{"kept"};
  ZR::tokenizeString(text, out, " .,;:!");
  EXPECT_EQ(out, (std::vector<std::string>{"kept", "Hello", "big", "world", "Ça", "va", "\xff",
                                           "b\xc3"}));
}

}  // namespace
