#include "engine/compositor.hpp"

#include "core/support/precondition.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <vector>

namespace korvalen::engine {
namespace {

// Blends `layer` showing `picture` onto `target`: target pixels map back through the
// layer's transform (translation and uniform scale) and show when they fall in the clip.
void drawLayer(const Canvas& target, const TransitionLayer& layer, const Picture& picture) {
  const auto& m = layer.transform;
  if (m.m11 == 0 || m.m22 == 0) {
    return;
  }
  // The clip is in the picture's own coordinates; in the target it is that rectangle mapped.
  const Area area{m.m31 + layer.clip.x * m.m11, m.m32 + layer.clip.y * m.m22, layer.clip.width * m.m11,
                  layer.clip.height * m.m22};
  drawPicture(target, picture, Mapping{-m.m31 / m.m11, 1 / m.m11}, Mapping{-m.m32 / m.m22, 1 / m.m22},
              area.normalised(), layer.opacity);
}

}  // namespace

Area Area::normalised() const {
  Area out = *this;
  if (out.width < 0) {
    out.x += out.width;
    out.width = -out.width;
  }
  if (out.height < 0) {
    out.y += out.height;
    out.height = -out.height;
  }
  return out;
}

Area Area::intersection(const Area& other) const {
  const double left = std::max(x, other.x);
  const double top = std::max(y, other.y);
  const double right = std::min(x + width, other.x + other.width);
  const double bottom = std::min(y + height, other.y + other.height);
  return Area{left, top, std::max(0.0, right - left), std::max(0.0, bottom - top)};
}

void drawPicture(const Canvas& target, const Picture& picture, const Mapping& mapX, const Mapping& mapY,
                 const Area& clip, double opacity) {
  opacity = std::isfinite(opacity) ? std::clamp(opacity, 0.0, 1.0) : 0.0;
  if (opacity <= 0 || picture.width < 1 || picture.height < 1) {
    return;
  }
  // The target pixels whose centres fall in the clip.
  const auto first = [](double from, std::int64_t size) {
    return std::clamp<std::int64_t>(static_cast<std::int64_t>(std::ceil(from - 0.5)), 0, size);
  };
  const auto x0 = first(clip.x, target.width);
  const auto x1 = first(clip.x + clip.width, target.width);
  const auto y0 = first(clip.y, target.height);
  const auto y1 = first(clip.y + clip.height, target.height);
  if (x1 <= x0) {
    return;
  }
  if (picture.source) {
    // Whole rows of the target showing the picture scaled, opaque: the part of the picture
    // they show is converted and scaled straight into them.
    const Area part{mapX.offset + mapX.scale * static_cast<double>(x0),
                    mapY.offset + mapY.scale * static_cast<double>(y0), mapX.scale * static_cast<double>(x1 - x0),
                    mapY.scale * static_cast<double>(y1 - y0)};
    const double slackX = mapX.scale / 2;
    const double slackY = mapY.scale / 2;
    const bool straight = opacity >= 1 && mapX.scale > 0 && mapY.scale > 0 && x0 == 0 && x1 == target.width &&
                          y1 > y0 && part.x >= -slackX && part.y >= -slackY &&
                          part.x + part.width <= static_cast<double>(picture.width) + slackX &&
                          part.y + part.height <= static_cast<double>(picture.height) + slackY;
    const Canvas rows{target.row(y0), target.width, y1 - y0, target.stride};
    if (!(straight && picture.source->convertInto(rows, part))) {
      drawPicture(target, picture.source->converted(), mapX, mapY, clip, opacity);
    }
    return;
  }
  // Where each target column falls in the picture, worked out once for every row; -1 off it.
  std::vector<std::int64_t> columns(static_cast<std::size_t>(x1 - x0));
  bool contiguous = true;
  for (std::int64_t x = x0; x < x1; ++x) {
    const double sourceX = mapX.offset + mapX.scale * (static_cast<double>(x) + 0.5);
    const bool inside = sourceX >= 0 && sourceX < static_cast<double>(picture.width);
    auto& column = columns[static_cast<std::size_t>(x - x0)];
    column = inside ? static_cast<std::int64_t>(sourceX) : -1;
    contiguous = contiguous && inside && (x == x0 || column == columns[static_cast<std::size_t>(x - x0 - 1)] + 1);
  }
  const bool opaque = opacity >= 1;
  for (std::int64_t y = y0; y < y1; ++y) {
    const double sourceY = mapY.offset + mapY.scale * (static_cast<double>(y) + 0.5);
    if (!(sourceY >= 0 && sourceY < static_cast<double>(picture.height))) {
      continue;
    }
    const std::uint8_t* sourceRow = picture.at(0, static_cast<std::int64_t>(sourceY));
    auto* row = target.row(y);
    if (opaque && contiguous) {
      // The picture at its own size: one copy per row.
      std::memcpy(row + x0 * 4, sourceRow + columns.front() * 4, static_cast<std::size_t>(x1 - x0) * 4);
      continue;
    }
    for (std::int64_t x = x0; x < x1; ++x) {
      const auto column = columns[static_cast<std::size_t>(x - x0)];
      if (column < 0) {
        continue;
      }
      const auto* source = sourceRow + column * 4;
      auto* pixel = row + x * 4;
      for (int channel = 0; channel < 3; ++channel) {
        pixel[channel] =
            opaque ? source[channel]
                   : static_cast<std::uint8_t>(std::lround(static_cast<double>(pixel[channel]) * (1 - opacity) +
                                                           static_cast<double>(source[channel]) * opacity));
      }
    }
  }
}

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

std::uint64_t Picture::freshSerial() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
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

void fillBlack(const Canvas& target) {
  static constexpr std::uint32_t black = 0xFF000000U;  // B, G, R, A in memory
  for (std::int64_t y = 0; y < target.height; ++y) {
    auto* row = target.row(y);
    for (std::int64_t x = 0; x < target.width; ++x) {
      std::memcpy(row + x * 4, &black, 4);
    }
  }
}

Picture composite(const TransitionFrame& frame, const Picture& outgoing, const Picture& incoming) {
  Picture target(frame.width, frame.height);
  composite(frame, outgoing, incoming, target.canvas());
  return target;
}

void composite(const TransitionFrame& frame, const Picture& outgoing, const Picture& incoming, const Canvas& target) {
  KORVALEN_PRECONDITION(outgoing.width == frame.width && outgoing.height == frame.height);
  KORVALEN_PRECONDITION(incoming.width == frame.width && incoming.height == frame.height);
  KORVALEN_PRECONDITION(target.width == frame.width && target.height == frame.height);
  fillBlack(target);
  drawLayer(target, frame.outgoing, outgoing);
  drawLayer(target, frame.incoming, incoming);
}

}  // namespace korvalen::engine
