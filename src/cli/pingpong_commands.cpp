// `korvalen pingpong assess|build|cache`: whether a clip can get a forwards-and-backwards
// copy and at what cost, building it (or finding the one built before), and the cache of
// built copies.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "cli/interrupts.hpp"
#include "core/library/ping_pong.hpp"
#include "core/support/numbers.hpp"
#include "core/support/paths.hpp"
#include "engine/file_hash.hpp"
#include "engine/ping_pong_builder.hpp"

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <csignal>
#include <ostream>
#include <thread>

namespace korvalen::cli {
namespace {

namespace fs = std::filesystem;
using engine::PingPongBuilder;

std::int64_t parseBudget(const std::string& text, std::string_view argument, std::int64_t least) {
  const auto bytes = parseInteger(text, argument);
  if (bytes < least) {
    throw UsageError(fmt::format("{}: expected a number of bytes of at least {}, got \"{}\"", argument, least, text));
  }
  return bytes;
}

fs::path cacheRoot(const std::string& given, const Context& context) {
  if (!given.empty()) {
    return given;
  }
  return paths::korvalenFolder(paths::homeFolder(context.environment), context.environment);
}

// What `assess` and `build` both take: the clip, its window, the memory budget and ffmpeg.
struct ClipOptions {
  std::string file, trim, cache, budget = std::to_string(PingPongBuilder::defaultMemoryBudgetBytes), ffmpeg;

  void addTo(CLI::App& command) {
    command.add_option("file", file, "The video")->required();
    command.add_option("--trim", trim, "START:END in seconds; END may be \"end\"");
    command.add_option("--cache", cache, "The folder holding cache/pingpong (default: the Korvalen folder)");
    command.add_option("--budget", budget, "Memory for one reversal segment, in bytes (default 1 GiB)");
    command.add_option("--ffmpeg", ffmpeg, "The ffmpeg executable (default: ffmpeg on PATH)");
  }

  [[nodiscard]] PingPongBuilder::Request request(const Context& context) const {
    PingPongBuilder::Request made;
    made.memoryBudgetBytes = parseBudget(budget, "--budget", 1);
    if (!trim.empty()) {
      const auto range = parseTrim(trim, "--trim");
      made.trimStart = range.start;
      made.trimEnd = range.end;
    }
    made.ffmpeg = locateFfmpeg(ffmpeg, context);
    made.source = file;
    made.cacheRoot = cacheRoot(cache, context);
    made.temporaryFolder = context.environment("TMPDIR").value_or("");
    made.clock = context.now;
    return made;
  }
};

void addAssess(CLI::App& group, Context& context, Action& action) {
  struct Options : ClipOptions {
    bool asJson = false;
  };
  auto options = std::make_shared<Options>();
  auto* assess = group.add_subcommand("assess", "Whether a clip can be reversed, in how many segments, at what cost");
  options->addTo(*assess);
  assess->add_flag("--json", options->asJson, "Machine-readable output");
  assess->callback([&context, &action, options] {
    action = [&context, options] {
      const auto& o = *options;
      const auto assessment = PingPongBuilder::assess(o.request(context));
      if (assessment.problem) {
        throw Failure(fmt::format("{}: {}", o.file, *assessment.problem));
      }
      const auto& probe = assessment.probe;
      const auto& plan = assessment.plan;
      const auto sourceBytes = assessment.sourceBytes;
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
                                   formatNumber(probe.seconds.value_or(0)), formatNumber(probe.fps.value_or(0)),
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

// Runs the build on a worker thread so that this one can turn Ctrl-C into a stop request.
PingPongBuilder::Result buildWithProgress(const PingPongBuilder::Request& request, Context& context) {
  PingPongBuilder::Hooks hooks;
  hooks.log = [&context](std::string_view line) { context.out << line << "\n"; };
  int shown = -1;
  if (context.interactive) {
    hooks.progress = [&context, &shown](double fraction) {
      constexpr int width = 30;
      const int percent = static_cast<int>(fraction * 100);
      if (percent != shown) {
        const auto filled = static_cast<std::size_t>(percent * width / 100);
        context.err << fmt::format("\r  [{}{}] {:3d}%", std::string(filled, '#'),
                                   std::string(static_cast<std::size_t>(width) - filled, ' '), percent)
                    << std::flush;
        shown = percent;
      }
    };
  }
  const InterruptCatcher catcher;
  std::atomic<bool> finished{false};
  PingPongBuilder::Result result;
  {
    std::jthread worker([&](const std::stop_token& stop) {
      result = PingPongBuilder::build(request, stop, hooks);
      finished = true;
    });
    while (!finished) {
      if (interrupted) {
        worker.request_stop();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  if (shown >= 0) {
    context.err << "\r\033[K" << std::flush;
  }
  return result;
}

void addBuild(CLI::App& group, Context& context, Action& action) {
  struct Options : ClipOptions {
    std::string encoders;
  };
  auto options = std::make_shared<Options>();
  auto* build = group.add_subcommand("build", "Build the forwards-and-backwards copy, or find the one built before");
  options->addTo(*build);
  build->add_option(
      "--encoder", options->encoders,
      fmt::format("Encoders to try, comma-separated (default: {})", fmt::join(PingPongBuilder::encoderChain(), ",")));
  build->callback([&context, &action, options] {
    action = [&context, options] {
      const auto& o = *options;
      auto request = o.request(context);
      if (!o.encoders.empty()) {
        request.encoders = splitList(o.encoders);
        if (request.encoders.empty()) {
          throw UsageError(fmt::format("--encoder: expected encoder names, got \"{}\"", o.encoders));
        }
      }
      const auto hash = engine::sha256OfFile(o.file);
      if (!hash) {
        std::error_code error;
        if (!fs::exists(o.file, error)) {
          throw Failure(fmt::format("{}: {}", o.file, PingPongBuilder::goneMessage));
        }
        throw Failure(hash.error());
      }
      request.sha256 = *hash;

      fs::path output;
      if (const auto usable = PingPongBuilder::findUsable(request.cacheRoot, request.source, request.sha256,
                                                          request.trimStart, request.trimEnd)) {
        output = *usable;
        context.out << "Using the copy built before.\n";
      } else {
        const auto result = buildWithProgress(request, context);
        if (result.problem) {
          throw Failure(fmt::format("{}: {}", o.file, *result.problem));
        }
        output = result.output.value_or(fs::path());
        context.out << fmt::format("Built with {} in {} segment(s).\n", result.encoder.value_or("unknown"),
                                   result.segments);
      }
      const auto removed = PingPongBuilder::trimCache(request.cacheRoot, PingPongBuilder::cacheBudgetBytes, output);
      if (!removed.empty()) {
        context.out << fmt::format("Removed {} older copy(ies) to keep the cache within {}.\n", removed.size(),
                                   numbers::readableBytes(PingPongBuilder::cacheBudgetBytes));
      }
      context.out << output.string() << "\n";
      return ok;
    };
  });
}

void addCache(CLI::App& group, Context& context, Action& action) {
  struct Options {
    std::string cache, trimTo;
    bool asJson = false;
  };
  auto options = std::make_shared<Options>();
  auto* cache = group.add_subcommand("cache", "List the cached copies, and trim the cache to a size");
  cache->add_option("--cache", options->cache, "The folder holding cache/pingpong (default: the Korvalen folder)");
  cache->add_option("--trim-to", options->trimTo, "Delete least recently used copies until the cache fits, in bytes");
  cache->add_flag("--json", options->asJson, "Machine-readable output");
  cache->callback([&context, &action, options] {
    action = [&context, options] {
      const auto& o = *options;
      const auto root = cacheRoot(o.cache, context);
      std::vector<fs::path> removed;
      if (!o.trimTo.empty()) {
        removed = PingPongBuilder::trimCache(root, parseBudget(o.trimTo, "--trim-to", 0));
      }
      auto entries = PingPongBuilder::cacheEntries(root);
      std::stable_sort(entries.begin(), entries.end(),
                       [](const auto& a, const auto& b) { return a.lastUsed > b.lastUsed; });
      std::int64_t total = 0;
      for (const auto& entry : entries) {
        total += entry.bytes;
      }
      const auto sourceHash = [](const PingPongCacheEntry& entry) -> std::optional<std::string> {
        const auto manifest = PingPongBuilder::readManifest(entry.path);
        return manifest ? std::optional(manifest->sourceSha256) : std::nullopt;
      };
      if (o.asJson) {
        json::Json out = json::Json::object();
        out["folder"] = (root / "cache" / "pingpong").string();
        out["totalBytes"] = total;
        out["removed"] = json::Json::array();
        for (const auto& path : removed) {
          out["removed"].push_back(path.string());
        }
        out["copies"] = json::Json::array();
        for (const auto& entry : entries) {
          const auto hash = sourceHash(entry);
          out["copies"].push_back({{"path", entry.path},
                                   {"bytes", entry.bytes},
                                   {"lastUsed", ISO8601::plain().format(entry.lastUsed)},
                                   {"sourceSha256", hash ? json::Json(*hash) : json::Json(nullptr)}});
        }
        context.out << json::pretty(out);
        return ok;
      }
      for (const auto& path : removed) {
        context.out << "removed " << path.string() << "\n";
      }
      if (entries.empty()) {
        context.out << fmt::format("No reversed copies are cached in {}.\n", (root / "cache" / "pingpong").string());
        return ok;
      }
      context.out << fmt::format("{} cached copy(ies), {} in all, in {}:\n", entries.size(),
                                 numbers::readableBytes(total), (root / "cache" / "pingpong").string());
      for (const auto& entry : entries) {
        context.out << fmt::format("  {:>10}  last used {}  source {}  {}\n", numbers::readableBytes(entry.bytes),
                                   ISO8601::plain().format(entry.lastUsed), sourceHash(entry).value_or("(no manifest)"),
                                   fs::path(entry.path).filename().string());
      }
      return ok;
    };
  });
}

}  // namespace

void addPingPongCommands(CLI::App& app, Context& context, Action& action) {
  auto* group = app.add_subcommand("pingpong", "Forwards-and-backwards loops");
  addAssess(*group, context, action);
  addBuild(*group, context, action);
  addCache(*group, context, action);
}

}  // namespace korvalen::cli
