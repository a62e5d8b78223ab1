#include "core/playback/flash_guard.hpp"
#include "core/library/library_item.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

TEST(FlashResponse, SkipsOnlyWhenAskedAndThereIsAPlaylist) {
  using FlashResponsePlan::decide;
  EXPECT_EQ(decide(false, true), (FlashResponsePlan::Decision{
                                     FlashOutcome::pause, "content flashes beyond the WCAG limit; playback paused"}));
  EXPECT_EQ(decide(true, true),
            (FlashResponsePlan::Decision{FlashOutcome::skipToNext,
                                         "content flashes beyond the WCAG limit; skipping to the next wallpaper"}));
  EXPECT_EQ(decide(true, false),
            (FlashResponsePlan::Decision{FlashOutcome::pause,
                                         "content flashes beyond the WCAG limit; there is no playlist to skip to, so "
                                         "playback paused instead"}));
}

TEST(FlashGuardChoices, ReadAfterWriteGivesTheChoiceBack) {
  AccessibilitySettings start;
  start.dim = 0.4;
  for (const auto choice : FlashGuard::allChoices) {
    const auto written = FlashGuard::write(choice, start);
    EXPECT_EQ(FlashGuard::read(written), choice) << FlashGuard::rawValue(choice);
    EXPECT_EQ(written.dim, 0.4) << "other fields are kept";
    EXPECT_EQ(FlashGuard::fromRawValue(FlashGuard::rawValue(choice)), choice);
  }
  EXPECT_EQ(FlashGuard::write(FlashGuardChoice::off, start).onFlashing, PauseAction::pause);
  EXPECT_FALSE(FlashGuard::fromRawValue("Skip").has_value());
  AccessibilitySettings stop;
  stop.onFlashing = PauseAction::stop;
  EXPECT_EQ(FlashGuard::read(stop), FlashGuardChoice::pause);
  stop.skipFlashingWallpaper = true;
  EXPECT_EQ(FlashGuard::read(stop), FlashGuardChoice::skip);
}

TEST(FlashGuardChoices, TextsAreTheProductsOwn) {
  EXPECT_EQ(FlashGuard::question, "When a wallpaper flashes more than three times a second");
  EXPECT_EQ(FlashGuard::label(FlashGuardChoice::off), "Don't check for flashing");
  EXPECT_EQ(FlashGuard::label(FlashGuardChoice::warn), "Warn me, keep playing");
  EXPECT_EQ(FlashGuard::label(FlashGuardChoice::pause), "Pause it and tell me");
  EXPECT_EQ(FlashGuard::label(FlashGuardChoice::skip), "Skip to the next wallpaper");
  EXPECT_EQ(FlashGuard::note(FlashGuardChoice::skip, false),
            "No playlist is running, so there is nothing to skip to \u2014 it will pause instead and tell you.");
  EXPECT_EQ(FlashGuard::note(FlashGuardChoice::skip, true), "The next wallpaper in the playlist takes over.");
  EXPECT_EQ(FlashGuard::note(FlashGuardChoice::off, true),
            "Flashing content will play like anything else. Nothing will warn you.");
  EXPECT_EQ(FlashGuard::warning(true),
            "This wallpaper flashes more than three times a second (WCAG 2.3.1). It is still playing, because "
            "Settings is set to warn only.");
  EXPECT_EQ(FlashGuard::warning(false),
            "Playback stopped: this wallpaper flashes more than three times a second (WCAG 2.3.1). Trim past the "
            "flashing part, or play it anyway.");
}

TEST(RestoreDecisions, ARememberedPathBlocksRestoreWhileTheGuardActs) {
  AccessibilitySettings guarded;
  EXPECT_FALSE(RestoreDecision::shouldRestore(false, true, guarded));
  EXPECT_FALSE(RestoreDecision::shouldRestore(true, false, guarded));
  EXPECT_FALSE(RestoreDecision::shouldRestore(std::nullopt, true, guarded));
  EXPECT_TRUE(RestoreDecision::shouldRestore(false, false, guarded));
  EXPECT_TRUE(RestoreDecision::shouldRestore(std::nullopt, false, guarded));
  AccessibilitySettings warnOnly = FlashGuard::write(FlashGuardChoice::warn, guarded);
  EXPECT_TRUE(RestoreDecision::shouldRestore(true, true, warnOnly));
  AccessibilitySettings off = FlashGuard::write(FlashGuardChoice::off, guarded);
  EXPECT_TRUE(RestoreDecision::shouldRestore(true, true, off));

  EXPECT_EQ(RestoreDecision::explain("waves.mp4", 6, true),
            "not restoring 'waves.mp4': it is known to flash (peaked at 6/s). Crop or trim past the flashing part, "
            "choose 'Check it again' on it, or change what happens on flashing in Settings > Accessibility.");
  EXPECT_EQ(RestoreDecision::explain("x", 4, false),
            "not restoring 'x': it is known to flash (peaked at 4/s). Import it into your library to crop or trim past "
            "the flashing part, or change what happens on flashing in Settings > Accessibility.");
}

TEST(FlashingPathList, FindsAndRemembersIgnoringCase) {
  const Date then{std::chrono::seconds{1000}};
  const Date now{std::chrono::seconds{2000}};
  const std::vector<FlashingPath> list{{"/A/x.mp4", then, 4}, {"/b.mp4", then, 5}, {"/c.mp4", then, 6}};
  EXPECT_EQ(FlashingPaths::find(list, "/a/X.MP4")->peakFlashesPerSecond, 4);
  EXPECT_EQ(FlashingPaths::find(list, "/STRASSE.mp4"), std::nullopt);
  EXPECT_EQ(FlashingPaths::find(list, std::nullopt), std::nullopt);

  const auto remembered = FlashingPaths::remember(list, "/a/X.MP4", now, 9, 10);
  EXPECT_EQ(remembered, (std::vector<FlashingPath>{{"/a/X.MP4", now, 9}, {"/b.mp4", then, 5}, {"/c.mp4", then, 6}}));
  EXPECT_EQ(FlashingPaths::remember(list, "/new.mp4", now, 4, 2),
            (std::vector<FlashingPath>{{"/new.mp4", now, 4}, {"/A/x.mp4", then, 4}}));
  EXPECT_TRUE(FlashingPaths::remember(list, "/a/x.mp4", now, 9, 0).empty());
  EXPECT_DEATH(FlashingPaths::remember(list, "/a", now, 1, -1), "precondition failed");

  LibraryItem item;
  EXPECT_FALSE(item.knownToFlash());
  item.flashedAt = now;
  EXPECT_TRUE(item.knownToFlash());
}

}  // namespace
}  // namespace korvalen
