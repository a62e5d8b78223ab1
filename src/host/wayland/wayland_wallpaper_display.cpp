// The live wallpaper on Wayland: a layer-shell surface on every output (the background layer,
// or the bottom one), with an empty input region so clicks reach the desktop, drawn into
// shared-memory buffers only when the compositor's frame callback says a frame will be shown.
#include "host/wallpaper_display.hpp"

#include "core/desktop/monitor_identity.hpp"
#include "core/diagnostics/log.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>

#include "fractional-scale-v1-client.h"
#include "viewporter-client.h"
#include "wlr-foreign-toplevel-management-unstable-v1-client.h"
#include "wlr-layer-shell-unstable-v1-client.h"
#include "wlr-output-management-unstable-v1-client.h"
#include "xdg-output-unstable-v1-client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <system_error>

namespace korvalen::host {
namespace {

constexpr std::string_view category = "wallpaper";

// One picture the compositor reads, in memory shared with it.
class ShmBuffer {
 public:
  ShmBuffer() = default;
  ShmBuffer(const ShmBuffer&) = delete;
  ShmBuffer& operator=(const ShmBuffer&) = delete;
  ~ShmBuffer() { reset(); }

  // Memory of `width` x `height` pixels; false (one line in `error`) when it cannot be had.
  bool make(wl_shm* shm, int width, int height, std::string& error) {
    reset();
    const int stride = width * 4;
    const auto bytes = static_cast<std::size_t>(stride) * static_cast<std::size_t>(height);
    const int fd = memfd_create("korvalen-wallpaper", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
      error = fmt::format("no shared memory for a {}x{} picture: {}", width, height,
                          std::generic_category().message(errno));
      if (fd >= 0) {
        close(fd);
      }
      return false;
    }
    void* data = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (data == MAP_FAILED) {
      error = fmt::format("no shared memory for a {}x{} picture: {}", width, height,
                          std::generic_category().message(errno));
      close(fd);
      return false;
    }
    wl_shm_pool* pool = wl_shm_create_pool(shm, fd, static_cast<std::int32_t>(bytes));
    buffer_ = wl_shm_pool_create_buffer(pool, 0, width, height, stride, WL_SHM_FORMAT_XRGB8888);
    wl_shm_pool_destroy(pool);
    close(fd);
    static constexpr wl_buffer_listener listener{
        [](void* self, wl_buffer*) { static_cast<ShmBuffer*>(self)->busy_ = false; }};
    wl_buffer_add_listener(buffer_, &listener, this);
    data_ = static_cast<std::uint8_t*>(data);
    bytes_ = bytes;
    width_ = width;
    height_ = height;
    return true;
  }
  void reset() {
    if (buffer_ != nullptr) {
      wl_buffer_destroy(buffer_);
      buffer_ = nullptr;
    }
    if (data_ != nullptr) {
      munmap(data_, bytes_);
      data_ = nullptr;
    }
    busy_ = false;
  }
  [[nodiscard]] bool ready() const { return buffer_ != nullptr && !busy_; }
  [[nodiscard]] engine::Canvas canvas() const { return engine::Canvas{data_, width_, height_, width_ * 4}; }
  wl_buffer* attach() {
    busy_ = true;
    return buffer_;
  }
  [[nodiscard]] std::int64_t width() const { return width_; }
  [[nodiscard]] std::int64_t height() const { return height_; }

 private:
  wl_buffer* buffer_ = nullptr;
  std::uint8_t* data_ = nullptr;
  std::size_t bytes_ = 0;
  std::int64_t width_ = 0;
  std::int64_t height_ = 0;
  bool busy_ = false;  // the compositor still reads it
};

class WaylandWallpaperDisplay;

// An output and the wallpaper surface on it.
struct Output {
  WaylandWallpaperDisplay* owner = nullptr;
  std::uint32_t global = 0;
  wl_output* output = nullptr;
  zxdg_output_v1* xdg = nullptr;
  std::string name;
  std::string make;
  std::string model;
  std::string serial;  // from the output-management protocol, where offered
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::int32_t scale = 1;
  std::int32_t transform = WL_OUTPUT_TRANSFORM_NORMAL;
  std::int32_t modeWidth = 0;  // the current mode, in pixels
  std::int32_t modeHeight = 0;
  std::int32_t logicalOutputWidth = 0;  // from xdg-output, in the compositor's logical units
  std::int32_t logicalOutputHeight = 0;
  bool described = false;  // the first `done` came
  Monitor monitor;

  wl_surface* surface = nullptr;
  zwlr_layer_surface_v1* layer = nullptr;
  std::int32_t logicalWidth = 0;  // as the compositor configured the surface
  std::int32_t logicalHeight = 0;
  bool resizeDue = false;        // told a new size or scale: buffers made before the loop sleeps
  std::int32_t bufferScale = 1;  // the integer scale the buffers are drawn at, 1 when fractional
  wp_viewport* viewport = nullptr;
  wp_fractional_scale_v1* fractionalScale = nullptr;
  std::uint32_t preferredScale = 0;  // from the fractional-scale protocol, in 120ths; 0: not said
  // Pixels per logical unit when the output's scale is fractional and the buffers are mapped
  // onto the surface by a viewport; 0 when the integer buffer scale serves.
  double fractionalX = 0;
  double fractionalY = 0;
  std::array<ShmBuffer, 2> buffers;
  ShmBuffer* drawing = nullptr;  // handed out by `canvas`, not presented yet
  ShmBuffer* shown = nullptr;    // presented last
  wl_callback* frame = nullptr;  // a frame asked for and not yet done
  // Full-screen windows on this output (their numbers), and whether the compositor has shown
  // the wallpaper since they came: if it has, they are on a workspace that is not shown.
  std::vector<std::int64_t> fullscreenOn;
  bool shownSince = false;
  std::unique_ptr<engine::EventLoop::Watch> overdue;  // a frame not shown in time: hidden

  Output() = default;
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  ~Output() {
    destroySurface();
    if (output != nullptr) {
      if (wl_output_get_version(output) >= WL_OUTPUT_RELEASE_SINCE_VERSION) {
        wl_output_release(output);
      } else {
        wl_output_destroy(output);
      }
    }
  }

  void destroySurface() {
    overdue.reset();
    if (fractionalScale != nullptr) {
      wp_fractional_scale_v1_destroy(fractionalScale);
      fractionalScale = nullptr;
    }
    if (viewport != nullptr) {
      wp_viewport_destroy(viewport);
      viewport = nullptr;
    }
    if (frame != nullptr) {
      wl_callback_destroy(frame);
      frame = nullptr;
    }
    for (auto& buffer : buffers) {
      buffer.reset();
    }
    drawing = nullptr;
    shown = nullptr;
    if (layer != nullptr) {
      zwlr_layer_surface_v1_destroy(layer);
      layer = nullptr;
    }
    if (surface != nullptr) {
      wl_surface_destroy(surface);
      surface = nullptr;
    }
    if (xdg != nullptr) {
      zxdg_output_v1_destroy(xdg);
      xdg = nullptr;
    }
  }
  // The wallpaper's size in pixels: the surface's size at the output's scale, or before it
  // has one, the output's own logical size at its scale, else its mode.
  [[nodiscard]] std::int64_t pixelWidth() const {
    return logicalWidth > 0 && fractionalX > 0 ? std::llround(logicalWidth * fractionalX)
           : logicalWidth > 0                  ? std::int64_t{logicalWidth} * bufferScale
           : logicalOutputWidth > 0            ? std::int64_t{logicalOutputWidth} * scale
                                               : modeWidth;
  }
  [[nodiscard]] std::int64_t pixelHeight() const {
    return logicalHeight > 0 && fractionalY > 0 ? std::llround(logicalHeight * fractionalY)
           : logicalHeight > 0                  ? std::int64_t{logicalHeight} * bufferScale
           : logicalOutputHeight > 0            ? std::int64_t{logicalOutputHeight} * scale
                                                : modeHeight;
  }
  // Pixels per logical unit, across and down, when they are not a whole number: what the
  // compositor prefers, else the output's mode over its logical size (turned a quarter when
  // the output is). {0, 0} when the integer scale is exact.
  [[nodiscard]] std::pair<double, double> fractionalScaleNow() const {
    double across = 0;
    double down = 0;
    if (preferredScale > 0) {
      across = down = preferredScale / 120.0;
    } else if (modeWidth > 0 && modeHeight > 0 && logicalOutputWidth > 0 && logicalOutputHeight > 0) {
      const bool turned = (transform & 1) != 0;  // 90 and 270 degrees, flipped or not
      across = static_cast<double>(turned ? modeHeight : modeWidth) / logicalOutputWidth;
      down = static_cast<double>(turned ? modeWidth : modeHeight) / logicalOutputHeight;
    }
    // Within rounding of the integer scale: the integer scale is exact.
    if (std::abs(across - scale) * logicalOutputWidth < 1 && std::abs(down - scale) * logicalOutputHeight < 1) {
      return {0, 0};
    }
    return {across, down};
  }
};

// Another program's window as the foreign-toplevel protocol describes it: its states and the
// outputs it is on, no geometry.
struct Toplevel {
  WaylandWallpaperDisplay* owner = nullptr;
  zwlr_foreign_toplevel_handle_v1* handle = nullptr;
  std::int64_t number = 0;
  std::vector<wl_output*> outputs;
  bool maximized = false;
  bool minimized = false;
  bool activated = false;
  bool fullscreen = false;

  Toplevel() = default;
  Toplevel(const Toplevel&) = delete;
  Toplevel& operator=(const Toplevel&) = delete;
  ~Toplevel() {
    if (handle != nullptr) {
      zwlr_foreign_toplevel_handle_v1_destroy(handle);
    }
  }
};

// An output as the output-management protocol describes it, read only for its serial number,
// which wl_output does not give.
struct Head {
  zwlr_output_head_v1* head = nullptr;
  std::vector<zwlr_output_mode_v1*> modes;  // announced with the head, let go when finished
  std::string name;
  std::string serial;

  Head() = default;
  Head(const Head&) = delete;
  Head& operator=(const Head&) = delete;
  ~Head() {
    for (auto* mode : modes) {
      zwlr_output_mode_v1_destroy(mode);
    }
    if (head != nullptr) {
      zwlr_output_head_v1_destroy(head);
    }
  }
};

class WaylandWallpaperDisplay final : public WallpaperDisplay {
 public:
  // Without a loop, it only reads the outputs: no surfaces.
  WaylandWallpaperDisplay(engine::EventLoop* loop, Placement layer, Events events)
      : loop_(loop),
        layer_(layer == Placement::bottom || layer == Placement::overlay ? layer : Placement::background),
        events_(std::move(events)) {}

  ~WaylandWallpaperDisplay() override {
    watch_.reset();
    flush_.reset();
    toplevels_.clear();
    heads_.clear();
    if (headManager_ != nullptr) {
      zwlr_output_manager_v1_destroy(headManager_);
    }
    if (keyboard_ != nullptr) {
      wl_keyboard_release(keyboard_);
    }
    if (pointer_ != nullptr) {
      wl_pointer_release(pointer_);
    }
    if (seat_ != nullptr) {
      wl_seat_release(seat_);
    }
    if (toplevelManager_ != nullptr) {
      zwlr_foreign_toplevel_manager_v1_destroy(toplevelManager_);
    }
    outputs_.clear();
    if (layerShell_ != nullptr) {
      zwlr_layer_shell_v1_destroy(layerShell_);
    }
    if (fractionalManager_ != nullptr) {
      wp_fractional_scale_manager_v1_destroy(fractionalManager_);
    }
    if (viewporter_ != nullptr) {
      wp_viewporter_destroy(viewporter_);
    }
    if (outputManager_ != nullptr) {
      zxdg_output_manager_v1_destroy(outputManager_);
    }
    if (shm_ != nullptr) {
      wl_shm_destroy(shm_);
    }
    if (compositor_ != nullptr) {
      wl_compositor_destroy(compositor_);
    }
    if (registry_ != nullptr) {
      wl_registry_destroy(registry_);
    }
    if (display_ != nullptr) {
      wl_display_flush(display_);
      wl_display_disconnect(display_);
    }
  }
  WaylandWallpaperDisplay(const WaylandWallpaperDisplay&) = delete;
  WaylandWallpaperDisplay& operator=(const WaylandWallpaperDisplay&) = delete;

  std::expected<void, std::string> open() {
    // Read where libwayland reads it, before any thread of ours is started.
    const char* named = std::getenv("WAYLAND_DISPLAY");  // NOLINT(concurrency-mt-unsafe)
    const std::string where = named != nullptr && *named != '\0' ? named : "wayland-0";
    display_ = wl_display_connect(nullptr);
    if (display_ == nullptr) {
      return std::unexpected(fmt::format("cannot connect to the Wayland compositor at {}: {}", where,
                                         std::generic_category().message(errno != 0 ? errno : ENOENT)));
    }
    registry_ = wl_display_get_registry(display_);
    static constexpr wl_registry_listener listener{
        [](void* self, wl_registry*, std::uint32_t name, const char* interface, std::uint32_t version) {
          static_cast<WaylandWallpaperDisplay*>(self)->announced(name, interface, version);
        },
        [](void* self, wl_registry*, std::uint32_t name) { static_cast<WaylandWallpaperDisplay*>(self)->gone(name); }};
    wl_registry_add_listener(registry_, &listener, this);
    // The globals, then each output's description, then the surfaces' first configure.
    for (int round = 0; round < 3; ++round) {
      if (wl_display_roundtrip(display_) < 0) {
        return std::unexpected(fmt::format("the Wayland compositor at {} closed the connection", where));
      }
    }
    if (compositor_ == nullptr || shm_ == nullptr) {
      return std::unexpected(fmt::format("the Wayland compositor at {} offers no shared-memory surfaces", where));
    }
    if (loop_ == nullptr) {
      identify();
      return {};
    }
    if (layerShell_ == nullptr) {
      return std::unexpected(fmt::format(
          "the Wayland compositor at {} offers no layer shell (zwlr_layer_shell_v1), so nothing can be put behind "
          "the windows; GNOME's does not",
          where));
    }
    open_ = true;
    watch_ = loop_->watch(wl_display_get_fd(display_), POLLIN, [this](short revents) { readEvents(revents); });
    flush_ = loop_->beforeSleep([this] { flushRequests(); });
    log::writef(layer_ == Placement::overlay ? "host" : category, log::Level::notice,
                "on Wayland {} on the {} layer ({} output(s), shared memory)", where, toString(layer_),
                outputs_.size());
    return {};
  }

  [[nodiscard]] std::vector<Monitor> monitors() const override {
    std::vector<Monitor> out;
    for (const auto& output : outputs_) {
      const bool listed = loop_ == nullptr ? output->described : output->layer != nullptr && output->logicalWidth > 0;
      if (listed && output->monitor.width > 0 && output->monitor.height > 0) {
        out.push_back(output->monitor);
      }
    }
    return out;
  }

  std::optional<engine::Canvas> canvas(const std::string& monitorId) override {
    Output* output = find(monitorId);
    if (output == nullptr || output->frame != nullptr) {
      return std::nullopt;  // the compositor has not shown the last frame yet: `ready` follows
    }
    for (auto& buffer : output->buffers) {
      if (buffer.ready()) {
        output->drawing = &buffer;
        return buffer.canvas();
      }
    }
    return std::nullopt;
  }

  void present(const std::string& monitorId) override {
    Output* output = find(monitorId);
    if (output == nullptr || output->drawing == nullptr) {
      return;
    }
    ShmBuffer& buffer = *output->drawing;
    output->drawing = nullptr;
    output->shown = &buffer;
    wl_surface_attach(output->surface, buffer.attach(), 0, 0);
    wl_surface_damage_buffer(output->surface, 0, 0, static_cast<std::int32_t>(buffer.width()),
                             static_cast<std::int32_t>(buffer.height()));
    askForFrame(*output);
    wl_surface_commit(output->surface);
  }

  void presentFrom(const std::string& monitorId, const std::string& source) override {
    Output* from = find(source);
    if (from == nullptr || from->shown == nullptr || monitorId == source) {
      return;
    }
    const auto target = canvas(monitorId);
    const auto picture = from->shown->canvas();
    if (!target || target->width != picture.width || target->height != picture.height) {
      return;
    }
    for (std::int64_t y = 0; y < picture.height; ++y) {
      std::memcpy(target->row(y), picture.row(y), static_cast<std::size_t>(picture.width) * 4);
    }
    present(monitorId);
  }

  // Full-screen, maximized and minimized windows from the foreign-toplevel protocol, each
  // over the whole of every output it is on (the protocol gives no geometry); absent when
  // the compositor does not offer it.
  std::optional<DesktopWindows> windows() override {
    if (toplevelManager_ == nullptr) {
      return std::nullopt;
    }
    DesktopWindows listed;
    for (const auto& toplevel : toplevels_) {
      if (!toplevel->fullscreen && !toplevel->maximized && !toplevel->minimized) {
        continue;  // where it is and how big is not said
      }
      for (auto* on : toplevel->outputs) {
        const auto found =
            std::find_if(outputs_.begin(), outputs_.end(), [&](const auto& output) { return output->output == on; });
        if (found == outputs_.end() || (*found)->layer == nullptr) {
          continue;
        }
        if (toplevel->fullscreen && !toplevel->minimized && (*found)->shownSince) {
          continue;  // the wallpaper is still shown: the window is on a workspace that is not
        }
        const auto& m = (*found)->monitor;
        WindowSnapshot window;
        window.id = toplevel->number;
        window.left = m.x;
        window.top = m.y;
        window.right = m.x + m.width;
        window.bottom = m.y + m.height;
        window.isForeground = toplevel->activated;
        window.isMaximized = toplevel->maximized && !toplevel->fullscreen;
        window.isMinimized = toplevel->minimized;
        listed.windows.push_back(window);
      }
    }
    return listed;
  }
  std::optional<bool> displayAsleep() override { return std::nullopt; }
  [[nodiscard]] Placement placement() const override { return layer_; }
  void onReady(std::function<void(const std::string&)> ready) override { ready_ = std::move(ready); }

 private:
  void announced(std::uint32_t name, std::string_view interface, std::uint32_t version) {
    if (interface == wl_compositor_interface.name && version >= 4) {
      compositor_ = static_cast<wl_compositor*>(wl_registry_bind(registry_, name, &wl_compositor_interface, 4));
    } else if (interface == wl_shm_interface.name) {
      shm_ = static_cast<wl_shm*>(wl_registry_bind(registry_, name, &wl_shm_interface, 1));
    } else if (interface == zwlr_layer_shell_v1_interface.name) {
      layerShell_ = static_cast<zwlr_layer_shell_v1*>(
          wl_registry_bind(registry_, name, &zwlr_layer_shell_v1_interface, std::min<std::uint32_t>(version, 4)));
    } else if (interface == wl_seat_interface.name && layer_ == Placement::overlay && seat_ == nullptr &&
               version >= WL_SEAT_RELEASE_SINCE_VERSION) {
      seat_ =
          static_cast<wl_seat*>(wl_registry_bind(registry_, name, &wl_seat_interface, WL_SEAT_RELEASE_SINCE_VERSION));
      static constexpr wl_seat_listener listener{[](void* self, wl_seat*, std::uint32_t capabilities) {
                                                   static_cast<WaylandWallpaperDisplay*>(self)->seatCan(capabilities);
                                                 },
                                                 [](void*, wl_seat*, const char*) {}};
      wl_seat_add_listener(seat_, &listener, this);
    } else if (interface == zwlr_foreign_toplevel_manager_v1_interface.name && loop_ != nullptr) {
      toplevelManager_ = static_cast<zwlr_foreign_toplevel_manager_v1*>(wl_registry_bind(
          registry_, name, &zwlr_foreign_toplevel_manager_v1_interface, std::min<std::uint32_t>(version, 3)));
      static constexpr zwlr_foreign_toplevel_manager_v1_listener listener{
          [](void* self, zwlr_foreign_toplevel_manager_v1*, zwlr_foreign_toplevel_handle_v1* handle) {
            static_cast<WaylandWallpaperDisplay*>(self)->toplevelAppeared(handle);
          },
          [](void* self, zwlr_foreign_toplevel_manager_v1* manager) {
            auto& display = *static_cast<WaylandWallpaperDisplay*>(self);
            zwlr_foreign_toplevel_manager_v1_destroy(manager);
            display.toplevelManager_ = nullptr;
            display.toplevels_.clear();
          }};
      zwlr_foreign_toplevel_manager_v1_add_listener(toplevelManager_, &listener, this);
    } else if (interface == wp_viewporter_interface.name && loop_ != nullptr) {
      viewporter_ = static_cast<wp_viewporter*>(wl_registry_bind(registry_, name, &wp_viewporter_interface, 1));
    } else if (interface == wp_fractional_scale_manager_v1_interface.name && loop_ != nullptr) {
      fractionalManager_ = static_cast<wp_fractional_scale_manager_v1*>(
          wl_registry_bind(registry_, name, &wp_fractional_scale_manager_v1_interface, 1));
    } else if (interface == zwlr_output_manager_v1_interface.name && version >= 2) {
      // Only for the outputs' serial numbers.
      headManager_ =
          static_cast<zwlr_output_manager_v1*>(wl_registry_bind(registry_, name, &zwlr_output_manager_v1_interface, 2));
      static constexpr zwlr_output_manager_v1_listener listener{
          [](void* self, zwlr_output_manager_v1*, zwlr_output_head_v1* head) {
            static_cast<WaylandWallpaperDisplay*>(self)->headAppeared(head);
          },
          [](void* self, zwlr_output_manager_v1*, std::uint32_t) {
            static_cast<WaylandWallpaperDisplay*>(self)->headsDescribed();
          },
          [](void* self, zwlr_output_manager_v1* manager) {
            auto& display = *static_cast<WaylandWallpaperDisplay*>(self);
            display.heads_.clear();
            zwlr_output_manager_v1_destroy(manager);
            display.headManager_ = nullptr;
          }};
      zwlr_output_manager_v1_add_listener(headManager_, &listener, this);
    } else if (interface == zxdg_output_manager_v1_interface.name) {
      outputManager_ = static_cast<zxdg_output_manager_v1*>(
          wl_registry_bind(registry_, name, &zxdg_output_manager_v1_interface, std::min<std::uint32_t>(version, 3)));
      for (auto& output : outputs_) {
        describe(*output);
      }
    } else if (interface == wl_output_interface.name) {
      auto output = std::make_unique<Output>();
      output->owner = this;
      output->global = name;
      output->name = fmt::format("output-{}", name);
      output->output = static_cast<wl_output*>(
          wl_registry_bind(registry_, name, &wl_output_interface, std::min<std::uint32_t>(version, 4)));
      static constexpr wl_output_listener listener{
          [](void* data, wl_output*, std::int32_t x, std::int32_t y, std::int32_t, std::int32_t, std::int32_t,
             const char* make, const char* model, std::int32_t transform) {
            auto& o = *static_cast<Output*>(data);
            o.x = x;
            o.y = y;
            o.transform = transform;
            o.make = make != nullptr ? make : "";
            o.model = model != nullptr ? model : "";
          },
          [](void* data, wl_output*, std::uint32_t flags, std::int32_t width, std::int32_t height, std::int32_t) {
            if ((flags & WL_OUTPUT_MODE_CURRENT) != 0) {
              auto& o = *static_cast<Output*>(data);
              o.modeWidth = width;
              o.modeHeight = height;
            }
          },
          [](void* data, wl_output*) {
            auto& o = *static_cast<Output*>(data);
            o.owner->described(o);
          },
          [](void* data, wl_output*, std::int32_t factor) { static_cast<Output*>(data)->scale = std::max(factor, 1); },
          [](void* data, wl_output*, const char* text) {
            if (text != nullptr && *text != '\0') {
              static_cast<Output*>(data)->name = text;
            }
          },
          [](void*, wl_output*, const char*) {}};
      wl_output_add_listener(output->output, &listener, output.get());
      describe(*output);
      outputs_.push_back(std::move(output));
    }
  }

  // The screensaver ends on a key, a button or a pointer moved past a few pixels.
  void seatCan(std::uint32_t capabilities) {
    if ((capabilities & WL_SEAT_CAPABILITY_KEYBOARD) != 0 && keyboard_ == nullptr) {
      keyboard_ = wl_seat_get_keyboard(seat_);
      static constexpr wl_keyboard_listener listener{
          [](void*, wl_keyboard*, std::uint32_t, std::int32_t fd, std::uint32_t) { close(fd); },  // keymap
          [](void*, wl_keyboard*, std::uint32_t, wl_surface*, wl_array*) {},                      // enter
          [](void*, wl_keyboard*, std::uint32_t, wl_surface*) {},                                 // leave
          [](void* self, wl_keyboard*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t state) {
            if (state == WL_KEYBOARD_KEY_STATE_PRESSED) {
              static_cast<WaylandWallpaperDisplay*>(self)->touched();
            }
          },
          [](void*, wl_keyboard*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {},
          [](void*, wl_keyboard*, std::int32_t, std::int32_t) {}};
      wl_keyboard_add_listener(keyboard_, &listener, this);
    }
    if ((capabilities & WL_SEAT_CAPABILITY_POINTER) != 0 && pointer_ == nullptr) {
      pointer_ = wl_seat_get_pointer(seat_);
      static constexpr wl_pointer_listener listener{
          [](void* self, wl_pointer*, std::uint32_t, wl_surface* surface, wl_fixed_t x, wl_fixed_t y) {
            auto& display = *static_cast<WaylandWallpaperDisplay*>(self);
            display.pointerFrom_ = {wl_fixed_to_double(x), wl_fixed_to_double(y)};
            display.pointerScale_ = display.pixelsPerUnitUnder(surface);
          },
          [](void* self, wl_pointer*, std::uint32_t, wl_surface*) {
            static_cast<WaylandWallpaperDisplay*>(self)->pointerFrom_.reset();
          },
          [](void* self, wl_pointer*, std::uint32_t, wl_fixed_t x, wl_fixed_t y) {
            auto& display = *static_cast<WaylandWallpaperDisplay*>(self);
            const double px = wl_fixed_to_double(x);
            const double py = wl_fixed_to_double(y);
            if (!display.pointerFrom_) {
              display.pointerFrom_ = {px, py};
            } else if (std::hypot(px - display.pointerFrom_->first, py - display.pointerFrom_->second) *
                           display.pointerScale_ >
                       pointerThreshold) {
              display.touched();
            }
          },
          [](void* self, wl_pointer*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t state) {
            if (state == WL_POINTER_BUTTON_STATE_PRESSED) {
              static_cast<WaylandWallpaperDisplay*>(self)->touched();
            }
          },
          [](void*, wl_pointer*, std::uint32_t, std::uint32_t, wl_fixed_t) {},
          [](void*, wl_pointer*) {},
          [](void*, wl_pointer*, std::uint32_t) {},
          [](void*, wl_pointer*, std::uint32_t, std::uint32_t) {},
          [](void*, wl_pointer*, std::uint32_t, std::int32_t) {},
          [](void*, wl_pointer*, std::uint32_t, std::int32_t) {}};  // axis in 120ths
      wl_pointer_add_listener(pointer_, &listener, this);
    }
  }

  void touched() { tell(events_.input); }

  // The pointer moves in logical units; the threshold is in the output's pixels.
  [[nodiscard]] double pixelsPerUnitUnder(const wl_surface* surface) const {
    for (const auto& output : outputs_) {
      if (output->surface == surface && output->surface != nullptr) {
        return output->fractionalX > 0 ? output->fractionalX : output->bufferScale;
      }
    }
    return 1;
  }

  void toplevelAppeared(zwlr_foreign_toplevel_handle_v1* handle) {
    auto toplevel = std::make_unique<Toplevel>();
    toplevel->owner = this;
    toplevel->handle = handle;
    toplevel->number = ++toplevelsSeen_;
    static constexpr zwlr_foreign_toplevel_handle_v1_listener listener{
        [](void*, zwlr_foreign_toplevel_handle_v1*, const char*) {},  // title
        [](void*, zwlr_foreign_toplevel_handle_v1*, const char*) {},  // app id
        [](void* data, zwlr_foreign_toplevel_handle_v1*, wl_output* output) {
          auto& t = *static_cast<Toplevel*>(data);
          if (std::find(t.outputs.begin(), t.outputs.end(), output) == t.outputs.end()) {
            t.outputs.push_back(output);
          }
        },
        [](void* data, zwlr_foreign_toplevel_handle_v1*, wl_output* output) {
          std::erase(static_cast<Toplevel*>(data)->outputs, output);
        },
        [](void* data, zwlr_foreign_toplevel_handle_v1*, wl_array* states) {
          auto& t = *static_cast<Toplevel*>(data);
          t.maximized = t.minimized = t.activated = t.fullscreen = false;
          const auto* state = static_cast<const std::uint32_t*>(states->data);
          for (std::size_t i = 0; i < states->size / sizeof(std::uint32_t); ++i) {
            t.maximized = t.maximized || state[i] == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_MAXIMIZED;
            t.minimized = t.minimized || state[i] == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_MINIMIZED;
            t.activated = t.activated || state[i] == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_ACTIVATED;
            t.fullscreen = t.fullscreen || state[i] == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_FULLSCREEN;
          }
        },
        [](void* data, zwlr_foreign_toplevel_handle_v1*) { static_cast<Toplevel*>(data)->owner->toplevelsMoved(); },
        [](void* data, zwlr_foreign_toplevel_handle_v1*) {
          auto& t = *static_cast<Toplevel*>(data);
          t.owner->toplevelClosed(t);
        },
        [](void*, zwlr_foreign_toplevel_handle_v1*, zwlr_foreign_toplevel_handle_v1*) {}};  // parent
    zwlr_foreign_toplevel_handle_v1_add_listener(handle, &listener, toplevel.get());
    toplevels_.push_back(std::move(toplevel));
  }

  void toplevelClosed(const Toplevel& closed) {
    std::erase_if(toplevels_, [&](const auto& toplevel) { return toplevel.get() == &closed; });
    toplevelsMoved();
  }

  // The protocol does not say which workspace is shown, but the compositor only answers the
  // frame callbacks of a wallpaper it shows. When the full-screen windows on an output change,
  // they count as covering it until the compositor shows the wallpaper again.
  void toplevelsMoved() {
    for (auto& output : outputs_) {
      std::vector<std::int64_t> on;
      for (const auto& toplevel : toplevels_) {
        if (toplevel->fullscreen && !toplevel->minimized &&
            std::find(toplevel->outputs.begin(), toplevel->outputs.end(), output->output) != toplevel->outputs.end()) {
          on.push_back(toplevel->number);
        }
      }
      if (on != output->fullscreenOn) {
        output->fullscreenOn = std::move(on);
        output->shownSince = false;
        if (!output->fullscreenOn.empty()) {
          probe(*output);
        }
      }
    }
    tell(events_.windowsChanged);
  }

  // A frame asked for without a new picture: answered only if the wallpaper is shown.
  void probe(Output& output) {
    if (output.surface == nullptr || output.frame != nullptr || output.shown == nullptr) {
      return;
    }
    askForFrame(output);
    wl_surface_commit(output.surface);
  }

  void headAppeared(zwlr_output_head_v1* handle) {
    auto head = std::make_unique<Head>();
    head->head = handle;
    static constexpr zwlr_output_mode_v1_listener modeListener{
        [](void*, zwlr_output_mode_v1*, std::int32_t, std::int32_t) {},
        [](void*, zwlr_output_mode_v1*, std::int32_t) {}, [](void*, zwlr_output_mode_v1*) {},
        [](void* data, zwlr_output_mode_v1* mode) {
          std::erase(static_cast<Head*>(data)->modes, mode);
          zwlr_output_mode_v1_destroy(mode);
        }};
    static constexpr zwlr_output_head_v1_listener listener{
        [](void* data, zwlr_output_head_v1*, const char* text) { static_cast<Head*>(data)->name = text; },
        [](void*, zwlr_output_head_v1*, const char*) {},                 // description
        [](void*, zwlr_output_head_v1*, std::int32_t, std::int32_t) {},  // physical size
        [](void* data, zwlr_output_head_v1*, zwlr_output_mode_v1* mode) {
          auto& h = *static_cast<Head*>(data);
          h.modes.push_back(mode);
          zwlr_output_mode_v1_add_listener(mode, &modeListener, &h);
        },
        [](void*, zwlr_output_head_v1*, std::int32_t) {},                // enabled
        [](void*, zwlr_output_head_v1*, zwlr_output_mode_v1*) {},        // current mode
        [](void*, zwlr_output_head_v1*, std::int32_t, std::int32_t) {},  // position
        [](void*, zwlr_output_head_v1*, std::int32_t) {},                // transform
        [](void*, zwlr_output_head_v1*, wl_fixed_t) {},                  // scale
        [](void* data, zwlr_output_head_v1*) {                           // finished
          auto& h = *static_cast<Head*>(data);
          h.serial.clear();
          h.name.clear();
        },
        [](void*, zwlr_output_head_v1*, const char*) {},  // make: wl_output gives it
        [](void*, zwlr_output_head_v1*, const char*) {},  // model: wl_output gives it
        [](void* data, zwlr_output_head_v1*, const char* text) { static_cast<Head*>(data)->serial = text; }};
    zwlr_output_head_v1_add_listener(handle, &listener, head.get());
    heads_.push_back(std::move(head));
  }

  // The heads are described (first or again): finished ones let go, serial numbers taken.
  void headsDescribed() {
    std::erase_if(heads_, [](const auto& head) { return head->name.empty(); });
    bool changed = false;
    for (auto& output : outputs_) {
      std::string serial;
      for (const auto& head : heads_) {
        if (head->name == output->name) {
          serial = head->serial;
        }
      }
      changed = changed || serial != output->serial;
      output->serial = std::move(serial);
    }
    if (changed) {
      identify();
      tell(events_.monitorsChanged);
    }
  }

  // The output's logical position and name from xdg-output, where offered.
  void describe(Output& output) {
    if (outputManager_ == nullptr || output.xdg != nullptr) {
      return;
    }
    output.xdg = zxdg_output_manager_v1_get_xdg_output(outputManager_, output.output);
    static constexpr zxdg_output_v1_listener listener{
        [](void* data, zxdg_output_v1*, std::int32_t x, std::int32_t y) {
          auto& o = *static_cast<Output*>(data);
          o.x = x;
          o.y = y;
        },
        [](void* data, zxdg_output_v1*, std::int32_t width, std::int32_t height) {
          auto& o = *static_cast<Output*>(data);
          o.logicalOutputWidth = width;
          o.logicalOutputHeight = height;
        },
        [](void*, zxdg_output_v1*) {},
        [](void* data, zxdg_output_v1*, const char* text) {
          if (text != nullptr && *text != '\0') {
            static_cast<Output*>(data)->name = text;
          }
        },
        [](void*, zxdg_output_v1*, const char*) {}};
    zxdg_output_v1_add_listener(output.xdg, &listener, &output);
  }

  // An output described (first or again): its wallpaper surface made, or its size followed.
  void described(Output& output) {
    output.described = true;
    if (loop_ == nullptr) {
      return;
    }
    if (output.surface == nullptr && compositor_ != nullptr && layerShell_ != nullptr) {
      makeSurface(output);
    } else if (output.surface != nullptr) {
      resizeSoon(output);
    }
  }

  void makeSurface(Output& output) {
    output.surface = wl_compositor_create_surface(compositor_);
    const bool overlay = layer_ == Placement::overlay;
    if (!overlay) {
      // Clicks and touches go through to the desktop beneath: an empty input region.
      wl_region* nothing = wl_compositor_create_region(compositor_);
      wl_surface_set_input_region(output.surface, nothing);
      wl_region_destroy(nothing);
    }
    const auto layer = overlay                       ? ZWLR_LAYER_SHELL_V1_LAYER_OVERLAY
                       : layer_ == Placement::bottom ? ZWLR_LAYER_SHELL_V1_LAYER_BOTTOM
                                                     : ZWLR_LAYER_SHELL_V1_LAYER_BACKGROUND;
    output.layer =
        zwlr_layer_shell_v1_get_layer_surface(layerShell_, output.surface, output.output, layer, "korvalen-wallpaper");
    zwlr_layer_surface_v1_set_anchor(output.layer,
                                     ZWLR_LAYER_SURFACE_V1_ANCHOR_TOP | ZWLR_LAYER_SURFACE_V1_ANCHOR_BOTTOM |
                                         ZWLR_LAYER_SURFACE_V1_ANCHOR_LEFT | ZWLR_LAYER_SURFACE_V1_ANCHOR_RIGHT);
    zwlr_layer_surface_v1_set_size(output.layer, 0, 0);
    // Under panels and docks too, and pushed aside by none.
    zwlr_layer_surface_v1_set_exclusive_zone(output.layer, -1);
    // The screensaver takes the keyboard, so a key ends it rather than reaching a window.
    zwlr_layer_surface_v1_set_keyboard_interactivity(output.layer, overlay ? 1 : 0);
    static constexpr zwlr_layer_surface_v1_listener listener{
        [](void* data, zwlr_layer_surface_v1* surface, std::uint32_t serial, std::uint32_t width,
           std::uint32_t height) {
          zwlr_layer_surface_v1_ack_configure(surface, serial);
          auto& o = *static_cast<Output*>(data);
          const auto w = static_cast<std::int32_t>(width);
          const auto h = static_cast<std::int32_t>(height);
          if (w != o.logicalWidth || h != o.logicalHeight) {
            o.logicalWidth = w;
            o.logicalHeight = h;
            o.owner->resizeSoon(o);
          }
        },
        [](void* data, zwlr_layer_surface_v1*) {
          // The compositor took the surface away (its output is going): made again if it stays.
          auto& o = *static_cast<Output*>(data);
          o.owner->closed(o);
        }};
    zwlr_layer_surface_v1_add_listener(output.layer, &listener, &output);
    if (viewporter_ != nullptr) {
      output.viewport = wp_viewporter_get_viewport(viewporter_, output.surface);
      if (fractionalManager_ != nullptr) {
        output.fractionalScale =
            wp_fractional_scale_manager_v1_get_fractional_scale(fractionalManager_, output.surface);
        static constexpr wp_fractional_scale_v1_listener scaleListener{
            [](void* data, wp_fractional_scale_v1*, std::uint32_t scale) {
              auto& o = *static_cast<Output*>(data);
              o.preferredScale = scale;
              o.owner->resizeSoon(o);
            }};
        wp_fractional_scale_v1_add_listener(output.fractionalScale, &scaleListener, &output);
      }
    }
    wl_surface_commit(output.surface);
  }

  // A compositor tells a new scale and the surface's new size in separate events, in either
  // order: buffers are made once both are in, before the loop sleeps, so no picture is drawn
  // at a size that was never meant.
  void resizeSoon(Output& output) {
    if (open_) {
      output.resizeDue = true;
    } else {
      resize(output);
    }
  }

  // Buffers of the output's own pixels, so the picture is sharp: the surface's size times the
  // integer scale, or at a fractional scale, mapped onto the surface by a viewport (without
  // one, the compositor scales down what is drawn at the next integer scale).
  void resize(Output& output) {
    if (output.logicalWidth <= 0 || output.logicalHeight <= 0) {
      return;
    }
    const auto [across, down] =
        output.viewport != nullptr ? output.fractionalScaleNow() : std::pair<double, double>{0, 0};
    const std::int32_t bufferScale = across > 0 ? 1 : output.scale;
    const bool same = output.buffers[0].width() > 0 && bufferScale == output.bufferScale &&
                      across == output.fractionalX && down == output.fractionalY;
    output.bufferScale = bufferScale;
    output.fractionalX = across;
    output.fractionalY = down;
    const auto width = static_cast<int>(output.pixelWidth());
    const auto height = static_cast<int>(output.pixelHeight());
    if (same && output.buffers[0].width() == width && output.buffers[0].height() == height) {
      return;
    }
    wl_surface_set_buffer_scale(output.surface, output.bufferScale);
    if (output.viewport != nullptr) {
      wp_viewport_set_destination(output.viewport, across > 0 ? output.logicalWidth : -1,
                                  across > 0 ? output.logicalHeight : -1);
    }
    std::string error;
    log::writef(layer_ == Placement::overlay ? "host" : category, log::Level::notice,
                "output {}: {}x{} at scale {:g}, pictures of {}x{}", output.name, output.logicalWidth,
                output.logicalHeight, across > 0 ? std::round(across * 100) / 100 : output.bufferScale, width, height);
    output.drawing = nullptr;
    output.shown = nullptr;
    for (auto& buffer : output.buffers) {
      if (!buffer.make(shm_, width, height, error)) {
        log::writef(category, log::Level::error, "output {}: {}", output.name, error);
        break;
      }
    }
    output.overdue.reset();
    if (output.frame != nullptr) {
      wl_callback_destroy(output.frame);
      output.frame = nullptr;
    }
    identify();
    tell(events_.monitorsChanged);
    tell(events_.exposed);
  }

  // Events reach the program only once it has the display; until then it reads the
  // outputs when the display is opened.
  void tell(const std::function<void()>& event) const {
    if (open_ && event) {
      event();
    }
  }

  void closed(Output& output) {
    output.destroySurface();
    output.logicalWidth = 0;
    output.logicalHeight = 0;
    tell(events_.monitorsChanged);
  }

  void gone(std::uint32_t name) {
    const auto found =
        std::find_if(outputs_.begin(), outputs_.end(), [&](const auto& output) { return output->global == name; });
    if (found == outputs_.end()) {
      return;
    }
    log::writef(category, log::Level::notice, "output {} gone", (*found)->name);
    for (auto& toplevel : toplevels_) {
      std::erase(toplevel->outputs, (*found)->output);
    }
    outputs_.erase(found);
    identify();
    tell(events_.monitorsChanged);
  }

  // Every output's stable identifier, known together since twins are told apart by name.
  void identify() {
    std::vector<ScreenIdentity::NamedOutput> named;
    named.reserve(outputs_.size());
    for (const auto& output : outputs_) {
      // The size part is the output's own pixels, whatever size the buffers are drawn at.
      const bool turned = (output->transform & 1) != 0;
      const auto across =
          output->modeWidth > 0 ? (turned ? output->modeHeight : output->modeWidth) : output->pixelWidth();
      const auto down =
          output->modeHeight > 0 ? (turned ? output->modeWidth : output->modeHeight) : output->pixelHeight();
      named.push_back(ScreenIdentity::NamedOutput{output->make, output->model, output->serial, output->name,
                                                  static_cast<double>(across), static_cast<double>(down)});
    }
    const auto ids = ScreenIdentity::stableOutputIDs(named);
    for (std::size_t i = 0; i < outputs_.size(); ++i) {
      auto& output = *outputs_[i];
      output.monitor = Monitor{0, output.name, output.x, output.y, output.pixelWidth(), output.pixelHeight(), ids[i]};
    }
  }

  void askForFrame(Output& output) {
    output.frame = wl_surface_frame(output.surface);
    static constexpr wl_callback_listener listener{[](void* data, wl_callback* callback, std::uint32_t) {
      auto& o = *static_cast<Output*>(data);
      wl_callback_destroy(callback);
      o.frame = nullptr;
      o.owner->frameDone(o);
    }};
    wl_callback_add_listener(output.frame, &listener, &output);
    if (output.shownSince && !output.fullscreenOn.empty()) {
      // Shown in spite of a full-screen window: a frame not shown in time means its workspace
      // came back.
      auto timer = loop_->after(overdueAfter, [this, &output] {
        output.overdue.reset();
        if (output.frame != nullptr && output.shownSince) {
          output.shownSince = false;
          tell(events_.windowsChanged);
        }
      });
      output.overdue = timer ? std::move(*timer) : nullptr;
    }
  }

  void frameDone(Output& output) {
    output.overdue.reset();
    if (!output.shownSince && !output.fullscreenOn.empty()) {
      output.shownSince = true;
      tell(events_.windowsChanged);
    }
    output.shownSince = true;
    if (ready_) {
      ready_(output.monitor.id);
    }
  }

  Output* find(const std::string& monitorId) {
    for (auto& output : outputs_) {
      if (output->layer != nullptr && output->monitor.id == monitorId) {
        return output.get();
      }
    }
    return nullptr;
  }

  void readEvents(short revents) {
    if ((revents & (POLLERR | POLLHUP)) != 0 || wl_display_dispatch(display_) < 0) {
      lose();
    }
  }

  // Before the loop sleeps: events already read are handled, and requests reach the server.
  void flushRequests() {
    if (lost_) {
      return;
    }
    if (wl_display_dispatch_pending(display_) < 0) {
      lose();
      return;
    }
    for (auto& output : outputs_) {
      if (output->resizeDue) {
        output->resizeDue = false;
        resize(*output);
      }
    }
    if (wl_display_flush(display_) < 0 && errno != EAGAIN) {
      lose();
    }
  }

  void lose() {
    if (lost_) {
      return;
    }
    lost_ = true;
    watch_.reset();
    if (events_.lost) {
      events_.lost("the Wayland compositor closed the connection");
    }
  }

  engine::EventLoop* loop_;
  Placement layer_;
  Events events_;
  std::function<void(const std::string&)> ready_;
  wl_display* display_ = nullptr;
  wl_registry* registry_ = nullptr;
  wl_compositor* compositor_ = nullptr;
  wl_shm* shm_ = nullptr;
  zwlr_layer_shell_v1* layerShell_ = nullptr;
  zxdg_output_manager_v1* outputManager_ = nullptr;
  zwlr_foreign_toplevel_manager_v1* toplevelManager_ = nullptr;
  wp_viewporter* viewporter_ = nullptr;
  wp_fractional_scale_manager_v1* fractionalManager_ = nullptr;
  zwlr_output_manager_v1* headManager_ = nullptr;
  std::vector<std::unique_ptr<Head>> heads_;
  wl_seat* seat_ = nullptr;
  wl_keyboard* keyboard_ = nullptr;
  wl_pointer* pointer_ = nullptr;
  std::optional<std::pair<double, double>> pointerFrom_;  // where the pointer first was
  // How far the pointer may drift (in the output's pixels) before the screensaver ends.
  static constexpr double pointerThreshold = 10;
  double pointerScale_ = 1;  // pixels per logical unit on the output the pointer is over
  // How long a shown wallpaper's frame may take before the output counts as hidden.
  static constexpr std::chrono::milliseconds overdueAfter{250};
  std::vector<std::unique_ptr<Toplevel>> toplevels_;
  std::int64_t toplevelsSeen_ = 0;
  std::vector<std::unique_ptr<Output>> outputs_;
  std::unique_ptr<engine::EventLoop::Watch> watch_;
  std::unique_ptr<engine::EventLoop::Watch> flush_;
  bool open_ = false;  // the program has the display: events go to it
  bool lost_ = false;
};

}  // namespace

std::expected<std::unique_ptr<WallpaperDisplay>, std::string> openWaylandWallpaper(engine::EventLoop& loop,
                                                                                   Placement layer,
                                                                                   WallpaperDisplay::Events events) {
  auto display = std::make_unique<WaylandWallpaperDisplay>(&loop, layer, std::move(events));
  if (auto opened = display->open(); !opened) {
    return std::unexpected(opened.error());
  }
  return display;
}

std::expected<std::vector<Monitor>, std::string> listWaylandMonitors() {
  WaylandWallpaperDisplay display(nullptr, Placement::background, {});
  if (auto opened = display.open(); !opened) {
    return std::unexpected(opened.error());
  }
  return display.monitors();
}

}  // namespace korvalen::host
