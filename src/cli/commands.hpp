// The command groups of the tool and the text forms they share.
#pragma once

#include "cli/cli.hpp"
#include "core/app/settings.hpp"
#include "core/library/playlist_scheduler.hpp"
#include "core/library/wallpaper_library.hpp"
#include "core/planning/saver_plan.hpp"
#include "core/rendering/video_fit.hpp"
#include "engine/flash_check.hpp"
#include "engine/frame_writer.hpp"
#include "engine/software/software_saver.hpp"
#include "host/backend.hpp"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace korvalen::cli {

// What the chosen command does once the command line parsed; returns the exit status.
using Action = std::function<int()>;

void addPlanCommands(CLI::App& app, Context& context, Action& action);
void addPlaceCommand(CLI::App& app, Context& context, Action& action);
void addDemoCommand(CLI::App& app, Context& context, Action& action);
void addPlaylistCommands(CLI::App& app, Context& context, Action& action);
void addSettingsCommands(CLI::App& app, Context& context, Action& action);
void addFlashCommands(CLI::App& app, Context& context, Action& action);
void addPolicyCommands(CLI::App& app, Context& context, Action& action);
void addMediaCommands(CLI::App& app, Context& context, Action& action);
void addLibraryCommands(CLI::App& app, Context& context, Action& action);
// The library as `korvalen library` commands read it (a file that cannot be read is a
// `Failure`), and one of its items by id (a missing one is a `Failure` naming it).
WallpaperLibrary readLibrary(Context& context);
const LibraryItem& libraryItem(const WallpaperLibrary& library, const std::string& id);
void addSaverCommand(CLI::App& app, Context& context, Action& action);
// The display server `--backend` names (a `UsageError` for another word), else the one the
// environment chooses (a `Failure` naming WAYLAND_DISPLAY and DISPLAY when neither is set).
host::Backend backendFor(const std::optional<std::string>& asked, Context& context);
// XScreenSaver's single-dash spellings ("-root", "-window-id") of the saver's options.
std::vector<std::string> withLongOptions(std::vector<std::string> arguments);
void addPingPongCommands(CLI::App& app, Context& context, Action& action);

// While alive, the controller's log lines go to `stream` as they stand, after `indent`.
class LogToStream {
 public:
  explicit LogToStream(std::ostream& stream, std::string indent = "");
  ~LogToStream();
  LogToStream(const LogToStream&) = delete;
  LogToStream& operator=(const LogToStream&) = delete;
};

// `environment` with the screensaver's plan variable set to `plan`.
paths::Environment withPlan(paths::Environment environment, std::string plan);

// The screensaver on `screen`, run on its own clock for `seconds` and written to `writer`
// at `fps`; the number of frames written. `live` keeps the saver's clock to the wall clock.
std::int64_t recordSaver(engine::FrameWriter& writer, const engine::SoftwareScreen& screen,
                         const paths::Environment& environment, double seconds, double fps, bool live = false);

// One line: "video /m/a.mp4 fit=fill crop=0.25,0,0.5,1 mirror-h trim=2:end".
std::string describeContent(const SaverContent& content);
// How the content for `screen` is chosen, in words.
std::string describeRule(ScreenRule rule);
// "x=0.05 y=0 width=0.9 height=1".
std::string describeRect(const FitRect& rect);
// The lines `korvalen place` prints for one placement.
std::string describePlacement(const VideoPlacement& placement, std::int64_t mediaWidth, std::int64_t mediaHeight);

// A playlist run from `from` to `until`, the clock moving in `step`s.
struct Simulation {
  Playlist playlist;
  const TimeZone& zone;
  Date from;
  Date until;
  Date::duration step;
  std::int64_t seed = 0;
  std::optional<std::vector<std::string>> available;  // absent: everything is available
  std::set<std::string> avoid;                        // non-empty: move on with advanceAvoiding
};

// The start state, then every state that differs from the one before.
std::vector<PlaylistState> simulatePlaylist(const Simulation& simulation);
// "2026-05-01 07:30 CEST  sunrise  (scheduled)".
std::string describeChange(const PlaylistState& state, const TimeZone& zone);
using engine::FlashCheck;
using engine::FlashReport;
std::string describeFlashReport(const std::string& name, const FlashReport& report);
// ffmpeg from --ffmpeg or PATH; a missing one is a failure that says how to get it.
std::filesystem::path locateFfmpeg(const std::string& given, const Context& context);

// An edit of the settings: the edited copy of what was read.
using SettingsEdit = std::function<KorvalenSettings(const KorvalenSettings&)>;
// Reads the settings (refusing an unreadable file), applies `edit`, merges the change into
// the file as it is just before saving (so the app's own saves meanwhile are kept), repairs,
// saves and prints what changed. The settings as saved.
std::optional<KorvalenSettings> saveSettingsEdit(const std::filesystem::path& path, const SettingsEdit& edit,
                                                 Context& context);
// The given settings file, or the app's.
std::filesystem::path settingsPath(const std::string& given, const Context& context);

// An instant: ISO 8601 with a zone ("Z", "+02:00"), or a wall-clock time in `zone`.
Date parseInstant(const std::string& text, const TimeZone& zone, std::string_view argument);
// The zone given with --tz, else TZ's, else this machine's.
const TimeZone& zoneNamed(const std::string& name, const Context& context);
void addPlannerCommands(CLI::App& app, Context& context, Action& action);
void addToolsCommands(CLI::App& app, Context& context, Action& action);
// The Korvalen folder's "tools/", where the managed downloader lives.
std::filesystem::path toolsFolder(const Context& context);
// Before a download, with `autoUpdateDownloader`: a check for a newer downloader when the
// last is more than a day old. A failed check is a note, never a failure.
void updateDownloaderIfDue(const KorvalenSettings& settings, Context& context);
void addWallpaperCommands(CLI::App& app, Context& context, Action& action);

// "2026-05-01 07:30 CEST".
std::string localTime(Date date, const TimeZone& zone);

}  // namespace korvalen::cli
