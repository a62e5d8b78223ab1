// `korvalen plan show|put|set|clear`: inspect and edit the saver plan.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "engine/library/web_still.hpp"

#include <fmt/format.h>

#include <filesystem>
#include <ostream>

namespace korvalen::cli {
namespace {

struct PlanLocation {
  std::string plan;  // --plan; empty means the default location
};

std::filesystem::path resolve(const PlanLocation& location, const Context& context) {
  return location.plan.empty() ? SaverPlan::location(context.environment) : std::filesystem::path(location.plan);
}

void addPlanOption(CLI::App& command, PlanLocation& location) {
  command.add_option("--plan", location.plan, "Plan file (default: KORVALEN_SAVER_PLAN, else the Korvalen folder)");
}

// A plan to edit: the one on disk, or a fresh one when there is none. A plan that exists
// but cannot be read is never replaced, since the user would lose what it says.
SaverPlan planToEdit(const std::filesystem::path& path) {
  std::error_code error;
  if (std::filesystem::symlink_status(path, error).type() == std::filesystem::file_type::not_found) {
    return SaverPlan{};
  }
  auto plan = SaverPlan::load(path);
  if (!plan) {
    throw Failure(fmt::format("left {} as it is: {}", path.string(), plan.error()));
  }
  return std::move(*plan);
}

int saveEdited(SaverPlan plan, const std::filesystem::path& path, Context& context) {
  plan.written = context.now();
  if (auto done = plan.write(path); !done) {
    throw Failure(done.error());
  }
  context.out << "wrote " << path.string() << "\n";
  return ok;
}

std::string yesNo(bool value) {
  return value ? "yes" : "no";
}

std::string onOff(bool value) {
  return value ? "on" : "off";
}

// Which part of the plan a `put` or `clear` addresses.
struct Target {
  std::string screen;
  bool shared = false;
  bool chosen = false;

  void add(CLI::App& command) {
    auto* group = command.add_option_group("target", "Which content to change");
    group->add_option("--screen", screen, "A screen's own entry, by its stable identifier");
    group->add_flag("--shared", shared, "The content for screens without an entry of their own");
    group->add_flag("--chosen", chosen, "The content that overrides every screen");
    group->require_option(1);
  }
};

std::string describeOptional(const std::optional<SaverContent>& content) {
  return content ? describeContent(*content) : "none";
}

void showPlan(const std::filesystem::path& path, const std::optional<std::string>& screen, bool asJson,
              Context& context) {
  auto plan = SaverPlan::load(path);
  if (!plan) {
    std::error_code error;
    const bool exists = std::filesystem::symlink_status(path, error).type() != std::filesystem::file_type::not_found;
    throw Failure(exists ? fmt::format("no plan at {}: {}", path.string(), plan.error())
                         : fmt::format("no plan at {}", path.string()));
  }
  if (screen) {
    const auto rule = plan->ruleForScreen(*screen);
    const auto content = plan->contentForScreen(*screen);
    if (asJson) {
      json::Json out = json::Json::object();
      out["screen"] = *screen;
      out["rule"] = std::string(toString(rule));
      out["content"] = content ? json::encode(*content, json::saverPlanOptions) : json::Json(nullptr);
      context.out << json::pretty(out);
      return;
    }
    context.out << "screen " << *screen << " gets "
                << (content ? describeContent(*content) : std::string("nothing: it stays black")) << "\n"
                << "  by rule: " << describeRule(rule) << "\n";
    return;
  }
  if (asJson) {
    context.out << plan->encode();
    return;
  }
  auto& out = context.out;
  out << "plan " << path.string() << "\n";
  out << fmt::format("  written {}, version {}\n", ISO8601::plain().format(plan->written), plan->version);
  out << fmt::format("  sound {}, volume {}, dim {}, saturation {}, rate {}, guardsFlashes {}\n", onOff(plan->sound),
                     formatNumber(plan->volume), formatNumber(plan->dim), formatNumber(plan->saturation),
                     formatNumber(plan->rate), yesNo(plan->guardsFlashes()));
  out << "chosen: " << describeOptional(plan->chosen) << "\n";
  out << "shared: " << describeOptional(plan->shared) << "\n";
  out << "screens:" << (plan->screens.empty() ? " none" : "") << "\n";
  for (const auto& [id, content] : plan->screens) {
    out << "  " << id << ": " << describeContent(content) << "\n";
  }
}

}  // namespace

std::string describeContent(const SaverContent& content) {
  std::string text = fmt::format("{} {}", toString(content.kind), content.path);
  if (content.title) {
    text += fmt::format(" title=\"{}\"", *content.title);
  }
  text += fmt::format(" fit={}", toString(content.fit));
  if (content.crop) {
    const auto& crop = *content.crop;
    text += fmt::format(" crop={},{},{},{}", formatNumber(crop.x), formatNumber(crop.y), formatNumber(crop.width),
                        formatNumber(crop.height));
  }
  if (content.mirrorHorizontal) {
    text += " mirror-h";
  }
  if (content.mirrorVertical) {
    text += " mirror-v";
  }
  if (content.trimStart != 0 || content.trimEnd != 0) {
    const auto end = std::isinf(content.trimEnd) ? std::string("end") : formatNumber(content.trimEnd);
    text += fmt::format(" trim={}:{}", formatNumber(content.trimStart), end);
  }
  if (content.sharpen != 0) {
    text += fmt::format(" sharpen={}", formatNumber(content.sharpen));
  }
  if (content.still) {
    text += fmt::format(" still={}", *content.still);
  }
  if (content.isHeld()) {
    text += " held";
  }
  return text;
}

std::string describeRule(ScreenRule rule) {
  switch (rule) {
    case ScreenRule::chosen:
      return "chosen (overrides every screen)";
    case ScreenRule::ownEntry:
      return "the screen's own entry";
    case ScreenRule::shared:
      return "shared (the screen has no entry of its own)";
    case ScreenRule::nothing:
      return "nothing (no chosen content, no entry for this screen, no shared content)";
  }
  return "nothing";
}

void addPlanCommands(CLI::App& app, Context& context, Action& action) {
  auto* group = app.add_subcommand("plan", "Inspect and edit the screensaver plan");

  {
    auto* show = group->add_subcommand("show", "Print the plan, or what one screen gets");
    auto location = std::make_shared<PlanLocation>();
    auto screen = std::make_shared<std::optional<std::string>>();
    auto asJson = std::make_shared<bool>(false);
    addPlanOption(*show, *location);
    show->add_option("--screen", *screen, "A screen's stable identifier: which content it gets, and why");
    show->add_flag("--json", *asJson, "Machine-readable output");
    show->callback([&context, &action, location, screen, asJson] {
      action = [&context, location, screen, asJson] {
        showPlan(resolve(*location, context), *screen, *asJson, context);
        return ok;
      };
    });
  }

  {
    struct PutOptions {
      PlanLocation location;
      Target target;
      std::string kind, path, fit, crop, trim, sharpen, still, title, item;
      bool mirrorH = false, mirrorV = false, held = false;
    };
    auto options = std::make_shared<PutOptions>();
    auto* put = group->add_subcommand("put", "Set the content of a screen, of all screens (shared) or the chosen one");
    addPlanOption(*put, options->location);
    options->target.add(*put);
    put->add_option("--item", options->item,
                    "A library item: its file, fit, crop, trim and mirroring (instead of --kind and --path)");
    put->add_option("--kind", options->kind, "none, solid, image, video or web");
    put->add_option("--path", options->path, "The media file (or page) to show");
    put->add_option("--fit", options->fit, "fill, fit, stretch or center (default fill)");
    put->add_option("--crop", options->crop, "X,Y,W,H as fractions of the frame");
    put->add_flag("--mirror-h", options->mirrorH, "Mirror left-right");
    put->add_flag("--mirror-v", options->mirrorV, "Mirror top-bottom");
    put->add_option("--trim", options->trim, "START:END in seconds; END may be \"end\"");
    put->add_option("--sharpen", options->sharpen, "Sharpening amount, 0 for none");
    put->add_option("--still", options->still, "A still picture standing in for content the saver cannot run");
    put->add_option("--title", options->title, "Display title");
    put->add_flag("--held", options->held, "The content flashes: show it frozen on its first frame");
    put->callback([&context, &action, options] {
      action = [&context, options] {
        const auto& o = *options;
        requireText(o.path, "--path");
        requireText(o.title, "--title");
        requireText(o.still, "--still");
        requireText(o.target.screen, "--screen");
        const auto title = o.title.empty() ? std::nullopt : std::optional<std::string>(o.title);
        std::optional<SaverContent> made;
        if (!o.item.empty()) {
          if (!o.kind.empty() || !o.path.empty() || !o.fit.empty() || !o.crop.empty() || !o.trim.empty() || o.mirrorH ||
              o.mirrorV) {
            throw UsageError(
                "--item: the item brings its own kind, path, fit, crop, trim and mirroring; change them with "
                "korvalen library set");
          }
          const auto library = readLibrary(context);
          const auto& item = libraryItem(library, o.item);
          // A page cannot run in the saver: its still stands for it.
          made = SaverContent::from(library.contentOf(item), o.target.screen, title.value_or(item.title), 0,
                                    engine::stillOf(library, item));
          // What the library knows to flash is shown frozen, never played.
          if (item.knownToFlash()) {
            made->held = true;
          }
        } else {
          if (o.kind.empty() || o.path.empty()) {
            throw UsageError("--kind and --path: both are needed, or --item with a library item's id");
          }
          made = SaverContent(parseKind(o.kind, "--kind"), std::filesystem::absolute(o.path).lexically_normal(), title,
                              parseFit(o.fit.empty() ? "fill" : o.fit, "--fit"));
          if (!o.crop.empty()) {
            made->crop = parseCrop(o.crop, "--crop");
          }
          made->mirrorHorizontal = o.mirrorH;
          made->mirrorVertical = o.mirrorV;
          if (!o.trim.empty()) {
            const auto trim = parseTrim(o.trim, "--trim");
            made->trimStart = trim.start;
            made->trimEnd = trim.end;
          }
        }
        auto& content = *made;
        if (!o.sharpen.empty()) {
          content.sharpen = parseInRange(o.sharpen, "--sharpen", 0, 10);
        }
        if (!o.still.empty()) {
          content.still = std::filesystem::absolute(o.still).lexically_normal().string();
        }
        if (o.held) {
          content.held = true;
        }
        const auto path = resolve(o.location, context);
        auto plan = planToEdit(path);
        if (o.target.chosen) {
          plan.chosen = content;
        } else if (o.target.shared) {
          plan.shared = content;
        } else {
          plan.screens[o.target.screen] = content;
        }
        return saveEdited(std::move(plan), path, context);
      };
    });
  }

  {
    struct SetOptions {
      PlanLocation location;
      std::string sound, volume, dim, saturation, rate, guard;
    };
    auto options = std::make_shared<SetOptions>();
    auto* set = group->add_subcommand("set", "Change the plan-wide playback settings");
    addPlanOption(*set, options->location);
    set->add_option("--sound", options->sound, "on or off: play the sound track of videos");
    set->add_option("--volume", options->volume, "0 to 1");
    set->add_option("--dim", options->dim, "0 (not at all) to 0.95");
    set->add_option("--saturation", options->saturation, "0 (grey) to 1 (unchanged)");
    set->add_option("--rate", options->rate, "Playback speed, 0.1 to 4 (videos play at most at normal speed)");
    set->add_option("--guard", options->guard, "on or off: guard against flashing content");
    set->callback([&context, &action, options] {
      action = [&context, options] {
        const auto& o = *options;
        // Every value is checked before the plan is touched.
        std::optional<bool> sound;
        std::optional<bool> guard;
        std::optional<double> volume;
        std::optional<double> dim;
        std::optional<double> saturation;
        std::optional<double> rate;
        if (!o.sound.empty()) {
          sound = parseSwitch(o.sound, "--sound");
        }
        if (!o.guard.empty()) {
          guard = parseSwitch(o.guard, "--guard");
        }
        if (!o.volume.empty()) {
          volume = parseInRange(o.volume, "--volume", 0, 1);
        }
        if (!o.dim.empty()) {
          dim = parseInRange(o.dim, "--dim", 0, 0.95);
        }
        if (!o.saturation.empty()) {
          saturation = parseInRange(o.saturation, "--saturation", 0, 1);
        }
        if (!o.rate.empty()) {
          rate = parseInRange(o.rate, "--rate", 0.1, 4);
        }
        const auto path = resolve(o.location, context);
        auto plan = planToEdit(path);
        plan.sound = sound.value_or(plan.sound);
        plan.volume = volume.value_or(plan.volume);
        plan.dim = dim.value_or(plan.dim);
        plan.saturation = saturation.value_or(plan.saturation);
        plan.rate = rate.value_or(plan.rate);
        if (guard) {
          plan.stopsFlashing = *guard;
        }
        return saveEdited(std::move(plan), path, context);
      };
    });
  }

  {
    auto location = std::make_shared<PlanLocation>();
    auto target = std::make_shared<Target>();
    auto* clear = group->add_subcommand("clear", "Remove a screen's entry, the shared or the chosen content");
    addPlanOption(*clear, *location);
    target->add(*clear);
    clear->callback([&context, &action, location, target] {
      action = [&context, location, target] {
        const auto path = resolve(*location, context);
        auto plan = planToEdit(path);
        bool removed = false;
        if (target->chosen) {
          removed = plan.chosen.has_value();
          plan.chosen.reset();
        } else if (target->shared) {
          removed = plan.shared.has_value();
          plan.shared.reset();
        } else {
          removed = plan.screens.erase(target->screen) > 0;
        }
        if (!removed) {
          context.out << "nothing to clear in " << path.string() << "\n";
          return ok;
        }
        return saveEdited(std::move(plan), path, context);
      };
    });
  }
}

}  // namespace korvalen::cli
