#include "core/playback/activity_classifier.hpp"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace korvalen {
namespace {

using ActivityClassifier::Rect;

WindowSnapshot window(std::int64_t left, std::int64_t top, std::int64_t right, std::int64_t bottom) {
  WindowSnapshot w;
  w.left = left;
  w.top = top;
  w.right = right;
  w.bottom = bottom;
  return w;
}

const std::vector<MonitorInfo> twoMonitors{{"left", 0, 0, 100, 100}, {"right", 100, 0, 100, 100}};

TEST(ActivityClassifier, AWholeMonitorWindowIsFullScreenUnlessMaximized) {
  auto full = window(0, 0, 100, 100);
  auto activities = ActivityClassifier::classify(twoMonitors, {full}, false);
  EXPECT_EQ(activities[0], (MonitorActivity{"left", true, false, false, 1.0}));
  EXPECT_EQ(activities[1], (MonitorActivity{"right", false, false, false, 0.0}));
  full.isMaximized = true;
  activities = ActivityClassifier::classify(twoMonitors, {full}, false);
  EXPECT_EQ(activities[0], (MonitorActivity{"left", false, true, false, 1.0}));
}

TEST(ActivityClassifier, OverlappingWindowsCountOnce) {
  const auto half = window(0, 0, 50, 100);
  EXPECT_DOUBLE_EQ(ActivityClassifier::coveredFraction(twoMonitors[0], {half, half}), 0.5);
  EXPECT_DOUBLE_EQ(ActivityClassifier::coveredFraction(twoMonitors[0], {half, window(25, 0, 75, 100)}), 0.75);
  EXPECT_EQ(ActivityClassifier::coveredFraction({"zero", 0, 0, 0, 100}, {half}), 0.0);
  EXPECT_DOUBLE_EQ(ActivityClassifier::coveredFraction(twoMonitors[0], {window(-500, -500, 500, 500)}), 1.0);
}

TEST(ActivityClassifier, AStraddlingWindowCountsOnBothButIsInFrontOnOne) {
  auto straddling = window(40, 0, 160, 50);  // 60 columns on the left, 60 on the right: a tie
  straddling.isForeground = true;
  straddling.isMaximized = true;
  auto activities = ActivityClassifier::classify(twoMonitors, {straddling}, false);
  EXPECT_TRUE(activities[0].hasForegroundWindow) << "the earlier monitor wins the tie";
  EXPECT_FALSE(activities[1].hasForegroundWindow);
  EXPECT_TRUE(activities[0].hasMaximizedWindow && activities[1].hasMaximizedWindow);
  EXPECT_DOUBLE_EQ(activities[0].coveredFraction, 0.3);
  EXPECT_DOUBLE_EQ(activities[1].coveredFraction, 0.3);
  straddling.right = 161;  // now more of it is on the right
  activities = ActivityClassifier::classify(twoMonitors, {straddling}, false);
  EXPECT_TRUE(activities[1].hasForegroundWindow);
  EXPECT_FALSE(activities[0].hasForegroundWindow);
}

TEST(ActivityClassifier, WindowsThatAreNotOtherAppsAffectNothing) {
  std::vector<WindowSnapshot> ignored;
  for (int flag = 0; flag < 7; ++flag) {
    auto w = window(0, 0, 100, 100);
    w.isForeground = true;
    switch (flag) {
      case 0:
        w.isOurs = true;
        break;
      case 1:
        w.isShell = true;
        break;
      case 2:
        w.isClickThrough = true;
        break;
      case 3:
        w.isCloaked = true;
        break;
      case 4:
        w.isMinimized = true;
        break;
      case 5:
        w.isVisible = false;
        break;
      default:
        w.right = w.left;
        break;  // zero width
    }
    ignored.push_back(w);
  }
  const auto activities = ActivityClassifier::classify(twoMonitors, ignored, true);
  EXPECT_EQ(activities[0], (MonitorActivity{"left", false, false, false, 0.0}));
}

TEST(ActivityClassifier, ExclusiveFullScreenMarksOnlyTheForegroundMonitor) {
  auto front = window(120, 10, 150, 40);
  front.isForeground = true;
  auto activities = ActivityClassifier::classify(twoMonitors, {front}, true);
  EXPECT_FALSE(activities[0].hasFullscreenWindow);
  EXPECT_TRUE(activities[1].hasFullscreenWindow);
  activities = ActivityClassifier::classify(twoMonitors, {window(120, 10, 150, 40)}, true);
  EXPECT_FALSE(activities[0].hasFullscreenWindow || activities[1].hasFullscreenWindow) << "no foreground window";
  EXPECT_TRUE(ActivityClassifier::classify({}, {front}, true).empty());
}

TEST(ActivityClassifierDeathTest, OverflowingGeometryIsAProgrammingError) {
  constexpr auto huge = std::numeric_limits<std::int64_t>::max();
  EXPECT_DEATH(ActivityClassifier::unionArea({{0, 0, huge, 2}, {-5, 0, 0, 1}}), "precondition failed");
  EXPECT_DEATH(ActivityClassifier::coveredFraction({"m", huge, 0, 10, 10}, {window(0, 0, 1, 1)}),
               "precondition failed");
}

// The union against a brute-force count of unit cells, over many random sets.
TEST(ActivityClassifierProperty, UnionAreaEqualsTheCellCount) {
  std::mt19937 random(20261122);
  std::uniform_int_distribution<std::int64_t> coordinate(-20, 20);
  std::uniform_int_distribution<std::size_t> count(0, 12);
  for (int round = 0; round < 300; ++round) {
    std::vector<Rect> rects;
    const auto n = count(random);
    for (std::size_t i = 0; i < n; ++i) {
      // Some rectangles are empty or inverted on purpose: they cover nothing.
      rects.push_back({coordinate(random), coordinate(random), coordinate(random), coordinate(random)});
    }
    std::set<std::pair<std::int64_t, std::int64_t>> cells;
    for (const auto& rect : rects) {
      for (auto x = rect.l; x < rect.r; ++x) {
        for (auto y = rect.t; y < rect.b; ++y) {
          cells.insert({x, y});
        }
      }
    }
    ASSERT_EQ(ActivityClassifier::unionArea(rects), static_cast<std::int64_t>(cells.size())) << "round " << round;
  }
}

TEST(ActivityClassifierCoding, WindowsNeedTheirEdgesAndDefaultToVisible) {
  const auto w = json::decode<WindowSnapshot>(json::Json::parse(R"({"left":0,"top":0,"right":5,"bottom":5})"));
  ASSERT_TRUE(w.has_value());
  EXPECT_TRUE(w->isVisible);
  EXPECT_EQ(json::decode<WindowSnapshot>(json::Json::parse(R"({"left":0,"top":0,"right":5})")).error().describe(),
            "bottom: missing");
  EXPECT_FALSE(json::decode<MonitorInfo>(json::Json::parse(R"({"deviceName":"m","x":0,"y":0,"width":"1","height":1})"))
                   .has_value());
}

}  // namespace
}  // namespace korvalen
