// The host view of the software engine: a root layer of the screen's size, in a window or not.
#pragma once

#include "core/screensaver/host_view.hpp"
#include "engine/software/software_layer.hpp"

#include <memory>
#include <optional>
#include <string>

namespace korvalen::engine {

// A screen of the software engine as its host describes it.
struct SoftwareScreen {
  scene::Size size;  // the view's bounds
  std::string id;    // the screen's stable identifier
  bool preview = false;
  // The frame of the screen the view is on, when it is not the view's own size.
  std::optional<scene::Size> screen;
};

class SoftwareView final : public saver::HostView {
 public:
  SoftwareView(const SoftwareScreen& screen, const SaverLoop& loop)
      : screen_(screen),
        root(std::make_shared<SoftwareLayer>(loop, Area{0, 0, screen.size.width, screen.size.height})) {}
  [[nodiscard]] bool isPreview() const override { return screen_.preview; }
  [[nodiscard]] scene::Size bounds() const override { return screen_.size; }
  [[nodiscard]] bool hasWindow() const override { return inWindow; }
  [[nodiscard]] std::optional<scene::Screen> windowScreen() const override {
    if (!inWindow) {
      return std::nullopt;
    }
    return scene::Screen{0, screen_.screen.value_or(screen_.size)};
  }
  [[nodiscard]] std::optional<scene::Screen> mainScreen() const override { return windowScreen(); }
  scene::Layer& layer() override { return *root; }
  void prepareLayer() override {}  // the picture starts black
  void setAnimationTimeInterval(double) override {}
  void observeStopNotifications(std::function<void(const std::string&)>) override {}
  void stopObservingStopNotifications() override {}

  SoftwareScreen screen_;
  std::shared_ptr<SoftwareLayer> root;
  bool inWindow = true;
};

}  // namespace korvalen::engine
