#include "core/playback/power_rule_parser.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

using Kind = PowerRuleParser::RuleError::Kind;

struct RuleCase {
  const char* name;
  const char* rule;
  PauseAction PowerSettings::*field;  // null when the rule fails
  PauseAction action;
  Kind kind;
  const char* message;
};

class PowerRule : public ::testing::TestWithParam<RuleCase> {};

TEST_P(PowerRule, SetsOneFieldOrSaysExactlyWhatIsWrong) {
  const auto& c = GetParam();
  PowerSettings start;
  start.onFullscreen = PauseAction::mute;  // not the default, to see it change
  const auto result = PowerRuleParser::apply(start, c.rule);
  if (c.field != nullptr) {
    ASSERT_TRUE(result.has_value()) << result.error().description();
    PowerSettings expected = start;
    expected.*c.field = c.action;
    EXPECT_EQ(*result, expected);
  } else {
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().kind, c.kind);
    EXPECT_EQ(result.error().description(), c.message);
  }
}

constexpr const char* unused = "";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Power, PowerRule, ::testing::Values(
  RuleCase{"CaseInsensitive",  "FULLSCREEN=Pause",       &PowerSettings::onFullscreen,    PauseAction::pause, {}, unused},
  RuleCase{"TrimmedUnderscore","  display_off = stop ",  &PowerSettings::onDisplayOff,    PauseAction::stop,  {}, unused},
  RuleCase{"SaverSynonym",     "Power_Saving = Mute",    &PowerSettings::onPowerSaving,   PauseAction::mute,  {}, unused},
  RuleCase{"EnergySaver",      "energy-saver=keep",      &PowerSettings::onPowerSaving,   PauseAction::keepRunning, {}, unused},
  RuleCase{"Maximised",        "maximised=run",          &PowerSettings::onMaximized,     PauseAction::keepRunning, {}, unused},
  RuleCase{"Covered",          "covered=free",           &PowerSettings::onOccluded,      PauseAction::stop,  {}, unused},
  RuleCase{"Focus",            "focus=ignore",           &PowerSettings::onFocused,       PauseAction::keepRunning, {}, unused},
  RuleCase{"Lock",             "lock=keep-running",      &PowerSettings::onLocked,        PauseAction::keepRunning, {}, unused},
  RuleCase{"Remote",           "remote-desktop=pause",   &PowerSettings::onRemoteDesktop, PauseAction::pause, {}, unused},
  RuleCase{"ScreenOff",        "screen_off=keepRunning", &PowerSettings::onDisplayOff,    PauseAction::keepRunning, {}, unused},
  RuleCase{"Battery",          "battery=mute",           &PowerSettings::onBattery,       PauseAction::mute,  {}, unused},
  RuleCase{"UnknownAction",    "fullscreen=sleep",       nullptr, {}, Kind::unknownAction,
           "unknown action 'sleep' in 'fullscreen=sleep'; expected one of keep, mute, pause, stop"},
  RuleCase{"ActionCheckedFirst", "nap=sleep",            nullptr, {}, Kind::unknownAction,
           "unknown action 'sleep' in 'nap=sleep'; expected one of keep, mute, pause, stop"},
  RuleCase{"UnknownTrigger",   "sleep=pause",            nullptr, {}, Kind::unknownTrigger,
           "unknown trigger 'sleep' in 'sleep=pause'; expected one of fullscreen, maximized, focused, occluded, battery, power-saving, locked, rdp, display-off"},
  RuleCase{"TriggerAsWritten", " Nap_Time =pause",       nullptr, {}, Kind::unknownTrigger,
           "unknown trigger 'Nap_Time' in ' Nap_Time =pause'; expected one of fullscreen, maximized, focused, occluded, battery, power-saving, locked, rdp, display-off"},
  RuleCase{"NoEquals",         "fullscreen",             nullptr, {}, Kind::malformed,
           "rule 'fullscreen' must look like trigger=action, e.g. fullscreen=pause"},
  RuleCase{"NoTrigger",        "=pause",                 nullptr, {}, Kind::malformed,
           "rule '=pause' must look like trigger=action, e.g. fullscreen=pause"},
  RuleCase{"BlankAction",      "fullscreen= \t",         nullptr, {}, Kind::malformed,
           "rule 'fullscreen= \t' must look like trigger=action, e.g. fullscreen=pause"},
  RuleCase{"SplitAtFirst",     "fullscreen=pause=now",   nullptr, {}, Kind::unknownAction,
           "unknown action 'pause=now' in 'fullscreen=pause=now'; expected one of keep, mute, pause, stop"}),
  korvalen::testing::ByName{});
// clang-format on

TEST(PowerWords, ActionsAndGpuWords) {
  EXPECT_EQ(PowerRuleParser::parseAction("  Keep-Running\t"), PauseAction::keepRunning);
  EXPECT_EQ(PowerRuleParser::parseAction(""), std::nullopt);
  EXPECT_EQ(PowerRuleParser::parseAction("keep running"), std::nullopt);
  EXPECT_EQ(PowerRuleParser::parseGpu("High-Performance"), GpuPreference::discrete);
  EXPECT_EQ(PowerRuleParser::parseGpu(" iGPU "), GpuPreference::integrated);
  EXPECT_EQ(PowerRuleParser::parseGpu("minimum-power"), GpuPreference::integrated);
  EXPECT_EQ(PowerRuleParser::parseGpu("AUTO"), GpuPreference::automatic);
  EXPECT_EQ(PowerRuleParser::parseGpu("turbo"), std::nullopt);
  EXPECT_EQ(pauseActionFromRaw(2), PauseAction::pause);
  EXPECT_EQ(pauseActionFromRaw(4), std::nullopt);
  EXPECT_EQ(pauseActionFromRaw(-1), std::nullopt);
  EXPECT_LT(PauseAction::mute, PauseAction::pause);
}

TEST(PowerWords, ErrorsCompareByKindAndPayload) {
  const auto a = PowerRuleParser::apply({}, "x=pause").error();
  EXPECT_EQ(a, PowerRuleParser::apply({}, "x=pause").error());
  EXPECT_NE(a, PowerRuleParser::apply({}, "y=pause").error());
}

TEST(PowerDescribe, OneLineInTheFixedLayout) {
  EXPECT_EQ(PowerRuleParser::describe(PowerSettings{}),
            "fullscreen=pause maximized=keep focused=keep occluded=keep(>90%) battery=keep power-saving=pause "
            "locked=pause rdp=pause display-off=pause per-monitor=on fps=30/15 on battery gpu=integrated");
  PowerSettings custom;
  custom.onOccluded = PauseAction::mute;
  custom.occludedCoverage = 0.955;
  custom.perMonitor = false;
  custom.fpsCap = 60;
  custom.fpsCapOnBattery = 24;
  custom.gpu = GpuPreference::automatic;
  EXPECT_EQ(PowerRuleParser::describe(custom),
            "fullscreen=pause maximized=keep focused=keep occluded=mute(>96%) battery=keep power-saving=pause "
            "locked=pause rdp=pause display-off=pause per-monitor=off fps=60/24 on battery gpu=auto");
}

}  // namespace
}  // namespace korvalen
