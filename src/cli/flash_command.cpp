// `korvalen flash check`: whether a video or animated image flashes more than three times a
// second, measured on its real decoded frames.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "engine/flash_check.hpp"
#include "engine/process.hpp"

#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <ostream>

namespace korvalen::cli {

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
    std::string file, region, step, rate = "1";
    bool asJson = false;
  };
  auto options = std::make_shared<Options>();
  auto* group = app.add_subcommand("flash", "The photosensitivity flash guard");
  auto* check = group->add_subcommand("check", "Check whether a video or animated image flashes (WCAG 2.3.1)");
  check->add_option("file", options->file, "A video or animated image")->required();
  check->add_option("--region", options->region, "X,Y,W,H: measure only this part of the frame (fractions)");
  check->add_option("--step", options->step,
                    "Sample every Nth pixel of every Nth row; 1 measures every pixel (default: as the "
                    "screensaver's guard samples a shown picture, about 65,536 pixels a frame)");
  check->add_option("--rate", options->rate, "Playback speed (default 1)");
  check->add_flag("--json", options->asJson, "Machine-readable output");
  check->callback([&context, &action, options] {
    action = [&context, options] {
      const auto& o = *options;
      FlashCheck settings;
      if (!o.region.empty()) {
        settings.region = parseCrop(o.region, "--region");
      }
      if (o.step.empty()) {
        // The verdict the guard would reach on screen, at a small part of the cost.
        settings.sampleBudget = engine::guardSampleBudget;
      } else {
        settings.step = parseInteger(o.step, "--step");
        if (settings.step < 1 || settings.step > 64) {
          throw UsageError(fmt::format("--step: expected a whole number from 1 to 64, got \"{}\"", o.step));
        }
      }
      settings.rate = parseInRange(o.rate, "--rate", 0.01, 100);
      auto lastShown = std::chrono::steady_clock::now();
      const auto progress = [&](std::int64_t frames, double seconds) {
        const auto now = std::chrono::steady_clock::now();
        if (now - lastShown > std::chrono::milliseconds(250)) {
          context.err << fmt::format("\r  {} frames, {:.1f} s of media", frames, seconds) << std::flush;
          lastShown = now;
        }
      };
      auto report = engine::checkForFlashes(
          o.file, settings, context.interactive ? std::function<void(std::int64_t, double)>(progress) : nullptr);
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
