#include "core/library/time_of_day.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

using json::Json;

struct StrictCase {
  const char* text;
  std::optional<TimeOfDay> expected;
};

class TimeOfDayStrict : public ::testing::TestWithParam<StrictCase> {};

TEST_P(TimeOfDayStrict, ParsesTwoWholeNumbersSeparatedByColons) {
  EXPECT_EQ(TimeOfDay::parse(GetParam().text), GetParam().expected) << GetParam().text;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Schedule, TimeOfDayStrict, ::testing::Values(
  StrictCase{"7:30", TimeOfDay{7, 30}},    StrictCase{"07:05", TimeOfDay{7, 5}},
  StrictCase{"7::30", TimeOfDay{7, 30}},   StrictCase{":7:30:", TimeOfDay{7, 30}},
  StrictCase{"+7:30", TimeOfDay{7, 30}},   StrictCase{"23:59", TimeOfDay{23, 59}},
  StrictCase{"0:0", TimeOfDay{0, 0}},      StrictCase{"-1:30", std::nullopt},
  StrictCase{"24:00", std::nullopt},       StrictCase{"23:60", std::nullopt},
  StrictCase{"7:30:00", std::nullopt},     StrictCase{"7", std::nullopt},
  StrictCase{" 7:30", std::nullopt},       StrictCase{"7:3O", std::nullopt},
  StrictCase{"+-7:30", std::nullopt},      StrictCase{"", std::nullopt}));
// clang-format on

struct DecodeCase {
  const char* name;
  Json json;
  std::optional<TimeOfDay> expected;
  const char* error;
};

class TimeOfDayDecoding : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(TimeOfDayDecoding, AcceptsTheTextFormsAndTheOlderObject) {
  const auto decoded = json::decode<TimeOfDay>(GetParam().json);
  if (GetParam().expected) {
    ASSERT_TRUE(decoded.has_value()) << decoded.error().describe();
    EXPECT_EQ(*decoded, *GetParam().expected);
  } else {
    ASSERT_FALSE(decoded.has_value());
    EXPECT_EQ(decoded.error().describe(), GetParam().error);
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Schedule, TimeOfDayDecoding, ::testing::Values(
  DecodeCase{"Short",            Json("7:05"),            TimeOfDay{7, 5},   ""},
  DecodeCase{"SecondsDropped",   Json("07:05:30"),        TimeOfDay{7, 5},   ""},
  DecodeCase{"FractionalSecond", Json("\t07:05:59.9 "),   TimeOfDay{7, 5},   ""},
  DecodeCase{"SixtySeconds",     Json("07:05:60"),        std::nullopt,      "not a time of day: 07:05:60"},
  DecodeCase{"EmptyMiddle",      Json("07::30"),          TimeOfDay{7, 30},  ""},
  DecodeCase{"Trimmed",          Json("  07:05\t"),       TimeOfDay{7, 5},   ""},
  DecodeCase{"Midnight24",       Json("24:00"),           std::nullopt,      "not a time of day: 24:00"},
  DecodeCase{"KeepsOriginal",    Json(" 25:00"),          std::nullopt,      "not a time of day:  25:00"},
  DecodeCase{"Object",           Json::parse(R"({"hour":7,"minute":5})"),  TimeOfDay{7, 5}, ""},
  DecodeCase{"ObjectHour24",     Json::parse(R"({"hour":24,"minute":0})"), std::nullopt, "not a time of day"},
  // Would be written as "-2:00", which no reader takes back (a fuzzing find).
  DecodeCase{"ObjectNegative",   Json::parse(R"({"hour":-2,"minute":0})"), std::nullopt, "not a time of day"},
  DecodeCase{"ObjectNegativeMin", Json::parse(R"({"hour":2,"minute":-1})"), std::nullopt, "not a time of day"},
  DecodeCase{"ObjectNoMinute",   Json::parse(R"({"hour":7})"),             std::nullopt, "not a time of day"},
  DecodeCase{"ObjectTextHour",   Json::parse(R"({"hour":"7","minute":0})"), std::nullopt, "not a time of day"},
  DecodeCase{"Number",           Json(730),               std::nullopt,      "not a time of day"}),
  korvalen::testing::ByName{});
// clang-format on

TEST(TimeOfDayCoding, WritesTwoDigitFields) {
  EXPECT_EQ(json::encode(TimeOfDay{7, 5}), Json("07:05"));
  EXPECT_EQ(json::encode(*json::decode<TimeOfDay>(Json::parse(R"({"hour":7,"minute":5})"))), Json("07:05"));
  const ScheduleEntry entry{{22, 0}, "night"};
  EXPECT_EQ(json::encode(entry), Json::parse(R"({"from":"22:00","itemID":"night"})"));
  EXPECT_EQ(*json::decode<ScheduleEntry>(json::encode(entry)), entry);
  EXPECT_FALSE(json::decode<ScheduleEntry>(Json::parse(R"({"from":"22:00"})")).has_value());
  EXPECT_FALSE(json::decode<ScheduleEntry>(Json::parse(R"({"from":"25:00","itemID":"x"})")).has_value());
}

TEST(TimeOfDayOrder, ComparesMinutesSinceMidnight) {
  EXPECT_LT((TimeOfDay{7, 59}), (TimeOfDay{8, 0}));
  EXPECT_GT((TimeOfDay{23, 0}), (TimeOfDay{22, 59}));
  EXPECT_EQ((TimeOfDay{8, 0}).minutesSinceMidnight(), 480);
  EXPECT_FALSE((TimeOfDay{8, 0}) < (TimeOfDay{8, 0}));
}

Date utc(const char* text) {
  return *ISO8601::plain().parse(text);
}

struct ZoneCase {
  const char* zone;
  const char* instant;
  TimeOfDay expected;
};

class TimeOfDayInZone : public ::testing::TestWithParam<ZoneCase> {};

TEST_P(TimeOfDayInZone, IsTheWallClockOfThatZone) {
  const auto* zone = findTimeZone(GetParam().zone);
  ASSERT_NE(zone, nullptr) << GetParam().zone;
  EXPECT_EQ(TimeOfDay::of(utc(GetParam().instant), *zone), GetParam().expected)
      << GetParam().zone << " " << GetParam().instant;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Schedule, TimeOfDayInZone, ::testing::Values(
  ZoneCase{"UTC",                 "2024-06-01T07:30:59Z", {7, 30}},
  ZoneCase{"Europe/Berlin",       "2024-06-01T07:30:00Z", {9, 30}},
  ZoneCase{"America/New_York",    "2024-06-01T07:30:00Z", {3, 30}},
  ZoneCase{"Asia/Kathmandu",      "2024-06-01T00:00:00Z", {5, 45}},
  ZoneCase{"America/St_Johns",    "2024-01-01T03:00:00Z", {23, 30}},
  // The spring-forward night in Berlin: 01:59 CET is followed by 03:00 CEST.
  ZoneCase{"Europe/Berlin",       "2024-03-31T00:59:59Z", {1, 59}},
  ZoneCase{"Europe/Berlin",       "2024-03-31T01:00:00Z", {3, 0}},
  // Falling back, 02:30 happens twice.
  ZoneCase{"Europe/Berlin",       "2024-10-27T00:30:00Z", {2, 30}},
  ZoneCase{"Europe/Berlin",       "2024-10-27T01:30:00Z", {2, 30}},
  ZoneCase{"UTC",                 "1969-12-31T23:59:30Z", {23, 59}}));
// clang-format on

}  // namespace
}  // namespace korvalen
