// One monitor of the live wallpaper: the content the planner gives it, shown by the
// screensaver's own controller on the software engine (fit, crop, trim, mirror, filters,
// rate, sound, the flash guard), run, paused or stopped as the policy says, and handed over to
// the next item through a transition. It draws into the monitor's picture only when what it
// shows changed, no more often than the frame-rate cap.
//
// Thread: the event loop's; decoders and loads wake it through `wake`.
#pragma once

#include "core/planning/saver_plan.hpp"
#include "core/playback/playback_policy.hpp"
#include "core/wallpaper/playback_controller.hpp"
#include "engine/compositor.hpp"
#include "engine/software/video_feeds.hpp"
#include "engine/sound_track.hpp"
#include "host/wallpaper_display.hpp"

#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>

namespace korvalen::wallpaper {

// What a monitor shows: the item and how.
struct Look {
  std::string itemID;
  SaverContent content;
  SaverPlan plan;  // dim, saturation, rate, sound and the flash guard, for this monitor
  bool operator==(const Look&) const = default;
};

class MonitorSession {
 public:
  static constexpr double never = std::numeric_limits<double>::infinity();

  // `live`: the players' clocks follow the caller's times as they come and loads land when
  // they land; headless (false), each time given waits for the loads under way, so what a
  // moment shows never depends on how fast the machine is. `feeds`: shared by the program's
  // monitors, so monitors showing the same video decode it once.
  MonitorSession(host::Monitor monitor, std::shared_ptr<engine::SoundOutput> sound, paths::Environment environment,
                 std::function<void()> wake, bool live = true, std::shared_ptr<engine::VideoFeeds> feeds = nullptr);
  ~MonitorSession();
  MonitorSession(const MonitorSession&) = delete;
  MonitorSession& operator=(const MonitorSession&) = delete;

  [[nodiscard]] const host::Monitor& monitor() const { return monitor_; }
  // Its size changed: the content is placed again, without a restart.
  void setMonitor(const host::Monitor& monitor);

  // What to show now; another item is handed over through `handover` (else cut). Absent: black.
  void show(const std::optional<Look>& look, const std::optional<PlaybackController::Handover>& handover, double now);
  // Running plays; paused holds the frame and decodes nothing; stopped frees the decoder and
  // its frames and keeps the last picture as a still.
  void setMode(PlaybackMode mode, double soundLevel, double rate, double now);

  // Shows what another monitor of the same size draws, the same item running on both: no
  // player of its own (one decoder for both); `copy` takes each frame the other draws.
  void mirror(const Look& look);
  [[nodiscard]] bool mirroring() const { return mirrored_.has_value(); }
  // The monitor it mirrors (`source`) has drawn a frame: show it here too.
  void copy(const std::string& source, double now, host::WallpaperDisplay& display);

  // Draws what is due at `now` into the display's picture, hands it to `drawn` (the monitors
  // that mirror this one) and presents it; returns the time it next needs to, or `never`.
  using Drawn = std::function<void()>;
  double frame(double now, host::WallpaperDisplay& display, std::int64_t fpsCap, const Drawn& drawn = {});
  // Everything must be drawn again (the window was exposed).
  void redraw() { force_ = true; }

  // Once per trip of the flash guard on what it shows: the peak flashes per second.
  std::optional<std::int64_t> takeFlashTrip();

  [[nodiscard]] std::optional<std::string> itemID() const;
  [[nodiscard]] PlaybackMode mode() const { return mode_; }
  [[nodiscard]] bool handingOver() const { return incoming_ != nullptr; }
  // Frames shown over the last second before `now`.
  [[nodiscard]] double framesPerSecond(double now) const;
  // Decoders open: one per video player, two during a hand-over of videos.
  [[nodiscard]] std::int64_t decoders() const;

 private:
  struct Player;
  std::unique_ptr<Player> makePlayer(const Look& look, double now);
  void applyMode(Player& player);
  void keepStill();
  bool drawInto(const engine::Canvas& canvas, double now);

  host::Monitor monitor_;
  std::shared_ptr<engine::SoundOutput> sound_;
  std::shared_ptr<engine::VideoFeeds> feeds_;
  paths::Environment environment_;
  std::function<void()> wake_;
  bool live_ = true;
  std::unique_ptr<Player> current_;
  std::unique_ptr<Player> incoming_;
  std::optional<PlaybackController::Handover> handover_;
  double handoverStart_ = 0;
  bool handoverStarted_ = false;
  PlaybackMode mode_ = PlaybackMode::running;
  double soundLevel_ = 0;
  double rate_ = 1;
  bool force_ = true;
  double lastPresent_ = -never;
  std::deque<double> shown_;              // when frames were shown, the last second's worth
  std::optional<engine::Picture> still_;  // what a stopped monitor keeps showing
  std::optional<Look> mirrored_;          // shown by another monitor's player
  engine::Picture outgoingPicture_;
  engine::Picture incomingPicture_;
  bool flashReported_ = false;
};

}  // namespace korvalen::wallpaper
