#include "core/library/ping_pong.hpp"

#include "core/support/numbers.hpp"
#include "core/support/pattern.hpp"
#include "core/support/precondition.hpp"
#include "core/support/text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <ranges>

namespace korvalen {
namespace {

// Round half to even, as a whole number of frames.
std::int64_t frames(double value) {
  return std::max<std::int64_t>(static_cast<std::int64_t>(std::nearbyint(value)), 1);
}

std::int64_t megabytes(std::int64_t bytes) {
  const auto rounded = bytes + 524'288;
  return rounded < 1'048'576 ? 1 : rounded / 1'048'576;
}

std::string span(double seconds) {
  if (seconds < 60) {
    const auto n = std::max<std::int64_t>(static_cast<std::int64_t>(std::nearbyint(seconds)), 1);
    return fmt::format("{} second{}", n, n >= 2 ? "s" : "");
  }
  const auto m = static_cast<std::int64_t>(std::ceil(seconds / 60));
  return fmt::format("{} minute{}", m, m != 1 ? "s" : "");
}

// Six decimals with "." whatever the locale.
std::string fixed(double value) {
  return fmt::format("{:.6f}", value);
}

std::vector<std::string> encodeArguments(const std::string& source, double seekSeconds, double lengthSeconds,
                                         const std::string& filter, const std::string& encoder, std::int64_t bitrate,
                                         const std::string& destination) {
  std::vector<std::string> arguments{
      "-y",   "-loglevel", "error", "-progress", "pipe:1", "-ss",  fixed(seekSeconds), "-t", fixed(lengthSeconds), "-i",
      source, "-an",       "-vf",   filter,      "-c:v",   encoder};
  const auto rate = PingPong::rateControlArguments(encoder, bitrate);
  arguments.insert(arguments.end(), rate.begin(), rate.end());
  arguments.insert(arguments.end(), {"-pix_fmt", "yuv420p", "-movflags", "+faststart", destination});
  return arguments;
}

constexpr auto manifestFields = [](auto& coder, auto& manifest) {
  coder.required("schemaVersion", manifest.schemaVersion);
  coder.required("sourceSha256", manifest.sourceSha256);
  coder.required("sourceLengthBytes", manifest.sourceLengthBytes);
  coder.required("encoder", manifest.encoder);
  coder.required("builtUtc", manifest.builtUtc);
  coder.required("outputBytes", manifest.outputBytes);
};

}  // namespace

std::int64_t PingPongPlan::segmentCount() const {
  if (segmentSeconds <= 0) {
    return 0;
  }
  if (fps > 0) {
    const auto perSegment = frames(fps * segmentSeconds);
    const auto all = frames(fps * sourceSeconds);
    return (all + perSegment - 1) / perSegment;
  }
  return static_cast<std::int64_t>(std::ceil(sourceSeconds / segmentSeconds - 0.000000001));
}

double PingPongPlan::alignedSeconds() const {
  return fps > 0 ? static_cast<double>(frames(fps * sourceSeconds)) / fps : sourceSeconds;
}

double PingPongPlan::segmentStart(std::int64_t i) const {
  if (fps > 0) {
    return static_cast<double>(i * frames(fps * segmentSeconds)) / fps + sourceStartSeconds;
  }
  return static_cast<double>(i) * segmentSeconds + sourceStartSeconds;
}

double PingPongPlan::segmentLength(std::int64_t i) const {
  if (fps > 0) {
    const auto perSegment = frames(fps * segmentSeconds);
    const auto all = frames(fps * sourceSeconds);
    return static_cast<double>(std::min(all - i * perSegment, perSegment)) / fps;
  }
  return std::min(sourceSeconds - static_cast<double>(i) * segmentSeconds, segmentSeconds);
}

double PingPongPlan::seekSeconds(std::int64_t i) const {
  const double start = segmentStart(i);
  if (fps <= 0 || (i == 0 && sourceStartSeconds <= 0)) {
    return start;
  }
  return start - 0.5 / fps;
}

bool PingPongPlan::dropsTurnFrame(std::int64_t i) const {
  return i == segmentCount() - 1;
}

std::string PingPongCost::describe() const {
  std::string text = fmt::format("About {} MB on disk once built", megabytes(diskBytes));
  if (diskBytes < diskWhileBuildingBytes) {
    text += fmt::format(" ({} MB while it builds)", megabytes(diskWhileBuildingBytes));
  }
  return text +
         fmt::format(", and roughly {} to {} to build, depending on whether your graphics card can encode video.",
                     span(fastSeconds), span(slowSeconds));
}

namespace PingPong {

std::string_view toString(AfterEdit decision) {
  switch (decision) {
    case AfterEdit::nothing:
      return "nothing";
    case AfterEdit::rebuildNow:
      return "rebuildNow";
    case AfterEdit::offerRebuild:
      return "offerRebuild";
    case AfterEdit::askLater:
      return "askLater";
  }
  return "nothing";
}

std::int64_t bytesPerSecond(std::int64_t width, std::int64_t height, double fps) {
  const std::int64_t w = width >= 1 ? width : unknownWidth;
  const std::int64_t h = height >= 1 ? height : unknownHeight;
  std::int64_t frameBytes = 0;
  KORVALEN_PRECONDITION(!__builtin_mul_overflow(w, h, &frameBytes) &&
                        !__builtin_mul_overflow(frameBytes, std::int64_t{3}, &frameBytes));
  // Whole bytes of a 4:2:0 frame (one and a half bytes a pixel), as the decoder holds them.
  const double perSecond =
      std::max(fps, 1.0) * static_cast<double>(frameBytes / 2);  // NOLINT(bugprone-integer-division)
  KORVALEN_PRECONDITION(perSecond < 9223372036854775808.0);
  return static_cast<std::int64_t>(perSecond);
}

PingPongPlan assess(double durationSeconds, std::int64_t width, std::int64_t height, double fps,
                    std::int64_t memoryBudgetBytes, std::int64_t freeDiskBytes, std::int64_t sourceBytes,
                    double startSeconds) {
  PingPongPlan plan;
  if (!std::isfinite(durationSeconds) || durationSeconds < 0) {
    plan.reason = "Korvalen does not know how long this clip is yet.";
    return plan;
  }
  plan.sourceSeconds = durationSeconds;
  if (durationSeconds > maxClipSeconds) {
    plan.reason =
        "This clip is too long to reverse (over 10 minutes). Ping-pong suits short loops; a clip this long "
        "can simply loop as it is.";
    return plan;
  }
  std::int64_t need = 0;
  KORVALEN_PRECONDITION(!__builtin_mul_overflow(std::max<std::int64_t>(sourceBytes, 1), std::int64_t{3}, &need));
  if (freeDiskBytes < need) {
    plan.reason =
        fmt::format("There is not enough disk space: about {} MB is needed while it builds.", need / 1'048'576);
    return plan;
  }
  const auto perSecond = static_cast<double>(bytesPerSecond(width, height, fps));
  double segment =
      std::max(static_cast<double>(std::max<std::int64_t>(memoryBudgetBytes, 1)) * memoryHeadroom / perSecond,
               minSegmentSeconds);
  if (fps > 0) {
    segment = std::max(std::floor(fps * segment), 1.0) / fps;
  }
  segment = std::min(durationSeconds, segment);
  plan.allowed = true;
  plan.segmentSeconds = segment;
  plan.peakBytesPerSegment = static_cast<std::int64_t>(segment * perSecond);
  plan.sourceStartSeconds = std::max(startSeconds, 0.0);
  plan.fps = fps;
  return plan;
}

bool forwardIsWholeSource(double trimStart, double trimEnd, double durationSeconds) {
  return trimStart <= 0.001 && (std::isinf(trimEnd) || durationSeconds <= 0 || trimEnd >= durationSeconds - 0.05);
}

double usedSeconds(double durationSeconds, double trimStart, double trimEnd) {
  const double end = std::isfinite(trimEnd) ? std::min(trimEnd, durationSeconds) : durationSeconds;
  return end - std::max(trimStart, 0.0);
}

double expectedSeconds(double sourceSeconds, double fps) {
  return fps > 0 ? std::max(0.0, 2 * sourceSeconds - 1 / fps) : std::max(0.0, 2 * sourceSeconds);
}

AfterEdit whatToDoAfterEdit(bool enabled, bool haveUsableCopy, double keptSeconds, std::int64_t /*sourceBytes*/,
                            double rebuildWithoutAskingSeconds) {
  if (!enabled || haveUsableCopy) {
    return AfterEdit::nothing;
  }
  if (!std::isfinite(keptSeconds) || keptSeconds <= 0) {
    return AfterEdit::askLater;
  }
  return 2 * keptSeconds <= rebuildWithoutAskingSeconds ? AfterEdit::rebuildNow : AfterEdit::offerRebuild;
}

PingPongCost cost(double durationSeconds, std::int64_t sourceBytes) {
  const std::int64_t size = sourceBytes > 0 ? sourceBytes : 1;
  const double duration = std::max(durationSeconds, 0.0);
  return PingPongCost{2 * size, 3 * size, duration * fastBuildSecondsPerClipSecond,
                      duration * slowBuildSecondsPerClipSecond};
}

std::vector<std::string> probeArguments(const std::string& source) {
  return {"-hide_banner", "-i", source};
}

PingPongProbe parseProbe(std::string_view text) {
  PingPongProbe probe;
  static const text::Pattern duration(R"(Duration:\s*(\d+):(\d\d):(\d\d(?:\.\d+)?))");
  if (const auto match = duration.first(text)) {
    // Hours too many for any number still make a clip, one far too long to reverse: the
    // pattern let only digits through, so a failed reading is an overflow.
    constexpr double endless = std::numeric_limits<double>::max();
    const double hours = numbers::decimal(text::asciiDigits(match->groups[1])).value_or(endless);
    const auto minutes = numbers::decimal(text::asciiDigits(match->groups[2]));
    const auto seconds = numbers::decimal(text::asciiDigits(match->groups[3]));
    if (minutes && seconds) {
      const double total = hours * 3600 + *minutes * 60 + *seconds;
      probe.seconds = std::isfinite(total) ? total : endless;
    }
  }
  static const text::Pattern size(R"(\b(\d{2,5})x(\d{2,5})\b)");
  if (const auto match = size.first(text)) {
    probe.width = numbers::wholeNumber(text::asciiDigits(match->groups[1]));
    probe.height = numbers::wholeNumber(text::asciiDigits(match->groups[2]));
  }
  static const text::Pattern tbr(R"((\d+(?:\.\d+)?)\s*tbr\b)");
  static const text::Pattern fps(R"((\d+(?:\.\d+)?)\s*fps\b)");
  for (const auto* rate : {&tbr, &fps}) {
    if (const auto match = rate->first(text)) {
      // A rate no video has (0, or beyond any display) is as good as none.
      const auto value = numbers::decimal(text::asciiDigits(match->groups[1]));
      if (value && *value > 0 && *value <= maxFramesPerSecond) {
        probe.fps = value;
      }
      break;
    }
  }
  return probe;
}

std::optional<double> parseProgressSeconds(std::string_view text) {
  std::optional<double> seconds;
  std::size_t start = 0;
  while (start < text.size()) {
    const auto end = std::min(text.find('\n', start), text.size());
    const auto line = text::trimWhitespaceAndNewlines(text.substr(start, end - start));
    constexpr std::string_view key = "out_time_ms=";
    if (line.starts_with(key)) {
      if (const auto micros = numbers::wholeNumber(std::string_view(line).substr(key.size()))) {
        seconds = static_cast<double>(*micros) / 1'000'000;
      }
    }
    start = end + 1;
  }
  return seconds;
}

std::vector<std::string> rateControlArguments(const std::string& encoder, std::int64_t bitrate) {
  if (encoder == "h264_nvenc") {
    return {"-rc", "vbr", "-cq", "23"};
  }
  if (encoder == "h264_qsv") {
    return {"-global_quality", "23"};
  }
  if (encoder == "h264_amf") {
    return {"-rc", "cqp", "-qp_i", "23", "-qp_p", "23"};
  }
  return {"-b:v", std::to_string(bitrate)};
}

std::vector<std::string> segmentArguments(const std::string& source, double seekSeconds, double lengthSeconds,
                                          const std::string& encoder, std::int64_t bitrate,
                                          const std::string& destination, bool dropFirstFrame) {
  return encodeArguments(
      source, seekSeconds, lengthSeconds,
      dropFirstFrame ? "reverse,trim=start_frame=1,setpts=PTS-STARTPTS" : "reverse,setpts=PTS-STARTPTS", encoder,
      bitrate, destination);
}

std::vector<std::string> forwardArguments(const std::string& source, double seekSeconds, double lengthSeconds,
                                          const std::string& encoder, std::int64_t bitrate,
                                          const std::string& destination) {
  return encodeArguments(source, seekSeconds, lengthSeconds, "setpts=PTS-STARTPTS", encoder, bitrate, destination);
}

std::vector<std::string> concatListLines(const std::vector<std::string>& forward,
                                         const std::vector<std::string>& reversed) {
  const auto line = [](const std::string& path) {
    std::string quoted;
    for (const char c : path) {
      quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return "file '" + quoted + "'";
  };
  std::vector<std::string> lines;
  lines.reserve(forward.size() + reversed.size());
  for (const auto& path : forward) {
    lines.push_back(line(path));
  }
  for (const auto& path : std::ranges::reverse_view(reversed)) {
    lines.push_back(line(path));
  }
  return lines;
}

std::vector<std::string> concatArguments(const std::string& list, const std::string& destination) {
  return {"-y", "-loglevel", "error", "-f",  "concat",    "-safe",      "0",        "-i",
          list, "-c",        "copy",  "-an", "-movflags", "+faststart", destination};
}

std::filesystem::path cachePath(const std::filesystem::path& root, std::string_view sourceSha256, double trimStart,
                                double trimEnd) {
  const auto end = std::isinf(trimEnd) ? std::string("end") : fmt::format("{:.2f}", trimEnd);
  return root / "cache" / "pingpong" / fmt::format("{}-{:.2f}-{}.mp4", sourceSha256.substr(0, 16), trimStart, end);
}

bool isValid(const std::optional<PingPongManifest>& manifest, std::string_view sourceSha256,
             std::int64_t sourceLengthBytes) {
  return manifest && manifest->schemaVersion == schemaVersion &&
         text::equalIgnoringCase(manifest->sourceSha256, sourceSha256) &&
         manifest->sourceLengthBytes == sourceLengthBytes;
}

std::vector<std::string> evict(const std::vector<PingPongCacheEntry>& entries, std::int64_t budgetBytes) {
  std::int64_t total = 0;
  for (const auto& entry : entries) {
    KORVALEN_PRECONDITION(!__builtin_add_overflow(total, entry.bytes, &total));
  }
  if (total <= budgetBytes) {
    return {};
  }
  auto oldestFirst = entries;
  std::stable_sort(oldestFirst.begin(), oldestFirst.end(),
                   [](const auto& a, const auto& b) { return a.lastUsed < b.lastUsed; });
  std::vector<std::string> doomed;
  for (const auto& entry : oldestFirst) {
    if (total <= budgetBytes) {
      break;
    }
    doomed.push_back(entry.path);
    total -= entry.bytes;
  }
  return doomed;
}

std::string explain(std::string_view errorText) {
  const auto text = text::lowercased(text::trimWhitespaceAndNewlines(errorText));
  const auto has = [&](std::string_view phrase) { return text.find(text::lowercased(phrase)) != std::string::npos; };
  if (has("Unknown encoder")) {
    return "This Mac could not encode the reversed copy with any of the encoders available. Korvalen will keep "
           "playing the original.";
  }
  if (has("No space left")) {
    return "The disk filled up while building the reversed copy. Korvalen will keep playing the original.";
  }
  if (has("Invalid data")) {
    return "This clip could not be read all the way through, so it could not be reversed. Korvalen will keep playing "
           "the original.";
  }
  return "The forwards-and-backwards copy could not be built. Korvalen will keep playing the original.";
}

}  // namespace PingPong

namespace json {
KORVALEN_CODING_FROM_FIELDS(PingPongManifest, manifestFields)
}  // namespace json

}  // namespace korvalen
