#include "core/rendering/video_fit.hpp"

#include "core/support/precondition.hpp"

#include <algorithm>
#include <cmath>

namespace korvalen::VideoFit {
namespace {

double real(std::int64_t value) {
  return static_cast<double>(value);
}

// Rounds half away from zero; the product must fit a signed 64-bit integer.
std::int64_t roundedSize(double value) {
  const double rounded = std::round(value);
  KORVALEN_PRECONDITION(std::isfinite(rounded) && rounded >= -9223372036854775808.0 && rounded < 9223372036854775808.0);
  return static_cast<std::int64_t>(rounded);
}

// Half the leftover, truncated toward zero, so an odd pixel goes to the right or bottom.
std::int64_t centredOffset(std::int64_t outer, std::int64_t inner) {
  std::int64_t leftover = 0;
  KORVALEN_PRECONDITION(!__builtin_sub_overflow(outer, inner, &leftover));
  return leftover / 2;
}

FitRect centredSource(double width, double height) {
  return FitRect{(1 - width) * 0.5, (1 - height) * 0.5, width, height};
}

}  // namespace

VideoPlacement compute(std::int64_t videoWidth, std::int64_t videoHeight, std::int64_t surfaceWidth,
                       std::int64_t surfaceHeight, FitMode fit) {
  const auto vw = videoWidth;
  const auto vh = videoHeight;
  const auto sw = surfaceWidth;
  const auto sh = surfaceHeight;
  VideoPlacement placement{FitRect::unit(), FitRect{0, 0, real(sw), real(sh)}, false};
  if (vw < 1 || vh < 1 || sw < 1 || sh < 1) {
    return placement;
  }
  switch (fit) {
    case FitMode::fill: {
      const double media = real(vw) / real(vh);
      const double surface = real(sw) / real(sh);
      double width = 1;
      double height = 1;
      if (surface < media) {
        width = surface / media;
      } else if (media < surface) {
        height = media / surface;
      }
      placement.sourceCrop = centredSource(width, height);
      break;
    }
    case FitMode::fit: {
      const double scale = std::min(real(sw) / real(vw), real(sh) / real(vh));
      const auto width = roundedSize(scale * real(vw));
      const auto height = roundedSize(scale * real(vh));
      placement.destination =
          FitRect{real(centredOffset(sw, width)), real(centredOffset(sh, height)), real(width), real(height)};
      break;
    }
    case FitMode::stretch:
      placement.distorts = true;
      break;
    case FitMode::center: {
      const auto width = std::min(sw, vw);
      const auto height = std::min(sh, vh);
      placement.sourceCrop = centredSource(real(width) / real(vw), real(height) / real(vh));
      placement.destination =
          FitRect{real(centredOffset(sw, width)), real(centredOffset(sh, height)), real(width), real(height)};
      break;
    }
  }
  return placement;
}

VideoPlacement compute(std::int64_t videoWidth, std::int64_t videoHeight, std::int64_t surfaceWidth,
                       std::int64_t surfaceHeight, FitMode fit, const std::optional<CropRect>& crop) {
  const auto vw = videoWidth;
  const auto vh = videoHeight;
  const auto sw = surfaceWidth;
  const auto sh = surfaceHeight;
  if (!crop) {
    return compute(vw, vh, sw, sh, fit);
  }
  const CropRect c = crop->sanitised();
  if (c.isWholeFrame()) {
    return compute(vw, vh, sw, sh, fit);
  }
  // Raised to 1 before the inner size check: a crop of unknown-size media is placed as a
  // 1-pixel media rather than falling back to the default placement.
  const auto croppedWidth = std::max<std::int64_t>(roundedSize(c.width * real(vw)), 1);
  const auto croppedHeight = std::max<std::int64_t>(roundedSize(c.height * real(vh)), 1);
  VideoPlacement inner = compute(croppedWidth, croppedHeight, sw, sh, fit);
  const FitRect p = inner.sourceCrop;
  inner.sourceCrop = FitRect{c.x + c.width * p.x, c.y + c.height * p.y, c.width * p.width, c.height * p.height};
  return inner;
}

FitRect pixelSourceRect(const FitRect& rect, std::int64_t videoWidth, std::int64_t videoHeight) {
  if (videoWidth < 1 || videoHeight < 1) {
    return FitRect{0, 0, 0, 0};
  }
  const double width = real(videoWidth);
  const double height = real(videoHeight);
  return FitRect{rect.x * width, rect.y * height, rect.width * width, rect.height * height};
}

}  // namespace korvalen::VideoFit
