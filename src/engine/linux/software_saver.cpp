#include "engine/linux/software_saver.hpp"

#include "core/playback/flash_analyzer.hpp"
#include "engine/media_decoder.hpp"

#include <algorithm>
#include <cmath>
#include <thread>

namespace korvalen::engine {
namespace {

class SoftwareTimer final : public saver::Timer {
 public:
  explicit SoftwareTimer(std::shared_ptr<bool> alive) : alive_(std::move(alive)) {}
  ~SoftwareTimer() override { *alive_ = false; }
  SoftwareTimer(const SoftwareTimer&) = delete;
  SoftwareTimer& operator=(const SoftwareTimer&) = delete;
  void invalidate() override { *alive_ = false; }

 private:
  std::shared_ptr<bool> alive_;
};

// The whole pixels of `target` an area covers: left, top, right, bottom (exclusive).
std::array<std::int64_t, 4> pixelsOf(const Picture& target, const Area& area) {
  const auto edge = [](double at, std::int64_t size) { return std::clamp<std::int64_t>(std::llround(at), 0, size); };
  return {edge(area.x, target.width), edge(area.y, target.height), edge(area.x + area.width, target.width),
          edge(area.y + area.height, target.height)};
}

// Dim and saturation: each colour through the colour-matrix filter's vectors.
void applyColorMatrix(Picture& target, const Area& area, const std::array<std::array<double, 4>, 5>& m) {
  const auto [x0, y0, x1, y1] = pixelsOf(target, area);
  for (std::int64_t y = y0; y < y1; ++y) {
    for (std::int64_t x = x0; x < x1; ++x) {
      auto* pixel = target.bgra.data() + (y * target.width + x) * 4;
      const double r = pixel[2] / 255.0;
      const double g = pixel[1] / 255.0;
      const double b = pixel[0] / 255.0;
      // Vectors 0..2 make red, green and blue from (r, g, b, a = 1); vector 4 is the bias.
      for (int out = 0; out < 3; ++out) {
        const auto& v = m[static_cast<std::size_t>(out)];
        const double value = v[0] * r + v[1] * g + v[2] * b + v[3] + m[4][static_cast<std::size_t>(out)];
        pixel[2 - out] = static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 1.0) * 255));
      }
    }
  }
}

// Sharpening: each pixel pushed away from the mean of its 3x3 neighbourhood.
void sharpen(Picture& target, const Area& area, double amount) {
  const auto [x0, y0, x1, y1] = pixelsOf(target, area);
  const Picture before = target;
  for (std::int64_t y = y0; y < y1; ++y) {
    for (std::int64_t x = x0; x < x1; ++x) {
      for (int channel = 0; channel < 3; ++channel) {
        double sum = 0;
        int count = 0;
        for (std::int64_t dy = -1; dy <= 1; ++dy) {
          for (std::int64_t dx = -1; dx <= 1; ++dx) {
            const auto nx = std::clamp(x + dx, x0, x1 - 1);
            const auto ny = std::clamp(y + dy, y0, y1 - 1);
            sum += before.at(nx, ny)[channel];
            ++count;
          }
        }
        const double here = before.at(x, y)[channel];
        const double value = here + amount * (here - sum / count);
        target.bgra[static_cast<std::size_t>((y * target.width + x) * 4 + channel)] =
            static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
      }
    }
  }
}

// A layer's placement in target pixels: its own point (x, y) lands at (ox + sx x, oy + sy y).
struct Placement {
  double ox = 0;
  double oy = 0;
  double sx = 1;
  double sy = 1;
};

void composeLayer(const SoftwareLayer& layer, double time, double parentTime, const Placement& parent, const Area& clip,
                  Picture& target) {
  if (layer.hidden) {
    return;
  }
  const double localTime = layer.localTime(time, parentTime);
  // The frame in the parent's space, then the layer's scale about its own centre.
  const auto& f = layer.frame;
  Placement own;
  own.sx = parent.sx * layer.scaleX;
  own.sy = parent.sy * layer.scaleY;
  own.ox = parent.ox + parent.sx * (f.x + f.width / 2) - own.sx * f.width / 2;
  own.oy = parent.oy + parent.sy * (f.y + f.height / 2) - own.sy * f.height / 2;
  const Area covered = Area{own.ox, own.oy, own.sx * f.width, own.sy * f.height}.normalised();
  const Area inside = clip.intersection(covered);
  if (layer.content) {
    if (const Picture* picture = layer.content(localTime); picture != nullptr && f.width > 0 && f.height > 0) {
      // Target x -> own x = (x - ox) / sx -> picture x = own x * picture.width / f.width.
      const double kx = static_cast<double>(picture->width) / f.width;
      const double ky = static_cast<double>(picture->height) / f.height;
      drawPicture(target, *picture, Mapping{-own.ox / own.sx * kx, kx / own.sx},
                  Mapping{-own.oy / own.sy * ky, ky / own.sy}, inside);
    }
  }
  for (const auto& child : layer.children) {
    composeLayer(*child, time, localTime, own, layer.masks ? inside : clip, target);
  }
  if (layer.filters) {
    if (layer.filters->colorMatrix) {
      applyColorMatrix(target, inside, *layer.filters->colorMatrix);
    }
    if (layer.filters->sharpen > 0) {
      sharpen(target, inside, layer.filters->sharpen);
    }
  }
}

Picture pictureOf(DecodedFrame&& frame) {
  Picture picture;
  picture.width = frame.width;
  picture.height = frame.height;
  picture.bgra = std::move(frame.pixels);
  return picture;
}

// A video on the software engine: decoded ahead on the decoder's thread, shown by the loop's
// clock at the video's rate, its stretch looped.
class SoftwareVideo final : public saver::VideoWallpaper, public std::enable_shared_from_this<SoftwareVideo> {
 public:
  SoftwareVideo(std::filesystem::path file, TrimRange trim, SaverLoop& loop)
      : file_(std::move(file)), trim_(trim), loop_(loop) {}

  void setRate(double rate) override {
    rebase();
    rate_ = keptRate(rate);
  }
  [[nodiscard]] double rate() const override { return rate_; }
  // Kept for the sound, which the window host plays.
  void setSoundLevel(double level) override { level_ = level; }
  [[nodiscard]] double soundLevel() const override { return level_; }
  std::shared_ptr<saver::Layer> makeLayer() override {
    auto layer = std::make_shared<SoftwareLayer>(loop_, Area{});
    std::weak_ptr<SoftwareVideo> self = weak_from_this();
    layer->content = [self](double) -> const Picture* {
      auto video = self.lock();
      return video ? video->shown() : nullptr;
    };
    return layer;
  }
  void load(Loaded done) override {
    DecoderOptions options;
    options.start = std::max(trim_.start, 0.0);
    options.end = trim_.end > trim_.start ? trim_.end : std::numeric_limits<double>::infinity();
    options.loop = true;
    std::weak_ptr<SoftwareVideo> self = weak_from_this();
    loop_.beginWork();
    std::thread([self, file = file_, options, done = std::move(done), &loop = loop_]() mutable {
      auto opened = MediaDecoder::open(file, options);
      std::shared_ptr<MediaDecoder> decoder;
      std::expected<saver::PixelSize, std::string> result = std::unexpected(std::string());
      if (opened) {
        decoder = std::move(*opened);
        result = saver::PixelSize{decoder->info().width, decoder->info().height};
      } else {
        result = std::unexpected(opened.error());
      }
      loop.finishWork([self, decoder, result, done = std::move(done)] {
        if (auto video = self.lock(); video && decoder) {
          video->decoder_ = decoder;
          video->takeFrame();  // the first frame shows at once, playing or held
        }
        done(result);
      });
    }).detach();
  }
  void play() override {
    rebase();
    playing_ = true;
  }
  void pause() override {
    rebase();
    playing_ = false;
  }
  void stop() override {
    playing_ = false;
    decoder_.reset();
  }
  std::optional<std::vector<double>> sampleLuminances(const std::vector<FitRect>& regions) override {
    const Picture* picture = shown();
    if (picture == nullptr) {
      return std::nullopt;
    }
    std::vector<double> values;
    values.reserve(regions.size());
    for (const auto& region : regions) {
      values.push_back(
          saver::regionLuminance(picture->bgra, picture->width, picture->height, picture->width * 4, region));
    }
    return values;
  }

 private:
  // Where the video is in its own timeline (seconds played) at the loop's present.
  [[nodiscard]] double position() const {
    return playing_ ? position_ + (loop_.mediaTime() - since_) * rate_ : position_;
  }
  void rebase() {
    position_ = position();
    since_ = loop_.mediaTime();
  }
  // The next decoded frame becomes the one shown; false at the end or on an error.
  bool takeFrame() {
    if (!decoder_) {
      return false;
    }
    DecodedFrame frame;
    frame.pixels = std::move(spare_);
    const auto more = decoder_->next(frame);
    if (!more || !*more) {
      return false;
    }
    if (!current_) {
      passStart_ = frame.seconds;
    } else if (frame.pass != pass_) {
      // A new pass over the stretch: the timeline goes on from where the last one ended.
      passOffset_ += lastEnd_ - passStart_;
      passStart_ = frame.seconds;
    }
    pass_ = frame.pass;
    lastEnd_ = frame.seconds + frame.duration;
    if (current_) {
      spare_ = std::move(current_->bgra);
    }
    current_ = pictureOf(std::move(frame));
    return true;
  }
  // Frames up to the present position, then the one now shown.
  const Picture* shown() {
    if (current_ && decoder_) {
      const double at = position();
      // The next frame starts where this one ends; never more than a pass's worth at once.
      for (int taken = 0; taken < 10000 && lastEnd_ - passStart_ + passOffset_ <= at + 1e-9; ++taken) {
        if (!takeFrame()) {
          break;
        }
      }
    }
    return current_ ? &*current_ : nullptr;
  }

  std::filesystem::path file_;
  TrimRange trim_;
  SaverLoop& loop_;
  std::shared_ptr<MediaDecoder> decoder_;
  std::optional<Picture> current_;
  std::vector<std::uint8_t> spare_;
  double rate_ = 1;
  double level_ = 0;
  bool playing_ = false;
  double position_ = 0;
  double since_ = 0;
  std::int64_t pass_ = 0;
  double passStart_ = 0;
  double passOffset_ = 0;
  double lastEnd_ = 0;
};

class SoftwareImage final : public saver::DecodedImage {
 public:
  SoftwareImage(std::vector<Picture> frames, std::vector<double> delays)
      : frames_(std::move(frames)), delays_(std::move(delays)) {}
  [[nodiscard]] bool isAnimated() const override { return frames_.size() > 1; }
  [[nodiscard]] saver::PixelSize pixelSize() const override { return {frames_[0].width, frames_[0].height}; }
  [[nodiscard]] std::vector<double> frameDelays() const override { return delays_; }
  [[nodiscard]] std::vector<double> frameLuminances(const FitRect& region) const override {
    std::vector<double> values;
    values.reserve(frames_.size());
    for (const auto& frame : frames_) {
      values.push_back(saver::regionLuminance(frame.bgra, frame.width, frame.height, frame.width * 4, region));
    }
    return values;
  }
  // The frame shown `seconds` into the loop.
  [[nodiscard]] const Picture* frameAt(double seconds) const {
    double total = 0;
    for (const double delay : delays_) {
      total += delay;
    }
    if (frames_.size() < 2 || !(total > 0) || !std::isfinite(seconds)) {
      return &frames_[0];
    }
    double at = std::fmod(seconds, total);
    if (at < 0) {
      at += total;
    }
    for (std::size_t i = 0; i < frames_.size(); ++i) {
      if (at < delays_[i]) {
        return &frames_[i];
      }
      at -= delays_[i];
    }
    return &frames_.back();
  }

 private:
  std::vector<Picture> frames_;
  std::vector<double> delays_;
};

class SoftwareAnimation final : public saver::AnimatedWallpaper {
 public:
  SoftwareAnimation(std::shared_ptr<SoftwareImage> image, const SaverLoop& loop)
      : image_(std::move(image)), layer_(std::make_shared<SoftwareLayer>(loop, Area{})) {
    layer_->content = [image = image_](double localTime) { return image->frameAt(localTime); };
  }
  void install(saver::Layer& on) override { on.addSublayer(layer_); }
  void remove(saver::Layer&) override { layer_->removeFromSuperlayer(); }
  saver::Layer& layer() override { return *layer_; }

 private:
  std::shared_ptr<SoftwareImage> image_;
  std::shared_ptr<SoftwareLayer> layer_;
};

constexpr std::size_t maximumPictureFrames = 2000;

class SoftwareMedia final : public saver::MediaFactory {
 public:
  explicit SoftwareMedia(SaverLoop& loop) : loop_(loop) {}
  std::shared_ptr<saver::VideoWallpaper> makeVideo(const std::filesystem::path& file, const TrimRange& trim) override {
    return std::make_shared<SoftwareVideo>(file, trim, loop_);
  }
  std::expected<std::shared_ptr<saver::DecodedImage>, std::string> loadImage(
      const std::filesystem::path& file) override {
    auto decoder = MediaDecoder::open(file);
    if (!decoder) {
      return std::unexpected(decoder.error());
    }
    std::vector<Picture> frames;
    std::vector<double> delays;
    DecodedFrame frame;
    while (frames.size() < maximumPictureFrames) {
      const auto more = (*decoder)->next(frame);
      if (!more) {
        return std::unexpected(more.error());
      }
      if (!*more) {
        break;
      }
      delays.push_back(frame.duration);
      frames.push_back(pictureOf(std::move(frame)));
      frame = DecodedFrame{};
    }
    if (frames.empty()) {
      return std::unexpected(file.string() + ": no picture in it could be decoded");
    }
    return std::make_shared<SoftwareImage>(std::move(frames), std::move(delays));
  }
  std::shared_ptr<saver::AnimatedWallpaper> makeAnimation(const std::shared_ptr<saver::DecodedImage>& image) override {
    return std::make_shared<SoftwareAnimation>(std::static_pointer_cast<SoftwareImage>(image), loop_);
  }

 private:
  SaverLoop& loop_;
};

class SoftwareSurface final : public saver::ScreenSurface {
 public:
  explicit SoftwareSurface(const SaverLoop& loop) : loop_(loop) {}
  Layers makeLayers(saver::Size covering) override {
    const Area all{0, 0, covering.width, covering.height};
    auto slot = std::make_shared<SoftwareLayer>(loop_, all);
    auto content = std::make_shared<SoftwareLayer>(loop_, all);
    slot->masks = true;
    content->masks = true;
    slot->addSublayer(content);
    return {slot, content};
  }
  void resize(saver::Layer& layer, saver::Size covering) override {
    static_cast<SoftwareLayer&>(layer).frame = Area{0, 0, covering.width, covering.height};
  }
  std::optional<saver::Filters> appearanceFilters(double dim, double saturation, double sharpen) override {
    return saver::Filters::forAppearance(dim, saturation, sharpen);
  }
  VideoPlacement placement(const saver::Screen& on, std::int64_t contentWidth, std::int64_t contentHeight, FitMode fit,
                           const std::optional<CropRect>& crop) override {
    // One point is one pixel here.
    return VideoFit::compute(contentWidth, contentHeight, std::llround(on.frame.width), std::llround(on.frame.height),
                             fit, crop);
  }
  void place(const VideoPlacement& placement, saver::Layer& content) override {
    const auto& d = placement.destination;
    static_cast<SoftwareLayer&>(content).frame = Area{d.x, d.y, d.width, d.height};
  }
  void crop(saver::Layer& picture, const VideoPlacement& placement) override {
    // The whole picture, scaled so that the visible part fills the content layer.
    const auto& c = placement.sourceCrop;
    const auto& d = placement.destination;
    const double width = c.width > 0 ? d.width / c.width : d.width;
    const double height = c.height > 0 ? d.height / c.height : d.height;
    static_cast<SoftwareLayer&>(picture).frame = Area{-c.x * width, -c.y * height, width, height};
  }

 private:
  const SaverLoop& loop_;
};

class FixedIdentity final : public saver::ScreenIdentity {
 public:
  explicit FixedIdentity(std::string id) : id_(std::move(id)) {}
  std::string stableID(const saver::Screen&) override { return id_; }

 private:
  std::string id_;
};

class SoftwareView final : public saver::HostView {
 public:
  SoftwareView(const SoftwareScreen& screen, const SaverLoop& loop)
      : screen_(screen),
        root(std::make_shared<SoftwareLayer>(loop, Area{0, 0, screen.size.width, screen.size.height})) {}
  [[nodiscard]] bool isPreview() const override { return screen_.preview; }
  [[nodiscard]] saver::Size bounds() const override { return screen_.size; }
  [[nodiscard]] bool hasWindow() const override { return true; }
  [[nodiscard]] std::optional<saver::Screen> windowScreen() const override { return saver::Screen{0, screen_.size}; }
  [[nodiscard]] std::optional<saver::Screen> mainScreen() const override { return windowScreen(); }
  saver::Layer& layer() override { return *root; }
  void prepareLayer() override {}  // the picture starts black
  void setAnimationTimeInterval(double) override {}
  void observeStopNotifications(std::function<void(const std::string&)>) override {}
  void stopObservingStopNotifications() override {}

  SoftwareScreen screen_;
  std::shared_ptr<SoftwareLayer> root;
};

}  // namespace

std::unique_ptr<saver::Timer> SaverLoop::scheduleRepeating(double seconds, std::function<void()> tick) {
  auto alive = std::make_shared<bool>(true);
  entries_.push_back(Entry{seconds, now_ + seconds, std::move(tick), alive});
  return std::make_unique<SoftwareTimer>(alive);
}

void SaverLoop::beginWork() {
  std::lock_guard lock(mutex_);
  ++working_;
}

void SaverLoop::finishWork(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    posted_.push_back(std::move(task));
    --working_;
  }
  changed_.notify_all();
}

void SaverLoop::runPosted(std::unique_lock<std::mutex>& lock) {
  // Loads finish "at once" on this clock: wait for them rather than let the wall clock decide.
  while (true) {
    changed_.wait(lock, [&] { return working_ == 0 || !posted_.empty(); });
    if (posted_.empty()) {
      return;
    }
    auto task = std::move(posted_.front());
    posted_.pop_front();
    lock.unlock();
    task();
    lock.lock();
  }
}

void SaverLoop::runUntil(double time) {
  std::unique_lock lock(mutex_);
  runPosted(lock);
  lock.unlock();
  std::erase_if(entries_, [](const Entry& entry) { return !*entry.alive; });
  while (true) {
    const Entry* next = nullptr;
    for (const auto& entry : entries_) {
      if (*entry.alive && entry.due <= time + 1e-9 && (next == nullptr || entry.due < next->due)) {
        next = &entry;
      }
    }
    if (next == nullptr) {
      break;
    }
    now_ = std::max(now_, next->due);
    const auto index = static_cast<std::size_t>(next - entries_.data());
    entries_[index].due += entries_[index].interval;
    auto tick = entries_[index].tick;  // a tick may schedule timers, which moves `entries_`
    tick();
    lock.lock();
    runPosted(lock);
    lock.unlock();
  }
  now_ = std::max(now_, time);
}

void SoftwareLayer::addSublayer(const std::shared_ptr<Layer>& child) {
  auto software = std::static_pointer_cast<SoftwareLayer>(child);
  software->removeFromSuperlayer();
  software->parent = this;
  children.push_back(std::move(software));
}

void SoftwareLayer::removeFromSuperlayer() {
  if (parent == nullptr) {
    return;
  }
  auto& siblings = parent->children;
  std::erase_if(siblings, [this](const auto& child) { return child.get() == this; });
  parent = nullptr;
}

void SoftwareLayer::setSpeed(double speed) {
  // The layer's time goes on from where it is, at the new speed.
  baseLocal_ = localTime(loop_.mediaTime(), loop_.mediaTime());
  base_ = loop_.mediaTime();
  speed_ = std::isfinite(speed) ? speed : 0;
  ownClock_ = true;
}

void SoftwareLayer::setTimeOffset(double seconds) {
  baseLocal_ = std::isfinite(seconds) ? seconds : 0;
  base_ = loop_.mediaTime();
  ownClock_ = true;
}

double SoftwareLayer::localTime(double time, double parentTime) const {
  return ownClock_ ? baseLocal_ + (time - base_) * speed_ : parentTime;
}

void compose(const SoftwareLayer& root, double time, Picture& target) {
  std::fill(target.bgra.begin(), target.bgra.end(), std::uint8_t{0});
  for (std::size_t alpha = 3; alpha < target.bgra.size(); alpha += 4) {
    target.bgra[alpha] = 255;
  }
  const Area all{0, 0, static_cast<double>(target.width), static_cast<double>(target.height)};
  composeLayer(root, time, time, Placement{}, all, target);
}

struct SoftwareSaver::Parts {
  Parts(const SoftwareScreen& screen, SaverLoop& loop)
      : view(screen, loop), surface(loop), identity(screen.id), media(loop) {}
  SoftwareView view;
  SoftwareSurface surface;
  FixedIdentity identity;
  SoftwareMedia media;
};

SoftwareSaver::SoftwareSaver(const SoftwareScreen& screen)
    : loop_(std::make_unique<SaverLoop>()), parts_(std::make_unique<Parts>(screen, *loop_)) {}

SoftwareSaver::~SoftwareSaver() {
  // Loads still under way post to the loop: let them land before it goes.
  loop_->runUntil(loop_->mediaTime());
}

saver::Platform SoftwareSaver::platform(paths::Environment environment) {
  return saver::Platform{
      parts_->view, parts_->surface, parts_->identity, parts_->media, *loop_, std::move(environment), [] {
        return paths::recordedHomeFolder();
      }};
}

void SoftwareSaver::draw(Picture& target) {
  compose(*parts_->view.root, loop_->mediaTime(), target);
}

}  // namespace korvalen::engine
