// Keeping the downloader current: what a release location's checksum file says, which of two
// versions is newer, when a check is due, and what the Korvalen folder remembers of the
// managed copy ("tools/state.json").
#pragma once

#include "core/support/iso8601.hpp"
#include "core/support/json.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace korvalen::ToolUpdates {

// The downloader's own published releases, and the file names every release location holds.
inline constexpr std::string_view defaultReleases = "https://github.com/yt-dlp/yt-dlp/releases/latest/download";
inline constexpr std::string_view programName = "yt-dlp";
inline constexpr std::string_view checksumsName = "SHA2-256SUMS";
inline constexpr std::string_view signatureName = "SHA2-256SUMS.sig";

// The SHA-256 (lower-case hex) the checksum file gives for `name` ("HASH  NAME" or, for a
// binary-mode line, "HASH *NAME"); absent when no well-formed line names it.
[[nodiscard]] std::optional<std::string> checksumFor(std::string_view sums, std::string_view name);

// Whether a program's `--version` answer is a version we can compare: numbers separated by
// dots ("2023.03.04", "2024.08.06.232111").
[[nodiscard]] bool isVersion(std::string_view text);
// Negative, zero or positive as `a` is older than, the same as or newer than `b`, number by
// number (a missing number counts as 0).
[[nodiscard]] int compareVersions(std::string_view a, std::string_view b);

// A check is due when there was none, or the last is more than a day old (or in the future:
// the clock was set back).
[[nodiscard]] bool checkDue(const std::optional<Date>& lastChecked, Date now);

struct ToolState {
  std::optional<std::string> version;        // of the managed copy
  std::optional<Date> lastChecked;           // the last successful check of the release location
  std::optional<std::string> latestVersion;  // what that check found
  std::optional<std::string> releases;       // where it looked
  bool operator==(const ToolState&) const = default;
};

}  // namespace korvalen::ToolUpdates

namespace korvalen::json {
template <>
struct Coding<ToolUpdates::ToolState> {
  static Json encode(const ToolUpdates::ToolState& value, const Options& options);
  [[nodiscard]] static Result<ToolUpdates::ToolState> decode(const Json& json, const Options& options);
};
}  // namespace korvalen::json
