// "playback-state.json" as the planner reads it: any text reads without failing; what was
// read writes back to text that reads as the same state; and planning playlists from it
// never fails, continuing or restarting each, with a state that again reads back the same.
#include "core/planning/playback_state.hpp"
#include "core/planning/wallpaper_planner.hpp"
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto read = PlaybackState::parse(fuzz::text(data, size));
  const auto text = read.state.serialize();
  const auto again = PlaybackState::parse(text);
  KORVALEN_FUZZ_CHECK(again.dropped.empty());
  KORVALEN_FUZZ_CHECK(again.state == read.state);

  static const auto library = [] {
    auto made = WallpaperLibrary::load("/nonexistent/Library").library;
    for (const auto* id : {"1", "2", "3"}) {
      LibraryItem item;
      item.id = id;
      item.kind = WallpaperKind::video;
      item.relativePath = std::string("items/") + id + "/clip.mp4";
      item.sha256 = id;
      made.add(item);
    }
    return made;
  }();
  static const auto settings = [] {
    KorvalenSettings made;
    made.playlists.push_back(Playlist{"Mix", {"1", "2", "3", "9"}, 10, true, {}});
    made.playlists.push_back(Playlist{"Day", {"1", "2"}, 30, false, {{TimeOfDay{7, 0}, "1"}, {TimeOfDay{19, 0}, "2"}}});
    made.activePlaylist = "Mix";
    made.monitorWallpapers["a|1x1"] = MonitorAssignment{std::nullopt, "Day", false};
    return made;
  }();
  const auto* zone = findTimeZone("Europe/Berlin");
  const Date now = *ISO8601::plain().parse("2026-10-25T01:30:00Z");
  const PlannerInput input{settings, library, {"a|2x2", "b|1x1"}, now, *zone, read.state, {}};
  const auto answer = WallpaperPlanner::plan(input);
  KORVALEN_FUZZ_CHECK(answer.monitors.size() == 2);
  for (const auto& monitor : answer.monitors) {
    KORVALEN_FUZZ_CHECK(monitor.itemID.has_value());
    KORVALEN_FUZZ_CHECK(!monitor.until || *monitor.until > now);
  }
  KORVALEN_FUZZ_CHECK(PlaybackState::parse(answer.state.serialize()).state == answer.state);
  return 0;
}
