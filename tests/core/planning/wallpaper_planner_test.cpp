#include "core/planning/wallpaper_planner.hpp"

#include "core/library/playlist_scheduler.hpp"
#include "core/playback/flash_guard.hpp"
#include "support/param_name.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <functional>

namespace korvalen {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

Date utc(const char* text) {
  return *ISO8601::plain().parse(text);
}

LibraryItem item(const std::string& id, WallpaperKind kind = WallpaperKind::video) {
  LibraryItem made;
  made.id = id;
  made.kind = kind;
  made.relativePath = "items/" + id + (kind == WallpaperKind::web ? "/index.html" : "/clip.mp4");
  made.title = "clip " + id;
  made.sha256 = "sha-" + id;
  return made;
}

// A library of items "1" to "n" (not saved anywhere) and settings to plan from.
struct World {
  WallpaperLibrary library = WallpaperLibrary::load("/nonexistent/Library").library;
  KorvalenSettings settings;
  PlaybackState state;
  std::vector<std::string> monitors;
  std::map<std::string, std::string> stills;
  const TimeZone* zone = findTimeZone("UTC");

  explicit World(int items = 6) {
    for (int i = 1; i <= items; ++i) {
      library.add(item(std::to_string(i)));
    }
  }

  PlannerAnswer plan(Date now) {
    const PlannerInput input{settings, library, monitors, now, *zone, state, stills};
    return WallpaperPlanner::plan(input);
  }
  // Plans and keeps the new state, as a running planner does.
  PlannerAnswer step(Date now) {
    auto answer = plan(now);
    state = answer.state;
    return answer;
  }
  SaverPlan saverPlan(Date now) {
    const PlannerInput input{settings, library, monitors, now, *zone, state, stills};
    return WallpaperPlanner::saverPlan(input, WallpaperPlanner::plan(input), now);
  }
  void playlist(const std::string& name, std::vector<std::string> items, std::int64_t interval = 30,
                bool shuffle = false, std::vector<ScheduleEntry> schedule = {}) {
    settings.playlists.push_back(Playlist{name, std::move(items), interval, shuffle, std::move(schedule)});
  }
  void flashes(const std::string& id) {
    library.edit(id, [](LibraryItem& i) {
      i.flashedAt = utc("2026-01-01T00:00:00Z");
      i.flashPeakPerSecond = 6;
    });
  }
};

const Date noon = utc("2026-05-01T12:00:00Z");

TEST(WallpaperPlanner, EachSourceInTurnNamesItsReason) {
  World world;
  world.monitors = {"dell|1920x1080", "lg|2560x1440"};
  auto answer = world.plan(noon);
  ASSERT_EQ(answer.monitors.size(), 2U);
  EXPECT_EQ(answer.monitors[0].reason, PlanReason::nothing);
  EXPECT_FALSE(answer.monitors[0].itemID);
  EXPECT_FALSE(answer.nextChange);

  world.settings.lastWallpaper = LastWallpaper{};
  world.settings.lastWallpaper->itemID = "5";
  answer = world.plan(noon);
  EXPECT_EQ(answer.monitors[1].reason, PlanReason::lastWallpaper);
  EXPECT_EQ(answer.monitors[1].itemID, "5");

  world.playlist("Morning", {"1", "2"});
  world.settings.activePlaylist = "Morning";
  world.playlist("Evening", {"3", "4"});
  world.settings.monitorWallpapers["lg|2560x1440"] = MonitorAssignment{std::nullopt, "Evening", true};
  world.settings.monitorWallpapers["dell|1920x1080"] = MonitorAssignment{"6", std::nullopt, false};
  answer = world.plan(noon);
  EXPECT_EQ(answer.monitors[0].reason, PlanReason::assignment);
  EXPECT_EQ(answer.monitors[0].itemID, "6");
  EXPECT_FALSE(answer.monitors[0].paused);
  EXPECT_EQ(answer.monitors[1].reason, PlanReason::assignmentPlaylist);
  EXPECT_EQ(answer.monitors[1].itemID, "3");
  EXPECT_TRUE(answer.monitors[1].paused) << "the user's pause is reported with the answer";
  EXPECT_THAT(answer.monitors[1].explanation, HasSubstr("\"Evening\""));
  EXPECT_EQ(answer.shared.reason, PlanReason::activePlaylist) << "any other screen gets the active playlist";
  EXPECT_EQ(answer.shared.itemID, "1");
  EXPECT_EQ(answer.nextChange, noon + 30min);
}

TEST(WallpaperPlanner, WithoutMonitorsTheAnswerIsForAnyScreen) {
  World world;
  world.playlist("Morning", {"2", "3"}, 10);
  world.settings.activePlaylist = "Morning";
  const auto answer = world.plan(noon);
  ASSERT_EQ(answer.monitors.size(), 1U);
  EXPECT_EQ(answer.monitors[0].monitorId, "*");
  EXPECT_EQ(answer.monitors[0].itemID, "2");
  EXPECT_EQ(answer.monitors[0].until, noon + 10min);
  EXPECT_TRUE(answer.state.monitors.contains("*"));
}

TEST(WallpaperPlanner, AnAssignmentAndItsPlaylistFollowTheirMonitorThroughAChangeOfSize) {
  World world;
  world.playlist("Evening", {"3", "4", "5"}, 10);
  world.settings.monitorWallpapers["dell|1920x1080"] = MonitorAssignment{std::nullopt, "Evening", false};
  world.monitors = {"dell|1920x1080"};
  world.step(noon);
  auto answer = world.step(noon + 10min);
  EXPECT_EQ(answer.monitors[0].itemID, "4");

  world.monitors = {"dell|2560x1440"};
  answer = world.step(noon + 20min);
  EXPECT_EQ(answer.monitors[0].reason, PlanReason::assignmentPlaylist);
  EXPECT_EQ(answer.monitors[0].itemID, "5") << "the playlist went on where it was, not from the start";
  EXPECT_TRUE(world.state.monitors.contains("dell|2560x1440"));
  EXPECT_FALSE(world.state.monitors.contains("dell|1920x1080")) << "the old key is taken over, not kept twice";

  world.settings.monitorWallpapers = {{"dell|1920x1080", MonitorAssignment{"2", std::nullopt, false}}};
  world.library.setMonitorCrop("2", "dell|1920x1080", CropRect{0.25, 0, 0.5, 1});
  const auto plan = world.saverPlan(noon);
  ASSERT_TRUE(plan.screens.contains("dell|2560x1440"));
  EXPECT_EQ(plan.screens.at("dell|2560x1440").path, "/nonexistent/Library/items/2/clip.mp4");
  EXPECT_EQ(plan.screens.at("dell|2560x1440").crop, (CropRect{0.25, 0, 0.5, 1})) << "its crop follows too";
}

TEST(WallpaperPlanner, MissingItemsArePassedOverWithTheirReason) {
  World world;
  world.monitors = {"dell|1920x1080"};
  world.settings.monitorWallpapers["dell|1920x1080"] = MonitorAssignment{"9", std::nullopt, false};
  auto answer = world.plan(noon);
  EXPECT_EQ(answer.monitors[0].reason, PlanReason::missing);
  EXPECT_FALSE(answer.monitors[0].itemID);
  EXPECT_THAT(answer.monitors[0].explanation, HasSubstr("Item 9, assigned to this monitor, is not in the library."));

  world.playlist("Morning", {"7", "8", "2"});
  world.settings.activePlaylist = "Morning";
  answer = world.plan(noon);
  EXPECT_EQ(answer.monitors[0].reason, PlanReason::missing) << "what was passed over names the answer";
  EXPECT_EQ(answer.monitors[0].itemID, "2") << "the playlist plays what the library still has";
  EXPECT_EQ(answer.shared.reason, PlanReason::activePlaylist);

  // An item whose file was found gone is passed over too, wherever it comes from.
  world.library.edit("2", [](LibraryItem& i) { i.missing = true; });
  world.settings.monitorWallpapers["dell|1920x1080"] = MonitorAssignment{"2", std::nullopt, false};
  answer = world.plan(noon);
  EXPECT_EQ(answer.monitors[0].reason, PlanReason::missing);
  EXPECT_FALSE(answer.monitors[0].itemID) << "the playlist has nothing else left";
  EXPECT_THAT(answer.monitors[0].explanation,
              HasSubstr("Item 2 \"clip 2\", assigned to this monitor, has lost its file."));

  world.settings.activePlaylist = "Gone";
  answer = world.plan(noon);
  EXPECT_EQ(answer.shared.reason, PlanReason::missing);
  EXPECT_THAT(answer.shared.explanation, HasSubstr("\"Gone\" is not among the playlists"));
}

struct FlashCase {
  const char* name;
  FlashGuardChoice choice;
  bool fromPlaylist;
  PlanReason reason;
  const char* itemID;
  bool held;
  const char* sentence;
};

class FlashingItem : public ::testing::TestWithParam<FlashCase> {};

TEST_P(FlashingItem, IsPlayedHeldOrSkippedAsTheUserChose) {
  const auto& c = GetParam();
  World world;
  world.flashes("2");
  world.settings.accessibility = FlashGuard::write(c.choice, world.settings.accessibility);
  world.monitors = {"dell|1920x1080"};
  if (c.fromPlaylist) {
    world.playlist("Morning", {"2", "3", "4"});
    world.settings.activePlaylist = "Morning";
  } else {
    world.settings.monitorWallpapers["dell|1920x1080"] = MonitorAssignment{"2", std::nullopt, false};
  }
  const auto answer = world.plan(noon).monitors[0];
  EXPECT_EQ(answer.reason, c.reason);
  EXPECT_EQ(answer.itemID, c.itemID);
  EXPECT_EQ(answer.held, c.held);
  EXPECT_THAT(answer.explanation, HasSubstr(c.sentence));
  EXPECT_EQ(world.saverPlan(noon).screens.at("dell|1920x1080").isHeld(), c.held);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Choices, FlashingItem, ::testing::Values(
  FlashCase{"OffPlaysIt", FlashGuardChoice::off, false, PlanReason::assignment, "2", false, "is assigned"},
  FlashCase{"WarnPlaysItWithTheWarning", FlashGuardChoice::warn, false, PlanReason::assignment, "2", false,
            "It is still playing, because Settings is set to warn only."},
  FlashCase{"PauseHoldsIt", FlashGuardChoice::pause, false, PlanReason::flashing, "2", true,
            "content flashes beyond the WCAG limit; playback paused"},
  FlashCase{"SkipWithoutAPlaylistHoldsIt", FlashGuardChoice::skip, false, PlanReason::flashing, "2", true,
            "there is no playlist to skip to, so playback paused instead"},
  FlashCase{"SkipInAPlaylistTakesTheNext", FlashGuardChoice::skip, true, PlanReason::flashing, "3", false,
            "Item 2 \"clip 2\" is known to flash: content flashes beyond the WCAG limit; skipping to the next"},
  FlashCase{"PauseInAPlaylistHoldsIt", FlashGuardChoice::pause, true, PlanReason::flashing, "2", true,
            "playback paused"}),
  korvalen::testing::ByName{});
// clang-format on

TEST(WallpaperPlanner, AFileRememberedAsFlashingCountsThoughTheLibraryHasNoMark) {
  World world;
  world.settings.flashingPaths.push_back(
      FlashingPath{"/NONEXISTENT/Library/items/2/CLIP.mp4", utc("2026-01-01T00:00:00Z"), 5});
  world.settings.lastWallpaper = LastWallpaper{};
  world.settings.lastWallpaper->itemID = "2";
  const auto answer = world.plan(noon);
  EXPECT_EQ(answer.shared.reason, PlanReason::flashing);
  EXPECT_TRUE(answer.shared.held);
}

TEST(WallpaperPlanner, SkippingEveryFlashingItemOfAPlaylistHoldsTheOneWhoseTurnItIs) {
  World world;
  world.flashes("2");
  world.flashes("3");
  world.settings.accessibility = FlashGuard::write(FlashGuardChoice::skip, world.settings.accessibility);
  world.playlist("Morning", {"2", "3"}, 10);
  world.settings.activePlaylist = "Morning";
  const auto answer = world.plan(noon).shared;
  EXPECT_EQ(answer.itemID, "2");
  EXPECT_TRUE(answer.held);
  EXPECT_EQ(answer.reason, PlanReason::flashing);
}

TEST(WallpaperPlanner, AnIntervalPlaylistStepsAtItsOwnMomentsAndCatchesUpAfterAnAbsence) {
  World world;
  world.playlist("Morning", {"1", "2", "3"}, 15);
  world.settings.activePlaylist = "Morning";
  world.step(noon);
  auto answer = world.step(noon + 14min + 59s);
  EXPECT_EQ(answer.shared.itemID, "1");
  EXPECT_EQ(answer.nextChange, noon + 15min) << "measured from the start, not from when the planner looked";
  answer = world.step(noon + 15min);
  EXPECT_EQ(answer.shared.itemID, "2");
  // Off for 100 minutes: six steps missed (the seventh since the start falls at 1:45), so the
  // item is the one a planner that kept running would show, and the phase is kept.
  answer = world.step(noon + 115min);
  EXPECT_EQ(answer.shared.itemID, "2");
  EXPECT_EQ(answer.nextChange, noon + 120min);
}

TEST(WallpaperPlanner, AShuffledPlaylistIsReproducibleFromItsSeedAndContinuesAcrossARestart) {
  World world(8);
  world.playlist("Mix", {"1", "2", "3", "4", "5", "6", "7", "8"}, 10, true);
  world.settings.activePlaylist = "Mix";
  world.monitors = {"dell|1920x1080"};
  world.step(noon);
  const auto& started = world.state.monitors.at("dell|1920x1080");
  EXPECT_EQ(started.state.order,
            PlaylistScheduler::shuffleOrder({"1", "2", "3", "4", "5", "6", "7", "8"},
                                            static_cast<std::uint64_t>(started.seed), std::nullopt));

  // One planner runs through three passes; another restarts from the saved file halfway.
  auto running = world;
  std::vector<std::string> seen;
  for (int minute = 0; minute <= 240; minute += 10) {
    seen.push_back(*running.step(noon + std::chrono::minutes(minute)).monitors[0].itemID);
  }
  auto restarted = world;
  for (int minute = 0; minute <= 120; minute += 10) {
    restarted.step(noon + std::chrono::minutes(minute));
  }
  restarted.state = PlaybackState::parse(restarted.state.serialize()).state;
  std::vector<std::string> after;
  for (int minute = 130; minute <= 240; minute += 10) {
    after.push_back(*restarted.step(noon + std::chrono::minutes(minute)).monitors[0].itemID);
  }
  EXPECT_EQ(after, std::vector<std::string>(seen.begin() + 13, seen.end()));
  // Each pass plays every item once, and a new pass never repeats the item that ended the last.
  for (std::size_t pass = 0; pass + 8 <= seen.size(); pass += 8) {
    std::set<std::string> items(seen.begin() + static_cast<std::ptrdiff_t>(pass),
                                seen.begin() + static_cast<std::ptrdiff_t>(pass + 8));
    EXPECT_EQ(items.size(), 8U);
  }
  EXPECT_NE(seen[7], seen[8]);

  // A changed playlist starts over rather than continuing a pass of other items.
  restarted.settings.playlists[0].itemIDs.pop_back();
  restarted.step(noon + 250min);
  EXPECT_EQ(restarted.state.monitors.at("dell|1920x1080").state.order.size(), 7U);
}

// Entries whose local times are skipped or repeated on the days the clocks change.
const std::vector<ScheduleEntry> dstSchedule{
    {TimeOfDay{1, 0}, "1"}, {TimeOfDay{2, 30}, "2"}, {TimeOfDay{6, 0}, "3"}, {TimeOfDay{20, 0}, "4"}};

struct DstCase {
  const char* name;
  const char* zone;
  const char* day;  // midnight UTC of the day the clocks change
};

class ScheduleAcrossDaylightSaving : public ::testing::TestWithParam<DstCase> {};

// Every minute of the day before to the day after: the item is the one the minute-of-day rule
// gives, and the next change is the first minute at which that item differs.
TEST_P(ScheduleAcrossDaylightSaving, GivesTheRightItemAndNextChangeAtEveryMinute) {
  World world;
  world.zone = findTimeZone(GetParam().zone);
  ASSERT_NE(world.zone, nullptr);
  world.playlist("Day", {"1", "2", "3", "4"}, 30, false, dstSchedule);
  world.settings.activePlaylist = "Day";
  const auto& playlist = world.settings.playlists[0];
  const Date from = utc(GetParam().day) - 24h;
  const int minutes = 3 * 24 * 60;
  const int lookahead = 2 * 24 * 60;
  std::vector<std::string> truth;
  for (int m = 0; m < minutes + lookahead; ++m) {
    truth.push_back(
        *PlaylistScheduler::scheduledItem(playlist, from + std::chrono::minutes(m), {"1", "2", "3", "4"}, *world.zone));
  }
  std::vector<int> nextDiffering(truth.size(), -1);
  for (int m = static_cast<int>(truth.size()) - 2; m >= 0; --m) {
    const auto i = static_cast<std::size_t>(m);
    nextDiffering[i] = truth[i + 1] != truth[i] ? m + 1 : nextDiffering[i + 1];
  }
  int wrong = 0;
  for (int m = 0; m < minutes && wrong < 5; m += 1) {
    const auto i = static_cast<std::size_t>(m);
    // Also half a minute in, so the change is found from inside a minute as well.
    const auto now = from + std::chrono::minutes(m) + (m % 2 == 0 ? 0s : 30s);
    const auto answer = world.step(now);
    const auto expectedUntil = from + std::chrono::minutes(nextDiffering[i]);
    if (answer.shared.itemID != truth[i] || answer.nextChange != expectedUntil) {
      ++wrong;
      ADD_FAILURE() << GetParam().zone << " at " << ISO8601::plain().format(now) << ": item "
                    << answer.shared.itemID.value_or("none") << " (expected " << truth[i] << "), next change "
                    << (answer.nextChange ? ISO8601::plain().format(*answer.nextChange) : "none") << " (expected "
                    << ISO8601::plain().format(expectedUntil) << ")";
    }
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Zones, ScheduleAcrossDaylightSaving, ::testing::Values(
  DstCase{"BerlinSpring", "Europe/Berlin", "2026-03-29T00:00:00Z"},
  DstCase{"BerlinAutumn", "Europe/Berlin", "2026-10-25T00:00:00Z"},
  DstCase{"NewYorkSpring", "America/New_York", "2026-03-08T00:00:00Z"},
  DstCase{"NewYorkAutumn", "America/New_York", "2026-11-01T00:00:00Z"}),
  korvalen::testing::ByName{});
// clang-format on

TEST(ScheduleAcrossDaylightSaving, ASkippedStartTakesOverWhenTheClockJumpsAndARepeatedHourPlaysTwice) {
  World world;
  world.zone = findTimeZone("Europe/Berlin");
  world.playlist("Day", {"1", "2", "3", "4"}, 30, false, dstSchedule);
  world.settings.activePlaylist = "Day";
  // 29 March 2026: 02:00 CET becomes 03:00 CEST, so 02:30 never happens on the wall clock.
  auto answer = world.plan(utc("2026-03-29T00:59:00Z"));
  EXPECT_EQ(answer.shared.itemID, "1");
  EXPECT_EQ(answer.nextChange, utc("2026-03-29T01:00:00Z"));
  // 25 October 2026: 03:00 CEST becomes 02:00 CET, so 02:30 comes twice, an hour apart.
  answer = world.plan(utc("2026-10-25T00:30:00Z"));
  EXPECT_EQ(answer.shared.itemID, "2");
  EXPECT_EQ(answer.nextChange, utc("2026-10-25T01:00:00Z")) << "back to 02:00, before the entry";
  answer = world.plan(utc("2026-10-25T01:00:00Z"));
  EXPECT_EQ(answer.shared.itemID, "1");
  EXPECT_EQ(answer.nextChange, utc("2026-10-25T01:30:00Z"));
}

TEST(WallpaperPlanner, TheSaverPlanCarriesTheSettingsAndEachScreensContent) {
  World world;
  world.library.add(item("7", WallpaperKind::web));
  world.stills["7"] = "/nonexistent/Library/items/7/still.png";
  world.monitors = {"dell|1920x1080", "lg|2560x1440"};
  world.settings.monitorWallpapers["dell|1920x1080"] = MonitorAssignment{"7", std::nullopt, false};
  world.settings.lastWallpaper = LastWallpaper{};
  world.settings.lastWallpaper->itemID = "3";
  world.settings.lastWallpaper->volume = 0.4;
  world.settings.screensaver.playSound = true;
  world.settings.accessibility.dim = 0.95;
  world.settings.accessibility.saturation = 0.5;
  world.settings.accessibility.motionScale = 0.5;
  world.settings.enhance.sharpness = 0.25;

  auto plan = world.saverPlan(noon);
  EXPECT_TRUE(plan.sound);
  EXPECT_DOUBLE_EQ(plan.volume, 0.4);
  EXPECT_DOUBLE_EQ(plan.dim, 0.9) << "repaired as the settings are";
  EXPECT_DOUBLE_EQ(plan.saturation, 0.5);
  EXPECT_DOUBLE_EQ(plan.rate, 0.5);
  EXPECT_EQ(plan.stopsFlashing, true);
  EXPECT_FALSE(plan.chosen);
  ASSERT_EQ(plan.screens.size(), 2U);
  EXPECT_EQ(plan.screens.at("dell|1920x1080").still, "/nonexistent/Library/items/7/still.png");
  EXPECT_EQ(plan.screens.at("dell|1920x1080").kind, WallpaperKind::web);
  EXPECT_EQ(plan.screens.at("lg|2560x1440").path, "/nonexistent/Library/items/3/clip.mp4");
  EXPECT_DOUBLE_EQ(plan.screens.at("lg|2560x1440").sharpen, 0.25);
  ASSERT_TRUE(plan.shared);
  EXPECT_EQ(plan.shared->path, "/nonexistent/Library/items/3/clip.mp4");

  world.settings.accessibility = FlashGuard::write(FlashGuardChoice::off, world.settings.accessibility);
  world.settings.screensaver.itemId = "4";
  world.flashes("4");
  plan = world.saverPlan(noon);
  EXPECT_EQ(plan.stopsFlashing, false);
  ASSERT_TRUE(plan.chosen);
  EXPECT_FALSE(plan.chosen->isHeld()) << "with the guard off, flashing content plays";
  world.settings.accessibility = FlashGuard::write(FlashGuardChoice::skip, world.settings.accessibility);
  EXPECT_TRUE(world.saverPlan(noon).chosen->isHeld()) << "the screensaver has nothing to skip to";

  world.settings.screensaver.itemId = "99";
  EXPECT_FALSE(world.saverPlan(noon).chosen);
  EXPECT_THAT(world.plan(noon).notes.at(0), HasSubstr("item 99 is not in the library"));
}

TEST(WallpaperPlanner, TheSameAnswerLaterIsTheSamePlan) {
  World world;
  world.playlist("Morning", {"1", "2"}, 30);
  world.settings.activePlaylist = "Morning";
  world.step(noon);
  const auto first = world.saverPlan(noon);
  const auto later = world.saverPlan(noon + 29min);
  EXPECT_TRUE(later.sameContent(first));
  EXPECT_FALSE(world.saverPlan(noon + 30min).sameContent(first));
}

}  // namespace
}  // namespace korvalen

namespace korvalen {
namespace {

TEST(WallpaperPlannerSkip, MovesAPlaylistOneItemOnAndTimesTheNextStepFromNow) {
  World world;
  world.playlist("Mix", {"1", "2", "3"}, 30);
  world.settings.activePlaylist = "Mix";
  world.monitors = {"a|1x1"};
  const auto start = utc("2026-05-01T10:00:00Z");
  const auto first = world.step(start);
  ASSERT_EQ(first.monitors[0].itemID, "1");
  const auto at = utc("2026-05-01T10:07:00Z");
  const PlannerInput input{world.settings, world.library, world.monitors, at, *world.zone, world.state, {}};
  const auto skipped = WallpaperPlanner::skip(input, WallpaperPlanner::plan(input), "a|1x1");
  ASSERT_TRUE(skipped.has_value()) << skipped.error();
  world.state = *skipped;
  const auto after = world.plan(at);
  EXPECT_EQ(after.monitors[0].itemID, "2");
  // A whole interval from the skip, not from the playlist's last step.
  EXPECT_EQ(after.monitors[0].until, at + 30min);
}

TEST(WallpaperPlannerSkip, SaysWhyThereIsNoNextItem) {
  struct Case {
    const char* name;
    std::function<void(World&)> setUp;
    const char* says;
  };
  const std::vector<Case> cases{
      {"one item assigned",
       [](World& w) {
         w.settings.monitorWallpapers["a|1x1"] = MonitorAssignment{"2", {}, false};
       },
       "shows one item, not a playlist"},
      {"a schedule decides",
       [](World& w) {
         w.playlist("Day", {"1", "2"}, 30, false, {{TimeOfDay{7, 0}, "1"}, {TimeOfDay{19, 0}, "2"}});
         w.settings.activePlaylist = "Day";
       },
       "follows its schedule"},
      {"a playlist of one",
       [](World& w) {
         w.playlist("Solo", {"3"}, 30);
         w.settings.activePlaylist = "Solo";
       },
       "has one item to show"},
  };
  for (const auto& c : cases) {
    World world;
    world.monitors = {"a|1x1"};
    c.setUp(world);
    const auto at = utc("2026-05-01T10:00:00Z");
    world.step(at);
    const PlannerInput input{world.settings, world.library, world.monitors, at, *world.zone, world.state, {}};
    const auto skipped = WallpaperPlanner::skip(input, WallpaperPlanner::plan(input), "a|1x1");
    ASSERT_FALSE(skipped.has_value()) << c.name;
    EXPECT_THAT(skipped.error(), HasSubstr(c.says)) << c.name;
  }
}

}  // namespace
}  // namespace korvalen
