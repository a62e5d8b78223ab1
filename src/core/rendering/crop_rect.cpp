#include "core/rendering/crop_rect.hpp"

#include <algorithm>
#include <cmath>

namespace korvalen {
namespace {

double sanitisedSize(double value) {
  if (!std::isfinite(value)) {
    return 1;
  }
  value = std::clamp(value, 0.0, 1.0);
  return value < 0.01 ? 1.0 : value;
}

double sanitisedOrigin(double value) {
  return std::isfinite(value) ? std::clamp(value, 0.0, 1.0) : 0.0;
}

}  // namespace

bool CropRect::isWholeFrame() const {
  return x <= 0.0001 && y <= 0.0001 && width >= 0.9999 && height >= 0.9999;
}

CropRect CropRect::sanitised() const {
  CropRect out{sanitisedOrigin(x), sanitisedOrigin(y), sanitisedSize(width), sanitisedSize(height)};
  if (out.x + out.width > 1) {
    out.x = 1 - out.width;
  }
  if (out.y + out.height > 1) {
    out.y = 1 - out.height;
  }
  // Written as "not at least 0" so that NaN is caught too.
  if (!(out.x >= 0)) {
    out.x = 0;
  }
  if (!(out.y >= 0)) {
    out.y = 0;
  }
  return out;
}

namespace json {

namespace {
constexpr auto cropFields = [](auto& coder, auto& crop) {
  coder.required("x", crop.x);
  coder.required("y", crop.y);
  coder.required("width", crop.width);
  coder.required("height", crop.height);
};
}  // namespace

KORVALEN_CODING_FROM_FIELDS(CropRect, cropFields)

}  // namespace json
}  // namespace korvalen
