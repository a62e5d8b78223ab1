// The web wallpapers on screen: one korvalen-web process per monitor that shows a page,
// placed over the monitor's own picture (which shows the page's still). It is started when
// the page is due, told to pause, resume and mute as the policy says, and ended when the
// monitor shows something else. A page that crashes, hangs or will not load ends its process:
// the still stays until the next hand-over or a reload.
//
// Thread: the event loop's.
#pragma once

#include "engine/library/web_still.hpp"
#include "engine/loop/event_loop.hpp"
#include "engine/process.hpp"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace korvalen::wallpaper {

// Which page, and where: a different one means a new process.
struct WebPageRequest {
  engine::WebPageSource source;
  std::filesystem::path storage;
  std::optional<unsigned long> window;  // X11: the monitor's own window
  bool overBackground = false;          // Wayland: the wallpaper is on the background layer
  long x = 0;
  long y = 0;
  long width = 0;
  long height = 0;
  bool operator==(const WebPageRequest&) const = default;
};

// How a shown page runs; a change reaches its process without starting it again.
struct WebPageState {
  bool running = true;
  bool muted = false;
  std::int64_t fpsCap = 0;  // animation frames a second at most; 0: as many as the screen gives
  bool operator==(const WebPageState&) const = default;
};

class WebPages {
 public:
  // `program`: korvalen-web; `say`: one line for the log; `gone`: a monitor's page window
  // went away (ended or replaced), so what lies under it must be shown again.
  WebPages(engine::EventLoop& loop, std::filesystem::path program, std::function<void(const std::string&)> say,
           std::function<void(const std::string&)> gone);
  ~WebPages();
  WebPages(const WebPages&) = delete;
  WebPages& operator=(const WebPages&) = delete;

  // What the monitor shows: a page (running, or held where it is), or none.
  void show(const std::string& monitor, const std::optional<WebPageRequest>& request, const WebPageState& state);
  // Pages that ended are tried again (a reload).
  void retry();
  // Monitors gone.
  void keepOnly(const std::set<std::string>& monitors);

  [[nodiscard]] std::size_t running() const { return pages_.size(); }

 private:
  struct Page;
  void ended(const std::string& monitor);
  void read(const std::string& monitor);
  void send(Page& page, const std::string& command);

  engine::EventLoop& loop_;
  std::filesystem::path program_;
  std::function<void(const std::string&)> say_;
  std::function<void(const std::string&)> gone_;
  std::map<std::string, std::unique_ptr<Page>> pages_;
  std::map<std::string, WebPageRequest> failed_;  // monitor -> the page that ended there
};

}  // namespace korvalen::wallpaper
