// MediaDecoder on the FFmpeg libraries (libavformat, libavcodec, libswscale).
#include "engine/media_decoder.hpp"

#include "engine/media/ffmpeg_support.hpp"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace korvalen::engine {
namespace {

struct ScalerFreer {
  void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

bool isAnimatedImage(std::string_view codec) {
  return codec == "gif" || codec == "apng" || codec == "webp";
}

// The region in whole source pixels, its origin aligned to the chroma grid of `pixels` so
// planes can be cropped by moving their start, at least one pixel each way.
struct Crop {
  int x = 0;
  int y = 0;
  int width = 1;
  int height = 1;
};

Crop cropFor(const FitRect& region, int width, int height, const AVPixFmtDescriptor* pixels) {
  const auto edge = [](double fraction, int size, bool up) {
    const double scaled = std::isfinite(fraction) ? std::clamp(fraction, 0.0, 1.0) * size : 0.0;
    return static_cast<int>(up ? std::ceil(scaled) : std::floor(scaled));
  };
  const int alignX = pixels != nullptr ? 1 << pixels->log2_chroma_w : 1;
  const int alignY = pixels != nullptr ? 1 << pixels->log2_chroma_h : 1;
  Crop crop;
  crop.x = std::min(edge(region.x, width, false), width - 1) / alignX * alignX;
  crop.y = std::min(edge(region.y, height, false), height - 1) / alignY * alignY;
  crop.width = std::max(edge(region.x + region.width, width, true), crop.x + 1) - crop.x;
  crop.height = std::max(edge(region.y + region.height, height, true), crop.y + 1) - crop.y;
  crop.width = std::min(crop.width, width - crop.x);
  crop.height = std::min(crop.height, height - crop.y);
  return crop;
}

// swscale's vector code writes whole blocks of pixels, past the end of a row whose width is
// not a multiple of 16: pictures get room there and keep their exact size, and conversions
// straight into someone else's memory are kept to widths that need none.
constexpr std::size_t slack = 256;
constexpr std::int64_t blockWidth = 16;

// How a decoded frame becomes BGRA: its region, the size made and the scaling.
struct Conversion {
  Crop crop;
  int width = 1;
  int height = 1;
  int method = SWS_POINT;
};

// Converts `frame`'s region as `how` says into `target` (rows `stride` bytes apart), with
// `scaler` kept between calls; false when the frame's format cannot be converted.
bool convertFrame(std::unique_ptr<SwsContext, ScalerFreer>& scaler, const AVFrame& frame, const Conversion& how,
                  std::uint8_t* target, int stride) {
  const auto format = static_cast<AVPixelFormat>(frame.format);
  const auto* layout = av_pix_fmt_desc_get(format);
  const auto& crop = how.crop;
  scaler.reset(sws_getCachedContext(scaler.release(), crop.width, crop.height, format, how.width, how.height,
                                    AV_PIX_FMT_BGRA, how.method, nullptr, nullptr, nullptr));
  if (!scaler || layout == nullptr) {
    return false;
  }
  std::array<const std::uint8_t*, 4> source{};
  const int planes = av_pix_fmt_count_planes(format);
  for (int plane = 0; plane < 4; ++plane) {
    source[static_cast<std::size_t>(plane)] = frame.data[plane];
    if (plane >= planes || frame.data[plane] == nullptr) {
      continue;  // a palette, or nothing
    }
    const bool chroma = (plane == 1 || plane == 2) && (layout->flags & AV_PIX_FMT_FLAG_RGB) == 0;
    const int rows = chroma ? crop.y >> layout->log2_chroma_h : crop.y;
    const int bytes = crop.x > 0 ? av_image_get_linesize(format, crop.x, plane) : 0;
    source[static_cast<std::size_t>(plane)] +=
        static_cast<std::ptrdiff_t>(rows) * frame.linesize[plane] + std::max(bytes, 0);
  }
  std::array<std::uint8_t*, 4> targets{target, nullptr, nullptr, nullptr};
  std::array<int, 4> strides{stride, 0, 0, 0};
  sws_scale(scaler.get(), source.data(), frame.linesize, 0, crop.height, targets.data(), strides.data());
  return true;
}

// Converts into `picture`, reusing its memory; black when the format cannot be converted.
void convertToPicture(std::unique_ptr<SwsContext, ScalerFreer>& scaler, const AVFrame& frame, const Conversion& how,
                      Picture& picture) {
  const auto bytes = static_cast<std::size_t>(how.width) * static_cast<std::size_t>(how.height) * 4;
  picture.width = how.width;
  picture.height = how.height;
  picture.bgra.resize(bytes + slack);
  if (!convertFrame(scaler, frame, how, picture.bgra.data(), how.width * 4)) {
    fillBlack(picture.canvas());
  }
  picture.bgra.resize(bytes);
}

// What a decoder's deferred frames share on the drawing thread (they may outlive the
// decoder): scalers for the sizes drawn at (two monitors of different sizes take turns), and
// the last frame converted whole and sampled, so a frame drawn or measured twice is
// converted once and the memory is reused from frame to frame.
struct DrawnConversions {
  struct Scaler {
    std::array<int, 5> shape{};  // source width and height, output width and height, method
    std::unique_ptr<SwsContext, ScalerFreer> context;
  };
  static constexpr std::size_t scalersKept = 4;
  std::deque<Scaler> scalers;
  std::unique_ptr<SwsContext, ScalerFreer> sampler;
  Picture converted;
  std::uint64_t convertedOf = 0;
  Picture sampled;
  std::uint64_t sampledOf = 0;

  std::unique_ptr<SwsContext, ScalerFreer>& scalerFor(const Conversion& how) {
    const std::array<int, 5> shape{how.crop.width, how.crop.height, how.width, how.height, how.method};
    for (auto& scaler : scalers) {
      if (scaler.shape == shape) {
        return scaler.context;
      }
    }
    if (scalers.size() >= scalersKept) {
      scalers.pop_front();
    }
    scalers.push_back(Scaler{shape, nullptr});
    return scalers.back().context;
  }
};

class DeferredFrame final : public PixelSource {
 public:
  DeferredFrame(const AVFrame& frame, const Conversion& how, std::shared_ptr<DrawnConversions> shared)
      : frame_(av_frame_clone(&frame)), how_(how), shared_(std::move(shared)) {}

  [[nodiscard]] bool valid() const { return frame_ != nullptr; }

  bool convertInto(const Canvas& target, const Area& part) const override {
    if (target.width < 1 || target.height < 1 || target.width % blockWidth != 0 || target.stride < target.width * 4 ||
        target.stride > std::numeric_limits<int>::max() || target.width > std::numeric_limits<int>::max() ||
        target.height > std::numeric_limits<int>::max()) {
      return false;
    }
    // The part in the file's pixels, within the region this frame shows.
    const double scaleX = static_cast<double>(how_.crop.width) / how_.width;
    const double scaleY = static_cast<double>(how_.crop.height) / how_.height;
    const auto edge = [](double at, int from, int size) { return std::clamp(at, double(from), double(from + size)); };
    const double left = edge(how_.crop.x + part.x * scaleX, how_.crop.x, how_.crop.width);
    const double top = edge(how_.crop.y + part.y * scaleY, how_.crop.y, how_.crop.height);
    const double right = edge(how_.crop.x + (part.x + part.width) * scaleX, how_.crop.x, how_.crop.width);
    const double bottom = edge(how_.crop.y + (part.y + part.height) * scaleY, how_.crop.y, how_.crop.height);
    Conversion how;
    // Edges within a hundredth of a pixel of a whole one are taken as it, so a picture at its
    // own size is converted exactly.
    const auto near = [](double at) { return std::abs(at - std::round(at)) < 0.01 ? std::round(at) : at; };
    how.crop = cropFor(FitRect{near(left) / frame_->width, near(top) / frame_->height,
                               (near(right) - near(left)) / frame_->width, (near(bottom) - near(top)) / frame_->height},
                       frame_->width, frame_->height, av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame_->format)));
    how.width = static_cast<int>(target.width);
    how.height = static_cast<int>(target.height);
    how.method = how.crop.width == how.width && how.crop.height == how.height ? SWS_POINT : SWS_BILINEAR;
    return convertFrame(shared_->scalerFor(how), *frame_, how, target.pixels, static_cast<int>(target.stride));
  }

  [[nodiscard]] const Picture& converted() const override {
    auto& shared = *shared_;
    if (shared.convertedOf != id_) {
      convertToPicture(shared.scalerFor(how_), *frame_, how_, shared.converted);
      shared.convertedOf = id_;
    }
    return shared.converted;
  }

  [[nodiscard]] const Picture& sampled(std::int64_t budget) const override {
    auto& shared = *shared_;
    if (shared.sampledOf != id_) {
      const double pixels = static_cast<double>(how_.width) * static_cast<double>(how_.height);
      const auto step = std::max<std::int64_t>(
          1, static_cast<std::int64_t>(std::sqrt(pixels / static_cast<double>(std::max<std::int64_t>(budget, 1)))));
      Conversion smaller = how_;
      smaller.width = static_cast<int>((how_.width + step - 1) / step);
      smaller.height = static_cast<int>((how_.height + step - 1) / step);
      smaller.method = SWS_POINT;
      convertToPicture(shared.sampler, *frame_, smaller, shared.sampled);
      shared.sampledOf = id_;
    }
    return shared.sampled;
  }

 private:
  static std::uint64_t nextId() {
    static std::atomic<std::uint64_t> counter{0};
    return ++counter;
  }

  std::unique_ptr<AVFrame, FrameFreer> frame_;
  Conversion how_;
  std::shared_ptr<DrawnConversions> shared_;
  std::uint64_t id_ = nextId();
};

}  // namespace

struct MediaDecoder::State {
  std::filesystem::path file;
  DecoderOptions options;
  MediaInfo info;
  Opened opened;
  AVRational timeBase{1, 1};
  std::int64_t firstPts = 0;
  double frameSeconds = 0;  // a frame's duration when the file gives none
  std::unique_ptr<AVPacket, PacketFreer> packet{av_packet_alloc()};
  std::unique_ptr<AVFrame, FrameFreer> decoded{av_frame_alloc()};
  std::unique_ptr<SwsContext, ScalerFreer> scaler;
  std::unique_ptr<SwsContext, ScalerFreer> posterScaler;
  std::shared_ptr<DrawnConversions> drawn = std::make_shared<DrawnConversions>();

  std::mutex mutex;
  std::condition_variable changed;
  std::deque<DecodedFrame> ready;
  std::vector<std::vector<std::uint8_t>> spare;
  std::optional<double> seekTo;
  bool ended = false;
  bool stopping = false;
  std::optional<std::string> error;
  std::thread worker;

  // Worker-only.
  std::int64_t index = 0;
  std::int64_t pass = 0;
  std::int64_t delivered = 0;
  double skipBefore = 0;
  std::optional<double> lastSeconds;
  bool rewoundBySeek = false;

  ~State() { finish(); }
  State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void finish() {
    {
      std::lock_guard lock(mutex);
      stopping = true;
    }
    changed.notify_all();
    if (worker.joinable()) {
      worker.join();
    }
  }

  [[nodiscard]] double stretchEnd() const {
    const double end = options.end;
    return end > options.start ? end : std::numeric_limits<double>::infinity();
  }

  // Back to `seconds` in the file: a seek when the container allows it, else opened again.
  // Some containers (MPEG-TS) seek by guessing a byte position and may land past the end;
  // a pass that then finds nothing opens the file again instead (`reopen`).
  bool rewind(double seconds, bool reopen = false) {
    const auto target = firstPts + static_cast<std::int64_t>(std::floor(seconds / av_q2d(timeBase)));
    rewoundBySeek = false;
    if (!reopen && av_seek_frame(opened.format.get(), opened.stream, target, AVSEEK_FLAG_BACKWARD) >= 0) {
      avcodec_flush_buffers(opened.codec.get());
      rewoundBySeek = true;
      return true;
    }
    auto again = openFile(file, AVMEDIA_TYPE_VIDEO);
    if (!again) {
      return false;
    }
    opened = std::move(*again);
    if (seconds > 0) {
      av_seek_frame(opened.format.get(), opened.stream, target, AVSEEK_FLAG_BACKWARD);
    }
    return true;
  }

  [[nodiscard]] bool wantsPoster(double seconds) const {
    const auto& poster = options.poster;
    return poster.from && seconds + 1e-6 >= *poster.from && poster.width > 0 && poster.height > 0 &&
           (poster.found == nullptr || !poster.found->load());
  }

  // The whole frame at the poster size, area-averaged; empty when it cannot be made.
  std::vector<std::uint8_t> posterOf(const AVFrame& frame, AVPixelFormat format) {
    const auto width = static_cast<int>(options.poster.width);
    const auto height = static_cast<int>(options.poster.height);
    posterScaler.reset(sws_getCachedContext(posterScaler.release(), frame.width, frame.height, format, width, height,
                                            AV_PIX_FMT_BGRA, SWS_AREA, nullptr, nullptr, nullptr));
    if (!posterScaler) {
      return {};
    }
    const auto bytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
    std::vector<std::uint8_t> pixels(bytes + slack);
    std::array<std::uint8_t*, 4> target{pixels.data(), nullptr, nullptr, nullptr};
    std::array<int, 4> targetStride{width * 4, 0, 0, 0};
    sws_scale(posterScaler.get(), frame.data, frame.linesize, 0, frame.height, target.data(), targetStride.data());
    pixels.resize(bytes);
    return pixels;
  }

  // The measuring step for a region of this size: the one asked for, or larger to keep
  // within the sample budget.
  [[nodiscard]] std::int64_t samplingStep(const Crop& crop) const {
    std::int64_t step = std::max<std::int64_t>(options.step, 1);
    if (options.sampleBudget > 0) {
      const double pixels = static_cast<double>(crop.width) * static_cast<double>(crop.height);
      step = std::max(step, static_cast<std::int64_t>(std::sqrt(pixels / static_cast<double>(options.sampleBudget))));
    }
    return std::min<std::int64_t>(step, std::max(crop.width, crop.height));
  }

  // Converts the decoded frame (or keeps it to convert when drawn) and queues it; false when
  // the worker is to stop or seek.
  bool deliver(const AVFrame& frame, double seconds, double duration) {
    std::vector<std::uint8_t> pixels;
    {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return stopping || seekTo || ready.size() < options.queue; });
      if (stopping || seekTo) {
        return false;
      }
      if (!spare.empty() && !options.convertWhenDrawn) {
        pixels = std::move(spare.back());
        spare.pop_back();
      }
    }
    const auto format = static_cast<AVPixelFormat>(frame.format);
    const auto* layout = av_pix_fmt_desc_get(format);
    Conversion how;
    how.crop = cropFor(options.region, frame.width, frame.height, layout);
    const auto& crop = how.crop;
    how.width = options.width > 0 ? static_cast<int>(options.width) : crop.width;
    how.height = options.height > 0 ? static_cast<int>(options.height) : crop.height;
    const auto step = samplingStep(crop);
    const bool sampled = step > 1 && options.width <= 0 && options.height <= 0;
    if (sampled) {
      how.width = static_cast<int>((crop.width + step - 1) / step);
      how.height = static_cast<int>((crop.height + step - 1) / step);
    }
    // Same size: an unscaled conversion, which swscale does fastest and exactly. Sampled:
    // nearest pixels, so each output pixel is one source pixel, as a step reads them.
    how.method = SWS_BILINEAR;
    if ((how.width == crop.width && how.height == crop.height) || sampled) {
      how.method = SWS_POINT;
    } else if (options.sampling == DecoderOptions::Sampling::area) {
      how.method = SWS_AREA;
    }
    const auto cannotConvert = [&] {
      std::lock_guard lock(mutex);
      error = fmt::format("{}: its {} pictures cannot be converted", file.string(), av_get_pix_fmt_name(format));
      return false;
    };
    if (layout == nullptr || sws_isSupportedInput(format) == 0) {
      return cannotConvert();
    }
    std::shared_ptr<const PixelSource> source;
    if (options.convertWhenDrawn) {
      auto deferred = std::make_shared<DeferredFrame>(frame, how, drawn);
      if (!deferred->valid()) {
        return cannotConvert();
      }
      source = std::move(deferred);
    } else {
      const auto bytes = static_cast<std::size_t>(how.width) * static_cast<std::size_t>(how.height) * 4;
      pixels.resize(bytes + slack);
      if (!convertFrame(scaler, frame, how, pixels.data(), how.width * 4)) {
        return cannotConvert();
      }
      pixels.resize(bytes);
    }
    const int width = how.width;
    const int height = how.height;
    DecodedFrame made{std::move(pixels), width, height, seconds, duration, index++, pass, {}, std::move(source)};
    if (wantsPoster(seconds)) {
      made.poster = posterOf(frame, format);
    }
    {
      std::lock_guard lock(mutex);
      if (stopping || seekTo) {
        spare.push_back(std::move(made.pixels));
        return false;
      }
      ready.push_back(std::move(made));
      ++delivered;
    }
    changed.notify_all();
    return true;
  }

  enum class Step { go, stop, endOfStretch };

  // One decoded frame: skipped before the stretch, the end after it, otherwise delivered.
  Step take(const AVFrame& frame) {
    std::int64_t pts = frame.best_effort_timestamp;
    double seconds = 0;
    double duration =
        frame.pkt_duration > 0 ? static_cast<double>(frame.pkt_duration) * av_q2d(timeBase) : frameSeconds;
    if (pts != AV_NOPTS_VALUE) {
      seconds = static_cast<double>(pts - firstPts) * av_q2d(timeBase);
    } else {
      seconds = lastSeconds ? *lastSeconds + duration : 0;
    }
    if (seconds + 1e-6 < skipBefore) {
      return Step::go;
    }
    if (seconds >= stretchEnd() - 1e-6) {
      return Step::endOfStretch;
    }
    lastSeconds = seconds;
    return deliver(frame, seconds, duration) ? Step::go : Step::stop;
  }

  // Feeds one packet (or the end) and takes what the decoder gives back.
  Step feed(const AVPacket* input) {
    if (avcodec_send_packet(opened.codec.get(), input) < 0 && input != nullptr) {
      return Step::go;  // a damaged packet: go on with the next, as players do
    }
    while (true) {
      const int received = avcodec_receive_frame(opened.codec.get(), decoded.get());
      if (received < 0) {
        return Step::go;
      }
      const auto step = take(*decoded);
      av_frame_unref(decoded.get());
      if (step != Step::go) {
        return step;
      }
    }
  }

  // The end of a pass: another from the stretch's start when looping, else the end.
  bool nextPass() {
    if (index == 0 && rewoundBySeek && rewind(options.start, true)) {
      // The seek found nothing: the same pass again, from a freshly opened file.
      skipBefore = options.start;
      lastSeconds.reset();
      return true;
    }
    if (!options.loop || index == 0 || !rewind(options.start)) {
      std::lock_guard lock(mutex);
      ended = true;
      if (delivered == 0 && !error) {
        error = fmt::format("{}: no picture in it could be decoded", file.string());
      }
      changed.notify_all();
      return false;
    }
    ++pass;
    index = 0;
    skipBefore = options.start;
    lastSeconds.reset();
    return true;
  }

  void run() {
    skipBefore = options.start;
    if (options.start > 0) {
      rewind(options.start);
    }
    while (true) {
      {
        std::unique_lock lock(mutex);
        if (stopping) {
          return;
        }
        if (seekTo) {
          const double target = std::max(*seekTo, options.start);
          seekTo.reset();
          ended = false;
          lock.unlock();
          rewind(target);
          skipBefore = target;
          lastSeconds.reset();
          continue;
        }
      }
      Step step = Step::go;
      const int read = av_read_frame(opened.format.get(), packet.get());
      if (read < 0) {
        step = feed(nullptr);  // drain what the decoder holds
        if (step == Step::go) {
          step = Step::endOfStretch;
        }
      } else {
        if (packet->stream_index == opened.stream) {
          step = feed(packet.get());
        }
        av_packet_unref(packet.get());
      }
      if (step == Step::endOfStretch && !nextPass()) {
        // Wait: a seek may start it again.
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return stopping || seekTo.has_value(); });
      }
    }
  }
};

MediaDecoder::MediaDecoder(std::unique_ptr<State> state) : state_(std::move(state)) {}

MediaDecoder::~MediaDecoder() {
  stop();
}

std::expected<std::unique_ptr<MediaDecoder>, std::string> MediaDecoder::open(const std::filesystem::path& file,
                                                                             const DecoderOptions& options) {
  quietLibraries();
  auto opened = openFile(file, AVMEDIA_TYPE_VIDEO);
  if (!opened) {
    return std::unexpected(opened.error());
  }
  auto state = std::make_unique<State>();
  state->file = file;
  state->options = options;
  state->options.queue = std::max<std::size_t>(options.queue, 1);
  state->opened = std::move(*opened);
  const AVStream* stream = state->opened.format->streams[state->opened.stream];
  state->timeBase = stream->time_base;
  state->firstPts = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
  const AVRational rate = stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : stream->r_frame_rate;
  state->frameSeconds = rate.num > 0 && rate.den > 0 ? av_q2d(av_inv_q(rate)) : 0.1;
  auto& info = state->info;
  info.width = stream->codecpar->width;
  info.height = stream->codecpar->height;
  info.codec = avcodec_get_name(stream->codecpar->codec_id);
  info.animatedImage = isAnimatedImage(info.codec);
  if (rate.num > 0 && rate.den > 0 && stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
      (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0 && !info.animatedImage) {
    info.frameRate = av_q2d(rate);
  }
  info.hasAudio = av_find_best_stream(state->opened.format.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0) >= 0;
  if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0) {
    info.duration = static_cast<double>(stream->duration) * av_q2d(stream->time_base);
  } else if (state->opened.format->duration != AV_NOPTS_VALUE && state->opened.format->duration > 0) {
    info.duration = static_cast<double>(state->opened.format->duration) / AV_TIME_BASE;
  }
  if (info.width < 1 || info.height < 1) {
    return std::unexpected(fmt::format("{}: its pictures have no size", file.string()));
  }
  auto* raw = state.get();
  state->worker = std::thread([raw] { raw->run(); });
  return std::unique_ptr<MediaDecoder>(new MediaDecoder(std::move(state)));
}

const MediaInfo& MediaDecoder::info() const {
  return state_->info;
}

std::expected<bool, std::string> MediaDecoder::tryNext(DecodedFrame& frame) {
  auto& s = *state_;
  std::lock_guard lock(s.mutex);
  if (s.ready.empty()) {
    if (s.error && s.ended) {
      return std::unexpected(*s.error);
    }
    return false;
  }
  if (!frame.pixels.empty()) {
    s.spare.push_back(std::move(frame.pixels));
  }
  frame = std::move(s.ready.front());
  s.ready.pop_front();
  s.changed.notify_all();
  return true;
}

std::expected<bool, std::string> MediaDecoder::next(DecodedFrame& frame) {
  auto& s = *state_;
  {
    std::unique_lock lock(s.mutex);
    s.changed.wait(lock, [&] { return !s.ready.empty() || s.ended || s.stopping; });
    if (s.ready.empty()) {
      if (s.error) {
        return std::unexpected(*s.error);
      }
      return false;
    }
  }
  return tryNext(frame);
}

bool MediaDecoder::finished() const {
  std::lock_guard lock(state_->mutex);
  return state_->ended && state_->ready.empty();
}

void MediaDecoder::seek(double seconds) {
  auto& s = *state_;
  {
    std::lock_guard lock(s.mutex);
    s.seekTo = std::isfinite(seconds) ? std::max(seconds, 0.0) : 0.0;
    for (auto& dropped : s.ready) {
      s.spare.push_back(std::move(dropped.pixels));
    }
    s.ready.clear();
    s.ended = false;
  }
  s.changed.notify_all();
}

void MediaDecoder::stop() {
  if (state_) {
    state_->finish();
  }
}

}  // namespace korvalen::engine
