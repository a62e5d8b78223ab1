// `korvalen flash check`: whether a video or animated image flashes more than three times a
// second, measured on its real decoded frames.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/playback/flash_analyzer.hpp"
#include "engine/video_frames.hpp"

#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <ostream>

namespace korvalen::cli {
namespace {

// Codecs of pictures that loop: judged as a whole loop, the way the screensaver does.
bool isAnimatedImage(const std::string& codec) {
  return codec == "gif" || codec == "apng" || codec == "webp";
}

struct PixelRegion {
  std::int64_t x = 0;
  std::int64_t y = 0;
  std::int64_t width = 0;
  std::int64_t height = 0;
};

// The normalised region in whole pixels, at least one each way.
PixelRegion pixelRegion(const CropRect& region, std::int64_t width, std::int64_t height) {
  const auto edge = [](double fraction, std::int64_t size, bool up) {
    const double scaled = fraction * static_cast<double>(size);
    return std::clamp(static_cast<std::int64_t>(up ? std::ceil(scaled) : std::floor(scaled)), std::int64_t{0}, size);
  };
  const auto left = std::min(edge(region.x, width, false), width - 1);
  const auto top = std::min(edge(region.y, height, false), height - 1);
  const auto right = std::max(edge(region.right(), width, true), left + 1);
  const auto bottom = std::max(edge(region.bottom(), height, true), top + 1);
  return {left, top, right - left, bottom - top};
}

}  // namespace

std::expected<FlashReport, std::string> checkForFlashes(const std::filesystem::path& ffmpeg,
                                                        const std::filesystem::path& file, const FlashCheck& check,
                                                        const std::function<void(std::int64_t, double)>& progress) {
  const auto started = std::chrono::steady_clock::now();
  auto frames = engine::VideoFrames::open(ffmpeg, file);
  if (!frames) {
    return std::unexpected(frames.error());
  }
  FlashReport report;
  FlashAnalyzer analyzer;
  std::vector<double> luminances;
  std::vector<double> times;
  const bool animation = isAnimatedImage(frames->codec());
  std::optional<PixelRegion> region;
  while (true) {
    auto more = frames->next();
    if (!more) {
      return std::unexpected(more.error());
    }
    if (!*more) {
      break;
    }
    if (!region) {
      region = pixelRegion(check.region, frames->width(), frames->height());
      report.width = frames->width();
      report.height = frames->height();
    }
    const auto offset = static_cast<std::size_t>(region->y * frames->stride() + region->x * 4);
    const double luminance = FlashAnalyzer::meanLuminance(frames->pixels().subspan(offset), region->width,
                                                          region->height, frames->stride(), check.step);
    const double at = frames->seconds() / check.rate;
    luminances.push_back(luminance);
    times.push_back(at);
    if (!animation && analyzer.observe(at, luminance) && !report.firstViolationSeconds) {
      report.firstViolationSeconds = at;
    }
    ++report.frames;
    if (progress) {
      progress(report.frames, frames->seconds());
    }
  }
  report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  if (animation && luminances.size() >= 2) {
    // Each frame shows until the next; the last until the end of the loop.
    std::vector<double> delays;
    for (std::size_t i = 1; i < times.size(); ++i) {
      delays.push_back((times[i] - times[i - 1]) * check.rate);
    }
    const double end = frames->duration().value_or(0);
    const double last = end - times.back() * check.rate;
    delays.push_back(last > 0 ? last : delays.back());
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

std::string describeFlashReport(const std::string& name, const FlashReport& report) {
  std::string verdict = report.flashes
                            ? fmt::format("{}: flashes \u2014 peak {} flashes/s", name, report.peakFlashesPerSecond)
                            : fmt::format("{}: does not flash (peak {} flashes/s)", name, report.peakFlashesPerSecond);
  if (report.firstViolationSeconds) {
    verdict += fmt::format("; over the limit first at {:.2f} s", *report.firstViolationSeconds);
  }
  const double speed = report.seconds > 0 ? static_cast<double>(report.frames) / report.seconds : 0;
  return fmt::format("{}\nanalysed {} frame(s) ({}, {}x{}) at {:.0f} frames/s\n", verdict, report.frames, report.kind,
                     report.width, report.height, speed);
}

std::filesystem::path locateFfmpeg(const std::string& given, const Context& context) {
  const auto found = engine::findExecutable(given.empty() ? "ffmpeg" : given, context.environment("PATH").value_or(""));
  if (!found) {
    throw Failure(given.empty()
                      ? "ffmpeg was not found on PATH; install it (apt-get install ffmpeg) or pass --ffmpeg PATH"
                      : fmt::format("--ffmpeg: {} is not an executable", given));
  }
  return *found;
}

void addFlashCommands(CLI::App& app, Context& context, Action& action) {
  struct Options {
    std::string file, region, step = "1", rate = "1", ffmpeg;
    bool asJson = false;
  };
  auto options = std::make_shared<Options>();
  auto* group = app.add_subcommand("flash", "The photosensitivity flash guard");
  auto* check = group->add_subcommand("check", "Check whether a video or animated image flashes (WCAG 2.3.1)");
  check->add_option("file", options->file, "A video or animated image")->required();
  check->add_option("--region", options->region, "X,Y,W,H: measure only this part of the frame (fractions)");
  check->add_option("--step", options->step, "Sample every Nth pixel of every Nth row (default 1: all)");
  check->add_option("--rate", options->rate, "Playback speed (default 1)");
  check->add_option("--ffmpeg", options->ffmpeg, "The ffmpeg executable (default: ffmpeg on PATH)");
  check->add_flag("--json", options->asJson, "Machine-readable output");
  check->callback([&context, &action, options] {
    action = [&context, options] {
      const auto& o = *options;
      FlashCheck settings;
      if (!o.region.empty()) {
        settings.region = parseCrop(o.region, "--region");
      }
      settings.step = parseInteger(o.step, "--step");
      if (settings.step < 1 || settings.step > 64) {
        throw UsageError(fmt::format("--step: expected a whole number from 1 to 64, got \"{}\"", o.step));
      }
      settings.rate = parseInRange(o.rate, "--rate", 0.01, 100);
      const auto ffmpeg = locateFfmpeg(o.ffmpeg, context);
      auto lastShown = std::chrono::steady_clock::now();
      const auto progress = [&](std::int64_t frames, double seconds) {
        const auto now = std::chrono::steady_clock::now();
        if (now - lastShown > std::chrono::milliseconds(250)) {
          context.err << fmt::format("\r  {} frames, {:.1f} s of media", frames, seconds) << std::flush;
          lastShown = now;
        }
      };
      auto report =
          checkForFlashes(ffmpeg, o.file, settings,
                          context.interactive ? std::function<void(std::int64_t, double)>(progress) : nullptr);
      if (context.interactive) {
        context.err << "\r\033[K" << std::flush;
      }
      if (!report) {
        throw Failure(report.error());
      }
      if (o.asJson) {
        json::Json out = json::Json::object();
        out["file"] = o.file;
        out["kind"] = report->kind;
        out["flashes"] = report->flashes;
        out["peakFlashesPerSecond"] = report->peakFlashesPerSecond;
        out["firstViolationSeconds"] =
            report->firstViolationSeconds ? json::Json(*report->firstViolationSeconds) : json::Json(nullptr);
        out["frames"] = report->frames;
        out["width"] = report->width;
        out["height"] = report->height;
        out["framesPerSecond"] = report->seconds > 0 ? static_cast<double>(report->frames) / report->seconds : 0.0;
        context.out << json::pretty(out);
      } else {
        context.out << describeFlashReport(o.file, *report);
      }
      return report->flashes ? failed : ok;
    };
  });
}

}  // namespace korvalen::cli
