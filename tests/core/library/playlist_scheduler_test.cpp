#include "core/library/playlist_scheduler.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

Playlist makePlaylist(std::string name, std::vector<std::string> items = {}, std::int64_t interval = 30,
                      bool shuffle = false, std::vector<ScheduleEntry> schedule = {}) {
  return Playlist{std::move(name), std::move(items), interval, shuffle, std::move(schedule)};
}

using namespace std::chrono_literals;
using Items = std::vector<std::string>;

// Expected values below were computed by a separate script, not by this code.

TEST(Fnv1a64, MatchesThePublishedTestValues) {
  EXPECT_EQ(fnv1a64(""), 0xCBF29CE484222325ULL);
  EXPECT_EQ(fnv1a64("a"), 0xAF63DC4C8601EC8CULL);
  EXPECT_EQ(fnv1a64("foobar"), 0x85944171F73967E8ULL);
  EXPECT_EQ(fnv1a64("\u00e9"), 0x0AC21707B7181E01ULL) << "hashes the UTF-8 bytes";
}

TEST(SplitMix64Generator, FirstOutputsMatchTheReference) {
  EXPECT_EQ(SplitMix64(0).next(), 0xE220A8397B1DCDAFULL);
  EXPECT_EQ(SplitMix64(1234567).next(), 0x599ED017FB08FC85ULL);
}

struct ShuffleCase {
  const char* name;
  Items items;
  std::uint64_t seed;
  std::optional<std::string> avoidFirst;
  Items expected;
};

class ShuffleOrder : public ::testing::TestWithParam<ShuffleCase> {};

TEST_P(ShuffleOrder, IsReproducibleBitForBit) {
  const auto& c = GetParam();
  EXPECT_EQ(PlaylistScheduler::shuffleOrder(c.items, c.seed, c.avoidFirst), c.expected);
}

const Items tenItems{"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"};
const Items fiveItems{"A", "B", "C", "D", "E"};

// clang-format off
INSTANTIATE_TEST_SUITE_P(Playlist, ShuffleOrder, ::testing::Values(
  ShuffleCase{"Seed0",        tenItems, 0,                     std::nullopt, {"g","d","c","j","i","b","e","h","a","f"}},
  ShuffleCase{"Seed1",        tenItems, 1,                     std::nullopt, {"e","c","i","b","j","d","a","g","h","f"}},
  ShuffleCase{"Seed42",       tenItems, 42,                    std::nullopt, {"a","j","f","i","g","e","h","c","b","d"}},
  ShuffleCase{"SeedAllOnes",  tenItems, 0xFFFFFFFFFFFFFFFFULL, std::nullopt, {"d","e","c","h","f","a","i","b","j","g"}},
  ShuffleCase{"NegativeSeed", tenItems, static_cast<std::uint64_t>(-7), std::nullopt, {"f","g","j","i","h","d","e","b","a","c"}},
  ShuffleCase{"AvoidSwapsFirstAndLast", fiveItems, 0,          "C",          {"A","D","B","E","C"}},
  ShuffleCase{"AvoidOtherItemChangesNothing", fiveItems, 0,    "E",          {"C","D","B","E","A"}},
  ShuffleCase{"TwoItemsNeverStartWithAvoided", {"A","B"}, 2,   "B",          {"A","B"}},
  ShuffleCase{"TwoItemsSwapped", {"A","B"}, 0,                 "A",          {"B","A"}},
  ShuffleCase{"OneItem",      {"x"}, 9,                        "x",          {"x"}},
  ShuffleCase{"Empty",        {}, 9,                           std::nullopt, {}}),
  korvalen::testing::ByName{});
// clang-format on

Date utc(const char* text) {
  return *ISO8601::plain().parse(text);
}

TEST(ReshuffleSeed, CombinesTheItemHashWithTheWholeSecond) {
  EXPECT_EQ(PlaylistScheduler::reshuffleSeed("sunrise", utc("2024-05-01T12:00:00Z")), 0xA50D0554C4E068E4ULL);
  EXPECT_EQ(PlaylistScheduler::reshuffleSeed("sunrise", utc("2024-05-01T12:00:00Z") + 999ms), 0xA50D0554C4E068E4ULL);
  // One microsecond before 1970 is second -1: all ones as a bit pattern.
  EXPECT_EQ(PlaylistScheduler::reshuffleSeed(std::nullopt, Date{} - 1us), 0x340D631B7BDDDCDAULL);
}

class Scheduler : public ::testing::Test {
 protected:
  const TimeZone& utcZone = *findTimeZone("UTC");
  Date morning = utc("2024-05-01T09:00:00Z");
};

TEST_F(Scheduler, StartKeepsOnlyAvailableItems) {
  const Playlist playlist = makePlaylist("p", {"a", "b", "c"});
  const auto state = PlaylistScheduler::start(
      playlist, morning, 0, [](const std::string& id) { return id != "a"; }, utcZone);
  EXPECT_EQ(state, (PlaylistState{"b", morning, 0, {"b", "c"}}));

  const auto nothing = PlaylistScheduler::start(
      playlist, morning, 0, [](const std::string&) { return false; }, utcZone);
  EXPECT_EQ(nothing, (PlaylistState{std::nullopt, morning, -1, {}}));
  EXPECT_FALSE(PlaylistScheduler::isDue(playlist, nothing, morning + 24h, utcZone));
  EXPECT_EQ(PlaylistScheduler::advance(playlist, nothing, morning + 24h, utcZone), nothing);
}

TEST_F(Scheduler, ShuffledStartUsesTheSeedsBitPattern) {
  const Playlist playlist = makePlaylist("p", tenItems, 30, true);
  const auto state = PlaylistScheduler::start(playlist, morning, -7, nullptr, utcZone);
  EXPECT_EQ(state.order, (Items{"f", "g", "j", "i", "h", "d", "e", "b", "a", "c"}));
  EXPECT_EQ(state.currentID, "f");
  EXPECT_EQ(state.position, 0);
}

TEST_F(Scheduler, IntervalIsAtLeastOneMinuteAndOneItemIsNeverDue) {
  Playlist playlist = makePlaylist("p", {"a", "b"}, 0);
  const auto state = PlaylistScheduler::start(playlist, morning, 0, nullptr, utcZone);
  EXPECT_FALSE(PlaylistScheduler::isDue(playlist, state, morning + 59s, utcZone));
  EXPECT_TRUE(PlaylistScheduler::isDue(playlist, state, morning + 60s, utcZone));
  playlist.intervalMinutes = -10;
  EXPECT_TRUE(PlaylistScheduler::isDue(playlist, state, morning + 60s, utcZone));
  playlist.intervalMinutes = 30;
  EXPECT_FALSE(PlaylistScheduler::isDue(playlist, state, morning + 30min - 1us, utcZone));
  EXPECT_TRUE(PlaylistScheduler::isDue(playlist, state, morning + 30min, utcZone));

  const Playlist single = makePlaylist("one", {"a"}, 1);
  const auto alone = PlaylistScheduler::start(single, morning, 0, nullptr, utcZone);
  EXPECT_FALSE(PlaylistScheduler::isDue(single, alone, morning + 1000h, utcZone));
}

TEST_F(Scheduler, AdvanceWrapsToTheStartInListedOrder) {
  const Playlist playlist = makePlaylist("p", {"a", "b", "c"}, 10);
  PlaylistState state{"c", morning, 2, {"a", "b", "c"}};
  EXPECT_EQ(PlaylistScheduler::advance(playlist, state, morning + 5min, utcZone), state) << "not due yet";
  const auto next = PlaylistScheduler::advance(playlist, state, morning + 10min, utcZone);
  EXPECT_EQ(next, (PlaylistState{"a", morning + 10min, 0, {"a", "b", "c"}}));
}

TEST_F(Scheduler, ShuffledPassesReshuffleFromTheEndedItemAndSecond) {
  const Playlist playlist = makePlaylist("p", {"a", "b", "c"}, 10, true);
  const PlaylistState state{"c", morning, 2, {"a", "b", "c"}};
  const Date now = utc("2024-05-01T12:00:00Z");
  const auto next = PlaylistScheduler::advance(playlist, state, now, utcZone);
  // fnv1a64("c") ^ 1714564800 shuffles a, b, c into a, b, c; it does not start with "c".
  EXPECT_EQ(next.order, (Items{"a", "b", "c"}));
  EXPECT_EQ(next.order, PlaylistScheduler::shuffleOrder(state.order, PlaylistScheduler::reshuffleSeed("c", now), "c"));
  EXPECT_EQ(next.currentID, "a");
  EXPECT_EQ(next.position, 0);

  // A longer list: the new pass is the reference order for that seed.
  const Playlist five = makePlaylist("p", fiveItems, 10, true);
  const PlaylistState ending{"E", morning, 4, fiveItems};
  const auto wrapped = PlaylistScheduler::advance(five, ending, now, utcZone);
  EXPECT_EQ(wrapped.order, (Items{"C", "D", "A", "B", "E"}));
  EXPECT_EQ(PlaylistScheduler::advance(five, ending, now, utcZone), wrapped) << "deterministic";
}

TEST_F(Scheduler, AdvanceAvoidingSkipsAvoidedItemsAndTheOnePlaying) {
  const Playlist playlist = makePlaylist("p", {"a", "b", "c", "d"}, 10);
  const PlaylistState state{"a", morning, 0, {"a", "b", "c", "d"}};
  const auto later = morning + 10min;

  auto result = PlaylistScheduler::advanceAvoiding(playlist, state, later, {"b", "c"}, utcZone);
  EXPECT_TRUE(result.foundClean);
  EXPECT_EQ(result.state, (PlaylistState{"d", later, 3, {"a", "b", "c", "d"}}));

  result = PlaylistScheduler::advanceAvoiding(playlist, state, later, {"b", "c", "d"}, utcZone);
  EXPECT_FALSE(result.foundClean) << "only the playing item is left";
  EXPECT_EQ(result.state, state);

  result = PlaylistScheduler::advanceAvoiding(playlist, state, later, {"a", "b", "c", "d"}, utcZone);
  EXPECT_FALSE(result.foundClean);
  EXPECT_EQ(result.state, state);

  result = PlaylistScheduler::advanceAvoiding(playlist, state, morning + 9min, {}, utcZone);
  EXPECT_FALSE(result.foundClean) << "the interval has not elapsed";
  EXPECT_EQ(result.state, state);
}

TEST_F(Scheduler, AdvanceAvoidingUsesOneReshuffleForEveryWrapOfACall) {
  const Playlist playlist = makePlaylist("p", fiveItems, 10, true);
  const PlaylistState state{"D", morning, 3, {"A", "B", "C", "D", "E"}};
  const Date now = utc("2024-05-01T12:00:00Z");
  // The reference reshuffle for ("D", that second) is A B E D C. Avoiding all but C, the walk
  // passes E, wraps into the reshuffled order and finds C at its end.
  const Items expectedOrder{"A", "B", "E", "D", "C"};
  const std::set<std::string> avoid{"A", "B", "D", "E"};
  const auto result = PlaylistScheduler::advanceAvoiding(playlist, state, now, avoid, utcZone);
  ASSERT_TRUE(result.foundClean);
  EXPECT_EQ(result.state.order, expectedOrder);
  EXPECT_EQ(result.state.currentID, expectedOrder.back());
  EXPECT_EQ(result.state.position, 4);
}

struct ScheduleCase {
  const char* name;
  const char* zone;
  const char* instant;
  Items available;
  std::optional<std::string> expected;
};

class ScheduledItem : public ::testing::TestWithParam<ScheduleCase> {};

TEST_P(ScheduledItem, TheLatestStartAtOrBeforeNowWithCarryOverFromLastNight) {
  const Playlist playlist = makePlaylist("day", {"A", "B", "C", "D"}, 30, false,
                                         {{{20, 0}, "B"}, {{8, 0}, "A"}, {{12, 0}, "C"}, {{12, 0}, "D"}});
  const auto* zone = findTimeZone(GetParam().zone);
  ASSERT_NE(zone, nullptr);
  EXPECT_EQ(PlaylistScheduler::scheduledItem(playlist, utc(GetParam().instant), GetParam().available, *zone),
            GetParam().expected);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Playlist, ScheduledItem, ::testing::Values(
  ScheduleCase{"CarryOverBeforeFirstStart", "UTC", "2024-05-01T07:59:59Z", {"A","B","C","D"}, "B"},
  ScheduleCase{"AtTheStart",                "UTC", "2024-05-01T08:00:00Z", {"A","B","C","D"}, "A"},
  ScheduleCase{"JustBeforeTheNext",         "UTC", "2024-05-01T11:59:00Z", {"A","B","C","D"}, "A"},
  ScheduleCase{"EqualStartsLastListedWins", "UTC", "2024-05-01T12:00:00Z", {"A","B","C","D"}, "D"},
  ScheduleCase{"AtTheLastStart",            "UTC", "2024-05-01T20:00:00Z", {"A","B","C","D"}, "B"},
  ScheduleCase{"UnavailableEntriesIgnored", "UTC", "2024-05-01T13:00:00Z", {"A","B"},         "A"},
  ScheduleCase{"CarryOverOfAvailableOnly",  "UTC", "2024-05-01T21:00:00Z", {"A","C"},         "C"},
  ScheduleCase{"OnlyUnavailableEntries",    "UTC", "2024-05-01T09:00:00Z", {"X","Y"},         "X"},
  ScheduleCase{"NothingAvailable",          "UTC", "2024-05-01T09:00:00Z", {},                std::nullopt},
  // The same instant is 07:30 in Lisbon and 08:30 in Berlin.
  ScheduleCase{"Lisbon",          "Europe/Lisbon", "2024-05-01T06:30:00Z", {"A","B","C","D"}, "B"},
  ScheduleCase{"Berlin",          "Europe/Berlin", "2024-05-01T06:30:00Z", {"A","B","C","D"}, "A"},
  // Spring forward in Berlin: 07:59 CEST is 05:59 UTC, 08:00 CEST is 06:00 UTC.
  ScheduleCase{"DstDayBefore",    "Europe/Berlin", "2024-03-31T05:59:00Z", {"A","B","C","D"}, "B"},
  ScheduleCase{"DstDayAt",        "Europe/Berlin", "2024-03-31T06:00:00Z", {"A","B","C","D"}, "A"},
  // In winter 08:00 in Berlin is 07:00 UTC.
  ScheduleCase{"WinterAt",        "Europe/Berlin", "2024-01-15T07:00:00Z", {"A","B","C","D"}, "A"}),
  korvalen::testing::ByName{});
// clang-format on

TEST_F(Scheduler, ScheduledPlaylistsChangeOnlyWhenTheEntryChanges) {
  const Playlist playlist = makePlaylist("day", {"A", "B"}, 30, false, {{{8, 0}, "A"}, {{20, 0}, "B"}});
  const auto state = PlaylistScheduler::start(playlist, utc("2024-05-01T07:00:00Z"), 0, nullptr, utcZone);
  EXPECT_EQ(state, (PlaylistState{"B", utc("2024-05-01T07:00:00Z"), -1, {"A", "B"}}));
  EXPECT_FALSE(PlaylistScheduler::isDue(playlist, state, utc("2024-05-01T07:59:00Z"), utcZone));
  const auto eight = utc("2024-05-01T08:00:00Z");
  EXPECT_TRUE(PlaylistScheduler::isDue(playlist, state, eight, utcZone));
  const auto next = PlaylistScheduler::advance(playlist, state, eight, utcZone);
  EXPECT_EQ(next, (PlaylistState{"A", eight, -1, {"A", "B"}}));

  const auto avoided = PlaylistScheduler::advanceAvoiding(playlist, state, eight, {"A"}, utcZone);
  EXPECT_FALSE(avoided.foundClean) << "the scheduled item is avoided";
  EXPECT_EQ(avoided.state, next) << "but the schedule still moves on";
  EXPECT_TRUE(PlaylistScheduler::advanceAvoiding(playlist, state, eight, {"B"}, utcZone).foundClean);
  EXPECT_FALSE(PlaylistScheduler::advanceAvoiding(playlist, next, eight, {}, utcZone).foundClean) << "not due";
}

}  // namespace
}  // namespace korvalen
