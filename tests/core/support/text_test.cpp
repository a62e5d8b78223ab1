#include "core/support/text.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

TEST(TextCase, LowerCasingIsUnicodeAndLocaleFree) {
  EXPECT_EQ(text::lowercased("CrossBLEND"), "crossblend");
  EXPECT_EQ(text::lowercased("ÉCRAN Ü"), "écran ü");
  // Root locale: capital I is i even where a Turkish locale would give a dotless one.
  EXPECT_EQ(text::lowercased("ISTANBUL"), "istanbul");
  EXPECT_EQ(text::lowercased(""), "");
}

TEST(TextCase, SearchKeysDropAccentsAndFoldCase) {
  EXPECT_EQ(text::searchKey("Café"), text::searchKey("CAFE"));
  EXPECT_EQ(text::searchKey("Zoë Ångström"), "zoe angstrom");
  EXPECT_EQ(text::searchKey("Straße"), "strasse");
  // Letters that are not a base and a mark stay themselves.
  EXPECT_EQ(text::searchKey("Øresund"), "øresund");
  EXPECT_NE(text::searchKey("résumé"), text::searchKey("resume2"));
  EXPECT_EQ(text::searchKey("\xff"), "\ufffd");
}

TEST(TextCase, EqualityIgnoringCaseUsesFullFolding) {
  EXPECT_TRUE(text::equalIgnoringCase("/Users/Ann/Movies/Clip.MOV", "/users/ann/movies/clip.mov"));
  EXPECT_TRUE(text::equalIgnoringCase("Straße", "STRASSE"));
  EXPECT_TRUE(text::equalIgnoringCase("ΣΊΣΥΦΟΣ", "σίσυφος"));
  EXPECT_FALSE(text::equalIgnoringCase("clip.mov", "clip.mp4"));
  EXPECT_FALSE(text::equalIgnoringCase("a", "a "));
}

struct TrimCase {
  const char* input;
  const char* spacesAndTabs;
  const char* whitespaceAndNewlines;
};

class TextTrim : public ::testing::TestWithParam<TrimCase> {};

TEST_P(TextTrim, TheTwoSetsDifferOnLineBreaks) {
  const auto& param = GetParam();
  EXPECT_EQ(text::trimSpacesAndTabs(param.input), param.spacesAndTabs);
  EXPECT_EQ(text::trimWhitespaceAndNewlines(param.input), param.whitespaceAndNewlines);
}

INSTANTIATE_TEST_SUITE_P(Text, TextTrim,
                         ::testing::Values(TrimCase{"  pause\t", "pause", "pause"},
                                           TrimCase{"\npause\r\n", "\npause\r\n", "pause"},
                                           TrimCase{"\u00a0no-break\u2003", "no-break", "no-break"},
                                           TrimCase{"\u2028line\u0085", "\u2028line\u0085", "line"},
                                           TrimCase{" a b ", "a b", "a b"}, TrimCase{" \t ", "", ""},
                                           TrimCase{"", "", ""}, TrimCase{"\v x", "\v x", "x"}));

TEST(TextLength, CountsUtf16CodeUnits) {
  EXPECT_EQ(text::utf16Length("abc"), 3U);
  EXPECT_EQ(text::utf16Length("é"), 1U);
  EXPECT_EQ(text::utf16Length("😀"), 2U);
  EXPECT_EQ(text::utf16Length(""), 0U);
}

}  // namespace
}  // namespace korvalen
