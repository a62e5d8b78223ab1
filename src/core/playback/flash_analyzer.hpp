// Photosensitivity protection: content that flashes more than three times a second (WCAG 2
// success criterion 2.3.1) is caught from a stream of mean-luminance samples, or judged in
// advance for a looping animation. A flash is a pair of opposing luminance swings of at least
// 0.1 whose darker level is below 0.8.
#pragma once

#include "core/rendering/video_fit.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace korvalen {

class FlashAnalyzer {
 public:
  static constexpr double minimumSwing = 0.1;
  static constexpr double darkerBelow = 0.8;
  static constexpr std::int64_t flashesPerSecondLimit = 3;

  // sRGB byte value to linear light; built once, safely from any thread.
  static const std::array<double, 256>& linear();

  // Feeds one sample: `at` is a monotonic time in seconds, `luminance` the mean relative
  // luminance (nominally 0...1). True when this sample leaves the analyzer over the limit.
  bool observe(double at, double luminance);
  void reset() { *this = FlashAnalyzer{}; }

  [[nodiscard]] std::int64_t flashesInLastSecond() const { return flashesInLastSecond_; }
  [[nodiscard]] bool violated() const { return violated_; }
  [[nodiscard]] std::int64_t peakFlashesPerSecond() const { return peakFlashesPerSecond_; }
  [[nodiscard]] const std::vector<double>& transitions() const { return transitions_; }

  // Mean relative luminance of BGRA pixels, every `step`-th pixel of every `step`-th row;
  // rows are `stride` bytes apart. Pixels past the end of `bytes` are not read.
  static double meanLuminance(std::span<const std::uint8_t> bytes, std::int64_t width, std::int64_t height,
                              std::int64_t stride, std::int64_t step);
  static double meanLuminance(const std::vector<std::uint8_t>& bytes, std::int64_t width, std::int64_t height,
                              std::int64_t stride, std::int64_t step);

  struct Judgement {
    bool violated = false;
    std::int64_t peak = 0;
    bool operator==(const Judgement&) const = default;
  };
  // A looping animation replayed until two seconds past one pass (at most 50 000 samples),
  // so that flashes across the loop's seam count. `delays` are seconds at rate 1.
  static Judgement judgeLoop(const std::vector<double>& luminances, const std::vector<double>& delays, double rate);

 private:
  std::vector<double> transitions_;
  bool ordered_ = true;  // `transitions_` ascending, as it is while time only moves forward
  std::optional<double> last_;
  int direction_ = 0;
  double extreme_ = 0;
  std::int64_t flashesInLastSecond_ = 0;
  bool violated_ = false;
  std::int64_t peakFlashesPerSecond_ = 0;
};

// About how many pixels `regionLuminance` reads, however large the frame.
inline constexpr std::int64_t regionLuminanceBudget = 65536;

// The mean relative luminance of a normalised region of a BGRA frame, every `step`-th
// pixel each way, with the step chosen so that about `regionLuminanceBudget` pixels are
// read however large the frame: what every engine's `sampleLuminances` and `frameLuminances` compute. A region
// outside the frame, or an empty frame, reads as the whole frame / 0.
double regionLuminance(std::span<const std::uint8_t> bgra, std::int64_t width, std::int64_t height, std::int64_t stride,
                       const FitRect& region);

}  // namespace korvalen
