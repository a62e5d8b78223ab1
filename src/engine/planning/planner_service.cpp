#include "engine/planning/planner_service.hpp"

#include "core/app/settings_coding.hpp"
#include "core/support/atomic_file.hpp"
#include "engine/library/web_still.hpp"
#include "engine/lock_file.hpp"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace korvalen::engine {

namespace fs = std::filesystem;

namespace {
constexpr std::chrono::milliseconds settleTime{100};
}

PlannerFiles PlannerFiles::defaults(const paths::Environment& environment) {
  PlannerFiles files;
  files.settings = Settings::defaultPath(environment);
  files.library = WallpaperLibrary::defaultFolder(environment);
  files.plan = SaverPlan::location(environment);
  files.state = files.settings.parent_path() / PlaybackState::fileName;
  return files;
}

namespace Planning {

namespace {

// A still picture for each web page.
std::map<std::string, std::string> stillsOf(const WallpaperLibrary& library) {
  std::map<std::string, std::string> stills;
  for (const auto& item : library.items()) {
    if (auto still = stillOf(library, item)) {
      stills.emplace(item.id, std::move(*still));
    }
  }
  return stills;
}

std::string describe(const MonitorAnswer& answer) {
  return fmt::format("{} {} ({}{})", answer.monitorId,
                     answer.itemID ? fmt::format("item {}", *answer.itemID) : std::string("nothing"),
                     toString(answer.reason), answer.held ? ", held" : "");
}

// What planning reads, read once.
struct Inputs {
  Settings::Read settings;
  WallpaperLibrary::Loaded library;
  std::optional<std::string> stateText;
  PlaybackState::Read state;
};

std::expected<Inputs, std::string> readInputs(const PlannerFiles& files) {
  auto stateText = files::read(files.state);
  Inputs in{Settings::read(files.settings),
            WallpaperLibrary::load(files.library),
            stateText ? std::optional<std::string>(std::move(*stateText)) : std::nullopt,
            {}};
  if (in.settings.problem) {
    return std::unexpected(fmt::format("{}: {}", files.settings.string(), *in.settings.problem));
  }
  if (in.library.problem) {
    return std::unexpected(*in.library.problem);
  }
  if (in.stateText) {
    in.state = PlaybackState::parse(*in.stateText);
  }
  return in;
}

}  // namespace

std::expected<PlannerRun, std::string> plan(const PlannerFiles& files, const std::vector<std::string>& monitors,
                                            Date now, const TimeZone& zone) {
  auto in = readInputs(files);
  if (!in) {
    return std::unexpected(in.error());
  }
  PlannerRun run;
  run.notes = in->library.dropped;
  run.notes.insert(run.notes.end(), in->state.dropped.begin(), in->state.dropped.end());
  const PlannerInput input{in->settings.settings, in->library.library,          monitors, now, zone,
                           in->state.state,       stillsOf(in->library.library)};
  run.answer = WallpaperPlanner::plan(input);
  run.plan = WallpaperPlanner::saverPlan(input, run.answer, now);
  run.notes.insert(run.notes.end(), run.answer.notes.begin(), run.answer.notes.end());
  run.planChanged = !run.plan.sameContent(SaverPlan::read(files.plan));
  run.stateChanged = !in->stateText || *in->stateText != run.answer.state.serialize();
  run.settings = std::move(in->settings.settings);
  run.library = std::move(in->library.library);
  return run;
}

std::expected<void, std::string> skip(const PlannerFiles& files, const std::vector<std::string>& monitors, Date now,
                                      const TimeZone& zone, const std::string& monitorId) {
  auto in = readInputs(files);
  if (!in) {
    return std::unexpected(in.error());
  }
  const PlannerInput input{in->settings.settings, in->library.library, monitors, now, zone, in->state.state, {}};
  const auto answer = WallpaperPlanner::plan(input);
  auto skipped = WallpaperPlanner::skip(input, answer, monitorId);
  if (!skipped) {
    return std::unexpected(skipped.error());
  }
  return skipped->write(files.state);
}

std::expected<void, std::string> write(const PlannerFiles& files, const PlannerRun& run) {
  if (run.planChanged) {
    if (auto written = run.plan.write(files.plan); !written) {
      return written;
    }
  }
  if (run.stateChanged) {
    return run.answer.state.write(files.state);
  }
  return {};
}

std::string summary(const PlannerRun& run) {
  std::vector<std::string> parts;
  parts.reserve(run.answer.monitors.size() + 2);
  for (const auto& answer : run.answer.monitors) {
    parts.push_back(describe(answer));
  }
  if (run.answer.monitors.size() != 1 || run.answer.monitors[0].monitorId != WallpaperPlanner::anyScreen) {
    parts.push_back(describe(run.answer.shared));
  }
  parts.push_back(run.answer.nextChange ? fmt::format("next change {}", ISO8601::plain().format(*run.answer.nextChange))
                                        : std::string("no change scheduled"));
  return fmt::format("{}", fmt::join(parts, "; "));
}

}  // namespace Planning

std::expected<PlannerLock, std::string> PlannerLock::acquire(const fs::path& folder, const std::string& owner) {
  const auto opened = openLockFile(folder / fileName);
  if (!opened) {
    return std::unexpected(opened.error());
  }
  const int descriptor = *opened;
  if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    char text[256] = {};
    const auto got = ::pread(descriptor, text, sizeof text - 1, 0);
    ::close(descriptor);
    std::string holder = got > 0 ? std::string(text, static_cast<std::size_t>(got)) : std::string("another program");
    while (!holder.empty() && (holder.back() == '\n' || holder.back() == ' ')) {
      holder.pop_back();
    }
    return std::unexpected(fmt::format("{} is planning already; only one program keeps the plan", holder));
  }
  const auto text = fmt::format("{} (pid {})\n", owner, ::getpid());
  if (::ftruncate(descriptor, 0) != 0 ||
      ::pwrite(descriptor, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    // The lock holds all the same; only the name others would read is missing.
  }
  return PlannerLock(descriptor);
}

PlannerLock::~PlannerLock() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

std::expected<std::unique_ptr<PlannerService>, std::string> PlannerService::start(EventLoop& loop, Options options) {
  std::unique_ptr<PlannerService> service(new PlannerService(loop, std::move(options)));
  auto watcher = FileWatcher::make(
      loop, [raw = service.get()](const fs::path& folder, const std::string& name) { raw->fileChanged(folder, name); });
  if (!watcher) {
    return std::unexpected(watcher.error());
  }
  service->watcher_ = std::move(*watcher);
  const auto& files = service->options_.files;
  for (const auto& folder : {files.settings.parent_path(), files.library}) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (auto watching = service->watcher_->watch(folder); !watching) {
      return std::unexpected(watching.error());
    }
  }
  service->replan();
  return service;
}

PlannerService::~PlannerService() = default;

void PlannerService::fileChanged(const fs::path& folder, const std::string& name) {
  const auto& files = options_.files;
  if (name.empty()) {
    // The folder itself went away or moved: watch it again once it is back.
    std::error_code error;
    fs::create_directories(folder, error);
    [[maybe_unused]] const auto again = watcher_->watch(folder);
    replan();
    return;
  }
  const bool settings = folder == files.settings.parent_path() && name == files.settings.filename().string();
  const bool library = folder == files.library && name == WallpaperLibrary::fileName;
  if (!settings && !library) {
    return;
  }
  // A save is several events (a rename, then the close of the renamed file), and a file
  // written in place is briefly empty: plan once the events have stopped for a moment.
  auto settle = loop_.after(settleTime, [this] {
    settle_.reset();
    replan();
  });
  if (settle) {
    settle_ = std::move(*settle);
  } else {
    replan();
  }
}

void PlannerService::replan() {
  ++plannings_;
  timer_.reset();
  const auto now = options_.clock();
  auto run = Planning::plan(options_.files, options_.monitors, now, *options_.zone);
  if (!run) {
    // Keep the plan as it was until the file can be read again; say so once per problem.
    if (lastProblem_ != run.error()) {
      options_.log(fmt::format("{}; the plan stays as it is until that is fixed", run.error()));
      lastProblem_ = run.error();
    }
    return;
  }
  lastProblem_.reset();
  if (auto written = Planning::write(options_.files, *run); !written) {
    options_.log(written.error());
  } else if (run->planChanged) {
    ++rewrites_;
    options_.log(fmt::format("plan rewritten: {}", Planning::summary(*run)));
  }
  if (const auto next = run->answer.nextChange) {
    auto timer = loop_.atWallTime(*next, [this](bool) { replan(); });
    if (timer) {
      timer_ = std::move(*timer);
    } else {
      options_.log(timer.error());
    }
  }
  if (options_.planned) {
    options_.planned(*run);
  }
}

void PlannerService::setMonitors(std::vector<std::string> monitors) {
  options_.monitors = std::move(monitors);
  replan();
}

std::expected<void, std::string> PlannerService::next(const std::string& monitorId) {
  auto skipped = Planning::skip(options_.files, options_.monitors, options_.clock(), *options_.zone, monitorId);
  if (skipped) {
    replan();
  }
  return skipped;
}

}  // namespace korvalen::engine
