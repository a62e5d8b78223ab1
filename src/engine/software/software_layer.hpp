// A layer of the CPU compositor and the composing of a tree of them into a canvas: placement,
// mirroring, the colour matrix and sharpening, each layer on its own clock.
//
// Thread: the loop's.
#pragma once

#include "core/scene/main_loop.hpp"
#include "core/scene/media.hpp"
#include "engine/compositor.hpp"
#include "engine/software/saver_loop.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace korvalen::engine {

// A layer of the CPU compositor.
class SoftwareLayer final : public scene::Layer, public std::enable_shared_from_this<SoftwareLayer> {
 public:
  using Content = std::function<const Picture*(double localTime)>;

  SoftwareLayer(const SaverLoop& loop, const Area& covering) : frame(covering), loop_(loop) {}

  void addSublayer(const std::shared_ptr<Layer>& child) override;
  void removeFromSuperlayer() override;
  void setHidden(bool value) override { hidden = value; }
  void setScale(double x, double y) override {
    scaleX = x;
    scaleY = y;
  }
  void setFilters(const scene::Filters& value) override { filters = value; }
  void setSpeed(double speed) override;
  void setTimeOffset(double seconds) override;

  // The layer's own time at the loop's `time`; layers that never set their clock share
  // their parent's.
  [[nodiscard]] double localTime(double time, double parentTime) const;

  Area frame;  // in the parent's coordinates
  bool hidden = false;
  bool masks = false;  // children drawn only within the frame
  double scaleX = 1;
  double scaleY = 1;
  std::optional<scene::Filters> filters;
  Content content;  // what the layer shows over its whole frame
  SoftwareLayer* parent = nullptr;
  std::vector<std::shared_ptr<SoftwareLayer>> children;

 private:
  const SaverLoop& loop_;
  bool ownClock_ = false;
  double speed_ = 1;
  double base_ = 0;       // loop time the clock was last set at
  double baseLocal_ = 0;  // the layer's time then
};

// Draws `root` and everything in it over black into `target`, at the loop's `time`.
void compose(const SoftwareLayer& root, double time, const Canvas& target);
// What `compose` would draw at `time`, as a number: equal keys, equal pictures (the layers,
// their geometry and filters, and which frame each shows).
std::uint64_t sceneKey(const SoftwareLayer& root, double time);

}  // namespace korvalen::engine
