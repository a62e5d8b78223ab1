// `korvalen saver`: the real screensaver. On the desktop in a window of its own, full screen,
// or in a window another program gives it (XScreenSaver's `-root` and XSCREENSAVER_WINDOW,
// `--window-id`); or `--headless`, with no display, writing the composed screen as PNG
// frames or a video a person can watch. `korvalen screens` lists the monitors by the
// identifiers a plan's screens are keyed by.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/diagnostics/log.hpp"
#include "core/screensaver/saver_controller.hpp"
#include "engine/frame_writer.hpp"
#include "engine/software/software_saver.hpp"
#include "saver/linux/desktop_host.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <ostream>
#include <thread>

namespace korvalen::cli {
namespace {

struct SaverOptions {
  bool headless = false;
  bool fullscreen = false;
  bool root = false;
  bool preview = false;
  std::string window;
  std::vector<std::string> windowIDs;
  std::string size;
  std::string seconds;
  std::string out;
  std::string plan;
  std::string screen;
  std::string fps = "10";
  std::string ffmpeg;
  bool live = false;
  std::optional<std::string> backend;
};

// --plan stands for the variable the screensaver reads, so the location rule is the same.
paths::Environment environmentWith(const SaverOptions& o, const Context& context) {
  return o.plan.empty() ? context.environment : withPlan(context.environment, o.plan);
}

std::uint64_t windowID(const std::string& text, std::string_view what) {
  const auto id = host::parseWindowID(text, what);
  if (!id) {
    throw UsageError(id.error());
  }
  return *id;
}

int runHeadless(const SaverOptions& o, Context& context) {
  if (o.size.empty() || o.seconds.empty() || o.out.empty()) {
    throw UsageError("--headless needs --size WxH, --seconds and --out (a folder for PNG frames or a FILE.mp4)");
  }
  const auto size = parseSize(o.size, "--size");
  if (size.width < 1 || size.height < 1 || size.width > 8192 || size.height > 8192) {
    throw UsageError(fmt::format("--size: expected WxH with each side from 1 to 8192, got \"{}\"", o.size));
  }
  const double seconds = parseInRange(o.seconds, "--seconds", 0.01, 3600);
  const double fps = parseInRange(o.fps, "--fps", 1, 120);
  const auto screen =
      o.screen.empty() ? fmt::format("display-0|{}x{}", size.width, size.height) : requireText(o.screen, "--screen");
  const auto ffmpeg = locateFfmpeg(o.ffmpeg, context);
  auto writer = engine::FrameWriter::start(ffmpeg, o.out, size.width, size.height, fps);
  if (!writer) {
    throw Failure(writer.error());
  }
  const LogToStream logs(context.err);
  const auto written = recordSaver(
      *writer,
      engine::SoftwareScreen{
          {static_cast<double>(size.width), static_cast<double>(size.height)}, screen, o.preview, std::nullopt},
      environmentWith(o, context), seconds, fps, o.live);
  if (auto finished = writer->finish(); !finished) {
    throw Failure(finished.error());
  }
  context.out << fmt::format("wrote {} frame(s) of {}x{} at {} fps to {}\n", written, size.width, size.height,
                             formatNumber(fps), o.out);
  return ok;
}

int runOnDesktop(const SaverOptions& o, Context& context) {
  for (const auto* headlessOnly : {&o.size, &o.out, &o.screen}) {
    if (!headlessOnly->empty()) {
      throw UsageError("--size, --out and --screen are for --headless; on the desktop the window decides them");
    }
  }
  const int targets =
      (o.window.empty() ? 0 : 1) + (o.fullscreen ? 1 : 0) + (o.windowIDs.empty() ? 0 : 1) + (o.root ? 1 : 0);
  if (targets > 1) {
    throw UsageError("choose one of --window, --fullscreen, --window-id and --root");
  }
  host::DesktopOptions options;
  options.environment = environmentWith(o, context);
  options.preview = o.preview;
  if (!o.seconds.empty()) {
    options.seconds = parseInRange(o.seconds, "--seconds", 0.01, 1e9);
  }
  const auto given = context.environment("XSCREENSAVER_WINDOW");
  // X window ids, and XScreenSaver's window, are X11's whatever else the environment says.
  const bool x11Windows = !o.windowIDs.empty() || o.root || (o.window.empty() && !o.fullscreen && given);
  const auto backend = backendFor(o.backend    ? o.backend
                                  : x11Windows ? std::optional<std::string>("x11")
                                               : std::nullopt,
                                  context);
  if (backend == host::Backend::wayland) {
    if (x11Windows) {
      throw UsageError(
          "--window-id, --root and XSCREENSAVER_WINDOW are X11's; on Wayland the screensaver covers "
          "every output");
    }
    if (!o.window.empty()) {
      throw UsageError("--window: on Wayland the screensaver covers every output (--fullscreen, the default there)");
    }
    const LogToStream logs(context.err);
    if (const auto ran = host::runWaylandSaver(options); !ran) {
      throw Failure(fmt::format("saver: {}", ran.error()));
    }
    return ok;
  }
  if (!o.windowIDs.empty()) {
    options.target = host::DesktopOptions::Target::foreign;
    for (const auto& text : o.windowIDs) {
      options.windows.push_back(windowID(text, "--window-id"));
    }
  } else if (o.fullscreen) {
    options.target = host::DesktopOptions::Target::fullscreen;
  } else if (o.root || (o.window.empty() && given)) {
    // XScreenSaver's convention: the window it made for the hack, else the root window.
    options.target = host::DesktopOptions::Target::foreign;
    if (given) {
      options.windows.push_back(windowID(*given, "XSCREENSAVER_WINDOW"));
    }
  } else {
    const auto size = parseSize(o.window.empty() ? "1280x720" : o.window, "--window");
    if (size.width < 1 || size.height < 1 || size.width > 16384 || size.height > 16384) {
      throw UsageError(fmt::format("--window: expected WxH with each side from 1 to 16384, got \"{}\"", o.window));
    }
    options.width = size.width;
    options.height = size.height;
  }
  const LogToStream logs(context.err);
  const auto ran = host::runOnDesktop(options);
  if (!ran) {
    const bool noDisplay = ran.error().starts_with("no X display");
    throw Failure(fmt::format("saver: {}{}", ran.error(), noDisplay ? "; --headless writes the screen to a file" : ""));
  }
  return ok;
}

}  // namespace

paths::Environment withPlan(paths::Environment environment, std::string plan) {
  return [outer = std::move(environment), plan = std::move(plan)](std::string_view name) -> std::optional<std::string> {
    return name == "KORVALEN_SAVER_PLAN" ? std::optional<std::string>(plan) : outer(name);
  };
}

LogToStream::LogToStream(std::ostream& stream, std::string indent) {
  log::setBackend([&stream, indent = std::move(indent)](const log::Line& line) {
    stream << indent << log::formatLine(line) << "\n" << std::flush;
  });
}

LogToStream::~LogToStream() {
  log::setBackend(nullptr);
}

std::int64_t recordSaver(engine::FrameWriter& writer, const engine::SoftwareScreen& screen,
                         const paths::Environment& environment, double seconds, double fps, bool live) {
  engine::SoftwareSaver saver(screen);
  auto controller = saver::SaverController::make(saver.platform(environment));
  controller->startAnimation();
  engine::Picture picture(static_cast<std::int64_t>(screen.size.width), static_cast<std::int64_t>(screen.size.height));
  // The saver's own clock decides what each frame shows, however long drawing it takes.
  const auto frames = std::max<std::int64_t>(1, std::llround(seconds * fps));
  std::int64_t written = 0;
  const auto started = std::chrono::steady_clock::now();
  for (; written < frames; ++written) {
    if (live) {
      // Keep to the wall clock, so the plan's rewrites by another program land when they do.
      std::this_thread::sleep_until(started + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                  std::chrono::duration<double>(static_cast<double>(written) / fps)));
    }
    saver.loop().runUntil(static_cast<double>(written) / fps);
    saver.draw(picture);
    if (!writer.write(picture)) {
      break;
    }
  }
  controller->stopAnimation();
  return written;
}

std::vector<std::string> withLongOptions(std::vector<std::string> arguments) {
  // XScreenSaver's hacks take "-root" and "-window-id"; its programs: entries are written so.
  if (!arguments.empty() && arguments.front() == "saver") {
    for (auto& argument : arguments) {
      if (argument == "-root" || argument == "-window-id") {
        argument.insert(0, "-");
      }
    }
  }
  return arguments;
}

void addSaverCommand(CLI::App& app, Context& context, Action& action) {
  auto options = std::make_shared<SaverOptions>();
  auto* command = app.add_subcommand(
      "saver", "Run the screensaver: in a window, full screen, in XScreenSaver's window, or headless into a file");
  command->add_option("--window", options->window, "In a window of its own, WIDTHxHEIGHT (the default, 1280x720)");
  command->add_flag("--fullscreen", options->fullscreen, "Full screen, one view on every monitor");
  command->add_option("--window-id", options->windowIDs, "Into this X window (repeat for one view per window)");
  command->add_flag("--root", options->root, "As an XScreenSaver hack: into XSCREENSAVER_WINDOW, else the root window");
  command->add_flag("--headless", options->headless, "No display: write the screen to --out");
  command->add_option("--size", options->size, "Headless: WIDTHxHEIGHT of the screen");
  command->add_option("--seconds", options->seconds, "How long to run (headless: on the saver's own clock)");
  command->add_option("--out", options->out, "Headless: a folder for frame-00000.png, ... or FILE.mp4");
  command->add_option("--plan", options->plan, "The plan (default: as the screensaver finds it)");
  command->add_option("--screen", options->screen, "Headless: this screen's stable identifier (default display-0|WxH)");
  command->add_option("--fps", options->fps, "Headless: frames written per second of the saver's clock (default 10)");
  command->add_option("--ffmpeg", options->ffmpeg, "Headless: the ffmpeg executable that writes the output");
  command->add_flag("--live", options->live, "Headless: keep to the wall clock instead of running as fast as it can");
  command->add_flag("--preview", options->preview, "Run as the small preview, which places in its own bounds");
  command->add_option("--backend", options->backend,
                      "x11 or wayland (default: wayland when WAYLAND_DISPLAY is set, else x11 when DISPLAY is; on "
                      "Wayland it covers every output)");
  command->callback([&context, &action, options] {
    action = [&context, options] {
      return options->headless ? runHeadless(*options, context) : runOnDesktop(*options, context);
    };
  });

  auto json = std::make_shared<bool>(false);
  auto backend = std::make_shared<std::optional<std::string>>();
  auto* screens = app.add_subcommand("screens", "List the monitors by the identifiers a plan's screens use");
  screens->add_flag("--json", *json, "As JSON");
  screens->add_option("--backend", *backend,
                      "x11 or wayland (default: wayland when WAYLAND_DISPLAY is set, else x11 when DISPLAY is)");
  screens->callback([&context, &action, json, backend] {
    action = [&context, json, backend] {
      const auto monitors =
          backendFor(*backend, context) == host::Backend::wayland ? host::listWaylandMonitors() : host::listMonitors();
      if (!monitors) {
        throw Failure(fmt::format("screens: {}", monitors.error()));
      }
      if (*json) {
        auto list = nlohmann::json::array();
        for (const auto& m : *monitors) {
          list.push_back({{"id", m.id},
                          {"screen", m.screen},
                          {"output", m.output},
                          {"x", m.x},
                          {"y", m.y},
                          {"width", m.width},
                          {"height", m.height}});
        }
        context.out << list.dump(2) << "\n";
        return ok;
      }
      for (const auto& m : *monitors) {
        context.out << fmt::format("{}  screen {} {} {}x{}+{}+{}\n", m.id, m.screen, m.output, m.width, m.height, m.x,
                                   m.y);
      }
      return ok;
    };
  });
}

host::Backend backendFor(const std::optional<std::string>& asked, Context& context) {
  std::optional<host::Backend> named;
  if (asked) {
    named = host::backendNamed(*asked);
    if (!named) {
      throw UsageError(fmt::format("--backend: \"{}\" is not one of x11, wayland", *asked));
    }
  }
  auto chosen = host::chooseBackend(named, context.environment);
  if (!chosen) {
    throw Failure(chosen.error());
  }
  return *chosen;
}

}  // namespace korvalen::cli
