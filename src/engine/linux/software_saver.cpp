#include "engine/linux/software_saver.hpp"

#include "core/playback/flash_analyzer.hpp"
#include "engine/media_decoder.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
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
std::array<std::int64_t, 4> pixelsOf(const Canvas& target, const Area& area) {
  const auto edge = [](double at, std::int64_t size) { return std::clamp<std::int64_t>(std::llround(at), 0, size); };
  return {edge(area.x, target.width), edge(area.y, target.height), edge(area.x + area.width, target.width),
          edge(area.y + area.height, target.height)};
}

// Dim and saturation: each colour through the colour-matrix filter's vectors.
void applyColorMatrix(const Canvas& target, const Area& area, const std::array<std::array<double, 4>, 5>& m) {
  const auto [x0, y0, x1, y1] = pixelsOf(target, area);
  for (std::int64_t y = y0; y < y1; ++y) {
    for (std::int64_t x = x0; x < x1; ++x) {
      auto* pixel = target.row(y) + x * 4;
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
void sharpen(const Canvas& target, const Area& area, double amount) {
  const auto [x0, y0, x1, y1] = pixelsOf(target, area);
  if (x1 <= x0 || y1 <= y0) {
    return;
  }
  // The area as it was, since each pixel reads its neighbours' old values.
  Picture before(x1 - x0, y1 - y0);
  for (std::int64_t y = y0; y < y1; ++y) {
    std::copy_n(target.row(y) + x0 * 4, (x1 - x0) * 4, before.bgra.data() + (y - y0) * before.width * 4);
  }
  for (std::int64_t y = y0; y < y1; ++y) {
    for (std::int64_t x = x0; x < x1; ++x) {
      for (int channel = 0; channel < 3; ++channel) {
        double sum = 0;
        int count = 0;
        for (std::int64_t dy = -1; dy <= 1; ++dy) {
          for (std::int64_t dx = -1; dx <= 1; ++dx) {
            const auto nx = std::clamp(x + dx, x0, x1 - 1);
            const auto ny = std::clamp(y + dy, y0, y1 - 1);
            sum += before.at(nx - x0, ny - y0)[channel];
            ++count;
          }
        }
        const double here = before.at(x - x0, y - y0)[channel];
        const double value = here + amount * (here - sum / count);
        target.row(y)[x * 4 + channel] = static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
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

// The frame in the parent's space, then the layer's scale about its own centre.
Placement placementOf(const SoftwareLayer& layer, const Placement& parent) {
  const auto& f = layer.frame;
  Placement own;
  own.sx = parent.sx * layer.scaleX;
  own.sy = parent.sy * layer.scaleY;
  own.ox = parent.ox + parent.sx * (f.x + f.width / 2) - own.sx * f.width / 2;
  own.oy = parent.oy + parent.sy * (f.y + f.height / 2) - own.sy * f.height / 2;
  return own;
}

Area coveredBy(const SoftwareLayer& layer, const Placement& own) {
  const auto& f = layer.frame;
  return Area{own.ox, own.oy, own.sx * f.width, own.sy * f.height}.normalised();
}

// Whether some layer's picture will be drawn over every pixel of `all`, opaque: then
// clearing to black first is wasted work (a whole frame's worth of writes).
bool picturesCover(const SoftwareLayer& layer, double time, double parentTime, const Placement& parent,
                   const Area& clip, const Area& all) {
  if (layer.hidden) {
    return false;
  }
  const double localTime = layer.localTime(time, parentTime);
  const auto own = placementOf(layer, parent);
  const Area inside = clip.intersection(coveredBy(layer, own));
  const bool whole = inside.x <= all.x && inside.y <= all.y && inside.x + inside.width >= all.x + all.width &&
                     inside.y + inside.height >= all.y + all.height;
  if (whole && layer.content && layer.frame.width > 0 && layer.frame.height > 0) {
    if (const Picture* picture = layer.content(localTime); picture != nullptr && picture->width > 0) {
      return true;
    }
  }
  return std::any_of(layer.children.begin(), layer.children.end(), [&](const auto& child) {
    return picturesCover(*child, time, localTime, own, layer.masks ? inside : clip, all);
  });
}

void composeLayer(const SoftwareLayer& layer, double time, double parentTime, const Placement& parent, const Area& clip,
                  const Canvas& target) {
  if (layer.hidden) {
    return;
  }
  const double localTime = layer.localTime(time, parentTime);
  const auto& f = layer.frame;
  const auto own = placementOf(layer, parent);
  const Area inside = clip.intersection(coveredBy(layer, own));
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

// FNV-1a over the bits of each value: a key, not a defence against anyone.
class KeyBuilder {
 public:
  template <class T>
  void add(const T& value) {
    std::array<unsigned char, sizeof(T)> bytes{};
    std::memcpy(bytes.data(), &value, sizeof(T));
    for (const auto byte : bytes) {
      key_ = (key_ ^ byte) * 1099511628211ULL;
    }
  }
  // Which object it is, by address: the same layer or picture as last time.
  void addIdentity(const void* object) { add(reinterpret_cast<std::uintptr_t>(object)); }
  [[nodiscard]] std::uint64_t key() const { return key_; }

 private:
  std::uint64_t key_ = 14695981039346656037ULL;
};

void addLayer(KeyBuilder& key, const SoftwareLayer& layer, double time, double parentTime) {
  key.addIdentity(&layer);
  key.add(layer.hidden);
  if (layer.hidden) {
    return;
  }
  const double localTime = layer.localTime(time, parentTime);
  for (const double value :
       {layer.frame.x, layer.frame.y, layer.frame.width, layer.frame.height, layer.scaleX, layer.scaleY}) {
    key.add(value);
  }
  key.add(layer.masks);
  key.add(layer.filters.has_value());
  if (layer.filters) {
    key.add(layer.filters->sharpen);
    if (layer.filters->colorMatrix) {
      key.add(*layer.filters->colorMatrix);
    }
  }
  if (layer.content) {
    const Picture* picture = layer.content(localTime);
    key.addIdentity(picture);
    // Unnumbered pictures are taken to change every time.
    key.add(picture != nullptr ? (picture->serial != 0 ? picture->serial : Picture::freshSerial()) : 0);
  }
  key.add(layer.children.size());
  for (const auto& child : layer.children) {
    addLayer(key, *child, time, localTime);
  }
}

Picture pictureOf(DecodedFrame&& frame) {
  Picture picture;
  picture.width = frame.width;
  picture.height = frame.height;
  picture.bgra = std::move(frame.pixels);
  picture.serial = Picture::freshSerial();
  return picture;
}

// A video on the software engine: decoded ahead on the decoder's thread, shown by the loop's
// clock at the video's rate, its stretch looped; its sound, when it has a level and there is
// an output, decoded on a thread of its own and kept with the picture.
class SoftwareVideo final : public saver::VideoWallpaper, public std::enable_shared_from_this<SoftwareVideo> {
 public:
  SoftwareVideo(std::filesystem::path file, TrimRange trim, SaverLoop& loop, std::shared_ptr<SoundOutput> output)
      : file_(std::move(file)), trim_(trim), loop_(loop), output_(std::move(output)) {}
  ~SoftwareVideo() override { stopSound(); }
  SoftwareVideo(const SoftwareVideo&) = delete;
  SoftwareVideo& operator=(const SoftwareVideo&) = delete;

  void setRate(double rate) override {
    rebase();
    rate_ = keptRate(rate);
    if (sound_) {
      sound_->setRate(rate_);
    }
  }
  [[nodiscard]] double rate() const override { return rate_; }
  void setSoundLevel(double level) override {
    level_ = level;
    if (sound_) {
      sound_->setLevel(level);
    }
  }
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
    // A silent video decodes no sound at all.
    const int soundRate = output_ && level_ > 0 ? output_->sampleRate() : 0;
    std::weak_ptr<SoftwareVideo> self = weak_from_this();
    loop_.beginWork();
    std::thread([self, file = file_, options, soundRate, done = std::move(done), &loop = loop_]() mutable {
      auto opened = MediaDecoder::open(file, options);
      std::shared_ptr<MediaDecoder> decoder;
      std::shared_ptr<SoundTrack> sound;
      std::expected<saver::PixelSize, std::string> result = std::unexpected(std::string());
      if (opened) {
        decoder = std::move(*opened);
        result = saver::PixelSize{decoder->info().width, decoder->info().height};
        if (soundRate > 0) {
          // Sound that will not decode leaves the picture playing on its own.
          auto track = SoundTrack::open(file, options.start, options.end, soundRate);
          sound = track ? *track : nullptr;
        }
      } else {
        result = std::unexpected(opened.error());
      }
      // Everything goes to the loop: once posted, this thread owns nothing that could outlive
      // the view (a decoder's own thread, joined on destruction, least of all).
      loop.finishWork([self, decoder = std::move(decoder), sound = std::move(sound), result = std::move(result),
                       done = std::move(done)] {
        if (auto video = self.lock(); video && decoder) {
          video->decoder_ = decoder;
          video->takeFrame(true);  // the first frame shows at once, playing or held
          video->attachSound(sound);
        }
        done(result);
      });
    }).detach();
  }
  void play() override {
    rebase();
    playing_ = true;
    if (sound_) {
      sound_->follow(position());
      sound_->play();
    }
  }
  void pause() override {
    rebase();
    playing_ = false;
    if (sound_) {
      sound_->pause();
    }
  }
  void stop() override {
    playing_ = false;
    decoder_.reset();
    stopSound();
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
  void attachSound(std::shared_ptr<SoundTrack> sound) {
    if (!sound || !output_) {
      return;
    }
    sound_ = std::move(sound);
    sound_->setLevel(level_);
    sound_->setRate(rate_);
    output_->add(sound_);
    if (playing_) {
      play();
    }
  }
  void stopSound() {
    if (sound_) {
      output_->remove(*sound_);
      sound_->stop();
      sound_.reset();
    }
  }
  // The next decoded frame becomes the one shown; false at the end, on an error, or (when
  // not waiting) when it is not decoded yet.
  bool takeFrame(bool wait) {
    if (!decoder_) {
      return false;
    }
    DecodedFrame frame;
    frame.pixels = std::move(spare_);
    const auto more = wait ? decoder_->next(frame) : decoder_->tryNext(frame);
    if (!more || !*more) {
      spare_ = std::move(frame.pixels);
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
      const auto nextStart = [this] { return lastEnd_ - passStart_ + passOffset_; };
      for (int taken = 0; taken < 10000 && nextStart() <= at + 1e-9; ++taken) {
        if (!takeFrame(!loop_.live())) {
          break;
        }
      }
      if (playing_ && rate_ > 0) {
        loop_.wakeBy(since_ + (nextStart() - position_) / rate_);
      }
      if (sound_ && playing_) {
        sound_->follow(at);
      }
    }
    return current_ ? &*current_ : nullptr;
  }

  std::filesystem::path file_;
  TrimRange trim_;
  SaverLoop& loop_;
  std::shared_ptr<SoundOutput> output_;
  std::shared_ptr<MediaDecoder> decoder_;
  std::shared_ptr<SoundTrack> sound_;
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
  SoftwareMedia(SaverLoop& loop, std::shared_ptr<SoundOutput> sound) : loop_(loop), sound_(std::move(sound)) {}
  std::shared_ptr<saver::VideoWallpaper> makeVideo(const std::filesystem::path& file, const TrimRange& trim) override {
    return std::make_shared<SoftwareVideo>(file, trim, loop_, sound_);
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
  std::shared_ptr<SoundOutput> sound_;
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
  [[nodiscard]] bool hasWindow() const override { return inWindow; }
  [[nodiscard]] std::optional<saver::Screen> windowScreen() const override {
    if (!inWindow) {
      return std::nullopt;
    }
    return saver::Screen{0, screen_.screen.value_or(screen_.size)};
  }
  [[nodiscard]] std::optional<saver::Screen> mainScreen() const override { return windowScreen(); }
  saver::Layer& layer() override { return *root; }
  void prepareLayer() override {}  // the picture starts black
  void setAnimationTimeInterval(double) override {}
  void observeStopNotifications(std::function<void(const std::string&)>) override {}
  void stopObservingStopNotifications() override {}

  SoftwareScreen screen_;
  std::shared_ptr<SoftwareLayer> root;
  bool inWindow = true;
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
  // Notified under the lock: the moment it is released, the loop may run the task and be
  // destroyed, so the calling thread must not touch it afterwards.
  std::lock_guard lock(mutex_);
  posted_.push_back(std::move(task));
  --working_;
  changed_.notify_all();
  if (waker_) {
    waker_();
  }
}

bool SaverLoop::loading() {
  std::lock_guard lock(mutex_);
  return working_ > 0 || !posted_.empty();
}

void SaverLoop::wakeBy(double time) {
  wake_ = std::min(wake_, time);
}

double SaverLoop::nextWake() {
  double next = wake_;
  wake_ = std::numeric_limits<double>::infinity();
  for (const auto& entry : entries_) {
    if (*entry.alive) {
      next = std::min(next, entry.due);
    }
  }
  return next;
}

void SaverLoop::runPosted(std::unique_lock<std::mutex>& lock) {
  // Headless, loads finish "at once" on this clock: wait for them rather than let the wall
  // clock decide. Live, they land when they land.
  while (true) {
    changed_.wait(lock, [&] { return live_ || working_ == 0 || !posted_.empty(); });
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
  if (live_) {
    // After a stall a timer fires once, as a run-loop timer does, not once per missed tick.
    for (auto& entry : entries_) {
      if (entry.due + entry.interval < time) {
        entry.due = time;
      }
    }
  }
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

void compose(const SoftwareLayer& root, double time, const Canvas& target) {
  const Area all{0, 0, static_cast<double>(target.width), static_cast<double>(target.height)};
  if (!picturesCover(root, time, time, Placement{}, all, all)) {
    static constexpr std::uint32_t black = 0xFF000000U;  // B, G, R, A in memory
    for (std::int64_t y = 0; y < target.height; ++y) {
      auto* row = target.row(y);
      for (std::int64_t x = 0; x < target.width; ++x) {
        std::memcpy(row + x * 4, &black, 4);
      }
    }
  }
  composeLayer(root, time, time, Placement{}, all, target);
}

std::uint64_t sceneKey(const SoftwareLayer& root, double time) {
  KeyBuilder key;
  addLayer(key, root, time, time);
  return key.key();
}

struct SoftwareSaver::Parts {
  Parts(const SoftwareScreen& screen, SaverLoop& loop, std::shared_ptr<SoundOutput> sound)
      : view(screen, loop), surface(loop), identity(screen.id), media(loop, std::move(sound)) {}
  SoftwareView view;
  SoftwareSurface surface;
  FixedIdentity identity;
  SoftwareMedia media;
};

SoftwareSaver::SoftwareSaver(const SoftwareScreen& screen, std::shared_ptr<SoundOutput> sound)
    : loop_(std::make_unique<SaverLoop>()), parts_(std::make_unique<Parts>(screen, *loop_, std::move(sound))) {}

SoftwareSaver::~SoftwareSaver() {
  // Loads still under way post to the loop: let them land before it goes.
  loop_->setLive(false);
  loop_->runUntil(loop_->mediaTime());
}

saver::Platform SoftwareSaver::platform(paths::Environment environment) {
  return saver::Platform{
      parts_->view, parts_->surface, parts_->identity, parts_->media, *loop_, std::move(environment), [] {
        return paths::recordedHomeFolder();
      }};
}

bool SoftwareSaver::draw(const Canvas& target, bool onlyWhenChanged) {
  const auto& root = *parts_->view.root;
  if (onlyWhenChanged) {
    const auto key =
        sceneKey(root, loop_->mediaTime()) ^ static_cast<std::uint64_t>(target.width * 65537 + target.height);
    if (drawn_ == key) {
      return false;
    }
    drawn_ = key;
  } else {
    drawn_.reset();
  }
  compose(root, loop_->mediaTime(), target);
  return true;
}

void SoftwareSaver::setScreen(const SoftwareScreen& screen) {
  auto& view = parts_->view;
  view.screen_ = screen;
  view.root->frame = Area{0, 0, screen.size.width, screen.size.height};
}

void SoftwareSaver::leaveWindow() {
  parts_->view.inWindow = false;
}

}  // namespace korvalen::engine
