// What a playback engine plays: videos, decoded still and animated pictures, and the factory
// that makes them. No platform type appears here. Main thread only.
#pragma once

#include "core/rendering/trim_range.hpp"
#include "core/rendering/video_fit.hpp"
#include "core/scene/layer.hpp"
#include "core/scene/screen_surface.hpp"

#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvalen::scene {

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

}  // namespace korvalen::scene
