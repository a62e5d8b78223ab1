#include "core/playback/activity_classifier.hpp"

#include "core/support/precondition.hpp"

#include <algorithm>
#include <optional>

namespace korvalen::ActivityClassifier {
namespace {

std::int64_t plus(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  KORVALEN_PRECONDITION(!__builtin_add_overflow(a, b, &sum));
  return sum;
}

std::int64_t minus(std::int64_t a, std::int64_t b) {
  std::int64_t difference = 0;
  KORVALEN_PRECONDITION(!__builtin_sub_overflow(a, b, &difference));
  return difference;
}

std::int64_t times(std::int64_t a, std::int64_t b) {
  std::int64_t product = 0;
  KORVALEN_PRECONDITION(!__builtin_mul_overflow(a, b, &product));
  return product;
}

std::int64_t rightEdge(const MonitorInfo& monitor) {
  return plus(monitor.x, monitor.width);
}

std::int64_t bottomEdge(const MonitorInfo& monitor) {
  return plus(monitor.y, monitor.height);
}

bool isCandidate(const WindowSnapshot& window) {
  return window.isVisible && !window.isMinimized && !window.isCloaked && !window.isClickThrough && !window.isShell &&
         !window.isOurs && minus(window.right, window.left) >= 1 && minus(window.bottom, window.top) >= 1;
}

bool overlaps(const WindowSnapshot& window, const MonitorInfo& monitor) {
  return window.left < rightEdge(monitor) && monitor.x < window.right && window.top < bottomEdge(monitor) &&
         monitor.y < window.bottom;
}

// The monitor under most of the window; ties go to the earlier monitor.
std::optional<std::size_t> monitorUnder(const WindowSnapshot& window, const std::vector<MonitorInfo>& monitors) {
  std::optional<std::size_t> best;
  std::int64_t bestArea = 0;
  for (std::size_t i = 0; i < monitors.size(); ++i) {
    const auto& monitor = monitors[i];
    const auto width = minus(std::min(rightEdge(monitor), window.right), std::max(monitor.x, window.left));
    const auto height = minus(std::min(bottomEdge(monitor), window.bottom), std::max(monitor.y, window.top));
    if (width >= 1 && height >= 1) {
      const auto area = times(width, height);
      if (!best || area > bestArea) {
        best = i;
        bestArea = area;
      }
    }
  }
  return best;
}

}  // namespace

std::int64_t unionArea(const std::vector<Rect>& rects) {
  std::vector<std::int64_t> edges;
  edges.reserve(rects.size() * 2);
  for (const auto& rect : rects) {
    edges.push_back(rect.l);
    edges.push_back(rect.r);
  }
  std::sort(edges.begin(), edges.end());
  edges.erase(std::unique(edges.begin(), edges.end()), edges.end());
  std::int64_t area = 0;
  std::vector<std::pair<std::int64_t, std::int64_t>> extents;
  for (std::size_t i = 0; i + 1 < edges.size(); ++i) {
    const auto left = edges[i];
    const auto right = edges[i + 1];
    extents.clear();
    for (const auto& rect : rects) {
      if (rect.l <= left && rect.r >= right && rect.t < rect.b) {
        extents.emplace_back(rect.t, rect.b);
      }
    }
    std::sort(extents.begin(), extents.end());
    std::int64_t covered = 0;
    std::optional<std::pair<std::int64_t, std::int64_t>> run;
    for (const auto& [top, bottom] : extents) {
      if (run && top <= run->second) {
        run->second = std::max(run->second, bottom);
      } else {
        if (run) {
          covered = plus(covered, minus(run->second, run->first));
        }
        run = std::pair{top, bottom};
      }
    }
    if (run) {
      covered = plus(covered, minus(run->second, run->first));
    }
    area = plus(area, times(minus(right, left), covered));
  }
  return area;
}

double coveredFraction(const MonitorInfo& monitor, const std::vector<WindowSnapshot>& windows) {
  const auto total = times(monitor.width, monitor.height);
  if (total < 1) {
    return 0;
  }
  std::vector<Rect> clipped;
  for (const auto& window : windows) {
    const Rect rect{std::max(monitor.x, window.left), std::max(monitor.y, window.top),
                    std::min(rightEdge(monitor), window.right), std::min(bottomEdge(monitor), window.bottom)};
    if (rect.l < rect.r && rect.t < rect.b) {
      clipped.push_back(rect);
    }
  }
  return std::min(1.0, static_cast<double>(unionArea(clipped)) / static_cast<double>(total));
}

std::vector<MonitorActivity> classify(const std::vector<MonitorInfo>& monitors,
                                      const std::vector<WindowSnapshot>& windows, bool exclusiveFullscreen) {
  std::vector<WindowSnapshot> candidates;
  std::copy_if(windows.begin(), windows.end(), std::back_inserter(candidates), isCandidate);
  std::optional<std::string> foreground;
  const auto front = std::find_if(candidates.begin(), candidates.end(), [](const auto& w) { return w.isForeground; });
  if (front != candidates.end()) {
    if (const auto index = monitorUnder(*front, monitors)) {
      foreground = monitors[*index].deviceName;
    }
  }
  std::vector<MonitorActivity> activities;
  for (const auto& monitor : monitors) {
    std::vector<WindowSnapshot> own;
    std::copy_if(candidates.begin(), candidates.end(), std::back_inserter(own),
                 [&](const WindowSnapshot& window) { return overlaps(window, monitor); });
    MonitorActivity activity;
    activity.monitorId = monitor.deviceName;
    activity.hasForegroundWindow = foreground && *foreground == monitor.deviceName;
    activity.hasFullscreenWindow = std::any_of(own.begin(), own.end(),
                                               [&](const WindowSnapshot& w) {
                                                 return !w.isMaximized && w.left <= monitor.x && w.top <= monitor.y &&
                                                        w.right >= rightEdge(monitor) &&
                                                        w.bottom >= bottomEdge(monitor);
                                               }) ||
                                   (exclusiveFullscreen && activity.hasForegroundWindow);
    activity.hasMaximizedWindow = std::any_of(own.begin(), own.end(), [](const auto& w) { return w.isMaximized; });
    activity.coveredFraction = coveredFraction(monitor, own);
    activities.push_back(std::move(activity));
  }
  return activities;
}

}  // namespace korvalen::ActivityClassifier

namespace korvalen::json {
namespace {

constexpr auto limit = ActivityClassifier::coordinateLimit;

constexpr auto monitorFields = [](auto& coder, auto& monitor) {
  coder.required("deviceName", monitor.deviceName);
  coder.bounded("x", monitor.x, -limit, limit);
  coder.bounded("y", monitor.y, -limit, limit);
  coder.bounded("width", monitor.width, -limit, limit);
  coder.bounded("height", monitor.height, -limit, limit);
};

constexpr auto windowFields = [](auto& coder, auto& window) {
  coder.defaulted("id", window.id);
  coder.bounded("left", window.left, -limit, limit);
  coder.bounded("top", window.top, -limit, limit);
  coder.bounded("right", window.right, -limit, limit);
  coder.bounded("bottom", window.bottom, -limit, limit);
  coder.defaulted("isForeground", window.isForeground);
  coder.defaulted("isMaximized", window.isMaximized);
  coder.defaulted("isShell", window.isShell);
  coder.defaulted("isOurs", window.isOurs);
  coder.defaulted("isVisible", window.isVisible);
  coder.defaulted("isMinimized", window.isMinimized);
  coder.defaulted("isCloaked", window.isCloaked);
  coder.defaulted("isClickThrough", window.isClickThrough);
};

}  // namespace

KORVALEN_CODING_FROM_FIELDS(MonitorInfo, monitorFields)

KORVALEN_CODING_FROM_FIELDS(WindowSnapshot, windowFields)

}  // namespace korvalen::json
