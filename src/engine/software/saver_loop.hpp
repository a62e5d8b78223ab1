// The software engine's main loop: repeating timers on a clock of its own, and work done off
// the loop (loads) whose results are posted back. Headless it advances only when told to, and
// waits for outstanding loads before it does, so what each moment shows never depends on how
// fast the machine is; live it follows a real clock and wakes its host through a waker.
//
// Thread: the loop's; `finishWork` and the waker from any.
#pragma once

#include "core/scene/main_loop.hpp"
#include "core/scene/media.hpp"

#include <condition_variable>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

namespace korvalen::engine {

class SaverLoop final : public scene::MainLoop {
 public:
  std::unique_ptr<scene::Timer> scheduleRepeating(double seconds, std::function<void()> tick) override;
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

}  // namespace korvalen::engine
