#include "cli/cli_fixture.hpp"
#include "core/app/settings_coding.hpp"

namespace korvalen::cli {
namespace {

using korvalen::testing::readText;
using korvalen::testing::writeText;

class PolicyCli : public Cli {
 protected:
  void SetUp() override { environment["XDG_DATA_HOME"] = folder.path().string(); }
  [[nodiscard]] std::string settingsPath() const { return (folder / "Korvalen/settings.json").string(); }
  std::string state(const std::string& text) {
    const auto path = (folder / "state.json").string();
    writeText(path, text);
    return path;
  }
};

TEST_F(PolicyCli, PowerSetAppliesRulesInOrderAndDescribes) {
  const auto outcome = run({"power", "set", "fullscreen=stop", "battery=mute", "Fullscreen=pause"});
  EXPECT_EQ(outcome.status, ok) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("power.onBattery: \"keepRunning\" -> \"mute\"\n"));
  EXPECT_THAT(outcome.out, HasSubstr("fullscreen=pause maximized=keep"));
  EXPECT_EQ(Settings::read(settingsPath()).settings.power.onBattery, PauseAction::mute);
  EXPECT_EQ(run({"power", "describe"}).out,
            "fullscreen=pause maximized=keep focused=keep occluded=keep(>90%) battery=mute power-saving=pause "
            "locked=pause rdp=pause display-off=pause per-monitor=on fps=30/15 on battery gpu=integrated\n");
}

TEST_F(PolicyCli, ABadRuleIsItsMessageAndNothingIsWritten) {
  const auto outcome = run({"power", "set", "battery=mute", "nap=sleep"});
  EXPECT_EQ(outcome.status, badUsage);
  EXPECT_EQ(outcome.err, "unknown action 'sleep' in 'nap=sleep'; expected one of keep, mute, pause, stop\n");
  EXPECT_FALSE(std::filesystem::exists(settingsPath()));
}

TEST_F(PolicyCli, ExplainClassifiesWindowsAndSaysWhy) {
  const auto path = state(R"({"onBattery": true,
    "screens": [{"deviceName": "builtin", "x": 0, "y": 0, "width": 1512, "height": 982},
                {"deviceName": "dell", "x": 1512, "y": 0, "width": 2560, "height": 1440}],
    "windows": [{"left": 1512, "top": 0, "right": 4072, "bottom": 1440, "isForeground": true}]})");
  const auto outcome = run({"policy", "explain", "--state", path});
  EXPECT_EQ(outcome.status, ok) << outcome.err;
  EXPECT_EQ(outcome.out,
            "builtin: fullscreen no, maximized no, in front no, covered 0%\n"
            "dell: fullscreen yes, maximized no, in front yes, covered 100%\n"
            "builtin: running\n"
            "dell: paused muted (fullscreen)\n"
            "fps cap 15, playback rate 1\n");
  // Without per-monitor mode the full-screen window pauses both.
  ASSERT_EQ(run({"settings", "set", "power.perMonitor=false"}).status, ok);
  const auto decision = json::Json::parse(run({"policy", "explain", "--state", path, "--json"}).out);
  EXPECT_EQ(decision["monitors"][0]["mode"], "paused");
  EXPECT_EQ(decision["activities"][1]["hasFullscreenWindow"], true);
}

TEST_F(PolicyCli, ExplainTakesActivitiesAsGiven) {
  const auto path = state(R"({"locked": true, "monitors": [{"monitorId": "a"}]})");
  EXPECT_EQ(run({"policy", "explain", "--state", path}).out, "a: paused muted (locked)\nfps cap 30, playback rate 1\n");
}

TEST_F(PolicyCli, MalformedStateFilesNameTheField) {
  for (const auto& [text, fragment] : std::vector<std::pair<std::string, std::string>>{
           {R"({"onBattery": "yes"})", "onBattery: expected true or false"},
           {R"({"onbattery": true})", "'onbattery' is not a field of the system state"},
           {R"({"monitors": [{"hasFullscreenWindow": true}]})", "monitors[0].monitorId: missing"},
           {R"({"screens": [{"deviceName": "a", "x": 0, "y": 0, "width": 1}]})", "screens[0].height: missing"},
           {R"({"screens": [], "monitors": []})", "not both"},
           {R"([1])", "expected an object"},
           {"{", "not JSON"}}) {
    expectOneLineError(run({"policy", "explain", "--state", state(text)}), badUsage, fragment);
  }
  expectOneLineError(run({"policy", "explain", "--state", (folder / "none.json").string()}), failed, "none.json");
}

TEST_F(PolicyCli, MonitorsMatchShowsBindingsAndNotes) {
  const auto outcome =
      run({"monitors", "match", "--saved", "dell|1920x1080", "a|3x3", "--present", "dell|2560x1440", "b|1x1"});
  EXPECT_EQ(outcome.out,
            "dell|2560x1440 <- dell|1920x1080 (sameDevice)\n"
            "  dell changed size or orientation since its wallpaper was saved; the wallpaper followed it\n"
            "b|1x1 <- (no saved key) (none)\n");
  const auto asJson =
      json::Json::parse(run({"monitors", "match", "--saved", "x|1x1", "--present", "x|1x1", "--json"}).out);
  EXPECT_EQ(asJson[0]["quality"], "exact");
  EXPECT_TRUE(asJson[0]["note"].is_null());
}

}  // namespace
}  // namespace korvalen::cli
