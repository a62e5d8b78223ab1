// What every monitor shows now, why, and until when. Given the settings, the library, the
// monitors present, the time, the time zone and the saved playback state, the planner
// answers per monitor (its own item, its own playlist, the active playlist, the last
// wallpaper, or nothing), passes over items that are gone or flash as the user asked, says
// when the answer next changes, and returns the playback state to keep. It reads no clock
// and no file, so the same inputs always give the same answer.
#pragma once

#include "core/app/settings.hpp"
#include "core/library/wallpaper_library.hpp"
#include "core/planning/playback_state.hpp"
#include "core/planning/saver_plan.hpp"
#include "core/support/iso8601.hpp"
#include "core/support/time_zone.hpp"

#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen {

// Why a monitor shows what it shows: where the item came from, or what was passed over on
// the way to it.
enum class PlanReason { assignment, assignmentPlaylist, activePlaylist, lastWallpaper, missing, flashing, nothing };
std::string_view toString(PlanReason reason);

struct MonitorAnswer {
  std::string monitorId;  // a stable identifier, or "*" for any screen
  std::optional<std::string> itemID;
  PlanReason reason = PlanReason::nothing;
  std::string explanation;    // the sentence a person reads
  bool paused = false;        // the user paused this monitor
  bool held = false;          // the item flashes and is shown frozen, never played
  std::optional<Date> until;  // when this answer next changes; absent when nothing is scheduled to
  bool operator==(const MonitorAnswer&) const = default;
};

struct PlannerInput {
  const KorvalenSettings& settings;
  const WallpaperLibrary& library;
  std::vector<std::string> monitors;  // stable identifiers; empty: answer for any screen only
  Date now;
  const TimeZone& zone;
  const PlaybackState& state;
  // Still pictures standing for items the screensaver cannot run (web pages), by item id.
  std::map<std::string, std::string> stills;
};

struct PlannerAnswer {
  std::vector<MonitorAnswer> monitors;  // one per monitor given, or the one for any screen
  MonitorAnswer shared;                 // the answer for any screen
  std::optional<Date> nextChange;       // the earliest `until`
  PlaybackState state;                  // what to keep for the next run
  std::vector<std::string> notes;       // things a person should know (a screensaver item gone)
};

namespace WallpaperPlanner {

inline constexpr std::string_view anyScreen = "*";

PlannerAnswer plan(const PlannerInput& input);

// The screensaver's plan from an answer: the screensaver's own item as `chosen`, each
// monitor's item under its identifier, the any-screen answer as `shared`, and the
// screensaver-wide settings.
SaverPlan saverPlan(const PlannerInput& input, const PlannerAnswer& answer, Date written);

// The state after the user asked a monitor for its playlist's next item now: one step on,
// with the next step a whole interval away. One line when the monitor follows no playlist
// or a schedule decides its item.
[[nodiscard]] std::expected<PlaybackState, std::string> skip(const PlannerInput& input, const PlannerAnswer& answer,
                                                             const std::string& monitorId);

}  // namespace WallpaperPlanner

}  // namespace korvalen
