#include "core/library/playlist_scheduler.hpp"

#include <algorithm>
#include <chrono>
#include <string_view>
#include <unordered_set>

namespace korvalen::PlaylistScheduler {
namespace {

bool intervalElapsed(const Playlist& playlist, const PlaylistState& state, Date now) {
  const double interval = static_cast<double>(std::max<std::int64_t>(playlist.intervalMinutes, 1)) * 60.0;
  const double elapsed = std::chrono::duration<double>(now - state.changedAt).count();
  return interval <= elapsed;
}

// The next pass's order, the same for every caller that ends the same pass at the same second.
std::vector<std::string> reshuffled(const PlaylistState& state, Date now) {
  return shuffleOrder(state.order, reshuffleSeed(state.currentID, now), state.currentID);
}

std::size_t index(std::int64_t position) {
  return static_cast<std::size_t>(position);
}

}  // namespace

PlaylistState start(const Playlist& playlist, Date now, std::int64_t seed, const Availability& available,
                    const TimeZone& zone) {
  std::vector<std::string> playable;
  for (const auto& id : playlist.itemIDs) {
    if (!available || available(id)) {
      playable.push_back(id);
    }
  }
  if (playable.empty()) {
    return PlaylistState{std::nullopt, now, -1, {}};
  }
  if (playlist.isScheduled()) {
    auto current = scheduledItem(playlist, now, playable, zone);
    return PlaylistState{std::move(current), now, -1, std::move(playable)};
  }
  if (playlist.shuffle) {
    playable = shuffleOrder(std::move(playable), static_cast<std::uint64_t>(seed), std::nullopt);
  }
  auto first = playable.front();
  return PlaylistState{std::move(first), now, 0, std::move(playable)};
}

std::optional<std::string> scheduledItem(const Playlist& playlist, Date now, const std::vector<std::string>& available,
                                         const TimeZone& zone) {
  if (available.empty()) {
    return std::nullopt;
  }
  const auto minute = TimeOfDay::of(now, zone).minutesSinceMidnight();
  const std::unordered_set<std::string_view> availableIDs(available.begin(), available.end());
  std::vector<const ScheduleEntry*> kept;
  for (const auto& entry : playlist.schedule) {
    if (availableIDs.contains(entry.itemID)) {
      kept.push_back(&entry);
    }
  }
  if (kept.empty()) {
    return available.front();
  }
  std::stable_sort(kept.begin(), kept.end(), [](const auto* a, const auto* b) { return a->from < b->from; });
  const ScheduleEntry* inForce = kept.back();  // carried over from last night
  for (const auto* entry : kept) {
    if (entry->from.minutesSinceMidnight() <= minute) {
      inForce = entry;
    }
  }
  return inForce->itemID;
}

bool isDue(const Playlist& playlist, const PlaylistState& state, Date now, const TimeZone& zone) {
  if (state.order.empty()) {
    return false;
  }
  if (playlist.isScheduled()) {
    return scheduledItem(playlist, now, state.order, zone) != state.currentID;
  }
  return state.order.size() > 1 && intervalElapsed(playlist, state, now);
}

PlaylistState advance(const Playlist& playlist, const PlaylistState& state, Date now, const TimeZone& zone) {
  if (!isDue(playlist, state, now, zone)) {
    return state;
  }
  PlaylistState next = state;
  next.changedAt = now;
  if (playlist.isScheduled()) {
    next.currentID = scheduledItem(playlist, now, state.order, zone);
    return next;
  }
  std::int64_t position = state.position + 1;
  if (position < 0 || index(position) >= state.order.size()) {
    if (playlist.shuffle) {
      next.order = reshuffled(state, now);
    }
    position = 0;
  }
  next.currentID = next.order[index(position)];
  next.position = position;
  return next;
}

Avoided advanceAvoiding(const Playlist& playlist, const PlaylistState& state, Date now,
                        const std::set<std::string>& avoid, const TimeZone& zone) {
  if (state.order.empty()) {
    return {state, false};
  }
  if (playlist.isScheduled()) {
    if (!isDue(playlist, state, now, zone)) {
      return {state, false};
    }
    auto next = advance(playlist, state, now, zone);
    const bool clean = !avoid.contains(next.currentID.value_or(""));
    return {std::move(next), clean};
  }
  if (state.order.size() == 1 || !intervalElapsed(playlist, state, now)) {
    return {state, false};
  }
  std::vector<std::string> working = state.order;
  std::int64_t position = state.position;
  const std::size_t steps = 2 * state.order.size();
  for (std::size_t step = 0; step < steps; ++step) {
    ++position;
    if (position < 0 || index(position) >= working.size()) {
      position = 0;
      if (playlist.shuffle) {
        working = reshuffled(state, now);
      }
    }
    const auto& candidate = working[index(position)];
    if (avoid.contains(candidate) || candidate == state.currentID) {
      continue;
    }
    PlaylistState next{candidate, now, position, std::move(working)};
    return {std::move(next), true};
  }
  return {state, false};
}

std::vector<std::string> shuffleOrder(std::vector<std::string> items, std::uint64_t seed,
                                      const std::optional<std::string>& avoidFirst) {
  if (items.size() < 2) {
    return items;
  }
  SplitMix64 generator(seed);
  for (std::size_t i = items.size() - 1; i >= 1; --i) {
    const auto j = static_cast<std::size_t>(generator.next() % (static_cast<std::uint64_t>(i) + 1));
    if (j != i) {
      std::swap(items[i], items[j]);
    }
  }
  if (avoidFirst && items.front() == *avoidFirst) {
    std::swap(items.front(), items.back());
  }
  return items;
}

std::uint64_t reshuffleSeed(const std::optional<std::string>& after, Date at) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(at).time_since_epoch().count();
  return fnv1a64(after.value_or("")) ^ static_cast<std::uint64_t>(static_cast<std::int64_t>(seconds));
}

}  // namespace korvalen::PlaylistScheduler
