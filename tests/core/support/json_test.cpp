#include "core/support/json.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace korvalen::json {
namespace {

struct IntegerCase {
  const char* text;
  std::optional<std::int64_t> expected;
};

class IntegerDecoding : public ::testing::TestWithParam<IntegerCase> {};

TEST_P(IntegerDecoding, AcceptsOnlyWholeNumbersInRange) {
  const auto& param = GetParam();
  const auto decoded = decode<std::int64_t>(Json::parse(param.text));
  if (param.expected) {
    ASSERT_TRUE(decoded.has_value()) << param.text;
    EXPECT_EQ(*decoded, *param.expected);
  } else {
    EXPECT_FALSE(decoded.has_value()) << param.text;
  }
}

INSTANTIATE_TEST_SUITE_P(Json, IntegerDecoding,
                         ::testing::Values(IntegerCase{"0", 0}, IntegerCase{"-42", -42},
                                           IntegerCase{"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
                                           IntegerCase{"9223372036854775808", std::nullopt},
                                           IntegerCase{"-9223372036854775808",
                                                       std::numeric_limits<std::int64_t>::min()},
                                           IntegerCase{"3.0", 3}, IntegerCase{"3.5", std::nullopt},
                                           IntegerCase{"1e300", std::nullopt}, IntegerCase{"\"3\"", std::nullopt},
                                           IntegerCase{"true", std::nullopt}, IntegerCase{"null", std::nullopt}));

TEST(JsonDoubles, NonFiniteValuesUseStringsOnlyWhereTheFormatAsksForThem) {
  const Options strings{.nonFiniteStrings = true};
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(encode(inf, strings), Json("Infinity"));
  EXPECT_EQ(encode(-inf, strings), Json("-Infinity"));
  EXPECT_EQ(encode(std::nan(""), strings), Json("NaN"));
  EXPECT_EQ(encode(0.5, strings), Json(0.5));

  EXPECT_EQ(*decode<double>(Json("Infinity"), strings), inf);
  EXPECT_EQ(*decode<double>(Json("-Infinity"), strings), -inf);
  EXPECT_TRUE(std::isnan(*decode<double>(Json("NaN"), strings)));
  EXPECT_FALSE(decode<double>(Json("nan"), strings).has_value());
  EXPECT_FALSE(decode<double>(Json("1.5"), strings).has_value());

  EXPECT_FALSE(decode<double>(Json("Infinity")).has_value());
  EXPECT_TRUE(encode(inf).is_null());
  EXPECT_EQ(*decode<double>(Json(7)), 7.0);
}

struct Sample {
  std::string name;
  std::int64_t count = 5;
  std::optional<double> level;
  std::vector<std::string> tags;
};

Result<Sample> decodeStrict(const Json& json) {
  ObjectReader in(json, {});
  Sample sample;
  in.required("name", sample.name);
  in.defaulted("count", sample.count);
  in.optional("level", sample.level);
  in.defaulted("tags", sample.tags);
  return in.finishWith(std::move(sample));
}

TEST(JsonObjectReader, StrictReadersDistinguishMissingNullAndWrongType) {
  auto all = decodeStrict(Json::parse(R"({"name":"a","count":2,"level":0.5,"tags":["x"]})"));
  ASSERT_TRUE(all.has_value());
  EXPECT_EQ(all->count, 2);
  EXPECT_EQ(all->level, 0.5);
  EXPECT_EQ(all->tags, std::vector<std::string>{"x"});

  auto defaults = decodeStrict(Json::parse(R"({"name":"a","count":null,"level":null})"));
  ASSERT_TRUE(defaults.has_value());
  EXPECT_EQ(defaults->count, 5);
  EXPECT_FALSE(defaults->level.has_value());

  auto missing = decodeStrict(Json::parse(R"({"count":2})"));
  ASSERT_FALSE(missing.has_value());
  EXPECT_EQ(missing.error().describe(), "name: missing");

  auto wrong = decodeStrict(Json::parse(R"({"name":"a","tags":["x",3]})"));
  ASSERT_FALSE(wrong.has_value());
  EXPECT_EQ(wrong.error().describe(), "tags[1]: expected text, found number");

  auto notObject = decodeStrict(Json::parse("[1]"));
  ASSERT_FALSE(notObject.has_value());
  EXPECT_EQ(notObject.error().describe(), "expected an object, found array");
}

TEST(JsonObjectReader, LenientReadersKeepDefaultsAndNeverFail) {
  const auto json = Json::parse(R"({"count":"seven","level":"high","name":"n"})");
  ObjectReader in(json, {});
  std::int64_t count = 5;
  std::optional<double> level = 1.0;
  std::string name;
  std::string absent = "kept";
  in.lenient("count", count);
  in.lenient("level", level);
  in.lenient("name", name);
  in.lenient("absent", absent);
  EXPECT_TRUE(in.finish().has_value());
  EXPECT_EQ(count, 5);
  EXPECT_FALSE(level.has_value());
  EXPECT_EQ(name, "n");
  EXPECT_EQ(absent, "kept");
}

TEST(JsonErrors, NestedPathsNameTheFailingField) {
  const auto json = Json::parse(R"({"a":{"b":[1,"x"]}})");
  auto decoded = decode<std::map<std::string, std::map<std::string, std::vector<std::int64_t>>>>(json);
  ASSERT_FALSE(decoded.has_value());
  EXPECT_EQ(decoded.error().path, "a.b[1]");
}

TEST(JsonLossy, AFailedElementIsAbsentInsteadOfFailingTheList) {
  const auto json = Json::parse(R"([1, "two", 3])");
  auto decoded = decode<std::vector<Lossy<std::int64_t>>>(json);
  ASSERT_TRUE(decoded.has_value());
  ASSERT_EQ(decoded->size(), 3U);
  EXPECT_EQ((*decoded)[0].value, 1);
  EXPECT_FALSE((*decoded)[1].value.has_value());
  EXPECT_EQ((*decoded)[2].value, 3);
}

TEST(JsonWriter, LeavesAbsentOptionalsOutAndSortsKeys) {
  const auto json = ObjectWriter({})
                        .put("zeta", std::int64_t{1})
                        .putIfPresent("absent", std::optional<std::string>{})
                        .put("alpha", std::map<std::string, bool>{{"b", true}, {"a", false}})
                        .take();
  EXPECT_FALSE(json.contains("absent"));
  EXPECT_EQ(pretty(json), "{\n  \"alpha\": {\n    \"a\": false,\n    \"b\": true\n  },\n  \"zeta\": 1\n}\n");
}

TEST(JsonParse, ReportsBadTextOnOneLineWithoutThrowing) {
  auto parsed = parse("{\"a\": 1,}");
  ASSERT_FALSE(parsed.has_value());
  EXPECT_EQ(parsed.error().find('\n'), std::string::npos);
  EXPECT_NE(parsed.error().find("syntax error"), std::string::npos) << parsed.error();
  EXPECT_TRUE(parse(R"({"a": [1, 2]})").has_value());
  EXPECT_FALSE(parse("").has_value());
  // nlohmann alone would stop at the NUL and read these as valid (a fuzzing find).
  for (const std::string& text :
       {std::string("{\"a\": 1}\0garbage", 17), std::string("1\0", 2), std::string(8, '\0')}) {
    const auto nul = parse(text);
    ASSERT_FALSE(nul.has_value());
    EXPECT_NE(nul.error().find("NUL"), std::string::npos) << nul.error();
  }
}

// A number beyond a double spoils its whole text, like a syntax error, and never escapes as
// an exception; only the out-of-range check says which it was.
TEST(JsonParse, NumbersBeyondADoubleAreUnreadableNotFatal) {
  for (const std::string text : {"1e400", "-1e400", R"({"power": {"fpsCap": 1e400}})", "[1, 2e999]"}) {
    const auto parsed = parse(text);
    ASSERT_FALSE(parsed.has_value()) << text;
    EXPECT_EQ(parsed.error().find('\n'), std::string::npos);
  }
  EXPECT_TRUE(isOutOfRangeNumber("1e400"));
  EXPECT_TRUE(isOutOfRangeNumber("-1E+309"));
  EXPECT_FALSE(isOutOfRangeNumber("1e308"));
  EXPECT_FALSE(isOutOfRangeNumber("1e-400"));  // underflows to zero, which a double holds
  EXPECT_FALSE(isOutOfRangeNumber("abc"));
  EXPECT_FALSE(isOutOfRangeNumber("[1e400"));
}

TEST(JsonObjectReader, BoundedFieldsNameTheFieldOutOfRange) {
  for (const auto& [text, expected] : std::vector<std::pair<std::string, std::string>>{
           {R"({"x": 10})", ""},
           {R"({"x": -10})", ""},
           {R"({"x": 11})", "x: 11 is out of range (-10 to 10)"},
           {R"({"x": -9223372036854775808})", "x: -9223372036854775808 is out of range (-10 to 10)"},
           {R"({"x": "3"})", "x: expected a whole number, found string"},
           {R"({})", "x: missing"}}) {
    const auto parsed = Json::parse(text);
    ObjectReader in(parsed, {});
    std::int64_t x = 7;
    in.bounded("x", x, -10, 10);
    const auto finished = in.finish();
    EXPECT_EQ(finished ? "" : finished.error().describe(), expected) << text;
    EXPECT_EQ(x, expected.empty() ? parsed["x"].get<std::int64_t>() : 7) << "a refused value is not stored";
  }
}

TEST(JsonText, Utf8ValidityFollowsTheStandardsTable) {
  struct Row {
    std::string text;
    bool valid;
  };
  for (const auto& [text, valid] : std::vector<Row>{{"", true},
                                                    {"plain", true},
                                                    {"Stra\xc3\x9f"
                                                     "e \xe2\x82\xac \xf0\x9f\x8e\xac",
                                                     true},
                                                    {"\xff", false},
                                                    {"\xc0\xaf", false},          // overlong "/"
                                                    {"\xe0\x80\xaf", false},      // overlong, three bytes
                                                    {"\xed\xa0\x80", false},      // a surrogate
                                                    {"\xf4\x90\x80\x80", false},  // past U+10FFFF
                                                    {"\xc3", false},              // cut short
                                                    {"\xe2\x82", false},
                                                    {"a\x80"
                                                     "b",
                                                     false}}) {
    EXPECT_EQ(isValidUtf8(text), valid) << ::testing::PrintToString(text);
  }
}

TEST(JsonText, FirstInvalidTextNamesItsPathAndCompactNeverThrows) {
  const Json good = {{"a", {{"b", "fine"}, {"c", {1, "x"}}}}};
  EXPECT_EQ(firstInvalidText(good), std::nullopt);
  Json bad = good;
  bad["a"]["c"][1] = "\xff";
  EXPECT_EQ(firstInvalidText(bad), "a.c[1]");
  Json badKey = Json::object();
  badKey["s"]["\xff"] = 1;
  EXPECT_TRUE(firstInvalidText(badKey).has_value());
  EXPECT_EQ(firstInvalidText(Json("\xc3")), "");
  EXPECT_EQ(compact(bad), "{\"a\":{\"b\":\"fine\",\"c\":[1,\"\xef\xbf\xbd\"]}}");
  EXPECT_NE(pretty(badKey).find("\xef\xbf\xbd"), std::string::npos);
}

}  // namespace
}  // namespace korvalen::json
