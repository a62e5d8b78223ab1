#include "engine/ping_pong_builder.hpp"

#include "core/diagnostics/log.hpp"
#include "core/support/atomic_file.hpp"
#include "core/support/json.hpp"
#include "core/support/precondition.hpp"
#include "core/support/text.hpp"
#include "engine/ffmpeg_file.hpp"
#include "engine/process.hpp"
#include "engine/working_folder.hpp"

#include <fmt/format.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <system_error>

namespace korvalen::engine {
namespace fs = std::filesystem;

namespace {

constexpr std::string_view cancelledMessage = "The reversed copy was cancelled.";
constexpr std::string_view goneMessage = PingPongBuilder::goneMessage;
constexpr std::string_view emptyMessage = "The trimmed part of this clip is empty, so there is nothing to reverse.";
constexpr auto pollSlice = std::chrono::milliseconds(50);

// The encoder's bitrate: the source's own, within sensible bounds, so that the copy looks
// like the original without growing far beyond it.
constexpr std::int64_t minimumBitrate = 2'000'000;
constexpr std::int64_t maximumBitrate = 80'000'000;

// A random (version 4) UUID in its usual text form.
std::string newUuid() {
  std::array<unsigned char, 16> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    // Without OpenSSL's generator, the clock still keeps concurrent builds apart.
    const auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<unsigned char>((static_cast<std::uint64_t>(ticks) >> ((i % 8) * 8)) ^ (i * 37));
    }
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0FU) | 0x40U);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3FU) | 0x80U);
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) {
      text += '-';
    }
    text += fmt::format("{:02X}", bytes[i]);
  }
  return text;
}

// The nearest folder of `path` that exists, for asking about free space before the cache
// folder is made.
fs::path existingAncestor(fs::path path) {
  std::error_code error;
  path = fs::absolute(path, error);
  while (!path.empty() && !fs::exists(path, error) && path.has_parent_path() && path != path.parent_path()) {
    path = path.parent_path();
  }
  return path;
}

// Whether ffmpeg's complaint is about the source or the disk, which no other encoder can mend.
bool blamesSourceOrDisk(const std::string& error) {
  const auto message = PingPong::explain(error);
  return message == PingPong::explain("Invalid data") || message == PingPong::explain("No space left");
}

struct Failure {
  std::string problem;
  bool ran = true;  // false when ffmpeg could not even be started
};

// One build from start to end; each step either goes on or returns the problem.
class Run {
 public:
  Run(const PingPongBuilder::Request& request, const std::stop_token& stop, const PingPongBuilder::Hooks& hooks)
      : request_(request), stop_(stop), hooks_(hooks) {}

  PingPongBuilder::Assessment assess();
  PingPongBuilder::Result go();

 private:
  // Runs ffmpeg to the end; progress counts `partSeconds` of work after `done_`.
  std::optional<Failure> ffmpeg(const std::vector<std::string>& arguments, double partSeconds, std::string* error);
  // Encodes one part, trying the encoders until one works; later parts use the same one so
  // that the parts can be joined without re-encoding.
  std::optional<Failure> encode(const std::function<std::vector<std::string>(const std::string&)>& arguments,
                                double partSeconds);
  void report(double fraction) const {
    if (hooks_.progress) {
      hooks_.progress(std::clamp(fraction, 0.0, 1.0));
    }
  }
  [[nodiscard]] bool cancelled() const { return stop_.stop_requested(); }

  const PingPongBuilder::Request& request_;
  const std::stop_token& stop_;
  const PingPongBuilder::Hooks& hooks_;
  std::optional<std::string> encoder_;
  double done_ = 0;   // seconds of clip encoded so far
  double total_ = 1;  // seconds of clip to encode in all
};

std::optional<Failure> Run::ffmpeg(const std::vector<std::string>& arguments, double partSeconds, std::string* error) {
  if (cancelled()) {
    return Failure{std::string(cancelledMessage)};
  }
  auto child = ChildProcess::start(request_.ffmpeg, arguments);
  if (!child) {
    return Failure{fmt::format("The reversed copy could not be built: {}.", child.error()), false};
  }
  std::string output;
  while (child->pump(output, *error, pollSlice)) {
    if (cancelled()) {
      child->terminate();
      return Failure{std::string(cancelledMessage)};
    }
    if (const auto seconds = PingPong::parseProgressSeconds(output)) {
      report((done_ + std::clamp(*seconds, 0.0, partSeconds)) / total_);
    }
    // Only the newest progress block matters.
    if (const auto last = output.rfind('\n'); last != std::string::npos && output.size() > 4096) {
      output.erase(0, last + 1);
    }
  }
  const int status = child->wait(output, *error);
  if (cancelled()) {
    return Failure{std::string(cancelledMessage)};
  }
  if (status != 0) {
    std::error_code missing;
    // A clip deleted or moved while it is being read makes ffmpeg fail; say what happened.
    return Failure{fs::is_regular_file(request_.source, missing) ? PingPong::explain(*error)
                                                                 : std::string(goneMessage)};
  }
  done_ += partSeconds;
  report(done_ / total_);
  return std::nullopt;
}

std::optional<Failure> Run::encode(const std::function<std::vector<std::string>(const std::string&)>& arguments,
                                   double partSeconds) {
  std::string error;
  if (encoder_) {
    return ffmpeg(arguments(*encoder_), partSeconds, &error);
  }
  std::optional<Failure> failure;
  for (const auto& candidate : request_.encoders) {
    error.clear();
    failure = ffmpeg(arguments(candidate), partSeconds, &error);
    if (!failure) {
      encoder_ = candidate;
      return std::nullopt;
    }
    if (cancelled() || blamesSourceOrDisk(error)) {
      return failure;
    }
  }
  return failure;
}

PingPongBuilder::Assessment Run::assess() {
  PingPongBuilder::Assessment assessment;
  const auto fail = [&](std::string problem) {
    assessment.problem = std::move(problem);
    return assessment;
  };
  std::error_code error;
  if (!fs::is_regular_file(request_.source, error)) {
    return fail(std::string(goneMessage));
  }

  // Given no output, ffmpeg describes the input and exits with a failure.
  std::string probeError;
  if (auto failure = ffmpeg(PingPong::probeArguments(ffmpegFile(request_.source)), 0, &probeError);
      failure && (cancelled() || !failure->ran)) {
    return fail(failure->problem);
  }
  assessment.probe = PingPong::parseProbe(probeError);
  const auto& probe = assessment.probe;
  if (!probe.seconds && blamesSourceOrDisk(probeError)) {
    return fail(PingPong::explain(probeError));
  }

  assessment.sourceBytes = static_cast<std::int64_t>(fs::file_size(request_.source, error));
  if (error) {
    return fail(std::string(goneMessage));
  }
  // The copy is written where the cache lives, so that is the disk that must have room.
  const auto space = fs::space(existingAncestor(request_.cacheRoot), error);
  const auto freeBytes = error ? std::int64_t{0} : static_cast<std::int64_t>(space.available);
  const double duration = probe.seconds ? PingPong::usedSeconds(*probe.seconds, request_.trimStart, request_.trimEnd)
                                        : std::numeric_limits<double>::quiet_NaN();
  if (duration <= 0) {
    return fail(std::string(emptyMessage));
  }
  assessment.plan = PingPong::assess(duration, probe.width.value_or(0), probe.height.value_or(0), probe.fps.value_or(0),
                                     request_.memoryBudgetBytes, freeBytes, assessment.sourceBytes,
                                     std::max(request_.trimStart, 0.0));
  if (assessment.plan.allowed && assessment.plan.segmentCount() < 1) {
    return fail(std::string(emptyMessage));
  }
  return assessment;
}

PingPongBuilder::Result Run::go() {
  KORVALEN_PRECONDITION(!request_.encoders.empty());
  PingPongBuilder::Result result;
  const auto fail = [&](std::string problem) {
    result.problem = std::move(problem);
    result.output.reset();
    return result;
  };
  const auto assessment = assess();
  if (assessment.problem) {
    return fail(*assessment.problem);
  }
  const auto& plan = assessment.plan;
  if (!plan.allowed || !assessment.probe.seconds) {
    return fail(plan.reason.value_or(PingPong::explain("")));
  }
  const double clipSeconds = *assessment.probe.seconds;
  const auto sourceBytes = assessment.sourceBytes;
  const auto source = ffmpegFile(request_.source);
  result.segments = plan.segmentCount();
  std::error_code error;

  // Working folder; everything in it goes when the build ends, whatever the outcome.
  const auto temporary = request_.temporaryFolder.empty() ? fs::temp_directory_path(error) : request_.temporaryFolder;
  if (error) {
    return fail(PingPong::explain(error.message()));
  }
  const auto work = temporary / ("korvalen-pingpong-" + newUuid());
  if (auto made = makePrivateFolder(work); !made) {
    return fail(PingPong::explain(made.error()));
  }
  const ScratchFolder workRemoval(work);

  const auto bitrate =
      std::clamp(static_cast<std::int64_t>(static_cast<double>(sourceBytes) * 8 / std::max(clipSeconds, 0.001)),
                 minimumBitrate, maximumBitrate);
  total_ = 2 * plan.alignedSeconds();

  // Forwards. The source itself cannot serve: joining without re-encoding needs every part
  // to come from the same encoder with the same settings.
  const auto forward = (work / "fwd.mp4").string();
  if (auto failure = encode(
          [&](const std::string& encoder) {
            return PingPong::forwardArguments(source, plan.seekSeconds(0), plan.alignedSeconds(), encoder, bitrate,
                                              forward);
          },
          plan.alignedSeconds())) {
    return fail(failure->problem);
  }

  // Backwards, a segment at a time.
  std::vector<std::string> reversed;
  for (std::int64_t i = 0; i < plan.segmentCount(); ++i) {
    reversed.push_back((work / fmt::format("rev{:03d}.mp4", i)).string());
    if (auto failure = encode(
            [&](const std::string& encoder) {
              return PingPong::segmentArguments(source, plan.seekSeconds(i), plan.segmentLength(i), encoder, bitrate,
                                                reversed.back(), plan.dropsTurnFrame(i));
            },
            plan.segmentLength(i))) {
      return fail(failure->problem);
    }
  }

  // Join into a hidden file beside the cached copy, then move it into place whole.
  std::string list;
  for (const auto& line : PingPong::concatListLines({forward}, reversed)) {
    list += line + "\n";
  }
  const auto join = work / "join.txt";
  if (auto written = files::writeAtomically(join, list); !written) {
    return fail(PingPong::explain(written.error()));
  }
  const auto output = PingPong::cachePath(request_.cacheRoot, request_.sha256, request_.trimStart, request_.trimEnd);
  fs::create_directories(output.parent_path(), error);
  if (error) {
    return fail(PingPong::explain(error.message()));
  }
  const auto partial = output.parent_path() / ("." + output.stem().string() + "-" + newUuid() + ".mp4");
  ScratchFolder partialRemoval(partial);
  std::string joinError;
  if (auto failure = ffmpeg(PingPong::concatArguments(join.string(), partial.string()), 0, &joinError)) {
    return fail(failure->problem);
  }
  if (cancelled()) {
    return fail(std::string(cancelledMessage));
  }
  const auto outputBytes = static_cast<std::int64_t>(fs::file_size(partial, error));
  fs::rename(partial, output, error);
  if (error) {
    return fail(PingPong::explain(error.message()));
  }
  partialRemoval.release();

  PingPongManifest manifest;
  manifest.sourceSha256 = request_.sha256;
  manifest.sourceLengthBytes = sourceBytes;
  manifest.encoder = encoder_.value_or("unknown");
  manifest.builtUtc = request_.clock();
  manifest.outputBytes = outputBytes;
  if (auto written = files::writeAtomically(PingPongBuilder::manifestURL(output), json::pretty(json::encode(manifest)));
      !written) {
    fs::remove(output, error);
    return fail(PingPong::explain(written.error()));
  }

  const auto window = PingPong::forwardIsWholeSource(request_.trimStart, request_.trimEnd, clipSeconds)
                          ? std::string()
                          : fmt::format(", window from {:.3f} s", plan.sourceStartSeconds);
  const auto line = fmt::format("pingpong: {:.3f} s at {:.3f} fps, {} segment(s) of {:.3f} s{}", plan.sourceSeconds,
                                plan.fps, plan.segmentCount(), plan.segmentSeconds, window);
  if (hooks_.log) {
    hooks_.log(line);
  } else {
    log::write("pingpong", log::Level::info, line);
  }
  report(1);
  result.output = output;
  result.encoder = encoder_;
  return result;
}

}  // namespace

std::vector<fs::path> PingPongBuilder::forgetCopies(const fs::path& cacheRoot, std::string_view sourceSha256) {
  // Copies are named as `cachePath` names them, by the start of the hash, whatever their
  // window; the manifest says whose they are.
  std::vector<fs::path> deleted;
  const auto any = PingPong::cachePath(cacheRoot, sourceSha256, 0, 0);
  const auto folder = any.parent_path();
  const auto name = any.filename().string();
  const auto prefix = name.substr(0, name.find('-') + 1);
  std::error_code error;
  std::vector<fs::path> copies;
  for (fs::directory_iterator entries(folder, error), end; !error && entries != end; entries.increment(error)) {
    if (entries->path().filename().string().starts_with(prefix) && entries->path().extension() == ".mp4") {
      copies.push_back(entries->path());
    }
  }
  for (const auto& copy : copies) {
    const auto manifest = readManifest(copy);
    if (manifest && !text::equalIgnoringCase(manifest->sourceSha256, sourceSha256)) {
      continue;  // another content whose hash starts alike
    }
    fs::remove(copy, error);
    fs::remove(manifestURL(copy), error);
    deleted.push_back(copy);
  }
  return deleted;
}

fs::path PingPongBuilder::manifestURL(const fs::path& built) {
  auto manifest = built;
  manifest.replace_extension("json");
  return manifest;
}

std::optional<PingPongManifest> PingPongBuilder::readManifest(const fs::path& built) {
  const auto text = files::read(manifestURL(built));
  if (!text) {
    return std::nullopt;
  }
  const auto parsed = json::parse(*text);
  if (!parsed) {
    return std::nullopt;
  }
  auto manifest = json::decode<PingPongManifest>(*parsed);
  if (!manifest) {
    return std::nullopt;
  }
  return *manifest;
}

std::optional<fs::path> PingPongBuilder::findUsable(const fs::path& cacheRoot, const fs::path& source,
                                                    std::string_view sha256, double trimStart, double trimEnd) {
  const auto built = PingPong::cachePath(cacheRoot, sha256, trimStart, trimEnd);
  std::error_code error;
  const auto sourceBytes = fs::file_size(source, error);
  if (error || !fs::is_regular_file(built, error)) {
    return std::nullopt;
  }
  if (!PingPong::isValid(readManifest(built), sha256, static_cast<std::int64_t>(sourceBytes))) {
    return std::nullopt;
  }
  // Using a copy keeps it in the cache longest.
  fs::last_write_time(built, fs::file_time_type::clock::now(), error);
  return built;
}

PingPongBuilder::Assessment PingPongBuilder::assess(const Request& request, const std::stop_token& stop) {
  const Hooks none;
  return Run(request, stop, none).assess();
}

PingPongBuilder::Result PingPongBuilder::build(const Request& request, const std::stop_token& stop,
                                               const Hooks& hooks) {
  return Run(request, stop, hooks).go();
}

std::vector<PingPongCacheEntry> PingPongBuilder::cacheEntries(const fs::path& cacheRoot) {
  std::vector<PingPongCacheEntry> entries;
  std::error_code error;
  const auto folder = cacheRoot / "cache" / "pingpong";
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    const auto& path = it->path();
    if (!it->is_regular_file(error) || path.extension() == ".json") {
      continue;
    }
    std::error_code sizeError;
    auto bytes = static_cast<std::int64_t>(fs::file_size(path, sizeError));
    const auto manifest = manifestURL(path);
    if (fs::is_regular_file(manifest, sizeError)) {
      bytes += static_cast<std::int64_t>(fs::file_size(manifest, sizeError));
    }
    const auto modified = fs::last_write_time(path, sizeError);
    const auto used = std::chrono::time_point_cast<Date::duration>(std::chrono::file_clock::to_sys(modified));
    entries.push_back({path.string(), sizeError ? 0 : bytes, used});
  }
  std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.path < b.path; });
  return entries;
}

std::vector<fs::path> PingPongBuilder::trimCache(const fs::path& cacheRoot, std::int64_t budgetBytes,
                                                 const fs::path& keep) {
  auto entries = cacheEntries(cacheRoot);
  // The kept copy stays, so the others share what it leaves of the budget.
  auto budget = budgetBytes;
  std::erase_if(entries, [&](const PingPongCacheEntry& entry) {
    if (keep.empty() || fs::path(entry.path) != keep) {
      return false;
    }
    budget -= entry.bytes;
    return true;
  });
  std::vector<fs::path> deleted;
  for (const auto& path : PingPong::evict(entries, std::max<std::int64_t>(budget, 0))) {
    std::error_code error;
    if (fs::remove(path, error)) {
      fs::remove(manifestURL(path), error);
      deleted.emplace_back(path);
    }
  }
  return deleted;
}

}  // namespace korvalen::engine
