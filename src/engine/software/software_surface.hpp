// Layers and placement on a screen of the software engine, where one point is one pixel.
#pragma once

#include "core/rendering/video_fit.hpp"
#include "core/scene/main_loop.hpp"
#include "core/scene/media.hpp"
#include "engine/software/saver_loop.hpp"
#include "engine/software/software_layer.hpp"

#include <cmath>

namespace korvalen::engine {

class SoftwareSurface final : public scene::ScreenSurface {
 public:
  explicit SoftwareSurface(const SaverLoop& loop) : loop_(loop) {}
  Layers makeLayers(scene::Size covering) override {
    const Area all{0, 0, covering.width, covering.height};
    auto slot = std::make_shared<SoftwareLayer>(loop_, all);
    auto content = std::make_shared<SoftwareLayer>(loop_, all);
    slot->masks = true;
    content->masks = true;
    slot->addSublayer(content);
    return {slot, content};
  }
  void resize(scene::Layer& layer, scene::Size covering) override {
    static_cast<SoftwareLayer&>(layer).frame = Area{0, 0, covering.width, covering.height};
  }
  std::optional<scene::Filters> appearanceFilters(double dim, double saturation, double sharpen) override {
    return scene::Filters::forAppearance(dim, saturation, sharpen);
  }
  VideoPlacement placement(const scene::Screen& on, std::int64_t contentWidth, std::int64_t contentHeight, FitMode fit,
                           const std::optional<CropRect>& crop) override {
    // One point is one pixel here.
    return VideoFit::compute(contentWidth, contentHeight, std::llround(on.frame.width), std::llround(on.frame.height),
                             fit, crop);
  }
  void place(const VideoPlacement& placement, scene::Layer& content) override {
    const auto& d = placement.destination;
    static_cast<SoftwareLayer&>(content).frame = Area{d.x, d.y, d.width, d.height};
  }
  void crop(scene::Layer& picture, const VideoPlacement& placement) override {
    // The whole picture, scaled so that the visible part fills the content layer.
    const auto& c = placement.sourceCrop;
    const auto& d = placement.destination;
    const double width = c.width > 0 ? d.width / c.width : d.width;
    const double height = c.height > 0 ? d.height / c.height : d.height;
    static_cast<SoftwareLayer&>(picture).frame = Area{-c.x * width, -c.y * height, width, height};
  }

 private:
  const SaverLoop& loop_;
};

}  // namespace korvalen::engine
