// `korvalen power describe|set`, `korvalen policy explain` and `korvalen monitors match`:
// the user's power rules, and why a wallpaper is paused on one screen and not on another.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/app/settings_coding.hpp"
#include "core/desktop/monitor_identity.hpp"
#include "core/playback/activity_classifier.hpp"
#include "core/playback/power_rule_parser.hpp"

#include <fmt/format.h>

#include <ostream>
#include <set>

namespace korvalen::cli {
namespace {

// The settings as the app reads them, never writing; an unreadable file is a failure.
KorvalenSettings readSettings(const std::filesystem::path& path) {
  auto read = Settings::read(path);
  if (read.problem) {
    throw Failure(*read.problem);
  }
  return std::move(read.settings);
}

struct StateFile {
  SystemState state;
  bool classified = false;  // the activities came from screens and windows
};

StateFile readState(const std::string& path) {
  auto parsed = readJsonFile(path);
  if (!parsed) {
    throw UsageError(fmt::format("{}: not JSON: {}", path, parsed.error()));
  }
  const auto refuse = [&](const std::string& problem) { throw UsageError(fmt::format("{}: {}", path, problem)); };
  if (!parsed->is_object()) {
    refuse("expected an object with the system state");
  }
  static const std::set<std::string> known{"onBattery",       "powerSaving",
                                           "locked",          "remoteSession",
                                           "displayOff",      "suspended",
                                           "manuallyPaused",  "screensaverShowing",
                                           "reducedMotion",   "screenShareAppRunning",
                                           "screenShareSafe", "contentFlashes",
                                           "monitors",        "screens",
                                           "windows",         "exclusiveFullscreen"};
  for (const auto& [key, value] : parsed->items()) {
    if (!known.contains(key)) {
      refuse(fmt::format("'{}' is not a field of the system state", key));
    }
  }
  auto state = json::decode<SystemState>(*parsed);
  if (!state) {
    refuse(state.error().describe());
  }
  StateFile file{std::move(*state), false};
  if (parsed->contains("screens")) {
    if (parsed->contains("monitors")) {
      refuse("give either monitors or screens and windows, not both");
    }
    json::ObjectReader in(*parsed, {});
    std::vector<MonitorInfo> screens;
    std::vector<WindowSnapshot> windows;
    bool exclusive = false;
    in.required("screens", screens);
    in.defaulted("windows", windows);
    in.defaulted("exclusiveFullscreen", exclusive);
    if (auto done = in.finish(); !done) {
      refuse(done.error().describe());
    }
    file.state.monitors = ActivityClassifier::classify(screens, windows, exclusive);
    file.classified = true;
  }
  return file;
}

std::string explain(const StateFile& file, const PlaybackDecision& decision) {
  std::string text;
  if (file.classified) {
    for (const auto& activity : file.state.monitors) {
      text += fmt::format("{}: fullscreen {}, maximized {}, in front {}, covered {:.0f}%\n", activity.monitorId,
                          activity.hasFullscreenWindow ? "yes" : "no", activity.hasMaximizedWindow ? "yes" : "no",
                          activity.hasForegroundWindow ? "yes" : "no", activity.coveredFraction * 100);
    }
  }
  for (const auto& monitor : decision.monitors) {
    text += monitor.description() + "\n";
  }
  if (decision.monitors.empty()) {
    text += "no monitors\n";
  }
  text += fmt::format("fps cap {}, playback rate {}\n", decision.fpsCap, formatNumber(decision.playbackRate));
  if (const auto stopped = decision.stoppedBecause(); !stopped.empty()) {
    text += "stopped because: " + stopped + "\n";
  }
  return text;
}

}  // namespace

void addPolicyCommands(CLI::App& app, Context& context, Action& action) {
  auto* power = app.add_subcommand("power", "The power rules: what playback does on battery, full screen, ...");
  {
    auto file = std::make_shared<std::string>();
    auto* describe = power->add_subcommand("describe", "One line with every power rule");
    describe->add_option("--settings", *file, "Settings file (default: the app's)");
    describe->callback([&context, &action, file] {
      action = [&context, file] {
        context.out << PowerRuleParser::describe(readSettings(settingsPath(*file, context)).power) << "\n";
        return ok;
      };
    });
  }
  {
    auto file = std::make_shared<std::string>();
    auto rules = std::make_shared<std::vector<std::string>>();
    auto* set = power->add_subcommand("set", "Apply rules such as fullscreen=pause battery=mute, in order");
    set->add_option("--settings", *file, "Settings file (default: the app's)");
    set->add_option("rules", *rules, "trigger=action rules")->required();
    set->callback([&context, &action, file, rules] {
      action = [&context, file, rules] {
        // Every rule is checked before anything is read or written.
        PowerSettings checked;
        for (const auto& rule : *rules) {
          auto applied = PowerRuleParser::apply(checked, rule);
          if (!applied) {
            context.err << applied.error().description() << "\n";
            return badUsage;
          }
          checked = *applied;
        }
        const auto saved = saveSettingsEdit(
            settingsPath(*file, context),
            [&](const KorvalenSettings& from) {
              KorvalenSettings to = from;
              for (const auto& rule : *rules) {
                to.power = PowerRuleParser::apply(to.power, rule).value_or(to.power);
              }
              return to;
            },
            context);
        context.out << PowerRuleParser::describe(saved->power) << "\n";
        return ok;
      };
    });
  }

  auto* policy = app.add_subcommand("policy", "The playback policy");
  {
    struct Options {
      std::string state, settings;
      bool asJson = false;
    };
    auto options = std::make_shared<Options>();
    auto* explainCommand = policy->add_subcommand("explain", "Why each monitor runs, mutes, pauses or stops");
    explainCommand->add_option("--state", options->state, "System state (JSON)")->required();
    explainCommand->add_option("--settings", options->settings, "Settings file (default: the app's)");
    explainCommand->add_flag("--json", options->asJson, "Machine-readable output");
    explainCommand->callback([&context, &action, options] {
      action = [&context, options] {
        const auto file = readState(options->state);
        const auto settings = readSettings(settingsPath(options->settings, context));
        const auto decision = PlaybackPolicy::evaluate(settings.power, settings.accessibility, file.state);
        if (options->asJson) {
          auto out = json::encode(decision);
          out["activities"] = json::encode(file.state.monitors);
          context.out << json::pretty(out);
        } else {
          context.out << explain(file, decision);
        }
        return ok;
      };
    });
  }

  auto* monitors = app.add_subcommand("monitors", "Monitor identity");
  {
    struct Options {
      std::vector<std::string> saved, present;
      bool asJson = false;
    };
    auto options = std::make_shared<Options>();
    auto* match = monitors->add_subcommand("match", "Which saved per-monitor key each present monitor takes");
    match->add_option("--saved", options->saved, "Saved keys, e.g. 10ac-a0c4-4c4c3042|1920x1080");
    match->add_option("--present", options->present, "Identifiers of the monitors present")->required();
    match->add_flag("--json", options->asJson, "Machine-readable output");
    match->callback([&context, &action, options] {
      action = [&context, options] {
        const auto bindings = MonitorIdentity::resolve(options->saved, options->present);
        json::Json out = json::Json::array();
        for (const auto& binding : bindings) {
          if (options->asJson) {
            json::Json entry = json::Json::object();
            entry["stableID"] = binding.stableID;
            entry["savedKey"] = binding.savedKey ? json::Json(*binding.savedKey) : json::Json(nullptr);
            entry["quality"] = std::string(toString(binding.quality));
            entry["note"] = binding.note() ? json::Json(*binding.note()) : json::Json(nullptr);
            out.push_back(entry);
            continue;
          }
          context.out << binding.stableID << " <- "
                      << (binding.savedKey ? *binding.savedKey : std::string("(no saved key)")) << " ("
                      << toString(binding.quality) << ")\n";
          if (const auto note = binding.note()) {
            context.out << "  " << *note << "\n";
          }
        }
        if (options->asJson) {
          context.out << json::pretty(out);
        }
        return ok;
      };
    });
  }
}

}  // namespace korvalen::cli
