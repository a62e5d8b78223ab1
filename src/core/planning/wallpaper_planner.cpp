#include "core/planning/wallpaper_planner.hpp"

#include "core/app/sound.hpp"
#include "core/desktop/monitor_identity.hpp"
#include "core/library/playlist_scheduler.hpp"
#include "core/playback/flash_guard.hpp"
#include "core/playback/playback_policy.hpp"
#include "core/support/text.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <set>

namespace korvalen {

std::string_view toString(PlanReason reason) {
  switch (reason) {
    case PlanReason::assignment:
      return "assignment";
    case PlanReason::assignmentPlaylist:
      return "assignmentPlaylist";
    case PlanReason::activePlaylist:
      return "activePlaylist";
    case PlanReason::lastWallpaper:
      return "lastWallpaper";
    case PlanReason::missing:
      return "missing";
    case PlanReason::flashing:
      return "flashing";
    case PlanReason::nothing:
      return "nothing";
  }
  return "nothing";
}

namespace WallpaperPlanner {
namespace {

using std::chrono::seconds;

// A playlist that has fallen further behind than this (a planner off for months) jumps to
// the present instead of replaying every step it missed.
constexpr int catchUpLimit = 20000;

std::string nameOf(const LibraryItem& item, bool capital = false) {
  const auto* word = capital ? "Item" : "item";
  return item.title.empty() ? fmt::format("{} {}", word, item.id)
                            : fmt::format("{} {} \"{}\"", word, item.id, item.title);
}

// An item that can be shown: in the library, and its file not found gone.
const LibraryItem* showable(const WallpaperLibrary& library, std::string_view id) {
  const auto* item = library.find(id);
  return item != nullptr && !item->missing ? item : nullptr;
}

// The library marked it on import, or the settings remember its file as flashing.
bool knownToFlash(const PlannerInput& input, const LibraryItem& item) {
  return item.knownToFlash() ||
         FlashingPaths::find(input.settings.flashingPaths, input.library.pathOf(item).string()).has_value();
}

// With nothing to skip to, a flashing item is held unless the user lets flashing content play.
bool holdsFlashing(FlashGuardChoice choice) {
  return choice == FlashGuardChoice::pause || choice == FlashGuardChoice::skip;
}

// The text trimmed, when there is any left.
std::optional<std::string> nonBlank(const std::optional<std::string>& text) {
  if (!text) {
    return std::nullopt;
  }
  auto trimmed = text::trimWhitespaceAndNewlines(*text);
  return trimmed.empty() ? std::nullopt : std::optional<std::string>(std::move(trimmed));
}

class Planner {
 public:
  explicit Planner(const PlannerInput& input)
      : input_(input), choice_(FlashGuard::read(input.settings.accessibility.sanitised())) {}

  MonitorAnswer answer(const std::string& monitor, bool isAny) {
    MonitorAnswer out;
    out.monitorId = monitor;
    std::optional<MonitorAssignment> assignment;
    if (!isAny) {
      assignment = MonitorAssignments::effectiveFor(input_.settings.monitorWallpapers, input_.monitors, monitor);
    }
    out.paused = assignment && assignment->paused;
    passed_.clear();
    cause_.reset();

    std::optional<Resolved> resolved;
    const auto ownItem = nonBlank(assignment ? assignment->itemID : std::nullopt);
    const auto ownPlaylist = nonBlank(assignment ? assignment->playlistName : std::nullopt);
    const auto active = nonBlank(input_.settings.activePlaylist);
    if (ownItem) {
      resolved = direct(*ownItem, PlanReason::assignment, "assigned to this monitor");
    }
    if (!resolved && ownPlaylist) {
      resolved = fromPlaylist(monitor, *ownPlaylist, PlanReason::assignmentPlaylist, "This monitor's playlist");
    }
    if (!resolved && active) {
      resolved = fromPlaylist(monitor, *active, PlanReason::activePlaylist, "The active playlist");
    }
    if (!resolved) {
      resolved = lastWallpaper();
    }
    if (resolved) {
      out.itemID = resolved->itemID;
      out.reason = cause_.value_or(resolved->reason);
      out.held = resolved->held;
      out.until = resolved->until;
      passed_.emplace_back(resolved->explanation);
    } else {
      out.reason = cause_.value_or(PlanReason::nothing);
      passed_.emplace_back(isAny ? "No playlist is active and there is no last wallpaper, so nothing is shown."
                                 : "Nothing is assigned to this monitor, no playlist is active and there is no "
                                   "last wallpaper, so nothing is shown.");
    }
    out.explanation = fmt::format("{}", fmt::join(passed_, " "));
    return out;
  }

 private:
  struct Resolved {
    std::string itemID;
    PlanReason reason = PlanReason::nothing;
    std::string explanation;
    bool held = false;
    std::optional<Date> until;
  };

  // Something on the way was passed over: the first such cause names the answer.
  void passOver(PlanReason cause, std::string sentence) {
    if (!cause_) {
      cause_ = cause;
    }
    passed_.push_back(std::move(sentence));
  }

  [[nodiscard]] bool flashes(const LibraryItem& item) const { return knownToFlash(input_, item); }

  [[nodiscard]] bool flashes(const std::string& id) const {
    const auto* item = input_.library.find(id);
    return item != nullptr && flashes(*item);
  }

  // An item shown for its own sake (not from a playlist): with nothing to skip to, a
  // flashing one is held still unless the user lets flashing content play.
  std::optional<Resolved> direct(const std::string& id, PlanReason reason, std::string_view role) {
    const auto* item = showable(input_.library, id);
    if (item == nullptr) {
      const auto* gone = input_.library.find(id);
      passOver(PlanReason::missing, gone != nullptr
                                        ? fmt::format("{}, {}, has lost its file.", nameOf(*gone, true), role)
                                        : fmt::format("Item {}, {}, is not in the library.", id, role));
      return std::nullopt;
    }
    Resolved out{item->id, reason, fmt::format("{} is {}.", nameOf(*item, true), role), false, std::nullopt};
    flashOutcome(*item, false, out);
    return out;
  }

  // Applies the flash guard's choice to an item about to be shown.
  void flashOutcome(const LibraryItem& item, bool playlistRunning, Resolved& out) {
    if (!flashes(item) || choice_ == FlashGuardChoice::off) {
      return;
    }
    if (choice_ == FlashGuardChoice::warn) {
      out.explanation += fmt::format(" {}", FlashGuard::warning(true));
      return;
    }
    const auto decision = FlashResponsePlan::decide(choice_ == FlashGuardChoice::skip, playlistRunning);
    out.held = true;
    out.reason = PlanReason::flashing;
    out.explanation = fmt::format("{} is known to flash: {}.", nameOf(item, true), decision.explanation);
  }

  std::optional<Resolved> lastWallpaper() {
    const auto& last = input_.settings.lastWallpaper;
    const auto id = nonBlank(last ? last->itemID : std::nullopt);
    const auto path = nonBlank(last ? last->path : std::nullopt);
    if (!id && !path) {
      return std::nullopt;
    }
    const LibraryItem* item = id ? showable(input_.library, *id) : nullptr;
    if (item == nullptr && path) {
      for (const auto& candidate : input_.library.items()) {
        if (!candidate.missing && input_.library.pathOf(candidate) == std::filesystem::path(*path)) {
          item = &candidate;
          break;
        }
      }
    }
    if (item == nullptr) {
      passOver(PlanReason::missing,
               fmt::format("The last wallpaper ({}) is not in the library.", id ? fmt::format("item {}", *id) : *path));
      return std::nullopt;
    }
    return direct(item->id, PlanReason::lastWallpaper, "the last wallpaper shown");
  }

  // What a playlist shows at `when` from `state`: the item itself, or with the skip choice
  // the next one in the order that does not flash.
  struct Shown {
    std::optional<std::string> item;
    std::optional<std::string> skipped;  // a flashing item passed over
    bool operator==(const Shown&) const = default;
  };

  [[nodiscard]] Shown shown(const Playlist& playlist, const PlaylistState& state, Date when) const {
    Shown out{state.currentID, std::nullopt};
    if (!state.currentID || choice_ != FlashGuardChoice::skip || !flashes(*state.currentID)) {
      return out;
    }
    out.skipped = state.currentID;
    out.item.reset();
    if (playlist.isScheduled()) {
      std::vector<std::string> clean;
      std::copy_if(state.order.begin(), state.order.end(), std::back_inserter(clean),
                   [this](const std::string& id) { return !flashes(id); });
      out.item = PlaylistScheduler::scheduledItem(playlist, when, clean, input_.zone);
      return out;
    }
    const auto count = static_cast<std::int64_t>(state.order.size());
    for (std::int64_t step = 1; step < count; ++step) {
      const auto& candidate = state.order[static_cast<std::size_t>((state.position + step) % count)];
      if (!flashes(candidate)) {
        out.item = candidate;
        break;
      }
    }
    return out;
  }

  [[nodiscard]] static Date::duration intervalOf(const Playlist& playlist) {
    return std::chrono::duration_cast<Date::duration>(
        std::chrono::minutes(std::max<std::int64_t>(playlist.intervalMinutes, 1)));
  }

  // Steps an interval playlist through every step due by `now`, each at its own moment, so
  // a restarted planner lands where one left running would be.
  [[nodiscard]] PlaylistState caughtUp(const Playlist& playlist, PlaylistState state) const {
    if (state.order.size() < 2) {
      return state;
    }
    const auto interval = intervalOf(playlist);
    int steps = 0;
    while (state.changedAt + interval <= input_.now && steps < catchUpLimit) {
      state = PlaylistScheduler::advance(playlist, state, state.changedAt + interval, input_.zone);
      ++steps;
    }
    if (state.changedAt + interval <= input_.now) {
      state.changedAt += ((input_.now - state.changedAt) / interval) * interval;
    }
    return state;
  }

  // The instants at which a schedule's answer may change between `from` and three days on:
  // each entry's start on each day (both moments of a repeated hour, none of a skipped one),
  // and each change of the zone's offset, when the minute of the day jumps.
  [[nodiscard]] std::vector<Date> scheduleInstants(const Playlist& playlist, Date from) const {
    std::vector<Date> out;
    const auto& zone = input_.zone;
    const auto startSeconds = std::chrono::floor<seconds>(from);
    const auto horizon = startSeconds + std::chrono::days(3);
    const auto localNow = zone.to_local(startSeconds);
    const auto today = std::chrono::floor<std::chrono::days>(localNow);
    std::set<std::int64_t> minutes;
    for (const auto& entry : playlist.schedule) {
      minutes.insert(entry.from.minutesSinceMidnight());
    }
    for (int day = -1; day <= 3; ++day) {
      for (const auto minute : minutes) {
        const auto local =
            date::local_seconds((today + std::chrono::days(day)).time_since_epoch()) + std::chrono::minutes(minute);
        const auto info = zone.get_info(local);
        if (info.result == date::local_info::unique || info.result == date::local_info::ambiguous) {
          out.emplace_back(local.time_since_epoch() - info.first.offset);
        }
        if (info.result == date::local_info::ambiguous) {
          out.emplace_back(local.time_since_epoch() - info.second.offset);
        }
      }
    }
    auto info = zone.get_info(startSeconds);
    for (int guard = 0; guard < 16 && info.end < horizon; ++guard) {
      out.emplace_back(info.end);
      info = zone.get_info(info.end);
    }
    std::sort(out.begin(), out.end());
    std::erase_if(out, [&](Date instant) { return instant <= from; });
    return out;
  }

  // The first instant after now at which what the playlist shows is different.
  [[nodiscard]] std::optional<Date> nextChange(const Playlist& playlist, const PlaylistState& state,
                                               const Shown& current) const {
    if (playlist.isScheduled()) {
      for (const auto instant : scheduleInstants(playlist, input_.now)) {
        auto later = state;
        later.currentID = PlaylistScheduler::scheduledItem(playlist, instant, state.order, input_.zone);
        if (shown(playlist, later, instant) != current) {
          return instant;
        }
      }
      return std::nullopt;
    }
    if (state.order.size() < 2) {
      return std::nullopt;
    }
    auto later = state;
    for (std::size_t step = 0; step < 2 * state.order.size() + 2; ++step) {
      const auto due = later.changedAt + intervalOf(playlist);
      later = PlaylistScheduler::advance(playlist, later, due, input_.zone);
      if (shown(playlist, later, due) != current) {
        return due;
      }
    }
    return std::nullopt;
  }

  // Whether a saved run of this playlist can be continued: same playlist, same items.
  [[nodiscard]] static bool continues(const PlaylistProgress& saved, const Playlist& playlist,
                                      const std::vector<std::string>& playable) {
    if (saved.playlist != playlist.name || playable.empty()) {
      return false;
    }
    if (playlist.isScheduled()) {
      return saved.state.order == playable && saved.state.position == -1;
    }
    auto order = saved.state.order;
    auto items = playable;
    std::sort(order.begin(), order.end());
    std::sort(items.begin(), items.end());
    return order == items && saved.state.position >= 0 && saved.state.currentID &&
           saved.state.order[static_cast<std::size_t>(saved.state.position)] == *saved.state.currentID;
  }

  std::optional<Resolved> fromPlaylist(const std::string& monitor, const std::string& name, PlanReason reason,
                                       std::string_view role) {
    const auto& playlists = input_.settings.playlists;
    const auto found =
        std::find_if(playlists.begin(), playlists.end(), [&](const Playlist& p) { return p.name == name; });
    if (found == playlists.end()) {
      passOver(PlanReason::missing, fmt::format("{} \"{}\" is not among the playlists.", role, name));
      return std::nullopt;
    }
    const auto& playlist = *found;
    std::vector<std::string> playable;
    for (const auto& id : playlist.itemIDs) {
      if (showable(input_.library, id) != nullptr) {
        playable.push_back(id);
      }
    }
    if (playable.empty()) {
      passOver(PlanReason::missing, fmt::format("{} \"{}\" has no item that is in the library.", role, name));
      return std::nullopt;
    }

    PlaylistProgress progress;
    // The any-screen answer keeps its state under its own key; a monitor's follows it through
    // a change of size, as its assignment does.
    std::optional<PlaylistProgress> saved;
    if (monitor == anyScreen) {
      if (const auto own = input_.state.monitors.find(monitor); own != input_.state.monitors.end()) {
        saved = own->second;
      }
    } else {
      saved = MonitorIdentity::value(input_.state.monitors, input_.monitors, monitor);
    }
    if (saved && continues(*saved, playlist, playable)) {
      progress = *saved;
      // A clock set back must not hold a playlist on one item until it catches up again.
      progress.state.changedAt = std::min(progress.state.changedAt, input_.now);
    } else {
      const auto startSecond =
          static_cast<std::uint64_t>(std::chrono::floor<std::chrono::seconds>(input_.now).time_since_epoch().count());
      progress.playlist = playlist.name;
      progress.seed = static_cast<std::int64_t>(fnv1a64(monitor + "\n" + playlist.name) ^ startSecond);
      progress.state = PlaylistScheduler::start(
          playlist, input_.now, progress.seed,
          [this](const std::string& id) { return showable(input_.library, id) != nullptr; }, input_.zone);
    }
    if (playlist.isScheduled()) {
      progress.state = PlaylistScheduler::advance(playlist, progress.state, input_.now, input_.zone);
    } else {
      progress.state = caughtUp(playlist, progress.state);
    }
    renewed_[monitor] = progress;

    const auto current = shown(playlist, progress.state, input_.now);
    const auto until = nextChange(playlist, progress.state, current);
    const auto how = playlist.isScheduled() ? " by its schedule" : "";
    if (current.skipped) {
      const auto* skipped = input_.library.find(*current.skipped);
      const auto decision = FlashResponsePlan::decide(true, current.item.has_value());
      passOver(PlanReason::flashing,
               fmt::format("{} is known to flash: {}.", nameOf(*skipped, true), decision.explanation));
    }
    if (!current.item) {
      // Every item left flashes: hold the one whose turn it is.
      const auto* item = input_.library.find(current.skipped.value_or(""));
      if (item == nullptr) {
        return std::nullopt;
      }
      return Resolved{item->id, PlanReason::flashing,
                      fmt::format("{} \"{}\" shows {}{}, held still.", role, name, nameOf(*item), how), true, until};
    }
    const auto* item = input_.library.find(*current.item);
    Resolved out{item->id, reason, fmt::format("{} \"{}\" shows {}{}.", role, name, nameOf(*item), how), false, until};
    flashOutcome(*item, true, out);
    return out;
  }

 public:
  // The saved state with every monitor planned this time renewed; monitors absent now keep
  // theirs, so a playlist goes on where it was when they return.
  PlaybackState renewedState(const std::vector<std::string>& planned) const {
    PlaybackState out;
    const auto bindings = [&] {
      std::vector<std::string> keys;
      keys.reserve(input_.state.monitors.size());
      for (const auto& [key, unused] : input_.state.monitors) {
        keys.push_back(key);
      }
      return MonitorIdentity::resolve(keys, input_.monitors);
    }();
    std::set<std::string> replaced;
    for (const auto& binding : bindings) {
      if (binding.savedKey) {
        replaced.insert(*binding.savedKey);
      }
    }
    replaced.insert(std::string(anyScreen));
    for (const auto& [key, progress] : input_.state.monitors) {
      if (!replaced.contains(key)) {
        out.monitors.emplace(key, progress);
      }
    }
    for (const auto& monitor : planned) {
      if (const auto found = renewed_.find(monitor); found != renewed_.end()) {
        out.monitors[monitor] = found->second;
      }
    }
    return out;
  }

 private:
  const PlannerInput& input_;
  FlashGuardChoice choice_;
  std::map<std::string, PlaylistProgress> renewed_;
  std::vector<std::string> passed_;
  std::optional<PlanReason> cause_;
};

}  // namespace

PlannerAnswer plan(const PlannerInput& input) {
  Planner planner(input);
  PlannerAnswer out;
  const std::string any(anyScreen);
  // "*" is looked up among the present monitors' saved states by its own key only.
  out.shared = planner.answer(any, true);
  std::vector<std::string> planned{any};
  if (input.monitors.empty()) {
    out.monitors.push_back(out.shared);
  } else {
    for (const auto& monitor : input.monitors) {
      out.monitors.push_back(planner.answer(monitor, false));
      planned.push_back(monitor);
    }
  }
  for (const auto& answer : out.monitors) {
    if (answer.until && (!out.nextChange || *answer.until < *out.nextChange)) {
      out.nextChange = answer.until;
    }
  }
  if (out.shared.until && (!out.nextChange || *out.shared.until < *out.nextChange)) {
    out.nextChange = out.shared.until;
  }
  out.state = planner.renewedState(planned);
  if (const auto saverItem = nonBlank(input.settings.screensaver.itemId);
      saverItem && showable(input.library, *saverItem) == nullptr) {
    out.notes.push_back(
        fmt::format("The screensaver's item {} is not in the library; each screen shows its own.", *saverItem));
  }
  return out;
}

namespace {

std::optional<SaverContent> contentFor(const PlannerInput& input, const std::optional<std::string>& itemID,
                                       const std::string& screen, bool held) {
  if (!itemID) {
    return std::nullopt;
  }
  const auto* item = input.library.find(*itemID);
  if (item == nullptr) {
    return std::nullopt;
  }
  std::optional<std::string> still;
  if (const auto found = input.stills.find(item->id); found != input.stills.end()) {
    still = found->second;
  }
  const double sharpen = item->enhanceSharpness.value_or(input.settings.enhance.sanitised().sharpness);
  auto content = SaverContent::from(input.library.contentOf(*item), screen,
                                    item->title.empty() ? std::nullopt : std::optional<std::string>(item->title),
                                    std::isfinite(sharpen) ? sharpen : 0.0, still);
  // A monitor's own crop follows it through a change of size, as its assignment does.
  if (screen != anyScreen && !input.monitors.empty()) {
    if (auto crop = MonitorIdentity::value(item->cropByMonitor, input.monitors, screen)) {
      content.crop = crop;
    }
  }
  if (held) {
    content.held = true;
  }
  return content;
}

}  // namespace

SaverPlan saverPlan(const PlannerInput& input, const PlannerAnswer& answer, Date written) {
  SaverPlan plan;
  plan.written = written;
  const auto accessibility = input.settings.accessibility.sanitised();
  plan.sound = input.settings.screensaver.playSound;
  plan.volume = Sound::clamp(input.settings.lastWallpaper ? input.settings.lastWallpaper->volume : 1.0);
  plan.dim = accessibility.dim;
  plan.saturation = accessibility.saturation;
  plan.rate = PlaybackPolicy::evaluate(input.settings.power, accessibility, SystemState{}).playbackRate;
  plan.stopsFlashing = accessibility.flashGuard;
  if (const auto id = nonBlank(input.settings.screensaver.itemId)) {
    if (const auto* item = showable(input.library, *id)) {
      // The screensaver has nothing to skip to.
      plan.chosen = contentFor(input, *id, std::string(anyScreen),
                               knownToFlash(input, *item) && holdsFlashing(FlashGuard::read(accessibility)));
    }
  }
  for (const auto& monitor : answer.monitors) {
    if (monitor.monitorId == anyScreen) {
      continue;
    }
    if (auto content = contentFor(input, monitor.itemID, monitor.monitorId, monitor.held)) {
      plan.screens.emplace(monitor.monitorId, std::move(*content));
    }
  }
  plan.shared = contentFor(input, answer.shared.itemID, std::string(anyScreen), answer.shared.held);
  return plan;
}

}  // namespace WallpaperPlanner

}  // namespace korvalen

namespace korvalen {

std::expected<PlaybackState, std::string> WallpaperPlanner::skip(const PlannerInput& input, const PlannerAnswer& answer,
                                                                 const std::string& monitorId) {
  const auto found = std::find_if(answer.monitors.begin(), answer.monitors.end(),
                                  [&](const MonitorAnswer& a) { return a.monitorId == monitorId; });
  const MonitorAnswer& shown = found != answer.monitors.end() ? *found : answer.shared;
  if (shown.reason != PlanReason::activePlaylist && shown.reason != PlanReason::assignmentPlaylist) {
    return std::unexpected(
        fmt::format("monitor {} shows one item, not a playlist: there is no next item to go to", monitorId));
  }
  PlaybackState state = answer.state;
  const auto progress = state.monitors.find(shown.monitorId);
  const auto playlist = progress == state.monitors.end()
                            ? input.settings.playlists.end()
                            : std::find_if(input.settings.playlists.begin(), input.settings.playlists.end(),
                                           [&](const Playlist& p) { return p.name == progress->second.playlist; });
  if (playlist == input.settings.playlists.end()) {
    return std::unexpected(fmt::format("monitor {}: its playlist is not in the settings any more", monitorId));
  }
  if (playlist->isScheduled()) {
    return std::unexpected(
        fmt::format("monitor {}: playlist \"{}\" follows its schedule; its items change at the "
                    "times it gives",
                    monitorId, playlist->name));
  }
  auto& playing = progress->second.state;
  if (playing.order.size() < 2) {
    return std::unexpected(fmt::format("monitor {}: playlist \"{}\" has one item to show", monitorId, playlist->name));
  }
  // Stepped as if its interval had passed, then timed from now.
  const auto interval = std::chrono::duration_cast<Date::duration>(
      std::chrono::minutes(std::max<std::int64_t>(playlist->intervalMinutes, 1)));
  playing = PlaylistScheduler::advance(*playlist, playing, playing.changedAt + interval, input.zone);
  playing.changedAt = input.now;
  return state;
}

}  // namespace korvalen
