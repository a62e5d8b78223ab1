#include "core/playback/flash_analyzer.hpp"
#include "core/scene/layer.hpp"
#include "core/scene/media.hpp"

#include "core/rendering/appearance.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace korvalen::scene {
namespace {

TEST(SaverPlatform, VideosKeepTheirRateBetweenATenthAndNormal) {
  for (const auto& [asked, kept] : std::vector<std::pair<double, double>>{
           {0.5, 0.5}, {2.5, 1.0}, {0.01, 0.1}, {-3, 0.1}, {NAN, 1.0}, {INFINITY, 1.0}, {-INFINITY, 0.1}}) {
    EXPECT_EQ(VideoWallpaper::keptRate(asked), kept) << asked;
  }
}

TEST(SaverPlatform, AppearanceFiltersOnlyWhenTheyChangeSomething) {
  EXPECT_EQ(Filters::forAppearance(0, 1, 0), std::nullopt);
  EXPECT_EQ(Filters::forAppearance(0, 1, NAN), std::nullopt);
  const auto sharpenOnly = Filters::forAppearance(0, 1, 0.5);
  ASSERT_TRUE(sharpenOnly.has_value());
  EXPECT_FALSE(sharpenOnly->colorMatrix.has_value());
  EXPECT_EQ(sharpenOnly->sharpen, 0.5);
  const auto dimmed = Filters::forAppearance(0.3, 0.5, -1);
  ASSERT_TRUE(dimmed.has_value());
  EXPECT_EQ(dimmed->colorMatrix, Appearance::ciColorMatrix(0.3, 0.5));
  EXPECT_EQ(dimmed->sharpen, 0);
}

// A 4x2 frame: the left half black, the right half white.
std::vector<std::uint8_t> halves(std::int64_t width, std::int64_t height, std::int64_t stride) {
  std::vector<std::uint8_t> frame(static_cast<std::size_t>(stride * height), 7);  // padding is noise
  for (std::int64_t y = 0; y < height; ++y) {
    for (std::int64_t x = 0; x < width; ++x) {
      const std::uint8_t level = x < width / 2 ? 0 : 255;
      auto* pixel = &frame[static_cast<std::size_t>(y * stride + x * 4)];
      pixel[0] = pixel[1] = pixel[2] = level;
      pixel[3] = 255;
    }
  }
  return frame;
}

TEST(SaverPlatform, RegionLuminanceReadsOnlyTheRegion) {
  const auto frame = halves(4, 2, 20);
  struct Row {
    FitRect region;
    double expected;
  };
  for (const auto& [region, expected] : std::vector<Row>{{FitRect::unit(), 0.5},
                                                         {{0, 0, 0.5, 1}, 0.0},
                                                         {{0.5, 0, 0.5, 1}, 1.0},
                                                         {{0.25, 0.5, 0.5, 0.5}, 0.5},
                                                         {{2, 2, 1, 1}, 0.5},  // outside: the whole frame
                                                         {{0, 0, NAN, 1}, 0.5}}) {
    EXPECT_NEAR(regionLuminance(frame, 4, 2, 20, region), expected, 1e-12)
        << region.x << "," << region.y << " " << region.width << "x" << region.height;
  }
  EXPECT_EQ(regionLuminance({}, 0, 0, 0, FitRect::unit()), 0);
}

TEST(SaverPlatform, RegionLuminanceOfALargeFrameSamplesWithAStep) {
  // 4K: the step keeps the read near 64k pixels and the answer the same for an even frame.
  const auto frame = halves(3840, 2160, 3840 * 4);
  EXPECT_NEAR(regionLuminance(frame, 3840, 2160, 3840 * 4, FitRect::unit()), 0.5, 0.01);
  EXPECT_NEAR(regionLuminance(frame, 3840, 2160, 3840 * 4, {0.5, 0, 0.5, 1}), 1.0, 1e-12);
}

}  // namespace
}  // namespace korvalen::scene
