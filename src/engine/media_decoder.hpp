// Decoding a video or animated picture in-process: a worker thread decodes into a small
// bounded queue, and each frame is cropped, scaled and converted to BGRA in one pass,
// straight to the region and size that will be used, so no frame is converted twice. Frame
// times and durations are the file's own (GIF and animated PNG delays included). A stretch
// of the file can be played, once or looped; the decoder can seek; `stop` (and the
// destructor) joins the thread and frees everything. Errors are one line naming the file.
//
// Thread: one consumer thread; the decoding thread is the decoder's own.
#pragma once

#include "core/rendering/video_fit.hpp"
#include "engine/compositor.hpp"

#include <atomic>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvalen::engine {

struct MediaInfo {
  std::int64_t width = 0;  // the picture as stored, in pixels
  std::int64_t height = 0;
  std::optional<double> duration;  // seconds, when the file says
  std::string codec;               // "h264", "gif", "apng", ...
  // A looping picture format (GIF, animated PNG, WebP): judged as a loop, not as a stream.
  bool animatedImage = false;
  std::optional<double> frameRate;  // frames per second, when the file says
  bool hasAudio = false;            // a sound track is there
};

struct DecodedFrame {
  std::vector<std::uint8_t> pixels;  // BGRA, rows `width * 4` bytes apart
  std::int64_t width = 0;
  std::int64_t height = 0;
  double seconds = 0;      // presentation time from the start of the file
  double duration = 0;     // how long it shows at rate 1
  std::int64_t index = 0;  // from 0 in each pass over the stretch
  std::int64_t pass = 0;   // 0 on the first pass, 1 after the first loop, ...
  // The whole picture at the poster size (`DecoderOptions::Poster`), BGRA; empty for frames
  // that have none.
  std::vector<std::uint8_t> poster;
  // With `DecoderOptions::convertWhenDrawn`: the frame as decoded, converted when drawn;
  // `pixels` is then empty.
  std::shared_ptr<const PixelSource> source;

  [[nodiscard]] std::int64_t stride() const { return width * 4; }
};

struct DecoderOptions {
  // The part of the picture to convert, normalised.
  FitRect region = FitRect::unit();
  // The output size; 0 takes the region's own size in pixels.
  std::int64_t width = 0;
  std::int64_t height = 0;
  // The stretch to play, in seconds of the file; an end at or before the start, or beyond
  // the file, runs to its end.
  double start = 0;
  double end = std::numeric_limits<double>::infinity();
  bool loop = false;
  // Frames decoded ahead of the consumer.
  std::size_t queue = 3;
  // How a frame is scaled to the output size: bilinear for showing; area for small, clean
  // pictures such as thumbnails. (Measuring steps below always take the nearest pixel.)
  enum class Sampling { bilinear, area };
  Sampling sampling = Sampling::bilinear;
  // For measuring: every Nth pixel of every Nth row of the region, when no output size is
  // given (the frame is then the region's size divided by N, rounded up, sampled nearest).
  std::int64_t step = 1;
  // For measuring: at most about this many pixels a frame (0: no bound), by a larger step,
  // as the screensaver's flash guard samples what it shows.
  std::int64_t sampleBudget = 0;
  // A second picture of each frame from `from` seconds on, whole and smoothly scaled to
  // `width` x `height`, until `found` turns true: a measuring pass picks its poster frame
  // without decoding the file again.
  struct Poster {
    std::optional<double> from;
    std::int64_t width = 0;
    std::int64_t height = 0;
    const std::atomic<bool>* found = nullptr;
  };
  Poster poster;
  // Frames kept as decoded and converted only when drawn (`DecodedFrame::source`), on the
  // drawing thread: for showing, where a frame goes straight into the window's memory and a
  // frame that is never shown costs no conversion.
  bool convertWhenDrawn = false;
};

class MediaDecoder {
 public:
  [[nodiscard]] static std::expected<std::unique_ptr<MediaDecoder>, std::string> open(
      const std::filesystem::path& file, const DecoderOptions& options = {});
  ~MediaDecoder();
  MediaDecoder(const MediaDecoder&) = delete;
  MediaDecoder& operator=(const MediaDecoder&) = delete;

  [[nodiscard]] const MediaInfo& info() const;
  // Waits for the next frame and moves it into `frame`, taking `frame`'s old pixels back to
  // reuse. False at the end of a stretch that does not loop; the error when decoding failed
  // before any frame could be shown.
  [[nodiscard]] std::expected<bool, std::string> next(DecodedFrame& frame);
  // The same without waiting: false when no frame is ready yet.
  [[nodiscard]] std::expected<bool, std::string> tryNext(DecodedFrame& frame);
  // Whether the stretch has ended and every frame has been taken.
  [[nodiscard]] bool finished() const;
  // Goes on from the first frame at or after `seconds` (within the stretch); frames queued
  // before are dropped.
  void seek(double seconds);
  // Ends decoding: the thread is joined and everything freed. Idempotent.
  void stop();

 private:
  struct State;
  explicit MediaDecoder(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace korvalen::engine
