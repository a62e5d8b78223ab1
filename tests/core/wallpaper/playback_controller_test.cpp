#include "core/wallpaper/playback_controller.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvalen::wallpaper {
namespace {

using ::testing::HasSubstr;

LibraryItem video(const std::string& id, bool audio) {
  LibraryItem made;
  made.id = id;
  made.kind = WallpaperKind::video;
  made.relativePath = "items/" + id + "/clip.mp4";
  made.sha256 = "sha-" + id;
  made.hasAudio = audio;
  return made;
}

// Two monitors, each answered with a playlist item, nothing going on.
struct Scene {
  KorvalenSettings settings;
  WallpaperLibrary library = WallpaperLibrary::load("/nonexistent/Library").library;
  PlannerAnswer answer;
  SystemState system;
  std::vector<MonitorFacts> monitors{{MonitorActivity{"L|1x1"}, std::nullopt, false},
                                     {MonitorActivity{"R|1x1"}, std::nullopt, false}};

  Scene() {
    library.add(video("1", true));
    library.add(video("2", false));
    answer.monitors = {MonitorAnswer{"L|1x1", "1", PlanReason::activePlaylist, "", false, false, std::nullopt},
                       MonitorAnswer{"R|1x1", "2", PlanReason::assignment, "", false, false, std::nullopt}};
    answer.shared = answer.monitors[0];
  }
  Directives decide() const {
    return PlaybackController::decide(ControllerInput{settings, library, answer, system, monitors});
  }
};

TEST(PlaybackController, EachMonitorIsJudgedOnItsOwn) {
  struct Case {
    const char* name;
    std::function<void(Scene&)> change;
    PlaybackMode left;
    PlaybackMode right;
    const char* leftReason;
  };
  const std::vector<Case> cases{
      {"nothing going on", [](Scene&) {}, PlaybackMode::running, PlaybackMode::running, ""},
      {"the user paused the left one", [](Scene& s) { s.answer.monitors[0].paused = true; }, PlaybackMode::paused,
       PlaybackMode::running, "paused by you"},
      {"full screen on the left, per monitor",
       [](Scene& s) {
         s.settings.power.perMonitor = true;
         s.monitors[0].activity.hasFullscreenWindow = true;
       },
       PlaybackMode::paused, PlaybackMode::running, "fullscreen"},
      {"full screen on the left, for all",
       [](Scene& s) {
         s.settings.power.perMonitor = false;
         s.monitors[0].activity.hasFullscreenWindow = true;
       },
       PlaybackMode::paused, PlaybackMode::paused, "fullscreen"},
      {"another program's desktop window over the left", [](Scene& s) { s.monitors[0].coveredBy = "pcmanfm"; },
       PlaybackMode::paused, PlaybackMode::running, "covered by pcmanfm's desktop window"},
      {"the left one's content flashes", [](Scene& s) { s.monitors[0].flashing = true; }, PlaybackMode::paused,
       PlaybackMode::running, "content flashes (WCAG 2.3.1)"},
      {"nothing planned for the left",
       [](Scene& s) {
         s.answer.monitors[0].itemID.reset();
         s.answer.monitors[0].explanation = "Nothing is assigned.";
       },
       PlaybackMode::stopped, PlaybackMode::running, "Nothing is assigned."},
      {"locked, where the user stops on lock",
       [](Scene& s) {
         s.settings.power.onLocked = PauseAction::stop;
         s.system.locked = true;
       },
       PlaybackMode::stopped, PlaybackMode::stopped, "locked"},
  };
  for (const auto& c : cases) {
    Scene scene;
    c.change(scene);
    const auto directives = scene.decide();
    ASSERT_EQ(directives.monitors.size(), 2U) << c.name;
    EXPECT_EQ(directives.monitors[0].mode, c.left) << c.name;
    EXPECT_EQ(directives.monitors[1].mode, c.right) << c.name;
    EXPECT_EQ(directives.monitors[0].reason.value_or(""), c.leftReason) << c.name;
  }
}

TEST(PlaybackController, OnBatteryTheActionAndTheLowerFrameRateApply) {
  Scene scene;
  scene.settings.power.onBattery = PauseAction::mute;
  scene.settings.power.fpsCap = 60;
  scene.settings.power.fpsCapOnBattery = 12;
  EXPECT_EQ(scene.decide().fpsCap, 60);
  scene.system.onBattery = true;
  const auto directives = scene.decide();
  EXPECT_EQ(directives.fpsCap, 12);
  EXPECT_EQ(directives.monitors[0].mode, PlaybackMode::running);
  EXPECT_TRUE(directives.monitors[0].muted);
  EXPECT_EQ(directives.monitors[0].reason, "on battery");
}

TEST(PlaybackController, SoundComesFromOneMonitorOnlyAndOnlyWhenAskedFor) {
  Scene scene;
  // Muted by default.
  for (const auto& directive : scene.decide().monitors) {
    EXPECT_EQ(directive.soundLevel, 0) << directive.monitorId;
  }
  LastWallpaper last;
  last.muted = false;
  last.volume = 0.4;
  scene.settings.lastWallpaper = last;
  // Both show videos, the right one's has no sound: the left one plays.
  auto directives = scene.decide();
  EXPECT_DOUBLE_EQ(directives.monitors[0].soundLevel, 0.4);
  EXPECT_EQ(directives.monitors[1].soundLevel, 0);
  // The same item with sound on both: still one monitor.
  scene.answer.monitors[1].itemID = "1";
  directives = scene.decide();
  EXPECT_GT(directives.monitors[0].soundLevel, 0);
  EXPECT_EQ(directives.monitors[1].soundLevel, 0);
  // The left one paused: the right one takes over the sound.
  scene.answer.monitors[0].paused = true;
  directives = scene.decide();
  EXPECT_EQ(directives.monitors[0].soundLevel, 0);
  EXPECT_DOUBLE_EQ(directives.monitors[1].soundLevel, 0.4);
}

TEST(PlaybackController, AFlashSkipsOnlyWhenAskedAndAPlaylistHasANextItem) {
  AccessibilitySettings accessibility;
  MonitorAnswer playlist{"L|1x1", "1", PlanReason::activePlaylist, "", false, false, std::nullopt};
  MonitorAnswer single{"L|1x1", "1", PlanReason::assignment, "", false, false, std::nullopt};
  EXPECT_EQ(PlaybackController::flashResponse(accessibility, playlist).outcome, FlashOutcome::pause);
  accessibility.skipFlashingWallpaper = true;
  EXPECT_EQ(PlaybackController::flashResponse(accessibility, playlist).outcome, FlashOutcome::skipToNext);
  const auto alone = PlaybackController::flashResponse(accessibility, single);
  EXPECT_EQ(alone.outcome, FlashOutcome::pause);
  EXPECT_THAT(alone.explanation, HasSubstr("no playlist"));
}

TEST(PlaybackController, HandoversFollowTheSettingsTheBudgetAndReducedMotion) {
  TransitionSettings transitions;
  transitions.enabled = true;
  transitions.defaultId = "slideLeft";
  transitions.seconds = 2;
  const auto base =
      PlaybackController::HandoverInput{transitions, std::nullopt, std::nullopt, false, true, false, 1, 3, {}, "2"};
  const auto chosen = PlaybackController::chooseHandover(base);
  ASSERT_TRUE(chosen.has_value());
  EXPECT_EQ(chosen->effect.id, "slideLeft");
  EXPECT_DOUBLE_EQ(chosen->seconds, 2);

  auto calm = base;
  calm.reducedMotion = true;
  EXPECT_EQ(PlaybackController::chooseHandover(calm)->effect.id, "crossBlend");

  auto own = base;
  own.incomingTransition = "wipeDown";
  EXPECT_EQ(PlaybackController::chooseHandover(own)->effect.id, "wipeDown");

  auto crowded = base;
  crowded.liveDecoders = 3;
  const auto faded = PlaybackController::chooseHandover(crowded);
  ASSERT_TRUE(faded.has_value());
  EXPECT_EQ(faded->effect.id, "fadeThroughBlack");
  EXPECT_TRUE(faded->note.has_value());

  auto busy = base;
  busy.runningIncoming = {"5"};
  EXPECT_FALSE(PlaybackController::chooseHandover(busy).has_value());
  busy.incoming = "5";  // joining the hand-over already under way costs nothing
  EXPECT_TRUE(PlaybackController::chooseHandover(busy).has_value());

  auto disabled = transitions;
  disabled.enabled = false;
  const PlaybackController::HandoverInput cut{disabled, std::nullopt, std::nullopt, false, true, false, 1, 3, {}, "2"};
  EXPECT_FALSE(PlaybackController::chooseHandover(cut).has_value());
}

}  // namespace
}  // namespace korvalen::wallpaper
