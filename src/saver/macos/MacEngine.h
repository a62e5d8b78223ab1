// The macOS engine behind the controller's interfaces: Core Animation layers, AVFoundation
// video, ImageIO pictures, Core Graphics display identity, NSTimer, and os_log. Main thread.
#pragma once

#import <AppKit/AppKit.h>
#import <QuartzCore/QuartzCore.h>

#include "core/screensaver/host_view.hpp"

#include <memory>
#include <optional>

namespace korvalen::saver::mac {

// The display's number and frame size.
Screen screenOf(NSScreen* screen);

class MacLayer final : public Layer {
 public:
  explicit MacLayer(CALayer* layer) : layer_(layer) {}
  [[nodiscard]] CALayer* layer() const { return layer_; }
  void addSublayer(const std::shared_ptr<Layer>& child) override;
  void removeFromSuperlayer() override;
  void setHidden(bool hidden) override;
  void setScale(double x, double y) override;
  void setFilters(const Filters& filters) override;
  void setSpeed(double speed) override;
  void setTimeOffset(double seconds) override;

 private:
  CALayer* layer_;
};

class MacScreenSurface final : public ScreenSurface {
 public:
  Layers makeLayers(Size covering) override;
  void resize(Layer& layer, Size covering) override;
  std::optional<Filters> appearanceFilters(double dim, double saturation, double sharpen) override;
  VideoPlacement placement(const Screen& on, std::int64_t contentWidth, std::int64_t contentHeight, FitMode fit,
                           const std::optional<CropRect>& crop) override;
  void place(const VideoPlacement& placement, Layer& content) override;
  void crop(Layer& picture, const VideoPlacement& placement) override;
};

class MacMedia final : public MediaFactory {
 public:
  std::shared_ptr<VideoWallpaper> makeVideo(const std::filesystem::path& file, const TrimRange& trim) override;
  std::expected<std::shared_ptr<DecodedImage>, std::string> loadImage(const std::filesystem::path& file) override;
  std::shared_ptr<AnimatedWallpaper> makeAnimation(const std::shared_ptr<DecodedImage>& image) override;
};

class MacScreenIdentity final : public ScreenIdentity {
 public:
  std::string stableID(const Screen& screen) override;
};

class MacMainLoop final : public MainLoop {
 public:
  std::unique_ptr<Timer> scheduleRepeating(double seconds, std::function<void()> tick) override;
  [[nodiscard]] double mediaTime() const override;
};

// Sends the log facade's lines to the system log, subsystem "com.vexil.korvalen", one
// os_log per category, text public. Safe to call more than once.
void installSystemLog();

}  // namespace korvalen::saver::mac
