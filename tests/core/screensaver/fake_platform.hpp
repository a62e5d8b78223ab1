// Fakes for what the screensaver controller is given: a host view and layers that remember
// what was done to them, an engine whose loads complete when the test runs the main loop,
// and a main loop whose clock the test steps by hand. Every call of note lands in one
// shared event list, so tests can check order across objects.
#pragma once

#include "core/rendering/video_fit.hpp"
#include "core/screensaver/host_view.hpp"

#include <algorithm>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace korvalen::saver::fakes {

using Events = std::vector<std::string>;

class FakeLayer : public Layer, public std::enable_shared_from_this<FakeLayer> {
 public:
  FakeLayer(std::string named, Events& events) : name(std::move(named)), events_(events) {}
  void addSublayer(const std::shared_ptr<Layer>& child) override {
    auto& fake = dynamic_cast<FakeLayer&>(*child);
    fake.parent = this;
    children.push_back(child);
  }
  void removeFromSuperlayer() override {
    events_.push_back(name + " removed");
    if (parent != nullptr) {
      auto& siblings = parent->children;
      siblings.erase(
          std::remove_if(siblings.begin(), siblings.end(), [this](const auto& c) { return c.get() == this; }),
          siblings.end());
      parent = nullptr;
    }
  }
  void setHidden(bool value) override {
    hidden = value;
    events_.push_back(name + (value ? " hidden" : " shown"));
  }
  void setScale(double x, double y) override {
    scaleX = x;
    scaleY = y;
  }
  void setFilters(const Filters& value) override { filters = value; }
  void setSpeed(double value) override { speed = value; }
  void setTimeOffset(double value) override { timeOffset = value; }

  std::string name;
  FakeLayer* parent = nullptr;
  std::vector<std::shared_ptr<Layer>> children;
  bool hidden = false;
  double scaleX = 1;
  double scaleY = 1;
  std::optional<Filters> filters;
  double speed = 1;
  double timeOffset = 0;

 private:
  Events& events_;
};

class FakeLoop : public MainLoop {
 public:
  struct Entry {
    double interval;
    double due;
    std::function<void()> tick;
    std::shared_ptr<bool> alive;
  };
  class FakeTimer : public Timer {
   public:
    explicit FakeTimer(std::shared_ptr<bool> alive) : alive_(std::move(alive)) {}
    ~FakeTimer() override { *alive_ = false; }
    FakeTimer(const FakeTimer&) = delete;
    FakeTimer& operator=(const FakeTimer&) = delete;
    void invalidate() override { *alive_ = false; }

   private:
    std::shared_ptr<bool> alive_;
  };

  std::unique_ptr<Timer> scheduleRepeating(double seconds, std::function<void()> tick) override {
    auto alive = std::make_shared<bool>(true);
    entries_.push_back(Entry{seconds, now + seconds, std::move(tick), alive});
    return std::make_unique<FakeTimer>(alive);
  }
  [[nodiscard]] double mediaTime() const override { return now; }

  // Work for the main loop, such as a finished load.
  void post(std::function<void()> task) { posted_.push_back(std::move(task)); }
  void runPending() {
    while (!posted_.empty()) {
      auto task = std::move(posted_.front());
      posted_.pop_front();
      task();
    }
  }
  [[nodiscard]] std::size_t liveTimers() const {
    return static_cast<std::size_t>(
        std::count_if(entries_.begin(), entries_.end(), [](const Entry& e) { return *e.alive; }));
  }
  [[nodiscard]] std::size_t liveTimersOf(double interval) const {
    return static_cast<std::size_t>(std::count_if(entries_.begin(), entries_.end(),
                                                  [&](const Entry& e) { return *e.alive && e.interval == interval; }));
  }

  // Moves the clock on, firing every timer that falls due in order, and running posted work.
  void advance(double seconds) {
    const double until = now + seconds;
    runPending();
    while (true) {
      Entry* next = nullptr;
      for (auto& entry : entries_) {
        if (*entry.alive && entry.due <= until + 1e-9 && (next == nullptr || entry.due < next->due)) {
          next = &entry;
        }
      }
      if (next == nullptr) {
        break;
      }
      now = next->due;
      next->due += next->interval;
      auto tick = next->tick;  // the tick may schedule timers, which moves `entries_`
      tick();
      runPending();
    }
    now = until;
  }

  double now = 1000;

 private:
  std::vector<Entry> entries_;
  std::deque<std::function<void()>> posted_;
};

class FakeView : public HostView {
 public:
  explicit FakeView(Events& events) : root(std::make_shared<FakeLayer>("view", events)) {}
  [[nodiscard]] bool isPreview() const override { return preview; }
  [[nodiscard]] Size bounds() const override { return boundsSize; }
  [[nodiscard]] bool hasWindow() const override { return window; }
  [[nodiscard]] std::optional<Screen> windowScreen() const override {
    return window ? screen : std::optional<Screen>();
  }
  [[nodiscard]] std::optional<Screen> mainScreen() const override { return main; }
  Layer& layer() override { return *root; }
  void prepareLayer() override { prepared = true; }
  void setAnimationTimeInterval(double seconds) override { interval = seconds; }
  void observeStopNotifications(std::function<void(const std::string&)> ended) override {
    stopObserver = std::move(ended);
    ++registrations;
  }
  void stopObservingStopNotifications() override { stopObserver = nullptr; }
  void post(const std::string& name) {
    if (stopObserver) {
      stopObserver(name);
    }
  }

  bool preview = false;
  Size boundsSize{1920, 1080};
  bool window = true;
  std::optional<Screen> screen = Screen{1, {1920, 1080}};
  std::optional<Screen> main = Screen{1, {1920, 1080}};
  std::shared_ptr<FakeLayer> root;
  bool prepared = false;
  double interval = 0;
  std::function<void(const std::string&)> stopObserver;
  int registrations = 0;
};

class FakeSurface : public ScreenSurface {
 public:
  explicit FakeSurface(Events& events) : events_(events) {}
  Layers makeLayers(Size covering) override {
    covered = covering;
    auto slot = std::make_shared<FakeLayer>("slot", events_);
    auto content = std::make_shared<FakeLayer>("content", events_);
    slot->addSublayer(content);
    lastContent = content;
    return {slot, content};
  }
  void resize(Layer& layer, Size covering) override {
    events_.push_back(
        fmt::format("resized {} {}x{}", static_cast<FakeLayer&>(layer).name, covering.width, covering.height));
  }
  std::optional<Filters> appearanceFilters(double dim, double saturation, double sharpen) override {
    return Filters::forAppearance(dim, saturation, sharpen);
  }
  VideoPlacement placement(const Screen& on, std::int64_t contentWidth, std::int64_t contentHeight, FitMode fit,
                           const std::optional<CropRect>& crop) override {
    ++screenPlacements;
    // The screen's own pixels: twice its points, as on a high-density display.
    return VideoFit::compute(contentWidth, contentHeight, static_cast<std::int64_t>(on.frame.width * 2),
                             static_cast<std::int64_t>(on.frame.height * 2), fit, crop);
  }
  void place(const VideoPlacement& value, Layer&) override {
    placed = value;
    events_.push_back("placed");
  }
  void crop(Layer&, const VideoPlacement& value) override { cropped = value; }

  Size covered;
  int screenPlacements = 0;
  std::optional<VideoPlacement> placed;
  std::optional<VideoPlacement> cropped;
  std::weak_ptr<FakeLayer> lastContent;

 private:
  Events& events_;
};

class FakeIdentity : public ScreenIdentity {
 public:
  std::string stableID(const Screen& screen) override {
    return "display-" + std::to_string(screen.handle) + "|" + std::to_string(static_cast<int>(screen.frame.width)) +
           "x" + std::to_string(static_cast<int>(screen.frame.height));
  }
};

class FakeVideo : public VideoWallpaper {
 public:
  FakeVideo(std::filesystem::path path, FakeLoop& loop, Events& events, PixelSize size)
      : file(std::move(path)), loop_(loop), events_(events), size_(size) {}
  void setRate(double value) override { rate_ = keptRate(value); }
  [[nodiscard]] double rate() const override { return rate_; }
  void setSoundLevel(double level) override { sound_ = level; }
  [[nodiscard]] double soundLevel() const override { return sound_; }
  std::shared_ptr<Layer> makeLayer() override {
    auto made = std::make_shared<FakeLayer>("player", events_);
    layer = made;
    return made;
  }
  void load(Loaded done) override {
    std::expected<PixelSize, std::string> result = size_;
    if (!std::filesystem::exists(file)) {
      result = std::unexpected(std::string("The file doesn't exist."));
    }
    loop_.post([done = std::move(done), result] { done(result); });
  }
  void play() override {
    playing = true;
    events_.push_back("play " + file.filename().string());
  }
  void pause() override {
    playing = false;
    events_.push_back("pause " + file.filename().string());
  }
  void stop() override {
    playing = false;
    stopped = true;
    events_.push_back("stop " + file.filename().string());
  }
  std::optional<std::vector<double>> sampleLuminances(const std::vector<FitRect>& regions) override {
    sampledRegions = regions;
    if (!playing || !luminanceAt) {
      return std::nullopt;
    }
    return std::vector<double>(regions.size(), luminanceAt(loop_.now));
  }

  std::filesystem::path file;
  TrimRange trim;
  std::weak_ptr<FakeLayer> layer;
  bool playing = false;
  bool stopped = false;
  std::function<double(double)> luminanceAt;  // of the media clock
  std::vector<FitRect> sampledRegions;

 private:
  FakeLoop& loop_;
  Events& events_;
  PixelSize size_;
  double rate_ = 1;
  double sound_ = 0;
};

class FakeImage : public DecodedImage {
 public:
  FakeImage(PixelSize size, std::vector<double> luminances, std::vector<double> delays)
      : size_(size), luminances_(std::move(luminances)), delays_(std::move(delays)) {}
  [[nodiscard]] bool isAnimated() const override { return luminances_.size() > 1; }
  [[nodiscard]] PixelSize pixelSize() const override { return size_; }
  [[nodiscard]] std::vector<double> frameDelays() const override { return delays_; }
  [[nodiscard]] std::vector<double> frameLuminances(const FitRect& region) const override {
    ++judged;
    judgedRegion = region;
    return luminances_;
  }
  mutable int judged = 0;
  mutable FitRect judgedRegion;

 private:
  PixelSize size_;
  std::vector<double> luminances_;
  std::vector<double> delays_;
};

class FakeAnimation : public AnimatedWallpaper {
 public:
  FakeAnimation(std::shared_ptr<DecodedImage> shown, Events& events)
      : image(std::move(shown)), layer_(std::make_shared<FakeLayer>("picture", events)), events_(events) {}
  void install(Layer& on) override {
    on.addSublayer(layer_);
    events_.push_back("animation installed");
  }
  void remove(Layer&) override {
    layer_->removeFromSuperlayer();
    events_.push_back("animation removed");
  }
  Layer& layer() override { return *layer_; }
  std::shared_ptr<DecodedImage> image;

 private:
  std::shared_ptr<FakeLayer> layer_;
  Events& events_;
};

class FakeMedia : public MediaFactory {
 public:
  FakeMedia(FakeLoop& loop, Events& events) : loop_(loop), events_(events) {}
  std::shared_ptr<VideoWallpaper> makeVideo(const std::filesystem::path& file, const TrimRange& trim) override {
    auto video = std::make_shared<FakeVideo>(file, loop_, events_, videoSize);
    video->trim = trim;
    video->luminanceAt = luminanceAt;
    videos.push_back(video);
    return video;
  }
  std::expected<std::shared_ptr<DecodedImage>, std::string> loadImage(const std::filesystem::path& file) override {
    const auto found = images.find(file.filename().string());
    if (found == images.end() || !std::filesystem::exists(file)) {
      return std::unexpected(std::string("not a picture"));
    }
    return found->second;
  }
  std::shared_ptr<AnimatedWallpaper> makeAnimation(const std::shared_ptr<DecodedImage>& image) override {
    auto animation = std::make_shared<FakeAnimation>(image, events_);
    animations.push_back(animation);
    return animation;
  }

  PixelSize videoSize{1280, 720};
  std::function<double(double)> luminanceAt;
  std::map<std::string, std::shared_ptr<FakeImage>> images;  // by file name
  std::vector<std::weak_ptr<FakeVideo>> videos;
  std::vector<std::weak_ptr<FakeAnimation>> animations;

 private:
  FakeLoop& loop_;
  Events& events_;
};

}  // namespace korvalen::saver::fakes
