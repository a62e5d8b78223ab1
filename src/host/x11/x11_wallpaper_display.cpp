// The live wallpaper on X11: a window per monitor behind everything (desktop-typed, or
// unmanaged and lowered), or the root window's background; pictures handed to the server in
// shared memory; RandR followed; the window manager's list read when it says it changed.
#include "host/wallpaper_display.hpp"

#include "core/diagnostics/log.hpp"
#include "core/support/enum_words.hpp"
#include "host/x11/x11_connection.hpp"
#include "host/x11/x11_monitors.hpp"
#include "host/x11/x11_window_list.hpp"

#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <X11/extensions/dpms.h>
#include <fmt/format.h>

#include <poll.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstring>
#include <set>

namespace korvalen::host {

namespace {
constexpr EnumWords<Placement, 7> placementWords{{{Placement::automatic, "automatic"},
                                                  {Placement::desktop, "desktop"},
                                                  {Placement::below, "below"},
                                                  {Placement::root, "root"},
                                                  {Placement::background, "background"},
                                                  {Placement::bottom, "bottom"},
                                                  {Placement::overlay, "overlay"}}};
}  // namespace

std::string_view toString(Placement placement) {
  return wordFor(placementWords, placement);
}

std::optional<Placement> placementNamed(std::string_view word) {
  return valueFor(placementWords, word);
}

namespace {

constexpr std::string_view category = "wallpaper";

// One picture the server reads: shared memory when the server offers it (the frame is not
// copied through the socket), else an ordinary image sent with each put.
class X11Image {
 public:
  X11Image(Display* display, Visual* visual, int depth, int width, int height, bool shared)
      : display_(display), width_(width), height_(height) {
    if (shared) {
      image_ = XShmCreateImage(display, visual, static_cast<unsigned>(depth), ZPixmap, nullptr, &segment_,
                               static_cast<unsigned>(width), static_cast<unsigned>(height));
      if (image_ != nullptr) {
        const auto bytes = static_cast<std::size_t>(image_->bytes_per_line) * static_cast<std::size_t>(height);
        segment_.shmid = ::shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        void* memory = segment_.shmid >= 0 ? ::shmat(segment_.shmid, nullptr, 0) : reinterpret_cast<void*>(-1);
        if (memory != reinterpret_cast<void*>(-1)) {
          segment_.shmaddr = image_->data = static_cast<char*>(memory);
          segment_.readOnly = False;
          resetXError();
          XShmAttach(display, &segment_);
          XSync(display, False);
          // Marked for removal now: it goes when both sides detach, even after a crash.
          ::shmctl(segment_.shmid, IPC_RMID, nullptr);
          attached_ = lastXError() == 0;
        }
        if (!attached_) {
          release();
        }
      }
    }
    if (image_ == nullptr) {
      image_ = XCreateImage(display, visual, static_cast<unsigned>(depth), ZPixmap, 0, nullptr,
                            static_cast<unsigned>(width), static_cast<unsigned>(height), 32, 0);
      if (image_ != nullptr) {
        image_->data = static_cast<char*>(
            std::calloc(static_cast<std::size_t>(image_->bytes_per_line), static_cast<std::size_t>(height)));
      }
    }
  }
  ~X11Image() { release(); }
  X11Image(const X11Image&) = delete;
  X11Image& operator=(const X11Image&) = delete;

  [[nodiscard]] bool ok() const { return image_ != nullptr && image_->data != nullptr && image_->bits_per_pixel == 32; }
  [[nodiscard]] bool shared() const { return attached_; }
  [[nodiscard]] engine::Canvas canvas() const {
    return engine::Canvas{reinterpret_cast<std::uint8_t*>(image_->data), width_, height_, image_->bytes_per_line};
  }
  // With shared memory the server reads the pixels later: busy until each put's completion
  // event (one image may be put on several monitors).
  void put(Drawable target, GC gc, int x, int y) {
    if (attached_) {
      XShmPutImage(display_, target, gc, image_, 0, 0, x, y, static_cast<unsigned>(width_),
                   static_cast<unsigned>(height_), True);
      ++pending;
    } else {
      XPutImage(display_, target, gc, image_, 0, 0, x, y, static_cast<unsigned>(width_),
                static_cast<unsigned>(height_));
    }
  }
  [[nodiscard]] bool busy() const { return pending > 0; }
  [[nodiscard]] ShmSeg segment() const { return segment_.shmseg; }
  int pending = 0;

 private:
  void release() {
    if (attached_) {
      XShmDetach(display_, &segment_);
      XSync(display_, False);
      attached_ = false;
    }
    if (segment_.shmaddr != nullptr) {
      ::shmdt(segment_.shmaddr);
      segment_.shmaddr = nullptr;
      if (image_ != nullptr) {
        image_->data = nullptr;
      }
    } else if (segment_.shmid >= 0) {
      ::shmctl(segment_.shmid, IPC_RMID, nullptr);
    }
    segment_.shmid = -1;
    if (image_ != nullptr) {
      XDestroyImage(image_);  // frees data we allocated, if any
      image_ = nullptr;
    }
  }

  Display* display_;
  int width_;
  int height_;
  XImage* image_ = nullptr;
  XShmSegmentInfo segment_{0, -1, nullptr, False};
  bool attached_ = false;
};

struct Surface {
  Monitor monitor;
  Window window = None;  // None in root mode
  std::unique_ptr<X11Image> image;
  std::string shownFrom;  // the monitor whose picture it shows (its own, or one it mirrors)
};

class X11WallpaperDisplay final : public WallpaperDisplay {
 public:
  X11WallpaperDisplay(engine::EventLoop& loop, DisplayPtr display, Events events)
      : loop_(loop), display_(std::move(display)), events_(std::move(events)), list_(display_.get()) {}

  ~X11WallpaperDisplay() override {
    Display* display = display_.get();
    surfaces_.clear();
    for (const auto window : windows_) {
      XDestroyWindow(display, window);
    }
    if (placement_ == Placement::root) {
      restoreRoot();
    }
    if (gc_ != nullptr) {
      XFreeGC(display, gc_);
    }
    XSync(display, False);
  }
  X11WallpaperDisplay(const X11WallpaperDisplay&) = delete;
  X11WallpaperDisplay& operator=(const X11WallpaperDisplay&) = delete;

  std::expected<void, std::string> open(Placement placement) {
    Display* display = display_.get();
    const int screen = DefaultScreen(display);
    root_ = RootWindow(display, screen);
    if (DefaultDepth(display, screen) != 24 && DefaultDepth(display, screen) != 32) {
      return std::unexpected(
          fmt::format("the X display's depth is {} bits; the wallpaper needs 24 or 32", DefaultDepth(display, screen)));
    }
    int major = 0;
    int minor = 0;
    Bool pixmaps = False;
    shm_ = XShmQueryVersion(display, &major, &minor, &pixmaps) != 0;
    shmCompletion_ = shm_ ? XShmGetEventBase(display) + ShmCompletion : -1;
    if (placement == Placement::automatic) {
      placement = list_.supportsDesktopWindows() ? Placement::desktop : Placement::below;
    }
    placement_ = placement;
    gc_ = XCreateGC(display, root_, 0, nullptr);
    watchMonitors(display);
    atoms_.windowType = XInternAtom(display, "_NET_WM_WINDOW_TYPE", False);
    atoms_.desktopType = XInternAtom(display, "_NET_WM_WINDOW_TYPE_DESKTOP", False);
    atoms_.state = XInternAtom(display, "_NET_WM_STATE", False);
    atoms_.below = XInternAtom(display, "_NET_WM_STATE_BELOW", False);
    atoms_.sticky = XInternAtom(display, "_NET_WM_STATE_STICKY", False);
    atoms_.skipTaskbar = XInternAtom(display, "_NET_WM_STATE_SKIP_TASKBAR", False);
    atoms_.skipPager = XInternAtom(display, "_NET_WM_STATE_SKIP_PAGER", False);
    atoms_.wmDesktop = XInternAtom(display, "_NET_WM_DESKTOP", False);
    atoms_.rootPixmap = XInternAtom(display, "_XROOTPMAP_ID", False);
    atoms_.setRootPixmap = XInternAtom(display, "ESETROOT_PMAP_ID", False);
    follow();
    watch_ = loop_.watch(ConnectionNumber(display), POLLIN, [this](short) { pump(); });
    flush_ = loop_.beforeSleep([this] { pump(); });
    log::writef(category, log::Level::notice, "on {} as {} ({} monitor(s){})", DisplayString(display),
                toString(placement_), surfaces_.size(), shm_ ? ", shared memory" : "");
    return {};
  }

  [[nodiscard]] std::vector<Monitor> monitors() const override {
    std::vector<Monitor> out;
    out.reserve(surfaces_.size());
    for (const auto& surface : surfaces_) {
      out.push_back(surface.monitor);
    }
    return out;
  }

  std::optional<engine::Canvas> canvas(const std::string& monitorId) override {
    Surface* surface = find(monitorId);
    if (surface == nullptr || !surface->image || surface->image->busy()) {
      return std::nullopt;
    }
    return surface->image->canvas();
  }

  void present(const std::string& monitorId) override { presentFrom(monitorId, monitorId); }

  void repaint(const std::string& monitorId) override {
    Surface* surface = find(monitorId);
    if (surface != nullptr && !surface->shownFrom.empty()) {
      presentFrom(monitorId, surface->shownFrom);
      XFlush(display_.get());
    }
  }

  [[nodiscard]] std::optional<unsigned long> windowOf(const std::string& monitorId) const override {
    const auto found =
        std::find_if(surfaces_.begin(), surfaces_.end(), [&](const Surface& s) { return s.monitor.id == monitorId; });
    if (found == surfaces_.end() || found->window == None) {
      return std::nullopt;
    }
    return found->window;
  }

  void presentFrom(const std::string& monitorId, const std::string& source) override {
    Surface* surface = find(monitorId);
    Surface* from = find(source);
    if (surface == nullptr || from == nullptr || !from->image || from->monitor.width != surface->monitor.width ||
        from->monitor.height != surface->monitor.height) {
      return;
    }
    auto& image = *from->image;
    surface->shownFrom = source;
    if (placement_ == Placement::root) {
      image.put(rootPixmap_, gc_, static_cast<int>(surface->monitor.x), static_cast<int>(surface->monitor.y));
      XClearArea(display_.get(), root_, static_cast<int>(surface->monitor.x), static_cast<int>(surface->monitor.y),
                 static_cast<unsigned>(surface->monitor.width), static_cast<unsigned>(surface->monitor.height), False);
      // A compositor paints the background from the pixmap the property names, and reads it
      // again only when the property is set: set it again for every frame.
      announceRootPixmap();
    } else {
      image.put(surface->window, gc_, 0, 0);
    }
  }

  std::optional<DesktopWindows> windows() override {
    std::set<Window> ours(windows_.begin(), windows_.end());
    return list_.read(ours, monitors());
  }

  std::optional<bool> displayAsleep() override {
    int eventBase = 0;
    int errorBase = 0;
    Display* display = display_.get();
    if (DPMSQueryExtension(display, &eventBase, &errorBase) == 0 || DPMSCapable(display) == 0) {
      return std::nullopt;
    }
    CARD16 level = 0;
    BOOL enabled = False;
    if (DPMSInfo(display, &level, &enabled) == 0) {
      return std::nullopt;
    }
    return enabled != 0 && level != DPMSModeOn;
  }

  [[nodiscard]] Placement placement() const override { return placement_; }

  void onReady(std::function<void(const std::string&)> ready) override { ready_ = std::move(ready); }

 private:
  struct Atoms {
    Atom windowType = None, desktopType = None, state = None, below = None, sticky = None, skipTaskbar = None,
         skipPager = None, wmDesktop = None, rootPixmap = None, setRootPixmap = None;
  };

  Surface* find(const std::string& monitorId) {
    const auto found =
        std::find_if(surfaces_.begin(), surfaces_.end(), [&](const Surface& s) { return s.monitor.id == monitorId; });
    return found != surfaces_.end() ? &*found : nullptr;
  }

  // Everything the server has said, handled; everything we asked, sent.
  void pump() {
    Display* display = display_.get();
    bool monitorsMoved = false;
    bool windowsMoved = false;
    bool exposed = false;
    while (XPending(display) > 0) {
      XEvent event{};
      XNextEvent(display, &event);
      if (event.type == shmCompletion_) {
        const auto& done = reinterpret_cast<const XShmCompletionEvent&>(event);
        for (auto& surface : surfaces_) {
          if (surface.image && surface.image->busy() && surface.image->segment() == done.shmseg) {
            if (--surface.image->pending == 0 && ready_) {
              ready_(surface.monitor.id);
            }
          }
        }
        continue;
      }
      if (isMonitorEvent(display, event)) {
        monitorsMoved = true;
        continue;
      }
      if (event.type == Expose && std::find(windows_.begin(), windows_.end(), event.xexpose.window) != windows_.end()) {
        // What was shown there is still in its picture: put it back, without drawing again.
        const auto surface = std::find_if(surfaces_.begin(), surfaces_.end(),
                                          [&](const Surface& s) { return s.window == event.xexpose.window; });
        if (event.xexpose.count == 0 && surface != surfaces_.end() && !surface->shownFrom.empty()) {
          presentFrom(surface->monitor.id, surface->shownFrom);
        } else if (surface == surfaces_.end() || surface->shownFrom.empty()) {
          exposed = true;
        }
        continue;
      }
      if (event.type == ConfigureNotify && placement_ == Placement::below && event.xconfigure.event == root_ &&
          !isOurs(event.xconfigure.window)) {
        // Something restacked: stay beneath it.
        lowerOurs();
      }
      if (list_.concerns(event)) {
        windowsMoved = true;
      }
    }
    if (monitorsMoved) {
      const auto before = monitors();
      if (monitorsOf(display) != before) {
        follow();
        if (events_.monitorsChanged) {
          events_.monitorsChanged();
        }
        exposed = true;
      }
    }
    if (windowsMoved && events_.windowsChanged) {
      events_.windowsChanged();
    }
    if (exposed && events_.exposed) {
      events_.exposed();
    }
    XFlush(display);
  }

  [[nodiscard]] bool isOurs(Window window) const {
    return std::find(windows_.begin(), windows_.end(), window) != windows_.end();
  }

  void lowerOurs() {
    for (const auto window : windows_) {
      XLowerWindow(display_.get(), window);
    }
  }

  // Surfaces for the monitors there are now: kept where a monitor stayed as it was, made
  // for new ones, dropped for those gone.
  void follow() {
    Display* display = display_.get();
    const auto present = monitorsOf(display);
    std::vector<Surface> kept;
    for (auto& surface : surfaces_) {
      const bool stays = std::find(present.begin(), present.end(), surface.monitor) != present.end();
      if (stays) {
        kept.push_back(std::move(surface));
      } else if (surface.window != None) {
        std::erase(windows_, surface.window);
        XDestroyWindow(display, surface.window);
      }
    }
    surfaces_ = std::move(kept);
    if (placement_ == Placement::root) {
      makeRootPixmap();
    }
    for (const auto& monitor : present) {
      if (find(monitor.id) != nullptr || monitor.screen != DefaultScreen(display)) {
        continue;
      }
      Surface surface{monitor, None, nullptr, {}};
      if (placement_ != Placement::root) {
        surface.window = makeWindow(monitor);
        windows_.push_back(surface.window);
      }
      surface.image = std::make_unique<X11Image>(
          display, DefaultVisual(display, DefaultScreen(display)), DefaultDepth(display, DefaultScreen(display)),
          static_cast<int>(monitor.width), static_cast<int>(monitor.height), shm_);
      if (!surface.image->ok()) {
        log::writef(category, log::Level::error, "monitor {}: no picture of {}x{} can be made on this display",
                    monitor.id, monitor.width, monitor.height);
        surface.image.reset();
      }
      surfaces_.push_back(std::move(surface));
    }
    // In the order the monitors are listed, whatever came and went.
    std::stable_sort(surfaces_.begin(), surfaces_.end(), [&](const Surface& a, const Surface& b) {
      const auto rank = [&](const Surface& s) {
        return std::find(present.begin(), present.end(), s.monitor) - present.begin();
      };
      return rank(a) < rank(b);
    });
    if (placement_ == Placement::below) {
      lowerOurs();
    }
    XSync(display, False);
  }

  Window makeWindow(const Monitor& monitor) {
    Display* display = display_.get();
    XSetWindowAttributes attributes{};
    attributes.background_pixel = BlackPixel(display, DefaultScreen(display));
    attributes.override_redirect = placement_ == Placement::below ? True : False;
    attributes.event_mask = ExposureMask;
    const Window window =
        XCreateWindow(display, root_, static_cast<int>(monitor.x), static_cast<int>(monitor.y),
                      static_cast<unsigned>(monitor.width), static_cast<unsigned>(monitor.height), 0, CopyFromParent,
                      InputOutput, CopyFromParent, CWBackPixel | CWOverrideRedirect | CWEventMask, &attributes);
    XStoreName(display, window, "Korvalen wallpaper");
    XClassHint hint{};
    std::string name = "korvalen-wallpaper";
    std::string type = "Korvalen";
    hint.res_name = name.data();
    hint.res_class = type.data();
    XSetClassHint(display, window, &hint);
    if (placement_ == Placement::desktop) {
      XChangeProperty(display, window, atoms_.windowType, XA_ATOM, 32, PropModeReplace,
                      reinterpret_cast<const unsigned char*>(&atoms_.desktopType), 1);
      const Atom states[] = {atoms_.below, atoms_.sticky, atoms_.skipTaskbar, atoms_.skipPager};
      XChangeProperty(display, window, atoms_.state, XA_ATOM, 32, PropModeReplace,
                      reinterpret_cast<const unsigned char*>(states), 4);
      const unsigned long everywhere = 0xFFFFFFFFUL;
      XChangeProperty(display, window, atoms_.wmDesktop, XA_CARDINAL, 32, PropModeReplace,
                      reinterpret_cast<const unsigned char*>(&everywhere), 1);
      // Where it goes, as the user would say it: window managers honour that for desktops.
      XSizeHints hints{};
      hints.flags = USPosition | USSize | PMinSize | PMaxSize;
      hints.x = static_cast<int>(monitor.x);
      hints.y = static_cast<int>(monitor.y);
      hints.width = hints.min_width = hints.max_width = static_cast<int>(monitor.width);
      hints.height = hints.min_height = hints.max_height = static_cast<int>(monitor.height);
      XSetWMNormalHints(display, window, &hints);
      // No keyboard focus for a background.
      XWMHints wm{};
      wm.flags = InputHint;
      wm.input = False;
      XSetWMHints(display, window, &wm);
    }
    XMapWindow(display, window);
    if (placement_ == Placement::desktop) {
      XMoveResizeWindow(display, window, static_cast<int>(monitor.x), static_cast<int>(monitor.y),
                        static_cast<unsigned>(monitor.width), static_cast<unsigned>(monitor.height));
    }
    return window;
  }

  void makeRootPixmap() {
    Display* display = display_.get();
    const int screen = DefaultScreen(display);
    const auto width = static_cast<unsigned>(DisplayWidth(display, screen));
    const auto height = static_cast<unsigned>(DisplayHeight(display, screen));
    if (rootPixmap_ != None && width == rootWidth_ && height == rootHeight_) {
      return;
    }
    const Pixmap old = rootPixmap_;
    rootPixmap_ = XCreatePixmap(display, root_, width, height, static_cast<unsigned>(DefaultDepth(display, screen)));
    rootWidth_ = width;
    rootHeight_ = height;
    XSetForeground(display, gc_, BlackPixel(display, screen));
    XFillRectangle(display, rootPixmap_, gc_, 0, 0, width, height);
    XSetWindowBackgroundPixmap(display, root_, rootPixmap_);
    announceRootPixmap();
    XClearWindow(display, root_);
    if (old != None) {
      XFreePixmap(display, old);
    }
    // Pictures of the old size go with it.
    surfaces_.clear();
  }

  void announceRootPixmap() {
    for (const Atom property : {atoms_.rootPixmap, atoms_.setRootPixmap}) {
      XChangeProperty(display_.get(), root_, property, XA_PIXMAP, 32, PropModeReplace,
                      reinterpret_cast<const unsigned char*>(&rootPixmap_), 1);
    }
  }

  void restoreRoot() {
    Display* display = display_.get();
    XSetWindowBackground(display, root_, BlackPixel(display, DefaultScreen(display)));
    XDeleteProperty(display, root_, atoms_.rootPixmap);
    XDeleteProperty(display, root_, atoms_.setRootPixmap);
    XClearWindow(display, root_);
    if (rootPixmap_ != None) {
      XFreePixmap(display, rootPixmap_);
      rootPixmap_ = None;
    }
  }

  engine::EventLoop& loop_;
  DisplayPtr display_;
  Events events_;
  X11WindowList list_;
  Window root_ = None;
  GC gc_ = nullptr;
  Placement placement_ = Placement::desktop;
  bool shm_ = false;
  int shmCompletion_ = -1;
  Atoms atoms_;
  std::vector<Surface> surfaces_;
  std::vector<Window> windows_;
  Pixmap rootPixmap_ = None;
  unsigned rootWidth_ = 0;
  unsigned rootHeight_ = 0;
  std::function<void(const std::string&)> ready_;
  std::unique_ptr<engine::EventLoop::Watch> watch_;
  std::unique_ptr<engine::EventLoop::Watch> flush_;
};

}  // namespace

std::expected<std::unique_ptr<WallpaperDisplay>, std::string> openX11Wallpaper(engine::EventLoop& loop,
                                                                               Placement placement,
                                                                               WallpaperDisplay::Events events) {
  auto display = openDisplay();
  if (!display) {
    return std::unexpected(display.error());
  }
  auto wallpaper = std::make_unique<X11WallpaperDisplay>(loop, std::move(*display), std::move(events));
  if (auto opened = wallpaper->open(placement); !opened) {
    return std::unexpected(opened.error());
  }
  return wallpaper;
}

}  // namespace korvalen::host
