// `korvalen schedule check` and `korvalen playlist simulate`: check typed schedules, and
// watch what a playlist plays over a stretch of time.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/app/settings_coding.hpp"
#include "core/library/schedule_editing.hpp"

#include <fmt/format.h>

#include <ostream>

namespace korvalen::cli {
namespace {

Playlist playlistFromFile(const std::string& path) {
  const auto parsed = readJsonFile(path);
  if (!parsed) {
    throw Failure(fmt::format("playlist {} is not JSON: {}", path, parsed.error()));
  }
  auto playlist = json::decode<Playlist>(*parsed);
  if (!playlist) {
    throw Failure(fmt::format("playlist {} cannot be read: {}", path, playlist.error().describe()));
  }
  return std::move(*playlist);
}

// Reads the settings file as the app does: one bad playlist loses only itself.
Playlist playlistFromSettings(const std::string& path, const std::string& name) {
  const auto read = Settings::read(path);
  if (read.missing) {
    throw Failure(fmt::format("no settings file at {}", path));
  }
  if (read.problem) {
    throw Failure(*read.problem);
  }
  std::string known;
  for (const auto& playlist : read.settings.playlists) {
    if (playlist.name == name) {
      return playlist;
    }
    known += (known.empty() ? "" : ", ") + fmt::format("'{}'", playlist.name);
  }
  throw Failure(fmt::format("no playlist named '{}' in {} (it has {})", name, path,
                            known.empty() ? "no readable playlists" : known));
}

std::string positionText(const PlaylistState& state) {
  return state.position < 0 ? std::string("scheduled") : fmt::format("position {}", state.position);
}

}  // namespace

Date parseInstant(const std::string& text, const TimeZone& zone, std::string_view argument) {
  if (auto date = ISO8601::parseEither(text)) {
    return *date;
  }
  // Wall-clock "2026-05-01T07:30[:00]" (or with a space): read its fields as if in UTC,
  // then place them in the zone.
  std::string fields = text;
  if (fields.size() > 10 && fields[10] == ' ') {
    fields[10] = 'T';
  }
  const auto asUtc = ISO8601::plain().parse(fields + (fields.size() == 16 ? ":00Z" : "Z"));
  if (asUtc && (fields.size() == 16 || fields.size() == 19)) {
    const date::local_time<Date::duration> local{asUtc->time_since_epoch()};
    // A wall-clock time skipped by a clock change reads as the change itself.
    return zone.to_sys(local, date::choose::earliest);
  }
  throw UsageError(fmt::format(
      "{}: expected an ISO 8601 time such as 2026-05-01T07:30 or 2026-05-01T05:30:00Z, got \"{}\"", argument, text));
}

const TimeZone& zoneNamed(const std::string& name, const Context& context) {
  if (name.empty()) {
    return localTimeZone(context.environment("TZ").value_or(""));
  }
  if (const auto* zone = findTimeZone(name)) {
    return *zone;
  }
  throw UsageError(fmt::format("--tz: no time zone named \"{}\" (use an IANA name such as Europe/Berlin)", name));
}

std::string localTime(Date date, const TimeZone& zone) {
  return date::format("%Y-%m-%d %H:%M %Z", date::make_zoned(&zone, std::chrono::floor<std::chrono::seconds>(date)));
}

std::vector<PlaylistState> simulatePlaylist(const Simulation& simulation) {
  const auto& playlist = simulation.playlist;
  const auto& zone = simulation.zone;
  PlaylistScheduler::Availability available;
  if (simulation.available) {
    available = [list = *simulation.available](const std::string& id) {
      return std::find(list.begin(), list.end(), id) != list.end();
    };
  }
  std::vector<PlaylistState> changes;
  PlaylistState state = PlaylistScheduler::start(playlist, simulation.from, simulation.seed, available, zone);
  changes.push_back(state);
  for (Date now = simulation.from + simulation.step; now <= simulation.until; now += simulation.step) {
    PlaylistState next = simulation.avoid.empty()
                             ? PlaylistScheduler::advance(playlist, state, now, zone)
                             : PlaylistScheduler::advanceAvoiding(playlist, state, now, simulation.avoid, zone).state;
    if (next != state) {
      changes.push_back(next);
      state = std::move(next);
    }
  }
  return changes;
}

std::string describeChange(const PlaylistState& state, const TimeZone& zone) {
  return fmt::format("{}  {}  ({})", localTime(state.changedAt, zone), state.currentID.value_or("(nothing)"),
                     positionText(state));
}

void addPlaylistCommands(CLI::App& app, Context& context, Action& action) {
  {
    auto* group = app.add_subcommand("schedule", "Check time-of-day schedules");
    auto rows = std::make_shared<std::vector<std::string>>();
    auto asJson = std::make_shared<bool>(false);
    auto* check = group->add_subcommand("check", "Check and sort schedule rows typed as TIME=ITEM (e.g. 7.30=sunrise)");
    check->add_option("rows", *rows, "TIME=ITEM rows; TIME accepts 7, 0730, 7:30, 7.30");
    check->add_flag("--json", *asJson, "Print the schedule as its JSON form");
    check->callback([&context, &action, rows, asJson] {
      action = [&context, rows, asJson] {
        std::vector<ScheduleEditing::Row> parsed;
        for (const auto& row : *rows) {
          const auto equals = row.find('=');
          if (equals == std::string::npos) {
            parsed.push_back({row, std::nullopt});
          } else {
            parsed.push_back({row.substr(0, equals), row.substr(equals + 1)});
          }
        }
        const auto built = ScheduleEditing::build(parsed);
        if (built.error) {
          context.err << *built.error << "\n";
          return failed;
        }
        if (*asJson) {
          context.out << json::pretty(json::encode(*built.schedule));
        } else if (built.schedule->empty()) {
          context.out << "empty schedule\n";
        }
        for (const auto& entry : *asJson ? std::vector<ScheduleEntry>{} : *built.schedule) {
          context.out << entry.from.text() << "  " << entry.itemID << "\n";
        }
        return ok;
      };
    });
  }

  {
    struct Options {
      std::string playlistFile, settingsFile, name, from, hours, stepMinutes = "1", seed = "0", tz, available, avoid;
      bool asJson = false;
    };
    auto options = std::make_shared<Options>();
    auto* group = app.add_subcommand("playlist", "Work with playlists");
    auto* simulate = group->add_subcommand("simulate", "Show what a playlist plays over a stretch of time");
    auto* source = simulate->add_option_group("source", "Where the playlist comes from");
    auto* fromFile = source->add_option("--playlist", options->playlistFile, "A file holding one playlist (JSON)");
    auto* fromSettings = source->add_option("--settings", options->settingsFile, "A settings file");
    source->require_option(1);
    simulate->add_option("--name", options->name, "The playlist's name in the settings file")
        ->needs(fromSettings)
        ->excludes(fromFile);
    simulate->add_option("--from", options->from, "Start: ISO 8601, with a zone or as wall-clock time in --tz")
        ->required();
    simulate->add_option("--hours", options->hours, "How long to watch, in hours (up to 8784)")->required();
    simulate->add_option("--step-minutes", options->stepMinutes, "Clock step in minutes (default 1)");
    simulate->add_option("--seed", options->seed, "Shuffle seed, a whole number (default 0)");
    simulate->add_option("--tz", options->tz, "IANA time zone (default: TZ, else this machine's zone)");
    simulate->add_option("--available", options->available, "Only these items are available: ID,ID,...");
    simulate->add_option("--avoid", options->avoid, "Pass over these items when moving on: ID,ID,...");
    simulate->add_flag("--json", options->asJson, "Machine-readable output");
    simulate->callback([&context, &action, options] {
      action = [&context, options] {
        const auto& o = *options;
        if (!o.settingsFile.empty() && o.name.empty()) {
          throw UsageError("--name: needed with --settings, to say which playlist");
        }
        const auto& zone = zoneNamed(o.tz, context);
        const Date from = parseInstant(o.from, zone, "--from");
        const double hours = parseInRange(o.hours, "--hours", 0, 8784);
        const double step = parseInRange(o.stepMinutes, "--step-minutes", 1, 1440);
        const std::int64_t seed = parseInteger(o.seed, "--seed");
        const auto playlist =
            o.playlistFile.empty() ? playlistFromSettings(o.settingsFile, o.name) : playlistFromFile(o.playlistFile);
        Simulation simulation{
            playlist,
            zone,
            from,
            from + std::chrono::round<Date::duration>(std::chrono::duration<double, std::ratio<3600>>(hours)),
            std::chrono::round<Date::duration>(std::chrono::duration<double, std::ratio<60>>(step)),
            seed,
            std::nullopt,
            {}};
        if (!o.available.empty()) {
          simulation.available = splitList(o.available);
        }
        for (auto& id : splitList(o.avoid)) {
          simulation.avoid.insert(std::move(id));
        }
        const auto changes = simulatePlaylist(simulation);
        if (o.asJson) {
          json::Json out = json::Json::object();
          out["playlist"] = json::encode(playlist);
          out["timeZone"] = std::string(zone.name());
          out["changes"] = json::encode(changes);
          context.out << json::pretty(out);
          return ok;
        }
        context.out << fmt::format(
            "playlist '{}': {} item(s), {}, in {}\n", playlist.name, playlist.itemIDs.size(),
            playlist.isScheduled() ? fmt::format("scheduled ({} entries)", playlist.schedule.size())
                                   : fmt::format("every {} min{}", std::max<std::int64_t>(playlist.intervalMinutes, 1),
                                                 playlist.shuffle ? ", shuffled" : ""),
            zone.name());
        for (const auto& change : changes) {
          context.out << describeChange(change, zone) << "\n";
        }
        return ok;
      };
    });
  }
}

}  // namespace korvalen::cli
