// `korvalen transitions list|frame|render` and `korvalen redact`.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/diagnostics/redact.hpp"
#include "core/rendering/transitions.hpp"
#include "core/support/atomic_file.hpp"
#include "engine/compositor.hpp"
#include "engine/ffmpeg_file.hpp"
#include "engine/frame_writer.hpp"
#include "engine/process.hpp"

#include <fmt/format.h>

#include <istream>
#include <iterator>
#include <ostream>

namespace korvalen::cli {
namespace {

TransitionEffect effectNamed(const std::string& id) {
  if (auto effect = TransitionRegistry::find(id)) {
    return *effect;
  }
  std::string ids;
  for (const auto& effect : TransitionRegistry::all()) {
    ids += (ids.empty() ? "" : ", ") + effect.id;
  }
  throw UsageError(fmt::format("no transition named \"{}\"; the transitions are {}", id, ids));
}

json::Json layerJson(const TransitionLayer& layer) {
  json::Json out = json::Json::object();
  out["opacity"] = layer.opacity;
  out["clip"] = json::encode(layer.clip);
  out["transform"] = layer.transform.values();
  return out;
}

std::string layerText(const TransitionLayer& layer) {
  const auto m = layer.transform;
  return fmt::format("opacity {}, clip {}, transform [{} {} {} {} {} {}]", formatNumber(layer.opacity),
                     describeRect(layer.clip), formatNumber(m.m11), formatNumber(m.m12), formatNumber(m.m21),
                     formatNumber(m.m22), formatNumber(m.m31), formatNumber(m.m32));
}

int render(const std::string& id, const Size& size, double seconds, double fps, const std::string& out,
           const std::filesystem::path& ffmpeg, Context& context) {
  const auto effect = effectNamed(id);
  const bool gif = out.ends_with(".gif");
  if (!gif && !out.ends_with(".mp4")) {
    throw UsageError(fmt::format("--out: expected a file ending in .gif or .mp4, got \"{}\"", out));
  }
  auto writer = engine::FrameWriter::start(ffmpeg, out, size.width, size.height, fps);
  if (!writer) {
    throw Failure(writer.error());
  }
  const auto outgoing = engine::barsPicture(size.width, size.height);
  const auto incoming = engine::checkerPicture(size.width, size.height);
  const auto frames = std::max<std::int64_t>(static_cast<std::int64_t>(std::lround(seconds * fps)), 2);
  for (std::int64_t i = 0; i < frames; ++i) {
    const double progress = static_cast<double>(i) / static_cast<double>(frames - 1);
    if (!writer->write(engine::composite(effect.at(progress, size.width, size.height), outgoing, incoming))) {
      break;
    }
  }
  if (auto finished = writer->finish(); !finished) {
    throw Failure(finished.error());
  }
  context.out << fmt::format("wrote {}: {} ({}), {} frames at {} fps\n", out, effect.id, effect.displayName, frames,
                             formatNumber(fps));
  return ok;
}

}  // namespace

void addMediaCommands(CLI::App& app, Context& context, Action& action) {
  auto* transitions = app.add_subcommand("transitions", "The transition effects between wallpapers");
  auto* list = transitions->add_subcommand("list", "Every effect: id, name, and whether it moves the pictures");
  list->callback([&context, &action] {
    action = [&context] {
      for (const auto& effect : TransitionRegistry::all()) {
        context.out << fmt::format("{:<18}{:<24}{}\n", effect.id, effect.displayName,
                                   TransitionBudget::moving().contains(effect.id) ? "moving" : "still");
      }
      return ok;
    };
  });
  {
    struct Options {
      std::string id, progress, size;
      bool asJson = false;
    };
    auto options = std::make_shared<Options>();
    auto* frame = transitions->add_subcommand("frame", "One frame of an effect, and how much of the screen it covers");
    frame->add_option("id", options->id, "The effect, e.g. slideLeft")->required();
    frame->add_option("--progress", options->progress, "0 to 1")->required();
    frame->add_option("--size", options->size, "WIDTHxHEIGHT of the surface")->required();
    frame->add_flag("--json", options->asJson, "Machine-readable output");
    frame->callback([&context, &action, options] {
      action = [&context, options] {
        const auto effect = effectNamed(options->id);
        const double progress = parseInRange(options->progress, "--progress", 0, 1);
        const auto size = parseSize(options->size, "--size");
        const auto result = effect.at(progress, size.width, size.height);
        if (options->asJson) {
          json::Json out = json::Json::object();
          out["id"] = effect.id;
          out["outgoing"] = layerJson(result.outgoing);
          out["incoming"] = layerJson(result.incoming);
          out["width"] = result.width;
          out["height"] = result.height;
          out["covered"] = result.covered();
          out["visibleIncoming"] = result.visibleIncoming();
          out["visibleOutgoing"] = result.visibleOutgoing();
          context.out << json::pretty(out);
        } else {
          context.out << fmt::format(
              "{} at {}\noutgoing  {}\nincoming  {}\ncovered {}, incoming visible {}, outgoing "
              "visible {}\n",
              effect.id, formatNumber(progress), layerText(result.outgoing), layerText(result.incoming),
              formatNumber(result.covered()), formatNumber(result.visibleIncoming()),
              formatNumber(result.visibleOutgoing()));
        }
        return ok;
      };
    });
  }
  {
    struct Options {
      std::string id, size, seconds = "1.5", fps = "24", out, ffmpeg;
    };
    auto options = std::make_shared<Options>();
    auto* renderCommand =
        transitions->add_subcommand("render", "Render an effect between two test pictures to a GIF or MP4");
    renderCommand->add_option("id", options->id, "The effect")->required();
    renderCommand->add_option("--size", options->size, "WIDTHxHEIGHT")->required();
    renderCommand->add_option("--seconds", options->seconds, "Length (default 1.5)");
    renderCommand->add_option("--fps", options->fps, "Frames per second (default 24)");
    renderCommand->add_option("--out", options->out, "FILE.gif or FILE.mp4")->required();
    renderCommand->add_option("--ffmpeg", options->ffmpeg, "The ffmpeg executable (default: ffmpeg on PATH)");
    renderCommand->callback([&context, &action, options] {
      action = [&context, options] {
        const auto size = parseSize(options->size, "--size");
        if (size.width < 2 || size.height < 2 || size.width > 7680 || size.height > 4320) {
          throw UsageError(fmt::format("--size: expected 2x2 up to 7680x4320, got \"{}\"", options->size));
        }
        return render(options->id, size, parseInRange(options->seconds, "--seconds", 0.1, 60),
                      parseInRange(options->fps, "--fps", 1, 120), options->out, locateFfmpeg(options->ffmpeg, context),
                      context);
      };
    });
  }

  {
    auto file = std::make_shared<std::string>();
    auto* redact = app.add_subcommand("redact", "Hide credentials in text: standard input or FILE to standard output");
    redact->add_option("file", *file, "A file (default: standard input)");
    redact->callback([&context, &action, file] {
      action = [&context, file] {
        std::string text;
        if (file->empty()) {
          text.assign(std::istreambuf_iterator<char>(context.in), std::istreambuf_iterator<char>());
        } else {
          auto bytes = files::read(*file);
          if (!bytes) {
            throw Failure(bytes.error());
          }
          text = std::move(*bytes);
        }
        context.out << Redact::secrets(text);
        return ok;
      };
    });
  }
}

}  // namespace korvalen::cli
