// `korvalen demo`: a guided run over a sample plan in a throw-away Korvalen folder.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/app/settings_coding.hpp"
#include "core/library/schedule_editing.hpp"
#include "core/library/wallpaper_library.hpp"
#include "core/planning/wallpaper_planner.hpp"
#include "core/playback/activity_classifier.hpp"
#include "core/playback/power_rule_parser.hpp"
#include "core/support/atomic_file.hpp"
#include "engine/file_hash.hpp"
#include "engine/library/library_import.hpp"
#include "engine/library/web_still.hpp"
#include "engine/ping_pong_builder.hpp"
#include "engine/process.hpp"
#include "engine/working_folder.hpp"
#include "saver/linux/desktop_host.hpp"
#include "wallpaper/wallpaper_daemon.hpp"
#include "wallpaper/wallpaper_recording.hpp"

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <ostream>

namespace korvalen::cli {
namespace {

struct DemoScreen {
  std::string id;
  std::int64_t width;
  std::int64_t height;
};

SaverPlan samplePlan(const std::filesystem::path& media, const std::string& laptop, Date written) {
  SaverPlan plan;
  plan.written = written;
  plan.dim = 0.2;
  plan.rate = 0.5;

  // The laptop screen shows the left half of a wide shot, mirrored.
  WallpaperContent harbour{WallpaperKind::video,
                           (media / "harbour-4k.mp4").string(),
                           FitMode::fill,
                           std::nullopt,
                           {{laptop, CropRect{0.0, 0.0, 0.5, 1.0}}},
                           2.0,
                           32.5,
                           true,
                           false,
                           false,
                           "item-harbour",
                           std::nullopt};
  plan.screens[laptop] = SaverContent::from(harbour, laptop, "Harbour at dusk", 0.3, std::nullopt);

  // Every other screen gets a portrait picture, letterboxed.
  plan.shared = SaverContent(WallpaperKind::image, (media / "fern.jpg").string(), "Fern", FitMode::fit);
  return plan;
}

void showPlaylists(std::ostream& out) {
  out << "\nA day's schedule, typed as a user would: 21:00=night 7.30=sunrise 12=noon\n";
  const auto schedule = ScheduleEditing::build({{"21:00", "night"}, {"7.30", "sunrise"}, {"12", "noon"}})
                            .schedule.value_or(std::vector<ScheduleEntry>{});
  for (const auto& entry : schedule) {
    out << "  " << entry.from.text() << "  " << entry.itemID << "\n";
  }
  const auto* zone = findTimeZone("Europe/Berlin");
  if (zone == nullptr) {
    throw Failure("the time zone database has no Europe/Berlin; install tzdata");
  }
  const auto& berlin = *zone;
  const Playlist day{"Day", {"sunrise", "noon", "night"}, 30, false, schedule};
  // The night the clocks go forward: the schedule follows the wall clock.
  const Date midnight =
      std::chrono::time_point_cast<Date::duration>(berlin.to_sys(date::local_days{date::year{2026} / 3 / 29}));
  out << "Played in Berlin on 29 March 2026, when the clocks go forward:\n";
  for (const auto& change : simulatePlaylist(
           {day, berlin, midnight, midnight + std::chrono::hours(23), std::chrono::minutes(1), 0, std::nullopt, {}})) {
    out << "  " << describeChange(change, berlin) << "\n";
  }
  const Playlist mix{"Mix", {"waves", "forest", "rain", "embers"}, 20, true, {}};
  out << "A shuffled playlist, 20 minutes each, seed 7, \"rain\" passed over as flashing:\n";
  for (const auto& change : simulatePlaylist({mix,
                                              berlin,
                                              midnight + std::chrono::hours(8),
                                              midnight + std::chrono::hours(10),
                                              std::chrono::minutes(1),
                                              7,
                                              std::nullopt,
                                              {"rain"}})) {
    out << "  " << describeChange(change, berlin) << "\n";
  }
}

// Two monitors, a full-screen window on one: why one pauses and the other plays on.
void showPolicy(std::ostream& out) {
  out << "\nThe playback policy: two monitors, a film full screen on the second, on battery:\n";
  const std::vector<MonitorInfo> screens{{"builtin|1512x982", 0, 0, 1512, 982},
                                         {"10ac-a0c4-4c4c3042|2560x1440", 1512, 0, 2560, 1440}};
  WindowSnapshot film;
  film.left = 1512;
  film.right = 1512 + 2560;
  film.bottom = 1440;
  film.isForeground = true;
  SystemState state;
  state.onBattery = true;
  state.monitors = ActivityClassifier::classify(screens, {film}, false);
  PowerSettings power;
  out << "  rules: " << PowerRuleParser::describe(power) << "\n";
  for (const auto& monitor : PlaybackPolicy::evaluate(power, state).monitors) {
    out << "  " << monitor.description() << "\n";
  }
  power.perMonitor = false;
  out << "  with per-monitor=off the full-screen window counts everywhere:\n";
  for (const auto& monitor : PlaybackPolicy::evaluate(power, state).monitors) {
    out << "  " << monitor.description() << "\n";
  }
}

// Two generated clips, one calm and one flashing five times a second, through the guard.
void showFlashCheck(std::ostream& out, const std::filesystem::path& folder, const Context& context) {
  out << "\nThe flash guard on two generated clips (a slow fade, and black/white five times a second):\n";
  const auto ffmpeg = engine::findExecutable("ffmpeg", context.environment("PATH").value_or(""));
  if (!ffmpeg) {
    out << "  skipped: ffmpeg was not found on PATH\n";
    return;
  }
  const std::vector<std::pair<std::string, std::string>> clips{
      {"calm.mp4", "128+100*sin(T)"}, {"flashing.mp4", "if(lt(mod(T\\,0.2)\\,0.1)\\,255\\,0)"}};
  for (const auto& [name, expression] : clips) {
    const auto path = folder / name;
    const auto made =
        engine::run(*ffmpeg, {"-v", "error", "-f", "lavfi", "-i",
                              "color=c=black:s=320x180:r=30,format=gray,geq=lum='" + expression + "'", "-t", "3",
                              "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", path.string()});
    if (!made || made->exitCode != 0) {
      out << "  " << name << ": could not be made with ffmpeg\n";
      continue;
    }
    const auto report = engine::checkForFlashes(path, FlashCheck{});
    if (!report) {
      out << "  " << report.error() << "\n";
      continue;
    }
    const auto text = describeFlashReport(name, *report);
    out << "  " << text.substr(0, text.find('\n')) << "\n";
  }
}

// A generated three-second clip made into a forwards-and-backwards loop in two segments,
// then found again in the cache.
void showPingPong(std::ostream& out, const std::filesystem::path& folder, const Context& context) {
  using engine::PingPongBuilder;
  out << "\nPing-pong: a three-second clip played forwards, then backwards, with no jump at the seam:\n";
  const auto ffmpeg = engine::findExecutable("ffmpeg", context.environment("PATH").value_or(""));
  if (!ffmpeg) {
    out << "  skipped: ffmpeg was not found on PATH\n";
    return;
  }
  PingPongBuilder::Request request;
  request.source = folder / "waves.mp4";
  const auto made =
      engine::run(*ffmpeg, {"-v", "error", "-f", "lavfi", "-i", "testsrc2=s=320x180:r=30", "-t", "3", "-c:v", "libx264",
                            "-preset", "ultrafast", "-pix_fmt", "yuv420p", request.source.string()});
  const auto hash = engine::sha256OfFile(request.source);
  if (!made || made->exitCode != 0 || !hash) {
    out << "  waves.mp4: could not be made with ffmpeg\n";
    return;
  }
  request.sha256 = *hash;
  request.cacheRoot = folder / "Korvalen";
  request.ffmpeg = *ffmpeg;
  request.clock = context.now;
  // 320×180 at 30 fps decodes to 2.6 MB a second; this budget holds two seconds of it.
  request.memoryBudgetBytes = 8'640'000;
  const auto sourceBytes = static_cast<std::int64_t>(std::filesystem::file_size(request.source));
  out << "  " << PingPong::cost(3, sourceBytes).describe() << "\n";
  PingPongBuilder::Hooks hooks;
  hooks.log = [&out](std::string_view line) { out << "  " << line << "\n"; };
  const auto result = PingPongBuilder::build(request, {}, hooks);
  if (result.problem || !result.output) {
    out << "  " << result.problem.value_or("no copy was built") << "\n";
    return;
  }
  const auto probed = engine::run(*ffmpeg, PingPong::probeArguments(result.output->string()));
  const auto seconds = probed ? PingPong::parseProbe(probed->error).seconds : std::nullopt;
  out << fmt::format("  built with {}: {} s long (twice 3 s, less the turn frame it does not repeat)\n",
                     result.encoder.value_or("unknown"), seconds ? formatNumber(*seconds) : "?");
  const auto again = PingPongBuilder::findUsable(request.cacheRoot, request.source, request.sha256, request.trimStart,
                                                 request.trimEnd);
  out << "  asked again, the cache " << (again ? "has it: " + again->filename().string() : "lost it") << "\n";
}

// A name in the current folder that holds nothing yet: the demo never writes over a file.
std::filesystem::path freshName(const std::string& stem, const std::string& extension) {
  for (int n = 1;; ++n) {
    auto name =
        std::filesystem::current_path() / (n == 1 ? stem + extension : fmt::format("{}-{}{}", stem, n, extension));
    std::error_code ignored;
    if (!std::filesystem::exists(name, ignored)) {
      return name;
    }
  }
}

constexpr double wallpaperHandover = 2;  // seconds into the wallpaper's part
constexpr double handoverSeconds = 1.2;
constexpr double webHandover = 3.6;

// The live wallpaper recorded headless: two monitors (320x180 each) in the middle of the
// movie's frame; the left one shows the clip and hands over to the animated image through a
// cross-blend, the right one shows the animated image, is paused for a second, and
// hands over to the web page's still.
std::int64_t recordWallpaperDemo(engine::FrameWriter& writer, const WallpaperLibrary& library,
                                 const paths::Environment& environment, std::int64_t width, std::int64_t height,
                                 double fps) {
  const std::int64_t side = width / 2;
  const std::int64_t tall = side * 9 / 16;
  const std::vector<host::Monitor> monitors{{0, "LEFT", 0, (height - tall) / 2, side, tall, "LEFT|320x180"},
                                            {0, "RIGHT", side, (height - tall) / 2, side, tall, "RIGHT|320x180"}};
  const auto& dusk = library.items().at(0);
  const auto& life = library.items().at(1);
  const auto look = [&](const LibraryItem& item, const std::string& monitor) {
    SaverPlan plan;
    plan.shared.reset();
    std::optional<std::string> still;
    if (const auto folder = library.itemFolderOf(item); folder && item.kind == WallpaperKind::web) {
      still = (*folder / engine::stillName).string();
    }
    return wallpaper::Look{item.id, SaverContent::from(library.contentOf(item), monitor, item.title, 0, still), plan};
  };
  std::optional<wallpaper::PlaybackController::Handover> blend;
  if (const auto crossBlend = TransitionRegistry::find("crossBlend")) {
    blend = wallpaper::PlaybackController::Handover{*crossBlend, handoverSeconds, std::nullopt};
  }
  std::vector<wallpaper::RecordedChange> changes{
      {0, monitors[0].id, look(dusk, monitors[0].id), std::nullopt, PlaybackMode::running},
      {0, monitors[1].id, look(life, monitors[1].id), std::nullopt, PlaybackMode::running},
      {wallpaperHandover, monitors[0].id, look(life, monitors[0].id), blend, PlaybackMode::running},
      {2.5, monitors[1].id, std::nullopt, std::nullopt, PlaybackMode::paused},
      {3.5, monitors[1].id, std::nullopt, std::nullopt, PlaybackMode::running},
  };
  // The page, by its still: headless, nothing runs it live.
  for (const auto& item : library.items()) {
    std::error_code error;
    const auto folder = library.itemFolderOf(item);
    if (item.kind == WallpaperKind::web && folder &&
        std::filesystem::is_regular_file(*folder / engine::stillName, error)) {
      changes.push_back({webHandover, monitors[1].id, look(item, monitors[1].id), blend, PlaybackMode::running});
      break;
    }
  }
  return wallpaper::recordWallpaper([&writer](const engine::Picture& frame) { return writer.write(frame); }, width,
                                    height, monitors, std::move(changes), 5, fps, environment);
}

// The demo's web wallpaper: drifting lights drawn on a canvas, every frame.
std::optional<std::filesystem::path> writeDemoPage(const std::filesystem::path& folder) {
  static constexpr std::string_view page = R"(<!doctype html>
<html><head><meta charset="utf-8"><title>Aurora</title>
<style>html, body { margin: 0; height: 100%; background: #081020; overflow: hidden; } canvas { display: block; width: 100%; height: 100%; }</style>
</head><body><canvas id="sky"></canvas><script>
const sky = document.getElementById('sky');
const paint = sky.getContext('2d');
// Soft glows lose nothing drawn at a quarter of the pixels and stretched: a quarter of the work.
const fit = () => { sky.width = Math.ceil(innerWidth / 2); sky.height = Math.ceil(innerHeight / 2); };
addEventListener('resize', fit);
fit();
const lights = Array.from({length: 7}, (_, i) => ({hue: 150 + i * 22, phase: i * 0.9, speed: 0.15 + i * 0.03}));
const frame = (ms) => {
  const t = ms / 1000;
  const w = sky.width, h = sky.height;
  paint.fillStyle = 'rgba(8, 16, 32, 0.25)';
  paint.fillRect(0, 0, w, h);
  for (const light of lights) {
    const x = w * (0.5 + 0.4 * Math.sin(t * light.speed + light.phase));
    const y = h * (0.45 + 0.3 * Math.cos(t * light.speed * 1.3 + light.phase));
    const glow = paint.createRadialGradient(x, y, 0, x, y, h * 0.45);
    glow.addColorStop(0, 'hsla(' + light.hue + ', 80%, 60%, 0.35)');
    glow.addColorStop(1, 'hsla(' + light.hue + ', 80%, 60%, 0)');
    paint.fillStyle = glow;
    paint.fillRect(0, 0, w, h);
  }
  requestAnimationFrame(frame);
};
requestAnimationFrame(frame);
</script></body></html>
)";
  const auto pageFolder = folder / "aurora";
  if (auto written = files::writeAtomically(pageFolder / "index.html", std::string(page)); !written) {
    return std::nullopt;
  }
  return pageFolder;
}

// The live wallpaper behind the windows for a few seconds, from a settings file and the
// demo's library, in a Korvalen folder of its own (its own socket and planner lock).
void showLiveWallpaper(std::ostream& out, const std::filesystem::path& folder, const WallpaperLibrary& library,
                       const Context& context) {
  constexpr double seconds = 5;
  out << fmt::format("\nThe live wallpaper behind your windows for {} s, on every monitor:\n", seconds);
  engine::PlannerFiles files;
  files.settings = folder / "wallpaper" / "settings.json";
  files.library = library.folder();
  files.plan = folder / "wallpaper" / SaverPlan::fileName;
  files.state = folder / "wallpaper" / PlaybackState::fileName;
  const auto run = folder / "wallpaper" / "run";
  std::error_code error;
  std::filesystem::create_directories(run, error);
  std::filesystem::permissions(run, std::filesystem::perms::owner_all, error);
  KorvalenSettings settings;
  // The page first when there is one, then the clip: a minute each.
  std::vector<std::string> shown;
  for (const auto& item : library.items()) {
    if (item.kind == WallpaperKind::web) {
      shown.push_back(item.id);
    }
  }
  shown.push_back(library.items().at(0).id);
  settings.playlists.push_back(Playlist{"Demo", shown, 1, false, {}});
  settings.activePlaylist = "Demo";
  if (auto saved = Settings::save(settings, files.settings); !saved) {
    out << "  " << saved.error() << "\n";
    return;
  }
  wallpaper::WallpaperOptions options;
  options.files = files;
  options.environment = [base = context.environment, run = run.string()](std::string_view name) {
    return name == "XDG_RUNTIME_DIR" ? std::optional<std::string>(run) : base(name);
  };
  const auto& zone = *findTimeZone("UTC");
  options.zone = &zone;
  options.clock = context.now;
  options.seconds = seconds;
  options.log = [&out](const std::string& line) { out << "  " << line << "\n"; };
  const LogToStream logs(out, "  ");
  if (auto ran = wallpaper::runWallpaper(options); !ran) {
    out << "  the live wallpaper could not start: " << ran.error() << "\n";
  }
}

// The screensaver itself: a generated clip with sound, then a generated animated image, in a
// window when there is a display, else written headless into a video kept for watching.
void showSaver(std::ostream& out, const std::filesystem::path& folder, const Context& context, bool headless) {
  out << "\nThe screensaver on a generated clip with sound, then on an animated image:\n";
  const auto ffmpeg = engine::findExecutable("ffmpeg", context.environment("PATH").value_or(""));
  if (!ffmpeg) {
    out << "  skipped: ffmpeg was not found on PATH\n";
    return;
  }
  const auto clip = folder / "dusk.mp4";
  const auto image = folder / "life.gif";
  // Slow colour gradients over a soft fifth that swells and fades; Conway's life as a GIF.
  const auto tone = [](int hertz) { return fmt::format("0.25*sin({}*2*PI*t)*(0.6+0.4*sin(PI*t/2))", hertz); };
  const std::vector<std::vector<std::string>> makes{
      {"-v",        "error",
       "-f",        "lavfi",
       "-i",        "gradients=s=640x360:r=30:speed=0.03:c0=0x203060:c1=0xd07040:n=2",
       "-f",        "lavfi",
       "-i",        fmt::format("aevalsrc={}|{}:s=48000", tone(220), tone(330)),
       "-t",        "4",
       "-c:v",      "libx264",
       "-preset",   "ultrafast",
       "-pix_fmt",  "yuv420p",
       "-c:a",      "aac",
       "-shortest", clip.string()},
      {"-v", "error", "-f", "lavfi", "-i",
       "life=s=80x45:r=8:mold=10:ratio=0.2:life_color=0xf0c040:death_color=0x301020,scale=320:180:flags=neighbor", "-t",
       "3", image.string()}};
  for (const auto& arguments : makes) {
    const auto made = engine::run(*ffmpeg, arguments);
    if (!made || made->exitCode != 0) {
      out << "  " << arguments.back() << ": could not be made with ffmpeg\n";
      return;
    }
  }
  // The application's side: both files go into a library, and the plan names its copies.
  auto library = WallpaperLibrary::load(folder / WallpaperLibrary::folderName).library;
  engine::ImportOptions importing;
  importing.ffmpeg = *ffmpeg;
  importing.now = context.now();
  out << "  imported into a library, " << library.file().string() << ":\n";
  for (const auto& line : engine::importInto(library, engine::gatherCandidates({clip, image}), importing)) {
    if (!line.item) {
      out << "    " << line.source << ": " << line.detail << "\n";
      return;
    }
    const auto& item = *line.item;
    out << fmt::format("    item {}: {} \"{}\", {}x{}, {}{}, thumbnail in {}\n", item.id, toString(item.kind),
                       item.title, item.width, item.height, item.codec.value_or("?"),
                       item.hasAudio.value_or(false) ? " with sound" : "",
                       library.itemFolderOf(item).value_or(folder).string());
  }
  // A web wallpaper too: a page of our own, photographed for its still.
  importing.webView = engine::findWebView(context.environment("PATH").value_or(""));
  importing.stillWidth = 640;
  importing.stillHeight = 360;
  if (const auto page = writeDemoPage(folder)) {
    for (const auto& line : engine::importInto(library, {engine::ImportCandidate{*page, true}}, importing)) {
      out << (line.item ? fmt::format("    item {}: web \"{}\", a page with a moving canvas\n", line.item->id,
                                      line.item->title)
                        : fmt::format("    {}: {}\n", line.source, line.detail));
      for (const auto& note : line.notes) {
        out << "      " << note << "\n";
      }
    }
  }
  const auto& dusk = library.items().at(0);
  const auto& life = library.items().at(1);
  library.setFit(life.id, FitMode::fit);  // an adjustment, as `korvalen library set` makes
  if (auto saved = library.save(); !saved) {
    out << "  " << saved.error() << "\n";
    return;
  }
  const auto planPath = folder / "saver" / SaverPlan::fileName;
  // The planner decides what the plan says: an evening schedule plays the clip from 18:00
  // and the animated picture from 21:00; the screensaver plays sound at 30%.
  KorvalenSettings settings;
  settings.playlists.push_back(
      Playlist{"Evening", {dusk.id, life.id}, 30, false, {{TimeOfDay{18, 0}, dusk.id}, {TimeOfDay{21, 0}, life.id}}});
  settings.activePlaylist = "Evening";
  settings.screensaver.playSound = true;
  settings.lastWallpaper = LastWallpaper{};
  settings.lastWallpaper->volume = 0.3;
  const auto& utc = *findTimeZone("UTC");
  const auto day = std::chrono::floor<std::chrono::days>(context.now());
  const auto planAt = [&](std::chrono::minutes sinceMidnight) {
    const PlaybackState none;
    const PlannerInput input{settings, library, {}, day + sinceMidnight, utc, none, {}};
    const auto answer = WallpaperPlanner::plan(input);
    out << fmt::format("  the planner at {}: {}\n", localTime(day + sinceMidnight, utc), answer.shared.explanation);
    return WallpaperPlanner::saverPlan(input, answer, context.now());
  };
  const auto writePlan = [&](const SaverPlan& plan) {
    if (auto written = plan.write(planPath); !written) {
      throw Failure(written.error());
    }
  };
  const auto first = planAt(std::chrono::minutes(18 * 60 + 30));
  const auto second = planAt(std::chrono::minutes(21 * 60 + 30));
  const auto environment = withPlan(context.environment, planPath.string());
  const double clipSeconds = 4;
  const double imageSeconds = 3;
  out << "  plan: " << planPath.string() << "\n";

  const auto monitors = headless ? std::nullopt : std::optional(host::listMonitors());
  if (monitors && *monitors && !(*monitors)->empty()) {
    out << fmt::format(
        "  in a window: {} s of the clip with its sound, then {} s of the animated image (Esc ends "
        "either)\n",
        clipSeconds, imageSeconds);
    const LogToStream logs(out, "  ");
    host::DesktopOptions options;
    // 960x540, or smaller to stay on a small monitor.
    const auto& monitor = (*monitors)->front();
    const double scale = std::min(
        {1.0, 0.9 * static_cast<double>(monitor.width) / 960.0, 0.9 * static_cast<double>(monitor.height) / 540.0});
    options.width = std::max<std::int64_t>(16, std::llround(960 * scale));
    options.height = std::max<std::int64_t>(9, std::llround(540 * scale));
    options.environment = environment;
    bool shown = true;
    for (const auto& [content, seconds] : {std::pair{first, clipSeconds}, std::pair{second, imageSeconds}}) {
      writePlan(content);
      options.seconds = seconds;
      if (const auto ran = host::runOnDesktop(options); !ran) {
        out << "  the window could not be shown: " << ran.error() << "\n";
        shown = false;
        break;
      }
    }
    if (shown) {
      showLiveWallpaper(out, folder, library, context);
      return;
    }
  }

  const auto movie = freshName("korvalen-demo", ".mp4");
  constexpr std::int64_t width = 640;
  constexpr std::int64_t height = 360;
  constexpr double fps = 15;
  auto writer = engine::FrameWriter::start(*ffmpeg, movie, width, height, fps);
  if (!writer) {
    out << "  " << writer.error() << "\n";
    return;
  }
  out << "  no display: the screen written headless, on the saver's own clock\n";
  std::int64_t frames = 0;
  std::int64_t wallpaperFrames = 0;
  const double saverSeconds = clipSeconds + imageSeconds;
  {
    const LogToStream logs(out, "  ");
    const engine::SoftwareScreen screen{{width, height}, fmt::format("display-0|{}x{}", width, height), false, {}};
    writePlan(first);
    frames += recordSaver(*writer, screen, environment, clipSeconds, fps);
    writePlan(second);
    frames += recordSaver(*writer, screen, environment, imageSeconds, fps);
    out << "\nThe live wallpaper, headless: two monitors side by side; the left one hands its clip over to the "
           "animated image through a cross-blend, the right one is paused for a while, then shows the web page "
           "(by its still: a page runs live only behind a desktop)\n";
    wallpaperFrames = recordWallpaperDemo(*writer, library, environment, width, height, fps);
  }
  if (auto finished = writer->finish(); !finished) {
    out << "  " << finished.error() << "\n";
    return;
  }
  // The clip's sound under its pictures: while the screensaver plays it, and on the left
  // monitor until the cross-blend has faded it out.
  const auto silent = movie.parent_path() / (movie.stem().string() + "-silent.mp4");
  std::error_code error;
  std::filesystem::rename(movie, silent, error);
  const auto delay = static_cast<std::int64_t>(saverSeconds * 1000);
  const auto mixed =
      error ? std::expected<engine::Finished, std::string>(std::unexpected(error.message()))
            : engine::run(*ffmpeg, {"-v", "error", "-y", "-i", silent.string(), "-i", clip.string(), "-filter_complex",
                                    fmt::format("[1:a]atrim=0:{0}[a0];[1:a]atrim=0:{1},afade=t=out:st="
                                                "{2}:d={3},adelay={4}|{4}[a1];[a0][a1]amix=inputs=2:"
                                                "normalize=0[a]",
                                                clipSeconds, wallpaperHandover + handoverSeconds, wallpaperHandover,
                                                handoverSeconds, delay),
                                    "-map", "0:v", "-map", "[a]", "-c:v", "copy", "-c:a", "aac", movie.string()});
  if (!mixed || mixed->exitCode != 0) {
    // The pictures are kept all the same.
    std::filesystem::rename(silent, movie, error);
    out << "  (its sound could not be added: " << (mixed ? mixed->error : mixed.error()) << ")\n";
  } else {
    std::filesystem::remove(silent, error);
  }
  out << fmt::format(
      "  wrote {} ({} frames, {}x{} at {} fps, with the clip's sound; the screensaver's clip, then the animated "
      "image, then the live wallpaper; it is yours to keep)\n",
      movie.string(), frames + wallpaperFrames, width, height, formatNumber(fps));
}

}  // namespace

void addDemoCommand(CLI::App& app, Context& context, Action& action) {
  auto* demo = app.add_subcommand(
      "demo", "Write a sample plan, show what two screens would get, and run the screensaver on generated media");
  auto headless = std::make_shared<bool>(false);
  demo->add_flag("--headless", *headless, "Write the screensaver's run into korvalen-demo.mp4 even with a display");
  demo->callback([&context, &action, headless] {
    action = [&context, headless] {
      auto& out = context.out;
      auto made = engine::ScratchFolder::make("korvalen-demo");
      if (!made) {
        throw Failure("no temporary folder for the demo: " + made.error());
      }
      const auto& scratch = *made;
      const auto folder = scratch.path() / "Korvalen";
      const auto planPath = folder / SaverPlan::fileName;
      const std::vector<DemoScreen> screens{{"builtin|1512x982", 3024, 1964},
                                            {"10ac-a0c4-4c4c3042|2560x1440", 2560, 1440}};
      // Media sizes of the two sample files, as their metadata would say.
      const std::map<std::string, std::pair<std::int64_t, std::int64_t>> mediaSizes{{"harbour-4k.mp4", {3840, 2160}},
                                                                                    {"fern.jpg", {1200, 1800}}};

      const auto plan = samplePlan(scratch.path() / "media", screens[0].id, context.now());
      if (auto written = plan.write(planPath); !written) {
        throw Failure(written.error());
      }
      out << "Korvalen demo\n";
      out << "The application wrote a plan for the screensaver: " << planPath.string() << "\n\n";
      auto reread = SaverPlan::read(planPath);
      if (!reread) {
        throw Failure("the demo plan could not be read back from " + planPath.string());
      }
      out << "Plan-wide: dim " << formatNumber(reread->dim) << ", rate " << formatNumber(reread->rate)
          << ", guards flashes " << (reread->guardsFlashes() ? "yes" : "no") << "\n";
      for (const auto& screen : screens) {
        out << "\nScreen " << screen.id << " (" << screen.width << "x" << screen.height << " pixels)\n";
        const auto content = reread->contentForScreen(screen.id);
        out << "  rule: " << describeRule(reread->ruleForScreen(screen.id)) << "\n";
        if (!content) {
          out << "  shows nothing\n";
          continue;
        }
        out << "  shows: " << describeContent(*content) << "\n";
        const auto name = std::filesystem::path(content->path).filename().string();
        const auto [mediaWidth, mediaHeight] = mediaSizes.at(name);
        const auto placement =
            VideoFit::compute(mediaWidth, mediaHeight, screen.width, screen.height, content->fit, content->crop);
        out << fmt::format("  media {}x{} lands like this:\n", mediaWidth, mediaHeight);
        std::string lines = describePlacement(placement, mediaWidth, mediaHeight);
        for (std::size_t start = 0; start < lines.size();) {
          const auto end = lines.find('\n', start);
          out << "    " << lines.substr(start, end - start) << "\n";
          start = end + 1;
        }
      }
      showPlaylists(out);
      showPolicy(out);
      showFlashCheck(out, scratch.path(), context);
      showPingPong(out, scratch.path(), context);
      showSaver(out, scratch.path(), context, *headless);
      out << "\nThe temporary Korvalen folder is removed again.\n";
      return ok;
    };
  });
}

}  // namespace korvalen::cli
