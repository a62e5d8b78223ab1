// What a platform provides to the screensaver's controller: the host's view, and everything
// the scene needs (layers, the playback engine, the screen's identity, a main loop), plus the
// user's home folder. The macOS plug-in implements these on AppKit, QuartzCore and
// AVFoundation, the Linux engine on the FFmpeg libraries and a CPU compositor, the tests with
// fakes. No platform type appears here. Everything is called on the main thread.
#pragma once

#include "core/scene/layer.hpp"
#include "core/scene/main_loop.hpp"
#include "core/scene/media.hpp"
#include "core/scene/screen_surface.hpp"
#include "core/support/paths.hpp"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace korvalen::saver {

// The scene's terms, as the screensaver and its hosts have always named them.
using scene::AnimatedWallpaper;
using scene::DecodedImage;
using scene::Filters;
using scene::Layer;
using scene::MainLoop;
using scene::MediaFactory;
using scene::PixelSize;
using scene::Screen;
using scene::ScreenIdentity;
using scene::ScreenSurface;
using scene::Size;
using scene::Timer;
using scene::VideoWallpaper;

// The host's screensaver view the controller lives in.
class HostView {
 public:
  virtual ~HostView() = default;
  [[nodiscard]] virtual bool isPreview() const = 0;
  [[nodiscard]] virtual Size bounds() const = 0;
  [[nodiscard]] virtual bool hasWindow() const = 0;
  // The screen of the view's window, when it has a window on one.
  [[nodiscard]] virtual std::optional<Screen> windowScreen() const = 0;
  [[nodiscard]] virtual std::optional<Screen> mainScreen() const = 0;
  virtual Layer& layer() = 0;
  // Layer-backed, black background, geometry flipped (origin top-left).
  virtual void prepareLayer() = 0;
  virtual void setAnimationTimeInterval(double seconds) = 0;
  // The host's two stop notifications; `ended` gets the notification's name.
  virtual void observeStopNotifications(std::function<void(const std::string&)> ended) = 0;
  virtual void stopObservingStopNotifications() = 0;
};

// Everything the controller is given. The referenced objects outlive it.
struct Platform {
  HostView& view;
  ScreenSurface& surface;
  ScreenIdentity& identity;
  MediaFactory& media;
  MainLoop& loop;
  paths::Environment environment;
  // The home folder the user database records for the current user, if any.
  std::function<std::optional<std::filesystem::path>()> recordedHome;
};

}  // namespace korvalen::saver
