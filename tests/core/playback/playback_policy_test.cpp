#include "core/playback/playback_policy.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

MonitorActivity quiet(const std::string& id) {
  return MonitorActivity{id, false, false, false, 0};
}

TEST(PlaybackPolicy, NothingGoingOnRunsEverywhere) {
  AccessibilitySettings accessibility;
  accessibility.motionScale = 0.5;
  SystemState state;
  state.monitors = {quiet("a"), quiet("b")};
  const auto decision = PlaybackPolicy::evaluate(PowerSettings{}, accessibility, state);
  EXPECT_EQ(decision.monitors, (std::vector<MonitorPlayback>{{"a", PlaybackMode::running, false, std::nullopt},
                                                             {"b", PlaybackMode::running, false, std::nullopt}}));
  EXPECT_EQ(decision.fpsCap, 30);
  EXPECT_EQ(decision.playbackRate, 0.5);
  EXPECT_TRUE(decision.allRunning());
  EXPECT_EQ(decision.decoderMode(), PlaybackMode::running);
  EXPECT_FALSE(decision.muted());
  EXPECT_EQ(decision.describe(), "running on all monitors; fps cap 30; motion 50%");
}

TEST(PlaybackPolicy, ReasonsComeInTriggerOrderAndTheStrongestActionWins) {
  PowerSettings power;
  power.onLocked = PauseAction::stop;
  power.onBattery = PauseAction::mute;
  SystemState state;
  state.manuallyPaused = true;
  state.locked = true;
  state.onBattery = true;
  state.displayOff = true;
  state.monitors = {quiet("a")};
  const auto decision = PlaybackPolicy::evaluate(power, state);
  EXPECT_EQ(decision.monitors[0],
            (MonitorPlayback{"a", PlaybackMode::stopped, true, "paused by you, on battery, locked, display off"}));
  EXPECT_EQ(decision.stoppedBecause(), "on battery, locked, display off");
  EXPECT_EQ(decision.decoderMode(), PlaybackMode::stopped);
  EXPECT_EQ(decision.fpsCap, 15) << "battery lowers the cap";
}

TEST(PlaybackPolicy, EveryGlobalTriggerHasItsReason) {
  AccessibilitySettings accessibility;
  accessibility.onReducedMotion = PauseAction::mute;
  SystemState state{true, true, true, true, true, true, true, true, true, true, true, true, {quiet("m")}};
  PowerSettings power;
  power.onBattery = PauseAction::mute;
  const auto decision = PlaybackPolicy::evaluate(power, accessibility, state);
  EXPECT_EQ(*decision.monitors[0].reason,
            "paused by you, suspending, screensaver showing, screen-share safe mode, reduced motion, meeting app "
            "running, content flashes (WCAG 2.3.1), power saving, on battery, locked, remote desktop, display off");
}

TEST(PlaybackPolicy, KeepRunningAddsNoTriggerButBatteryStillCapsFrames) {
  SystemState state;
  state.onBattery = true;
  state.contentFlashes = true;
  state.monitors = {quiet("a")};
  AccessibilitySettings noGuard;
  noGuard.flashGuard = false;
  const auto decision = PlaybackPolicy::evaluate(PowerSettings{}, noGuard, state);
  EXPECT_TRUE(decision.allRunning());
  EXPECT_EQ(decision.fpsCap, 15);
  SystemState saving;
  saving.powerSaving = true;
  PowerSettings power;
  power.onPowerSaving = PauseAction::keepRunning;
  power.fpsCap = 10;
  EXPECT_EQ(PlaybackPolicy::evaluate(power, saving).fpsCap, 10) << "the smaller cap";
  EXPECT_TRUE(PlaybackPolicy::evaluate(power, saving).monitors.empty());
}

TEST(PlaybackPolicy, AMuteTriggerAloneKeepsRunningButMuted) {
  PowerSettings power;
  power.onBattery = PauseAction::mute;
  SystemState state;
  state.onBattery = true;
  state.monitors = {quiet("a"), quiet("b")};
  const auto decision = PlaybackPolicy::evaluate(power, state);
  EXPECT_EQ(decision.monitors[0], (MonitorPlayback{"a", PlaybackMode::running, true, "on battery"}));
  EXPECT_TRUE(decision.muted());
  EXPECT_FALSE(decision.allRunning());
  EXPECT_EQ(decision.decoderMode(), PlaybackMode::running);
}

TEST(PlaybackPolicy, WindowConditionsArePerMonitorOnlyInPerMonitorMode) {
  SystemState state;
  state.monitors = {quiet("a"), quiet("b")};
  state.monitors[0].hasFullscreenWindow = true;
  PowerSettings power;
  const auto perMonitor = PlaybackPolicy::evaluate(power, state);
  EXPECT_EQ(perMonitor.monitors[0], (MonitorPlayback{"a", PlaybackMode::paused, true, "fullscreen"}));
  EXPECT_EQ(perMonitor.monitors[1].mode, PlaybackMode::running);
  EXPECT_EQ(perMonitor.describe(),
            "a: paused muted (fullscreen); b: running; decoders running; fps cap 30; motion 100%");
  power.perMonitor = false;
  const auto global = PlaybackPolicy::evaluate(power, state);
  EXPECT_EQ(global.monitors[1], (MonitorPlayback{"b", PlaybackMode::paused, true, "fullscreen"}));
  EXPECT_EQ(global.decoderMode(), PlaybackMode::paused);
}

TEST(PlaybackPolicy, CoverageAtTheThresholdCountsAndSettingsAreRepairedFirst) {
  PowerSettings power;
  power.onOccluded = PauseAction::pause;
  power.onMaximized = PauseAction::mute;
  power.onFocused = PauseAction::stop;
  power.occludedCoverage = 5;  // repaired to 1.0
  SystemState state;
  state.monitors = {quiet("a")};
  state.monitors[0].coveredFraction = 1.0;
  state.monitors[0].hasMaximizedWindow = true;
  EXPECT_EQ(PlaybackPolicy::evaluate(power, state).monitors[0],
            (MonitorPlayback{"a", PlaybackMode::paused, true, "maximized window, covered"}));
  state.monitors[0].coveredFraction = 0.99;
  state.monitors[0].hasForegroundWindow = true;
  EXPECT_EQ(PlaybackPolicy::evaluate(power, state).monitors[0],
            (MonitorPlayback{"a", PlaybackMode::stopped, true, "maximized window, app in focus"}));
}

TEST(PlaybackPolicy, StateAndDecisionCodeAsJson) {
  const auto state = json::decode<SystemState>(
      json::Json::parse(R"({"onBattery": true, "monitors": [{"monitorId": "a", "coveredFraction": 0.5}]})"));
  ASSERT_TRUE(state.has_value());
  EXPECT_TRUE(state->onBattery);
  EXPECT_EQ(state->monitors[0].coveredFraction, 0.5);
  EXPECT_EQ(json::decode<SystemState>(json::Json::parse(R"({"locked": "yes"})")).error().describe(),
            "locked: expected true or false, found string");
  const auto decision = PlaybackPolicy::evaluate(PowerSettings{}, *state);
  EXPECT_EQ(json::encode(decision),
            json::Json::parse(
                R"({"monitors":[{"monitorId":"a","mode":"running","muted":false}],"fpsCap":15,"playbackRate":1.0})"));
}

}  // namespace
}  // namespace korvalen
