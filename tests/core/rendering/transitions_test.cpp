#include "core/rendering/transitions.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace korvalen {
namespace {

constexpr std::int64_t W = 1920;
constexpr std::int64_t H = 1080;

TransitionFrame frameOf(const char* id, double p) {
  return TransitionRegistry::find(id)->at(p, W, H);
}

struct CoverCase {
  const char* name;
  const char* id;
  double progress;
  double covered;
  double visibleIncoming;
};

class TransitionCoverage : public ::testing::TestWithParam<CoverCase> {};

TEST_P(TransitionCoverage, HowMuchOfTheScreenShowsAPicture) {
  const auto frame = frameOf(GetParam().id, GetParam().progress);
  EXPECT_NEAR(frame.covered(), GetParam().covered, 1e-12);
  EXPECT_NEAR(frame.visibleIncoming(), GetParam().visibleIncoming, 1e-12);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Transitions, TransitionCoverage, ::testing::Values(
  CoverCase{"CrossBlendStart",    "crossBlend", 0,    1, 0},
  CoverCase{"CrossBlendMiddle",   "crossBlend", 0.5,  1, 0.5},
  CoverCase{"CrossBlendEnd",      "crossBlend", 1,    1, 1},
  CoverCase{"FadeStart",          "fadeThroughBlack", 0,    1, 0},
  CoverCase{"FadeQuarter",        "fadeThroughBlack", 0.25, 0.5, 0},
  CoverCase{"FadeMidpointBlack",  "fadeThroughBlack", 0.5,  0, 0},
  CoverCase{"FadeThreeQuarters",  "fadeThroughBlack", 0.75, 0.5, 0.5},
  CoverCase{"FadeEnd",            "fadeThroughBlack", 1,    1, 1},
  CoverCase{"WipeLeftMiddle",     "wipeLeft",  0.5,  1, 0.5},
  CoverCase{"WipeRightQuarter",   "wipeRight", 0.25, 1, 0.15625},
  CoverCase{"WipeUpEnd",          "wipeUp",    1,    1, 1},
  CoverCase{"WipeDownStart",      "wipeDown",  0,    1, 0},
  CoverCase{"SlideLeftEarly",     "slideLeft",  0.3, 1, 0.216},
  CoverCase{"SlideRightMiddle",   "slideRight", 0.5, 1, 0.5},
  CoverCase{"SlideUpEnd",         "slideUp",    1,   1, 1},
  CoverCase{"SlideDownStart",     "slideDown",  0,   1, 0},
  CoverCase{"ZoomInStart",        "zoomIn",  0,   1, 0},
  CoverCase{"ZoomInMiddle",       "zoomIn",  0.5, 1, 0.5 * 0.8 * 0.8},
  CoverCase{"ZoomInEnd",          "zoomIn",  1,   1, 1},
  // Zooming out, both pictures are half transparent at the middle: a quarter of black shows.
  CoverCase{"ZoomOutMiddle",      "zoomOut", 0.5, 0.75, 0.5},
  CoverCase{"ZoomOutEnd",         "zoomOut", 1,   1, 1}),
  korvalen::testing::ByName{});
// clang-format on

TEST(Transitions, EffectsMoveAndScaleAsDescribed) {
  const auto zoomIn = frameOf("zoomIn", 0);
  EXPECT_EQ(zoomIn.incoming.opacity, 0);
  EXPECT_EQ(zoomIn.incoming.transform, TransitionMatrix::scale(0.6, 960, 540));
  const auto zoomOut = frameOf("zoomOut", 1);
  EXPECT_EQ(zoomOut.outgoing.transform.m11, 1 + (1.4 - 1)) << "the factor as computed in double precision";
  EXPECT_EQ(zoomOut.outgoing.transform.m11, 1.3999999999999999);
  const auto slide = frameOf("slideDown", 0.5);
  EXPECT_EQ(slide.outgoing.transform, TransitionMatrix::translation(0, 540));
  EXPECT_EQ(slide.incoming.transform, TransitionMatrix::translation(0, -540));
  const auto wipe = frameOf("wipeUp", 0.5);
  EXPECT_EQ(wipe.incoming.clip, (FitRect{0, 540, 1920, 540}));
  EXPECT_TRUE(wipe.incoming.isWhole()) << "the clip is not looked at";
  EXPECT_FALSE(slide.incoming.isWhole());
  EXPECT_EQ(frameOf("crossBlend", 0.3).outgoing, TransitionLayer::whole(1920, 1080));
  // Unsafe progress is made safe before the body sees it.
  const auto& cross = TransitionRegistry::all().front();
  EXPECT_EQ(cross.at(std::numeric_limits<double>::quiet_NaN(), W, H), cross.at(0, W, H));
  EXPECT_EQ(cross.at(7, W, H), cross.at(1, W, H));
}

TEST(Transitions, MatrixAndCurve) {
  const auto m = TransitionMatrix::scale(2, 10, 20);
  EXPECT_EQ(m.apply(10, 20), (std::pair<double, double>{10, 20})) << "the centre stays put";
  EXPECT_EQ(m.apply(11, 20), (std::pair<double, double>{12, 20}));
  EXPECT_EQ(TransitionMatrix::translation(3, 4).values(), (std::array<double, 6>{1, 0, 0, 1, 3, 4}));
  EXPECT_EQ(TransitionCurve::ease(0.5), 0.5);
  EXPECT_EQ(TransitionCurve::ease(0.25), 0.15625);
  EXPECT_EQ(TransitionCurve::ease(std::numeric_limits<double>::quiet_NaN()), 0);
  EXPECT_EQ(TransitionCurve::ease(-1), 0);
  EXPECT_EQ(TransitionCurve::clamp(2), 1);
}

TEST(TransitionRegistry, OrderNamesAndLookups) {
  std::vector<std::string> ids;
  for (const auto& effect : TransitionRegistry::all()) {
    ids.push_back(effect.id);
  }
  EXPECT_EQ(ids,
            (std::vector<std::string>{"crossBlend", "fadeThroughBlack", "wipeLeft", "wipeRight", "wipeUp", "wipeDown",
                                      "slideLeft", "slideRight", "slideUp", "slideDown", "zoomIn", "zoomOut"}));
  EXPECT_EQ(TransitionRegistry::find("CROSSBLEND")->id, "crossBlend");
  EXPECT_EQ(TransitionRegistry::find(" zoomout ")->id, "zoomOut");
  EXPECT_EQ(TransitionRegistry::find("  WipeLeft\n")->displayName, "Wipe from the left");
  EXPECT_FALSE(TransitionRegistry::find("zoom_out").has_value());
  EXPECT_FALSE(TransitionRegistry::find(" ").has_value());
  EXPECT_EQ(TransitionRegistry::findOrDefault(std::nullopt).id, "crossBlend");
  EXPECT_EQ(TransitionRegistry::find("slideUp")->displayName, "Slide upwards");
  EXPECT_EQ(TransitionRegistry::find("wipeUp")->displayName, "Wipe from the bottom");
}

TEST(TransitionBudget, ChoosingAnEffect) {
  using TransitionBudget::choose;
  EXPECT_FALSE(choose("slideLeft", 0, false, false, 0, 2).effect.has_value());
  const auto substituted = choose("slideLeft", 1, true, false, 2, 2);
  EXPECT_EQ(substituted.effect->id, "fadeThroughBlack");
  EXPECT_EQ(substituted.note,
            "Slide to the left needs a second decoder and 2 are already open; fading through black instead");
  EXPECT_EQ(choose("slideLeft", 1, true, false, 3, 2).note, substituted.note) << "the limit, not the count";
  EXPECT_EQ(choose("slideLeft", 1, true, false, 1, 2).effect->id, "slideLeft");
  EXPECT_EQ(choose("slideLeft", 1, true, true, 2, 2).effect->id, "slideLeft");
  EXPECT_EQ(choose("fadeThroughBlack", 1, true, false, 9, 2).note, std::nullopt);
  const auto unknown = choose("swirl", 2, false, false, 0, 2);
  EXPECT_EQ(unknown.effect->id, "crossBlend");
  EXPECT_FALSE(unknown.note.has_value());
  EXPECT_EQ(choose(std::nullopt, 2, false, false, 0, 2).effect->id, "crossBlend");
}

TEST(TransitionBudget, ReducedMotionRequestsAndRoom) {
  using TransitionBudget::forReducedMotion;
  EXPECT_EQ(forReducedMotion("zoomIn", true), "crossBlend");
  EXPECT_EQ(forReducedMotion("Zoomin", true), "crossBlend");
  EXPECT_EQ(forReducedMotion("wipeUp", true), "wipeUp");
  EXPECT_EQ(forReducedMotion("Swirl", true), "Swirl");
  EXPECT_EQ(forReducedMotion(std::nullopt, true), std::nullopt);
  EXPECT_EQ(forReducedMotion("zoomIn", false), "zoomIn");
  EXPECT_EQ(TransitionBudget::requested("a", "b", "c"), "a");
  EXPECT_EQ(TransitionBudget::requested(std::nullopt, "b", "c"), "b");
  EXPECT_EQ(TransitionBudget::requested(std::nullopt, std::nullopt, "c"), "c");
  using TransitionBudget::hasRoomForHandover;
  EXPECT_TRUE(hasRoomForHandover({"a", "a"}, "b", 2));
  EXPECT_TRUE(hasRoomForHandover({}, "a", 0));
  EXPECT_FALSE(hasRoomForHandover({"a", "b"}, "c", 2));
  EXPECT_TRUE(hasRoomForHandover({"a", "b"}, "a", 2));
}

TEST(TransitionTiming, HasAFloorAndMeasuresProgress) {
  const TransitionTiming zero(0);
  EXPECT_EQ(zero.seconds, 0.05);
  EXPECT_EQ(zero.progress(0.025), 0.5);
  EXPECT_TRUE(zero.isDone(0.05));
  EXPECT_FALSE(zero.isDone(0.049));
  EXPECT_EQ(TransitionTiming(std::numeric_limits<double>::quiet_NaN()).seconds, 0.05);
  EXPECT_EQ(TransitionTiming(2).progress(5), 1);
  EXPECT_EQ(TransitionTiming(2).progress(std::numeric_limits<double>::quiet_NaN()), 0);
}

}  // namespace
}  // namespace korvalen
