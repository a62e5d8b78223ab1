// What a platform provides to the screensaver's controller: the host's view, compositor
// layers, the playback engine (video, still and animated pictures, placement on a screen),
// the screen's stable identifier, a main loop with timers and a media clock, and the user's
// home folder. The macOS plug-in implements these on AppKit, QuartzCore and AVFoundation,
// the Linux engine on the FFmpeg libraries and a CPU compositor, the tests with fakes. No
// platform type appears here. Everything is called on the main thread.
#pragma once

#include "core/rendering/crop_rect.hpp"
#include "core/rendering/fit_mode.hpp"
#include "core/rendering/trim_range.hpp"
#include "core/rendering/video_fit.hpp"
#include "core/support/paths.hpp"

#include <array>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace korvalen::saver {

// In points, as the host measures views and screens.
struct Size {
  double width = 0;
  double height = 0;
  bool operator==(const Size&) const = default;
};

struct PixelSize {
  std::int64_t width = 0;
  std::int64_t height = 0;
  bool operator==(const PixelSize&) const = default;
};

// The content layer's filters: the colour matrix for dim and saturation (the colour-matrix
// filter's R, G, B, A columns and bias row), and sharpening (0 = none).
struct Filters {
  std::optional<std::array<std::array<double, 4>, 5>> colorMatrix;
  double sharpen = 0;

  // What every engine's `appearanceFilters` gives: the matrix unless dim and saturation are
  // neutral, sharpening when asked for; nothing at all when neither applies.
  static std::optional<Filters> forAppearance(double dim, double saturation, double sharpen);
  bool operator==(const Filters&) const = default;
};

// The mean relative luminance of a normalised region of a BGRA frame, every `step`-th
// pixel each way, with the step chosen so that about 64k pixels are read however large the
// frame: what every engine's `sampleLuminances` and `frameLuminances` compute. A region
// outside the frame, or an empty frame, reads as the whole frame / 0.
double regionLuminance(std::span<const std::uint8_t> bgra, std::int64_t width, std::int64_t height, std::int64_t stride,
                       const FitRect& region);

// A compositor layer. Layers are shared: a parent holds its children.
class Layer {
 public:
  virtual ~Layer() = default;
  virtual void addSublayer(const std::shared_ptr<Layer>& child) = 0;
  virtual void removeFromSuperlayer() = 0;
  virtual void setHidden(bool hidden) = 0;
  // A scale about the layer's centre; -1 mirrors that axis.
  virtual void setScale(double x, double y) = 0;
  virtual void setFilters(const Filters& filters) = 0;
  // The layer's own clock, as animations see it: speed 0 and offset 0 hold the first frame.
  virtual void setSpeed(double speed) = 0;
  virtual void setTimeOffset(double seconds) = 0;
};

// A display, as the host hands it out: the platform's own reference and its frame size.
struct Screen {
  std::uint64_t handle = 0;
  Size frame;
  bool operator==(const Screen&) const = default;
};

// The host's screensaver view the controller lives in.
class HostView {
 public:
  virtual ~HostView() = default;
  [[nodiscard]] virtual bool isPreview() const = 0;
  [[nodiscard]] virtual Size bounds() const = 0;
  [[nodiscard]] virtual bool hasWindow() const = 0;
  // The screen of the view's window, when it has a window on one.
  [[nodiscard]] virtual std::optional<Screen> windowScreen() const = 0;
  [[nodiscard]] virtual std::optional<Screen> mainScreen() const = 0;
  virtual Layer& layer() = 0;
  // Layer-backed, black background, geometry flipped (origin top-left).
  virtual void prepareLayer() = 0;
  virtual void setAnimationTimeInterval(double seconds) = 0;
  // The host's two stop notifications; `ended` gets the notification's name.
  virtual void observeStopNotifications(std::function<void(const std::string&)> ended) = 0;
  virtual void stopObservingStopNotifications() = 0;
};

class VideoWallpaper {
 public:
  static constexpr double minimumRate = 0.1;
  static constexpr double maximumRate = 1.0;
  // The rate a video plays at for a requested one: within 0.1 to 1.0 (never faster than
  // normal); a rate that is not a number plays at normal speed. Every engine keeps to it.
  static double keptRate(double requested);

  virtual ~VideoWallpaper() = default;
  // Keeps `keptRate(rate)`; changes a playing player's speed at once.
  virtual void setRate(double rate) = 0;
  [[nodiscard]] virtual double rate() const = 0;
  // Stored as given; the player's volume is the level within 0...1, muted at 0 or less.
  virtual void setSoundLevel(double level) = 0;
  [[nodiscard]] virtual double soundLevel() const = 0;
  virtual std::shared_ptr<Layer> makeLayer() = 0;
  // Asynchronous: `done` runs later on the main loop (never inside this call) with the
  // natural size, or one line saying why the file will not play.
  using Loaded = std::function<void(std::expected<PixelSize, std::string>)>;
  virtual void load(Loaded done) = 0;
  // At the stored rate; clears the held-by-caller flag that `pause` sets.
  virtual void play() = 0;
  virtual void pause() = 0;
  virtual void stop() = 0;
  // The mean luminance of each normalised region of the frame now shown; absent when no
  // frame is shown yet.
  virtual std::optional<std::vector<double>> sampleLuminances(const std::vector<FitRect>& regions) = 0;
};

class DecodedImage {
 public:
  virtual ~DecodedImage() = default;
  [[nodiscard]] virtual bool isAnimated() const = 0;
  [[nodiscard]] virtual PixelSize pixelSize() const = 0;
  // Seconds each frame shows at rate 1.
  [[nodiscard]] virtual std::vector<double> frameDelays() const = 0;
  // The mean luminance of the normalised region of every frame, in order.
  [[nodiscard]] virtual std::vector<double> frameLuminances(const FitRect& region) const = 0;
};

// A still or animated picture shown on a content layer; it runs on the layer's clock, so
// the layer's speed and time offset drive and freeze it.
class AnimatedWallpaper {
 public:
  virtual ~AnimatedWallpaper() = default;
  virtual void install(Layer& on) = 0;
  virtual void remove(Layer& from) = 0;
  // The picture's own layer, for the source crop.
  virtual Layer& layer() = 0;
};

// Layers and placement on a screen.
class ScreenSurface {
 public:
  struct Layers {
    std::shared_ptr<Layer> slot;
    std::shared_ptr<Layer> content;
  };
  virtual ~ScreenSurface() = default;
  // The slot layer and, inside it, the content layer, covering `size` from the origin.
  virtual Layers makeLayers(Size covering) = 0;
  // Makes a slot or content layer cover `covering` from the origin (the view was resized).
  virtual void resize(Layer& layer, Size covering) = 0;
  // Nothing when dim, saturation and sharpen change nothing.
  virtual std::optional<Filters> appearanceFilters(double dim, double saturation, double sharpen) = 0;
  // The placement for a whole screen, in its own terms (pixels where it has them).
  virtual VideoPlacement placement(const Screen& on, std::int64_t contentWidth, std::int64_t contentHeight, FitMode fit,
                                   const std::optional<CropRect>& crop) = 0;
  virtual void place(const VideoPlacement& placement, Layer& content) = 0;
  virtual void crop(Layer& picture, const VideoPlacement& placement) = 0;
};

// The engine's media: video files, decoded pictures and the wallpapers that show them.
class MediaFactory {
 public:
  virtual ~MediaFactory() = default;
  // Plays the `trim` stretch of the file, looped.
  virtual std::shared_ptr<VideoWallpaper> makeVideo(const std::filesystem::path& file, const TrimRange& trim) = 0;
  // ImageWallpaper.load: the decoded picture, or one line saying why not.
  virtual std::expected<std::shared_ptr<DecodedImage>, std::string> loadImage(const std::filesystem::path& file) = 0;
  virtual std::shared_ptr<AnimatedWallpaper> makeAnimation(const std::shared_ptr<DecodedImage>& image) = 0;
};

class ScreenIdentity {
 public:
  virtual ~ScreenIdentity() = default;
  // The display's stable identifier: device part, "|", size part.
  virtual std::string stableID(const Screen& screen) = 0;
};

// A repeating timer; it stops when invalidated or destroyed, which may happen from inside
// its own tick.
class Timer {
 public:
  virtual ~Timer() = default;
  virtual void invalidate() = 0;
};

// The main loop: repeating timers, and the media clock (monotonic seconds).
class MainLoop {
 public:
  virtual ~MainLoop() = default;
  virtual std::unique_ptr<Timer> scheduleRepeating(double seconds, std::function<void()> tick) = 0;
  [[nodiscard]] virtual double mediaTime() const = 0;
};

// Everything the controller is given. The referenced objects outlive it.
struct Platform {
  HostView& view;
  ScreenSurface& surface;
  ScreenIdentity& identity;
  MediaFactory& media;
  MainLoop& loop;
  paths::Environment environment;
  // The home folder the user database records for the current user, if any.
  std::function<std::optional<std::filesystem::path>()> recordedHome;
};

}  // namespace korvalen::saver
