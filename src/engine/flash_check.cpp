#include "engine/flash_check.hpp"

#include "core/playback/flash_analyzer.hpp"
#include "engine/media_decoder.hpp"

#include <chrono>
#include <vector>

namespace korvalen::engine {

std::expected<FlashReport, std::string> checkForFlashes(const std::filesystem::path& file, const FlashCheck& check,
                                                        const std::function<void(std::int64_t, double)>& progress,
                                                        const std::function<bool(const DecodedFrame&)>& observe) {
  const auto started = std::chrono::steady_clock::now();
  DecoderOptions options;
  // Only the measured part of each frame is converted, at its own size.
  options.region = FitRect{check.region.x, check.region.y, check.region.width, check.region.height};
  // The decoder samples every Nth pixel as it converts, so nothing unmeasured is converted.
  options.step = check.step;
  options.sampleBudget = check.sampleBudget;
  options.poster = check.poster;
  auto decoder = MediaDecoder::open(file, options);
  if (!decoder) {
    return std::unexpected(decoder.error());
  }
  const auto& info = (*decoder)->info();
  FlashReport report;
  report.width = info.width;
  report.height = info.height;
  FlashAnalyzer analyzer;
  std::vector<double> luminances;
  std::vector<double> delays;
  DecodedFrame frame;
  while (true) {
    auto more = (*decoder)->next(frame);
    if (!more) {
      return std::unexpected(more.error());
    }
    if (!*more) {
      break;
    }
    const double luminance = FlashAnalyzer::meanLuminance(frame.pixels, frame.width, frame.height, frame.stride(), 1);
    const double at = frame.seconds / check.rate;
    luminances.push_back(luminance);
    delays.push_back(frame.duration);
    if (!info.animatedImage && analyzer.observe(at, luminance) && !report.firstViolationSeconds) {
      report.firstViolationSeconds = at;
    }
    ++report.frames;
    if (observe && !observe(frame)) {
      return std::unexpected(std::string(cancelledText));
    }
    if (progress) {
      progress(report.frames, frame.seconds);
    }
  }
  report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  if (info.animatedImage && luminances.size() >= 2) {
    const auto judged = FlashAnalyzer::judgeLoop(luminances, delays, check.rate);
    report.kind = "animation";
    report.flashes = judged.violated;
    report.peakFlashesPerSecond = judged.peak;
  } else {
    report.kind = luminances.size() < 2 ? "still" : "video";
    report.flashes = analyzer.violated();
    report.peakFlashesPerSecond = analyzer.peakFlashesPerSecond();
  }
  return report;
}

}  // namespace korvalen::engine
