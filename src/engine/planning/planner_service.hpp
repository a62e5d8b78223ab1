// The planner at work: reads the settings, the library and the playback state, asks the
// WallpaperPlanner, and writes the screensaver's plan (only when it says something new)
// and the state. `PlannerService` keeps doing so on an event loop: it sleeps until the
// answer's next change or until the settings or the library file changes, and never polls.
// One program at a time plans (`PlannerLock`).
//
// Thread: the event loop's.
#pragma once

#include "core/planning/wallpaper_planner.hpp"
#include "core/support/paths.hpp"
#include "core/support/time_zone.hpp"
#include "engine/loop/event_loop.hpp"
#include "engine/loop/file_watcher.hpp"

#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvalen::engine {

// The files planning reads and writes.
struct PlannerFiles {
  std::filesystem::path settings;
  std::filesystem::path library;  // the library's folder
  std::filesystem::path plan;
  std::filesystem::path state;  // beside the settings
  static PlannerFiles defaults(const paths::Environment& environment);
};

// One planning: the answer, the plan it gives, and whether either file would change.
struct PlannerRun {
  PlannerAnswer answer;
  SaverPlan plan;
  bool planChanged = false;                 // the plan on disk says something else (or there is none)
  bool stateChanged = false;                // the state on disk is a different one
  std::vector<std::string> notes;           // rows left out of the library, state entries dropped
  KorvalenSettings settings;                // what it planned from
  std::optional<WallpaperLibrary> library;  // always set by `plan`
};

namespace Planning {
// Plans from the files as they are now. The error is one line naming the file when the
// settings or the library exist but cannot be read: planning from defaults then would
// throw away what the user set up.
[[nodiscard]] std::expected<PlannerRun, std::string> plan(const PlannerFiles& files,
                                                          const std::vector<std::string>& monitors, Date now,
                                                          const TimeZone& zone);
// Writes what changed: the plan (stamped `now`) and the state.
[[nodiscard]] std::expected<void, std::string> write(const PlannerFiles& files, const PlannerRun& run);
// Moves a monitor's playlist one item on (the user's "next") and saves the state; the next
// planning shows it. One line when it cannot: no playlist there, a file that cannot be read.
[[nodiscard]] std::expected<void, std::string> skip(const PlannerFiles& files, const std::vector<std::string>& monitors,
                                                    Date now, const TimeZone& zone, const std::string& monitorId);
// "dell|1920x1080 item 3 (activePlaylist); * item 3 (activePlaylist); next change ...".
std::string summary(const PlannerRun& run);
}  // namespace Planning

// Held by the one program that plans; the lock file names it.
class PlannerLock {
 public:
  static constexpr std::string_view fileName = "planner.lock";
  // `owner` is how others will name this program ("korvalen planner"). When another holds
  // the lock, the error names it: "korvalen planner (pid 4242) is planning already".
  [[nodiscard]] static std::expected<PlannerLock, std::string> acquire(const std::filesystem::path& folder,
                                                                       const std::string& owner);
  ~PlannerLock();
  PlannerLock(PlannerLock&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  PlannerLock& operator=(PlannerLock&&) = delete;
  PlannerLock(const PlannerLock&) = delete;
  PlannerLock& operator=(const PlannerLock&) = delete;

 private:
  explicit PlannerLock(int descriptor) : descriptor_(descriptor) {}
  int descriptor_ = -1;
};

class PlannerService {
 public:
  struct Options {
    PlannerFiles files;
    std::vector<std::string> monitors;
    const TimeZone* zone = nullptr;
    std::function<Date()> clock;
    std::function<void(const std::string&)> log;     // one line per rewrite or problem
    std::function<void(const PlannerRun&)> planned;  // after every planning that worked
  };
  // Plans at once, then keeps the plan current. One line when it cannot watch its files.
  [[nodiscard]] static std::expected<std::unique_ptr<PlannerService>, std::string> start(EventLoop& loop,
                                                                                         Options options);
  ~PlannerService();
  PlannerService(const PlannerService&) = delete;
  PlannerService& operator=(const PlannerService&) = delete;

  // The monitors changed (one was plugged in or out): plans for these at once.
  void setMonitors(std::vector<std::string> monitors);
  // Plans at once, as after a file change.
  void replan();
  // The user's "next" for one monitor, then a planning.
  [[nodiscard]] std::expected<void, std::string> next(const std::string& monitorId);
  [[nodiscard]] const std::vector<std::string>& monitors() const { return options_.monitors; }

  // How many times it has planned, and written the plan.
  [[nodiscard]] std::uint64_t plannings() const { return plannings_; }
  [[nodiscard]] std::uint64_t rewrites() const { return rewrites_; }

 private:
  PlannerService(EventLoop& loop, Options options) : loop_(loop), options_(std::move(options)) {}
  void fileChanged(const std::filesystem::path& folder, const std::string& name);

  EventLoop& loop_;
  Options options_;
  std::unique_ptr<FileWatcher> watcher_;
  std::unique_ptr<EventLoop::Watch> timer_;
  std::unique_ptr<EventLoop::Watch> settle_;  // a burst of file events becomes one planning
  std::optional<std::string> lastProblem_;
  std::uint64_t plannings_ = 0;
  std::uint64_t rewrites_ = 0;
};

}  // namespace korvalen::engine
