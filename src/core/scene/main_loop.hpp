// The main loop as content sees it: repeating timers and the media clock. Main thread only.
#pragma once

#include <functional>
#include <memory>

namespace korvalen::scene {

// A repeating timer; it stops when invalidated or destroyed, which may happen from inside
// its own tick.
class Timer {
 public:
  virtual ~Timer() = default;
  virtual void invalidate() = 0;
};

// The main loop: repeating timers, and the media clock (monotonic seconds).
class MainLoop {
 public:
  virtual ~MainLoop() = default;
  virtual std::unique_ptr<Timer> scheduleRepeating(double seconds, std::function<void()> tick) = 0;
  [[nodiscard]] virtual double mediaTime() const = 0;
};

}  // namespace korvalen::scene
