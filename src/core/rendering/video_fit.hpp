// Where media lands on a surface: the user's fit mode and optional crop go in, the part of
// the media shown (normalised) and where it is drawn (surface units) come out. Pure; the
// compositor applies the result.
#pragma once

#include "core/rendering/crop_rect.hpp"
#include "core/rendering/fit_mode.hpp"

#include <cstdint>
#include <optional>

namespace korvalen {

struct FitRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;

  static constexpr FitRect unit() { return FitRect{0, 0, 1, 1}; }
  bool operator==(const FitRect&) const = default;
};

struct VideoPlacement {
  FitRect sourceCrop = FitRect::unit();
  FitRect destination;
  bool distorts = false;
  bool operator==(const VideoPlacement&) const = default;
};

namespace VideoFit {

// Any size below 1 gives the whole media over the whole surface, whatever the mode.
// Sizes so large that rounded products leave the 64-bit range are a programming error.
VideoPlacement compute(std::int64_t videoWidth, std::int64_t videoHeight, std::int64_t surfaceWidth,
                       std::int64_t surfaceHeight, FitMode fit);

// With a crop: a crop that sanitises to the whole frame is no crop; otherwise the cropped
// media is placed as media of its own size (at least 1 pixel each way) and the result
// mapped back into the full frame.
VideoPlacement compute(std::int64_t videoWidth, std::int64_t videoHeight, std::int64_t surfaceWidth,
                       std::int64_t surfaceHeight, FitMode fit, const std::optional<CropRect>& crop);

// A normalised rectangle in media pixels, unrounded; zeros when the media size is unknown.
FitRect pixelSourceRect(const FitRect& rect, std::int64_t videoWidth, std::int64_t videoHeight);

}  // namespace VideoFit

namespace json {
template <>
struct Coding<FitRect> {
  static Json encode(const FitRect& rect, const Options& options) {
    return ObjectWriter(options)
        .put("x", rect.x)
        .put("y", rect.y)
        .put("width", rect.width)
        .put("height", rect.height)
        .take();
  }
};
template <>
struct Coding<VideoPlacement> {
  static Json encode(const VideoPlacement& placement, const Options& options) {
    return ObjectWriter(options)
        .put("sourceCrop", placement.sourceCrop)
        .put("destination", placement.destination)
        .put("distorts", placement.distorts)
        .take();
  }
};
}  // namespace json

}  // namespace korvalen
