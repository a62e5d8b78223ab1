#include "core/rendering/video_fit.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

#include <limits>

namespace korvalen {
namespace {

struct FitCase {
  const char* name;
  std::int64_t vw, vh, sw, sh;
  FitMode fit;
  std::optional<CropRect> crop;
  FitRect source;
  FitRect destination;
  bool distorts;
};

void expectNear(const FitRect& actual, const FitRect& expected, const char* what) {
  constexpr double tolerance = 1e-12;
  EXPECT_NEAR(actual.x, expected.x, tolerance) << what << ".x";
  EXPECT_NEAR(actual.y, expected.y, tolerance) << what << ".y";
  EXPECT_NEAR(actual.width, expected.width, tolerance) << what << ".width";
  EXPECT_NEAR(actual.height, expected.height, tolerance) << what << ".height";
}

class VideoFitCompute : public ::testing::TestWithParam<FitCase> {};

TEST_P(VideoFitCompute, PlacesMediaOnTheSurface) {
  const auto& c = GetParam();
  const auto placement = VideoFit::compute(c.vw, c.vh, c.sw, c.sh, c.fit, c.crop);
  expectNear(placement.sourceCrop, c.source, "sourceCrop");
  // Destinations are whole surface units: compare exactly.
  EXPECT_EQ(placement.destination, c.destination);
  EXPECT_EQ(placement.distorts, c.distorts);
  if (!c.crop) {
    EXPECT_EQ(placement, VideoFit::compute(c.vw, c.vh, c.sw, c.sh, c.fit)) << "no crop is the same as the short form";
  }
}

constexpr auto none = std::nullopt;

// clang-format off
INSTANTIATE_TEST_SUITE_P(Fit, VideoFitCompute, ::testing::Values(
  //      name                               vw    vh    sw    sh    fit               crop                           source                   destination            distorts
  FitCase{"FillCutsTheSides",                1920, 1080, 1920, 1200, FitMode::fill,    none,                          {0.05, 0, 0.9, 1},       {0, 0, 1920, 1200},    false},
  FitCase{"FillCutsTopAndBottom",            1920, 1080, 2560, 1080, FitMode::fill,    none,                          {0, 0.125, 1, 0.75},     {0, 0, 2560, 1080},    false},
  FitCase{"FillSameAspect",                  3840, 2160, 1920, 1080, FitMode::fill,    none,                          {0, 0, 1, 1},            {0, 0, 1920, 1080},    false},
  FitCase{"FitLetterboxes",                  1920, 1080, 1920, 1200, FitMode::fit,     none,                          {0, 0, 1, 1},            {0, 60, 1920, 1080},   false},
  FitCase{"FitOddLeftoverGoesRight",         1000, 1000, 1921, 1080, FitMode::fit,     none,                          {0, 0, 1, 1},            {420, 0, 1080, 1080},  false},
  FitCase{"FitRoundsHalfAwayFromZero",       2,    1,    5,    5,    FitMode::fit,     none,                          {0, 0, 1, 1},            {0, 1, 5, 3},          false},
  FitCase{"CenterSmallerMedia",              1920, 1080, 1920, 1200, FitMode::center,  none,                          {0, 0, 1, 1},            {0, 60, 1920, 1080},   false},
  FitCase{"CenterLargerMediaIsCropped",      3840, 2160, 1920, 1080, FitMode::center,  none,                          {0.25, 0.25, 0.5, 0.5},  {0, 0, 1920, 1080},    false},
  FitCase{"CenterOddLeftover",               101,  50,   200,  51,   FitMode::center,  none,                          {0, 0, 1, 1},            {49, 0, 101, 50},      false},
  FitCase{"StretchDistorts",                 640,  480,  1920, 1080, FitMode::stretch, none,                          {0, 0, 1, 1},            {0, 0, 1920, 1080},    true},
  FitCase{"StretchUnknownMediaDoesNotDistort", 0,  480,  1920, 1080, FitMode::stretch, none,                          {0, 0, 1, 1},            {0, 0, 1920, 1080},    false},
  FitCase{"ZeroSurfaceGivesDefault",         1920, 1080, 0,    1080, FitMode::fit,     none,                          {0, 0, 1, 1},            {0, 0, 0, 1080},       false},
  FitCase{"NegativeMediaGivesDefault",       -5,   1080, 800,  600,  FitMode::center,  none,                          {0, 0, 1, 1},            {0, 0, 800, 600},      false},
  FitCase{"AlmostWholeCropIsNoCrop",         1920, 1080, 1920, 1200, FitMode::fill,    CropRect{0.00005, 0, 0.99995, 1}, {0.05, 0, 0.9, 1},    {0, 0, 1920, 1200},    false},
  FitCase{"CropComposedIntoTheFrame",        1920, 1080, 1920, 1080, FitMode::fill,    CropRect{0.25, 0, 0.5, 1},     {0.25, 0.25, 0.5, 0.5},  {0, 0, 1920, 1080},    false},
  FitCase{"CropWithFitUsesCroppedSize",      1920, 1080, 1920, 1080, FitMode::fit,     CropRect{0.25, 0, 0.5, 1},     {0.25, 0, 0.5, 1},       {480, 0, 960, 1080},   false},
  FitCase{"CropIsSanitisedFirst",            1000, 1000, 1000, 1000, FitMode::stretch, CropRect{0.9, 0.5, 0.5, 0.005}, {0.5, 0, 0.5, 1},       {0, 0, 1000, 1000},    true},
  // A crop of media of unknown size is placed as 1-pixel media, not as the default.
  FitCase{"CropOfZeroSizedMediaActsAsOnePixel", 0,  0,    100,  50,   FitMode::fit,     CropRect{0.25, 0.25, 0.5, 0.5}, {0.25, 0.25, 0.5, 0.5}, {25, 0, 50, 50},       false},
  FitCase{"CropOfZeroSizedMediaStretches",   0,    0,    100,  50,   FitMode::stretch, CropRect{0.25, 0.25, 0.5, 0.5}, {0.25, 0.25, 0.5, 0.5}, {0, 0, 100, 50},       true}),
  korvalen::testing::ByName{});
// clang-format on

TEST(VideoFitPixels, ScalesTheNormalisedRectangleUnrounded) {
  EXPECT_EQ(VideoFit::pixelSourceRect({0.25, 0.25, 0.5, 0.5}, 1920, 1080), (FitRect{480, 270, 960, 540}));
  EXPECT_EQ(VideoFit::pixelSourceRect({0.1, 0, 0.3, 1}, 5, 3), (FitRect{0.5, 0, 1.5, 3}));
  EXPECT_EQ(VideoFit::pixelSourceRect({0.25, 0.25, 0.5, 0.5}, 1920, 0), (FitRect{0, 0, 0, 0}));
  EXPECT_EQ(VideoFit::pixelSourceRect({0.25, 0.25, 0.5, 0.5}, -1, 1080), (FitRect{0, 0, 0, 0}));
}

TEST(VideoFitDeathTest, SizesBeyondTheIntegerRangeAreAProgrammingError) {
  constexpr auto huge = std::numeric_limits<std::int64_t>::max();
  // The full-width crop of huge media rounds to 2^63, one past the range.
  EXPECT_DEATH(VideoFit::compute(huge, huge, 10, 10, FitMode::fill, CropRect{0, 0, 1, 0.5}), "precondition failed");
  // So does the drawn width of huge media fitted to a huge surface.
  EXPECT_DEATH(VideoFit::compute(huge, 1, huge, 1, FitMode::fit), "precondition failed");
  // Just inside the range nothing stops.
  EXPECT_EQ(VideoFit::compute(1LL << 40, 1, 1LL << 40, 1, FitMode::fit).destination.width, 1099511627776.0);
}

}  // namespace
}  // namespace korvalen
