// A named list of library items that the wallpaper cycles through: in order on a timer, in a
// seeded shuffle, or by time-of-day schedule. `PlaylistState` is where a running playlist is.
#pragma once

#include "core/library/time_of_day.hpp"
#include "core/support/iso8601.hpp"
#include "core/support/json.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korvalen {

struct Playlist {
  std::string name;
  std::vector<std::string> itemIDs;
  std::int64_t intervalMinutes = 30;
  bool shuffle = false;
  std::vector<ScheduleEntry> schedule;

  // A schedule, when there is one, takes over from the interval.
  [[nodiscard]] bool isScheduled() const { return !schedule.empty(); }

  bool operator==(const Playlist&) const = default;
};

struct PlaylistState {
  std::optional<std::string> currentID;
  Date changedAt{};
  std::int64_t position = -1;  // index in `order`; -1 when the schedule chose or nothing plays
  std::vector<std::string> order;
  bool operator==(const PlaylistState&) const = default;
};

namespace json {
template <>
struct Coding<Playlist> {
  static Json encode(const Playlist& playlist, const Options& options);
  // A bad `itemIDs` or `schedule` fails the playlist; a bad `shuffle` reads as false; a bad
  // `intervalMinutes` falls back (a finite float is rounded, at least 1; else 30).
  [[nodiscard]] static Result<Playlist> decode(const Json& json, const Options& options);
};
template <>
struct Coding<PlaylistState> {
  static Json encode(const PlaylistState& state, const Options& options);
};
}  // namespace json

}  // namespace korvalen
