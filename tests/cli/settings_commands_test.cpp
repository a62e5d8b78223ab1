#include "cli/cli_fixture.hpp"
#include "core/app/settings_coding.hpp"

namespace korvalen::cli {
namespace {

using korvalen::testing::readText;
using korvalen::testing::writeText;

class SettingsCli : public Cli {
 protected:
  void SetUp() override { environment["XDG_DATA_HOME"] = folder.path().string(); }
  [[nodiscard]] std::string settingsPath() const { return (folder / "Korvalen/settings.json").string(); }
};

TEST_F(SettingsCli, PathFollowsTheKorvalenFolder) {
  EXPECT_EQ(run({"settings", "path"}).out, settingsPath() + "\n");
}

TEST_F(SettingsCli, CheckReportsRepairsDropsAndUnknownKeysWithoutWriting) {
  const std::string file = R"({
    // hand-edited
    "power": {"fpsCap": 500, "onFullscreen": "sleep", "fpscap": 3,},
    "playlists": [{"name": "a"}, {"bad": 1}],
    "lastWallpaper": 7,
  })";
  writeText(settingsPath(), file);
  const auto outcome = run({"settings", "check"});
  EXPECT_EQ(outcome.status, failed);
  EXPECT_EQ(outcome.out,
            "1 playlist(s) in settings.json could not be read and was left out\n"
            "lastWallpaper: 7 in the file; left out\n"
            "power.fpsCap: 500 in the file, 144 after repair\n"
            "power.fpscap: not a setting; ignored\n"
            "power.onFullscreen: \"sleep\" in the file, \"pause\" after repair\n");
  EXPECT_EQ(readText(settingsPath()), file);
}

TEST_F(SettingsCli, CheckOfCleanMissingAndUnreadableFiles) {
  EXPECT_EQ(run({"settings", "check"}).status, ok) << "a missing file is not a problem";
  EXPECT_FALSE(std::filesystem::exists(settingsPath())) << "check never writes";
  writeText(settingsPath(), R"({"power": {"fpsCap": 60}, "flashingPaths": [
    {"path": "/x", "flashedAt": "2024-05-01T12:00:00.5Z", "peakFlashesPerSecond": 4}]})");
  EXPECT_EQ(run({"settings", "check"}).out, settingsPath() + ": clean\n");
  writeText(settingsPath(), "{oops");
  const auto outcome = run({"settings", "check", settingsPath()});
  EXPECT_EQ(outcome.status, failed);
  EXPECT_THAT(outcome.out, StartsWith("settings file could not be read ("));
}

TEST_F(SettingsCli, ShowPrintsTheEffectiveSettings) {
  writeText(settingsPath(), R"({"power": {"fpsCap": 0}})");
  const auto text = run({"settings", "show"});
  EXPECT_EQ(text.status, ok);
  EXPECT_THAT(text.out, HasSubstr("power.fpsCap = 1\n"));
  EXPECT_THAT(text.out, HasSubstr("accessibility.screenShareApps[6] = \"com.skype.skype\"\n"));
  const auto asJson = json::Json::parse(run({"settings", "show", "--json"}).out);
  EXPECT_EQ(asJson["power"]["fpsCap"], 1);
}

TEST_F(SettingsCli, SetEditsRepairsAndSaves) {
  const auto outcome = run({"settings", "set", "power.fpsCap=500", "accessibility.dim=0.3", "transitions.enabled=true",
                            "monitorWallpapers.builtin|1512x982.paused=true", "lastWallpaper.path=/m/a.mp4"});
  ASSERT_EQ(outcome.status, ok) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("power.fpsCap: 30 -> 144\n"));
  EXPECT_THAT(outcome.out, HasSubstr("note: power.fpsCap=500 was repaired to 144\n"));
  const auto saved = Settings::read(settingsPath()).settings;
  EXPECT_EQ(saved.power.fpsCap, 144);
  EXPECT_DOUBLE_EQ(saved.accessibility.dim, 0.3);
  EXPECT_TRUE(saved.transitions.enabled);
  EXPECT_TRUE(saved.monitorWallpapers.at("builtin|1512x982").paused);
  EXPECT_EQ(saved.lastWallpaper->path, "/m/a.mp4");

  EXPECT_EQ(run({"settings", "set", "activePlaylist=null"}).out, "nothing changed in " + settingsPath() + "\n");
}

TEST_F(SettingsCli, SetSaysWhenCommentsAreLost) {
  writeText(settingsPath(), "{\n  // keep this\n  \"firstRunShown\": false\n}\n");
  const auto outcome = run({"settings", "set", "firstRunShown=true"});
  EXPECT_EQ(outcome.status, ok);
  EXPECT_THAT(outcome.out, HasSubstr("note: the comments in " + settingsPath() + " were not kept"));
}

TEST_F(SettingsCli, SetRefusesBadEditsAndWritesNothing) {
  writeText(settingsPath(), R"({"power": {"fpsCap": 60}})");
  for (const auto& [edit, fragment] : std::vector<std::pair<std::string, std::string>>{
           {"power.fpscap=1", "unknown setting 'power.fpscap'"},
           {"power.fpsCap=fast", "power.fpsCap: expected a whole number"},
           {"power.onFullscreen=sleep", "unknown action 'sleep'"},
           {"power=3", "power: expected an object"},
           {"playlists.0.name=x", "playlists has 0 element(s)"},
           {"flashingPaths=[{\"path\":\"/x\"}]", "flashingPaths[0].flashedAt: missing"},
           {"nonsense", "expected at least one KEY=VALUE"}}) {
    expectOneLineError(run({"settings", "set", edit}), badUsage, fragment);
    EXPECT_EQ(readText(settingsPath()), R"({"power": {"fpsCap": 60}})") << edit;
  }
  writeText(settingsPath(), "{broken");
  expectOneLineError(run({"settings", "set", "firstRunShown=true"}), failed, "left " + settingsPath() + " as it is");
  EXPECT_EQ(readText(settingsPath()), "{broken");
}

}  // namespace
}  // namespace korvalen::cli
