#include "core/library/playlist.hpp"

#include <algorithm>
#include <cmath>

namespace korvalen::json {
namespace {

std::int64_t intervalFrom(const Json& json) {
  if (const auto found = json.find("intervalMinutes"); found != json.end()) {
    if (auto whole = decode<std::int64_t>(*found)) {
      return *whole;
    }
    if (found->is_number_float()) {
      const double value = found->get<double>();
      if (std::isfinite(value)) {
        // Clamped into range first: a float beyond the integer range has no nearer whole value.
        const double rounded = std::round(std::clamp(value, -9.2e18, 9.2e18));
        return std::max<std::int64_t>(static_cast<std::int64_t>(rounded), 1);
      }
    }
  }
  return 30;
}

}  // namespace

Json Coding<Playlist>::encode(const Playlist& playlist, const Options& options) {
  return ObjectWriter(options)
      .put("name", playlist.name)
      .put("itemIDs", playlist.itemIDs)
      .put("intervalMinutes", playlist.intervalMinutes)
      .put("shuffle", playlist.shuffle)
      .put("schedule", playlist.schedule)
      .take();
}

Result<Playlist> Coding<Playlist>::decode(const Json& json, const Options& options) {
  ObjectReader in(json, options);
  Playlist playlist;
  in.required("name", playlist.name);
  in.defaulted("itemIDs", playlist.itemIDs);
  in.lenient("shuffle", playlist.shuffle);
  in.defaulted("schedule", playlist.schedule);
  if (in.isObject()) {
    playlist.intervalMinutes = intervalFrom(json);
  }
  return in.finishWith(std::move(playlist));
}

Json Coding<PlaylistState>::encode(const PlaylistState& state, const Options& options) {
  ObjectWriter out(options);
  out.putIfPresent("currentID", state.currentID)
      .put("changedAt", state.changedAt)
      .put("position", state.position)
      .put("order", state.order);
  return out.take();
}

}  // namespace korvalen::json
