#include "host/session/system_watcher.hpp"

#include "core/support/atomic_file.hpp"

#include <fmt/format.h>
#include <systemd/sd-bus.h>

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <system_error>

namespace korvalen::host {

namespace fs = std::filesystem;

namespace {

constexpr const char* upowerName = "org.freedesktop.UPower";
constexpr const char* upowerPath = "/org/freedesktop/UPower";
constexpr const char* profilesName = "net.hadess.PowerProfiles";
constexpr const char* profilesPath = "/net/hadess/PowerProfiles";
constexpr const char* logindName = "org.freedesktop.login1";
constexpr const char* logindPath = "/org/freedesktop/login1";
constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";
// Without UPower, the supplies are read again this often: the kernel's files send no events.
constexpr auto sysfsInterval = std::chrono::seconds(60);

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
    text.pop_back();
  }
  return text;
}

class BusWatcher final : public SystemWatcher {
 public:
  BusWatcher(engine::EventLoop& loop, std::function<void()> changed) : loop_(loop), changed_(std::move(changed)) {}
  ~BusWatcher() override {
    for (auto* slot : slots_) {
      sd_bus_slot_unref(slot);
    }
    if (bus_ != nullptr) {
      sd_bus_flush_close_unref(bus_);
    }
  }
  BusWatcher(const BusWatcher&) = delete;
  BusWatcher& operator=(const BusWatcher&) = delete;

  void start() {
    if (const int opened = sd_bus_open_system(&bus_); opened < 0) {
      bus_ = nullptr;
      notes_.push_back(fmt::format("no system bus ({}): power from /sys/class/power_supply, no lock or sleep events",
                                   std::generic_category().message(-opened)));
      startSysfs();
      return;
    }
    readUPower();
    if (upower_) {
      match(upowerName, upowerPath, propertiesInterface, "PropertiesChanged", &BusWatcher::onUPower);
      notes_.emplace_back("power from UPower");
    } else {
      notes_.emplace_back("UPower does not answer: power from /sys/class/power_supply");
      startSysfs();
    }
    readProfile();
    match(profilesName, profilesPath, propertiesInterface, "PropertiesChanged", &BusWatcher::onProfile);
    findSession();
    match(logindName, logindPath, "org.freedesktop.login1.Manager", "PrepareForSleep", &BusWatcher::onSleep);
    if (!session_.empty()) {
      match(logindName, session_.c_str(), propertiesInterface, "PropertiesChanged", &BusWatcher::onSession);
      readSession();
    }
    watch_ = loop_.watch(sd_bus_get_fd(bus_), POLLIN, [this](short) { drain(); });
    hook_ = loop_.beforeSleep([this] { drain(); });
  }

  [[nodiscard]] SessionState state() const override { return state_; }
  [[nodiscard]] std::vector<std::string> notes() const override { return notes_; }

 private:
  using Handler = void (BusWatcher::*)(sd_bus_message*);

  void match(const char* sender, const char* path, const char* interface, const char* member, Handler handler) {
    // The slot owns nothing of ours; the pair lives as long as the watcher, in `bound_`.
    bound_.push_back(std::make_unique<std::pair<BusWatcher*, Handler>>(this, handler));
    sd_bus_slot* slot = nullptr;
    const auto call = [](sd_bus_message* message, void* data, sd_bus_error*) -> int {
      auto* pair = static_cast<std::pair<BusWatcher*, Handler>*>(data);
      (pair->first->*(pair->second))(message);
      return 0;
    };
    if (sd_bus_match_signal(bus_, &slot, sender, path, interface, member, call, bound_.back().get()) >= 0) {
      slots_.push_back(slot);
    } else {
      notes_.push_back(fmt::format("{}.{} cannot be watched", interface, member));
    }
  }

  void drain() {
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
    sd_bus_flush(bus_);
  }

  std::optional<bool> boolProperty(const char* service, const char* path, const char* interface, const char* property) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int value = 0;
    const int got = sd_bus_get_property_trivial(bus_, service, path, interface, property, &error, 'b', &value);
    sd_bus_error_free(&error);
    return got >= 0 ? std::optional<bool>(value != 0) : std::nullopt;
  }

  void update(const SessionState& next) {
    if (next != state_) {
      state_ = next;
      if (changed_) {
        changed_();
      }
    }
  }

  void readUPower() {
    const auto battery = boolProperty(upowerName, upowerPath, upowerName, "OnBattery");
    upower_ = battery.has_value();
    if (battery) {
      auto next = state_;
      next.onBattery = *battery;
      update(next);
    }
  }
  void onUPower(sd_bus_message*) { readUPower(); }

  void readProfile() {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    char* profile = nullptr;
    const int got =
        sd_bus_get_property_string(bus_, profilesName, profilesPath, profilesName, "ActiveProfile", &error, &profile);
    sd_bus_error_free(&error);
    auto next = state_;
    next.powerSaving = got >= 0 && profile != nullptr && std::strcmp(profile, "power-saver") == 0;
    std::free(profile);  // NOLINT(cppcoreguidelines-no-malloc): sd-bus hands out malloc'd text
    update(next);
  }
  void onProfile(sd_bus_message*) { readProfile(); }

  void findSession() {
    // XDG_SESSION_ID names it; else the session logind finds for this process; else none.
    const char* id = std::getenv("XDG_SESSION_ID");  // NOLINT(concurrency-mt-unsafe): read before threads start
    if (id != nullptr && *id != '\0') {
      char* path = nullptr;
      if (sd_bus_path_encode("/org/freedesktop/login1/session", id, &path) >= 0 && path != nullptr) {
        session_ = path;
        std::free(path);  // NOLINT(cppcoreguidelines-no-malloc)
      }
      return;
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(bus_, logindName, logindPath, "org.freedesktop.login1.Manager", "GetSessionByPID", &error,
                           &reply, "u", static_cast<std::uint32_t>(::getpid())) >= 0) {
      const char* path = nullptr;
      if (sd_bus_message_read(reply, "o", &path) >= 0 && path != nullptr) {
        session_ = path;
      }
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (session_.empty()) {
      notes_.emplace_back("no logind session: the lock is not watched");
    }
  }

  void readSession() {
    const char* interface = "org.freedesktop.login1.Session";
    auto next = state_;
    next.locked = boolProperty(logindName, session_.c_str(), interface, "LockedHint").value_or(false);
    next.remote = boolProperty(logindName, session_.c_str(), interface, "Remote").value_or(false);
    update(next);
  }
  void onSession(sd_bus_message*) { readSession(); }

  void onSleep(sd_bus_message* message) {
    int going = 0;
    if (sd_bus_message_read(message, "b", &going) < 0) {
      return;
    }
    auto next = state_;
    next.suspended = going != 0;
    update(next);
    if (!going) {
      // Awake: what changed while asleep (a cable pulled, the lid) is read afresh.
      if (upower_) {
        readUPower();
      } else {
        readSysfs();
      }
      if (!session_.empty()) {
        readSession();
      }
    }
  }

  void startSysfs() {
    readSysfs();
    scheduleSysfs();
  }
  void scheduleSysfs() {
    auto timer = loop_.after(sysfsInterval, [this] {
      readSysfs();
      scheduleSysfs();
    });
    if (timer) {
      sysfsTimer_ = std::move(*timer);
    }
  }
  void readSysfs() {
    const char* folder = std::getenv("KORVALEN_POWER_SUPPLY");  // NOLINT(concurrency-mt-unsafe): tests set it first
    const auto battery = onBatteryFromSysfs(folder != nullptr ? fs::path(folder) : fs::path("/sys/class/power_supply"));
    auto next = state_;
    next.onBattery = battery.value_or(false);
    update(next);
  }

  engine::EventLoop& loop_;
  std::function<void()> changed_;
  sd_bus* bus_ = nullptr;
  bool upower_ = false;
  std::string session_;
  SessionState state_;
  std::vector<std::string> notes_;
  std::vector<sd_bus_slot*> slots_;
  std::vector<std::unique_ptr<std::pair<BusWatcher*, Handler>>> bound_;
  std::unique_ptr<engine::EventLoop::Watch> watch_;
  std::unique_ptr<engine::EventLoop::Watch> hook_;
  std::unique_ptr<engine::EventLoop::Watch> sysfsTimer_;
};

}  // namespace

std::optional<bool> onBatteryFromSysfs(const fs::path& folder) {
  std::error_code error;
  std::optional<bool> mainsOnline;
  bool discharging = false;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    const auto type = files::read(entry.path() / "type");
    if (!type) {
      continue;
    }
    const auto kind = trimmed(*type);
    if (kind == "Mains") {
      const auto online = files::read(entry.path() / "online");
      if (online) {
        mainsOnline = mainsOnline.value_or(false) || trimmed(*online) == "1";
      }
    } else if (kind == "Battery") {
      const auto status = files::read(entry.path() / "status");
      discharging = discharging || (status && trimmed(*status) == "Discharging");
    }
  }
  if (mainsOnline) {
    return !*mainsOnline;
  }
  if (discharging) {
    return true;
  }
  return std::nullopt;
}

std::unique_ptr<SystemWatcher> SystemWatcher::start(engine::EventLoop& loop, std::function<void()> changed) {
  auto watcher = std::make_unique<BusWatcher>(loop, std::move(changed));
  watcher->start();
  return watcher;
}

}  // namespace korvalen::host
