// One monitor of the live wallpaper on the players' stepped clock, recorded in memory: a
// hand-over's middle frames, a pause that holds its frame and plays on from where it stood,
// and a stop that keeps its last picture.
#include "support/clips.hpp"
#include "support/temp_folder.hpp"
#include "wallpaper/wallpaper_recording.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvalen::wallpaper {
namespace {

constexpr std::int64_t width = 160;
constexpr std::int64_t height = 120;
constexpr double fps = 10;

struct Colour {
  int r = 0;
  int g = 0;
  int b = 0;
};
Colour at(const engine::Picture& frame, std::int64_t x, std::int64_t y) {
  const auto* p = frame.at(x, y);
  return {p[2], p[1], p[0]};
}

class Recording : public ::testing::Test {
 protected:
  std::string clip(const std::string& name, const std::string& source) {
    const auto path = (folder / name).string();
    const auto made = engine::run(testing::ffmpegOnPath(), {"-v", "error", "-f", "lavfi", "-i", source, "-t", "6",
                                                            "-c:v", "libx264", "-pix_fmt", "yuv444p", path});
    EXPECT_TRUE(made && made->exitCode == 0);
    return path;
  }
  static Look look(const std::string& id, const std::string& path) {
    SaverContent content(WallpaperKind::video, path, id, FitMode::fill);
    SaverPlan plan;
    plan.stopsFlashing = false;
    return Look{id, content, plan};
  }
  std::vector<engine::Picture> record(std::vector<RecordedChange> changes, double seconds) {
    std::vector<engine::Picture> frames;
    const std::vector<host::Monitor> monitors{{0, "ONE", 0, 0, width, height, "ONE|160x120"}};
    recordWallpaper(
        [&](const engine::Picture& frame) {
          frames.push_back(frame);
          return true;
        },
        width, height, monitors, std::move(changes), seconds, fps, [](std::string_view) { return std::nullopt; });
    return frames;
  }
  static std::size_t index(double seconds) { return static_cast<std::size_t>(std::llround(seconds * fps)); }

  testing::TempFolder folder;
};

TEST_F(Recording, AHandOverShowsBothPicturesInItsMiddleAndOnlyTheNewOneAfter) {
  const auto red = clip("red.mp4", "color=c=red:s=160x120:r=10");
  const auto blue = clip("blue.mp4", "color=c=blue:s=160x120:r=10");
  const auto blend = TransitionRegistry::find("crossBlend");
  ASSERT_TRUE(blend.has_value());
  const auto frames = record({{0, "ONE|160x120", look("1", red), std::nullopt, PlaybackMode::running},
                              {1, "ONE|160x120", look("2", blue), PlaybackController::Handover{*blend, 2, std::nullopt},
                               PlaybackMode::running}},
                             4);
  ASSERT_EQ(frames.size(), index(4));
  const auto before = at(frames[index(0.5)], 80, 60);
  const auto middle = at(frames[index(2)], 80, 60);
  const auto after = at(frames[index(3.5)], 80, 60);
  EXPECT_GT(before.r, 200);
  EXPECT_LT(before.b, 40);
  // Half-way through a cross-blend: some of each.
  EXPECT_GT(middle.r, 60);
  EXPECT_GT(middle.b, 60);
  EXPECT_LT(middle.r, 200);
  EXPECT_LT(middle.b, 200);
  EXPECT_LT(after.r, 40);
  EXPECT_GT(after.b, 200);
}

TEST_F(Recording, APauseHoldsItsFrameAndPlaysOnFromWhereItStood) {
  const auto moving = clip("moving.mp4", "testsrc2=s=160x120:r=10");
  const RecordedChange start{0, "ONE|160x120", look("1", moving), std::nullopt, PlaybackMode::running};
  const auto straight = record({start}, 4);
  const auto paused = record({start,
                              {1, "ONE|160x120", std::nullopt, std::nullopt, PlaybackMode::paused},
                              {2, "ONE|160x120", std::nullopt, std::nullopt, PlaybackMode::running}},
                             4);
  ASSERT_EQ(paused.size(), index(4));
  // Moving before the pause, still through it.
  EXPECT_NE(paused[index(0.5)].bgra, paused[index(0.9)].bgra);
  for (double t = 1.1; t < 1.95; t += 0.1) {
    EXPECT_EQ(paused[index(t)].bgra, paused[index(1)].bgra) << t;
  }
  // It held the last frame it showed; after the resume it goes on from there, a second behind
  // the run that never paused.
  EXPECT_EQ(paused[index(1)].bgra, straight[index(0.9)].bgra);
  EXPECT_EQ(paused[index(2)].bgra, straight[index(1)].bgra);
  EXPECT_EQ(paused[index(2.5)].bgra, straight[index(1.5)].bgra);
  EXPECT_NE(paused[index(2.5)].bgra, straight[index(2.5)].bgra);
}

TEST_F(Recording, AStopKeepsTheLastPictureAndARunStartsItAgain) {
  const auto moving = clip("moving.mp4", "testsrc2=s=160x120:r=10");
  const auto frames = record({{0, "ONE|160x120", look("1", moving), std::nullopt, PlaybackMode::running},
                              {1, "ONE|160x120", std::nullopt, std::nullopt, PlaybackMode::stopped},
                              {2, "ONE|160x120", std::nullopt, std::nullopt, PlaybackMode::running}},
                             3);
  const auto held = frames[index(1)].bgra;
  EXPECT_TRUE(std::any_of(held.begin(), held.end(), [](std::uint8_t v) { return v > 40; }));
  for (double t = 1.1; t < 1.95; t += 0.1) {
    EXPECT_EQ(frames[index(t)].bgra, held) << t;
  }
  EXPECT_NE(frames[index(2.5)].bgra, held);
  EXPECT_NE(frames[index(2.5)].bgra, frames[index(2.8)].bgra);
}

}  // namespace
}  // namespace korvalen::wallpaper
