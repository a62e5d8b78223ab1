// The real controller on the software engine, end to end on generated media: what the
// screen shows is checked pixel by pixel against the placement the core computes.
#include "engine/software/software_saver.hpp"

#include "core/diagnostics/log.hpp"
#include "core/rendering/appearance.hpp"
#include "core/screensaver/saver_controller.hpp"
#include "engine/process.hpp"
#include "support/clips.hpp"
#include "support/param_name.hpp"
#include "support/sound.hpp"
#include "support/temp_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <set>
#include <thread>

namespace korvalen::engine {
namespace {

namespace fs = std::filesystem;

struct Colour {
  int red;
  int green;
  int blue;
};

class SoftwareSaverTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    media_ = std::make_unique<korvalen::testing::TempFolder>();
    const auto ffmpeg = korvalen::testing::ffmpegOnPath();
    const auto make = [&](const std::string& source, const std::vector<std::string>& output, const std::string& name) {
      std::vector<std::string> arguments{"-v", "error", "-f", "lavfi", "-i", source};
      arguments.insert(arguments.end(), output.begin(), output.end());
      arguments.push_back((*media_ / name).string());
      const auto made = engine::run(ffmpeg, arguments);
      ASSERT_TRUE(made && made->exitCode == 0) << name << ": " << (made ? made->error : made.error());
    };
    // Four quadrants: red, green / blue, white; 320x180, lossless.
    make(
        "color=c=red:s=160x90:r=10[a];color=c=lime:s=160x90:r=10[b];color=c=blue:s=160x90:r=10[c];"
        "color=c=white:s=160x90:r=10[d];[a][b]hstack[t];[c][d]hstack[u];[t][u]vstack",
        {"-t", "3", "-c:v", "libx264", "-pix_fmt", "yuv444p", "-crf", "0"}, "quad.mp4");
    // Black and white every 0.1 s: five flashes a second.
    make("color=c=black:s=64x48:r=30,format=gray,geq=lum='if(lt(mod(T\\,0.2)\\,0.1)\\,255\\,0)'",
         {"-t", "4", "-c:v", "libx264", "-pix_fmt", "yuv420p"}, "flash5.mp4");
    make("color=c=black:s=32x32:r=10,format=gray,geq=lum='if(mod(N\\,2)\\,255\\,0)'", {"-frames:v", "10"},
         "flashing.gif");
    make("color=c=black:s=32x32:r=2,format=gray,geq=lum='40+40*N'", {"-frames:v", "4"}, "calm.gif");
    make("color=c=orange:s=80x60", {"-frames:v", "1"}, "still.png");
    korvalen::testing::makeNumberedClip(ffmpeg, *media_ / "count.mp4", 50, 10);
    // Both with a 440 Hz tone: a calm picture, and the five-a-second flashes.
    const std::vector<std::string> withTone{"-f",  "lavfi", "-i", "sine=f=440:d=4", "-c:v",   "libx264", "-c:a",
                                            "aac", "-t",    "4",  "-pix_fmt",       "yuv420p"};
    make("testsrc2=s=64x48:r=10", withTone, "tone.mp4");
    make("color=c=black:s=64x48:r=30,format=gray,geq=lum='if(lt(mod(T\\,0.2)\\,0.1)\\,255\\,0)'", withTone,
         "flashtone.mp4");
    korvalen::testing::writeText(*media_ / "broken.mp4", std::string(4096, 'x'));
  }
  static void TearDownTestSuite() { media_.reset(); }
  static std::string file(const std::string& name) { return (*media_ / name).string(); }

  void start(const SaverPlan& plan, scene::Size size = {400, 200}, bool preview = false,
             std::shared_ptr<SoundOutput> sound = nullptr) {
    ASSERT_TRUE(plan.write(planPath()).has_value());
    size_ = size;
    controller_.reset();  // before the engine it stands on
    saver_ =
        std::make_unique<SoftwareSaver>(SoftwareScreen{size,
                                                       "display-0|" + std::to_string(static_cast<int>(size.width)) +
                                                           "x" + std::to_string(static_cast<int>(size.height)),
                                                       preview, std::nullopt},
                                        std::move(sound));
    const auto path = planPath().string();
    controller_ = saver::SaverController::make(saver_->platform([path](std::string_view name) {
      return name == "KORVALEN_SAVER_PLAN" ? std::optional<std::string>(path) : std::nullopt;
    }));
    controller_->startAnimation();
  }
  Picture at(double seconds) {
    saver_->loop().runUntil(seconds);
    Picture picture(static_cast<std::int64_t>(size_.width), static_cast<std::int64_t>(size_.height));
    saver_->draw(picture);
    return picture;
  }
  [[nodiscard]] fs::path planPath() const { return folder / "screensaver-plan.json"; }
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const auto& line : capture.lines()) {
      out.push_back(line.message.substr(line.message.find("] ") + 2));
    }
    return out;
  }
  static SaverPlan planWith(const SaverContent& content) {
    SaverPlan plan;
    plan.shared = content;
    return plan;
  }
  static SaverContent video(const std::string& name, FitMode fit = FitMode::fill) {
    return SaverContent(WallpaperKind::video, file(name), std::nullopt, fit);
  }
  static Colour pixel(const Picture& picture, std::int64_t x, std::int64_t y) {
    const auto* p = picture.at(x, y);
    return {p[2], p[1], p[0]};
  }
  static void expectColour(const Picture& picture, std::int64_t x, std::int64_t y, Colour expected,
                           const std::string& where) {
    const auto found = pixel(picture, x, y);
    EXPECT_NEAR(found.red, expected.red, 12) << where << " at " << x << "," << y;
    EXPECT_NEAR(found.green, expected.green, 12) << where << " at " << x << "," << y;
    EXPECT_NEAR(found.blue, expected.blue, 12) << where << " at " << x << "," << y;
  }

  ~SoftwareSaverTest() override { controller_.reset(); }

  korvalen::testing::TempFolder folder;
  log::Capture capture;
  scene::Size size_;
  std::unique_ptr<SoftwareSaver> saver_;
  std::shared_ptr<saver::SaverController> controller_;

 private:
  static inline std::unique_ptr<korvalen::testing::TempFolder> media_;
};

struct Shown {
  std::string name;
  FitMode fit;
  std::optional<CropRect> crop;
  bool mirrorH;
  bool mirrorV;
  double dim;
  double saturation;
};

void PrintTo(const Shown& shown, std::ostream* out) {
  *out << shown.name;
}

class SoftwareSaverPlacement : public SoftwareSaverTest, public ::testing::WithParamInterface<Shown> {};

// Every sampled pixel is the quadrant colour the placement says lands there, or black.
TEST_P(SoftwareSaverPlacement, EveryPixelIsWhereThePlacementPutsIt) {
  const auto& row = GetParam();
  auto content = video("quad.mp4", row.fit);
  content.crop = row.crop;
  content.mirrorHorizontal = row.mirrorH;
  content.mirrorVertical = row.mirrorV;
  auto plan = planWith(content);
  plan.dim = row.dim;
  plan.saturation = row.saturation;
  start(plan);
  const auto picture = at(1.0);
  const auto placement = VideoFit::compute(320, 180, 400, 200, row.fit, row.crop);
  const auto& d = placement.destination;
  const auto& c = placement.sourceCrop;
  const auto matrix = Appearance::colorMatrix(row.dim, row.saturation);
  int checked = 0;
  for (std::int64_t y = 2; y < 200; y += 7) {
    for (std::int64_t x = 2; x < 400; x += 7) {
      const double cx = static_cast<double>(x) + 0.5;
      const double cy = static_cast<double>(y) + 0.5;
      if (cx < d.x || cx >= d.x + d.width || cy < d.y || cy >= d.y + d.height) {
        if (cx < d.x - 1 || cx > d.x + d.width + 1 || cy < d.y - 1 || cy > d.y + d.height + 1) {
          expectColour(picture, x, y, {0, 0, 0}, "outside the destination");
        }
        continue;
      }
      double u = (cx - d.x) / d.width;
      double v = (cy - d.y) / d.height;
      u = row.mirrorH ? 1 - u : u;
      v = row.mirrorV ? 1 - v : v;
      const double sx = c.x + u * c.width;  // in the source, normalised
      const double sy = c.y + v * c.height;
      if (std::fabs(sx - 0.5) * 320 < 3 || std::fabs(sy - 0.5) * 180 < 3) {
        continue;  // too near an edge between quadrants
      }
      const Colour source = sy < 0.5 ? (sx < 0.5 ? Colour{255, 0, 0} : Colour{0, 255, 0})
                                     : (sx < 0.5 ? Colour{0, 0, 255} : Colour{255, 255, 255});
      const auto shown = Appearance::apply(matrix, source.red / 255.0, source.green / 255.0, source.blue / 255.0);
      expectColour(picture, x, y,
                   {static_cast<int>(std::lround(shown.red * 255)), static_cast<int>(std::lround(shown.green * 255)),
                    static_cast<int>(std::lround(shown.blue * 255))},
                   row.name);
      ++checked;
    }
  }
  EXPECT_GT(checked, 200);
}

INSTANTIATE_TEST_SUITE_P(
    SoftwareSaver, SoftwareSaverPlacement,
    ::testing::Values(Shown{"Fill", FitMode::fill, std::nullopt, false, false, 0, 1},
                      Shown{"Fit", FitMode::fit, std::nullopt, false, false, 0, 1},
                      Shown{"Stretch", FitMode::stretch, std::nullopt, false, false, 0, 1},
                      Shown{"Center", FitMode::center, std::nullopt, false, false, 0, 1},
                      Shown{"Crop", FitMode::fit, CropRect{0.25, 0.1, 0.5, 0.8}, false, false, 0, 1},
                      Shown{"MirrorH", FitMode::fit, std::nullopt, true, false, 0, 1},
                      Shown{"MirrorV", FitMode::fill, std::nullopt, false, true, 0, 1},
                      Shown{"CropMirrored", FitMode::stretch, CropRect{0, 0.5, 0.75, 0.5}, true, true, 0, 1},
                      Shown{"Dim", FitMode::stretch, std::nullopt, false, false, 0.5, 1},
                      Shown{"Desaturated", FitMode::stretch, std::nullopt, false, false, 0, 0}),
    korvalen::testing::ByName{});

TEST_F(SoftwareSaverTest, AHeldVideoShowsItsFirstFrameStill) {
  auto content = video("count.mp4");
  content.held = true;
  start(planWith(content), {64, 48});
  for (const double t : {0.0, 1.0, 2.5}) {
    const auto picture = at(t);
    EXPECT_EQ(korvalen::testing::numberInFrame(picture.bgra.data(), picture.width * 4), 0) << t;
  }
  EXPECT_THAT(lines(), ::testing::Contains("count.mp4 flashes: held still"));
}

TEST_F(SoftwareSaverTest, APlayingVideoShowsTheFrameItsClockIsAtLoopingItsTrim) {
  auto content = video("count.mp4");
  content.trimStart = 1;
  content.trimEnd = 2;
  auto plan = planWith(content);
  plan.rate = 0.5;
  start(plan, {64, 48});
  for (const auto& [t, expected] :
       std::vector<std::pair<double, int>>{{0.0, 10}, {0.41, 12}, {1.0, 15}, {1.95, 19}, {2.05, 10}, {4.45, 12}}) {
    const auto picture = at(t);
    EXPECT_EQ(korvalen::testing::numberInFrame(picture.bgra.data(), picture.width * 4), expected) << t;
  }
}

TEST_F(SoftwareSaverTest, AFlashingVideoIsPausedWithinASecondOfTheViolation) {
  start(planWith(video("flash5.mp4", FitMode::stretch)), {64, 48});
  const auto& analyzer = controller_->flashAnalyzer();
  double violatedAt = -1;
  for (int tick = 1; tick <= 240 && violatedAt < 0; ++tick) {
    at(tick / 60.0);
    if (analyzer.violated()) {
      violatedAt = tick / 60.0;
    }
  }
  ASSERT_GT(violatedAt, 0) << "the analyser never tripped";
  EXPECT_LT(violatedAt, 2.0);
  const auto paused = at(violatedAt + 1.0);
  const auto later = at(violatedAt + 3.0);
  EXPECT_EQ(paused.bgra, later.bgra) << "paused on one frame, never resumed";
  const auto all = lines();
  EXPECT_EQ(std::count_if(all.begin(), all.end(),
                          [](const std::string& line) { return line.starts_with("flash5.mp4 flashes (peak "); }),
            1);
  EXPECT_FALSE(controller_->watchingFlashes());
}

// The sound a device gets follows the plan (volume, sound off, rate), held content, the flash
// guard's pause and the stop.
TEST_F(SoftwareSaverTest, TheSoundFollowsThePlanTheGuardAndTheStop) {
  struct Case {
    std::string name;
    std::string file;
    bool sound = true;
    double volume = 1;
    double rate = 1;
    bool held = false;
    bool guard = true;
    double loudness = 0;  // of the tone at full level; 0: silent
    double hertz = 440;
  };
  const std::vector<Case> cases{
      {"at the plan's volume", "tone.mp4", true, 0.5, 1, false, true, 0.5},
      {"at half rate, an octave lower", "tone.mp4", true, 1, 0.5, false, true, 1, 220},
      {"sound off", "tone.mp4", false, 1, 1, false, true, 0},
      {"volume 0", "tone.mp4", true, 0, 1, false, true, 0},
      {"held still", "tone.mp4", true, 1, 1, true, true, 0},
      {"paused by the flash guard", "flashtone.mp4", true, 1, 1, false, true, 0},
      {"flashing, unguarded", "flashtone.mp4", true, 1, 1, false, false, 1},
  };
  constexpr double toneRms = korvalen::testing::lavfiSineRms;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto content = video(c.file);
    content.held = c.held;
    auto plan = planWith(content);
    plan.sound = c.sound;
    plan.volume = c.volume;
    plan.rate = c.rate;
    plan.stopsFlashing = c.guard;
    auto device = std::make_shared<korvalen::testing::ListeningDevice>();
    start(plan, {64, 48}, false, device);
    at(3.0);                                                      // well past the guard's verdict on the flashes
    std::this_thread::sleep_for(std::chrono::milliseconds(150));  // time to decode ahead
    device->listen(0.1);
    const auto heard = korvalen::testing::hear(device->listen(0.4));
    if (c.loudness > 0) {
      EXPECT_NEAR(heard.rms, c.loudness * toneRms, 0.1 * toneRms);
      EXPECT_NEAR(heard.hertz, c.hertz, 8);
    } else {
      EXPECT_EQ(heard.rms, 0);
    }
    if (!c.sound || c.volume <= 0) {
      EXPECT_TRUE(device->sources.empty()) << "nothing decoded for a silent video";
    }
    controller_->stopAnimation();
    EXPECT_TRUE(device->sources.empty()) << "the stop takes its sound away";
  }
}

// A stop the moment the saver starts (XScreenSaver's SIGTERM can come that soon): loads
// still under way land in a loop that is going away, attach no sound to a stopped video, and
// each view says it stopped once. The sanitizer build watches the hand-off as it happens.
TEST_F(SoftwareSaverTest, TornDownWhileItsVideoLoadsLeavesNothingBehind) {
  auto device = std::make_shared<korvalen::testing::ListeningDevice>();
  auto plan = planWith(video("tone.mp4"));
  plan.sound = true;
  for (int round = 0; round < 20; ++round) {
    start(plan, {64, 48}, false, device);
    saver_->loop().setLive(true);  // as on the desktop: loads are not waited for
    controller_->stopAnimation();
    controller_.reset();
    saver_.reset();
    EXPECT_TRUE(device->sources.empty()) << round;
  }
  const auto all = lines();
  EXPECT_EQ(std::count(all.begin(), all.end(), "stopped: stopAnimation"), 20);
}

TEST_F(SoftwareSaverTest, AFlashingGifIsFrozenAndACalmOneAnimates) {
  start(planWith(SaverContent(WallpaperKind::image, file("flashing.gif"), std::nullopt, FitMode::stretch)), {32, 32});
  const auto first = at(0.0);
  EXPECT_EQ(pixel(first, 16, 16).red, 0);
  EXPECT_EQ(at(0.15).bgra, first.bgra);
  EXPECT_EQ(at(0.55).bgra, first.bgra);
  EXPECT_THAT(lines(), ::testing::Contains("flashing.gif flashes: held still"));

  start(planWith(SaverContent(WallpaperKind::image, file("calm.gif"), std::nullopt, FitMode::stretch)), {32, 32});
  std::set<int> levels;
  for (int quarter = 0; quarter < 8; ++quarter) {
    levels.insert(pixel(at(quarter * 0.25), 16, 16).green);
  }
  EXPECT_EQ(levels.size(), 4U) << "each of the four frames shows in turn";
}

TEST_F(SoftwareSaverTest, ARewrittenPlanIsFollowedWithinOnePoll) {
  start(planWith(video("quad.mp4", FitMode::stretch)), {64, 36});
  expectColour(at(0.5), 8, 8, {255, 0, 0}, "the quadrants");
  auto next = planWith(SaverContent(WallpaperKind::image, file("still.png"), std::nullopt, FitMode::stretch));
  next.written = currentDate() + std::chrono::seconds(5);
  ASSERT_TRUE(next.write(planPath()).has_value());
  expectColour(at(3.1), 8, 8, {255, 165, 0}, "the still, after one poll");
  EXPECT_THAT(lines(), ::testing::Contains("the plan moved on"));
}

TEST_F(SoftwareSaverTest, WhatCannotBeShownIsBlackWithItsLine) {
  struct Row {
    SaverContent content;
    std::string line;
  };
  const std::vector<Row> rows{
      {video("broken.mp4"), "broken.mp4 would not play: "},
      {SaverContent(WallpaperKind::image, file("broken.mp4"), std::nullopt, FitMode::fill),
       "broken.mp4 has nothing to show here: black"},
      {SaverContent(WallpaperKind::web, file("index.html"), std::nullopt, FitMode::fill),
       "index.html has nothing to show here: black"},
  };
  for (const auto& row : rows) {
    start(planWith(row.content), {16, 16});
    const auto picture = at(1.0);
    EXPECT_TRUE(std::all_of(picture.bgra.begin(), picture.bgra.end(), [i = 0](std::uint8_t byte) mutable {
      return (i++ % 4 == 3) || byte == 0;
    })) << row.line;
    EXPECT_THAT(lines(), ::testing::Contains(::testing::StartsWith(row.line)));
  }
  fs::remove(planPath());
  controller_.reset();
  saver_ = std::make_unique<SoftwareSaver>(SoftwareScreen{{16, 16}, "display-0|16x16", false, std::nullopt});
  const auto path = planPath().string();
  controller_ = saver::SaverController::make(saver_->platform([path](std::string_view name) {
    return name == "KORVALEN_SAVER_PLAN" ? std::optional<std::string>(path) : std::nullopt;
  }));
  controller_->startAnimation();
  EXPECT_THAT(lines(), ::testing::Contains("no plan at " + path + ": black"));
}

TEST_F(SoftwareSaverTest, AStillAndAWebPagesStillBothShow) {
  start(planWith(SaverContent(WallpaperKind::image, file("still.png"), std::nullopt, FitMode::stretch)), {20, 20});
  expectColour(at(0.2), 10, 10, {255, 165, 0}, "the still");
  auto web = SaverContent(WallpaperKind::web, file("index.html"), std::nullopt, FitMode::stretch);
  web.still = file("still.png");
  start(planWith(web), {20, 20});
  expectColour(at(0.2), 10, 10, {255, 165, 0}, "the page's still");
}

TEST_F(SoftwareSaverTest, DrawingOnlyWhenChangedSkipsAnUnchangedPictureAndNotANewFrame) {
  start(planWith(video("count.mp4")), {64, 48});
  Picture picture(64, 48);
  saver_->loop().runUntil(0.01);
  EXPECT_TRUE(saver_->draw(picture.canvas(), true));
  const auto first = picture.bgra;
  std::fill(picture.bgra.begin(), picture.bgra.end(), std::uint8_t{7});
  saver_->loop().runUntil(0.05);  // still the first frame (10 a second)
  EXPECT_FALSE(saver_->draw(picture.canvas(), true));
  EXPECT_EQ(picture.bgra[0], 7) << "nothing was drawn";
  saver_->loop().runUntil(0.15);
  EXPECT_TRUE(saver_->draw(picture.canvas(), true)) << "the next frame is due";
  EXPECT_EQ(korvalen::testing::numberInFrame(picture.bgra.data(), picture.width * 4), 1);
  EXPECT_FALSE(saver_->draw(picture.canvas(), true));
  EXPECT_TRUE(saver_->draw(picture.canvas())) << "asked to, it always draws";
  // A change of the layers (the flash guard pausing, a resize) counts as well.
  saver_->setScreen(SoftwareScreen{{32, 24}, "display-0|64x48", false, scene::Size{64, 48}});
  controller_->boundsChanged();
  Picture smaller(32, 24);
  EXPECT_TRUE(saver_->draw(smaller.canvas(), true));
}

TEST_F(SoftwareSaverTest, AResizedViewIsPlacedAgainInItsNewBounds) {
  start(planWith(video("quad.mp4", FitMode::stretch)), {320, 180});
  expectColour(at(0.2), 300, 170, {255, 255, 255}, "white quadrant, bottom right");
  size_ = {160, 180};
  saver_->setScreen(SoftwareScreen{size_, "display-0|320x180", false, scene::Size{320, 180}});
  controller_->boundsChanged();
  const auto narrow = at(0.3);
  expectColour(narrow, 150, 170, {255, 255, 255}, "stretched into the narrower view");
  expectColour(narrow, 10, 10, {255, 0, 0}, "red quadrant, top left");
  expectColour(narrow, 150, 10, {0, 255, 0}, "green quadrant, top right");
}

TEST_F(SoftwareSaverTest, ALiveLoopWakesForTheNextFrameAndSkipsTheTicksAStallMissed) {
  start(planWith(video("count.mp4")), {64, 48});
  auto& loop = saver_->loop();
  loop.runUntil(0.01);
  loop.setLive(true);
  Picture picture(64, 48);
  saver_->draw(picture);
  EXPECT_NEAR(loop.nextWake(), 1.0 / 60, 1e-9) << "the flash watch's next tick comes first";
  int ticks = 0;
  auto timer = loop.scheduleRepeating(0.5, [&] { ++ticks; });
  loop.runUntil(10);  // the machine slept for ten seconds
  EXPECT_EQ(ticks, 1) << "one tick, not twenty";
  EXPECT_LE(loop.nextWake(), 10) << "a video behind its clock asks to be woken at once";
  controller_->stopAnimation();
  timer.reset();
  EXPECT_EQ(loop.nextWake(), std::numeric_limits<double>::infinity()) << "nothing left to wake for";
}

}  // namespace
}  // namespace korvalen::engine
