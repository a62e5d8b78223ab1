#include "engine/compositor.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

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

// Pixels made when drawn: converted and scaled straight into the target rows that show them
// when those are whole rows, opaque and within the picture; drawn from the converted picture
// otherwise. Either way the same pixels land.
class CountingSource final : public PixelSource {
 public:
  CountingSource(Picture pixels, bool writesStraight) : pixels_(std::move(pixels)), direct_(writesStraight) {}
  // Nearest pixels of `part`, as drawing the converted picture would take them.
  bool convertInto(const Canvas& target, const Area& part) const override {
    if (!direct_) {
      return false;
    }
    ++direct;
    rows = target.height;
    for (std::int64_t y = 0; y < target.height; ++y) {
      for (std::int64_t x = 0; x < target.width; ++x) {
        const auto sx = static_cast<std::int64_t>(part.x + (static_cast<double>(x) + 0.5) * part.width /
                                                               static_cast<double>(target.width));
        const auto sy = static_cast<std::int64_t>(part.y + (static_cast<double>(y) + 0.5) * part.height /
                                                               static_cast<double>(target.height));
        std::copy_n(pixels_.at(std::clamp<std::int64_t>(sx, 0, pixels_.width - 1),
                               std::clamp<std::int64_t>(sy, 0, pixels_.height - 1)),
                    4, target.row(y) + x * 4);
      }
    }
    return true;
  }
  [[nodiscard]] const Picture& converted() const override {
    ++whole;
    return pixels_;
  }
  [[nodiscard]] const Picture& sampled(std::int64_t) const override { return pixels_; }
  mutable int direct = 0;
  mutable int whole = 0;
  mutable std::int64_t rows = 0;

 private:
  Picture pixels_;
  bool direct_;
};

TEST(Compositor, PicturesMadeWhenDrawnGoStraightIntoWholeRowsThatShowThem) {
  struct Case {
    const char* name;
    Mapping x, y;
    Area clip;
    double opacity;
    bool declines;      // the source cannot write into this target
    std::int64_t rows;  // written straight; 0: drawn from the converted picture
  };
  const Area all{0, 0, 8, 4};
  const std::vector<Case> cases{
      {"whole", {0, 1}, {0, 1}, all, 1, false, 4},
      {"offset within a pixel", {0.25, 1}, {-0.25, 1}, all, 1, false, 4},
      {"scaled", {0, 0.5}, {0, 0.5}, all, 1, false, 4},
      {"some rows", {0, 1}, {0, 1}, Area{0, 1, 8, 2}, 1, false, 2},
      {"declined", {0, 1}, {0, 1}, all, 1, true, 0},
      {"mirrored", {8, -1}, {0, 1}, all, 1, false, 0},
      {"moved a pixel, off the picture", {1, 1}, {0, 1}, all, 1, false, 0},
      {"part of each row", {0, 1}, {0, 1}, Area{0, 0, 4, 4}, 1, false, 0},
      {"blended", {0, 1}, {0, 1}, all, 0.5, false, 0},
  };
  Picture pattern(8, 4);
  for (std::int64_t y = 0; y < 4; ++y) {
    for (std::int64_t x = 0; x < 8; ++x) {
      pattern.set(x, y, static_cast<std::uint8_t>(x * 30), static_cast<std::uint8_t>(y * 60), 7);
    }
  }
  for (const auto& c : cases) {
    auto source = std::make_shared<CountingSource>(pattern, !c.declines);
    Picture lazy;
    lazy.width = 8;
    lazy.height = 4;
    lazy.source = source;
    auto drawn = plain(8, 4, 50);
    auto expected = plain(8, 4, 50);
    drawPicture(drawn.canvas(), lazy, c.x, c.y, c.clip, c.opacity);
    drawPicture(expected.canvas(), pattern, c.x, c.y, c.clip, c.opacity);
    EXPECT_EQ(drawn.bgra, expected.bgra) << c.name;
    EXPECT_EQ(source->direct, c.rows > 0 ? 1 : 0) << c.name;
    EXPECT_EQ(source->rows, c.rows) << c.name;
    EXPECT_EQ(source->whole, c.rows > 0 ? 0 : 1) << c.name;
  }
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
