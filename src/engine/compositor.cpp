#include "engine/compositor.hpp"

#include "core/support/precondition.hpp"

#include <algorithm>
#include <cmath>

namespace korvalen::engine {
namespace {

// Blends `layer` showing `picture` onto `target`. Each target pixel centre is mapped back
// through the layer's transform (translation and uniform scale) and shown when it falls in
// the clip.
void drawLayer(Picture& target, const TransitionLayer& layer, const Picture& picture) {
  const double opacity = std::clamp(layer.opacity, 0.0, 1.0);
  const auto& m = layer.transform;
  if (opacity <= 0 || m.m11 == 0 || m.m22 == 0) {
    return;
  }
  for (std::int64_t y = 0; y < target.height; ++y) {
    const double sourceY = (static_cast<double>(y) + 0.5 - m.m32) / m.m22;
    if (sourceY < layer.clip.y || sourceY >= layer.clip.y + layer.clip.height || sourceY < 0 ||
        sourceY >= static_cast<double>(picture.height)) {
      continue;
    }
    for (std::int64_t x = 0; x < target.width; ++x) {
      const double sourceX = (static_cast<double>(x) + 0.5 - m.m31) / m.m11;
      if (sourceX < layer.clip.x || sourceX >= layer.clip.x + layer.clip.width || sourceX < 0 ||
          sourceX >= static_cast<double>(picture.width)) {
        continue;
      }
      const auto* source = picture.at(static_cast<std::int64_t>(sourceX), static_cast<std::int64_t>(sourceY));
      auto* pixel = target.bgra.data() + (y * target.width + x) * 4;
      for (int channel = 0; channel < 3; ++channel) {
        const double blended =
            static_cast<double>(pixel[channel]) * (1 - opacity) + static_cast<double>(source[channel]) * opacity;
        pixel[channel] = static_cast<std::uint8_t>(std::lround(blended));
      }
    }
  }
}

}  // namespace

Picture::Picture(std::int64_t w, std::int64_t h) : width(w), height(h) {
  KORVALEN_PRECONDITION(w >= 0 && h >= 0);
  bgra.assign(static_cast<std::size_t>(w * h * 4), 0);
  for (std::size_t alpha = 3; alpha < bgra.size(); alpha += 4) {
    bgra[alpha] = 255;
  }
}

void Picture::set(std::int64_t x, std::int64_t y, std::uint8_t blue, std::uint8_t green, std::uint8_t red) {
  auto* pixel = bgra.data() + (y * width + x) * 4;
  pixel[0] = blue;
  pixel[1] = green;
  pixel[2] = red;
}

const std::uint8_t* Picture::at(std::int64_t x, std::int64_t y) const {
  return bgra.data() + (y * width + x) * 4;
}

Picture barsPicture(std::int64_t width, std::int64_t height) {
  Picture picture(width, height);
  const auto bar = std::max<std::int64_t>(width / 8, 1);
  for (std::int64_t y = 0; y < height; ++y) {
    for (std::int64_t x = 0; x < width; ++x) {
      if ((x / bar) % 2 == 0) {
        picture.set(x, y, 200, 90, 30);
      } else {
        picture.set(x, y, 240, 240, 240);
      }
    }
  }
  return picture;
}

Picture checkerPicture(std::int64_t width, std::int64_t height) {
  Picture picture(width, height);
  const auto cell = std::max<std::int64_t>(std::min(width, height) / 6, 1);
  const double cx = static_cast<double>(width) / 2;
  const double cy = static_cast<double>(height) / 2;
  const double radius = static_cast<double>(std::min(width, height)) / 4;
  for (std::int64_t y = 0; y < height; ++y) {
    for (std::int64_t x = 0; x < width; ++x) {
      const double dx = static_cast<double>(x) - cx;
      const double dy = static_cast<double>(y) - cy;
      if (dx * dx + dy * dy <= radius * radius) {
        picture.set(x, y, 120, 230, 255);
      } else if (((x / cell) + (y / cell)) % 2 == 0) {
        picture.set(x, y, 20, 120, 240);
      } else {
        picture.set(x, y, 50, 50, 50);
      }
    }
  }
  return picture;
}

Picture composite(const TransitionFrame& frame, const Picture& outgoing, const Picture& incoming) {
  KORVALEN_PRECONDITION(outgoing.width == frame.width && outgoing.height == frame.height);
  KORVALEN_PRECONDITION(incoming.width == frame.width && incoming.height == frame.height);
  Picture target(frame.width, frame.height);
  drawLayer(target, frame.outgoing, outgoing);
  drawLayer(target, frame.incoming, incoming);
  return target;
}

}  // namespace korvalen::engine
