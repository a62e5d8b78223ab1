// A user's crop of the media, in normalised coordinates (the whole frame is 0,0,1,1).
// Stored in library items and the saver plan as given; consumers sanitise before use.
#pragma once

#include "core/support/json.hpp"

namespace korvalen {

struct CropRect {
  double x = 0;
  double y = 0;
  double width = 1;
  double height = 1;

  static constexpr CropRect wholeFrame() { return CropRect{0, 0, 1, 1}; }

  [[nodiscard]] double right() const { return x + width; }
  [[nodiscard]] double bottom() const { return y + height; }

  // Within a hair of the edges counts as no crop, so a crop dragged back out is no crop.
  [[nodiscard]] bool isWholeFrame() const;

  // Sizes below 1% or non-finite revert to the full size; the rectangle is slid back inside
  // the frame, never shrunk to fit.
  [[nodiscard]] CropRect sanitised() const;

  bool operator==(const CropRect&) const = default;
};

namespace json {
template <>
struct Coding<CropRect> {
  static Json encode(const CropRect& crop, const Options& options);
  [[nodiscard]] static Result<CropRect> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
