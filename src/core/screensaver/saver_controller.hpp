// The screensaver view's every decision, shared by all hosts: it finds and polls the plan,
// shows this screen's content (video, still or animated picture, a web page's still) with
// its placement, mirror, filters, rate and sound, watches playing video for flashes and
// pauses it when the guard trips, judges animations ahead of play, and takes everything
// down in a fixed order, logging each step with the view's mark. Hosts only translate their
// events into these calls (the macOS plug-in, the Linux window host, the headless saver).
//
// Main thread only. Made through `make`, as a shared object: timers and asynchronous loads
// hold it weakly, so one that fires after it is gone does nothing.
#pragma once

#include "core/planning/saver_plan.hpp"
#include "core/playback/flash_analyzer.hpp"
#include "core/screensaver/host_view.hpp"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen::saver {

class SaverController : public std::enable_shared_from_this<SaverController> {
 public:
  static constexpr double pollSeconds = 3.0;
  static constexpr double flashSampleSeconds = 1.0 / 60.0;
  static constexpr double animationTimeInterval = 0.5;
  static constexpr std::string_view category = "screensaver";
  static constexpr std::string_view willStop = "com.apple.screensaver.willstop";
  static constexpr std::string_view didStop = "com.apple.screensaver.didstop";

  // The first six characters of a fresh UUID's text.
  static std::string freshMark();

  // The host's initialiser has run: prepares the view's layer and logs "made".
  static std::shared_ptr<SaverController> make(Platform platform, std::string mark = freshMark());
  // The host's decoding initialiser has run: the same state, but no layer set-up and no line.
  static std::shared_ptr<SaverController> makeDecoded(Platform platform, std::string mark = freshMark());

  SaverController(const SaverController&) = delete;
  SaverController& operator=(const SaverController&) = delete;
  ~SaverController();

  // The host's life cycle.
  void startAnimation();
  void stopAnimation();
  void viewDidMoveToWindow();
  void screenSaverEnded(const std::string& notification);
  // The view's bounds changed (a window host's resize): the layers cover the new bounds and
  // the content is placed again, without restarting it; a flash watch follows the new region.
  void boundsChanged();

  [[nodiscard]] std::filesystem::path planURL() const;
  [[nodiscard]] std::string screenID() const;
  void build();
  void followPlan();
  void show(const SaverContent& content, const SaverPlan& plan);
  void clear();
  void tearDown(std::string_view reason);
  void watchForFlashes(const std::shared_ptr<VideoWallpaper>& video, const FitRect& region, const std::string& name);

  // What it holds, for hosts and tests to look at.
  [[nodiscard]] const std::string& mark() const { return mark_; }
  [[nodiscard]] const std::optional<SaverContent>& playing() const { return playing_; }
  [[nodiscard]] const std::optional<Date>& planStamp() const { return planStamp_; }
  [[nodiscard]] bool observing() const { return observing_; }
  [[nodiscard]] bool polling() const { return watch_ != nullptr; }
  [[nodiscard]] bool watchingFlashes() const { return flashTimer_ != nullptr; }
  [[nodiscard]] const std::shared_ptr<VideoWallpaper>& video() const { return video_; }
  [[nodiscard]] const std::shared_ptr<AnimatedWallpaper>& animation() const { return animation_; }
  [[nodiscard]] const std::shared_ptr<Layer>& slot() const { return slot_; }
  [[nodiscard]] const std::shared_ptr<Layer>& contentLayer() const { return contentLayer_; }
  [[nodiscard]] const FlashAnalyzer& flashAnalyzer() const { return flashAnalyzer_; }

 private:
  SaverController(Platform platform, std::string mark);

  void videoRoute(const SaverContent& content, const SaverPlan& plan);
  void videoLoaded(const std::shared_ptr<VideoWallpaper>& video, const std::shared_ptr<Layer>& player,
                   const SaverContent& content, const SaverPlan& plan, PixelSize size);
  void imageRoute(const std::string& path, const SaverContent& content, const SaverPlan& plan);
  // Whole-screen placement only when the view fills its screen; otherwise its own bounds.
  [[nodiscard]] VideoPlacement placementFor(PixelSize media, const SaverContent& content) const;
  void freeze(const std::string& name);
  // Places the content layer and the picture in it, and remembers both for a later resize.
  VideoPlacement placeContent(PixelSize media, const SaverContent& content, const std::shared_ptr<Layer>& picture);
  void scheduleFlashWatch(const std::shared_ptr<VideoWallpaper>& video, const FitRect& region, const std::string& name);
  void flashTick(const std::weak_ptr<VideoWallpaper>& watched, const FitRect& region, const std::string& name);
  void notice(std::string_view message) const;
  void error(std::string_view message) const;

  Platform platform_;
  std::shared_ptr<Layer> slot_;
  std::shared_ptr<Layer> contentLayer_;
  std::shared_ptr<VideoWallpaper> video_;
  std::shared_ptr<AnimatedWallpaper> animation_;
  std::optional<SaverContent> playing_;
  // What was placed last: the media's size and the layer that shows it.
  struct Placed {
    PixelSize media;
    std::shared_ptr<Layer> picture;
  };
  std::optional<Placed> placed_;
  std::optional<Date> planStamp_;
  std::unique_ptr<Timer> watch_;
  std::unique_ptr<Timer> flashTimer_;
  FlashAnalyzer flashAnalyzer_;
  bool observing_ = false;
  const std::string mark_;
};

}  // namespace korvalen::saver
