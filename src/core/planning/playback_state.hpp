// Where each monitor's playlist is: its place in the pass, the pass's order and when it last
// stepped. Kept in "playback-state.json" beside the settings so a restarted planner
// continues a playlist instead of starting it over. A state file is only a convenience:
// reading it is lenient (a bad entry is dropped, a bad file is no state), never an error.
#pragma once

#include "core/library/playlist.hpp"
#include "core/support/json.hpp"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen {

// One monitor's running playlist.
struct PlaylistProgress {
  std::string playlist;   // the playlist's name
  std::int64_t seed = 0;  // the seed its first pass was shuffled with
  PlaylistState state;
  bool operator==(const PlaylistProgress&) const = default;
};

struct PlaybackState {
  static constexpr std::string_view fileName = "playback-state.json";
  static constexpr std::int64_t currentVersion = 1;

  // Keyed by the monitor's stable identifier, or "*" for the answer for any screen.
  std::map<std::string, PlaylistProgress> monitors;

  struct Read;
  // A missing or unreadable file is an empty state; `dropped` names what was left out.
  static Read read(const std::filesystem::path& path);
  static Read parse(std::string_view text);

  // Pretty-printed with sorted keys.
  [[nodiscard]] std::string serialize() const;
  // Atomically, creating the folder; the problem in one line.
  [[nodiscard]] std::expected<void, std::string> write(const std::filesystem::path& path) const;

  bool operator==(const PlaybackState&) const = default;
};

struct PlaybackState::Read {
  PlaybackState state;
  std::vector<std::string> dropped;  // "playback-state.json: monitor X: order: missing"
};

namespace json {
template <>
struct Coding<PlaylistProgress> {
  static Json encode(const PlaylistProgress& value, const Options& options);
  [[nodiscard]] static Result<PlaylistProgress> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
