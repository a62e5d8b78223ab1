#include "core/rendering/crop_rect.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace korvalen {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double inf = std::numeric_limits<double>::infinity();

struct SanitiseCase {
  const char* name;
  CropRect input;
  CropRect expected;
};

class CropSanitise : public ::testing::TestWithParam<SanitiseCase> {};

TEST_P(CropSanitise, RepairsInTheDocumentedOrder) {
  const auto out = GetParam().input.sanitised();
  const auto& expected = GetParam().expected;
  EXPECT_DOUBLE_EQ(out.x, expected.x);
  EXPECT_DOUBLE_EQ(out.y, expected.y);
  EXPECT_DOUBLE_EQ(out.width, expected.width);
  EXPECT_DOUBLE_EQ(out.height, expected.height);
  EXPECT_EQ(out.sanitised(), out) << "sanitising twice changes nothing";
}

INSTANTIATE_TEST_SUITE_P(
    Crop, CropSanitise,
    ::testing::Values(SanitiseCase{"TinyWidthRevertsToFullAndSlides", {0.5, 0.5, 0.005, 0.8}, {0, 0.2, 1, 0.8}},
                      SanitiseCase{"NaNWidthBecomesFull", {0.3, 0, nan, 0.5}, {0, 0, 1, 0.5}},
                      SanitiseCase{"InfiniteHeightBecomesFull", {0, 0.4, 0.5, inf}, {0, 0, 0.5, 1}},
                      SanitiseCase{"ExactlyOnePercentIsKept", {0.2, 0.2, 0.01, 0.01}, {0.2, 0.2, 0.01, 0.01}},
                      SanitiseCase{"JustBelowOnePercentReverts", {0, 0, 0.0099, 0.5}, {0, 0, 1, 0.5}},
                      SanitiseCase{"NegativeSizeClampsToZeroThenReverts", {0, 0, -0.5, 0.5}, {0, 0, 1, 0.5}},
                      SanitiseCase{"OversizeClampsToOne", {0, 0, 3, 0.5}, {0, 0, 1, 0.5}},
                      SanitiseCase{"NegativeOriginClampsToZero", {-0.2, -5, 0.5, 0.5}, {0, 0, 0.5, 0.5}},
                      SanitiseCase{"NaNOriginIsZero", {nan, nan, 0.5, 0.5}, {0, 0, 0.5, 0.5}},
                      SanitiseCase{"OverhangSlidesBackWithoutShrinking", {0.9, 0.75, 0.5, 0.5}, {0.5, 0.5, 0.5, 0.5}},
                      SanitiseCase{"ExactFitIsKept", {0.5, 0, 0.5, 1}, {0.5, 0, 0.5, 1}}),
    korvalen::testing::ByName{});

TEST(CropWholeFrame, ToleratesAHairAtEachEdge) {
  EXPECT_TRUE(CropRect::wholeFrame().isWholeFrame());
  EXPECT_TRUE((CropRect{0.00005, 0, 0.99995, 1}).isWholeFrame());
  EXPECT_TRUE((CropRect{0.0001, 0.0001, 0.9999, 0.9999}).isWholeFrame());
  EXPECT_FALSE((CropRect{0.00011, 0, 1, 1}).isWholeFrame());
  EXPECT_FALSE((CropRect{0, 0, 1, 0.99989}).isWholeFrame());
}

TEST(CropEdges, RightAndBottomAreNotClamped) {
  const CropRect crop{0.75, 0.5, 0.5, 0.75};
  EXPECT_DOUBLE_EQ(crop.right(), 1.25);
  EXPECT_DOUBLE_EQ(crop.bottom(), 1.25);
}

TEST(CropCoding, AllFourKeysAreRequiredAndNothingIsRepaired) {
  const auto json = json::Json::parse(R"({"x":-1,"y":0.5,"width":0.001,"height":2})");
  const auto crop = json::decode<CropRect>(json);
  ASSERT_TRUE(crop.has_value());
  EXPECT_EQ(*crop, (CropRect{-1, 0.5, 0.001, 2}));
  EXPECT_EQ(json::encode(*crop), json);
  EXPECT_FALSE(json::decode<CropRect>(json::Json::parse(R"({"x":0,"y":0,"width":1})")).has_value());
  EXPECT_FALSE(json::decode<CropRect>(json::Json::parse(R"({"x":0,"y":0,"width":1,"height":"1"})")).has_value());
}

}  // namespace
}  // namespace korvalen
