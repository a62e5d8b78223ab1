// Screens, sizes and the placement of content on a screen, as every playback engine provides
// them. No platform type appears here. Main thread only.
#pragma once

#include "core/rendering/crop_rect.hpp"
#include "core/rendering/fit_mode.hpp"
#include "core/rendering/video_fit.hpp"
#include "core/scene/layer.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace korvalen::scene {

// In points, as the host measures views and screens.
struct Size {
  double width = 0;
  double height = 0;
  bool operator==(const Size&) const = default;
};

struct PixelSize {
  std::int64_t width = 0;
  std::int64_t height = 0;
  bool operator==(const PixelSize&) const = default;
};

// A display, as the host hands it out: the platform's own reference and its frame size.
struct Screen {
  std::uint64_t handle = 0;
  Size frame;
  bool operator==(const Screen&) const = default;
};

// Layers and placement on a screen.
class ScreenSurface {
 public:
  struct Layers {
    std::shared_ptr<Layer> slot;
    std::shared_ptr<Layer> content;
  };
  virtual ~ScreenSurface() = default;
  // The slot layer and, inside it, the content layer, covering `size` from the origin.
  virtual Layers makeLayers(Size covering) = 0;
  // Makes a slot or content layer cover `covering` from the origin (the view was resized).
  virtual void resize(Layer& layer, Size covering) = 0;
  // Nothing when dim, saturation and sharpen change nothing.
  virtual std::optional<Filters> appearanceFilters(double dim, double saturation, double sharpen) = 0;
  // The placement for a whole screen, in its own terms (pixels where it has them).
  virtual VideoPlacement placement(const Screen& on, std::int64_t contentWidth, std::int64_t contentHeight, FitMode fit,
                                   const std::optional<CropRect>& crop) = 0;
  virtual void place(const VideoPlacement& placement, Layer& content) = 0;
  virtual void crop(Layer& picture, const VideoPlacement& placement) = 0;
};

class ScreenIdentity {
 public:
  virtual ~ScreenIdentity() = default;
  // The display's stable identifier: device part, "|", size part.
  virtual std::string stableID(const Screen& screen) = 0;
};

}  // namespace korvalen::scene
