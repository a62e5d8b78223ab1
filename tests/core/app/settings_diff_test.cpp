#include "core/app/settings_diff.hpp"

#include "core/app/settings.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

KorvalenSettings current() {
  KorvalenSettings onto;
  onto.power.fpsCap = 24;
  onto.playlists.push_back(Playlist{"Disk", {"a"}, 10, false, {}});
  onto.activePlaylist = "Disk";
  onto.monitorWallpapers["m1"] = MonitorAssignment{"x", std::nullopt, false};
  return onto;
}

TEST(SettingsDiff, NoEditLeavesOntoAsItIs) {
  const auto onto = current();
  KorvalenSettings from;
  from.firstRunShown = true;
  EXPECT_EQ(SettingsDiff::apply(onto, from, from), onto);
}

TEST(SettingsDiff, OnlyTheEditedSectionsAreCarriedOver) {
  const auto onto = current();
  const KorvalenSettings from;
  KorvalenSettings to = from;
  to.firstRunShown = true;
  const auto merged = SettingsDiff::apply(onto, from, to);
  EXPECT_TRUE(merged.firstRunShown);
  EXPECT_EQ(merged.playlists, onto.playlists);
  EXPECT_EQ(merged.power, onto.power);
  EXPECT_EQ(merged.activePlaylist, onto.activePlaylist);
}

TEST(SettingsDiff, AChangedFieldReplacesItsWholeSection) {
  auto onto = current();
  onto.power.onBattery = PauseAction::stop;
  const KorvalenSettings from;
  KorvalenSettings to = from;
  to.power.fpsCap = 60;
  const auto merged = SettingsDiff::apply(onto, from, to);
  EXPECT_EQ(merged.power, to.power) << "onto's own power change is replaced too";
}

TEST(SettingsDiff, ClearingAnOptionalRemovesIt) {
  const auto onto = current();
  KorvalenSettings from;
  from.activePlaylist = "Old";
  const KorvalenSettings to;
  EXPECT_FALSE(SettingsDiff::apply(onto, from, to).activePlaylist.has_value());
}

TEST(SettingsDiff, SameSectionsCompareWhateverTheOrderAndMissingIsNull) {
  json::Json a = json::Json::parse(R"({"x": 1, "y": [1, 2]})");
  json::Json b = json::Json::parse(R"({"y": [1, 2], "x": 1})");
  json::Json n = nullptr;
  json::Json f = json::Json::parse("1.0");
  json::Json i = json::Json::parse("1");
  EXPECT_TRUE(SettingsDiff::same(&a, &b));
  EXPECT_TRUE(SettingsDiff::same(nullptr, &n));
  EXPECT_FALSE(SettingsDiff::same(nullptr, &a));
  EXPECT_FALSE(SettingsDiff::same(&f, &i)) << "numbers compare by their written text";
}

TEST(SettingsDiff, DatesSurviveTheMergeExactly) {
  KorvalenSettings onto;
  onto.flashingPaths.push_back(FlashingPath{"/a", Date{std::chrono::microseconds{1714564800123456}}, 5});
  const KorvalenSettings from;
  KorvalenSettings to = from;
  to.firstRunShown = true;
  EXPECT_EQ(SettingsDiff::apply(onto, from, to).flashingPaths, onto.flashingPaths);
}

}  // namespace
}  // namespace korvalen
