// A small CPU compositor: draws a transition frame's two layers (opacity, clip, transform)
// over black into a BGRA picture. The seed of the Linux playback engine's compositing; it is
// exact rather than fast. Thread: any; it keeps no state.
#pragma once

#include "core/rendering/transitions.hpp"

#include <cstdint>
#include <memory>
#include <vector>

namespace korvalen::engine {

// Pixels drawn into: 4 bytes each in B, G, R, X order, rows `stride` bytes apart. A picture
// of ours, or memory a window system hands out, so a frame is composed where it is shown.
struct Canvas {
  std::uint8_t* pixels = nullptr;
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::int64_t stride = 0;

  [[nodiscard]] std::uint8_t* row(std::int64_t y) const { return pixels + y * stride; }
};

// Every pixel of `target` opaque black.
void fillBlack(const Canvas& target);

// A rectangle in target pixels (x right, y down).
struct Area {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  // With a negative width or height turned round.
  [[nodiscard]] Area normalised() const;
  [[nodiscard]] Area intersection(const Area& other) const;
};

struct Picture;

// Pixels made only when they are drawn: a decoded video frame kept as the codec made it, so
// a frame is converted (and scaled) straight into the window's memory, and a frame never
// shown is never converted. Thread: the one that draws.
class PixelSource {
 public:
  virtual ~PixelSource() = default;
  // Converts `part` of the picture (in its own pixels) scaled to fill `target`, when the
  // conversion can write there directly; false otherwise (nothing written).
  virtual bool convertInto(const Canvas& target, const Area& part) const = 0;
  // The whole picture converted, for drawing that scales, clips or blends.
  [[nodiscard]] virtual const Picture& converted() const = 0;
  // The picture at about `budget` pixels, every Nth pixel of every Nth row, for measuring.
  [[nodiscard]] virtual const Picture& sampled(std::int64_t budget) const = 0;
};

struct Picture {
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::vector<std::uint8_t> bgra;  // width × height × 4, rows without padding
  // Pixels still to be made; `bgra` is then empty and drawing converts them.
  std::shared_ptr<const PixelSource> source;

  Picture() = default;
  Picture(std::int64_t w, std::int64_t h);
  void set(std::int64_t x, std::int64_t y, std::uint8_t blue, std::uint8_t green, std::uint8_t red);
  [[nodiscard]] const std::uint8_t* at(std::int64_t x, std::int64_t y) const;
  [[nodiscard]] Canvas canvas() { return Canvas{bgra.data(), width, height, width * 4}; }
  // Who made this content, and which of its states it is: equal serials, equal pixels. 0 for
  // pictures nobody numbers.
  std::uint64_t serial = 0;
  // A serial never given out before (never 0).
  static std::uint64_t freshSerial();
};

// Where a target coordinate falls in a picture: offset + scale × (target pixel centre). A
// negative scale mirrors.
struct Mapping {
  double offset = 0;
  double scale = 1;
};

// Draws `picture` onto `target` within `clip`: each target pixel whose centre lies in the
// clip shows the picture's pixel it maps to (nearest), blended at `opacity`; target pixels
// that map outside the picture are left alone.
void drawPicture(const Canvas& target, const Picture& picture, const Mapping& mapX, const Mapping& mapY,
                 const Area& clip, double opacity = 1);

// Two distinct test pictures of the given size: blue and white bars, and an orange and
// dark-grey checkerboard with a bright disc, so that every effect can be told apart.
Picture barsPicture(std::int64_t width, std::int64_t height);
Picture checkerPicture(std::int64_t width, std::int64_t height);

// The frame drawn into a picture of the frame's size: black, then the outgoing layer, then
// the incoming one. Both pictures must be the frame's size.
Picture composite(const TransitionFrame& frame, const Picture& outgoing, const Picture& incoming);
// The same into a canvas of the frame's size (a window's picture), over black.
void composite(const TransitionFrame& frame, const Picture& outgoing, const Picture& incoming, const Canvas& target);

}  // namespace korvalen::engine
