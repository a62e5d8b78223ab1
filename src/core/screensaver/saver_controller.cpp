#include "core/screensaver/saver_controller.hpp"

#include "core/diagnostics/log.hpp"
#include "core/library/library_rules.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace korvalen::saver {
namespace {

// Media and surfaces beyond this many pixels a side are held to it, so placement arithmetic
// stays far inside 64 bits whatever a file or a host reports.
constexpr std::int64_t largestSide = std::int64_t{1} << 24;

std::int64_t mediaSide(std::int64_t pixels) {
  return std::clamp<std::int64_t>(pixels, 0, largestSide);
}

// A view's side in whole points: rounded, at least 1 (a zero-size view still places).
std::int64_t surfaceSide(double points) {
  if (!std::isfinite(points)) {
    return 1;
  }
  return static_cast<std::int64_t>(std::clamp(std::round(points), 1.0, static_cast<double>(largestSide)));
}

std::string nameOf(const std::string& path) {
  return LibraryRules::lastComponent(path);
}

}  // namespace

std::string SaverController::freshMark() {
  // A version-4 UUID's text starts with eight random hex digits; six of them are the mark.
  std::random_device random;
  return fmt::format("{:06X}", random() & 0xFFFFFFU);
}

std::shared_ptr<SaverController> SaverController::make(Platform platform, std::string mark) {
  auto controller = makeDecoded(std::move(platform), std::move(mark));
  auto& view = controller->platform_.view;
  view.prepareLayer();
  view.setAnimationTimeInterval(animationTimeInterval);
  controller->notice(fmt::format("made, preview {}", view.isPreview()));
  return controller;
}

std::shared_ptr<SaverController> SaverController::makeDecoded(Platform platform, std::string mark) {
  return std::shared_ptr<SaverController>(new SaverController(std::move(platform), std::move(mark)));
}

SaverController::SaverController(Platform platform, std::string mark)
    : platform_(std::move(platform)), mark_(std::move(mark)) {}

SaverController::~SaverController() {
  // A host that drops the view without stopping it: nothing is left running.
  clear();
  if (observing_) {
    platform_.view.stopObservingStopNotifications();
  }
}

void SaverController::notice(std::string_view message) const {
  log::write(category, log::Level::notice, fmt::format("[{}] {}", mark_, message));
}

void SaverController::error(std::string_view message) const {
  log::write(category, log::Level::error, fmt::format("[{}] {}", mark_, message));
}

std::filesystem::path SaverController::planURL() const {
  return SaverPlan::location(platform_.environment, platform_.recordedHome ? platform_.recordedHome() : std::nullopt);
}

std::string SaverController::screenID() const {
  auto screen = platform_.view.windowScreen();
  if (!screen) {
    screen = platform_.view.mainScreen();
  }
  return screen ? platform_.identity.stableID(*screen) : std::string();
}

void SaverController::startAnimation() {
  if (!observing_) {
    observing_ = true;
    std::weak_ptr<SaverController> self = weak_from_this();
    platform_.view.observeStopNotifications([self](const std::string& name) {
      if (auto controller = self.lock()) {
        controller->screenSaverEnded(name);
      }
    });
  }
  // A host that starts twice without a stop: the first picture goes, rather than a second
  // one stacking on it with its video still playing underneath.
  if (playing_ || slot_) {
    clear();
  }
  build();
  if (watch_) {
    watch_->invalidate();
  }
  std::weak_ptr<SaverController> self = weak_from_this();
  watch_ = platform_.loop.scheduleRepeating(pollSeconds, [self] {
    if (auto controller = self.lock()) {
      controller->followPlan();
    }
  });
}

void SaverController::stopAnimation() {
  tearDown("stopAnimation");
}

void SaverController::viewDidMoveToWindow() {
  if (!platform_.view.hasWindow()) {
    tearDown("left its window");
  }
}

void SaverController::screenSaverEnded(const std::string& notification) {
  tearDown(notification);
}

void SaverController::build() {
  const auto url = planURL();
  const auto plan = SaverPlan::read(url);
  if (!plan) {
    error(fmt::format("no plan at {}: black", url.string()));
    return;
  }
  planStamp_ = plan->written;
  const auto id = screenID();
  if (const auto content = plan->contentForScreen(id)) {
    show(*content, *plan);
  } else {
    notice(fmt::format("nothing for screen {}: black", id));
  }
}

void SaverController::followPlan() {
  const auto plan = SaverPlan::read(planURL());
  if (!plan || planStamp_ == plan->written) {
    return;
  }
  planStamp_ = plan->written;
  const auto content = plan->contentForScreen(screenID());
  if (content == playing_) {
    return;
  }
  notice("the plan moved on");
  clear();
  if (content) {
    show(*content, *plan);
  }
}

void SaverController::show(const SaverContent& content, const SaverPlan& plan) {
  auto& surface = platform_.surface;
  auto layers = surface.makeLayers(platform_.view.bounds());
  platform_.view.layer().addSublayer(layers.slot);
  slot_ = std::move(layers.slot);
  contentLayer_ = std::move(layers.content);
  playing_ = content;
  contentLayer_->setScale(content.mirrorHorizontal ? -1 : 1, content.mirrorVertical ? -1 : 1);
  if (const auto filters = surface.appearanceFilters(plan.dim, plan.saturation, content.sharpen)) {
    contentLayer_->setFilters(*filters);
  }
  notice(fmt::format("screen {} -> {} fit={}", screenID(), nameOf(content.path), toString(content.fit)));
  switch (content.kind) {
    case WallpaperKind::video:
      videoRoute(content, plan);
      return;
    case WallpaperKind::image:
      imageRoute(content.path, content, plan);
      return;
    case WallpaperKind::web:
      // A page cannot run here; its still stands in for it.
      if (content.still) {
        imageRoute(*content.still, content, plan);
      } else {
        error(fmt::format("{} has nothing to show here: black", nameOf(content.path)));
      }
      return;
    case WallpaperKind::none:
    case WallpaperKind::solid:
      error(fmt::format("{} is not something a screen saver can play", nameOf(content.path)));
      return;
  }
}

void SaverController::videoRoute(const SaverContent& content, const SaverPlan& plan) {
  auto video = platform_.media.makeVideo(content.path, content.trim());
  video->setRate(plan.rate);
  video->setSoundLevel(plan.sound ? plan.volume : 0);
  video_ = video;
  auto player = video->makeLayer();
  if (content.isHeld()) {
    player->setHidden(true);  // until placed: then it shows the paused first frame
  }
  contentLayer_->addSublayer(player);
  std::weak_ptr<SaverController> self = weak_from_this();
  std::weak_ptr<VideoWallpaper> loading = video;
  video->load([self, loading, player, content, plan](std::expected<PixelSize, std::string> loaded) {
    auto controller = self.lock();
    if (!controller) {
      return;
    }
    if (!loaded) {
      controller->error(fmt::format("{} would not play: {}", nameOf(content.path), loaded.error()));
      return;
    }
    if (auto loadedVideo = loading.lock()) {
      controller->videoLoaded(loadedVideo, player, content, plan, *loaded);
    }
  });
}

void SaverController::videoLoaded(const std::shared_ptr<VideoWallpaper>& video, const std::shared_ptr<Layer>& player,
                                  const SaverContent& content, const SaverPlan& plan, PixelSize size) {
  if (content.isHeld()) {
    video->pause();  // before anything could start it
  }
  // The view may have been cleared, or moved on to other content, while this loaded.
  if (video_ != video || !contentLayer_) {
    return;
  }
  const auto placement = placeContent(size, content, player);
  video->setRate(plan.rate);
  const auto name = nameOf(content.path);
  if (content.isHeld()) {
    player->setHidden(false);
    notice(fmt::format("{} flashes: held still", name));
    return;
  }
  video->play();
  if (plan.guardsFlashes()) {
    watchForFlashes(video, placement.sourceCrop, name);
  }
}

void SaverController::imageRoute(const std::string& path, const SaverContent& content, const SaverPlan& plan) {
  const auto name = nameOf(path);
  auto image = platform_.media.loadImage(path);
  if (!image) {
    error(fmt::format("{} has nothing to show here: black", name));
    return;
  }
  const auto& decoded = *image;
  animation_ = platform_.media.makeAnimation(decoded);
  animation_->install(*contentLayer_);
  // Unlike a video, a picture's animation may run faster than normal.
  contentLayer_->setSpeed(plan.rate);
  const auto placement =
      placeContent(decoded->pixelSize(), content, std::shared_ptr<Layer>(animation_, &animation_->layer()));
  if (!decoded->isAnimated()) {
    return;
  }
  if (content.isHeld()) {
    freeze(name);
  } else if (plan.guardsFlashes()) {
    const auto judgement =
        FlashAnalyzer::judgeLoop(decoded->frameLuminances(placement.sourceCrop), decoded->frameDelays(), plan.rate);
    if (judgement.violated) {
      freeze(name);
    }
  }
}

void SaverController::freeze(const std::string& name) {
  contentLayer_->setSpeed(0);
  contentLayer_->setTimeOffset(0);
  notice(fmt::format("{} flashes: held still", name));
}

VideoPlacement SaverController::placeContent(PixelSize media, const SaverContent& content,
                                             const std::shared_ptr<Layer>& picture) {
  const auto placement = placementFor(media, content);
  platform_.surface.place(placement, *contentLayer_);
  platform_.surface.crop(*picture, placement);
  placed_ = Placed{media, picture};
  return placement;
}

void SaverController::boundsChanged() {
  if (!slot_ || !contentLayer_ || !playing_) {
    return;
  }
  const auto bounds = platform_.view.bounds();
  platform_.surface.resize(*slot_, bounds);
  platform_.surface.resize(*contentLayer_, bounds);
  // A load still under way places with the new bounds when it lands.
  if (!placed_) {
    return;
  }
  const auto placement = placeContent(placed_->media, *playing_, placed_->picture);
  if (flashTimer_ && video_) {
    // The analyser keeps what it has seen: a resize is no way around the guard.
    scheduleFlashWatch(video_, placement.sourceCrop, nameOf(playing_->path));
  }
}

VideoPlacement SaverController::placementFor(PixelSize media, const SaverContent& content) const {
  const auto& view = platform_.view;
  const auto bounds = view.bounds();
  const auto width = mediaSide(media.width);
  const auto height = mediaSide(media.height);
  if (!view.isPreview()) {
    if (const auto screen = view.windowScreen();
        screen && bounds == screen->frame && screen->frame.width >= 1 && screen->frame.height >= 1) {
      return platform_.surface.placement(*screen, width, height, content.fit, content.crop);
    }
  }
  return VideoFit::compute(width, height, surfaceSide(bounds.width), surfaceSide(bounds.height), content.fit,
                           content.crop);
}

void SaverController::watchForFlashes(const std::shared_ptr<VideoWallpaper>& video, const FitRect& region,
                                      const std::string& name) {
  if (flashTimer_) {
    flashTimer_->invalidate();
  }
  flashAnalyzer_ = FlashAnalyzer{};
  scheduleFlashWatch(video, region, name);
}

void SaverController::scheduleFlashWatch(const std::shared_ptr<VideoWallpaper>& video, const FitRect& region,
                                         const std::string& name) {
  if (flashTimer_) {
    flashTimer_->invalidate();
  }
  std::weak_ptr<SaverController> self = weak_from_this();
  std::weak_ptr<VideoWallpaper> watched = video;
  flashTimer_ = platform_.loop.scheduleRepeating(flashSampleSeconds, [self, watched, region, name] {
    if (auto controller = self.lock()) {
      controller->flashTick(watched, region, name);
    }
  });
}

void SaverController::flashTick(const std::weak_ptr<VideoWallpaper>& watched, const FitRect& region,
                                const std::string& name) {
  const auto video = watched.lock();
  if (!video || video != video_) {
    return;
  }
  const auto samples = video->sampleLuminances({region});
  if (!samples || samples->empty()) {
    return;
  }
  flashAnalyzer_.observe(platform_.loop.mediaTime(), samples->front());
  if (!flashAnalyzer_.violated()) {
    return;
  }
  // Paused on the frame it is on, and not resumed while the view lives.
  video->pause();
  if (flashTimer_) {
    flashTimer_->invalidate();
    flashTimer_.reset();
  }
  notice(fmt::format("{} flashes (peak {}/s): paused", name, flashAnalyzer_.peakFlashesPerSecond()));
}

void SaverController::clear() {
  if (flashTimer_) {
    flashTimer_->invalidate();
    flashTimer_.reset();
  }
  if (video_) {
    video_->stop();
    video_.reset();
  }
  if (animation_ && contentLayer_) {
    animation_->remove(*contentLayer_);
  }
  animation_.reset();
  if (slot_) {
    slot_->removeFromSuperlayer();
    slot_.reset();
  }
  contentLayer_.reset();
  playing_.reset();
  placed_.reset();
}

void SaverController::tearDown(std::string_view reason) {
  // Stops arrive several times for one stop (the host's call and two notifications); only
  // the first finds the view active, so "stopped" is logged once.
  const bool wasActive = playing_.has_value() || watch_ != nullptr;
  if (watch_) {
    watch_->invalidate();
    watch_.reset();
  }
  clear();
  if (observing_) {
    platform_.view.stopObservingStopNotifications();
    observing_ = false;
  }
  if (wasActive) {
    notice(fmt::format("stopped: {}", reason));
  }
}

}  // namespace korvalen::saver
