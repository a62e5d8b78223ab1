// The screensaver's engine on Linux: the controller's layers, placement and filters on a CPU
// compositor, videos and pictures decoded in-process, and a single-threaded main loop whose
// clock is its own. Headless it advances only when told to, and waits for outstanding loads
// before it does, so what each moment shows never depends on how fast the machine is.
//
// Thread: the main loop's. Decoder threads hand frames over through the decoder's queue and
// finished loads through `SaverLoop::post`.
#pragma once

#include "core/screensaver/saver_platform.hpp"
#include "engine/compositor.hpp"
#include "engine/sound_track.hpp"

#include <condition_variable>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace korvalen::engine {

class SaverLoop final : public saver::MainLoop {
 public:
  std::unique_ptr<saver::Timer> scheduleRepeating(double seconds, std::function<void()> tick) override;
  [[nodiscard]] double mediaTime() const override { return now_; }

  // Work started off the loop (a load) that will post its result; the clock waits for it.
  void beginWork();
  // From any thread: runs `task` on the loop, and ends one piece of work begun.
  void finishWork(std::function<void()> task);
  // Runs everything due up to `time` in order: finished work first, then each timer as it
  // falls due, with the clock at the timer's time.
  void runUntil(double time);

  // Live, the clock follows a real one: loads land when they finish instead of being waited
  // for, a frame not decoded yet is not waited for, and a timer that fell far behind (the
  // machine stalled) fires once rather than once for every tick it missed.
  void setLive(bool live) { live_ = live; }
  [[nodiscard]] bool live() const { return live_; }
  // Something will change at `time` (a video's next frame): the host should look again then.
  void wakeBy(double time);
  // Work begun and not yet landed on the loop (a load under way).
  [[nodiscard]] bool loading();
  // Called, from the posting thread, whenever work is posted: how a loop that sleeps in
  // poll() learns that a load finished. Set before any work starts.
  void setWaker(std::function<void()> waker) { waker_ = std::move(waker); }
  // When the loop next has something to do: the earliest timer or requested wake.
  [[nodiscard]] double nextWake();

 private:
  struct Entry {
    double interval;
    double due;
    std::function<void()> tick;
    std::shared_ptr<bool> alive;
  };
  void runPosted(std::unique_lock<std::mutex>& lock);

  double now_ = 0;
  std::vector<Entry> entries_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> posted_;
  int working_ = 0;
  bool live_ = false;
  double wake_ = std::numeric_limits<double>::infinity();
  std::function<void()> waker_;
};

// A layer of the CPU compositor.
class SoftwareLayer final : public saver::Layer, public std::enable_shared_from_this<SoftwareLayer> {
 public:
  using Content = std::function<const Picture*(double localTime)>;

  SoftwareLayer(const SaverLoop& loop, const Area& covering) : frame(covering), loop_(loop) {}

  void addSublayer(const std::shared_ptr<Layer>& child) override;
  void removeFromSuperlayer() override;
  void setHidden(bool value) override { hidden = value; }
  void setScale(double x, double y) override {
    scaleX = x;
    scaleY = y;
  }
  void setFilters(const saver::Filters& value) override { filters = value; }
  void setSpeed(double speed) override;
  void setTimeOffset(double seconds) override;

  // The layer's own time at the loop's `time`; layers that never set their clock share
  // their parent's.
  [[nodiscard]] double localTime(double time, double parentTime) const;

  Area frame;  // in the parent's coordinates
  bool hidden = false;
  bool masks = false;  // children drawn only within the frame
  double scaleX = 1;
  double scaleY = 1;
  std::optional<saver::Filters> filters;
  Content content;  // what the layer shows over its whole frame
  SoftwareLayer* parent = nullptr;
  std::vector<std::shared_ptr<SoftwareLayer>> children;

 private:
  const SaverLoop& loop_;
  bool ownClock_ = false;
  double speed_ = 1;
  double base_ = 0;       // loop time the clock was last set at
  double baseLocal_ = 0;  // the layer's time then
};

// Draws `root` and everything in it over black into `target`, at the loop's `time`.
void compose(const SoftwareLayer& root, double time, const Canvas& target);
// What `compose` would draw at `time`, as a number: equal keys, equal pictures (the layers,
// their geometry and filters, and which frame each shows).
std::uint64_t sceneKey(const SoftwareLayer& root, double time);

struct SoftwareScreen {
  saver::Size size;  // the view's bounds
  std::string id;    // the screen's stable identifier
  bool preview = false;
  // The frame of the screen the view is on, when it is not the view's own size.
  std::optional<saver::Size> screen;
};

// Everything the controller needs, for one screen of a given size, without a display.
class SoftwareSaver {
 public:
  // With an output, videos whose sound level is above 0 play their sound through it.
  explicit SoftwareSaver(const SoftwareScreen& screen, std::shared_ptr<SoundOutput> sound = nullptr);
  ~SoftwareSaver();
  SoftwareSaver(const SoftwareSaver&) = delete;
  SoftwareSaver& operator=(const SoftwareSaver&) = delete;

  [[nodiscard]] saver::Platform platform(paths::Environment environment);
  SaverLoop& loop() { return *loop_; }
  // The screen as it looks at the loop's present time.
  void draw(Picture& target) { draw(target.canvas()); }
  // The same into any canvas of the view's size; with `onlyWhenChanged`, nothing is drawn
  // when the picture is the one drawn last time. Returns whether it drew.
  bool draw(const Canvas& target, bool onlyWhenChanged = false);
  // The view's bounds or screen changed; the controller is told separately.
  void setScreen(const SoftwareScreen& screen);
  // The view's window is gone.
  void leaveWindow();

 private:
  struct Parts;
  std::unique_ptr<SaverLoop> loop_;
  std::unique_ptr<Parts> parts_;
  std::optional<std::uint64_t> drawn_;  // the scene key last drawn
};

}  // namespace korvalen::engine
