// What the live wallpaper's control socket says: one JSON object per line each way. A
// request names a command and, for pause and resume, optionally one monitor; a reply says
// whether it worked, one line for a person, and for `status` one entry per monitor.
#pragma once

#include "core/playback/playback_policy.hpp"
#include "core/support/json.hpp"

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::wallpaper {

enum class Command { status, pause, resume, next, reload, stop };
std::string_view toString(Command command);
std::optional<Command> commandNamed(std::string_view word);

struct ControlRequest {
  Command command = Command::status;
  std::optional<std::string> monitor;  // absent: every monitor
  bool operator==(const ControlRequest&) const = default;
};

// One monitor as `status` reports it.
struct MonitorStatus {
  std::string monitorId;
  PlaybackMode mode = PlaybackMode::running;
  bool muted = true;
  std::optional<std::string> reason;  // the policy's words, or why nothing shows
  std::optional<std::string> itemID;
  bool userPaused = false;
  double framesPerSecond = 0;  // frames shown over the last second
  bool operator==(const MonitorStatus&) const = default;
};

struct ControlReply {
  bool ok = true;
  std::string message;
  std::vector<MonitorStatus> monitors;  // `status` only
  bool operator==(const ControlReply&) const = default;
};

// The longest line either side accepts; a longer one is refused, not buffered without end.
inline constexpr std::size_t maximumLine = std::size_t{64} * 1024;

// One line (without its line feed); the error names what was wrong with it.
[[nodiscard]] std::expected<ControlRequest, std::string> parseRequest(std::string_view line);
[[nodiscard]] std::expected<ControlReply, std::string> parseReply(std::string_view line);
// One line each, without the line feed.
std::string encode(const ControlRequest& request);
std::string encode(const ControlReply& reply);

}  // namespace korvalen::wallpaper

namespace korvalen::json {
template <>
struct Coding<wallpaper::MonitorStatus> {
  static Json encode(const wallpaper::MonitorStatus& status, const Options& options);
  [[nodiscard]] static Result<wallpaper::MonitorStatus> decode(const Json& json, const Options& options);
};
}  // namespace korvalen::json
