#include "engine/software/video_feeds.hpp"

#include "engine/software/saver_loop.hpp"
#include "engine/software/software_layer.hpp"
#include "engine/software/software_video.hpp"
#include "support/clips.hpp"
#include "support/temp_folder.hpp"

#include <gtest/gtest.h>

namespace korvalen::engine {
namespace {

// Two screens, each with its own loop and clock, as two monitors of the wallpaper are.
class VideoFeedsTest : public ::testing::Test {
 protected:
  void SetUp() override { korvalen::testing::makeNumberedClip(korvalen::testing::ffmpegOnPath(), clip, 50, 10); }

  struct Screen {
    SaverLoop loop;
    std::shared_ptr<scene::VideoWallpaper> video;
    std::shared_ptr<SoftwareLayer> layer;
  };
  static void open(Screen& screen, const std::filesystem::path& file, TrimRange trim,
                   const std::shared_ptr<VideoFeeds>& feeds, double at) {
    screen.loop.runUntil(at);
    screen.video = makeSoftwareVideo(file, trim, screen.loop, nullptr, feeds);
    screen.layer = std::static_pointer_cast<SoftwareLayer>(screen.video->makeLayer());
    bool loaded = false;
    screen.video->load([&](const auto& size) { loaded = size.has_value(); });
    screen.loop.runUntil(at);
    ASSERT_TRUE(loaded);
    screen.video->play();
  }
  // The frame number a screen shows at `time` of its clock.
  static int shown(Screen& screen, double time) {
    screen.loop.runUntil(time);
    const Picture* picture = screen.layer->content(time);
    if (picture == nullptr) {
      return -1;
    }
    const Picture& pixels = picture->source ? picture->source->converted() : *picture;
    return korvalen::testing::numberInFrame(pixels.bgra.data(), pixels.width * 4);
  }

  korvalen::testing::TempFolder folder;
  std::filesystem::path clip = folder / "count.mp4";
};

TEST_F(VideoFeedsTest, ScreensShowingOneVideoShareItsDecoderAndStayTogether) {
  auto feeds = std::make_shared<VideoFeeds>();
  Screen left;
  Screen right;
  open(left, clip, {}, feeds, 0);
  EXPECT_EQ(shown(left, 1.0), 10);
  EXPECT_EQ(feeds->live(), 1U);
  // The second screen joins at the newest frame rather than starting the clip over.
  open(right, clip, {}, feeds, 5.0);
  EXPECT_EQ(feeds->live(), 1U);
  EXPECT_EQ(shown(right, 5.0), 10);
  for (const double step : {0.1, 0.3, 0.4}) {
    EXPECT_EQ(shown(left, 1.0 + step), shown(right, 5.0 + step)) << step;
  }
  EXPECT_EQ(shown(left, 1.5), 15);
  EXPECT_EQ(shown(right, 5.5), 15);
  // One screen letting go leaves the other playing on.
  left.video->stop();
  left.video.reset();
  EXPECT_EQ(shown(right, 6.0), 20);
  EXPECT_EQ(feeds->live(), 1U);
  right.video->stop();
  EXPECT_EQ(feeds->live(), 0U);
}

TEST_F(VideoFeedsTest, AnotherStretchOrNoSharingDecodesOnItsOwn) {
  auto feeds = std::make_shared<VideoFeeds>();
  Screen whole;
  Screen trimmed;
  Screen alone;
  open(whole, clip, {}, feeds, 0);
  open(trimmed, clip, {2, 3}, feeds, 0);
  open(alone, clip, {}, nullptr, 0);
  EXPECT_EQ(feeds->live(), 2U);
  EXPECT_EQ(shown(whole, 0.5), 5);
  EXPECT_EQ(shown(trimmed, 0.5), 25);
  EXPECT_EQ(shown(alone, 0.3), 3);
  // Taking frames on one does not move the others.
  EXPECT_EQ(shown(whole, 0.6), 6);
}

}  // namespace
}  // namespace korvalen::engine
