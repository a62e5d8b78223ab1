#include "wallpaper/monitor_session.hpp"

#include "core/screensaver/saver_controller.hpp"
#include "engine/software/software_saver.hpp"

#include <algorithm>
#include <cstring>

namespace korvalen::wallpaper {

namespace {

void copyInto(const engine::Picture& picture, const engine::Canvas& canvas) {
  const auto width = std::min(picture.width, canvas.width);
  const auto height = std::min(picture.height, canvas.height);
  engine::fillBlack(canvas);
  for (std::int64_t y = 0; y < height; ++y) {
    std::memcpy(canvas.row(y), picture.bgra.data() + y * picture.width * 4, static_cast<std::size_t>(width) * 4);
  }
}

engine::SoftwareScreen screenOf(const host::Monitor& monitor) {
  return engine::SoftwareScreen{
      {static_cast<double>(monitor.width), static_cast<double>(monitor.height)}, monitor.id, false, std::nullopt};
}

}  // namespace

struct MonitorSession::Player {
  Look look;
  std::unique_ptr<engine::SoftwareSaver> saver;
  std::shared_ptr<saver::SaverController> controller;
  bool stopped = false;    // cleared: no decoder, no frames
  bool withSound = false;  // loaded with its sound track
  double lag = 0;          // how far its clock is behind the program's: the time it was held
  std::optional<double> heldSince;

  [[nodiscard]] double clock(double now) const { return now - lag; }

  ~Player() {
    if (controller) {
      controller->clear();
    }
    controller.reset();  // before the engine it stands on
    saver.reset();
  }

  [[nodiscard]] bool flashes() const { return controller->flashAnalyzer().violated(); }
};

MonitorSession::MonitorSession(host::Monitor monitor, std::shared_ptr<engine::SoundOutput> sound,
                               paths::Environment environment, std::function<void()> wake, bool live,
                               std::shared_ptr<engine::VideoFeeds> feeds)
    : monitor_(std::move(monitor)),
      sound_(std::move(sound)),
      feeds_(std::move(feeds)),
      environment_(std::move(environment)),
      wake_(std::move(wake)),
      live_(live) {}

MonitorSession::~MonitorSession() {
  incoming_.reset();
  current_.reset();
}

std::unique_ptr<MonitorSession::Player> MonitorSession::makePlayer(const Look& look, double now) {
  auto player = std::make_unique<Player>();
  player->look = look;
  player->saver = std::make_unique<engine::SoftwareSaver>(screenOf(monitor_), sound_, feeds_);
  auto& loop = player->saver->loop();
  loop.setLive(live_);
  if (wake_) {
    loop.setWaker(wake_);
  }
  loop.runUntil(now);  // every player's clock on the program's one timeline
  if (mode_ != PlaybackMode::running) {
    player->heldSince = now;
  }
  player->controller = saver::SaverController::makeDecoded(player->saver->platform(environment_), monitor_.id);
  auto plan = look.plan;
  plan.sound = soundLevel_ > 0;
  plan.volume = soundLevel_;
  plan.rate = rate_;
  player->withSound = plan.sound;
  player->controller->show(look.content, plan);
  applyMode(*player);
  return player;
}

void MonitorSession::setMonitor(const host::Monitor& monitor) {
  monitor_ = monitor;
  for (auto* player : {current_.get(), incoming_.get()}) {
    if (player != nullptr) {
      player->saver->setScreen(screenOf(monitor_));
      player->controller->boundsChanged();
    }
  }
  still_.reset();
  force_ = true;
}

void MonitorSession::mirror(const Look& look) {
  if (mirrored_ == look) {
    return;
  }
  incoming_.reset();
  current_.reset();
  still_.reset();
  handover_.reset();
  mirrored_ = look;
  mode_ = PlaybackMode::running;
  flashReported_ = false;
}

void MonitorSession::copy(const std::string& source, double now, host::WallpaperDisplay& display) {
  if (!mirrored_) {
    return;
  }
  display.presentFrom(monitor_.id, source);
  lastPresent_ = now;
  shown_.push_back(now);
  while (!shown_.empty() && shown_.front() < now - 1.0) {
    shown_.pop_front();
  }
}

void MonitorSession::show(const std::optional<Look>& look, const std::optional<PlaybackController::Handover>& handover,
                          double now) {
  if (mirrored_) {
    // Its own player from here on; what it mirrored stays shown until that has a frame.
    mirrored_.reset();
    force_ = true;
    if (look) {
      current_ = makePlayer(*look, now);
    }
    return;
  }
  const Player* newest = incoming_ ? incoming_.get() : current_.get();
  if (look && newest != nullptr && newest->look == *look) {
    return;
  }
  flashReported_ = false;
  force_ = true;
  if (!look) {
    incoming_.reset();
    current_.reset();
    still_.reset();
    return;
  }
  const bool sameItem = newest != nullptr && newest->look.itemID == look->itemID;
  if (incoming_) {
    // A hand-over under way ends at once; the next starts from what it was bringing in.
    current_ = std::move(incoming_);
    handover_.reset();
  }
  if (current_ && handover && !sameItem && mode_ == PlaybackMode::running) {
    incoming_ = makePlayer(*look, now);
    handover_ = handover;
    handoverStarted_ = false;
    return;
  }
  current_.reset();  // its decoder goes before the next one opens
  current_ = makePlayer(*look, now);
  still_.reset();
}

void MonitorSession::setMode(PlaybackMode mode, double soundLevel, double rate, double now) {
  const bool soundNeedsTrack = soundLevel > 0 && current_ && !current_->withSound;
  const bool changed = mode != mode_ || soundLevel != soundLevel_ || rate != rate_;
  mode_ = mode;
  soundLevel_ = soundLevel;
  rate_ = rate;
  if (!changed) {
    return;
  }
  if (soundNeedsTrack && mode_ == PlaybackMode::running && !incoming_) {
    // Loaded silent, sound decodes nothing: load again with its track.
    const auto look = current_->look;
    current_.reset();
    current_ = makePlayer(look, now);
    force_ = true;
    return;
  }
  for (auto* player : {current_.get(), incoming_.get()}) {
    if (player == nullptr) {
      continue;
    }
    // A player's clock stands while it does not run, so a video or an animation goes on
    // from the frame it held rather than jumping by the time it was held.
    if (mode_ != PlaybackMode::running && !player->heldSince) {
      player->heldSince = now;
    } else if (mode_ == PlaybackMode::running && player->heldSince) {
      player->lag += now - *player->heldSince;
      player->heldSince.reset();
    }
    applyMode(*player);
  }
  force_ = true;
}

void MonitorSession::applyMode(Player& player) {
  if (mode_ == PlaybackMode::stopped) {
    if (!player.stopped) {
      if (&player == current_.get()) {
        keepStill();
      }
      player.controller->clear();
      player.stopped = true;
    }
    return;
  }
  if (player.stopped) {
    auto plan = player.look.plan;
    plan.sound = player.withSound;
    plan.volume = soundLevel_;
    plan.rate = rate_;
    player.controller->show(player.look.content, plan);
    player.stopped = false;
  }
  const auto& video = player.controller->video();
  if (!video) {
    return;
  }
  video->setRate(rate_);
  video->setSoundLevel(&player == current_.get() ? soundLevel_ : 0);
  if (mode_ == PlaybackMode::running && !player.look.content.isHeld() && !player.flashes()) {
    video->play();
  } else {
    video->pause();
  }
}

void MonitorSession::keepStill() {
  if (!current_ || current_->stopped) {
    return;
  }
  engine::Picture still(monitor_.width, monitor_.height);
  current_->saver->draw(still);
  still_ = std::move(still);
}

bool MonitorSession::drawInto(const engine::Canvas& canvas, double now) {
  if (incoming_ && handoverStarted_ && handover_) {
    const TransitionTiming timing(handover_->seconds);
    const double elapsed = now - handoverStart_;
    if (!timing.isDone(elapsed)) {
      const auto width = canvas.width;
      const auto height = canvas.height;
      if (outgoingPicture_.width != width || outgoingPicture_.height != height) {
        outgoingPicture_ = engine::Picture(width, height);
        incomingPicture_ = engine::Picture(width, height);
      }
      current_->saver->draw(outgoingPicture_);
      incoming_->saver->draw(incomingPicture_);
      engine::composite(handover_->effect.at(timing.progress(elapsed), width, height), outgoingPicture_,
                        incomingPicture_, canvas);
      return true;
    }
    current_ = std::move(incoming_);
    handover_.reset();
    outgoingPicture_ = engine::Picture();
    incomingPicture_ = engine::Picture();
    force_ = true;
  }
  if (current_ && !current_->stopped) {
    return current_->saver->draw(canvas, !force_);
  }
  if (!force_) {
    return false;
  }
  if (still_) {
    copyInto(*still_, canvas);
  } else {
    engine::fillBlack(canvas);
  }
  return true;
}

double MonitorSession::frame(double now, host::WallpaperDisplay& display, std::int64_t fpsCap, const Drawn& drawn) {
  const double interval = 1.0 / static_cast<double>(std::max<std::int64_t>(fpsCap, 1));
  if (mirrored_) {
    return never;  // the monitor it mirrors draws for it
  }
  if (incoming_) {
    auto& loop = incoming_->saver->loop();
    loop.runUntil(incoming_->clock(now));
    if (!handoverStarted_ && !loop.loading()) {
      handoverStarted_ = true;
      handoverStart_ = now;
      applyMode(*incoming_);
    }
  }
  if (current_ && !current_->stopped) {
    auto& loop = current_->saver->loop();
    if (mode_ == PlaybackMode::running) {
      loop.runUntil(current_->clock(now));
    } else if (loop.loading() || force_) {
      // A paused monitor still shows its first frame once it is loaded, then holds it.
      loop.runUntil(loop.mediaTime());
      applyMode(*current_);
    }
  }
  const bool moving = mode_ == PlaybackMode::running || (incoming_ && handoverStarted_);
  if (!force_ && !moving) {
    return never;
  }
  if (!force_ && now < lastPresent_ + interval - 1e-4) {
    return lastPresent_ + interval;
  }
  if (current_ && !current_->stopped && current_->saver->loop().loading() && !(incoming_ && handoverStarted_)) {
    return never;  // what is shown stays until the new item has a frame; the load wakes us
  }
  const auto canvas = display.canvas(monitor_.id);
  if (!canvas) {
    return never;  // the display calls back when its picture is free again
  }
  if (canvas->width != monitor_.width || canvas->height != monitor_.height) {
    return never;  // a resize on its way
  }
  if (drawInto(*canvas, now)) {
    display.present(monitor_.id);
    if (drawn) {
      drawn();
    }
    lastPresent_ = now;
    shown_.push_back(now);
  }
  force_ = false;
  while (!shown_.empty() && shown_.front() < now - 1.0) {
    shown_.pop_front();
  }
  double next = never;
  if (incoming_ && handoverStarted_) {
    next = now + interval;
  }
  if (mode_ == PlaybackMode::running) {
    for (auto* player : {current_.get(), incoming_.get()}) {
      if (player != nullptr && !player->stopped) {
        next = std::min(next, player->saver->loop().nextWake() + player->lag);
      }
    }
  }
  return next == never ? never : std::max(next, lastPresent_ + interval);
}

std::optional<std::int64_t> MonitorSession::takeFlashTrip() {
  if (!current_ || current_->stopped || flashReported_ || !current_->flashes()) {
    return std::nullopt;
  }
  flashReported_ = true;
  return current_->controller->flashAnalyzer().peakFlashesPerSecond();
}

std::optional<std::string> MonitorSession::itemID() const {
  if (mirrored_) {
    return mirrored_->itemID;
  }
  const Player* newest = incoming_ ? incoming_.get() : current_.get();
  return newest != nullptr ? std::optional(newest->look.itemID) : std::nullopt;
}

double MonitorSession::framesPerSecond(double now) const {
  return static_cast<double>(std::count_if(shown_.begin(), shown_.end(), [&](double t) { return t >= now - 1.0; }));
}

std::int64_t MonitorSession::decoders() const {
  std::int64_t count = 0;
  for (const auto* player : {current_.get(), incoming_.get()}) {
    if (player != nullptr && !player->stopped && player->controller->video()) {
      ++count;
    }
  }
  return count;
}

}  // namespace korvalen::wallpaper
