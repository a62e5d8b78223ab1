// Playlists: one that decodes writes back to JSON that decodes the same, and the scheduler
// only ever picks an item the playlist has.
#include "core/library/playlist.hpp"
#include "core/library/playlist_scheduler.hpp"
#include "core/support/time_zone.hpp"
#include "fuzz.hpp"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto parsed = json::parse(fuzz::text(data, size));
  if (!parsed) {
    return 0;
  }
  const auto playlist = json::decode<Playlist>(*parsed);
  if (!playlist) {
    return 0;
  }
  const auto written = json::encode(*playlist);
  const auto again = json::decode<Playlist>(written);
  KORVALEN_FUZZ_CHECK(again.has_value());
  KORVALEN_FUZZ_CHECK(json::compact(json::encode(*again)) == json::compact(written));
  static const TimeZone* zone = findTimeZone("Europe/Berlin");
  const auto now = *ISO8601::plain().parse("2026-03-29T01:30:00Z");
  if (const auto item = PlaylistScheduler::scheduledItem(*playlist, now, playlist->itemIDs, *zone)) {
    const bool listed = std::find(playlist->itemIDs.begin(), playlist->itemIDs.end(), *item) != playlist->itemIDs.end();
    const bool scheduled = std::any_of(playlist->schedule.begin(), playlist->schedule.end(),
                                       [&](const ScheduleEntry& entry) { return entry.itemID == *item; });
    KORVALEN_FUZZ_CHECK(listed || scheduled);
  }
  return 0;
}
