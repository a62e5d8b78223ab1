// The live wallpaper without a display: monitors side by side in one picture, each shown by
// its own `MonitorSession` on the players' stepped clock, and written frame by frame, with
// changes (a new item through a hand-over, a pause) at given moments. What `korvalen demo`
// keeps when there is no display to show it on.
#pragma once

#include "engine/frame_writer.hpp"
#include "host/monitors.hpp"
#include "wallpaper/monitor_session.hpp"

#include <optional>
#include <vector>

namespace korvalen::wallpaper {

struct RecordedChange {
  double at = 0;  // seconds from the start
  std::string monitorId;
  std::optional<Look> look;  // absent: the item stays
  std::optional<PlaybackController::Handover> handover;
  PlaybackMode mode = PlaybackMode::running;
};

// Takes each frame; false stops the recording.
using FrameSink = std::function<bool(const engine::Picture&)>;

// Monitors placed by their x and y in one picture of the given size; the frames taken.
std::int64_t recordWallpaper(const FrameSink& sink, std::int64_t width, std::int64_t height,
                             const std::vector<host::Monitor>& monitors, std::vector<RecordedChange> changes,
                             double seconds, double fps, const paths::Environment& environment);

}  // namespace korvalen::wallpaper
