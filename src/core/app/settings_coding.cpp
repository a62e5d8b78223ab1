#include "core/app/settings_coding.hpp"

#include "core/support/atomic_file.hpp"
#include "core/support/jsonc.hpp"

#include <fmt/format.h>

namespace korvalen::Settings {
namespace {

std::expected<json::Json, std::string> parseObject(std::string_view text) {
  auto parsed = json::parse(Jsonc::strip(text));
  if (!parsed) {
    return std::unexpected(parsed.error());
  }
  if (!parsed->is_object()) {
    return std::unexpected(fmt::format("the top level is {}, not an object", parsed->type_name()));
  }
  return std::move(*parsed);
}

std::size_t rawCount(const json::Json& root, const char* key, bool isList) {
  const auto found = root.find(key);
  if (found == root.end() || (isList ? !found->is_array() : !found->is_object())) {
    return 0;
  }
  return found->size();
}

}  // namespace

std::filesystem::path defaultPath(const paths::Environment& environment) {
  return paths::korvalenFolder(paths::homeFolder(environment), environment) / "settings.json";
}

std::string serialize(const KorvalenSettings& settings) {
  return json::pretty(json::encode(settings));
}

std::expected<KorvalenSettings, std::string> deserializeUnrepaired(std::string_view text) {
  auto root = parseObject(text);
  if (!root) {
    return std::unexpected(root.error());
  }
  auto settings = json::decode<KorvalenSettings>(*root);
  if (!settings) {
    return std::unexpected(settings.error().describe());
  }
  return std::move(*settings);
}

std::expected<KorvalenSettings, std::string> deserialize(std::string_view text) {
  auto settings = deserializeUnrepaired(text);
  if (!settings) {
    return settings;
  }
  return settings->sanitised();
}

std::expected<void, std::string> save(const KorvalenSettings& settings, const std::filesystem::path& path) {
  const auto coded = json::encode(settings);
  if (const auto where = json::firstInvalidText(coded)) {
    return std::unexpected(
        fmt::format("settings could not be saved ({} is not valid UTF-8 text): {}", *where, path.string()));
  }
  if (auto written = files::writeAtomically(path, json::pretty(coded)); !written) {
    return std::unexpected(fmt::format("settings could not be saved ({}): {}", written.error(), path.string()));
  }
  return {};
}

Read read(const std::filesystem::path& path) {
  std::error_code error;
  if (std::filesystem::symlink_status(path, error).type() == std::filesystem::file_type::not_found) {
    return Read{KorvalenSettings{}, std::nullopt, true, ""};
  }
  auto text = files::read(path);
  auto settings =
      text ? deserialize(*text) : std::expected<KorvalenSettings, std::string>(std::unexpected(text.error()));
  if (!settings) {
    return Read{
        KorvalenSettings{},
        fmt::format("settings file could not be read ({}); using defaults: {}", settings.error(), path.string()), false,
        ""};
  }
  return Read{std::move(*settings), std::nullopt, false, std::move(*text)};
}

Loaded load(const std::filesystem::path& path) {
  auto result = read(path);
  if (result.missing) {
    auto saved = save(result.settings, path);
    auto problem = saved ? std::nullopt : std::optional<std::string>(saved.error());
    return Loaded{std::move(result.settings), std::move(problem)};
  }
  return Loaded{std::move(result.settings), std::move(result.problem)};
}

std::vector<std::string> dropped(std::string_view text, const KorvalenSettings& read) {
  auto root = parseObject(text);
  if (!root) {
    return {};
  }
  struct Collection {
    const char* key;
    bool isList;
    std::size_t kept;
    const char* name;
  };
  const Collection collections[] = {
      {"playlists", true, read.playlists.size(), "playlist(s)"},
      {"monitorWallpapers", false, read.monitorWallpapers.size(), "screen setting(s)"},
      {"flashingPaths", true, read.flashingPaths.size(), "remembered flashing file(s)"},
  };
  std::vector<std::string> notes;
  for (const auto& collection : collections) {
    const auto raw = rawCount(*root, collection.key, collection.isList);
    if (raw > collection.kept) {
      const auto lost = raw - collection.kept;
      notes.push_back(fmt::format("{} {} in settings.json could not be read and {} left out", lost, collection.name,
                                  lost == 1 ? "was" : "were"));
    }
  }
  return notes;
}

}  // namespace korvalen::Settings
