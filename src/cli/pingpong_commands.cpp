// `korvalen pingpong assess`: whether a clip can get a forwards-and-backwards copy, how it
// would be cut to keep memory bounded, and what it would cost.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/library/ping_pong.hpp"
#include "engine/process.hpp"

#include <fmt/format.h>

#include <ostream>

namespace korvalen::cli {

void addPingPongCommands(CLI::App& app, Context& context, Action& action) {
  struct Options {
    std::string file, trim, budget = "1073741824", ffmpeg;
    bool asJson = false;
  };
  auto options = std::make_shared<Options>();
  auto* group = app.add_subcommand("pingpong", "Forwards-and-backwards loops");
  auto* assess = group->add_subcommand("assess", "Whether a clip can be reversed, in how many segments, at what cost");
  assess->add_option("file", options->file, "The video")->required();
  assess->add_option("--trim", options->trim, "START:END in seconds; END may be \"end\"");
  assess->add_option("--budget", options->budget, "Memory for one reversal segment, in bytes (default 1 GiB)");
  assess->add_option("--ffmpeg", options->ffmpeg, "The ffmpeg executable (default: ffmpeg on PATH)");
  assess->add_flag("--json", options->asJson, "Machine-readable output");
  assess->callback([&context, &action, options] {
    action = [&context, options] {
      const auto& o = *options;
      const auto budget = parseInteger(o.budget, "--budget");
      if (budget < 1) {
        throw UsageError(fmt::format("--budget: expected a positive number of bytes, got \"{}\"", o.budget));
      }
      std::optional<TrimRange> trim;
      if (!o.trim.empty()) {
        trim = parseTrim(o.trim, "--trim");
      }
      const auto ffmpeg = locateFfmpeg(o.ffmpeg, context);
      const auto probed = engine::run(ffmpeg, PingPong::probeArguments(o.file));
      if (!probed) {
        throw Failure(probed.error());
      }
      const auto probe = PingPong::parseProbe(probed->error);
      if (!probe.seconds) {
        throw Failure(fmt::format("{}: {}", o.file, PingPong::explain(probed->error)));
      }
      std::error_code error;
      const auto sourceBytes = static_cast<std::int64_t>(std::filesystem::file_size(o.file, error));
      const auto space = std::filesystem::space(std::filesystem::absolute(o.file).parent_path(), error);
      const double start = trim ? trim->start : 0;
      const double end = trim && std::isfinite(trim->end) ? std::min(trim->end, *probe.seconds) : *probe.seconds;
      const auto plan = PingPong::assess(std::max(end - start, 0.0), probe.width.value_or(0), probe.height.value_or(0),
                                         probe.fps.value_or(0), budget, static_cast<std::int64_t>(space.available),
                                         sourceBytes, start);
      const auto cost = PingPong::cost(plan.sourceSeconds, sourceBytes);
      if (o.asJson) {
        json::Json out = json::Json::object();
        out["allowed"] = plan.allowed;
        out["reason"] = plan.reason ? json::Json(*plan.reason) : json::Json(nullptr);
        out["sourceSeconds"] = plan.sourceSeconds;
        out["sourceStartSeconds"] = plan.sourceStartSeconds;
        out["segmentSeconds"] = plan.segmentSeconds;
        out["segmentCount"] = plan.segmentCount();
        out["peakBytesPerSegment"] = plan.peakBytesPerSegment;
        out["fps"] = plan.fps;
        out["cost"] = cost.describe();
        context.out << json::pretty(out);
      } else {
        context.out << fmt::format("{}: {} s used of {} s, {} fps, {}x{}\n", o.file, formatNumber(plan.sourceSeconds),
                                   formatNumber(*probe.seconds), formatNumber(probe.fps.value_or(0)),
                                   probe.width.value_or(0), probe.height.value_or(0));
        if (plan.allowed) {
          context.out << fmt::format("allowed: {} segment(s) of {} s, at most {} MB decoded at once\n",
                                     plan.segmentCount(), formatNumber(plan.segmentSeconds),
                                     (plan.peakBytesPerSegment + 524'288) / 1'048'576);
        } else {
          context.out << "not allowed: " << *plan.reason << "\n";
        }
        context.out << cost.describe() << "\n";
      }
      return plan.allowed ? ok : failed;
    };
  });
}

}  // namespace korvalen::cli
