#include "wallpaper/wallpaper_recording.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

namespace korvalen::wallpaper {

namespace {

// Each monitor's canvas is its part of one picture.
class HeadlessDisplay final : public host::WallpaperDisplay {
 public:
  HeadlessDisplay(engine::Picture& picture, std::vector<host::Monitor> monitors)
      : picture_(picture), monitors_(std::move(monitors)) {}
  [[nodiscard]] std::vector<host::Monitor> monitors() const override { return monitors_; }
  std::optional<engine::Canvas> canvas(const std::string& monitorId) override {
    for (const auto& monitor : monitors_) {
      if (monitor.id == monitorId) {
        const auto stride = picture_.width * 4;
        return engine::Canvas{picture_.bgra.data() + monitor.y * stride + monitor.x * 4, monitor.width, monitor.height,
                              stride};
      }
    }
    return std::nullopt;
  }
  void present(const std::string&) override {}
  void presentFrom(const std::string& monitorId, const std::string& source) override {
    const auto to = canvas(monitorId);
    const auto from = canvas(source);
    if (to && from && to->width == from->width && to->height == from->height) {
      for (std::int64_t y = 0; y < from->height; ++y) {
        std::memmove(to->row(y), from->row(y), static_cast<std::size_t>(from->width) * 4);
      }
    }
  }
  std::optional<host::DesktopWindows> windows() override { return std::nullopt; }
  std::optional<bool> displayAsleep() override { return std::nullopt; }
  [[nodiscard]] host::Placement placement() const override { return host::Placement::automatic; }
  void onReady(std::function<void(const std::string&)>) override {}

 private:
  engine::Picture& picture_;
  std::vector<host::Monitor> monitors_;
};

}  // namespace

std::int64_t recordWallpaper(const FrameSink& sink, std::int64_t width, std::int64_t height,
                             const std::vector<host::Monitor>& monitors, std::vector<RecordedChange> changes,
                             double seconds, double fps, const paths::Environment& environment) {
  engine::Picture picture(width, height);
  std::vector<host::Monitor> inside;
  for (const auto& monitor : monitors) {
    if (monitor.x >= 0 && monitor.y >= 0 && monitor.x + monitor.width <= width &&
        monitor.y + monitor.height <= height) {
      inside.push_back(monitor);
    }
  }
  HeadlessDisplay display(picture, inside);
  std::map<std::string, std::unique_ptr<MonitorSession>> sessions;
  const auto feeds = std::make_shared<engine::VideoFeeds>();
  for (const auto& monitor : inside) {
    sessions.emplace(monitor.id,
                     std::make_unique<MonitorSession>(monitor, nullptr, environment, nullptr, false, feeds));
  }
  std::stable_sort(changes.begin(), changes.end(),
                   [](const RecordedChange& a, const RecordedChange& b) { return a.at < b.at; });
  std::size_t next = 0;
  const auto frames = static_cast<std::int64_t>(std::llround(seconds * fps));
  std::int64_t written = 0;
  for (std::int64_t i = 0; i < frames; ++i) {
    const double t = static_cast<double>(i) / fps;
    for (; next < changes.size() && changes[next].at <= t + 1e-9; ++next) {
      const auto& change = changes[next];
      const auto found = sessions.find(change.monitorId);
      if (found == sessions.end()) {
        continue;
      }
      if (change.look) {
        found->second->show(change.look, change.handover, t);
      }
      found->second->setMode(change.mode, 0, 1, t);
    }
    for (auto& [id, session] : sessions) {
      session->frame(t, display, static_cast<std::int64_t>(std::ceil(fps)));
    }
    if (!sink(picture)) {
      break;
    }
    ++written;
  }
  return written;
}

}  // namespace korvalen::wallpaper
