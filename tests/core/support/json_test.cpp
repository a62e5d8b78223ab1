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
}

}  // namespace
}  // namespace korvalen::json
