// Builds the forwards-and-backwards copy of a clip with the ffmpeg executable and keeps the
// results in a size-bounded cache. The clip is reversed in segments, each small enough for
// the memory budget, and the parts are joined without re-encoding. Every failure ends in a
// `Result` with a message for the user; the original clip is never touched.
// Thread: `build` blocks and is meant for a worker thread; it stops soon after `stop` is
// requested, terminating the running ffmpeg. The other functions may run on any thread.
#pragma once

#include "core/library/ping_pong.hpp"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::engine {

class PingPongBuilder {
 public:
  static constexpr std::int64_t defaultMemoryBudgetBytes = 1'073'741'824;
  static constexpr std::int64_t cacheBudgetBytes = 4'294'967'296;
  // What a build of a clip that is not (or no longer) there says.
  static constexpr std::string_view goneMessage = "That clip is no longer on disk.";

  // The encoders tried, in order; this platform's list.
  static const std::vector<std::string>& encoderChain();

  struct Result {
    std::optional<std::filesystem::path> output;
    std::optional<std::string> problem;
    std::optional<std::string> encoder;
    std::int64_t segments = 0;
  };

  struct Request {
    std::filesystem::path source;
    std::string sha256;  // of the source, hexadecimal
    double trimStart = 0;
    double trimEnd = std::numeric_limits<double>::infinity();  // infinite: to the end
    std::filesystem::path cacheRoot;
    std::filesystem::path ffmpeg;
    std::int64_t memoryBudgetBytes = defaultMemoryBudgetBytes;
    std::vector<std::string> encoders = encoderChain();
    // Where the working folder goes; the system's temporary folder when empty.
    std::filesystem::path temporaryFolder;
    std::function<Date()> clock = currentDate;
  };

  struct Hooks {
    std::function<void(std::string_view)> log;
    std::function<void(double)> progress;  // 0..1
  };

  // The built file's manifest: its location with the extension "json".
  static std::filesystem::path manifestURL(const std::filesystem::path& built);
  // Absent when the manifest is missing or cannot be read.
  static std::optional<PingPongManifest> readManifest(const std::filesystem::path& built);
  // The cached copy for this source and window, when it exists and was built from a file of
  // this hash and of the size the source has now. Finding it marks it as used.
  static std::optional<std::filesystem::path> findUsable(const std::filesystem::path& cacheRoot,
                                                         const std::filesystem::path& source, std::string_view sha256,
                                                         double trimStart, double trimEnd);

  // What a build would do: the probe, the plan from the real file size and the free space
  // where the cache lives. `problem` is set when the source cannot be probed at all (gone,
  // unreadable, no ffmpeg, an empty trim window, cancelled); a plan that does not allow the
  // build carries its own reason.
  struct Assessment {
    std::optional<std::string> problem;
    PingPongProbe probe;
    PingPongPlan plan;
    std::int64_t sourceBytes = 0;
  };
  static Assessment assess(const Request& request, const std::stop_token& stop = {});

  static Result build(const Request& request, const std::stop_token& stop = {}, const Hooks& hooks = {});

  // The built copies under the cache root, each counted with its manifest; the last use is
  // the file's modification time, which `findUsable` renews.
  static std::vector<PingPongCacheEntry> cacheEntries(const std::filesystem::path& cacheRoot);
  // Deletes least recently used copies (and their manifests) until the cache fits the budget,
  // never the one at `keep`. Returns what it deleted.
  static std::vector<std::filesystem::path> trimCache(const std::filesystem::path& cacheRoot,
                                                      std::int64_t budgetBytes = cacheBudgetBytes,
                                                      const std::filesystem::path& keep = {});
  // Deletes every copy built from content with this SHA-256 (and its manifest), once no
  // library item holds that content any more. Returns what it deleted.
  static std::vector<std::filesystem::path> forgetCopies(const std::filesystem::path& cacheRoot,
                                                         std::string_view sourceSha256);
};

}  // namespace korvalen::engine
