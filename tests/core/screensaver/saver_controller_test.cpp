#include "core/screensaver/saver_controller.hpp"

#include "core/diagnostics/log.hpp"
#include "core/screensaver/fake_platform.hpp"
#include "support/param_name.hpp"
#include "support/temp_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvalen::saver {
namespace {

using namespace fakes;
using korvalen::testing::TempFolder;
using korvalen::testing::writeText;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

const Date firstStamp = *ISO8601::plain().parse("2026-11-22T10:00:00Z");
const Date secondStamp = *ISO8601::plain().parse("2026-11-22T10:05:00Z");

class SaverControllerTest : public ::testing::Test {
 protected:
  SaverControllerTest() : view(events), surface(events), media(loop, events) {
    writeText(folder / "clip.mp4", "video");
    writeText(folder / "other.mp4", "video");
    writeText(folder / "calm.gif", "gif");
    writeText(folder / "flashy.gif", "gif");
    writeText(folder / "still.png", "png");
    media.images["still.png"] =
        std::make_shared<FakeImage>(PixelSize{800, 600}, std::vector<double>{0.5}, std::vector<double>{0.1});
    media.images["calm.gif"] = std::make_shared<FakeImage>(
        PixelSize{320, 240}, std::vector<double>{0.2, 0.25, 0.3, 0.25}, std::vector<double>{0.1, 0.1, 0.1, 0.1});
    // Dark and light every 0.05 s: ten flashes a second.
    media.images["flashy.gif"] = std::make_shared<FakeImage>(PixelSize{320, 240}, std::vector<double>{0.0, 1.0},
                                                             std::vector<double>{0.05, 0.05});
  }

  std::shared_ptr<SaverController> make() {
    controller = SaverController::make(
        Platform{view, surface, identity, media, loop,
                 [this](std::string_view name) -> std::optional<std::string> {
                   const auto found = environment.find(std::string(name));
                   return found == environment.end() ? std::nullopt : std::optional<std::string>(found->second);
                 },
                 [this] { return recordedHome; }},
        "ABC123");
    return controller;
  }

  SaverContent content(WallpaperKind kind, const std::string& name, FitMode fit = FitMode::fill) const {
    return SaverContent(kind, name.empty() ? "" : (folder / name).string(), std::nullopt, fit);
  }

  SaverPlan plan(std::optional<SaverContent> shared, Date written = firstStamp) const {
    SaverPlan made;
    made.written = written;
    made.shared = std::move(shared);
    return made;
  }

  void writePlan(const SaverPlan& made) const { ASSERT_TRUE(made.write(planPath()).has_value()); }
  [[nodiscard]] std::filesystem::path planPath() const { return folder / "plan/screensaver-plan.json"; }

  std::vector<std::string> messages() const {
    std::vector<std::string> out;
    for (const auto& line : capture.lines()) {
      EXPECT_EQ(line.category, "screensaver");
      EXPECT_TRUE(line.message.starts_with("[ABC123] ")) << line.message;
      out.push_back((line.level == log::Level::error ? "E " : "") + line.message.substr(9));
    }
    return out;
  }
  std::vector<std::string> linesSinceMade() const {
    auto all = messages();
    return {all.begin() + 1, all.end()};
  }

  std::shared_ptr<FakeVideo> lastVideo() const { return media.videos.empty() ? nullptr : media.videos.back().lock(); }
  FakeLayer& content() const { return dynamic_cast<FakeLayer&>(*controller->contentLayer()); }

  // Starts, and lets every load finish.
  void start() {
    controller->startAnimation();
    loop.runPending();
  }

  TempFolder folder;
  log::Capture capture;
  Events events;
  FakeView view;
  FakeSurface surface;
  FakeIdentity identity;
  FakeLoop loop;
  FakeMedia media;
  std::map<std::string, std::string> environment{{"KORVALEN_SAVER_PLAN", planPath().string()}};
  std::optional<std::filesystem::path> recordedHome = std::filesystem::path("/home/recorded");
  std::shared_ptr<SaverController> controller;
};

TEST_F(SaverControllerTest, MadePreparesTheLayerAndSaysSo) {
  view.preview = true;
  make();
  EXPECT_TRUE(view.prepared);
  EXPECT_EQ(view.interval, 0.5);
  EXPECT_THAT(messages(), ElementsAre("made, preview true"));
  EXPECT_EQ(SaverController::freshMark().size(), 6U);
}

TEST_F(SaverControllerTest, MadeByTheDecodingInitialiserTouchesNothing) {
  auto decoded = SaverController::makeDecoded(
      Platform{view, surface, identity, media, loop, [](std::string_view) { return std::nullopt; }, nullptr}, "DEC0DE");
  EXPECT_FALSE(view.prepared);
  EXPECT_TRUE(capture.lines().empty());
  EXPECT_FALSE(decoded->polling());
  EXPECT_EQ(decoded->mark(), "DEC0DE");
}

TEST_F(SaverControllerTest, ThePlanIsFoundByTheVariableElseUnderTheRecordedHome) {
  make();
  environment["KORVALEN_SAVER_PLAN"] = "relative/odd plan.json";
  environment["HOME"] = "/sandbox";
  EXPECT_EQ(controller->planURL(), std::filesystem::path("relative/odd plan.json"));
  environment.erase("KORVALEN_SAVER_PLAN");
  EXPECT_EQ(controller->planURL(), std::filesystem::path("/home/recorded/.local/share/Korvalen/screensaver-plan.json"));
  environment["XDG_DATA_HOME"] = "/data";
  EXPECT_EQ(controller->planURL(), std::filesystem::path("/data/Korvalen/screensaver-plan.json"));
  environment.erase("XDG_DATA_HOME");
  recordedHome.reset();  // no user database record: the process's own home
  EXPECT_EQ(controller->planURL(), std::filesystem::path("/sandbox/.local/share/Korvalen/screensaver-plan.json"));
}

TEST_F(SaverControllerTest, ScreenIDIsTheWindowsScreenElseTheMainScreenElseEmpty) {
  make();
  view.screen = Screen{7, {2560, 1440}};
  EXPECT_EQ(controller->screenID(), "display-7|2560x1440");
  view.window = false;
  EXPECT_EQ(controller->screenID(), "display-1|1920x1080");
  view.main.reset();
  EXPECT_EQ(controller->screenID(), "");
}

TEST_F(SaverControllerTest, NoPlanIsBlackWithOneLineThenThePollPicksUpAPlanWrittenLater) {
  make();
  start();
  EXPECT_THAT(linesSinceMade(), ElementsAre("E no plan at " + planPath().string() + ": black"));
  EXPECT_TRUE(view.root->children.empty());
  loop.advance(3);
  EXPECT_EQ(linesSinceMade().size(), 1U) << "a missing plan during polling changes nothing";
  writePlan(plan(content(WallpaperKind::video, "clip.mp4")));
  loop.advance(3);
  ASSERT_TRUE(controller->playing().has_value());
  EXPECT_EQ(controller->planStamp(), firstStamp);
  EXPECT_THAT(linesSinceMade(), ElementsAre(HasSubstr("no plan"), "the plan moved on",
                                            "screen display-1|1920x1080 -> clip.mp4 fit=fill"));
  EXPECT_TRUE(lastVideo()->playing);
}

TEST_F(SaverControllerTest, AnUnchangedStampIsIgnoredEvenWhenTheContentChanged) {
  writePlan(plan(content(WallpaperKind::video, "clip.mp4")));
  make();
  start();
  writePlan(plan(content(WallpaperKind::video, "other.mp4")));  // same `written`
  loop.advance(9);
  EXPECT_EQ(controller->playing()->path, (folder / "clip.mp4").string());
  EXPECT_EQ(media.videos.size(), 1U);
}

TEST_F(SaverControllerTest, TheSameContentForThisScreenIsNotRestarted) {
  auto first = plan(content(WallpaperKind::video, "clip.mp4"));
  writePlan(first);
  make();
  start();
  auto second = first;
  second.written = secondStamp;
  second.volume = 0.2;
  second.screens["display-9|800x600"] = content(WallpaperKind::video, "other.mp4");
  writePlan(second);
  loop.advance(3);
  EXPECT_EQ(controller->planStamp(), secondStamp);
  EXPECT_EQ(media.videos.size(), 1U);
  EXPECT_TRUE(lastVideo()->playing);
  EXPECT_THAT(linesSinceMade(), ElementsAre(HasSubstr("-> clip.mp4")));
}

TEST_F(SaverControllerTest, NewContentMovesOnClearingTheOldFirst) {
  writePlan(plan(content(WallpaperKind::video, "clip.mp4")));
  make();
  start();
  const auto old = lastVideo();
  writePlan(plan(content(WallpaperKind::video, "other.mp4"), secondStamp));
  loop.advance(3);
  EXPECT_TRUE(old->stopped);
  EXPECT_EQ(view.root->children.size(), 1U) << "the old slot went";
  EXPECT_TRUE(lastVideo()->playing);
  EXPECT_THAT(linesSinceMade(), ElementsAre(HasSubstr("-> clip.mp4"), "the plan moved on", HasSubstr("-> other.mp4")));
  // A plan that then gives this screen nothing clears it.
  writePlan(plan(std::nullopt, firstStamp));
  loop.advance(3);
  EXPECT_FALSE(controller->playing().has_value());
  EXPECT_TRUE(view.root->children.empty());
}

struct Choosing {
  std::string name;
  bool chosen;
  bool ownEntry;
  bool shared;
  std::string expected;  // the file shown, or "" for nothing
};

class SaverControllerChoosing : public SaverControllerTest, public ::testing::WithParamInterface<Choosing> {};

TEST_P(SaverControllerChoosing, ChosenThenTheScreensOwnEntryThenShared) {
  const auto& row = GetParam();
  for (const auto* name : {"chosen.mp4", "own.mp4", "shared.mp4"}) {
    writeText(folder / name, "video");
  }
  SaverPlan made;
  made.written = firstStamp;
  if (row.chosen) {
    made.chosen = content(WallpaperKind::video, "chosen.mp4");
  }
  if (row.ownEntry) {
    made.screens["display-1|1920x1080"] = content(WallpaperKind::video, "own.mp4");
  }
  made.screens["display-2|1280x800"] = content(WallpaperKind::video, "other.mp4");
  if (row.shared) {
    made.shared = content(WallpaperKind::video, "shared.mp4");
  }
  writePlan(made);
  make();
  start();
  if (row.expected.empty()) {
    EXPECT_THAT(linesSinceMade(), ElementsAre("nothing for screen display-1|1920x1080: black"));
    EXPECT_TRUE(view.root->children.empty());
  } else {
    EXPECT_EQ(lastVideo()->file.filename(), row.expected);
  }
}

INSTANTIATE_TEST_SUITE_P(SaverController, SaverControllerChoosing,
                         ::testing::Values(Choosing{"ChosenBeatsAll", true, true, true, "chosen.mp4"},
                                           Choosing{"OwnEntryBeatsShared", false, true, true, "own.mp4"},
                                           Choosing{"SharedForTheRest", false, false, true, "shared.mp4"},
                                           Choosing{"Nothing", false, false, false, ""}),
                         korvalen::testing::ByName{});

struct Route {
  std::string name;
  WallpaperKind kind;
  std::string file;
  std::optional<std::string> still;
  std::vector<std::string> lines;  // after "screen ... -> ..."
  bool video;
  bool picture;
};

class SaverControllerRoutes : public SaverControllerTest, public ::testing::WithParamInterface<Route> {};

TEST_P(SaverControllerRoutes, EachKindTakesItsRoute) {
  const auto& row = GetParam();
  auto shown = content(row.kind, row.file);
  if (row.still) {
    shown.still = (folder / *row.still).string();
  }
  writePlan(plan(shown));
  make();
  start();
  auto lines = linesSinceMade();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), "screen display-1|1920x1080 -> " + row.file + " fit=fill");
  EXPECT_EQ(std::vector<std::string>(lines.begin() + 1, lines.end()), row.lines);
  EXPECT_EQ(media.videos.size(), row.video ? 1U : 0U);
  EXPECT_EQ(controller->animation() != nullptr, row.picture);
  EXPECT_TRUE(controller->playing().has_value()) << "the content is what is playing, even when black";
}

INSTANTIATE_TEST_SUITE_P(
    SaverController, SaverControllerRoutes,
    ::testing::Values(Route{"Video", WallpaperKind::video, "clip.mp4", std::nullopt, {}, true, false},
                      Route{"Image", WallpaperKind::image, "still.png", std::nullopt, {}, false, true},
                      Route{"WebWithStill", WallpaperKind::web, "index.html", "still.png", {}, false, true},
                      Route{"WebWithoutStill",
                            WallpaperKind::web,
                            "index.html",
                            std::nullopt,
                            {"E index.html has nothing to show here: black"},
                            false,
                            false},
                      Route{"ImageThatWillNotDecode",
                            WallpaperKind::image,
                            "clip.mp4",
                            std::nullopt,
                            {"E clip.mp4 has nothing to show here: black"},
                            false,
                            false},
                      Route{"None",
                            WallpaperKind::none,
                            "nothing",
                            std::nullopt,
                            {"E nothing is not something a screen saver can play"},
                            false,
                            false},
                      Route{"Solid",
                            WallpaperKind::solid,
                            "red",
                            std::nullopt,
                            {"E red is not something a screen saver can play"},
                            false,
                            false},
                      Route{"MissingVideo",
                            WallpaperKind::video,
                            "gone.mp4",
                            std::nullopt,
                            {"E gone.mp4 would not play: The file doesn't exist."},
                            true,
                            false}),
    korvalen::testing::ByName{});

TEST_F(SaverControllerTest, AVideoGetsTheMirrorFiltersRateAndSound) {
  auto shown = content(WallpaperKind::video, "clip.mp4");
  shown.mirrorHorizontal = true;
  shown.sharpen = 0.4;
  shown.trimStart = 2;
  shown.trimEnd = 7.5;
  auto made = plan(shown);
  made.rate = 2.5;  // never faster than normal
  made.sound = true;
  made.volume = 0.3;
  made.dim = 0.2;
  writePlan(made);
  make();
  start();
  EXPECT_EQ(content().scaleX, -1);
  EXPECT_EQ(content().scaleY, 1);
  ASSERT_TRUE(content().filters.has_value());
  EXPECT_EQ(content().filters->sharpen, 0.4);
  EXPECT_EQ(lastVideo()->rate(), 1.0);
  EXPECT_EQ(lastVideo()->soundLevel(), 0.3);
  EXPECT_EQ(lastVideo()->trim, (TrimRange{2, 7.5}));
  made.sound = false;
  made.rate = 0.01;
  made.dim = 0;
  made.shared->sharpen = 0;
  made.shared->mirrorHorizontal = false;
  made.shared->mirrorVertical = true;
  made.written = secondStamp;
  writePlan(made);
  loop.advance(3);
  EXPECT_EQ(lastVideo()->rate(), 0.1);
  EXPECT_EQ(lastVideo()->soundLevel(), 0);
  EXPECT_FALSE(content().filters.has_value()) << "neutral appearance sets no filters";
  EXPECT_EQ(content().scaleY, -1);
}

TEST_F(SaverControllerTest, AHeldVideoIsPausedBeforeItPlaysAndHiddenUntilPlaced) {
  auto shown = content(WallpaperKind::video, "clip.mp4");
  shown.held = true;
  writePlan(plan(shown));
  make();
  controller->startAnimation();
  EXPECT_TRUE(lastVideo()->layer.lock()->hidden);
  loop.runPending();
  EXPECT_THAT(events, ElementsAre("player hidden", "pause clip.mp4", "placed", "player shown"));
  EXPECT_FALSE(lastVideo()->playing);
  EXPECT_FALSE(controller->watchingFlashes());
  EXPECT_EQ(linesSinceMade().back(), "clip.mp4 flashes: held still");
}

TEST_F(SaverControllerTest, ALoadFinishingAfterClearIsNotAttached) {
  writePlan(plan(content(WallpaperKind::video, "clip.mp4")));
  make();
  controller->startAnimation();
  controller->clear();
  loop.runPending();
  EXPECT_FALSE(surface.placed.has_value());
  EXPECT_FALSE(controller->watchingFlashes());
  EXPECT_TRUE(view.root->children.empty());
  // Nor one that finishes after the controller itself is gone.
  writePlan(plan(content(WallpaperKind::video, "other.mp4"), secondStamp));
  controller->startAnimation();
  controller.reset();
  loop.advance(10);
  EXPECT_FALSE(surface.placed.has_value());
  EXPECT_EQ(loop.liveTimers(), 0U);
}

TEST_F(SaverControllerTest, PlacementIsTheWholeScreensOnlyWhenTheViewFillsIt) {
  writePlan(plan(content(WallpaperKind::video, "clip.mp4", FitMode::fit)));
  make();
  start();
  EXPECT_EQ(surface.screenPlacements, 1);
  EXPECT_EQ(surface.placed->destination, (FitRect{0, 0, 3840, 2160}));
  EXPECT_EQ(surface.cropped, surface.placed);
  controller->stopAnimation();
  // A view smaller than its screen places in its own bounds, rounded.
  view.boundsSize = {959.6, 540.2};
  start();
  EXPECT_EQ(surface.screenPlacements, 1);
  EXPECT_EQ(surface.placed, VideoFit::compute(1280, 720, 960, 540, FitMode::fit));
}

TEST_F(SaverControllerTest, PreviewPlacementUsesRoundedBoundsOfAtLeastOneByOne) {
  view.preview = true;
  view.boundsSize = {1920, 1080};  // equal to the screen, but a preview never fills one
  writePlan(plan(content(WallpaperKind::video, "clip.mp4")));
  make();
  start();
  EXPECT_EQ(surface.screenPlacements, 0);
  EXPECT_EQ(surface.placed, VideoFit::compute(1280, 720, 1920, 1080, FitMode::fill));
  controller->stopAnimation();
  view.boundsSize = {0, 0.4};  // a view made with a zero-size frame
  start();
  EXPECT_EQ(surface.placed, VideoFit::compute(1280, 720, 1, 1, FitMode::fill));
  EXPECT_GT(surface.placed->destination.width, 0);
}

TEST_F(SaverControllerTest, AZeroSizeViewOnAZeroSizeScreenStillPlacesAtLeastOneByOne) {
  view.boundsSize = {0, 0};
  view.screen = Screen{1, {0, 0}};
  writePlan(plan(content(WallpaperKind::image, "still.png")));
  make();
  start();
  EXPECT_EQ(surface.screenPlacements, 0);
  EXPECT_EQ(surface.placed, VideoFit::compute(800, 600, 1, 1, FitMode::fill));
}

TEST_F(SaverControllerTest, TheFlashWatchPausesExactlyWhenTheAnalyserTripsAndNeverResumes) {
  // Light and dark every sixth tick of the 60 Hz clock: five flashes a second.
  media.luminanceAt = [](double at) { return (std::lround(at * 60) / 6) % 2 == 0 ? 0.05 : 0.9; };
  auto shown = content(WallpaperKind::video, "clip.mp4", FitMode::fit);
  shown.crop = CropRect{0.25, 0, 0.5, 1};
  writePlan(plan(shown));
  make();
  start();
  ASSERT_TRUE(controller->watchingFlashes());
  EXPECT_EQ(loop.liveTimersOf(SaverController::flashSampleSeconds), 1U);
  // Replay the same samples into an analyser of our own to find the tick it must trip on.
  // The times are summed tick by tick, as the loop sums them.
  FlashAnalyzer reference;
  double tripAt = loop.now;
  for (int tick = 1; tick < 600 && !reference.violated(); ++tick) {
    tripAt += SaverController::flashSampleSeconds;
    reference.observe(tripAt, media.luminanceAt(tripAt));
  }
  ASSERT_TRUE(reference.violated());
  loop.advance(tripAt - loop.now - 0.001);
  EXPECT_TRUE(lastVideo()->playing) << "not before the analyser trips";
  loop.advance(0.002);
  EXPECT_FALSE(lastVideo()->playing);
  EXPECT_FALSE(controller->watchingFlashes());
  EXPECT_EQ(linesSinceMade().back(),
            "clip.mp4 flashes (peak " + std::to_string(reference.peakFlashesPerSecond()) + "/s): paused");
  EXPECT_EQ(lastVideo()->sampledRegions, std::vector<FitRect>{surface.placed->sourceCrop});
  loop.advance(10);
  EXPECT_FALSE(lastVideo()->playing);
  EXPECT_EQ(std::count(events.begin(), events.end(), "play clip.mp4"), 1);
}

TEST_F(SaverControllerTest, WithoutTheGuardNoWatchRunsAndNoLoopIsJudged) {
  media.luminanceAt = [](double at) { return (std::lround(at * 60) / 6) % 2 == 0 ? 0.05 : 0.9; };
  auto made = plan(content(WallpaperKind::video, "clip.mp4"));
  made.stopsFlashing = false;
  made.screens["display-1|1920x1080"] = content(WallpaperKind::image, "flashy.gif");
  writePlan(made);
  make();
  start();
  EXPECT_EQ(media.images["flashy.gif"]->judged, 0);
  EXPECT_EQ(content().speed, 1);
  // And a video on another plan without the guard plays through its flashes.
  made.screens.clear();
  made.written = secondStamp;
  writePlan(made);
  loop.advance(6);
  EXPECT_FALSE(controller->watchingFlashes());
  EXPECT_TRUE(lastVideo()->playing);
}

TEST_F(SaverControllerTest, AnimationsAreJudgedAheadAndFrozenStillsNeverJudged) {
  auto made = plan(content(WallpaperKind::image, "flashy.gif", FitMode::fit));
  made.rate = 2;  // an animation may run faster than normal
  made.shared->crop = CropRect{0, 0, 0.5, 0.5};
  writePlan(made);
  make();
  start();
  const auto& flashy = *media.images["flashy.gif"];
  EXPECT_EQ(flashy.judged, 1);
  EXPECT_EQ(flashy.judgedRegion, surface.placed->sourceCrop);
  EXPECT_EQ(content().speed, 0);
  EXPECT_EQ(content().timeOffset, 0);
  EXPECT_EQ(linesSinceMade().back(), "flashy.gif flashes: held still");

  made.shared = content(WallpaperKind::image, "calm.gif");
  made.written = secondStamp;
  writePlan(made);
  loop.advance(3);
  EXPECT_EQ(media.images["calm.gif"]->judged, 1);
  EXPECT_EQ(content().speed, 2);

  made.shared = content(WallpaperKind::image, "still.png");
  made.written = firstStamp;
  writePlan(made);
  loop.advance(3);
  EXPECT_EQ(media.images["still.png"]->judged, 0);
  // A held animation is frozen without being judged.
  made.shared = content(WallpaperKind::image, "calm.gif");
  made.shared->held = true;
  made.written = secondStamp;
  writePlan(made);
  loop.advance(3);
  EXPECT_EQ(media.images["calm.gif"]->judged, 1);
  EXPECT_EQ(content().speed, 0);
}

TEST_F(SaverControllerTest, ClearTakesEverythingDownInOrder) {
  media.luminanceAt = [](double) { return 0.5; };
  writePlan(plan(content(WallpaperKind::video, "clip.mp4")));
  make();
  start();
  events.clear();
  ASSERT_TRUE(controller->watchingFlashes());
  controller->clear();
  EXPECT_THAT(events, ElementsAre("stop clip.mp4", "slot removed"));
  EXPECT_FALSE(controller->watchingFlashes());
  EXPECT_EQ(controller->video(), nullptr);
  EXPECT_EQ(controller->contentLayer(), nullptr);
  EXPECT_FALSE(controller->playing().has_value());
  EXPECT_TRUE(controller->polling()) << "the poll and the stamp stay";
  EXPECT_EQ(controller->planStamp(), firstStamp);

  writePlan(plan(content(WallpaperKind::image, "calm.gif"), secondStamp));
  loop.advance(3);
  events.clear();
  controller->clear();
  EXPECT_THAT(events, ElementsAre("picture removed", "animation removed", "slot removed"));
}

TEST_F(SaverControllerTest, StopAndBothNotificationsLogStoppedOnce) {
  writePlan(plan(content(WallpaperKind::video, "clip.mp4")));
  make();
  start();
  ASSERT_TRUE(controller->observing());
  const auto video = lastVideo();
  controller->stopAnimation();
  view.post(std::string(SaverController::willStop));
  view.post(std::string(SaverController::didStop));
  controller->stopAnimation();
  const auto lines = linesSinceMade();
  EXPECT_EQ(lines.back(), "stopped: stopAnimation");
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "stopped: stopAnimation"), 1);
  EXPECT_FALSE(controller->observing());
  EXPECT_EQ(loop.liveTimers(), 0U);
  EXPECT_TRUE(video->stopped);
  EXPECT_EQ(video.use_count(), 1) << "nothing but this test holds the video any more";
}

TEST_F(SaverControllerTest, ANotificationOrLeavingTheWindowStopsWithItsReason) {
  writePlan(plan(std::nullopt));
  make();
  start();
  view.post(std::string(SaverController::willStop));
  EXPECT_EQ(linesSinceMade().back(), "stopped: com.apple.screensaver.willstop");
  start();
  controller->viewDidMoveToWindow();  // still in its window
  view.window = false;
  controller->viewDidMoveToWindow();
  EXPECT_EQ(linesSinceMade().back(), "stopped: left its window");
  EXPECT_EQ(view.registrations, 2);
}

TEST_F(SaverControllerTest, StartingTwiceWithoutAStopStacksNothingAndOrphansNoVideo) {
  writePlan(plan(content(WallpaperKind::video, "clip.mp4")));
  make();
  start();
  const auto first = lastVideo();
  start();
  EXPECT_TRUE(first->stopped);
  EXPECT_EQ(view.root->children.size(), 1U);
  EXPECT_EQ(loop.liveTimersOf(SaverController::pollSeconds), 1U);
  EXPECT_EQ(view.registrations, 1);
  EXPECT_TRUE(lastVideo()->playing);
}

TEST_F(SaverControllerTest, TimersThatOutliveTheControllerDoNothing) {
  media.luminanceAt = [](double) { return 0.5; };
  writePlan(plan(content(WallpaperKind::video, "clip.mp4")));
  make();
  start();
  std::weak_ptr<SaverController> weak = controller;
  controller.reset();
  EXPECT_TRUE(weak.expired()) << "nothing the platform holds keeps it alive";
  writePlan(plan(content(WallpaperKind::video, "other.mp4"), secondStamp));
  loop.advance(6);
  EXPECT_EQ(media.videos.size(), 1U);
  view.post(std::string(SaverController::didStop));
}

TEST_F(SaverControllerTest, AResizeCoversTheNewBoundsAndPlacesAgainWithoutRestarting) {
  // Light and dark twice a second: flashes the analyser counts without tripping.
  media.luminanceAt = [](double at) { return (std::lround(at * 60) / 15) % 2 == 0 ? 0.05 : 0.9; };
  writePlan(plan(content(WallpaperKind::video, "clip.mp4", FitMode::fit)));
  make();
  start();
  ASSERT_TRUE(controller->watchingFlashes());
  loop.advance(0.5);
  const auto seen = controller->flashAnalyzer().transitions();
  ASSERT_FALSE(seen.empty());
  events.clear();
  view.boundsSize = {959.6, 540.2};
  controller->boundsChanged();
  EXPECT_THAT(events, ElementsAre("resized slot 959.6x540.2", "resized content 959.6x540.2", "placed"));
  EXPECT_EQ(surface.placed, VideoFit::compute(1280, 720, 960, 540, FitMode::fit));
  EXPECT_EQ(surface.cropped, surface.placed);
  EXPECT_EQ(media.videos.size(), 1U) << "the same video goes on";
  EXPECT_TRUE(lastVideo()->playing);
  EXPECT_TRUE(controller->watchingFlashes());
  EXPECT_EQ(controller->flashAnalyzer().transitions(), seen) << "the guard's history survives a resize";
  loop.advance(0.5);
  EXPECT_EQ(lastVideo()->sampledRegions.back(), surface.placed->sourceCrop);
  // Back to the whole screen: the screen's own placement again.
  view.boundsSize = {1920, 1080};
  controller->boundsChanged();
  EXPECT_EQ(surface.placed->destination, (FitRect{0, 0, 3840, 2160}));
}

TEST_F(SaverControllerTest, AResizeBeforeTheLoadLandsPlacesWithTheNewBoundsOnce) {
  writePlan(plan(content(WallpaperKind::image, "still.png")));
  make();
  controller->boundsChanged();  // nothing shown yet: nothing to do
  EXPECT_TRUE(events.empty());
  view.preview = true;
  writePlan(plan(content(WallpaperKind::video, "clip.mp4")));
  controller->startAnimation();
  events.clear();
  view.boundsSize = {400, 300};
  controller->boundsChanged();
  EXPECT_THAT(events, ElementsAre("resized slot 400x300", "resized content 400x300"));
  loop.runPending();
  EXPECT_EQ(surface.placed, VideoFit::compute(1280, 720, 400, 300, FitMode::fill));
  controller->clear();
  events.clear();
  controller->boundsChanged();
  EXPECT_TRUE(events.empty()) << "a cleared view has nothing to resize";
}

}  // namespace
}  // namespace korvalen::saver
