// `korvalen wallpaper`: the live wallpaper in the foreground, and its control commands
// (status, pause, resume, next, reload, stop) over the wallpaper's socket.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/support/json.hpp"
#include "core/wallpaper/control_protocol.hpp"
#include "wallpaper/control_server.hpp"
#include "wallpaper/wallpaper_daemon.hpp"

#include <fmt/format.h>

#include <ostream>

namespace korvalen::cli {
namespace {

struct WallpaperArguments {
  std::string placement = "automatic";
  std::string layer = "background";
  std::optional<std::string> backend;
  std::string tz;
  std::optional<double> seconds;
  std::string monitor;
  bool json = false;
};

std::string statusLine(const wallpaper::MonitorStatus& status) {
  return fmt::format("{}: {}{} {}{}, {} frames/s{}", status.monitorId, toString(status.mode),
                     status.muted ? " muted" : "", status.itemID ? "item " + *status.itemID : std::string("nothing"),
                     status.reason ? fmt::format(" ({})", *status.reason) : std::string(),
                     formatNumber(status.framesPerSecond), status.userPaused ? ", paused by you" : "");
}

int control(Context& context, const wallpaper::ControlRequest& request, bool json) {
  const auto path = wallpaper::socketPath(context.environment);
  if (!path) {
    throw Failure(fmt::format("wallpaper: {}", path.error()));
  }
  const auto reply = wallpaper::ask(*path, request);
  if (!reply) {
    throw Failure(fmt::format("wallpaper: {}", reply.error()));
  }
  if (!reply->ok) {
    throw Failure(fmt::format("wallpaper: {}", reply->message));
  }
  if (request.command == wallpaper::Command::status) {
    if (json) {
      context.out << json::pretty(json::encode(reply->monitors));
      return ok;
    }
    context.out << reply->message << "\n";
    for (const auto& status : reply->monitors) {
      context.out << statusLine(status) << "\n";
    }
    return ok;
  }
  context.out << reply->message << "\n";
  return ok;
}

void addControl(CLI::App& wallpaper, Context& context, Action& action, wallpaper::Command command,
                const std::string& help, bool takesMonitor) {
  auto arguments = std::make_shared<WallpaperArguments>();
  auto* sub = wallpaper.add_subcommand(std::string(wallpaper::toString(command)), help);
  if (takesMonitor) {
    sub->add_option("--monitor", arguments->monitor, "Only this monitor (a stable identifier, as status shows it)");
  }
  if (command == wallpaper::Command::status) {
    sub->add_flag("--json", arguments->json, "One JSON object per monitor");
  }
  sub->callback([&context, &action, arguments, command] {
    action = [&context, arguments, command] {
      wallpaper::ControlRequest request{command, std::nullopt};
      if (!arguments->monitor.empty()) {
        request.monitor = requireText(arguments->monitor, "--monitor");
      }
      return control(context, request, arguments->json);
    };
  });
}

}  // namespace

void addWallpaperCommands(CLI::App& app, Context& context, Action& action) {
  auto arguments = std::make_shared<WallpaperArguments>();
  auto* wallpaper = app.add_subcommand(
      "wallpaper", "Play the live wallpaper behind the desktop on every monitor (X11), or control the one running");
  wallpaper->add_option("--placement", arguments->placement,
                        "desktop: a desktop window below all others; below: an unmanaged window lowered beneath "
                        "everything (tiling window managers); root: the root window's background (default: desktop "
                        "where the window manager supports it, else below)");
  wallpaper->add_option("--layer", arguments->layer,
                        "On Wayland, the layer-shell layer: background, or bottom (above a desktop's own background "
                        "surface, as KDE Plasma needs)");
  wallpaper->add_option("--backend", arguments->backend,
                        "x11 or wayland (default: wayland when WAYLAND_DISPLAY is set, else x11 when DISPLAY is)");
  wallpaper->add_option("--tz", arguments->tz, "IANA time zone for schedules (default: TZ, else this machine's zone)");
  wallpaper->add_option("--seconds", arguments->seconds, "Stop by itself after this many seconds");
  addControl(*wallpaper, context, action, wallpaper::Command::status,
             "Each monitor: its item, running, paused or stopped and why, frames shown per second", false);
  addControl(*wallpaper, context, action, wallpaper::Command::pause,
             "Pause (every monitor, or one); kept in the settings until resumed", true);
  addControl(*wallpaper, context, action, wallpaper::Command::resume, "Resume what you paused", true);
  addControl(*wallpaper, context, action, wallpaper::Command::next, "The playlist's next item now", true);
  addControl(*wallpaper, context, action, wallpaper::Command::reload, "Read the settings and the library again", false);
  addControl(*wallpaper, context, action, wallpaper::Command::stop, "Stop the live wallpaper", false);
  wallpaper->callback([&context, &action, arguments, wallpaper] {
    if (!wallpaper->get_subcommands().empty()) {
      return;
    }
    action = [&context, arguments] {
      const auto placement = host::placementNamed(arguments->placement);
      if (!placement || *placement == host::Placement::background || *placement == host::Placement::bottom) {
        throw UsageError(
            fmt::format("--placement: \"{}\" is not one of automatic, desktop, below, root", arguments->placement));
      }
      if (arguments->seconds && !(*arguments->seconds > 0)) {
        throw UsageError("--seconds: a number of seconds above 0");
      }
      const auto layer = host::placementNamed(arguments->layer);
      if (layer != host::Placement::background && layer != host::Placement::bottom) {
        throw UsageError(fmt::format("--layer: \"{}\" is not one of background, bottom", arguments->layer));
      }
      wallpaper::WallpaperOptions options;
      options.backend = backendFor(arguments->backend, context);
      options.placement = *placement;
      options.layer = *layer;
      options.files = engine::PlannerFiles::defaults(context.environment);
      options.environment = context.environment;
      options.zone = &zoneNamed(arguments->tz, context);
      options.clock = context.now;
      options.seconds = arguments->seconds;
      options.log = [&context](const std::string& line) {
        context.err << ISO8601::plain().format(context.now()) << " " << line << "\n" << std::flush;
      };
      if (auto ran = wallpaper::runWallpaper(options); !ran) {
        throw Failure(fmt::format("wallpaper: {}", ran.error()));
      }
      return ok;
    };
  });
}

}  // namespace korvalen::cli
