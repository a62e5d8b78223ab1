// Starting, checking and advancing a playlist. Stateless and deterministic: the current time,
// the time zone, the seed and what is available are all arguments, so the same inputs always
// play the same way.
#pragma once

#include "core/library/playlist.hpp"
#include "core/support/time_zone.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen {

// The SplitMix64 generator: small, fast, and the same on every platform.
struct SplitMix64 {
  std::uint64_t state = 0;
  explicit constexpr SplitMix64(std::uint64_t seed) : state(seed) {}
  constexpr std::uint64_t next() {
    state += 0x9E3779B97F4A7C15ULL;
    std::uint64_t z = state;
    z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27U)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31U);
  }
};

// FNV-1a, 64-bit, over the text's UTF-8 bytes.
constexpr std::uint64_t fnv1a64(std::string_view text) {
  std::uint64_t hash = 0xCBF29CE484222325ULL;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001B3ULL;
  }
  return hash;
}

namespace PlaylistScheduler {

// Whether an item may play now; absent means every item may.
using Availability = std::function<bool(const std::string&)>;

struct Avoided {
  PlaylistState state;
  bool foundClean = false;
};

PlaylistState start(const Playlist& playlist, Date now, std::int64_t seed, const Availability& available,
                    const TimeZone& zone);
bool isDue(const Playlist& playlist, const PlaylistState& state, Date now, const TimeZone& zone);
// The state unchanged when nothing is due.
PlaylistState advance(const Playlist& playlist, const PlaylistState& state, Date now, const TimeZone& zone);
// Like `advance`, passing over the items in `avoid` (and the one playing).
Avoided advanceAvoiding(const Playlist& playlist, const PlaylistState& state, Date now,
                        const std::set<std::string>& avoid, const TimeZone& zone);
// The latest entry started at or before now among available items; before the first start
// of the day, the day's latest entry carries over from last night.
std::optional<std::string> scheduledItem(const Playlist& playlist, Date now, const std::vector<std::string>& available,
                                         const TimeZone& zone);
// Fisher–Yates from the back driven by SplitMix64; with `avoidFirst`, a new pass never
// starts with the item that just played.
std::vector<std::string> shuffleOrder(std::vector<std::string> items, std::uint64_t seed,
                                      const std::optional<std::string>& avoidFirst);
std::uint64_t reshuffleSeed(const std::optional<std::string>& after, Date at);

}  // namespace PlaylistScheduler
}  // namespace korvalen
