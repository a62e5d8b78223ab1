#include "host/x11/x11_monitors.hpp"

#include "core/desktop/monitor_identity.hpp"
#include "host/x11/x11_connection.hpp"

#include <fmt/format.h>

#include <X11/Xatom.h>
#include <X11/extensions/Xrandr.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <memory>
#include <optional>
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
  int major = 0;
  int minor = 0;
  const bool monitorsKnown = randr && XRRQueryVersion(display, &major, &minor) != 0 && (major > 1 || minor >= 5);
  // Each output once, numbered across the whole display, connected or not, so a monitor keeps
  // its number while others come and go on other connectors.
  struct Output {
    int screen = 0;
    std::uint32_t number = 0;
    std::string name;
    ScreenIdentity::EdidNumbers edid;
    long x = 0;
    long y = 0;
    long width = 0;
    long height = 0;
    bool shows = false;  // connected, with a mode
  };
  std::map<RROutput, Output> outputs;
  std::vector<RROutput> order;
  std::uint32_t number = 0;
  for (int screen = 0; screen < ScreenCount(display); ++screen) {
    std::unique_ptr<XRRScreenResources, ResourcesFreer> resources(
        randr ? XRRGetScreenResourcesCurrent(display, RootWindow(display, screen)) : nullptr);
    for (int i = 0; resources && i < resources->noutput; ++i, ++number) {
      const RROutput id = resources->outputs[i];
      const std::unique_ptr<XRROutputInfo, OutputFreer> info(XRRGetOutputInfo(display, resources.get(), id));
      Output output{screen, number, {}, {}, 0, 0, 0, 0, false};
      if (info) {
        output.name.assign(info->name, static_cast<std::size_t>(std::max(info->nameLen, 0)));
        if (info->connection == RR_Connected && info->crtc != None) {
          const std::unique_ptr<XRRCrtcInfo, CrtcFreer> crtc(XRRGetCrtcInfo(display, resources.get(), info->crtc));
          if (crtc && crtc->width > 0 && crtc->height > 0) {
            output = Output{screen,      number,       output.name, edidOf(display, id), crtc->x, crtc->y,
                            crtc->width, crtc->height, true};
          }
        }
      }
      outputs.emplace(id, output);
      order.push_back(id);
    }
  }

  std::vector<Monitor> monitors;
  // Identified by EDID (index into `facts`), or by name.
  std::vector<std::optional<std::size_t>> byEdid;
  std::vector<ScreenIdentity::Display> facts;
  const auto addOutput = [&](int screen, const Output& output, long x, long y, long width, long height) {
    byEdid.emplace_back(facts.size());
    facts.push_back(ScreenIdentity::Display{output.edid, isBuiltInOutput(output.name), output.number, std::nullopt,
                                            static_cast<double>(width), static_cast<double>(height)});
    monitors.push_back(Monitor{screen, output.name, x, y, width, height, {}});
  };
  for (int screen = 0; screen < ScreenCount(display); ++screen) {
    const auto before = monitors.size();
    int count = 0;
    XRRMonitorInfo* listed =
        monitorsKnown ? XRRGetMonitors(display, RootWindow(display, screen), True, &count) : nullptr;
    for (int i = 0; listed != nullptr && i < count; ++i) {
      const auto& info = listed[i];
      if (info.width <= 0 || info.height <= 0) {
        continue;
      }
      const auto found = info.noutput == 1 ? outputs.find(info.outputs[0]) : outputs.end();
      if (found != outputs.end()) {
        addOutput(screen, found->second, info.x, info.y, info.width, info.height);
        continue;
      }
      char* name = info.name != None ? XGetAtomName(display, info.name) : nullptr;
      std::string text = name != nullptr ? name : fmt::format("monitor-{}", i);
      if (name != nullptr) {
        XFree(name);
      }
      byEdid.emplace_back(std::nullopt);
      monitors.push_back(Monitor{screen, text, info.x, info.y, info.width, info.height,
                                 fmt::format("{}|{}", text, ScreenIdentity::size(info.width, info.height))});
    }
    if (listed != nullptr) {
      XRRFreeMonitors(listed);
    }
    if (monitors.size() == before && !monitorsKnown) {
      for (const auto id : order) {
        const auto& output = outputs.at(id);
        if (output.shows && output.screen == screen) {
          addOutput(screen, output, output.x, output.y, output.width, output.height);
        }
      }
    }
    if (monitors.size() == before) {
      addOutput(screen, Output{screen, number++, "screen", {}, 0, 0, 0, 0, true}, 0, 0, DisplayWidth(display, screen),
                DisplayHeight(display, screen));
    }
  }
  const auto ids = ScreenIdentity::stableIDs(facts);
  for (std::size_t i = 0; i < monitors.size(); ++i) {
    if (byEdid[i]) {
      monitors[i].id = ids[*byEdid[i]];
    }
  }
  return monitors;
}

std::expected<std::vector<Monitor>, std::string> listMonitors() {
  auto display = openDisplay();
  if (!display) {
    return std::unexpected(display.error());
  }
  return monitorsOf(display->get());
}

void watchMonitors(Display* display) {
  int eventBase = 0;
  int errorBase = 0;
  const bool randr = XRRQueryExtension(display, &eventBase, &errorBase) != 0;
  for (int screen = 0; screen < ScreenCount(display); ++screen) {
    const Window root = RootWindow(display, screen);
    if (randr) {
      XRRSelectInput(display, root, RRScreenChangeNotifyMask | RRCrtcChangeNotifyMask | RROutputChangeNotifyMask);
    }
  }
}

bool isMonitorEvent(Display* display, XEvent& event) {
  int eventBase = 0;
  int errorBase = 0;
  if (XRRQueryExtension(display, &eventBase, &errorBase) != 0) {
    if (event.type == eventBase + RRScreenChangeNotify) {
      XRRUpdateConfiguration(&event);
      return true;
    }
    if (event.type == eventBase + RRNotify) {
      return true;
    }
  }
  return event.type == ConfigureNotify && event.xconfigure.window == RootWindow(display, DefaultScreen(display)) &&
         event.xconfigure.event == event.xconfigure.window;
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
