// `korvalen settings path|check|show|set`: the settings file as the app reads it, what its
// repairs change, and safe edits that keep what the app changed meanwhile.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/app/settings_coding.hpp"
#include "core/app/settings_diff.hpp"
#include "core/support/jsonc.hpp"

#include <fmt/format.h>

#include "core/support/numbers.hpp"

#include <ostream>

namespace korvalen::cli {
namespace {

using json::Json;

// Every key the settings can hold: the defaults with every optional present and one
// element in each list. A map's entries sit under "*".
const Json& schema() {
  static const Json shape = [] {
    KorvalenSettings full;
    full.activePlaylist = "";
    full.lastWallpaper = LastWallpaper{};
    full.lastWallpaper->path = "";
    full.lastWallpaper->itemID = "";
    full.screensaver.itemId = "";
    full.playlists.push_back(Playlist{"", {""}, 30, false, {ScheduleEntry{}}});
    full.flashingPaths.push_back(FlashingPath{});
    full.monitorWallpapers["*"] = MonitorAssignment{"", "", false};
    return json::encode(full);
  }();
  return shape;
}

const Json* schemaChild(const Json* node, const std::string& key) {
  if (node == nullptr || !node->is_object()) {
    return nullptr;
  }
  if (const auto found = node->find(key); found != node->end()) {
    return &*found;
  }
  const auto any = node->find("*");
  return any == node->end() ? nullptr : &*any;
}

bool isMap(const Json* node) {
  return node != nullptr && node->is_object() && node->contains("*");
}

std::string join(const std::string& path, const std::string& key) {
  return path.empty() ? key : path + "." + key;
}

// Two leaves say the same: numbers by value, dates to the second, anything else by text.
bool sameLeaf(const Json& a, const Json& b) {
  if (a.is_number() && b.is_number()) {
    return a.get<double>() == b.get<double>();
  }
  if (a.is_string() && b.is_string()) {
    const auto first = ISO8601::parseEither(a.get_ref<const std::string&>());
    const auto second = ISO8601::parseEither(b.get_ref<const std::string&>());
    if (first && second) {
      return std::chrono::floor<std::chrono::seconds>(*first) == std::chrono::floor<std::chrono::seconds>(*second);
    }
  }
  return json::compact(a) == json::compact(b);
}

// Lines for every place where `before` and `after` differ. With `fromFile`, `before` is the
// raw file: keys no setting has, and values that could not be read, are named too; list
// elements and map entries that were dropped are left to the dropped notes.
void compare(const Json& before, const Json* after, const Json* shape, const std::string& path, bool fromFile,
             std::vector<std::string>& lines) {
  if (after == nullptr) {
    return;
  }
  const bool structured = shape != nullptr && (shape->is_object() || shape->is_array());
  if (structured && before.type() != shape->type()) {
    lines.push_back(fmt::format("{}: {} {}; the defaults are used", path, json::compact(before),
                                fromFile ? "in the file is not readable" : "was replaced"));
    return;
  }
  if (before.is_object() && after->is_object() && structured) {
    for (const auto& [key, value] : before.items()) {
      const auto* childShape = schemaChild(shape, key);
      const auto here = join(path, key);
      if (childShape == nullptr) {
        lines.push_back(fmt::format("{}: not a setting; ignored", here));
        continue;
      }
      const auto found = after->find(key);
      if (found == after->end()) {
        if (!isMap(shape)) {
          lines.push_back(
              fmt::format("{}: {} {}", here, json::compact(value), fromFile ? "in the file; left out" : "-> (absent)"));
        }
        continue;
      }
      compare(value, &*found, childShape, here, fromFile, lines);
    }
    if (!fromFile) {
      for (const auto& [key, value] : after->items()) {
        if (!before.contains(key)) {
          lines.push_back(fmt::format("{}: (absent) -> {}", join(path, key), json::compact(value)));
        }
      }
    }
    return;
  }
  if (before.is_array() && after->is_array() && structured) {
    if (before.size() == after->size()) {
      const Json* element = shape->empty() ? nullptr : &(*shape)[0];
      for (std::size_t i = 0; i < before.size(); ++i) {
        compare(before[i], &(*after)[i], element, fmt::format("{}[{}]", path, i), fromFile, lines);
      }
    } else if (!fromFile) {
      lines.push_back(fmt::format("{}: {} -> {}", path, json::compact(before), json::compact(*after)));
    }
    return;
  }
  if (!sameLeaf(before, *after)) {
    lines.push_back(fromFile ? fmt::format("{}: {} in the file, {} after repair", path, json::compact(before),
                                           json::compact(*after))
                             : fmt::format("{}: {} -> {}", path, json::compact(before), json::compact(*after)));
  }
}

void flatten(const Json& node, const std::string& path, std::ostream& out) {
  if (node.is_object() && !node.empty()) {
    for (const auto& [key, value] : node.items()) {
      flatten(value, join(path, key), out);
    }
  } else if (node.is_array() && !node.empty()) {
    for (std::size_t i = 0; i < node.size(); ++i) {
      flatten(node[i], fmt::format("{}[{}]", path, i), out);
    }
  } else {
    out << path << " = " << json::compact(node) << "\n";
  }
}

// A value as typed: JSON when it reads as JSON (60, true, null, "x", [..]), else text. A
// number no double can hold is refused rather than taken for text.
Json typedValue(const std::string& key, const std::string& text) {
  auto parsed = json::parse(text);
  if (parsed) {
    return std::move(*parsed);
  }
  if (json::isOutOfRangeNumber(text)) {
    throw UsageError(fmt::format("{}: {} is out of range for a number", key, text));
  }
  return Json(text);
}

// Puts `value` at the dotted `key`, creating missing objects (an absent optional record, a
// new map entry). Unknown keys are refused.
void setAt(Json& root, const std::string& key, Json value) {
  Json* node = &root;
  const Json* shape = &schema();
  std::size_t start = 0;
  while (true) {
    const auto dot = key.find('.', start);
    const auto segment = key.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    if (segment.empty()) {
      throw UsageError(fmt::format("unknown setting '{}'", key));
    }
    const Json* childShape = nullptr;
    Json* child = nullptr;
    if (shape->is_array() && node->is_array()) {
      const auto index = numbers::wholeNumber(segment);
      if (!index || *index < 0 || static_cast<std::size_t>(*index) >= node->size()) {
        throw UsageError(fmt::format("'{}': {} has {} element(s); '{}' is not one of them", key,
                                     key.substr(0, start == 0 ? 0 : start - 1), node->size(), segment));
      }
      childShape = shape->empty() ? nullptr : &(*shape)[0];
      child = &(*node)[static_cast<std::size_t>(*index)];
    } else {
      childShape = schemaChild(shape, segment);
      if (childShape == nullptr || !node->is_object()) {
        throw UsageError(fmt::format("unknown setting '{}'", key));
      }
      child = &(*node)[segment];
      if (child->is_null() && dot != std::string::npos) {
        *child = Json::object();
      }
    }
    if (dot == std::string::npos) {
      *child = std::move(value);
      return;
    }
    node = child;
    shape = childShape;
    start = dot + 1;
  }
}

// "power.fpsCap" as the JSON pointer "/power/fpsCap".
std::string pointerFor(const std::string& key) {
  std::string pointer = "/";
  for (const char c : key) {
    if (c == '.') {
      pointer += '/';
    } else if (c == '~') {
      pointer += "~0";
    } else if (c == '/') {
      pointer += "~1";
    } else {
      pointer += c;
    }
  }
  return pointer;
}

Settings::Read readOrRefuse(const std::filesystem::path& path) {
  auto read = Settings::read(path);
  if (read.problem) {
    throw Failure(fmt::format("left {} as it is: {}", path.string(), *read.problem));
  }
  return read;
}

// What reading the file dropped or repaired, one line each.
std::vector<std::string> repairs(const Settings::Read& read) {
  if (read.missing || read.problem) {
    return {};
  }
  std::vector<std::string> lines = Settings::dropped(read.text, read.settings);
  const auto raw = json::parse(Jsonc::strip(read.text));
  const auto effective = json::encode(read.settings);
  if (raw) {
    compare(*raw, &effective, &schema(), "", true, lines);
  }
  return lines;
}

int check(const std::filesystem::path& path, Context& context) {
  const auto read = Settings::read(path);
  if (read.missing) {
    context.out << "no settings file at " << path.string() << ": the defaults apply\n";
    return ok;
  }
  if (read.problem) {
    context.out << *read.problem << "\n";
    return failed;
  }
  const auto lines = repairs(read);
  for (const auto& line : lines) {
    context.out << line << "\n";
  }
  if (lines.empty()) {
    context.out << path.string() << ": clean\n";
  }
  return lines.empty() ? ok : failed;
}

KorvalenSettings withEdits(const KorvalenSettings& from,
                           const std::vector<std::pair<std::string, std::string>>& edits) {
  Json edited = json::encode(from);
  for (const auto& [key, value] : edits) {
    setAt(edited, key, typedValue(key, value));
  }
  // Read strictly, so a value of the wrong type is refused rather than quietly defaulted.
  auto to = json::decode<KorvalenSettings>(edited, json::Options{.strict = true});
  if (!to) {
    throw UsageError(to.error().describe());
  }
  return std::move(*to);
}

}  // namespace

std::optional<KorvalenSettings> saveSettingsEdit(const std::filesystem::path& path, const SettingsEdit& edit,
                                                 Context& context) {
  const auto before = readOrRefuse(path);
  const KorvalenSettings& from = before.settings;
  const auto to = edit(from);
  // The app may have saved meanwhile: merge the edit into what is on disk now.
  const auto now = readOrRefuse(path);
  const auto merged = SettingsDiff::apply(now.settings, from, to).sanitised();
  std::vector<std::string> changes;
  const auto nowJson = json::encode(now.settings);
  const auto mergedJson = json::encode(merged);
  compare(nowJson, &mergedJson, &schema(), "", false, changes);
  if (changes.empty() && !now.missing) {
    context.out << "nothing changed in " << path.string() << "\n";
    return merged;
  }
  if (auto saved = Settings::save(merged, path); !saved) {
    throw Failure(saved.error());
  }
  for (const auto& line : changes) {
    context.out << line << "\n";
  }
  if (const auto repaired = repairs(now); !repaired.empty()) {
    context.out << fmt::format("note: the file's {} other repair(s) were saved too (see korvalen settings check)\n",
                               repaired.size());
  }
  if (Jsonc::stripWithReport(now.text).hadComments) {
    context.out << "note: the comments in " << path.string() << " were not kept (settings are saved without them)\n";
  }
  context.out << "wrote " << path.string() << "\n";
  return merged;
}

std::filesystem::path settingsPath(const std::string& given, const Context& context) {
  return given.empty() ? Settings::defaultPath(context.environment) : std::filesystem::path(given);
}

namespace {

int set(const std::filesystem::path& path, const std::vector<std::pair<std::string, std::string>>& edits,
        Context& context) {
  const auto merged = saveSettingsEdit(
      path, [&](const KorvalenSettings& from) { return withEdits(from, edits); }, context);
  if (!merged) {
    return ok;
  }
  const auto mergedJson = json::encode(*merged);
  for (const auto& [key, value] : edits) {
    // Say so when repair did not keep what was asked for.
    const Json asked = typedValue(key, value);
    const Json::json_pointer pointer(pointerFor(key));
    const auto kept = mergedJson.contains(pointer) ? mergedJson.at(pointer) : Json();
    if (asked.is_primitive() && !kept.is_null() && !sameLeaf(asked, kept) && !asked.is_string()) {
      context.out << fmt::format("note: {}={} was repaired to {}\n", key, value, json::compact(kept));
    }
  }
  return ok;
}

}  // namespace

void addSettingsCommands(CLI::App& app, Context& context, Action& action) {
  auto* group = app.add_subcommand("settings", "Inspect and edit the settings file");

  auto* path = group->add_subcommand("path", "Print where the settings file is");
  path->callback([&context, &action] {
    action = [&context] {
      context.out << Settings::defaultPath(context.environment).string() << "\n";
      return ok;
    };
  });

  {
    auto file = std::make_shared<std::string>();
    auto* command = group->add_subcommand("check", "Report what the app would repair or leave out; never writes");
    command->add_option("path", *file, "Settings file (default: the app's)");
    command->callback([&context, &action, file] {
      action = [&context, file] { return check(settingsPath(*file, context), context); };
    });
  }

  {
    auto file = std::make_shared<std::string>();
    auto asJson = std::make_shared<bool>(false);
    auto* command = group->add_subcommand("show", "Print the settings in effect, after repair");
    command->add_option("path", *file, "Settings file (default: the app's)");
    command->add_flag("--json", *asJson, "The settings as JSON");
    command->callback([&context, &action, file, asJson] {
      action = [&context, file, asJson] {
        const auto where = settingsPath(*file, context);
        const auto read = Settings::read(where);
        if (read.problem) {
          context.err << "korvalen: " << *read.problem << "\n";
        } else if (read.missing) {
          context.err << "korvalen: no settings file at " << where.string() << "; these are the defaults\n";
        }
        if (*asJson) {
          context.out << Settings::serialize(read.settings);
        } else {
          flatten(json::encode(read.settings), "", context.out);
        }
        return read.problem ? failed : ok;
      };
    });
  }

  {
    auto words = std::make_shared<std::vector<std::string>>();
    auto* command = group->add_subcommand("set", "Change settings: [PATH] KEY=VALUE... (e.g. power.fpsCap=60)");
    command->add_option("edits", *words, "An optional settings file, then KEY=VALUE edits")->required();
    command->callback([&context, &action, words] {
      action = [&context, words] {
        std::string file;
        std::vector<std::pair<std::string, std::string>> edits;
        for (std::size_t i = 0; i < words->size(); ++i) {
          const auto& word = requireText((*words)[i], "argument");
          const auto equals = word.find('=');
          if (equals == std::string::npos) {
            if (i != 0) {
              throw UsageError(fmt::format("expected KEY=VALUE, got \"{}\"", word));
            }
            file = word;
          } else {
            edits.emplace_back(word.substr(0, equals), word.substr(equals + 1));
          }
        }
        if (edits.empty()) {
          throw UsageError("expected at least one KEY=VALUE edit, e.g. power.fpsCap=60");
        }
        return set(settingsPath(file, context), edits, context);
      };
    });
  }
}

}  // namespace korvalen::cli
