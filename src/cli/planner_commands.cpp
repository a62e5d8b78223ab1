// `korvalen now`, `korvalen plan make` and `korvalen planner`: what every monitor shows and
// why, the screensaver's plan written from that answer, and a planner that keeps it current.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "engine/loop/event_loop.hpp"
#include "engine/planning/planner_service.hpp"
#include "saver/linux/desktop_host.hpp"

#include <fmt/format.h>

#include <csignal>
#include <ostream>

namespace korvalen::cli {
namespace {

struct PlannerOptions {
  std::vector<std::string> monitors;
  std::string tz;
  std::string plan;
  bool json = false;

  void addMonitors(CLI::App& command) {
    command.add_option("--monitor", monitors,
                       "Plan for this monitor's stable identifier instead of the monitors present (repeatable)");
  }
  void addPlan(CLI::App& command) {
    command.add_option("--plan", plan, "The plan file (default: KORVALEN_SAVER_PLAN, else the Korvalen folder)");
  }
  void addZone(CLI::App& command) {
    command.add_option("--tz", tz, "IANA time zone for schedules (default: TZ, else this machine's zone)");
  }
};

engine::PlannerFiles filesFor(const PlannerOptions& o, const Context& context) {
  auto files = engine::PlannerFiles::defaults(context.environment);
  if (!o.plan.empty()) {
    files.plan = std::filesystem::absolute(requireText(o.plan, "--plan")).lexically_normal();
  }
  return files;
}

// The monitors named, else those of the X display, else none (the answer for any screen).
std::vector<std::string> monitorsFor(const PlannerOptions& o, Context& context) {
  if (!o.monitors.empty()) {
    for (const auto& id : o.monitors) {
      if (requireText(id, "--monitor").empty()) {
        throw UsageError("--monitor: a stable identifier such as \"dell|1920x1080\", not an empty text");
      }
    }
    return o.monitors;
  }
  if (!context.environment("DISPLAY")) {
    return {};
  }
  const auto listed = host::listMonitors();
  if (!listed) {
    context.err << fmt::format("note: {}; planning for any screen\n", listed.error());
    return {};
  }
  std::vector<std::string> ids;
  for (const auto& monitor : *listed) {
    ids.push_back(monitor.id);
  }
  return ids;
}

engine::PlannerRun planned(const engine::PlannerFiles& files, const std::vector<std::string>& monitors, Date now,
                           const TimeZone& zone, Context& context) {
  auto run = engine::Planning::plan(files, monitors, now, zone);
  if (!run) {
    throw Failure(run.error());
  }
  for (const auto& note : run->notes) {
    context.err << "note: " << note << "\n";
  }
  return std::move(*run);
}

json::Json answerJson(const MonitorAnswer& answer) {
  json::Json out = json::Json::object();
  out["monitorId"] = answer.monitorId;
  if (answer.itemID) {
    out["itemID"] = *answer.itemID;
  }
  out["reason"] = std::string(toString(answer.reason));
  out["explanation"] = answer.explanation;
  out["paused"] = answer.paused;
  if (answer.until) {
    out["until"] = ISO8601::plain().format(*answer.until);
  }
  return out;
}

std::string reasonWords(PlanReason reason) {
  switch (reason) {
    case PlanReason::assignment:
      return "its own item";
    case PlanReason::assignmentPlaylist:
      return "its own playlist";
    case PlanReason::activePlaylist:
      return "the active playlist";
    case PlanReason::lastWallpaper:
      return "the last wallpaper";
    case PlanReason::missing:
      return "something missing was passed over";
    case PlanReason::flashing:
      return "flashing content";
    case PlanReason::nothing:
      return "nothing to show";
  }
  return "nothing to show";
}

void printAnswers(const PlannerAnswer& answer, const TimeZone& zone, Context& context) {
  for (const auto& monitor : answer.monitors) {
    const auto what = monitor.itemID ? fmt::format("item {}", *monitor.itemID) : std::string("nothing");
    context.out << fmt::format(
        "{}: {} ({}{}{})\n", monitor.monitorId == WallpaperPlanner::anyScreen ? "any screen" : monitor.monitorId, what,
        reasonWords(monitor.reason), monitor.held ? ", held still" : "", monitor.paused ? ", paused by you" : "");
    context.out << "  " << monitor.explanation << "\n";
    context.out << "  "
                << (monitor.until ? fmt::format("until {}", localTime(*monitor.until, zone))
                                  : std::string("no change scheduled"))
                << "\n";
  }
}

void addNow(CLI::App& app, Context& context, Action& action) {
  auto options = std::make_shared<PlannerOptions>();
  auto at = std::make_shared<std::string>();
  auto* now = app.add_subcommand("now", "What every monitor shows now, why, and until when");
  now->add_option("--at", *at, "Instead of now: ISO 8601, with a zone or as wall-clock time in --tz");
  options->addZone(*now);
  options->addMonitors(*now);
  now->add_flag("--json", options->json, "As JSON: one object per monitor");
  now->callback([&context, &action, options, at] {
    action = [&context, options, at] {
      const auto& zone = zoneNamed(options->tz, context);
      const Date when = at->empty() ? context.now() : parseInstant(*at, zone, "--at");
      const auto monitors = monitorsFor(*options, context);
      const auto run = planned(filesFor(*options, context), monitors, when, zone, context);
      if (options->json) {
        auto list = json::Json::array();
        for (const auto& monitor : run.answer.monitors) {
          list.push_back(answerJson(monitor));
        }
        context.out << json::pretty(list);
        return ok;
      }
      printAnswers(run.answer, zone, context);
      return ok;
    };
  });
}

void addPlanMake(CLI::App& plan, Context& context, Action& action) {
  auto options = std::make_shared<PlannerOptions>();
  auto dryRun = std::make_shared<bool>(false);
  auto* make = plan.add_subcommand("make", "Write the plan from the settings, the library and the playlists");
  make->add_flag("--dry-run", *dryRun, "Show what would be written; write nothing");
  make->add_flag("--json", options->json, "Print the plan as JSON");
  options->addMonitors(*make);
  options->addPlan(*make);
  options->addZone(*make);
  make->callback([&context, &action, options, dryRun] {
    action = [&context, options, dryRun] {
      const auto& zone = zoneNamed(options->tz, context);
      const auto files = filesFor(*options, context);
      const auto monitors = monitorsFor(*options, context);
      std::optional<engine::PlannerLock> lock;
      if (!*dryRun) {
        auto taken = engine::PlannerLock::acquire(files.settings.parent_path(), "korvalen plan make");
        if (!taken) {
          throw Failure(fmt::format("plan make: {}", taken.error()));
        }
        lock.emplace(std::move(*taken));
      }
      const auto run = planned(files, monitors, context.now(), zone, context);
      if (!*dryRun) {
        if (auto written = engine::Planning::write(files, run); !written) {
          throw Failure(written.error());
        }
      }
      if (options->json) {
        context.out << run.plan.encode();
        return ok;
      }
      printAnswers(run.answer, zone, context);
      if (!run.planChanged) {
        context.out << fmt::format("{} already says this; left as it is\n", files.plan.string());
      } else {
        context.out << fmt::format("{} {}\n", *dryRun ? "would write" : "wrote", files.plan.string());
      }
      return ok;
    };
  });
}

void addPlanner(CLI::App& app, Context& context, Action& action) {
  auto options = std::make_shared<PlannerOptions>();
  auto* planner = app.add_subcommand(
      "planner",
      "Keep the plan current: rewrite it at each change of the answer and after each settings or library edit");
  options->addMonitors(*planner);
  options->addPlan(*planner);
  options->addZone(*planner);
  planner->callback([&context, &action, options] {
    action = [&context, options] {
      const auto& zone = zoneNamed(options->tz, context);
      const auto files = filesFor(*options, context);
      const auto monitors = monitorsFor(*options, context);
      auto lock = engine::PlannerLock::acquire(files.settings.parent_path(), "korvalen planner");
      if (!lock) {
        throw Failure(fmt::format("planner: {}", lock.error()));
      }
      auto loop = engine::EventLoop::make();
      if (!loop) {
        throw Failure(fmt::format("planner: {}", loop.error()));
      }
      const auto signals = (*loop)->quitOnStopSignals();
      if (!signals) {
        throw Failure(fmt::format("planner: {}", signals.error()));
      }
      auto log = [&context](const std::string& line) {
        context.err << ISO8601::plain().format(context.now()) << " " << line << "\n" << std::flush;
      };
      context.err << fmt::format(
                         "planner: keeping {} current for {}\n", files.plan.string(),
                         monitors.empty() ? std::string("any screen") : fmt::format("{}", fmt::join(monitors, ", ")))
                  << std::flush;
      engine::PlannerService::Options setup{files, monitors, &zone, context.now, log, {}};
      auto service = engine::PlannerService::start(**loop, std::move(setup));
      if (!service) {
        throw Failure(fmt::format("planner: {}", service.error()));
      }
      (*loop)->run();
      context.err << "planner: stopped\n";
      return ok;
    };
  });
}

}  // namespace

void addPlannerCommands(CLI::App& app, Context& context, Action& action) {
  addNow(app, context, action);
  if (auto* plan = app.get_subcommand("plan")) {
    addPlanMake(*plan, context, action);
  }
  addPlanner(app, context, action);
}

}  // namespace korvalen::cli
