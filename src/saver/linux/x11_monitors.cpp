#include "saver/linux/x11_monitors.hpp"

#include "core/desktop/monitor_identity.hpp"

#include <X11/Xatom.h>
#include <X11/extensions/Xrandr.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <span>
#include <string_view>

namespace korvalen::host {
namespace {

struct ResourcesFreer {
  void operator()(XRRScreenResources* resources) const { XRRFreeScreenResources(resources); }
};
struct OutputFreer {
  void operator()(XRROutputInfo* info) const { XRRFreeOutputInfo(info); }
};
struct CrtcFreer {
  void operator()(XRRCrtcInfo* info) const { XRRFreeCrtcInfo(info); }
};

ScreenIdentity::EdidNumbers edidOf(Display* display, RROutput output) {
  const Atom edid = XInternAtom(display, "EDID", True);
  if (edid == None) {
    return {};
  }
  Atom type = None;
  int format = 0;
  unsigned long count = 0;
  unsigned long after = 0;
  unsigned char* data = nullptr;
  ScreenIdentity::EdidNumbers numbers;
  if (XRRGetOutputProperty(display, output, edid, 0, 128, False, False, AnyPropertyType, &type, &format, &count, &after,
                           &data) == Success &&
      data != nullptr && format == 8) {
    numbers = ScreenIdentity::edidNumbers(std::span(data, count)).value_or(ScreenIdentity::EdidNumbers{});
  }
  if (data != nullptr) {
    XFree(data);
  }
  return numbers;
}

}  // namespace

bool isBuiltInOutput(std::string_view name) {
  static constexpr std::array<std::string_view, 3> panels{"edp", "lvds", "dsi"};
  std::string lower(name.substr(0, 4));
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return std::any_of(panels.begin(), panels.end(), [&](std::string_view panel) { return lower.starts_with(panel); });
}

std::vector<Monitor> monitorsOf(Display* display) {
  int eventBase = 0;
  int errorBase = 0;
  const bool randr = XRRQueryExtension(display, &eventBase, &errorBase) != 0;
  std::vector<Monitor> monitors;
  std::vector<ScreenIdentity::Display> facts;
  // Outputs are numbered across the whole display, connected or not, so a monitor keeps its
  // number while others come and go on other connectors.
  std::uint32_t number = 0;
  for (int screen = 0; screen < ScreenCount(display); ++screen) {
    const auto before = monitors.size();
    std::unique_ptr<XRRScreenResources, ResourcesFreer> resources(
        randr ? XRRGetScreenResourcesCurrent(display, RootWindow(display, screen)) : nullptr);
    for (int i = 0; resources && i < resources->noutput; ++i, ++number) {
      const RROutput output = resources->outputs[i];
      const std::unique_ptr<XRROutputInfo, OutputFreer> info(XRRGetOutputInfo(display, resources.get(), output));
      if (!info || info->connection != RR_Connected || info->crtc == None) {
        continue;
      }
      const std::unique_ptr<XRRCrtcInfo, CrtcFreer> crtc(XRRGetCrtcInfo(display, resources.get(), info->crtc));
      if (!crtc || crtc->width == 0 || crtc->height == 0) {
        continue;
      }
      Monitor monitor{screen,      std::string(info->name, static_cast<std::size_t>(std::max(info->nameLen, 0))),
                      crtc->x,     crtc->y,
                      crtc->width, crtc->height,
                      {}};
      facts.push_back(ScreenIdentity::Display{edidOf(display, output), isBuiltInOutput(monitor.output), number,
                                              std::nullopt, static_cast<double>(monitor.width),
                                              static_cast<double>(monitor.height)});
      monitors.push_back(std::move(monitor));
    }
    if (monitors.size() == before) {
      Monitor whole{screen, "screen", 0, 0, DisplayWidth(display, screen), DisplayHeight(display, screen), {}};
      facts.push_back(ScreenIdentity::Display{
          {}, false, number++, std::nullopt, static_cast<double>(whole.width), static_cast<double>(whole.height)});
      monitors.push_back(std::move(whole));
    }
  }
  const auto ids = ScreenIdentity::stableIDs(facts);
  for (std::size_t i = 0; i < monitors.size(); ++i) {
    monitors[i].id = ids[i];
  }
  return monitors;
}

const Monitor* monitorFor(const std::vector<Monitor>& monitors, int screen, long x, long y, long width, long height) {
  const long cx = x + width / 2;
  const long cy = y + height / 2;
  const Monitor* first = nullptr;
  for (const auto& monitor : monitors) {
    if (monitor.screen != screen) {
      continue;
    }
    if (first == nullptr) {
      first = &monitor;
    }
    if (cx >= monitor.x && cx < monitor.x + monitor.width && cy >= monitor.y && cy < monitor.y + monitor.height) {
      return &monitor;
    }
  }
  return first;
}

}  // namespace korvalen::host
