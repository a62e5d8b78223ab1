// Where the live wallpaper draws: one picture per monitor behind the desktop, what the
// window manager says about other programs' windows, and whether the display sleeps. The X11
// version is the real one; no X11 type appears here.
//
// Thread: the event loop's.
#pragma once

#include "core/playback/activity_classifier.hpp"
#include "engine/compositor.hpp"
#include "engine/loop/event_loop.hpp"
#include "host/monitors.hpp"

#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::host {

// On X11, desktop: a desktop-typed window per monitor, kept below by the window manager;
// below: an unmanaged window lowered beneath everything (window managers without desktop
// windows); root: the root window's background, which compositors and pseudo-transparent
// terminals read; automatic: desktop where the window manager supports it, else below. On
// Wayland, the layer-shell layer: background, or bottom (above a desktop's own background
// surface, as KDE Plasma needs); overlay, above everything and taking the keyboard, is the
// screensaver's.
enum class Placement { automatic, desktop, below, root, background, bottom, overlay };
std::string_view toString(Placement placement);
std::optional<Placement> placementNamed(std::string_view word);

// Other programs' windows, as the window manager lists them.
struct DesktopWindows {
  std::vector<WindowSnapshot> windows;           // on the current desktop, bottom to top
  std::map<std::string, std::string> coveredBy;  // monitor id -> the program whose desktop window hides ours
};

class WallpaperDisplay {
 public:
  struct Events {
    std::function<void()> monitorsChanged;  // the surfaces already follow the new monitors
    std::function<void()> windowsChanged;
    std::function<void()> exposed;                 // what was drawn is gone: draw every monitor again
    std::function<void(const std::string&)> lost;  // the display server went away: one line
    // Overlay only: a key pressed, a button, or the pointer moved past a small threshold.
    std::function<void()> input;
  };
  virtual ~WallpaperDisplay() = default;
  [[nodiscard]] virtual std::vector<Monitor> monitors() const = 0;
  // The monitor's picture to draw into, its size; absent while the server still reads the
  // last one (draw again when `present` would have been possible: see `ready`).
  [[nodiscard]] virtual std::optional<engine::Canvas> canvas(const std::string& monitorId) = 0;
  virtual void present(const std::string& monitorId) = 0;
  // Shows another monitor's picture (of the same size) on this one, without copying it.
  virtual void presentFrom(const std::string& monitorId, const std::string& source) = 0;
  // Absent: the window manager keeps no list (no EWMH), so windows cannot pause anything.
  [[nodiscard]] virtual std::optional<DesktopWindows> windows() = 0;
  // Absent when the display cannot say.
  [[nodiscard]] virtual std::optional<bool> displayAsleep() = 0;
  // The placement in use ("desktop", "below", "root").
  [[nodiscard]] virtual Placement placement() const = 0;
  // Shows again what was last presented there: something that covered it went away.
  virtual void repaint(const std::string& /*monitorId*/) {}
  // The monitor's own window, for another program to show something in (X11, unless the
  // root window's background is used); absent elsewhere.
  [[nodiscard]] virtual std::optional<unsigned long> windowOf(const std::string& /*monitorId*/) const {
    return std::nullopt;
  }
  // Called when a canvas that was busy can be drawn into again.
  virtual void onReady(std::function<void(const std::string& monitorId)> ready) = 0;
};

// One line when there is no X display or it cannot show a wallpaper.
[[nodiscard]] std::expected<std::unique_ptr<WallpaperDisplay>, std::string> openX11Wallpaper(
    engine::EventLoop& loop, Placement placement, WallpaperDisplay::Events events);
// A layer-shell surface on every output of the Wayland compositor (WAYLAND_DISPLAY), on the
// `layer` given (background or bottom, or overlay for the screensaver); one line when there is
// none or it has no layer shell.
[[nodiscard]] std::expected<std::unique_ptr<WallpaperDisplay>, std::string> openWaylandWallpaper(
    engine::EventLoop& loop, Placement layer, WallpaperDisplay::Events events);

}  // namespace korvalen::host
