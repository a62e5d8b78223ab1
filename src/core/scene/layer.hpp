// A compositor layer and its filters, as every playback engine provides them: what the
// screensaver and the live wallpaper both compose their content with. No platform type
// appears here. Main thread only.
#pragma once

#include <array>
#include <memory>
#include <optional>

namespace korvalen::scene {

// The content layer's filters: the colour matrix for dim and saturation (the colour-matrix
// filter's R, G, B, A columns and bias row), and sharpening (0 = none).
struct Filters {
  std::optional<std::array<std::array<double, 4>, 5>> colorMatrix;
  double sharpen = 0;

  // What every engine's `appearanceFilters` gives: the matrix unless dim and saturation are
  // neutral, sharpening when asked for; nothing at all when neither applies.
  static std::optional<Filters> forAppearance(double dim, double saturation, double sharpen);
  bool operator==(const Filters&) const = default;
};

// A compositor layer. Layers are shared: a parent holds its children.
class Layer {
 public:
  virtual ~Layer() = default;
  virtual void addSublayer(const std::shared_ptr<Layer>& child) = 0;
  virtual void removeFromSuperlayer() = 0;
  virtual void setHidden(bool hidden) = 0;
  // A scale about the layer's centre; -1 mirrors that axis.
  virtual void setScale(double x, double y) = 0;
  virtual void setFilters(const Filters& filters) = 0;
  // The layer's own clock, as animations see it: speed 0 and offset 0 hold the first frame.
  virtual void setSpeed(double speed) = 0;
  virtual void setTimeOffset(double seconds) = 0;
};

}  // namespace korvalen::scene
