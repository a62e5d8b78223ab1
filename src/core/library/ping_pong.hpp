// Planning ping-pong loops: a clip played forwards then backwards loops without a jump. The
// reversed copy is built once with ffmpeg, in segments so that memory stays bounded (ffmpeg's
// reverse filter holds a whole segment of decoded frames); this is the pure part: what may be
// built, how it is cut, the ffmpeg command lines, the cache's names and its eviction.
#pragma once

#include "core/support/iso8601.hpp"
#include "core/support/json.hpp"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen {

struct PingPongPlan {
  bool allowed = false;
  std::optional<std::string> reason;
  double sourceSeconds = 0;
  double segmentSeconds = 0;
  std::int64_t peakBytesPerSegment = 0;
  double fps = 0;  // 0 or less: unknown
  double sourceStartSeconds = 0;

  [[nodiscard]] std::int64_t segmentCount() const;
  // The used stretch rounded to whole frames.
  [[nodiscard]] double alignedSeconds() const;
  [[nodiscard]] double segmentStart(std::int64_t i) const;
  [[nodiscard]] double segmentLength(std::int64_t i) const;
  // Half a frame early, so that ffmpeg lands on the segment's first frame.
  [[nodiscard]] double seekSeconds(std::int64_t i) const;
  // The last segment, reversed, starts with the frame the forward part ends on.
  [[nodiscard]] bool dropsTurnFrame(std::int64_t i) const;
  bool operator==(const PingPongPlan&) const = default;
};

struct PingPongProbe {
  std::optional<double> seconds;
  std::optional<double> fps;
  std::optional<std::int64_t> width;
  std::optional<std::int64_t> height;
  bool operator==(const PingPongProbe&) const = default;
};

struct PingPongManifest {
  std::int64_t schemaVersion = 3;
  std::string sourceSha256;
  std::int64_t sourceLengthBytes = 0;
  std::string encoder = "unknown";
  Date builtUtc{};
  std::int64_t outputBytes = 0;
  bool operator==(const PingPongManifest&) const = default;
};

struct PingPongCacheEntry {
  std::string path;
  std::int64_t bytes = 0;
  Date lastUsed{};
};

struct PingPongCost {
  std::int64_t diskBytes = 0;
  std::int64_t diskWhileBuildingBytes = 0;
  double fastSeconds = 0;
  double slowSeconds = 0;

  // "About 300 MB on disk once built (450 MB while it builds), and roughly 15 seconds to 2
  // minutes to build, depending on whether your graphics card can encode video."
  [[nodiscard]] std::string describe() const;
  bool operator==(const PingPongCost&) const = default;
};

namespace PingPong {

inline constexpr std::int64_t schemaVersion = 3;
inline constexpr double maxClipSeconds = 600.0;
inline constexpr double fastBuildSecondsPerClipSecond = 0.25;
inline constexpr double slowBuildSecondsPerClipSecond = 2.0;
inline constexpr double minSegmentSeconds = 2.0;
inline constexpr double memoryHeadroom = 0.6;
inline constexpr std::int64_t unknownWidth = 1920;
inline constexpr std::int64_t unknownHeight = 1080;
inline constexpr double defaultRebuildWithoutAskingSeconds = 120.0;
// A probed frame rate above this is taken as unknown.
inline constexpr double maxFramesPerSecond = 1000.0;

enum class AfterEdit { nothing, rebuildNow, offerRebuild, askLater };
std::string_view toString(AfterEdit decision);

// Decoded bytes per second of 4:2:0 frames; unknown sizes count as 1920×1080.
std::int64_t bytesPerSecond(std::int64_t width, std::int64_t height, double fps);
PingPongPlan assess(double durationSeconds, std::int64_t width, std::int64_t height, double fps,
                    std::int64_t memoryBudgetBytes, std::int64_t freeDiskBytes, std::int64_t sourceBytes,
                    double startSeconds);
// An infinite trim end runs to the end of the clip.
bool forwardIsWholeSource(double trimStart, double trimEnd, double durationSeconds);
// How much of a clip of `durationSeconds` the trim window uses; an infinite end runs to the
// end of the clip. Zero or less when the window misses the clip.
double usedSeconds(double durationSeconds, double trimStart, double trimEnd);
// The finished loop: twice the clip, one turn frame shorter.
double expectedSeconds(double sourceSeconds, double fps);
AfterEdit whatToDoAfterEdit(bool enabled, bool haveUsableCopy, double keptSeconds, std::int64_t sourceBytes,
                            double rebuildWithoutAskingSeconds);
PingPongCost cost(double durationSeconds, std::int64_t sourceBytes);

std::vector<std::string> probeArguments(const std::string& source);
PingPongProbe parseProbe(std::string_view text);
// From ffmpeg's "-progress" output: "out_time_ms=" carries microseconds.
std::optional<double> parseProgressSeconds(std::string_view text);
std::vector<std::string> rateControlArguments(const std::string& encoder, std::int64_t bitrate);
std::vector<std::string> segmentArguments(const std::string& source, double seekSeconds, double lengthSeconds,
                                          const std::string& encoder, std::int64_t bitrate,
                                          const std::string& destination, bool dropFirstFrame);
std::vector<std::string> forwardArguments(const std::string& source, double seekSeconds, double lengthSeconds,
                                          const std::string& encoder, std::int64_t bitrate,
                                          const std::string& destination);
// Forward parts in order, then the reversed segments last first.
std::vector<std::string> concatListLines(const std::vector<std::string>& forward,
                                         const std::vector<std::string>& reversed);
std::vector<std::string> concatArguments(const std::string& list, const std::string& destination);
// "cache/pingpong/<16 hex>-<start>-<end|"end">.mp4" under `root`.
std::filesystem::path cachePath(const std::filesystem::path& root, std::string_view sourceSha256, double trimStart,
                                double trimEnd);
bool isValid(const std::optional<PingPongManifest>& manifest, std::string_view sourceSha256,
             std::int64_t sourceLengthBytes);
// The paths to delete, least recently used first, until the rest fits the budget.
std::vector<std::string> evict(const std::vector<PingPongCacheEntry>& entries, std::int64_t budgetBytes);
// A message for the user from ffmpeg's error text.
std::string explain(std::string_view errorText);

}  // namespace PingPong

namespace json {
template <>
struct Coding<PingPongManifest> {
  static Json encode(const PingPongManifest& manifest, const Options& options);
  [[nodiscard]] static Result<PingPongManifest> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
