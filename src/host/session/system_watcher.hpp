// The session half of the system's condition, watched without polling: power from UPower on
// the system bus (on battery; low-power mode from power-profiles-daemon), falling back to
// /sys/class/power_supply where UPower is absent; the session locked, remote, and the
// machine going to sleep and waking, from logind. Each change calls back once. No sd-bus
// type appears here.
//
// Thread: the event loop's.
#pragma once

#include "engine/loop/event_loop.hpp"

#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvalen::host {

struct SessionState {
  bool onBattery = false;
  bool powerSaving = false;
  bool locked = false;
  bool remote = false;
  bool suspended = false;  // between PrepareForSleep(true) and (false)
  bool operator==(const SessionState&) const = default;
};

// From /sys/class/power_supply: on battery when a mains supply is there and offline, or, with
// no mains supply listed, a battery discharges. Absent when the folder says nothing.
std::optional<bool> onBatteryFromSysfs(const std::filesystem::path& folder);

class SystemWatcher {
 public:
  // Never fails: what cannot be watched is said in `notes` and reads as "no".
  static std::unique_ptr<SystemWatcher> start(engine::EventLoop& loop, std::function<void()> changed);
  virtual ~SystemWatcher() = default;
  [[nodiscard]] virtual SessionState state() const = 0;
  // Where each fact comes from, and what could not be watched; for `status` and the log.
  [[nodiscard]] virtual std::vector<std::string> notes() const = 0;
};

}  // namespace korvalen::host
