// The process's one event loop: descriptors to watch, wall-clock deadlines, signals, and
// tasks posted from other threads. It sleeps in poll() until one of them has something to
// say, with no timeout of its own, so a program waiting on it costs nothing while idle.
//
// Thread: the one that calls `run`, for everything but `post`, which any thread may call.
#pragma once

#include "core/support/iso8601.hpp"

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <time.h>

namespace korvalen::engine {

class EventLoop {
 public:
  // One line when the loop's own descriptors cannot be made.
  [[nodiscard]] static std::expected<std::unique_ptr<EventLoop>, std::string> make();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Ends what it was given when destroyed; destroying it inside its own callback is fine.
  class Watch {
   public:
    Watch(EventLoop& loop, std::uint64_t id) : loop_(&loop), id_(id) {}
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

   private:
    EventLoop* loop_;
    std::uint64_t id_;
  };

  // `ready` gets poll's revents whenever `fd` has any of `events`.
  [[nodiscard]] std::unique_ptr<Watch> watch(int fd, short events, std::function<void(short revents)> ready);
  // Once, at the UTC instant `when` (at once if it has passed), or earlier with
  // `clockChanged` true when the system clock is set, since the instant then means
  // something else. A machine that slept past `when` fires as soon as it wakes.
  [[nodiscard]] std::expected<std::unique_ptr<Watch>, std::string> atWallTime(
      Date when, std::function<void(bool clockChanged)> due);
  // Once, after `delay` on the monotonic clock (which setting the system clock does not move).
  [[nodiscard]] std::expected<std::unique_ptr<Watch>, std::string> after(std::chrono::nanoseconds delay,
                                                                         std::function<void()> due);
  // The signal is blocked for the process and delivered here instead; when the watch goes it
  // is unblocked on the loop's thread again. Call before any other thread starts, so none of
  // them receives it.
  [[nodiscard]] std::expected<std::unique_ptr<Watch>, std::string> onSignal(int signal, std::function<void()> handler);
  // SIGINT and SIGTERM end `run`, as every long-running program of ours wants: the watches,
  // to keep while it runs. Same rule: before any other thread starts.
  [[nodiscard]] std::expected<std::vector<std::unique_ptr<Watch>>, std::string> quitOnStopSignals();
  // Runs before every sleep: for connections that buffer what they send (flush) or read
  // ahead of the descriptor (events already queued must be handled before poll waits).
  [[nodiscard]] std::unique_ptr<Watch> beforeSleep(std::function<void()> hook);
  // Any thread: runs `task` on the loop soon.
  void post(std::function<void()> task);

  // Until `quit`.
  void run();
  void quit() { running_ = false; }
  // How many times poll() returned: what an idle program should keep at zero.
  [[nodiscard]] std::uint64_t wakeups() const { return wakeups_; }

 private:
  EventLoop(int wake) : wake_(wake) {}
  struct Source {
    int fd = -1;
    short events = 0;
    bool owned = false;  // the loop closes it
    int signal = 0;      // blocked for this source, unblocked again when it goes
    std::function<void(short)> ready;
  };
  std::uint64_t add(Source source);
  // A one-shot timer descriptor armed with `flags` and `value`, watched until it fires.
  std::expected<std::unique_ptr<Watch>, std::string> oneShot(int clock, int flags, const timespec& value,
                                                             std::function<void(bool cancelled)> due);
  void remove(std::uint64_t id);
  void runPosted();

  int wake_ = -1;  // eventfd that `post` writes
  std::map<std::uint64_t, Source> sources_;
  std::map<std::uint64_t, std::function<void()>> hooks_;
  std::uint64_t nextID_ = 1;
  bool running_ = false;
  std::uint64_t wakeups_ = 0;
  std::mutex mutex_;
  std::vector<std::function<void()>> posted_;
};

}  // namespace korvalen::engine
