#include "engine/loop/event_loop.hpp"

#include <fmt/format.h>

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>

namespace korvalen::engine {

namespace {

std::string systemText(int error) {
  return std::generic_category().message(error);
}

}  // namespace

std::expected<std::unique_ptr<EventLoop>, std::string> EventLoop::make() {
  const int wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wake < 0) {
    return std::unexpected(fmt::format("could not start the event loop: {}", systemText(errno)));
  }
  std::unique_ptr<EventLoop> loop(new EventLoop(wake));
  loop->add(Source{wake, POLLIN, false, 0, [raw = loop.get()](short) { raw->runPosted(); }});
  return loop;
}

EventLoop::~EventLoop() {
  for (auto& [id, source] : sources_) {
    if (source.owned) {
      ::close(source.fd);
    }
  }
  ::close(wake_);
}

EventLoop::Watch::~Watch() {
  loop_->remove(id_);
}

std::uint64_t EventLoop::add(Source source) {
  const auto id = nextID_++;
  sources_.emplace(id, std::move(source));
  return id;
}

void EventLoop::remove(std::uint64_t id) {
  hooks_.erase(id);
  const auto found = sources_.find(id);
  if (found == sources_.end()) {
    return;
  }
  if (found->second.owned) {
    ::close(found->second.fd);
  }
  if (const int signal = found->second.signal; signal != 0) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  }
  sources_.erase(found);
}

std::unique_ptr<EventLoop::Watch> EventLoop::watch(int fd, short events, std::function<void(short)> ready) {
  return std::make_unique<Watch>(*this, add(Source{fd, events, false, 0, std::move(ready)}));
}

std::expected<std::unique_ptr<EventLoop::Watch>, std::string> EventLoop::oneShot(int clock, int flags,
                                                                                 const timespec& value,
                                                                                 std::function<void(bool)> due) {
  const int fd = ::timerfd_create(clock, TFD_NONBLOCK | TFD_CLOEXEC);
  if (fd < 0) {
    return std::unexpected(fmt::format("could not make a timer: {}", systemText(errno)));
  }
  itimerspec spec{};
  spec.it_value = value;
  // Zero would disarm the timer rather than fire it at once.
  if (spec.it_value.tv_sec == 0 && spec.it_value.tv_nsec == 0) {
    spec.it_value.tv_nsec = 1;
  }
  if (::timerfd_settime(fd, flags, &spec, nullptr) != 0) {
    const int error = errno;
    ::close(fd);
    return std::unexpected(fmt::format("could not set a timer: {}", systemText(error)));
  }
  auto fired = std::make_shared<bool>(false);
  const auto id = add(Source{fd, POLLIN, true, 0, [fd, fired, due = std::move(due)](short) {
                               if (*fired) {
                                 return;
                               }
                               std::uint64_t expirations = 0;
                               const auto got = ::read(fd, &expirations, sizeof expirations);
                               if (got < 0 && errno == EAGAIN) {
                                 return;
                               }
                               *fired = true;
                               due(got < 0 && errno == ECANCELED);
                             }});
  return std::make_unique<Watch>(*this, id);
}

std::expected<std::unique_ptr<EventLoop::Watch>, std::string> EventLoop::atWallTime(Date when,
                                                                                    std::function<void(bool)> due) {
  const auto since = when.time_since_epoch();
  const auto whole = std::chrono::floor<std::chrono::seconds>(since);
  timespec value{};
  // An instant at or before the epoch is simply past.
  value.tv_sec = std::max<time_t>(static_cast<time_t>(whole.count()), 0);
  value.tv_nsec = value.tv_sec == 0 ? 0 : static_cast<long>(std::chrono::nanoseconds(since - whole).count());
  return oneShot(CLOCK_REALTIME, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, value, std::move(due));
}

std::expected<std::unique_ptr<EventLoop::Watch>, std::string> EventLoop::after(std::chrono::nanoseconds delay,
                                                                               std::function<void()> due) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(std::max(delay, std::chrono::nanoseconds(0)));
  timespec value{};
  value.tv_sec = static_cast<time_t>(whole.count());
  value.tv_nsec = static_cast<long>((std::max(delay, std::chrono::nanoseconds(0)) - whole).count());
  return oneShot(CLOCK_MONOTONIC, 0, value, [due = std::move(due)](bool) { due(); });
}

std::expected<std::vector<std::unique_ptr<EventLoop::Watch>>, std::string> EventLoop::quitOnStopSignals() {
  std::vector<std::unique_ptr<Watch>> watches;
  for (const int signal : {SIGINT, SIGTERM}) {
    auto watch = onSignal(signal, [this] { quit(); });
    if (!watch) {
      return std::unexpected(watch.error());
    }
    watches.push_back(std::move(*watch));
  }
  return watches;
}

std::expected<std::unique_ptr<EventLoop::Watch>, std::string> EventLoop::onSignal(int signal,
                                                                                  std::function<void()> handler) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  if (::pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
    return std::unexpected(fmt::format("could not block signal {}: {}", signal, systemText(errno)));
  }
  const int fd = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (fd < 0) {
    return std::unexpected(fmt::format("could not watch signal {}: {}", signal, systemText(errno)));
  }
  const auto id = add(Source{fd, POLLIN, true, signal, [fd, handler = std::move(handler)](short) {
                               signalfd_siginfo info{};
                               while (::read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
                                 handler();
                               }
                             }});
  return std::make_unique<Watch>(*this, id);
}

void EventLoop::post(std::function<void()> task) {
  {
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(task));
  }
  const std::uint64_t one = 1;
  // A full counter already means "wake up"; nothing is lost when this write fails.
  [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);
}

void EventLoop::runPosted() {
  std::uint64_t count = 0;
  [[maybe_unused]] const auto got = ::read(wake_, &count, sizeof count);
  std::vector<std::function<void()>> tasks;
  {
    const std::lock_guard lock(mutex_);
    tasks.swap(posted_);
  }
  for (auto& task : tasks) {
    task();
  }
}

std::unique_ptr<EventLoop::Watch> EventLoop::beforeSleep(std::function<void()> hook) {
  const auto id = nextID_++;
  hooks_.emplace(id, std::move(hook));
  return std::make_unique<Watch>(*this, id);
}

void EventLoop::run() {
  running_ = true;
  std::vector<pollfd> fds;
  std::vector<std::uint64_t> ids;
  while (running_) {
    for (std::uint64_t done = 0; running_;) {
      // A hook may add or remove others: go by id, in order.
      const auto next = hooks_.upper_bound(done);
      if (next == hooks_.end()) {
        break;
      }
      done = next->first;
      auto hook = next->second;
      hook();
    }
    if (!running_) {
      break;
    }
    fds.clear();
    ids.clear();
    for (const auto& [id, source] : sources_) {
      fds.push_back(pollfd{source.fd, source.events, 0});
      ids.push_back(id);
    }
    const int count = ::poll(fds.data(), fds.size(), -1);
    ++wakeups_;
    if (count < 0) {
      continue;  // EINTR: a signal not routed here (a debugger); look again
    }
    for (std::size_t i = 0; i < fds.size() && running_; ++i) {
      if (fds[i].revents == 0) {
        continue;
      }
      // A callback may have removed this source, or others, meanwhile.
      const auto found = sources_.find(ids[i]);
      if (found == sources_.end()) {
        continue;
      }
      auto callback = found->second.ready;
      callback(fds[i].revents);
    }
  }
}

}  // namespace korvalen::engine
