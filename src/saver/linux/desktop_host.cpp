#include "saver/linux/desktop_host.hpp"

#include "core/diagnostics/log.hpp"
#include "core/screensaver/saver_controller.hpp"
#include "engine/loop/event_loop.hpp"
#include "engine/software/software_saver.hpp"
#include "host/x11/x11_connection.hpp"
#include "host/x11/x11_monitors.hpp"
#include "saver/linux/sdl_sound.hpp"

#include <SDL2/SDL.h>
#include <SDL2/SDL_syswm.h>
#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <X11/keysym.h>
#include <poll.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <memory>
#include <vector>

namespace korvalen::host {
namespace {

// A window that goes away under us makes the server answer later requests with errors;
// they are expected, and must not end the process as Xlib's default handler would.
// SDL for presenting and sound only: its windows are ours or foreign, and the process's
// signals are the host's.
class SdlLibrary {
 public:
  SdlLibrary() {
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    // The window's own X image (shared memory when it can): a GL texture in between costs a
    // copy and, on machines without a GPU driver, a software rasteriser's time, and it cannot
    // reach windows on a second X screen.
    SDL_SetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION, "0");
    // SDL keeps the screen awake while it has a window; a screensaver must not.
    SDL_SetHint(SDL_HINT_VIDEO_ALLOW_SCREENSAVER, "1");
    ok_ = SDL_Init(SDL_INIT_VIDEO) == 0;
  }
  ~SdlLibrary() { SDL_Quit(); }
  SdlLibrary(const SdlLibrary&) = delete;
  SdlLibrary& operator=(const SdlLibrary&) = delete;
  [[nodiscard]] bool ok() const { return ok_; }

 private:
  bool ok_ = false;
};

struct View {
  static View of(Window window, bool own, int screen, long width, long height) {
    View view;
    view.window = window;
    view.own = own;
    view.screen = screen;
    view.width = width;
    view.height = height;
    return view;
  }
  Window window = None;
  bool own = false;  // made by us, destroyed by us
  int screen = 0;
  long width = 0;
  long height = 0;
  engine::SoftwareScreen described;
  SDL_Window* sdl = nullptr;
  std::unique_ptr<engine::SoftwareSaver> saver;
  std::shared_ptr<saver::SaverController> controller;
  engine::Picture scratch;  // only when the window's pixels are not 32-bit BGRX
  bool gone = false;
  bool redraw = true;
  bool failed = false;
};

class Host {
 public:
  Host(Display* display, DesktopOptions options) : display_(display), options_(std::move(options)) {}
  ~Host() {
    for (auto& view : views_) {
      view.controller.reset();  // before the engine it stands on
      view.saver.reset();
      if (view.sdl != nullptr) {
        SDL_DestroyWindow(view.sdl);
      }
      if (view.own && !view.gone) {
        XDestroyWindow(display_, view.window);
      }
    }
    XSync(display_, False);
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  std::expected<void, std::string> open(std::shared_ptr<engine::SoundOutput> sound) {
    sound_ = std::move(sound);
    monitors_ = monitorsOf(display_);
    wmProtocols_ = XInternAtom(display_, "WM_PROTOCOLS", False);
    wmDelete_ = XInternAtom(display_, "WM_DELETE_WINDOW", False);
    switch (options_.target) {
      case DesktopOptions::Target::window:
        makeWindow(DefaultScreen(display_), 0, 0, options_.width, options_.height, false);
        break;
      case DesktopOptions::Target::fullscreen:
        for (const auto& monitor : monitors_) {
          makeWindow(monitor.screen, monitor.x, monitor.y, monitor.width, monitor.height, true);
        }
        break;
      case DesktopOptions::Target::foreign:
        if (options_.windows.empty()) {
          // XScreenSaver's -root with no window of its own: the desktop itself.
          options_.windows.push_back(RootWindow(display_, DefaultScreen(display_)));
        }
        for (const auto window : options_.windows) {
          XWindowAttributes attributes{};
          if (XGetWindowAttributes(display_, static_cast<Window>(window), &attributes) == 0) {
            return std::unexpected(
                fmt::format("window 0x{:x}: there is no such window on {}", window, DisplayString(display_)));
          }
          // Told when it changes size or is destroyed, alongside whoever made it.
          XSelectInput(display_, static_cast<Window>(window), StructureNotifyMask | ExposureMask);
          views_.push_back(View::of(static_cast<Window>(window), false, XScreenNumberOfScreen(attributes.screen),
                                    attributes.width, attributes.height));
        }
        break;
    }
    XSync(display_, False);
    for (auto& view : views_) {
      if (auto made = makeView(view); !made) {
        return made;
      }
    }
    return {};
  }

  // Until SIGTERM or SIGINT (handled by the loop's owner), the window closed or Escape, every
  // foreign window gone, or `seconds`. The loop sleeps until the next frame any view needs,
  // an X event, or a finished load.
  void run(engine::EventLoop& loop) {
    const auto started = std::chrono::steady_clock::now();
    const auto elapsed = [started] {
      return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    };
    for (auto& view : views_) {
      view.saver->loop().setLive(true);
      view.saver->loop().setWaker([&loop] { loop.post([] {}); });
      view.controller->startAnimation();
    }
    std::vector<std::unique_ptr<engine::EventLoop::Watch>> watches;
    watches.push_back(loop.watch(ConnectionNumber(display_), POLLIN, [](short) {}));
    // SDL reads its own connection: drained with every step, so the server never waits on it.
    std::vector<int> sdlConnections;
    for (const auto& view : views_) {
      SDL_SysWMinfo info;
      SDL_VERSION(&info.version);
      if (view.sdl != nullptr && SDL_GetWindowWMInfo(view.sdl, &info) == SDL_TRUE && info.subsystem == SDL_SYSWM_X11) {
        const int fd = ConnectionNumber(info.info.x11.display);
        if (std::find(sdlConnections.begin(), sdlConnections.end(), fd) == sdlConnections.end()) {
          sdlConnections.push_back(fd);
          watches.push_back(loop.watch(fd, POLLIN, [](short) {}));
        }
      }
    }
    if (options_.seconds) {
      const auto limit =
          std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(*options_.seconds));
      if (auto timer = loop.after(limit, [&loop] { loop.quit(); })) {
        watches.push_back(std::move(*timer));
      }
    }
    std::unique_ptr<engine::EventLoop::Watch> frame;
    watches.push_back(loop.beforeSleep([&] {
      handleEvents();
      if (quit_ || std::none_of(views_.begin(), views_.end(), [](const View& v) { return !v.gone; })) {
        loop.quit();
        return;
      }
      const double now = elapsed();
      double wake = std::numeric_limits<double>::infinity();
      for (auto& view : views_) {
        if (!view.gone) {
          view.saver->loop().runUntil(now);
          present(view);
          wake = std::min(wake, view.saver->loop().nextWake());
        }
      }
      XFlush(display_);
      frame.reset();
      if (std::isfinite(wake)) {
        // A frame not decoded yet is looked for again a moment later, not in a spin.
        const double delay = std::max(wake - elapsed(), 0.002);
        if (auto timer = loop.after(std::chrono::nanoseconds(static_cast<std::int64_t>(delay * 1e9)), [] {})) {
          frame = std::move(*timer);
        }
      }
    }));
    loop.run();
    frame.reset();
    for (auto& view : views_) {
      view.saver->loop().setWaker({});
      if (!view.gone) {
        view.controller->stopAnimation();
      }
    }
  }

 private:
  void makeWindow(int screen, long x, long y, long width, long height, bool fullscreen) {
    const auto black = BlackPixel(display_, screen);
    const Window window =
        XCreateSimpleWindow(display_, RootWindow(display_, screen), static_cast<int>(x), static_cast<int>(y),
                            static_cast<unsigned>(width), static_cast<unsigned>(height), 0, black, black);
    XStoreName(display_, window, "Korvalen");
    XSetWMProtocols(display_, window, &wmDelete_, 1);
    XSelectInput(display_, window, StructureNotifyMask | ExposureMask | KeyPressMask);
    if (fullscreen) {
      // A window manager makes it cover its monitor; without one it is already there.
      Atom state = XInternAtom(display_, "_NET_WM_STATE_FULLSCREEN", False);
      XChangeProperty(display_, window, XInternAtom(display_, "_NET_WM_STATE", False), XA_ATOM, 32, PropModeReplace,
                      reinterpret_cast<unsigned char*>(&state), 1);
    }
    XMapWindow(display_, window);
    views_.push_back(View::of(window, true, screen, width, height));
  }

  std::expected<void, std::string> makeView(View& view) {
    Window root = RootWindow(display_, view.screen);
    int x = 0;
    int y = 0;
    Window child = None;
    XTranslateCoordinates(display_, view.window, root, 0, 0, &x, &y, &child);
    const Monitor* monitor = monitorFor(monitors_, view.screen, x, y, view.width, view.height);
    const long monitorWidth = monitor != nullptr ? monitor->width : view.width;
    const long monitorHeight = monitor != nullptr ? monitor->height : view.height;
    // XScreenSaver's preview pane and the like: far smaller than the monitor it is on.
    const bool small = !view.own && view.width * view.height * 4 <= monitorWidth * monitorHeight;
    view.described = engine::SoftwareScreen{
        {static_cast<double>(view.width), static_cast<double>(view.height)},
        monitor != nullptr ? monitor->id : fmt::format("display-0|{}x{}", view.width, view.height),
        options_.preview || small,
        scene::Size{static_cast<double>(monitorWidth), static_cast<double>(monitorHeight)}};
    view.saver = std::make_unique<engine::SoftwareSaver>(view.described, sound_);
    view.controller = saver::SaverController::make(view.saver->platform(options_.environment));
    return adopt(view);
  }

  // SDL presents into the window through its own surface; a resize needs a fresh one.
  std::expected<void, std::string> adopt(View& view) {
    if (view.sdl != nullptr) {
      SDL_DestroyWindow(view.sdl);
    }
    // SDL takes the X window id in a pointer.
    view.sdl = SDL_CreateWindowFrom(reinterpret_cast<void*>(view.window));  // NOLINT(performance-no-int-to-ptr)
    if (view.sdl == nullptr) {
      return std::unexpected(fmt::format("window 0x{:x}: it cannot be drawn into ({})", view.window, SDL_GetError()));
    }
    view.redraw = true;
    return {};
  }

  void present(View& view) {
    SDL_Surface* surface = view.sdl != nullptr ? SDL_GetWindowSurface(view.sdl) : nullptr;
    if (surface == nullptr) {
      if (view.sdl != nullptr && !view.failed) {
        view.failed = true;  // said once; it may come back after a resize
        log::writef("host", log::Level::error, "window 0x{:x}: it cannot be drawn into ({})", view.window,
                    SDL_GetError());
      }
      return;
    }
    const bool direct =
        (surface->format->format == SDL_PIXELFORMAT_RGB888 || surface->format->format == SDL_PIXELFORMAT_ARGB8888) &&
        !SDL_MUSTLOCK(surface);
    bool drawn = false;
    if (direct) {
      // Composed straight into the pixels SDL hands to the X server: no copy of our own.
      drawn = view.saver->draw(
          engine::Canvas{static_cast<std::uint8_t*>(surface->pixels), surface->w, surface->h, surface->pitch},
          !view.redraw);
    } else {
      if (view.scratch.width != surface->w || view.scratch.height != surface->h) {
        view.scratch = engine::Picture(surface->w, surface->h);
      }
      drawn = view.saver->draw(view.scratch.canvas(), !view.redraw);
      if (drawn && SDL_LockSurface(surface) == 0) {
        SDL_ConvertPixels(surface->w, surface->h, SDL_PIXELFORMAT_ARGB8888, view.scratch.bgra.data(),
                          static_cast<int>(view.scratch.width * 4), surface->format->format, surface->pixels,
                          surface->pitch);
        SDL_UnlockSurface(surface);
      }
    }
    view.redraw = false;
    if (drawn && SDL_UpdateWindowSurface(view.sdl) != 0 && !view.failed) {
      view.failed = true;
      log::writef("host", log::Level::error, "window 0x{:x}: it cannot be drawn into ({})", view.window,
                  SDL_GetError());
    }
  }

  View* viewOf(Window window) {
    const auto found = std::find_if(views_.begin(), views_.end(), [&](const View& v) { return v.window == window; });
    return found != views_.end() ? &*found : nullptr;
  }

  void handleEvents() {
    while (XPending(display_) > 0) {
      XEvent event{};
      XNextEvent(display_, &event);
      View* view = viewOf(event.xany.window);
      if (view == nullptr || view->gone) {
        continue;
      }
      switch (event.type) {
        case ConfigureNotify:
          if (event.xconfigure.width != view->width || event.xconfigure.height != view->height) {
            resized(*view, event.xconfigure.width, event.xconfigure.height);
          }
          break;
        case DestroyNotify:
          left(*view);
          break;
        case Expose:
          view->redraw = true;
          break;
        case KeyPress:
          if (const auto key = XLookupKeysym(&event.xkey, 0); key == XK_Escape || key == XK_q) {
            quit_ = true;
          }
          break;
        case ClientMessage:
          if (event.xclient.message_type == wmProtocols_ && static_cast<Atom>(event.xclient.data.l[0]) == wmDelete_) {
            quit_ = true;
          }
          break;
        default:
          break;
      }
    }
    // SDL's own connection hears about the windows too; nothing there is needed.
    SDL_PumpEvents();
    SDL_FlushEvents(SDL_FIRSTEVENT, SDL_LASTEVENT);
  }

  void resized(View& view, long width, long height) {
    view.width = std::max(width, 1L);
    view.height = std::max(height, 1L);
    view.described.size = {static_cast<double>(view.width), static_cast<double>(view.height)};
    view.saver->setScreen(view.described);
    view.controller->boundsChanged();
    if (auto adopted = adopt(view); !adopted) {
      log::write("host", log::Level::error, adopted.error());
    }
  }

  void left(View& view) {
    view.gone = true;
    if (view.sdl != nullptr) {
      SDL_DestroyWindow(view.sdl);
      view.sdl = nullptr;
    }
    view.saver->leaveWindow();
    view.controller->viewDidMoveToWindow();
  }

  Display* display_;
  DesktopOptions options_;
  std::vector<Monitor> monitors_;
  std::vector<View> views_;
  std::shared_ptr<engine::SoundOutput> sound_;
  Atom wmProtocols_ = None;
  Atom wmDelete_ = None;
  bool quit_ = false;
};

}  // namespace

std::expected<void, std::string> runOnDesktop(const DesktopOptions& options) {
  auto display = openDisplay();
  if (!display) {
    return std::unexpected(display.error());
  }
  // The loop and its signals first: every thread started after (SDL's audio) keeps them blocked.
  auto loop = engine::EventLoop::make();
  if (!loop) {
    return std::unexpected(loop.error());
  }
  const auto signals = (*loop)->quitOnStopSignals();
  if (!signals) {
    return std::unexpected(signals.error());
  }
  const SdlLibrary sdl;
  if (!sdl.ok()) {
    return std::unexpected(fmt::format("SDL cannot start its video: {}", SDL_GetError()));
  }
  auto sound = makeSdlSound();
  std::expected<void, std::string> result;
  {
    Host host(display->get(), options);
    result = host.open(sound);
    if (result) {
      host.run(**loop);
    }
  }
  return result;
}

std::expected<std::uint64_t, std::string> parseWindowID(std::string_view text, std::string_view what) {
  std::string_view digits = text;
  int base = 10;
  if (digits.starts_with("0x") || digits.starts_with("0X")) {
    digits.remove_prefix(2);
    base = 16;
  }
  std::uint64_t id = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), id, base);
  // X resource ids have 29 bits.
  if (digits.empty() || error != std::errc() || end != digits.data() + digits.size() || id == 0 || id > 0x1FFFFFFFU) {
    return std::unexpected(fmt::format("{}: expected an X window id such as 0x2a00007, got \"{}\"", what, text));
  }
  return id;
}

}  // namespace korvalen::host
