#include "engine/software/software_layer.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace korvalen::engine {
namespace {

// The whole pixels of `target` an area covers: left, top, right, bottom (exclusive).
std::array<std::int64_t, 4> pixelsOf(const Canvas& target, const Area& area) {
  const auto edge = [](double at, std::int64_t size) { return std::clamp<std::int64_t>(std::llround(at), 0, size); };
  return {edge(area.x, target.width), edge(area.y, target.height), edge(area.x + area.width, target.width),
          edge(area.y + area.height, target.height)};
}

// Dim and saturation: each colour through the colour-matrix filter's vectors.
void applyColorMatrix(const Canvas& target, const Area& area, const std::array<std::array<double, 4>, 5>& m) {
  const auto [x0, y0, x1, y1] = pixelsOf(target, area);
  for (std::int64_t y = y0; y < y1; ++y) {
    for (std::int64_t x = x0; x < x1; ++x) {
      auto* pixel = target.row(y) + x * 4;
      const double r = pixel[2] / 255.0;
      const double g = pixel[1] / 255.0;
      const double b = pixel[0] / 255.0;
      // Vectors 0..2 make red, green and blue from (r, g, b, a = 1); vector 4 is the bias.
      for (int out = 0; out < 3; ++out) {
        const auto& v = m[static_cast<std::size_t>(out)];
        const double value = v[0] * r + v[1] * g + v[2] * b + v[3] + m[4][static_cast<std::size_t>(out)];
        pixel[2 - out] = static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 1.0) * 255));
      }
    }
  }
}

// Sharpening: each pixel pushed away from the mean of its 3x3 neighbourhood.
void sharpen(const Canvas& target, const Area& area, double amount) {
  const auto [x0, y0, x1, y1] = pixelsOf(target, area);
  if (x1 <= x0 || y1 <= y0) {
    return;
  }
  // The area as it was, since each pixel reads its neighbours' old values.
  Picture before(x1 - x0, y1 - y0);
  for (std::int64_t y = y0; y < y1; ++y) {
    std::copy_n(target.row(y) + x0 * 4, (x1 - x0) * 4, before.bgra.data() + (y - y0) * before.width * 4);
  }
  for (std::int64_t y = y0; y < y1; ++y) {
    for (std::int64_t x = x0; x < x1; ++x) {
      for (int channel = 0; channel < 3; ++channel) {
        double sum = 0;
        int count = 0;
        for (std::int64_t dy = -1; dy <= 1; ++dy) {
          for (std::int64_t dx = -1; dx <= 1; ++dx) {
            const auto nx = std::clamp(x + dx, x0, x1 - 1);
            const auto ny = std::clamp(y + dy, y0, y1 - 1);
            sum += before.at(nx - x0, ny - y0)[channel];
            ++count;
          }
        }
        const double here = before.at(x - x0, y - y0)[channel];
        const double value = here + amount * (here - sum / count);
        target.row(y)[x * 4 + channel] = static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
      }
    }
  }
}

// A layer's placement in target pixels: its own point (x, y) lands at (ox + sx x, oy + sy y).
struct Placement {
  double ox = 0;
  double oy = 0;
  double sx = 1;
  double sy = 1;
};

// The frame in the parent's space, then the layer's scale about its own centre.
Placement placementOf(const SoftwareLayer& layer, const Placement& parent) {
  const auto& f = layer.frame;
  Placement own;
  own.sx = parent.sx * layer.scaleX;
  own.sy = parent.sy * layer.scaleY;
  own.ox = parent.ox + parent.sx * (f.x + f.width / 2) - own.sx * f.width / 2;
  own.oy = parent.oy + parent.sy * (f.y + f.height / 2) - own.sy * f.height / 2;
  return own;
}

Area coveredBy(const SoftwareLayer& layer, const Placement& own) {
  const auto& f = layer.frame;
  return Area{own.ox, own.oy, own.sx * f.width, own.sy * f.height}.normalised();
}

// Whether some layer's picture will be drawn over every pixel of `all`, opaque: then
// clearing to black first is wasted work (a whole frame's worth of writes).
bool picturesCover(const SoftwareLayer& layer, double time, double parentTime, const Placement& parent,
                   const Area& clip, const Area& all) {
  if (layer.hidden) {
    return false;
  }
  const double localTime = layer.localTime(time, parentTime);
  const auto own = placementOf(layer, parent);
  const Area inside = clip.intersection(coveredBy(layer, own));
  const bool whole = inside.x <= all.x && inside.y <= all.y && inside.x + inside.width >= all.x + all.width &&
                     inside.y + inside.height >= all.y + all.height;
  if (whole && layer.content && layer.frame.width > 0 && layer.frame.height > 0) {
    if (const Picture* picture = layer.content(localTime); picture != nullptr && picture->width > 0) {
      return true;
    }
  }
  return std::any_of(layer.children.begin(), layer.children.end(), [&](const auto& child) {
    return picturesCover(*child, time, localTime, own, layer.masks ? inside : clip, all);
  });
}

void composeLayer(const SoftwareLayer& layer, double time, double parentTime, const Placement& parent, const Area& clip,
                  const Canvas& target) {
  if (layer.hidden) {
    return;
  }
  const double localTime = layer.localTime(time, parentTime);
  const auto& f = layer.frame;
  const auto own = placementOf(layer, parent);
  const Area inside = clip.intersection(coveredBy(layer, own));
  if (layer.content) {
    if (const Picture* picture = layer.content(localTime); picture != nullptr && f.width > 0 && f.height > 0) {
      // Target x -> own x = (x - ox) / sx -> picture x = own x * picture.width / f.width.
      const double kx = static_cast<double>(picture->width) / f.width;
      const double ky = static_cast<double>(picture->height) / f.height;
      drawPicture(target, *picture, Mapping{-own.ox / own.sx * kx, kx / own.sx},
                  Mapping{-own.oy / own.sy * ky, ky / own.sy}, inside);
    }
  }
  for (const auto& child : layer.children) {
    composeLayer(*child, time, localTime, own, layer.masks ? inside : clip, target);
  }
  if (layer.filters) {
    if (layer.filters->colorMatrix) {
      applyColorMatrix(target, inside, *layer.filters->colorMatrix);
    }
    if (layer.filters->sharpen > 0) {
      sharpen(target, inside, layer.filters->sharpen);
    }
  }
}

// FNV-1a over the bits of each value: a key, not a defence against anyone.
class KeyBuilder {
 public:
  template <class T>
  void add(const T& value) {
    std::array<unsigned char, sizeof(T)> bytes{};
    std::memcpy(bytes.data(), &value, sizeof(T));
    for (const auto byte : bytes) {
      key_ = (key_ ^ byte) * 1099511628211ULL;
    }
  }
  // Which object it is, by address: the same layer or picture as last time.
  void addIdentity(const void* object) { add(reinterpret_cast<std::uintptr_t>(object)); }
  [[nodiscard]] std::uint64_t key() const { return key_; }

 private:
  std::uint64_t key_ = 14695981039346656037ULL;
};

void addLayer(KeyBuilder& key, const SoftwareLayer& layer, double time, double parentTime) {
  key.addIdentity(&layer);
  key.add(layer.hidden);
  if (layer.hidden) {
    return;
  }
  const double localTime = layer.localTime(time, parentTime);
  for (const double value :
       {layer.frame.x, layer.frame.y, layer.frame.width, layer.frame.height, layer.scaleX, layer.scaleY}) {
    key.add(value);
  }
  key.add(layer.masks);
  key.add(layer.filters.has_value());
  if (layer.filters) {
    key.add(layer.filters->sharpen);
    if (layer.filters->colorMatrix) {
      key.add(*layer.filters->colorMatrix);
    }
  }
  if (layer.content) {
    const Picture* picture = layer.content(localTime);
    key.addIdentity(picture);
    // Unnumbered pictures are taken to change every time.
    key.add(picture != nullptr ? (picture->serial != 0 ? picture->serial : Picture::freshSerial()) : 0);
  }
  key.add(layer.children.size());
  for (const auto& child : layer.children) {
    addLayer(key, *child, time, localTime);
  }
}

}  // namespace

void SoftwareLayer::addSublayer(const std::shared_ptr<Layer>& child) {
  auto software = std::static_pointer_cast<SoftwareLayer>(child);
  software->removeFromSuperlayer();
  software->parent = this;
  children.push_back(std::move(software));
}

void SoftwareLayer::removeFromSuperlayer() {
  if (parent == nullptr) {
    return;
  }
  auto& siblings = parent->children;
  std::erase_if(siblings, [this](const auto& child) { return child.get() == this; });
  parent = nullptr;
}

void SoftwareLayer::setSpeed(double speed) {
  // The layer's time goes on from where it is, at the new speed.
  baseLocal_ = localTime(loop_.mediaTime(), loop_.mediaTime());
  base_ = loop_.mediaTime();
  speed_ = std::isfinite(speed) ? speed : 0;
  ownClock_ = true;
}

void SoftwareLayer::setTimeOffset(double seconds) {
  baseLocal_ = std::isfinite(seconds) ? seconds : 0;
  base_ = loop_.mediaTime();
  ownClock_ = true;
}

double SoftwareLayer::localTime(double time, double parentTime) const {
  return ownClock_ ? baseLocal_ + (time - base_) * speed_ : parentTime;
}

void compose(const SoftwareLayer& root, double time, const Canvas& target) {
  const Area all{0, 0, static_cast<double>(target.width), static_cast<double>(target.height)};
  if (!picturesCover(root, time, time, Placement{}, all, all)) {
    fillBlack(target);
  }
  composeLayer(root, time, time, Placement{}, all, target);
}

std::uint64_t sceneKey(const SoftwareLayer& root, double time) {
  KeyBuilder key;
  addLayer(key, root, time, time);
  return key.key();
}

}  // namespace korvalen::engine
