#import "saver/macos/MacEngine.h"

#import <AVFoundation/AVFoundation.h>
#import <CoreImage/CoreImage.h>
#import <CoreMedia/CoreMedia.h>
#import <CoreVideo/CoreVideo.h>
#import <ImageIO/ImageIO.h>
#include <os/log.h>

#include "core/desktop/monitor_identity.hpp"
#include "core/diagnostics/log.hpp"
#include "core/playback/flash_analyzer.hpp"
#include "core/rendering/video_fit.hpp"

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>
#include <span>
#include <vector>

namespace korvalen::saver::mac {
namespace {

NSURL* fileURL(const std::filesystem::path& file) {
  return [NSURL fileURLWithPath:[NSString stringWithUTF8String:file.c_str()]];
}

NSScreen* screenWithNumber(std::uint64_t number) {
  for (NSScreen* screen in NSScreen.screens) {
    NSNumber* id = screen.deviceDescription[@"NSScreenNumber"];
    if (id != nil && id.unsignedLongLongValue == number) {
      return screen;
    }
  }
  return nil;
}

// A picture's frames as BGRA bytes of at most `side` pixels a side, for luminance only.
std::vector<std::uint8_t> bgraOf(CGImageRef image, const FitRect& region, std::int64_t& width, std::int64_t& height) {
  constexpr double side = 256;
  const double fullWidth = static_cast<double>(CGImageGetWidth(image));
  const double fullHeight = static_cast<double>(CGImageGetHeight(image));
  const double scale = std::min(1.0, side / std::max({fullWidth * region.width, fullHeight * region.height, 1.0}));
  width = std::max<std::int64_t>(1, std::lround(fullWidth * region.width * scale));
  height = std::max<std::int64_t>(1, std::lround(fullHeight * region.height * scale));
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(width * height * 4));
  CGColorSpaceRef space = CGColorSpaceCreateWithName(kCGColorSpaceSRGB);
  CGContextRef context = CGBitmapContextCreate(
      bytes.data(), static_cast<size_t>(width), static_cast<size_t>(height), 8, static_cast<size_t>(width * 4), space,
      static_cast<uint32_t>(kCGImageAlphaPremultipliedFirst) | kCGBitmapByteOrder32Little);
  CGColorSpaceRelease(space);
  if (context == nullptr) {
    return {};
  }
  // Draw the whole picture so that the region fills the bitmap (Core Graphics is y-up).
  const CGRect drawn = CGRectMake(-region.x * fullWidth * scale, -(1 - region.y - region.height) * fullHeight * scale,
                                  fullWidth * scale, fullHeight * scale);
  CGContextDrawImage(context, drawn, image);
  CGContextRelease(context);
  return bytes;
}

double frameDelay(CGImageSourceRef source, size_t index) {
  NSDictionary* properties = CFBridgingRelease(CGImageSourceCopyPropertiesAtIndex(source, index, nullptr));
  for (NSString* container in
       @[ (__bridge NSString*)kCGImagePropertyGIFDictionary, (__bridge NSString*)kCGImagePropertyPNGDictionary ]) {
    NSDictionary* frame = properties[container];
    NSNumber* unclamped = frame[(__bridge NSString*)kCGImagePropertyGIFUnclampedDelayTime]
                              ?: frame[(__bridge NSString*)kCGImagePropertyAPNGUnclampedDelayTime];
    NSNumber* delay = unclamped ?: frame[(__bridge NSString*)kCGImagePropertyGIFDelayTime]
                                     ?: frame[(__bridge NSString*)kCGImagePropertyAPNGDelayTime];
    if (delay != nil && delay.doubleValue > 0) {
      return delay.doubleValue;
    }
  }
  return 0.1;  // what browsers use for a frame without a usable delay
}

class MacImage final : public DecodedImage {
 public:
  explicit MacImage(NSArray* frames, std::vector<double> delays) : frames_(frames), delays_(std::move(delays)) {}
  [[nodiscard]] bool isAnimated() const override { return frames_.count > 1; }
  [[nodiscard]] PixelSize pixelSize() const override {
    CGImageRef first = (__bridge CGImageRef)frames_.firstObject;
    return {static_cast<std::int64_t>(CGImageGetWidth(first)), static_cast<std::int64_t>(CGImageGetHeight(first))};
  }
  [[nodiscard]] std::vector<double> frameDelays() const override { return delays_; }
  [[nodiscard]] std::vector<double> frameLuminances(const FitRect& region) const override {
    std::vector<double> luminances;
    for (id frame in frames_) {
      std::int64_t width = 0;
      std::int64_t height = 0;
      const auto bytes = bgraOf((__bridge CGImageRef)frame, region, width, height);
      luminances.push_back(regionLuminance(bytes, width, height, width * 4, FitRect::unit()));
    }
    return luminances;
  }
  [[nodiscard]] NSArray* frames() const { return frames_; }

 private:
  NSArray* frames_;  // of CGImage
  std::vector<double> delays_;
};

class MacAnimation final : public AnimatedWallpaper {
 public:
  explicit MacAnimation(std::shared_ptr<MacImage> image)
      : image_(std::move(image)), layer_(std::make_shared<MacLayer>([CALayer layer])) {
    CALayer* layer = layer_->layer();
    layer.contentsGravity = kCAGravityResize;
    layer.contents = image_->frames().firstObject;
  }
  void install(Layer& on) override {
    on.addSublayer(layer_);
    if (!image_->isAnimated()) {
      return;
    }
    const auto delays = image_->frameDelays();
    double total = 0;
    for (const double delay : delays) {
      total += delay;
    }
    NSMutableArray* times = [NSMutableArray array];
    double at = 0;
    for (const double delay : delays) {
      [times addObject:@(at / total)];
      at += delay;
    }
    CAKeyframeAnimation* animation = [CAKeyframeAnimation animationWithKeyPath:@"contents"];
    animation.values = image_->frames();
    animation.keyTimes = times;
    animation.calculationMode = kCAAnimationDiscrete;
    animation.duration = total;
    animation.repeatCount = HUGE_VALF;
    // A begin time of exactly 0 means "now"; a tiny one pins frame 0 to the layer's time 0,
    // so a speed of 0 and a time offset of 0 on the content layer show the first frame.
    animation.beginTime = 1e-9;
    animation.removedOnCompletion = NO;
    [layer_->layer() addAnimation:animation forKey:@"frames"];
  }
  void remove(Layer&) override {
    [layer_->layer() removeAllAnimations];
    layer_->removeFromSuperlayer();
  }
  Layer& layer() override { return *layer_; }

 private:
  std::shared_ptr<MacImage> image_;
  std::shared_ptr<MacLayer> layer_;
};

class MacVideo final : public VideoWallpaper {
 public:
  MacVideo(NSURL* url, TrimRange trim) : url_(url), trim_(trim), player_([AVQueuePlayer queuePlayerWithItems:@[]]) {}
  ~MacVideo() override { stop(); }
  MacVideo(const MacVideo&) = delete;
  MacVideo& operator=(const MacVideo&) = delete;

  void setRate(double rate) override {
    rate_ = keptRate(rate);
    if (player_.rate != 0) {
      player_.rate = static_cast<float>(rate_);
    }
  }
  [[nodiscard]] double rate() const override { return rate_; }
  void setSoundLevel(double level) override {
    level_ = level;
    const double volume = std::isnan(level) ? 0 : std::clamp(level, 0.0, 1.0);
    player_.volume = static_cast<float>(volume);
    player_.muted = volume <= 0;
  }
  [[nodiscard]] double soundLevel() const override { return level_; }
  std::shared_ptr<Layer> makeLayer() override {
    AVPlayerLayer* layer = [AVPlayerLayer playerLayerWithPlayer:player_];
    layer.videoGravity = AVLayerVideoGravityResize;
    return std::make_shared<MacLayer>(layer);
  }
  void load(Loaded done) override {
    AVURLAsset* asset = [AVURLAsset URLAssetWithURL:url_ options:nil];
    __block Loaded finished = std::move(done);
    AVQueuePlayer* player = player_;
    const TrimRange trim = trim_;
    // The looper is made when the load completes and must live as long as the video.
    auto holder = looperHolder_;
    [asset
        loadValuesAsynchronouslyForKeys:@[ @"tracks", @"duration" ]
                      completionHandler:^{
                        dispatch_async(dispatch_get_main_queue(), ^{
                          NSError* error = nil;
                          if ([asset statusOfValueForKey:@"tracks" error:&error] != AVKeyValueStatusLoaded) {
                            finished(std::unexpected(
                                std::string(error.localizedDescription.UTF8String ?: "the file could not be opened")));
                            return;
                          }
                          AVAssetTrack* track = [asset tracksWithMediaType:AVMediaTypeVideo].firstObject;
                          if (track == nil) {
                            finished(std::unexpected(std::string("it has no video")));
                            return;
                          }
                          const CGSize turned = CGSizeApplyAffineTransform(track.naturalSize, track.preferredTransform);
                          const double seconds = CMTimeGetSeconds(asset.duration);
                          const double start = std::clamp(trim.start, 0.0, std::max(seconds, 0.0));
                          const double end = trim.end > start ? std::min(trim.end, seconds) : seconds;
                          const CMTimeRange range = CMTimeRangeFromTimeToTime(CMTimeMakeWithSeconds(start, 600),
                                                                              CMTimeMakeWithSeconds(end, 600));
                          AVPlayerItem* item = [AVPlayerItem playerItemWithAsset:asset];
                          AVPlayerLooper* looper = [AVPlayerLooper playerLooperWithPlayer:player
                                                                             templateItem:item
                                                                                timeRange:range];
                          *holder = looper;
                          // One output per looping copy, so the frame on screen can be read.
                          NSDictionary* attributes =
                              @{(__bridge NSString*)kCVPixelBufferPixelFormatTypeKey : @(kCVPixelFormatType_32BGRA)};
                          for (AVPlayerItem* copy in looper.loopingPlayerItems) {
                            [copy addOutput:[[AVPlayerItemVideoOutput alloc] initWithPixelBufferAttributes:attributes]];
                          }
                          finished(PixelSize{static_cast<std::int64_t>(std::fabs(turned.width)),
                                             static_cast<std::int64_t>(std::fabs(turned.height))});
                        });
                      }];
  }
  void play() override {
    held_ = false;
    player_.rate = static_cast<float>(rate_);
  }
  void pause() override {
    held_ = true;
    [player_ pause];
  }
  void stop() override {
    [player_ pause];
    if (*looperHolder_ != nil) {
      [*looperHolder_ disableLooping];
    }
    [player_ removeAllItems];
  }
  std::optional<std::vector<double>> sampleLuminances(const std::vector<FitRect>& regions) override {
    AVPlayerItem* item = player_.currentItem;
    AVPlayerItemVideoOutput* output = nil;
    for (AVPlayerItemOutput* candidate in item.outputs) {
      if ([candidate isKindOfClass:[AVPlayerItemVideoOutput class]]) {
        output = (AVPlayerItemVideoOutput*)candidate;
      }
    }
    if (output == nil) {
      return std::nullopt;
    }
    const CMTime time = [output itemTimeForHostTime:CACurrentMediaTime()];
    if (![output hasNewPixelBufferForItemTime:time]) {
      // Still the frame sampled last; its values stand.
      return last_.empty() ? std::nullopt : std::optional(last_);
    }
    CVPixelBufferRef buffer = [output copyPixelBufferForItemTime:time itemTimeForDisplay:nullptr];
    if (buffer == nullptr) {
      return std::nullopt;
    }
    CVPixelBufferLockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly);
    const auto width = static_cast<std::int64_t>(CVPixelBufferGetWidth(buffer));
    const auto height = static_cast<std::int64_t>(CVPixelBufferGetHeight(buffer));
    const auto stride = static_cast<std::int64_t>(CVPixelBufferGetBytesPerRow(buffer));
    const std::span<const std::uint8_t> bytes(static_cast<const std::uint8_t*>(CVPixelBufferGetBaseAddress(buffer)),
                                              static_cast<std::size_t>(stride * height));
    last_.clear();
    for (const auto& region : regions) {
      last_.push_back(regionLuminance(bytes, width, height, stride, region));
    }
    CVPixelBufferUnlockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly);
    CVPixelBufferRelease(buffer);
    return last_;
  }

 private:
  NSURL* url_;
  TrimRange trim_;
  AVQueuePlayer* player_;
  std::shared_ptr<AVPlayerLooper* __strong> looperHolder_ = std::make_shared<AVPlayerLooper * __strong>(nil);
  double rate_ = 1;
  double level_ = 0;
  bool held_ = false;
  std::vector<double> last_;
};

class MacTimer final : public Timer {
 public:
  explicit MacTimer(NSTimer* timer) : timer_(timer) {}
  ~MacTimer() override { invalidate(); }
  MacTimer(const MacTimer&) = delete;
  MacTimer& operator=(const MacTimer&) = delete;
  void invalidate() override { [timer_ invalidate]; }

 private:
  NSTimer* timer_;
};

}  // namespace

Screen screenOf(NSScreen* screen) {
  NSNumber* number = screen.deviceDescription[@"NSScreenNumber"];
  return Screen{number.unsignedLongLongValue, {screen.frame.size.width, screen.frame.size.height}};
}

void MacLayer::addSublayer(const std::shared_ptr<Layer>& child) {
  [layer_ addSublayer:static_cast<MacLayer&>(*child).layer()];
}

void MacLayer::removeFromSuperlayer() {
  [layer_ removeFromSuperlayer];
}

void MacLayer::setHidden(bool hidden) {
  layer_.hidden = hidden;
}

void MacLayer::setScale(double x, double y) {
  layer_.affineTransform = CGAffineTransformMakeScale(x, y);
}

void MacLayer::setFilters(const Filters& filters) {
  NSMutableArray* list = [NSMutableArray array];
  if (filters.colorMatrix) {
    const auto& m = *filters.colorMatrix;
    CIFilter* matrix = [CIFilter filterWithName:@"CIColorMatrix"];
    NSArray* keys = @[ @"inputRVector", @"inputGVector", @"inputBVector", @"inputAVector", @"inputBiasVector" ];
    for (NSUInteger i = 0; i < 5; ++i) {
      [matrix setValue:[CIVector vectorWithX:m[i][0] Y:m[i][1] Z:m[i][2] W:m[i][3]] forKey:keys[i]];
    }
    [list addObject:matrix];
  }
  if (filters.sharpen > 0) {
    CIFilter* sharpen = [CIFilter filterWithName:@"CISharpenLuminance"];
    [sharpen setValue:@(filters.sharpen) forKey:@"inputSharpness"];
    [list addObject:sharpen];
  }
  layer_.filters = list;
}

void MacLayer::setSpeed(double speed) {
  layer_.speed = static_cast<float>(speed);
}

void MacLayer::setTimeOffset(double seconds) {
  layer_.timeOffset = seconds;
}

ScreenSurface::Layers MacScreenSurface::makeLayers(Size covering) {
  CALayer* slot = [CALayer layer];
  slot.frame = CGRectMake(0, 0, covering.width, covering.height);
  slot.masksToBounds = YES;
  CALayer* content = [CALayer layer];
  content.frame = slot.bounds;
  content.masksToBounds = YES;
  [slot addSublayer:content];
  return {std::make_shared<MacLayer>(slot), std::make_shared<MacLayer>(content)};
}

void MacScreenSurface::resize(Layer& layer, Size covering) {
  [CATransaction begin];
  [CATransaction setDisableActions:YES];
  static_cast<MacLayer&>(layer).layer().frame = CGRectMake(0, 0, covering.width, covering.height);
  [CATransaction commit];
}

std::optional<Filters> MacScreenSurface::appearanceFilters(double dim, double saturation, double sharpen) {
  return Filters::forAppearance(dim, saturation, sharpen);
}

VideoPlacement MacScreenSurface::placement(const Screen& on, std::int64_t contentWidth, std::int64_t contentHeight,
                                           FitMode fit, const std::optional<CropRect>& crop) {
  // Placed in the screen's pixels, so edges fall on whole pixels, then back into points.
  NSScreen* screen = screenWithNumber(on.handle);
  const double scale = screen != nil ? std::max<double>(screen.backingScaleFactor, 1) : 1;
  const auto pixels = [scale](double points) { return std::max<std::int64_t>(1, std::lround(points * scale)); };
  auto placed =
      VideoFit::compute(contentWidth, contentHeight, pixels(on.frame.width), pixels(on.frame.height), fit, crop);
  placed.destination = FitRect{placed.destination.x / scale, placed.destination.y / scale,
                               placed.destination.width / scale, placed.destination.height / scale};
  return placed;
}

void MacScreenSurface::place(const VideoPlacement& placement, Layer& content) {
  const auto& d = placement.destination;
  [CATransaction begin];
  [CATransaction setDisableActions:YES];
  static_cast<MacLayer&>(content).layer().frame = CGRectMake(d.x, d.y, d.width, d.height);
  [CATransaction commit];
}

void MacScreenSurface::crop(Layer& picture, const VideoPlacement& placement) {
  // The whole picture, scaled so that the visible part fills the content layer, which clips.
  const auto& c = placement.sourceCrop;
  const auto& d = placement.destination;
  const double width = c.width > 0 ? d.width / c.width : d.width;
  const double height = c.height > 0 ? d.height / c.height : d.height;
  [CATransaction begin];
  [CATransaction setDisableActions:YES];
  static_cast<MacLayer&>(picture).layer().frame = CGRectMake(-c.x * width, -c.y * height, width, height);
  [CATransaction commit];
}

std::shared_ptr<VideoWallpaper> MacMedia::makeVideo(const std::filesystem::path& file, const TrimRange& trim) {
  return std::make_shared<MacVideo>(fileURL(file), trim);
}

std::expected<std::shared_ptr<DecodedImage>, std::string> MacMedia::loadImage(const std::filesystem::path& file) {
  CGImageSourceRef source = CGImageSourceCreateWithURL((__bridge CFURLRef)fileURL(file), nullptr);
  if (source == nullptr) {
    return std::unexpected(std::string("it could not be opened"));
  }
  const size_t count = CGImageSourceGetCount(source);
  NSMutableArray* frames = [NSMutableArray array];
  std::vector<double> delays;
  for (size_t i = 0; i < count; ++i) {
    CGImageRef frame = CGImageSourceCreateImageAtIndex(source, i, nullptr);
    if (frame == nullptr) {
      break;
    }
    [frames addObject:(__bridge_transfer id)frame];
    delays.push_back(frameDelay(source, i));
  }
  CFRelease(source);
  if (frames.count == 0) {
    return std::unexpected(std::string("it is not a picture"));
  }
  return std::make_shared<MacImage>(frames, std::move(delays));
}

std::shared_ptr<AnimatedWallpaper> MacMedia::makeAnimation(const std::shared_ptr<DecodedImage>& image) {
  return std::make_shared<MacAnimation>(std::static_pointer_cast<MacImage>(image));
}

std::string MacScreenIdentity::stableID(const Screen& screen) {
  const auto display = static_cast<CGDirectDisplayID>(screen.handle);
  const std::uint32_t vendor = CGDisplayVendorNumber(display);
  const std::uint32_t model = CGDisplayModelNumber(display);
  std::optional<std::string> uuid;
  if (CFUUIDRef made = CGDisplayCreateUUIDFromDisplayID(display)) {
    NSString* text = CFBridgingRelease(CFUUIDCreateString(nullptr, made));
    CFRelease(made);
    uuid = std::string(text.UTF8String);
  }
  // A twin is another connected display of the same make and model.
  CGDirectDisplayID online[32];
  uint32_t count = 0;
  bool twin = false;
  if (CGGetOnlineDisplayList(32, online, &count) == kCGErrorSuccess) {
    for (uint32_t i = 0; i < count; ++i) {
      twin = twin || (online[i] != display && CGDisplayVendorNumber(online[i]) == vendor &&
                      CGDisplayModelNumber(online[i]) == model);
    }
  }
  return korvalen::ScreenIdentity::device(vendor, model, CGDisplaySerialNumber(display),
                                          CGDisplayIsBuiltin(display) != 0, display, uuid, twin) +
         "|" + korvalen::ScreenIdentity::size(screen.frame.width, screen.frame.height);
}

std::unique_ptr<Timer> MacMainLoop::scheduleRepeating(double seconds, std::function<void()> tick) {
  // The block holds the tick, which holds the controller weakly: the timer keeps nothing alive.
  NSTimer* timer = [NSTimer scheduledTimerWithTimeInterval:seconds
                                                   repeats:YES
                                                     block:^(NSTimer*) {
                                                       tick();
                                                     }];
  return std::make_unique<MacTimer>(timer);
}

double MacMainLoop::mediaTime() const {
  return CACurrentMediaTime();
}

void installSystemLog() {
  static std::once_flag once;
  std::call_once(once, [] {
    log::setBackend([](const log::Line& line) {
      static std::mutex mutex;
      static std::map<std::string, os_log_t> logs;
      os_log_t target = nullptr;
      {
        std::lock_guard lock(mutex);
        auto& found = logs[line.category];
        if (found == nullptr) {
          found = os_log_create(std::string(log::subsystem).c_str(), line.category.c_str());
        }
        target = found;
      }
      os_log_type_t type = OS_LOG_TYPE_DEFAULT;
      switch (line.level) {
        case log::Level::debug:
          type = OS_LOG_TYPE_DEBUG;
          break;
        case log::Level::info:
          type = OS_LOG_TYPE_INFO;
          break;
        case log::Level::notice:
          type = OS_LOG_TYPE_DEFAULT;
          break;
        case log::Level::error:
          type = OS_LOG_TYPE_ERROR;
          break;
        case log::Level::fault:
          type = OS_LOG_TYPE_FAULT;
          break;
      }
      // The message already starts with the view's mark in brackets.
      os_log_with_type(target, type, "%{public}s", line.message.c_str());
    });
  });
}

}  // namespace korvalen::saver::mac
