#include "core/planning/playback_state.hpp"

#include "core/support/atomic_file.hpp"

#include <fmt/format.h>

namespace korvalen {

namespace json {

Json Coding<PlaylistProgress>::encode(const PlaylistProgress& value, const Options& options) {
  ObjectWriter out(options);
  out.put("playlist", value.playlist)
      .put("seed", value.seed)
      .putIfPresent("currentID", value.state.currentID)
      .put("changedAt", value.state.changedAt)
      .put("position", value.state.position)
      .put("order", value.state.order);
  return out.take();
}

Result<PlaylistProgress> Coding<PlaylistProgress>::decode(const Json& json, const Options& options) {
  ObjectReader in(json, options);
  PlaylistProgress value;
  in.required("playlist", value.playlist);
  in.defaulted("seed", value.seed);
  in.optional("currentID", value.state.currentID);
  in.required("changedAt", value.state.changedAt);
  in.required("order", value.state.order);
  // A place outside the order would index past it: such an entry is no state at all.
  in.bounded("position", value.state.position, -1, static_cast<std::int64_t>(value.state.order.size()) - 1);
  return in.finishWith(std::move(value));
}

}  // namespace json

PlaybackState::Read PlaybackState::parse(std::string_view text) {
  Read result;
  auto parsed = json::parse(text);
  if (!parsed) {
    result.dropped.push_back(fmt::format("{}: {}", fileName, parsed.error()));
    return result;
  }
  const auto found = parsed->is_object() ? parsed->find("monitors") : parsed->end();
  if (found == parsed->end() || !found->is_object()) {
    result.dropped.push_back(fmt::format("{}: monitors: missing", fileName));
    return result;
  }
  for (const auto& [monitor, entry] : found->items()) {
    auto decoded = json::decode<PlaylistProgress>(entry);
    if (!decoded) {
      result.dropped.push_back(fmt::format("{}: monitor {}: {}", fileName, monitor, decoded.error().describe()));
      continue;
    }
    result.state.monitors.emplace(monitor, std::move(*decoded));
  }
  return result;
}

PlaybackState::Read PlaybackState::read(const std::filesystem::path& path) {
  auto text = files::read(path);
  if (!text) {
    return {};
  }
  return parse(*text);
}

std::string PlaybackState::serialize() const {
  json::Json out = json::Json::object();
  out["monitors"] = json::encode(monitors);
  out["version"] = currentVersion;
  return json::pretty(out);
}

std::expected<void, std::string> PlaybackState::write(const std::filesystem::path& path) const {
  const auto coded = json::encode(monitors);
  if (const auto where = json::firstInvalidText(coded)) {
    return std::unexpected(fmt::format("could not write {}: {} is not valid UTF-8 text", path.string(), *where));
  }
  return files::writeAtomically(path, serialize());
}

}  // namespace korvalen
