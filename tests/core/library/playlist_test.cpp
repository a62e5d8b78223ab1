#include "core/library/playlist.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

Playlist makePlaylist(std::string name, std::vector<std::string> items = {}, std::int64_t interval = 30,
                      bool shuffle = false, std::vector<ScheduleEntry> schedule = {}) {
  return Playlist{std::move(name), std::move(items), interval, shuffle, std::move(schedule)};
}

using json::Json;

struct IntervalCase {
  const char* name;
  const char* value;  // JSON text of "intervalMinutes", or "" for absent
  std::int64_t expected;
};

class PlaylistInterval : public ::testing::TestWithParam<IntervalCase> {};

TEST_P(PlaylistInterval, ReadsIntegersAsTheyAreAndRoundsFloatsToAtLeastOne) {
  auto json = Json::parse(R"({"name":"p"})");
  if (*GetParam().value != '\0') {
    json["intervalMinutes"] = Json::parse(GetParam().value);
  }
  const auto playlist = json::decode<Playlist>(json);
  ASSERT_TRUE(playlist.has_value()) << playlist.error().describe();
  EXPECT_EQ(playlist->intervalMinutes, GetParam().expected);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Playlist, PlaylistInterval, ::testing::Values(
  IntervalCase{"Integer", "45", 45},          IntervalCase{"ZeroKept", "0", 0},
  IntervalCase{"NegativeKept", "-5", -5},     IntervalCase{"HalfRoundsUp", "2.5", 3},
  IntervalCase{"SmallIsOne", "0.2", 1},       IntervalCase{"NegativeFloatIsOne", "-3.7", 1},
  IntervalCase{"WholeFloat", "7.0", 7},       IntervalCase{"Absent", "", 30},
  IntervalCase{"Text", "\"ten\"", 30},        IntervalCase{"Null", "null", 30},
  IntervalCase{"HugeFloat", "1e300", 9200000000000000000}),
  korvalen::testing::ByName{});
// clang-format on

TEST(PlaylistDecoding, MistypedListsFailTheWholePlaylistButShuffleDoesNot) {
  const auto good = json::decode<Playlist>(
      Json::parse(R"({"name":"Day","itemIDs":["a","b"],"shuffle":"yes","schedule":[{"from":"7:00","itemID":"a"}]})"));
  ASSERT_TRUE(good.has_value());
  EXPECT_FALSE(good->shuffle);
  EXPECT_TRUE(good->isScheduled());
  EXPECT_EQ(good->schedule[0].from, (TimeOfDay{7, 0}));

  EXPECT_FALSE(json::decode<Playlist>(Json::parse(R"({"name":"p","itemIDs":"a"})")).has_value());
  EXPECT_FALSE(json::decode<Playlist>(Json::parse(R"({"name":"p","itemIDs":["a",1]})")).has_value());
  EXPECT_FALSE(
      json::decode<Playlist>(Json::parse(R"({"name":"p","schedule":[{"from":"25:00","itemID":"a"}]})")).has_value());
  EXPECT_FALSE(json::decode<Playlist>(Json::parse(R"({"itemIDs":[]})")).has_value());
  EXPECT_FALSE(json::decode<Playlist>(Json::parse(R"(["p"])")).has_value());
}

TEST(PlaylistEncoding, WritesAllFiveKeys) {
  const Playlist playlist = makePlaylist("Evening", {"a"}, 15, true, {{{20, 0}, "a"}});
  const auto json = json::encode(playlist);
  EXPECT_EQ(
      json,
      Json::parse(
          R"({"name":"Evening","itemIDs":["a"],"intervalMinutes":15,"shuffle":true,"schedule":[{"from":"20:00","itemID":"a"}]})"));
  EXPECT_EQ(*json::decode<Playlist>(json), playlist);
  EXPECT_EQ(json::encode(makePlaylist("Empty")).size(), 5U);
}

}  // namespace
}  // namespace korvalen
