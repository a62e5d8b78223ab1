#include "engine/software/software_video.hpp"

#include "core/playback/flash_analyzer.hpp"
#include "engine/media_decoder.hpp"
#include "engine/software/software_image.hpp"
#include "engine/software/software_layer.hpp"
#include "engine/software/video_feeds.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <thread>

namespace korvalen::engine {
namespace {

class SoftwareVideo final : public scene::VideoWallpaper, public std::enable_shared_from_this<SoftwareVideo> {
 public:
  SoftwareVideo(std::filesystem::path file, TrimRange trim, SaverLoop& loop, std::shared_ptr<SoundOutput> output,
                std::shared_ptr<VideoFeeds> feeds)
      : file_(std::move(file)), trim_(trim), loop_(loop), output_(std::move(output)), feeds_(std::move(feeds)) {}
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
  std::shared_ptr<scene::Layer> makeLayer() override {
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
    // Two frames ahead keep up with any display (the decoder outruns playback); each more is
    // a whole frame of memory.
    options.queue = 2;
    // Converted when drawn: straight into the window's memory, and only the frames shown.
    options.convertWhenDrawn = true;
    // A silent video decodes no sound at all.
    const int soundRate = output_ && level_ > 0 ? output_->sampleRate() : 0;
    std::weak_ptr<SoftwareVideo> self = weak_from_this();
    const VideoFeeds::Key key{file_, options.start, options.end};
    loop_.beginWork();
    std::thread([self, file = file_, options, soundRate, done = std::move(done), key, &loop = loop_]() mutable {
      auto opened = MediaDecoder::open(file, options);
      std::shared_ptr<MediaDecoder> decoder;
      std::shared_ptr<SoundTrack> sound;
      std::expected<scene::PixelSize, std::string> result = std::unexpected(std::string());
      if (opened) {
        decoder = std::move(*opened);
        result = scene::PixelSize{decoder->info().width, decoder->info().height};
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
                       done = std::move(done), key] {
        if (auto video = self.lock(); video && decoder) {
          video->attachFeed(key, decoder);
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
    feed_.reset();
    stopSound();
  }
  std::optional<std::vector<double>> sampleLuminances(const std::vector<FitRect>& regions) override {
    const Picture* picture = shown();
    if (picture == nullptr) {
      return std::nullopt;
    }
    std::vector<double> values;
    values.reserve(regions.size());
    // A frame still to be converted is measured on a sample of its pixels, as many as the
    // luminance reads anyway, rather than converted whole.
    const Picture& pixels = picture->source ? picture->source->sampled(regionLuminanceBudget) : *picture;
    for (const auto& region : regions) {
      values.push_back(regionLuminance(pixels.bgra, pixels.width, pixels.height, pixels.width * 4, region));
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
  // Plays from the feed another video of the program shows this stretch from, joining it at
  // its newest frame, or from its own decoder, offered to the others.
  void attachFeed(const VideoFeeds::Key& key, const std::shared_ptr<MediaDecoder>& decoder) {
    if (feeds_) {
      if (auto shared = feeds_->find(key)) {
        feed_ = std::move(shared);
        cursor_ = feed_->join();
        return;  // the decoder opened for it closes unused
      }
    }
    feed_ = std::make_shared<VideoFeed>(decoder);
    if (feeds_) {
      feeds_->add(key, feed_);
    }
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
    if (!feed_) {
      return false;
    }
    DecodedFrame frame;
    const auto more = feed_->next(cursor_, frame, wait);
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
    current_ = pictureOf(std::move(frame));
    return true;
  }
  // Frames up to the present position, then the one now shown.
  const Picture* shown() {
    if (current_ && feed_) {
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
  std::shared_ptr<VideoFeeds> feeds_;
  std::shared_ptr<VideoFeed> feed_;
  VideoFeed::Cursor cursor_;
  std::shared_ptr<SoundTrack> sound_;
  std::optional<Picture> current_;
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

}  // namespace

std::shared_ptr<scene::VideoWallpaper> makeSoftwareVideo(std::filesystem::path file, TrimRange trim, SaverLoop& loop,
                                                         std::shared_ptr<SoundOutput> output,
                                                         std::shared_ptr<VideoFeeds> feeds) {
  return std::make_shared<SoftwareVideo>(std::move(file), trim, loop, std::move(output), std::move(feeds));
}

}  // namespace korvalen::engine
