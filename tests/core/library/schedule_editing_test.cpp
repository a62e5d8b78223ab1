#include "core/library/schedule_editing.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

struct LenientCase {
  const char* text;
  std::optional<TimeOfDay> expected;
};

class ScheduleParseTime : public ::testing::TestWithParam<LenientCase> {};

TEST_P(ScheduleParseTime, UnderstandsWhatPeopleType) {
  EXPECT_EQ(ScheduleEditing::parseTime(GetParam().text), GetParam().expected) << "'" << GetParam().text << "'";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Schedule, ScheduleParseTime, ::testing::Values(
  LenientCase{"7", TimeOfDay{7, 0}},          LenientCase{"07", TimeOfDay{7, 0}},
  LenientCase{" 0730 ", TimeOfDay{7, 30}},    LenientCase{"7:30", TimeOfDay{7, 30}},
  LenientCase{"07.30", TimeOfDay{7, 30}},     LenientCase{"7.30", TimeOfDay{7, 30}},
  LenientCase{"\n23:59\r\n", TimeOfDay{23, 59}}, LenientCase{"0", TimeOfDay{0, 0}},
  LenientCase{"730", std::nullopt},           LenientCase{"7:3", std::nullopt},
  LenientCase{"07:300", std::nullopt},        LenientCase{"24:00", std::nullopt},
  LenientCase{"23:60", std::nullopt},         LenientCase{"12 30", std::nullopt},
  LenientCase{"", std::nullopt},              LenientCase{"  ", std::nullopt},
  LenientCase{"+7", std::nullopt},            LenientCase{"123:00", std::nullopt},
  LenientCase{":30", std::nullopt},           LenientCase{"07:3a", std::nullopt},
  LenientCase{"7.3.", std::nullopt},          LenientCase{"07300", std::nullopt},
  LenientCase{"\u0667", std::nullopt}));  // an Arabic-Indic digit is not an ASCII digit
// clang-format on

using Rows = std::vector<ScheduleEditing::Row>;

struct BuildCase {
  const char* name;
  Rows rows;
  const char* error;
};

class ScheduleBuildFails : public ::testing::TestWithParam<BuildCase> {};

TEST_P(ScheduleBuildFails, TheFirstBadRowGivesOneSentence) {
  const auto built = ScheduleEditing::build(GetParam().rows);
  EXPECT_FALSE(built.schedule.has_value());
  EXPECT_EQ(built.error, GetParam().error);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Schedule, ScheduleBuildFails, ::testing::Values(
  BuildCase{"NotATime",   {{" 7:3 \n", "A"}},                  "'7:3' is not a time \u2014 use HH:mm, e.g. 07:30"},
  BuildCase{"NoItem",     {{"7.30", std::nullopt}},             "07:30 entry has no wallpaper chosen"},
  BuildCase{"EmptyItem",  {{"0730", ""}},                       "07:30 entry has no wallpaper chosen"},
  BuildCase{"Duplicate",  {{"07:30", "A"}, {"7.30", "B"}},      "two entries start at 07:30"},
  BuildCase{"FirstWins",  {{"25", "A"}, {"7", std::nullopt}},   "'25' is not a time \u2014 use HH:mm, e.g. 07:30"}),
  korvalen::testing::ByName{});
// clang-format on

TEST(ScheduleBuild, SortsByStartKeepingTheListedOrderOfEqualStarts) {
  const auto built = ScheduleEditing::build({{"22:00", "A"}, {"06:00", "B"}, {"12", "C"}});
  ASSERT_TRUE(built.schedule.has_value());
  EXPECT_FALSE(built.error.has_value());
  const std::vector<ScheduleEntry> expected{{{6, 0}, "B"}, {{12, 0}, "C"}, {{22, 0}, "A"}};
  EXPECT_EQ(*built.schedule, expected);

  const auto empty = ScheduleEditing::build({});
  EXPECT_EQ(empty.schedule, std::vector<ScheduleEntry>{});
  EXPECT_FALSE(empty.error.has_value());
}

}  // namespace
}  // namespace korvalen
