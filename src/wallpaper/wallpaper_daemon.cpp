#include "wallpaper/wallpaper_daemon.hpp"

#include "core/app/settings_coding.hpp"
#include "core/app/settings_diff.hpp"
#include "core/desktop/monitor_identity.hpp"
#include "core/wallpaper/control_protocol.hpp"
#include "core/wallpaper/playback_controller.hpp"
#include "engine/library/web_still.hpp"
#include "engine/ping_pong_builder.hpp"
#include "engine/process.hpp"
#include "host/session/system_watcher.hpp"
#include "saver/linux/sdl_sound.hpp"
#include "wallpaper/control_server.hpp"
#include "wallpaper/monitor_session.hpp"
#include "wallpaper/web_pages.hpp"

#include <SDL.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <csignal>
#include <limits>
#include <map>
#include <set>
#include <thread>

namespace korvalen::wallpaper {

namespace {

// The display sleeping sends no event: it is read this often, and only while something plays.
constexpr std::chrono::seconds dpmsInterval{10};

// A settings edit merged into what is on disk, so an edit another program saved meanwhile
// survives. Nothing is written when the file cannot be read or nothing changed.
std::expected<void, std::string> editSettings(const std::filesystem::path& path,
                                              const std::function<KorvalenSettings(const KorvalenSettings&)>& edit) {
  const auto before = Settings::read(path);
  if (before.problem) {
    return std::unexpected(fmt::format("{}: {}; left as it is", path.string(), *before.problem));
  }
  const auto to = edit(before.settings);
  const auto now = Settings::read(path);
  if (now.problem) {
    return std::unexpected(fmt::format("{}: {}; left as it is", path.string(), *now.problem));
  }
  const auto merged = SettingsDiff::apply(now.settings, before.settings, to).sanitised();
  if (merged == now.settings && !now.missing) {
    return {};
  }
  return Settings::save(merged, path);
}

class Daemon {
 public:
  explicit Daemon(const WallpaperOptions& options) : options_(options) {}
  ~Daemon() {
    webPages_.reset();
    sessions_.clear();
    if (sdlAudio_) {
      SDL_QuitSubSystem(SDL_INIT_AUDIO);
    }
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  std::expected<void, std::string> start() {
    auto loop = engine::EventLoop::make();
    if (!loop) {
      return std::unexpected(loop.error());
    }
    loop_ = std::move(*loop);
    // Before any thread starts, so that none of them takes these signals.
    auto signals = loop_->quitOnStopSignals();
    if (!signals) {
      return std::unexpected(signals.error());
    }
    watches_ = std::move(*signals);
    const auto path = socketPath(options_.environment);
    if (!path) {
      return std::unexpected(path.error());
    }
    auto server =
        ControlServer::start(*loop_, *path, [this](const ControlRequest& request) { return answer(request); });
    if (!server) {
      if (server.error().find("is in use by pid") != std::string::npos) {
        return std::unexpected(
            fmt::format("a live wallpaper is running already ({}); stop it with "
                        "\"korvalen wallpaper stop\"",
                        server.error()));
      }
      return std::unexpected(server.error());
    }
    server_ = std::move(*server);
    auto lock = engine::PlannerLock::acquire(options_.files.settings.parent_path(), "korvalen wallpaper");
    if (!lock) {
      return std::unexpected(lock.error());
    }
    lock_.emplace(std::move(*lock));

    host::WallpaperDisplay::Events events;
    events.monitorsChanged = [this] { monitorsChanged(); };
    events.windowsChanged = [this] { later(windowsDirty_); };
    events.exposed = [this] {
      for (auto& [id, session] : sessions_) {
        session->redraw();
      }
      later(tickDue_);
    };
    events.lost = [this](const std::string& why) {
      lost_ = why;
      loop_->quit();
    };
    auto display = options_.backend == host::Backend::wayland
                       ? host::openWaylandWallpaper(*loop_, options_.layer, std::move(events))
                       : host::openX11Wallpaper(*loop_, options_.placement, std::move(events));
    if (!display) {
      return std::unexpected(display.error());
    }
    display_ = std::move(*display);
    display_->onReady([this](const std::string&) { later(tickDue_); });
    if (auto program = engine::findWebView(options_.environment("PATH").value_or("/usr/bin:/bin"))) {
      webPages_ = std::make_unique<WebPages>(
          *loop_, *program, [this](const std::string& line) { say(line); },
          [this](const std::string& monitor) { repaintSoon(monitor); });
    }

    if (SDL_InitSubSystem(SDL_INIT_AUDIO) == 0) {
      sdlAudio_ = true;
      sound_ = host::makeSdlSound();
    }
    system_ = host::SystemWatcher::start(*loop_, [this] { later(evaluateDue_); });
    for (const auto& note : system_->notes()) {
      say(note);
    }
    makeSessions();
    readWindows();

    engine::PlannerService::Options planner{options_.files,
                                            monitorIDs(),
                                            options_.zone,
                                            options_.clock,
                                            [this](const std::string& line) { say(line); },
                                            [this](const engine::PlannerRun& run) { planned(run); }};
    auto service = engine::PlannerService::start(*loop_, std::move(planner));
    if (!service) {
      return std::unexpected(service.error());
    }
    planner_ = std::move(*service);
    if (options_.seconds) {
      auto timer = loop_->after(std::chrono::milliseconds(static_cast<std::int64_t>(*options_.seconds * 1000)),
                                [this] { loop_->quit(); });
      if (timer) {
        watches_.push_back(std::move(*timer));
      }
    }
    say(fmt::format("playing on {} monitor(s) as {}; control at {}", sessions_.size(),
                    host::toString(display_->placement()), path->string()));
    return {};
  }

  std::expected<void, std::string> run() {
    loop_->run();
    if (lost_) {
      return std::unexpected(*lost_);
    }
    say("stopped");
    return {};
  }

 private:
  void say(const std::string& line) const {
    if (options_.log) {
      options_.log(line);
    }
  }

  [[nodiscard]] double now() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  }

  // Several causes in one turn of the loop become one piece of work.
  void later(bool& flag) {
    if (flag) {
      return;
    }
    flag = true;
    loop_->post([this] { work(); });
  }

  void work() {
    if (windowsDirty_) {
      windowsDirty_ = false;
      readWindows();
      evaluateDue_ = true;
    }
    if (evaluateDue_) {
      evaluateDue_ = false;
      evaluate();
    }
    tickDue_ = false;
    tick();
  }

  [[nodiscard]] std::vector<std::string> monitorIDs() const {
    std::vector<std::string> ids;
    for (const auto& monitor : display_->monitors()) {
      ids.push_back(monitor.id);
    }
    return ids;
  }

  void makeSessions() {
    std::map<std::string, std::unique_ptr<MonitorSession>> next;
    for (const auto& monitor : display_->monitors()) {
      auto found = sessions_.find(monitor.id);
      if (found != sessions_.end()) {
        if (found->second->monitor() != monitor) {
          found->second->setMonitor(monitor);
        }
        next.emplace(monitor.id, std::move(found->second));
      } else {
        next.emplace(monitor.id, std::make_unique<MonitorSession>(
                                     monitor, sound_, options_.environment,
                                     [this] { loop_->post([this] { later(tickDue_); }); }, true, feeds_));
        say(fmt::format("monitor {} at {}x{}+{}+{}", monitor.id, monitor.width, monitor.height, monitor.x, monitor.y));
      }
    }
    for (const auto& [id, session] : sessions_) {
      if (session && !next.contains(id)) {
        say(fmt::format("monitor {} is gone", id));
      }
    }
    sessions_ = std::move(next);
    // A frame may be due before the next evaluation: no copying to or from a monitor gone.
    std::erase_if(leaders_, [&](const auto& pair) {
      return !sessions_.contains(pair.first) || !sessions_.contains(pair.second);
    });
  }

  void monitorsChanged() {
    makeSessions();
    readWindows();
    if (planner_) {
      planner_->setMonitors(monitorIDs());  // plans, which re-evaluates
    }
    later(evaluateDue_);
  }

  void readWindows() { windows_ = display_->windows(); }

  void planned(const engine::PlannerRun& run) {
    run_ = run;
    // A monitor whose item changed is no longer known to flash.
    for (auto it = flashing_.begin(); it != flashing_.end();) {
      const auto answer = answerFor(it->first);
      it = answer.itemID != it->second ? flashing_.erase(it) : std::next(it);
    }
    later(evaluateDue_);
  }

  [[nodiscard]] MonitorAnswer answerFor(const std::string& id) const {
    if (!run_) {
      return {};
    }
    for (const auto& answer : run_->answer.monitors) {
      if (answer.monitorId == id) {
        return answer;
      }
    }
    return run_->answer.shared;
  }

  // The item's forwards-and-backwards copy when it asks for one and it is built; otherwise
  // the build starts in the background (once) and the original plays meanwhile.
  std::optional<std::filesystem::path> pingPongFor(const LibraryItem& item) {
    if (!item.pingPongEnabled || item.kind != WallpaperKind::video || !run_ || !run_->library) {
      return std::nullopt;
    }
    engine::PingPongBuilder::Request request;
    request.source = run_->library->pathOf(item);
    request.sha256 = item.sha256;
    request.trimStart = item.trimStart.value_or(0);
    request.trimEnd = item.trimEnd.value_or(std::numeric_limits<double>::infinity());
    request.cacheRoot = options_.files.settings.parent_path();
    if (auto usable = engine::PingPongBuilder::findUsable(request.cacheRoot, request.source, request.sha256,
                                                          request.trimStart, request.trimEnd)) {
      return usable;
    }
    if (builds_.contains(item.id) || unbuildable_.contains(item.id)) {
      return std::nullopt;
    }
    const auto ffmpeg = engine::findExecutable("ffmpeg", options_.environment("PATH").value_or("/usr/bin:/bin"));
    if (!ffmpeg) {
      unbuildable_.insert(item.id);
      say(fmt::format("item {} asks for a ping-pong copy, but ffmpeg is not on PATH: it plays as it is", item.id));
      return std::nullopt;
    }
    request.ffmpeg = *ffmpeg;
    say(fmt::format("item {}: building its ping-pong copy; the clip plays as it is meanwhile", item.id));
    builds_.emplace(item.id, std::jthread([this, request, id = item.id](const std::stop_token& stop) {
                      auto built = engine::PingPongBuilder::build(request, stop);
                      if (stop.stop_requested()) {
                        return;
                      }
                      loop_->post([this, id, built = std::move(built)] {
                        builds_.erase(id);
                        if (!built.output) {
                          unbuildable_.insert(id);
                          say(fmt::format("item {}: no ping-pong copy ({}); it plays as it is", id,
                                          built.problem.value_or("the build failed")));
                          return;
                        }
                        say(fmt::format("item {}: ping-pong copy built, {}", id, built.output->filename().string()));
                        later(evaluateDue_);
                      });
                    }));
    return std::nullopt;
  }

  [[nodiscard]] std::optional<Look> lookFor(const MonitorDirective& directive) {
    if (!run_ || !directive.itemID) {
      return std::nullopt;
    }
    const auto& plan = run_->plan;
    const auto found = plan.screens.find(directive.monitorId);
    const auto& content = found != plan.screens.end() ? std::optional(found->second) : plan.shared;
    if (!content) {
      return std::nullopt;
    }
    Look look{*directive.itemID, *content, plan};
    if (const auto* item = run_->library ? run_->library->find(*directive.itemID) : nullptr) {
      if (const auto copy = pingPongFor(*item)) {
        // The copy is the trimmed stretch there and back: played whole.
        look.content.path = copy->string();
        look.content.trimStart = 0;
        look.content.trimEnd = 0;
      }
    }
    // What the other screens show is not this monitor's business.
    look.plan.screens.clear();
    look.plan.shared.reset();
    look.plan.chosen.reset();
    look.plan.written = Date{};
    look.plan.sound = false;
    return look;
  }

  void evaluate() {
    if (!run_) {
      return;
    }
    const auto session = system_->state();
    SystemState system;
    system.onBattery = session.onBattery;
    system.powerSaving = session.powerSaving;
    system.locked = session.locked;
    system.remoteSession = session.remote;
    system.suspended = session.suspended;
    system.displayOff = displayOff_;
    std::vector<MonitorInfo> infos;
    for (const auto& m : display_->monitors()) {
      if (sessions_.contains(m.id)) {
        infos.push_back(MonitorInfo{m.id, m.x, m.y, m.width, m.height});
      }
    }
    const auto activity =
        windows_ ? ActivityClassifier::classify(infos, windows_->windows, false) : std::vector<MonitorActivity>{};
    ControllerInput input{run_->settings, *run_->library, run_->answer, system, {}};
    for (std::size_t i = 0; i < infos.size(); ++i) {
      MonitorFacts facts;
      facts.activity = i < activity.size() ? activity[i] : MonitorActivity{infos[i].deviceName};
      if (windows_) {
        if (const auto covered = windows_->coveredBy.find(infos[i].deviceName); covered != windows_->coveredBy.end()) {
          facts.coveredBy = covered->second;
        }
      }
      facts.flashing = flashing_.contains(infos[i].deviceName);
      input.monitors.push_back(std::move(facts));
    }
    directives_ = PlaybackController::decide(input);
    const double t = now();
    std::vector<std::string> runningIncoming;
    std::int64_t live = 0;
    for (const auto& [id, s] : sessions_) {
      live += s->decoders();
    }
    bool anyRunning = false;
    // A monitor of the same size showing the same item, both running, copies the first one's
    // frames instead of decoding the item a second time.
    leaders_.clear();
    std::vector<std::pair<const MonitorDirective*, std::optional<Look>>> shown;
    for (const auto& directive : directives_.monitors) {
      auto& target = *sessions_.at(directive.monitorId);
      const auto look = lookFor(directive);
      if (look && directive.mode == PlaybackMode::running && !target.handingOver()) {
        const auto& mine = target.monitor();
        const auto leader = std::find_if(shown.begin(), shown.end(), [&](const auto& earlier) {
          const auto& theirs = sessions_.at(earlier.first->monitorId)->monitor();
          return earlier.first->mode == PlaybackMode::running && earlier.second == look && theirs.width == mine.width &&
                 theirs.height == mine.height && !leaders_.contains(earlier.first->monitorId);
        });
        if (leader != shown.end() && sessions_.at(leader->first->monitorId)->itemID() == look->itemID) {
          if (!target.mirroring()) {
            say(fmt::format("monitor {}: item {}, drawn once for it and {}", directive.monitorId, look->itemID,
                            leader->first->monitorId));
          }
          target.mirror(*look);
          leaders_[directive.monitorId] = leader->first->monitorId;
          anyRunning = true;
          reportState(directive);
          shown.emplace_back(&directive, look);
          continue;
        }
      }
      shown.emplace_back(&directive, look);
      std::optional<PlaybackController::Handover> handover;
      if (look && target.itemID() && target.itemID() != look->itemID) {
        const auto* incoming = run_->library->find(look->itemID);
        const auto* outgoing = run_->library->find(*target.itemID());
        PlaybackController::HandoverInput choice{
            run_->settings.transitions,
            incoming != nullptr ? incoming->transitionID : std::nullopt,
            outgoing != nullptr ? outgoing->transitionID : std::nullopt,
            system.reducedMotion,
            look->content.kind == WallpaperKind::video,
            false,
            live,
            static_cast<std::int64_t>(sessions_.size()) +
                std::max<std::int64_t>(run_->settings.transitions.maxConcurrent, 1),
            runningIncoming,
            look->itemID};
        handover = PlaybackController::chooseHandover(choice);
        if (handover) {
          runningIncoming.push_back(look->itemID);
          if (handover->note) {
            say(*handover->note);
          }
        }
      }
      const auto before = target.itemID();
      target.show(look, handover, t);
      target.setMode(directive.mode, directive.soundLevel, directives_.rate, t);
      if (before != target.itemID()) {
        say(fmt::format("monitor {}: {}{}", directive.monitorId,
                        target.itemID() ? fmt::format("item {}", *target.itemID()) : std::string("nothing"),
                        handover ? fmt::format(" through {}", handover->effect.id) : std::string()));
      }
      reportState(directive);
      anyRunning = anyRunning || directive.mode == PlaybackMode::running;
    }
    showPages();
    rememberLast();
    watchDisplaySleep(anyRunning);
    later(tickDue_);
  }

  // A page's window is gone from over the monitor's own picture. The server may not have
  // taken it away yet when its process has ended: shown again a moment later.
  void repaintSoon(const std::string& monitor) {
    auto timer = loop_->after(std::chrono::milliseconds(150), [this, monitor] {
      display_->repaint(monitor);
      repaints_.erase(monitor);
    });
    if (timer) {
      repaints_[monitor] = std::move(*timer);
    }
  }

  // A monitor showing a web wallpaper gets its page over the still its session draws.
  void showPages() {
    std::set<std::string> monitors;
    for (const auto& directive : directives_.monitors) {
      monitors.insert(directive.monitorId);
      const auto request = pageFor(directive);
      if (!webPages_) {
        if (request && !saidNoWebView_) {
          saidNoWebView_ = true;
          say("web wallpapers show their still: korvalen-web is not installed beside korvalen or on PATH");
        }
        continue;
      }
      webPages_->show(directive.monitorId, request,
                      WebPageState{directive.mode == PlaybackMode::running,
                                   directive.muted || directive.soundLevel <= 0, directives_.fpsCap});
    }
    if (webPages_) {
      webPages_->keepOnly(monitors);
    }
  }

  [[nodiscard]] std::optional<WebPageRequest> pageFor(const MonitorDirective& directive) const {
    if (!run_ || !run_->library || !directive.itemID || directive.mode == PlaybackMode::stopped) {
      return std::nullopt;
    }
    const auto* item = run_->library->find(*directive.itemID);
    const auto session = sessions_.find(directive.monitorId);
    if (item == nullptr || item->kind != WallpaperKind::web || session == sessions_.end()) {
      return std::nullopt;
    }
    const auto page = run_->library->pathOf(*item);
    const auto& monitor = session->second->monitor();
    WebPageRequest request;
    request.source = engine::WebPageSource::of(*item, page);
    request.storage = options_.files.settings.parent_path() / "web-storage" / item->id;
    request.window = display_->windowOf(directive.monitorId);
    request.overBackground =
        options_.backend == host::Backend::wayland && options_.layer == host::Placement::background;
    request.x = monitor.x;
    request.y = monitor.y;
    request.width = monitor.width;
    request.height = monitor.height;
    return request;
  }

  void reportState(const MonitorDirective& directive) {
    const auto state = fmt::format("{}{}", toString(directive.mode),
                                   directive.reason ? fmt::format(" ({})", *directive.reason) : std::string());
    if (reported_[directive.monitorId] != state) {
      reported_[directive.monitorId] = state;
      say(fmt::format("monitor {}: {}", directive.monitorId, state));
    }
  }

  // What shows on the first monitor, kept as the last wallpaper so a restart starts there.
  void rememberLast() {
    if (directives_.monitors.empty() || !run_) {
      return;
    }
    const auto& first = directives_.monitors.front();
    const auto* item = first.itemID ? run_->library->find(*first.itemID) : nullptr;
    const auto last = run_->settings.lastWallpaper.value_or(LastWallpaper{});
    if (item == nullptr || last.itemID == item->id) {
      return;
    }
    const auto content = run_->library->contentOf(*item);
    auto edited = editSettings(options_.files.settings, [&](const KorvalenSettings& from) {
      auto to = from;
      auto next = from.lastWallpaper.value_or(LastWallpaper{});
      next.kind = item->kind;
      next.path = run_->library->pathOf(*item).string();
      next.fit = content.fit;
      next.mirrorHorizontal = content.mirrorHorizontal;
      next.mirrorVertical = content.mirrorVertical;
      next.itemID = item->id;
      to.lastWallpaper = next;
      return to;
    });
    if (!edited) {
      say(fmt::format("the last wallpaper cannot be remembered: {}", edited.error()));
    }
  }

  void watchDisplaySleep(bool anyRunning) {
    if (!anyRunning) {
      dpms_.reset();
      return;
    }
    if (dpms_) {
      return;
    }
    auto timer = loop_->after(dpmsInterval, [this] {
      dpms_.reset();
      const bool asleep = display_->displayAsleep().value_or(false);
      if (asleep != displayOff_) {
        displayOff_ = asleep;
        later(evaluateDue_);
      } else {
        watchDisplaySleep(std::any_of(directives_.monitors.begin(), directives_.monitors.end(),
                                      [](const MonitorDirective& d) { return d.mode == PlaybackMode::running; }));
      }
    });
    if (timer) {
      dpms_ = std::move(*timer);
    }
  }

  // Draws what is due and sleeps until the next frame any monitor needs.
  void tick() {
    frame_.reset();
    const double t = now();
    double next = MonitorSession::never;
    const auto cap = directives_.fpsCap;
    for (auto& [id, session] : sessions_) {
      MonitorSession::Drawn copies;
      for (const auto& [follower, leader] : leaders_) {
        if (leader == id) {
          copies = [this, t, leaderID = id] {
            for (const auto& [other, whose] : leaders_) {
              if (const auto found = sessions_.find(other); whose == leaderID && found != sessions_.end()) {
                found->second->copy(leaderID, t, *display_);
              }
            }
          };
          break;
        }
      }
      next = std::min(next, session->frame(t, *display_, cap, copies));
      if (const auto peak = session->takeFlashTrip()) {
        flashed(id, *peak);
      }
    }
    if (next == MonitorSession::never) {
      return;
    }
    const auto delay = std::chrono::nanoseconds(static_cast<std::int64_t>(std::max(next - now(), 0.001) * 1e9));
    auto timer = loop_->after(delay, [this] { tick(); });
    if (timer) {
      frame_ = std::move(*timer);
    }
  }

  void flashed(const std::string& monitorId, std::int64_t peak) {
    if (!run_) {
      return;
    }
    const auto answer = answerFor(monitorId);
    const auto decision = PlaybackController::flashResponse(run_->settings.accessibility, answer);
    say(fmt::format("monitor {}: item {} flashes ({} flashes/s at the peak): {}", monitorId,
                    answer.itemID.value_or("?"), peak, decision.explanation));
    if (const auto* item = answer.itemID ? run_->library->find(*answer.itemID) : nullptr) {
      const auto path = run_->library->pathOf(*item).string();
      const auto when = options_.clock();
      auto edited = editSettings(options_.files.settings, [&](const KorvalenSettings& from) {
        auto to = from;
        to.flashingPaths =
            FlashingPaths::remember(from.flashingPaths, path, when, peak, FlashingPaths::rememberedCount);
        return to;
      });
      if (!edited) {
        say(fmt::format("{} flashes, but the settings could not remember it: {}", path, edited.error()));
      }
    }
    if (decision.outcome == FlashOutcome::skipToNext) {
      if (auto skipped = planner_->next(monitorId); !skipped) {
        say(skipped.error());
      }
      return;
    }
    flashing_[monitorId] = answer.itemID;
    later(evaluateDue_);
  }

  std::vector<std::string> targets(const ControlRequest& request, std::string& problem) const {
    std::vector<std::string> ids;
    if (!request.monitor) {
      for (const auto& [id, s] : sessions_) {
        ids.push_back(id);
      }
      return ids;
    }
    if (!sessions_.contains(*request.monitor)) {
      problem = fmt::format("no monitor {}; the monitors are {}", *request.monitor, fmt::join(monitorIDs(), ", "));
      return {};
    }
    return {*request.monitor};
  }

  ControlReply answer(const ControlRequest& request) {
    switch (request.command) {
      case Command::status:
        return status();
      case Command::pause:
      case Command::resume: {
        std::string problem;
        const auto ids = targets(request, problem);
        if (!problem.empty()) {
          return {false, problem, {}};
        }
        const bool pause = request.command == Command::pause;
        auto edited = editSettings(options_.files.settings, [&](const KorvalenSettings& from) {
          auto to = from;
          for (const auto& id : ids) {
            auto assignment = MonitorAssignments::effectiveFor(from.monitorWallpapers, monitorIDs(), id)
                                  .value_or(MonitorAssignment{});
            assignment.paused = pause;
            to.monitorWallpapers = MonitorAssignments::with(to.monitorWallpapers, id, assignment);
          }
          return to;
        });
        if (!edited) {
          return {false, edited.error(), {}};
        }
        planner_->replan();
        return {true, fmt::format("{} {}", pause ? "paused" : "resumed", fmt::join(ids, ", ")), {}};
      }
      case Command::next: {
        std::string problem;
        const auto ids = targets(request, problem);
        if (!problem.empty()) {
          return {false, problem, {}};
        }
        std::vector<std::string> moved;
        std::vector<std::string> problems;
        for (const auto& id : ids) {
          if (auto skipped = planner_->next(id); skipped) {
            moved.push_back(id);
          } else {
            problems.push_back(skipped.error());
          }
        }
        if (moved.empty()) {
          return {false, fmt::format("{}", fmt::join(problems, "; ")), {}};
        }
        return {true, fmt::format("next item on {}", fmt::join(moved, ", ")), {}};
      }
      case Command::reload:
        if (webPages_) {
          webPages_->retry();
        }
        planner_->replan();
        readWindows();
        later(evaluateDue_);
        return {true, "reloaded the settings and the library", {}};
      case Command::stop:
        loop_->quit();
        return {true, "stopping", {}};
    }
    return {false, "unknown command", {}};
  }

  ControlReply status() const {
    ControlReply reply{
        true, fmt::format("{} monitor(s) as {}", sessions_.size(), host::toString(display_->placement())), {}};
    const double t = now();
    for (const auto& directive : directives_.monitors) {
      const auto found = sessions_.find(directive.monitorId);
      if (found == sessions_.end()) {
        continue;
      }
      MonitorStatus entry{directive.monitorId,
                          found->second->mode(),
                          directive.muted || directive.soundLevel <= 0,
                          directive.reason,
                          found->second->itemID(),
                          directive.userPaused,
                          found->second->framesPerSecond(t)};
      reply.monitors.push_back(std::move(entry));
    }
    if (!windows_) {
      reply.message += options_.backend == host::Backend::wayland
                           ? "; full-screen pausing is unavailable: the compositor offers no window list "
                             "(foreign-toplevel)"
                           : "; the window manager keeps no window list, so windows pause nothing";
    }
    return reply;
  }

  const WallpaperOptions& options_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  std::unique_ptr<engine::EventLoop> loop_;
  std::vector<std::unique_ptr<engine::EventLoop::Watch>> watches_;
  std::unique_ptr<ControlServer> server_;
  std::optional<engine::PlannerLock> lock_;
  std::unique_ptr<host::WallpaperDisplay> display_;
  std::unique_ptr<host::SystemWatcher> system_;
  std::unique_ptr<engine::PlannerService> planner_;
  std::unique_ptr<WebPages> webPages_;  // absent when korvalen-web is not installed
  std::map<std::string, std::unique_ptr<engine::EventLoop::Watch>> repaints_;
  bool saidNoWebView_ = false;
  std::shared_ptr<engine::SoundOutput> sound_;
  std::optional<std::string> lost_;  // the display server went away
  // Monitors of different sizes showing the same video decode it once.
  std::shared_ptr<engine::VideoFeeds> feeds_ = std::make_shared<engine::VideoFeeds>();
  bool sdlAudio_ = false;
  std::map<std::string, std::unique_ptr<MonitorSession>> sessions_;
  std::optional<host::DesktopWindows> windows_;
  std::optional<engine::PlannerRun> run_;
  Directives directives_;
  std::map<std::string, std::optional<std::string>> flashing_;  // monitor -> the item that flashed
  std::map<std::string, std::string> reported_;
  std::map<std::string, std::string> leaders_;  // a mirroring monitor -> the one that draws for it
  bool displayOff_ = false;
  bool windowsDirty_ = false;
  bool evaluateDue_ = false;
  bool tickDue_ = false;
  std::unique_ptr<engine::EventLoop::Watch> frame_;
  std::unique_ptr<engine::EventLoop::Watch> dpms_;
  std::set<std::string> unbuildable_;  // items whose ping-pong copy cannot be had
  // Last: stopped and joined before anything a build posts to is gone.
  std::map<std::string, std::jthread> builds_;
};

}  // namespace

std::expected<void, std::string> runWallpaper(const WallpaperOptions& options) {
  Daemon daemon(options);
  if (auto started = daemon.start(); !started) {
    return started;
  }
  return daemon.run();
}

}  // namespace korvalen::wallpaper
