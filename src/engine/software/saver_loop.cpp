#include "engine/software/saver_loop.hpp"

#include <algorithm>

namespace korvalen::engine {
namespace {

class SoftwareTimer final : public scene::Timer {
 public:
  explicit SoftwareTimer(std::shared_ptr<bool> alive) : alive_(std::move(alive)) {}
  ~SoftwareTimer() override { *alive_ = false; }
  SoftwareTimer(const SoftwareTimer&) = delete;
  SoftwareTimer& operator=(const SoftwareTimer&) = delete;
  void invalidate() override { *alive_ = false; }

 private:
  std::shared_ptr<bool> alive_;
};

}  // namespace

std::unique_ptr<scene::Timer> SaverLoop::scheduleRepeating(double seconds, std::function<void()> tick) {
  auto alive = std::make_shared<bool>(true);
  entries_.push_back(Entry{seconds, now_ + seconds, std::move(tick), alive});
  return std::make_unique<SoftwareTimer>(alive);
}

void SaverLoop::beginWork() {
  std::lock_guard lock(mutex_);
  ++working_;
}

void SaverLoop::finishWork(std::function<void()> task) {
  // Notified under the lock: the moment it is released, the loop may run the task and be
  // destroyed, so the calling thread must not touch it afterwards.
  std::lock_guard lock(mutex_);
  posted_.push_back(std::move(task));
  --working_;
  changed_.notify_all();
  if (waker_) {
    waker_();
  }
}

bool SaverLoop::loading() {
  std::lock_guard lock(mutex_);
  return working_ > 0 || !posted_.empty();
}

void SaverLoop::wakeBy(double time) {
  wake_ = std::min(wake_, time);
}

double SaverLoop::nextWake() {
  double next = wake_;
  wake_ = std::numeric_limits<double>::infinity();
  for (const auto& entry : entries_) {
    if (*entry.alive) {
      next = std::min(next, entry.due);
    }
  }
  return next;
}

void SaverLoop::runPosted(std::unique_lock<std::mutex>& lock) {
  // Headless, loads finish "at once" on this clock: wait for them rather than let the wall
  // clock decide. Live, they land when they land.
  while (true) {
    changed_.wait(lock, [&] { return live_ || working_ == 0 || !posted_.empty(); });
    if (posted_.empty()) {
      return;
    }
    auto task = std::move(posted_.front());
    posted_.pop_front();
    lock.unlock();
    task();
    lock.lock();
  }
}

void SaverLoop::runUntil(double time) {
  std::unique_lock lock(mutex_);
  runPosted(lock);
  lock.unlock();
  std::erase_if(entries_, [](const Entry& entry) { return !*entry.alive; });
  if (live_) {
    // After a stall a timer fires once, as a run-loop timer does, not once per missed tick.
    for (auto& entry : entries_) {
      if (entry.due + entry.interval < time) {
        entry.due = time;
      }
    }
  }
  while (true) {
    const Entry* next = nullptr;
    for (const auto& entry : entries_) {
      if (*entry.alive && entry.due <= time + 1e-9 && (next == nullptr || entry.due < next->due)) {
        next = &entry;
      }
    }
    if (next == nullptr) {
      break;
    }
    now_ = std::max(now_, next->due);
    const auto index = static_cast<std::size_t>(next - entries_.data());
    entries_[index].due += entries_[index].interval;
    auto tick = entries_[index].tick;  // a tick may schedule timers, which moves `entries_`
    tick();
    lock.lock();
    runPosted(lock);
    lock.unlock();
  }
  now_ = std::max(now_, time);
}

}  // namespace korvalen::engine
