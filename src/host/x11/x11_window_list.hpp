// Other programs' windows as an EWMH window manager lists them: the client list in stacking
// order, each window's place, its _NET_WM_STATE (full screen, maximized, hidden), its
// desktop, and the active window, turned into the activity classifier's snapshot. Windows on
// another workspace are left out, so they pause nothing. Read when the window manager says
// something changed (PropertyNotify, ConfigureNotify), never polled. Private to the X11 host.
#pragma once

#include "host/monitors.hpp"
#include "host/wallpaper_display.hpp"

#include <X11/Xlib.h>

#include <optional>
#include <set>

namespace korvalen::host {

class X11WindowList {
 public:
  explicit X11WindowList(Display* display);
  // Whether the window manager keeps the EWMH lists at all.
  [[nodiscard]] bool available() const;
  // Whether it says it supports desktop-typed windows.
  [[nodiscard]] bool supportsDesktopWindows() const;
  // The snapshot now; `ours` are left out, `monitors` give the covering test its places.
  [[nodiscard]] std::optional<DesktopWindows> read(const std::set<Window>& ours, const std::vector<Monitor>& monitors);
  // Whether an event may change the snapshot; selects the events of new clients as it goes.
  bool concerns(const XEvent& event);

 private:
  Display* display_;
  Window root_;
  struct Atoms;
  std::shared_ptr<const Atoms> atoms_;
  std::set<Window> watched_;
};

}  // namespace korvalen::host
