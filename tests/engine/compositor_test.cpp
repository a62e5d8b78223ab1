#include "engine/compositor.hpp"

#include <gtest/gtest.h>

namespace korvalen::engine {
namespace {

// A picture of one colour, for checking what lands where.
Picture plain(std::int64_t width, std::int64_t height, std::uint8_t value) {
  Picture picture(width, height);
  for (std::int64_t y = 0; y < height; ++y) {
    for (std::int64_t x = 0; x < width; ++x) {
      picture.set(x, y, value, value, value);
    }
  }
  return picture;
}

std::uint8_t grey(const Picture& picture, std::int64_t x, std::int64_t y) {
  return picture.at(x, y)[0];
}

TEST(Compositor, LayersAreClippedMovedAndBlendedOverBlack) {
  const auto white = plain(8, 4, 255);
  const auto mid = plain(8, 4, 100);
  const auto& registry = TransitionRegistry::all();
  const auto find = [&](const char* id) { return *TransitionRegistry::find(id); };

  // Wipe from the left halfway: left half incoming, right half outgoing.
  auto wiped = composite(find("wipeLeft").at(0.5, 8, 4), white, mid);
  EXPECT_EQ(grey(wiped, 0, 0), 100);
  EXPECT_EQ(grey(wiped, 3, 3), 100);
  EXPECT_EQ(grey(wiped, 4, 0), 255);
  // A cross blend halfway mixes the two evenly.
  EXPECT_EQ(grey(composite(registry.front().at(0.5, 8, 4), white, mid), 2, 2), 178);
  // Fading through black is black at the middle.
  EXPECT_EQ(grey(composite(find("fadeThroughBlack").at(0.5, 8, 4), white, mid), 2, 2), 0);
  // Sliding left halfway: the outgoing picture's right half shows on the left.
  const auto slid = composite(find("slideLeft").at(0.5, 8, 4), white, mid);
  EXPECT_EQ(grey(slid, 3, 1), 255);
  EXPECT_EQ(grey(slid, 4, 1), 100);
  // Zooming in from nothing: only the outgoing picture.
  EXPECT_EQ(grey(composite(find("zoomIn").at(0, 8, 4), white, mid), 4, 2), 255);
  EXPECT_EQ(composite(registry.front().at(1, 8, 4), white, mid).bgra, mid.bgra);
}

TEST(CompositorDeathTest, PicturesMustMatchTheFrame) {
  const auto small = plain(2, 2, 0);
  EXPECT_DEATH(composite(TransitionRegistry::all().front().at(0.5, 8, 4), small, small), "precondition failed");
}

TEST(Compositor, TestPicturesDiffer) {
  EXPECT_NE(barsPicture(64, 36).bgra, checkerPicture(64, 36).bgra);
  EXPECT_EQ(barsPicture(64, 36).bgra.size(), 64U * 36U * 4U);
}

}  // namespace
}  // namespace korvalen::engine
