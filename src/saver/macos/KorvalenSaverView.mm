#import "saver/macos/KorvalenSaverView.h"

#include "core/screensaver/saver_controller.hpp"
#include "saver/macos/MacEngine.h"

#include <memory>
#include <string>

using korvalen::saver::SaverController;
namespace mac = korvalen::saver::mac;

namespace {

NSString* const willStop = @"com.apple.screensaver.willstop";
NSString* const didStop = @"com.apple.screensaver.didstop";

// The view as the controller sees it. Holds the view weakly: the view owns it.
class MacHostView final : public korvalen::saver::HostView {
 public:
  explicit MacHostView(KorvalenSaverView* view) : view_(view) {}

  [[nodiscard]] bool isPreview() const override { return view_.isPreview; }
  [[nodiscard]] korvalen::saver::Size bounds() const override {
    const NSRect bounds = view_.bounds;
    return {bounds.size.width, bounds.size.height};
  }
  [[nodiscard]] bool hasWindow() const override { return view_.window != nil; }
  [[nodiscard]] std::optional<korvalen::saver::Screen> windowScreen() const override {
    NSScreen* screen = view_.window.screen;
    return screen != nil ? std::optional(mac::screenOf(screen)) : std::nullopt;
  }
  [[nodiscard]] std::optional<korvalen::saver::Screen> mainScreen() const override {
    NSScreen* screen = NSScreen.mainScreen;
    return screen != nil ? std::optional(mac::screenOf(screen)) : std::nullopt;
  }
  korvalen::saver::Layer& layer() override {
    if (!root_) {
      root_ = std::make_shared<mac::MacLayer>(view_.layer);
    }
    return *root_;
  }
  void prepareLayer() override {
    view_.wantsLayer = YES;
    CALayer* layer = view_.layer;
    layer.backgroundColor = CGColorGetConstantColor(kCGColorBlack);
    layer.geometryFlipped = YES;
    root_ = std::make_shared<mac::MacLayer>(layer);
  }
  void setAnimationTimeInterval(double seconds) override { view_.animationTimeInterval = seconds; }
  void observeStopNotifications(std::function<void(const std::string&)> ended) override {
    ended_ = std::move(ended);
    NSDistributedNotificationCenter* center = NSDistributedNotificationCenter.defaultCenter;
    [center addObserver:view_ selector:@selector(screenSaverEnded:) name:willStop object:nil];
    [center addObserver:view_ selector:@selector(screenSaverEnded:) name:didStop object:nil];
  }
  void stopObservingStopNotifications() override {
    [NSDistributedNotificationCenter.defaultCenter removeObserver:view_];
    ended_ = nullptr;
  }
  void ended(NSNotification* notification) {
    if (ended_) {
      ended_(std::string(notification.name.UTF8String));
    }
  }

 private:
  __weak KorvalenSaverView* view_;
  std::shared_ptr<mac::MacLayer> root_;
  std::function<void(const std::string&)> ended_;
};

std::optional<std::filesystem::path> recordedHome() {
  return korvalen::paths::recordedHomeFolder();
}

}  // namespace

@implementation KorvalenSaverView {
  std::unique_ptr<MacHostView> _host;
  std::unique_ptr<mac::MacScreenSurface> _surface;
  std::unique_ptr<mac::MacScreenIdentity> _identity;
  std::unique_ptr<mac::MacMedia> _media;
  std::unique_ptr<mac::MacMainLoop> _loop;
  std::shared_ptr<SaverController> _controller;
}

- (korvalen::saver::Platform)platform {
  mac::installSystemLog();
  _host = std::make_unique<MacHostView>(self);
  _surface = std::make_unique<mac::MacScreenSurface>();
  _identity = std::make_unique<mac::MacScreenIdentity>();
  _media = std::make_unique<mac::MacMedia>();
  _loop = std::make_unique<mac::MacMainLoop>();
  return korvalen::saver::Platform{
      *_host, *_surface, *_identity, *_media, *_loop, korvalen::paths::processEnvironment(), recordedHome};
}

- (instancetype)initWithFrame:(NSRect)frame isPreview:(BOOL)isPreview {
  self = [super initWithFrame:frame isPreview:isPreview];
  if (self == nil) {
    return nil;
  }
  _controller = SaverController::make([self platform]);
  return self;
}

- (instancetype)initWithCoder:(NSCoder*)coder {
  self = [super initWithCoder:coder];
  if (self == nil) {
    return nil;
  }
  _controller = SaverController::makeDecoded([self platform]);
  return self;
}

- (BOOL)hasConfigureSheet {
  return NO;
}

- (NSWindow*)configureSheet {
  return nil;
}

- (void)startAnimation {
  [super startAnimation];
  _controller->startAnimation();
}

- (void)stopAnimation {
  [super stopAnimation];
  _controller->stopAnimation();
}

- (void)viewDidMoveToWindow {
  [super viewDidMoveToWindow];
  _controller->viewDidMoveToWindow();
}

- (void)screenSaverEnded:(NSNotification*)notification {
  _host->ended(notification);
}

@end
