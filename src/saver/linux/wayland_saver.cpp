// The screensaver over a Wayland session: an overlay-layer surface on every output that takes
// the keyboard, one view of the shared controller on each, drawn when the compositor's frame
// callback says a frame will be shown. It ends on a key, a button, the pointer moved past a
// few pixels, SIGTERM or SIGINT, or `seconds`; each view's controller then says "stopped".
#include "saver/linux/desktop_host.hpp"

#include "core/diagnostics/log.hpp"
#include "core/screensaver/saver_controller.hpp"
#include "engine/loop/event_loop.hpp"
#include "engine/software/software_saver.hpp"
#include "host/wallpaper_display.hpp"
#include "saver/linux/sdl_sound.hpp"

#include <SDL2/SDL.h>
#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <limits>
#include <map>
#include <memory>

namespace korvalen::host {
namespace {

struct OutputView {
  std::unique_ptr<engine::SoftwareSaver> saver;
  std::shared_ptr<saver::SaverController> controller;
  engine::SoftwareScreen screen;
  bool redraw = true;
};

class WaylandSaver {
 public:
  WaylandSaver(engine::EventLoop& loop, const DesktopOptions& options, std::shared_ptr<engine::SoundOutput> sound)
      : loop_(loop), options_(options), sound_(std::move(sound)) {}
  WaylandSaver(const WaylandSaver&) = delete;
  WaylandSaver& operator=(const WaylandSaver&) = delete;
  ~WaylandSaver() {
    for (auto& [id, view] : views_) {
      view.saver->loop().setWaker({});
      view.controller->stopAnimation();
    }
  }

  std::expected<void, std::string> open() {
    WallpaperDisplay::Events events;
    events.monitorsChanged = [this] { follow(); };
    events.exposed = [this] {
      for (auto& [id, view] : views_) {
        view.redraw = true;
      }
    };
    events.lost = [this](const std::string& why) {
      log::write("host", log::Level::error, why);
      loop_.quit();
    };
    events.input = [this] { loop_.quit(); };
    auto display = openWaylandWallpaper(loop_, Placement::overlay, std::move(events));
    if (!display) {
      return std::unexpected(display.error());
    }
    display_ = std::move(*display);
    display_->onReady([this](const std::string&) { loop_.post([] {}); });
    follow();
    return {};
  }

  // Until the loop is told to quit. It sleeps until the next frame any view needs, a
  // compositor event, or a finished load.
  void run() {
    const auto started = std::chrono::steady_clock::now();
    elapsed_ = [started] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(); };
    std::unique_ptr<engine::EventLoop::Watch> limit;
    if (options_.seconds) {
      const auto seconds =
          std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(*options_.seconds));
      if (auto timer = loop_.after(seconds, [this] { loop_.quit(); })) {
        limit = std::move(*timer);
      }
    }
    std::unique_ptr<engine::EventLoop::Watch> frame;
    auto step = loop_.beforeSleep([&] {
      const double now = elapsed_();
      double wake = std::numeric_limits<double>::infinity();
      for (auto& [id, view] : views_) {
        view.saver->loop().runUntil(now);
        if (const auto canvas = display_->canvas(id);
            canvas && canvas->width == static_cast<std::int64_t>(view.screen.size.width) &&
            canvas->height == static_cast<std::int64_t>(view.screen.size.height) &&
            view.saver->draw(*canvas, !view.redraw)) {
          view.redraw = false;
          display_->present(id);
        }
        wake = std::min(wake, view.saver->loop().nextWake());
      }
      frame.reset();
      if (std::isfinite(wake)) {
        // A frame not decoded yet is looked for again a moment later, not in a spin.
        const double delay = std::max(wake - elapsed_(), 0.002);
        if (auto timer = loop_.after(std::chrono::nanoseconds(static_cast<std::int64_t>(delay * 1e9)), [] {})) {
          frame = std::move(*timer);
        }
      }
    });
    loop_.run();
  }

 private:
  // A view for every output, made, resized or let go as the outputs come and go.
  void follow() {
    std::map<std::string, Monitor> present;
    for (const auto& monitor : display_->monitors()) {
      present.emplace(monitor.id, monitor);
    }
    for (auto it = views_.begin(); it != views_.end();) {
      if (!present.contains(it->first)) {
        it->second.saver->loop().setWaker({});
        it->second.controller->stopAnimation();
        it = views_.erase(it);
      } else {
        ++it;
      }
    }
    for (const auto& [id, monitor] : present) {
      const scene::Size size{static_cast<double>(monitor.width), static_cast<double>(monitor.height)};
      if (auto found = views_.find(id); found != views_.end()) {
        if (found->second.screen.size.width != size.width || found->second.screen.size.height != size.height) {
          found->second.screen.size = size;
          found->second.screen.screen = size;
          found->second.saver->setScreen(found->second.screen);
          found->second.controller->boundsChanged();
          found->second.redraw = true;
        }
        continue;
      }
      OutputView view;
      view.screen = engine::SoftwareScreen{size, id, options_.preview, size};
      view.saver = std::make_unique<engine::SoftwareSaver>(view.screen, sound_, feeds_);
      view.saver->loop().setLive(true);
      view.saver->loop().setWaker([this] { loop_.post([] {}); });
      if (elapsed_) {
        view.saver->loop().runUntil(elapsed_());
      }
      view.controller = saver::SaverController::make(view.saver->platform(options_.environment));
      view.controller->startAnimation();
      views_.emplace(id, std::move(view));
    }
  }

  engine::EventLoop& loop_;
  DesktopOptions options_;
  std::shared_ptr<engine::SoundOutput> sound_;
  std::shared_ptr<engine::VideoFeeds> feeds_ = std::make_shared<engine::VideoFeeds>();
  std::unique_ptr<WallpaperDisplay> display_;
  std::map<std::string, OutputView> views_;
  std::function<double()> elapsed_;
};

}  // namespace

std::expected<void, std::string> runWaylandSaver(const DesktopOptions& options) {
  // The loop and its signals first: every thread started after (SDL's audio) keeps them blocked.
  auto loop = engine::EventLoop::make();
  if (!loop) {
    return std::unexpected(loop.error());
  }
  const auto signals = (*loop)->quitOnStopSignals();
  if (!signals) {
    return std::unexpected(signals.error());
  }
  const bool audio = SDL_InitSubSystem(SDL_INIT_AUDIO) == 0;
  std::expected<void, std::string> result;
  {
    WaylandSaver saver(**loop, options, audio ? makeSdlSound() : nullptr);
    result = saver.open();
    if (result) {
      saver.run();
    }
  }
  if (audio) {
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
  }
  return result;
}

}  // namespace korvalen::host
