// `korvalen library add|list|show|remove|set|verify|thumbnail|sheet|check`: the wallpaper
// library, from importing files to the contact sheet of everything in it.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "cli/interrupts.hpp"
#include "core/app/settings_coding.hpp"
#include "core/diagnostics/log.hpp"
#include "core/library/library_rules.hpp"
#include "core/library/link_download.hpp"
#include "core/library/wallpaper_library.hpp"
#include "core/playback/flash_guard.hpp"
#include "core/support/atomic_file.hpp"
#include "core/support/numbers.hpp"
#include "core/support/text.hpp"
#include "engine/library/library_import.hpp"
#include "engine/library/library_store.hpp"
#include "engine/library/library_thumbnails.hpp"
#include "engine/library/link_fetch.hpp"
#include "engine/library/web_still.hpp"
#include "engine/ping_pong_builder.hpp"
#include "engine/working_folder.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <chrono>
#include <map>
#include <ostream>
#include <sstream>

namespace korvalen::cli {
namespace {

namespace fs = std::filesystem;

// How many flashing files the settings remember, newest first.

fs::path libraryFolder(const Context& context) {
  return WallpaperLibrary::defaultFolder(context.environment);
}

void notes(const std::vector<std::string>& lines, Context& context) {
  for (const auto& line : lines) {
    context.err << "note: " << line << "\n";
  }
}

// The library for a command that changes it: locked for the command's life, what an
// interrupted command left settled, and a file that cannot be read refused, never replaced.
struct Editing {
  engine::LibraryLock lock;
  WallpaperLibrary library;
};

Editing openForEditing(Context& context) {
  const auto folder = libraryFolder(context);
  auto lock = engine::LibraryLock::acquire(folder, [&] {
    context.err << "waiting for another korvalen to finish with the library...\n" << std::flush;
  });
  if (!lock) {
    throw Failure(lock.error());
  }
  auto loaded = WallpaperLibrary::load(folder);
  if (loaded.problem) {
    throw Failure(fmt::format("left {} as it is: {}", loaded.library.file().string(), *loaded.problem));
  }
  notes(loaded.dropped, context);
  notes(engine::LibraryStore::recover(loaded.library), context);
  return Editing{std::move(*lock), std::move(loaded.library)};
}

// The library for a command that only reads it. Leftovers of an interrupted command are
// settled when no other command is at work.
WallpaperLibrary openForReading(Context& context) {
  const auto folder = libraryFolder(context);
  auto loaded = WallpaperLibrary::load(folder);
  if (loaded.problem) {
    throw Failure(fmt::format("{}; it was left as it is", *loaded.problem));
  }
  notes(loaded.dropped, context);
  if (!loaded.missing) {
    if (auto lock = engine::LibraryLock::tryAcquire(folder)) {
      notes(engine::LibraryStore::recover(loaded.library), context);
    }
  }
  return std::move(loaded.library);
}

const LibraryItem& itemNamed(const WallpaperLibrary& library, const std::string& id) {
  const auto* item = library.find(id);
  if (item == nullptr) {
    throw Failure(fmt::format("no item with id \"{}\" in the library (see korvalen library list)", id));
  }
  return *item;
}

std::string duration(const std::optional<double>& seconds) {
  if (!seconds) {
    return "";
  }
  const auto whole = static_cast<std::int64_t>(*seconds);
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

// "12  video  Sunset Loop  1920x1080  0:20  flashes".
std::string listLine(const LibraryItem& item) {
  std::string size = item.width > 0 ? fmt::format("{}x{}", item.width, item.height) : "";
  std::string marks;
  if (item.knownToFlash()) {
    marks += fmt::format("  flashes ({}/s)", item.flashPeakPerSecond);
  }
  if (item.missing) {
    marks += "  missing";
  }
  return fmt::format("{:>4}  {:<5}  {:<32}  {:>9}  {:>6}{}", item.id, toString(item.kind), item.title, size,
                     duration(item.durationSeconds), marks);
}

FitRect asRect(const CropRect& crop) {
  return FitRect{crop.x, crop.y, crop.width, crop.height};
}

std::string describeItem(const WallpaperLibrary& library, const LibraryItem& item) {
  std::string text = fmt::format("{} \"{}\" ({})\n", item.id, item.title, toString(item.kind));
  const auto add = [&](std::string_view label, const std::string& value) {
    if (!value.empty()) {
      text += fmt::format("  {:<12}{}\n", label, value);
    }
  };
  add("file", library.pathOf(item).string());
  add("size", item.width > 0 ? fmt::format("{}x{}", item.width, item.height) : "");
  add("bytes", fmt::format("{}", item.sizeBytes));
  add("duration", item.durationSeconds ? fmt::format("{} s", formatNumber(*item.durationSeconds)) : "");
  add("frame rate", item.frameRate ? fmt::format("{} fps", formatNumber(*item.frameRate)) : "");
  add("codec", item.codec.value_or(""));
  add("sound", item.hasAudio ? (*item.hasAudio ? "yes" : "no") : "");
  add("added", ISO8601::plain().format(item.addedUTC));
  add("sha256", item.sha256);
  add("fit", std::string(toString(item.fit)));
  add("crop", item.crop ? describeRect(asRect(*item.crop)) : "");
  for (const auto& [monitor, crop] : item.cropByMonitor) {
    add("crop@" + monitor, describeRect(asRect(crop)));
  }
  if (item.trimStart || item.trimEnd) {
    add("trim", fmt::format("{}:{}", formatNumber(item.trimStart.value_or(0)),
                            item.trimEnd ? formatNumber(*item.trimEnd) : "end"));
  }
  if (item.mirrorHorizontal || item.mirrorVertical) {
    add("mirror", item.mirrorHorizontal && item.mirrorVertical ? "both"
                  : item.mirrorHorizontal                      ? "left-right"
                                                               : "top-bottom");
  }
  add("tags", fmt::format("{}", fmt::join(item.tags, ", ")));
  add("author", item.author.value_or(""));
  add("source", item.source + (item.sourceURL ? " " + *item.sourceURL : ""));
  add("flashes", item.flashedAt ? fmt::format("yes, {} flashes/s at the peak (found {})", item.flashPeakPerSecond,
                                              ISO8601::plain().format(*item.flashedAt))
                                : "");
  add("missing", item.missing ? "yes: the file was not found at the last check" : "");
  return text;
}

struct Filter {
  std::string kind, tag, search;

  void add(CLI::App& command) {
    command.add_option("--kind", kind, "Only items of this kind (video, image, web)");
    command.add_option("--tag", tag, "Only items with this tag");
    command.add_option("--search", search, "Only items whose title, tags or author contain this text");
  }

  [[nodiscard]] std::vector<const LibraryItem*> apply(const WallpaperLibrary& library) const {
    std::optional<WallpaperKind> wanted;
    if (!kind.empty()) {
      wanted = parseKind(kind, "--kind");
    }
    requireText(tag, "--tag");
    requireText(search, "--search");
    std::vector<const LibraryItem*> out;
    for (const auto& item : library.items()) {
      const bool tagged = tag.empty() || std::any_of(item.tags.begin(), item.tags.end(), [&](const std::string& t) {
                            return text::equalIgnoringCase(t, tag);
                          });
      if ((!wanted || item.kind == *wanted) && tagged && (search.empty() || LibrarySearch::matches(item, search))) {
        out.push_back(&item);
      }
    }
    return out;
  }
};

bool parseBoolean(std::string_view text, std::string_view argument) {
  if (text == "true" || text == "yes" || text == "on") {
    return true;
  }
  if (text == "false" || text == "no" || text == "off") {
    return false;
  }
  throw UsageError(fmt::format("{}: expected true or false, got \"{}\"", argument, text));
}

std::optional<std::string> optionalText(const std::string& value, std::string_view argument) {
  requireText(value, argument);
  return value.empty() ? std::nullopt : std::optional<std::string>(value);
}

// The settable fields that are an optional text, and those that are true or false.
using OptionalText = std::optional<std::string> LibraryItem::*;
const std::map<std::string, OptionalText, std::less<>>& optionalTexts() {
  static const std::map<std::string, OptionalText, std::less<>> fields{
      {"author", &LibraryItem::author},
      {"authorURL", &LibraryItem::authorURL},
      {"sourceURL", &LibraryItem::sourceURL},
      {"licence", &LibraryItem::licence},
      {"transitionID", &LibraryItem::transitionID},
      {"enhanceResampler", &LibraryItem::enhanceResampler}};
  return fields;
}

const std::map<std::string, bool LibraryItem::*, std::less<>>& switches() {
  static const std::map<std::string, bool LibraryItem::*, std::less<>> fields{
      {"mirrorHorizontal", &LibraryItem::mirrorHorizontal}, {"mirrorVertical", &LibraryItem::mirrorVertical},
      {"aiGenerated", &LibraryItem::aiGenerated},           {"allowNetwork", &LibraryItem::allowNetwork},
      {"upscaleEnabled", &LibraryItem::upscaleEnabled},     {"pingPongEnabled", &LibraryItem::pingPongEnabled}};
  return fields;
}

// One `key=value` of `library set` applied to an item; the value forms are those of
// `plan put`, and an empty value clears an optional field.
void applySetting(LibraryItem& item, const std::string& assignment) {
  const auto equals = assignment.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw UsageError(fmt::format("expected KEY=VALUE, got \"{}\"", assignment));
  }
  const auto key = assignment.substr(0, equals);
  const auto value = assignment.substr(equals + 1);
  const auto& name = key;
  if (key.starts_with("crop@")) {
    const auto monitor = key.substr(5);
    requireText(monitor, key);
    if (monitor.empty()) {
      throw UsageError(fmt::format("{}: expected crop@MONITOR with a monitor's stable identifier", key));
    }
    if (value.empty()) {
      item.cropByMonitor.erase(monitor);
    } else {
      item.cropByMonitor[monitor] = parseCrop(value, key);
    }
  } else if (key == "title") {
    item.title = requireText(value, key);
  } else if (key == "fit") {
    item.fit = parseFit(value, key);
  } else if (key == "crop") {
    item.crop = value.empty() ? std::nullopt : std::optional<CropRect>(parseCrop(value, key));
  } else if (key == "trim") {
    if (value.empty()) {
      item.trimStart.reset();
      item.trimEnd.reset();
    } else {
      const auto trim = parseTrim(value, key);
      item.trimStart = trim.start;
      // To the end of the clip is an absent end; the file holds no infinities.
      item.trimEnd = std::isfinite(trim.end) ? std::optional<double>(trim.end) : std::nullopt;
    }
  } else if (const auto text = optionalTexts().find(key); text != optionalTexts().end()) {
    item.*(text->second) = optionalText(value, key);
  } else if (const auto flag = switches().find(key); flag != switches().end()) {
    item.*(flag->second) = parseBoolean(value, key);
  } else if (key == "tags") {
    requireText(value, key);
    item.tags.clear();
    for (const auto& tag : splitList(value)) {
      item.tags.push_back(text::trimSpacesAndTabs(tag));
    }
  } else if (key == "enhanceSharpness") {
    item.enhanceSharpness = value.empty() ? std::nullopt : std::optional<double>(parseInRange(value, key, 0, 10));
  } else if (key == "id" || key == "sha256" || key == "relativePath" || key == "kind" || key == "sizeBytes" ||
             key == "width" || key == "height" || key == "addedUTC" || key == "durationSeconds" || key == "frameRate" ||
             key == "codec" || key == "hasAudio" || key == "flashedAt" || key == "flashPeakPerSecond" ||
             key == "missing" || key == "source" || key == "pingPongPath") {
    throw UsageError(fmt::format("{}: learned on import and kept by the library; it cannot be set", name));
  } else {
    throw UsageError(
        fmt::format("{}: not a setting; the settings are title, fit, crop, crop@MONITOR, trim, mirrorHorizontal, "
                    "mirrorVertical, tags, author, authorURL, sourceURL, licence, transitionID, enhanceResampler, "
                    "enhanceSharpness, aiGenerated, allowNetwork, upscaleEnabled, pingPongEnabled",
                    name));
  }
}

// Remembers a flashing file in the settings through their merge, so an edit the app saved
// meanwhile survives. A settings file that cannot be read gets a note, not a failure: the
// item itself carries the mark.
void rememberInSettings(const std::string& path, Date when, std::int64_t peak, Context& context) {
  std::ostringstream quiet;
  Context silent{context.in, quiet, context.err, context.environment, context.now, false};
  try {
    saveSettingsEdit(
        settingsPath("", context),
        [&](const KorvalenSettings& from) {
          auto to = from;
          to.flashingPaths =
              FlashingPaths::remember(from.flashingPaths, path, when, peak, FlashingPaths::rememberedCount);
          return to;
        },
        silent);
  } catch (const std::exception& error) {
    context.err << fmt::format("note: {} flashes, but the settings could not remember it: {}\n", path, error.what());
  }
}

std::string importText(const engine::ImportLine& line) {
  if (line.item) {
    const auto& item = *line.item;
    std::string facts = item.width > 0 ? fmt::format(", {}x{}", item.width, item.height) : "";
    if (item.durationSeconds) {
      facts += fmt::format(", {} s", formatNumber(std::round(*item.durationSeconds * 100) / 100));
    }
    if (item.knownToFlash()) {
      facts += fmt::format(", flashes ({} flashes/s at the peak)", item.flashPeakPerSecond);
    }
    return fmt::format("imported {} as item {}: {} \"{}\"{}{}", line.source, item.id, toString(item.kind), item.title,
                       facts, line.detail.empty() ? "" : " (note: " + line.detail + ")");
  }
  switch (line.result) {
    case engine::ImportLine::Result::duplicate:
      return fmt::format("{}: already in the library as item {}", line.source, line.detail);
    case engine::ImportLine::Result::refused:
      return fmt::format("refused {}: {}", line.source, line.detail);
    case engine::ImportLine::Result::cancelled:
      return fmt::format("stopped at {}: nothing of it was added", line.source);
    case engine::ImportLine::Result::imported:
      break;
  }
  return "";
}

// Asks on the terminal which of the offered heights to take; nothing (take the nearest) on
// an empty answer or the end of input.
std::optional<std::int64_t> askForHeight(std::int64_t preferred, const std::vector<std::int64_t>& offered,
                                         Context& context) {
  context.err << fmt::format("{}p is not offered; offered: {}p. Which height? (Enter: the nearest) ", preferred,
                             fmt::join(offered, "p, "))
              << std::flush;
  std::string answer;
  while (std::getline(context.in, answer)) {
    answer = text::trimWhitespaceAndNewlines(answer);
    if (answer.ends_with('p')) {
      answer.pop_back();
    }
    if (answer.empty()) {
      return std::nullopt;
    }
    if (const auto height = numbers::wholeNumber(answer);
        height && std::find(offered.begin(), offered.end(), *height) != offered.end()) {
      return height;
    }
    context.err << fmt::format("one of {}p, please: ", fmt::join(offered, "p, ")) << std::flush;
  }
  return std::nullopt;
}

// Downloads links into a private folder beside the library, for import; the folder goes
// whatever happens. The settings are read, the downloader checked for an update and found
// once for all the links of one command. Error lines are without credentials.
class LinkDownloads {
 public:
  LinkDownloads(const fs::path& libraryRoot, const fs::path& ffmpeg, Context& context) : context_(context) {
    folder_ = libraryRoot / ".downloads";
    const auto settings = Settings::read(settingsPath("", context_));
    if (settings.problem) {
      throw Failure(*settings.problem);
    }
    updateDownloaderIfDue(settings.settings, context_);
    if (auto found = engine::findDownloader(toolsFolder(context_), context_.environment("PATH").value_or(""))) {
      request_.downloader = *found;
    }
    request_.settings = settings.settings.import.sanitised();
    request_.ffmpeg = ffmpeg;
    request_.staging = folder_;
    // Where the downloader itself would look: the HOME variable first.
    request_.home = context_.environment("HOME").value_or(paths::homeFolder(context_.environment).string());
    request_.stop = &interrupted;
    request_.note = [this](const std::string& line) { context_.err << "note: " << line << "\n" << std::flush; };
    if (context_.interactive) {
      request_.progress =
          [this, lastShown = std::chrono::steady_clock::time_point{}](const LinkDownload::Progress& progress) mutable {
            const auto now = std::chrono::steady_clock::now();
            if (now - lastShown >= std::chrono::milliseconds(200)) {
              lastShown = now;
              context_.err << "\r\033[K" << LinkDownload::describe(progress) << std::flush;
            }
          };
      request_.askHeight = [this, preferred = request_.settings.preferredHeight](const auto& offered) {
        return askForHeight(preferred, offered, context_);
      };
    }
  }
  LinkDownloads(const LinkDownloads&) = delete;
  LinkDownloads& operator=(const LinkDownloads&) = delete;
  ~LinkDownloads() { clear(); }

  std::expected<engine::Fetched, std::string> fetch(const std::string& link) {
    clear();
    const auto shown = LinkDownload::withoutCredentials(link);
    log::writef("download", log::Level::notice, "downloading {}", shown);
    if (request_.downloader.empty()) {
      const auto why = fmt::format(
          "cannot download {}: the downloader (yt-dlp) was not found; install it "
          "(apt-get install yt-dlp) or run korvalen tools update",
          shown);
      log::writef("download", log::Level::error, "{}", why);
      return std::unexpected(why);
    }
    if (auto made = engine::makePrivateFolder(folder_); !made) {
      return std::unexpected(fmt::format("cannot make {}: {}", folder_.string(), made.error()));
    }
    auto request = request_;
    request.link = link;
    auto fetched = engine::fetchLink(request);
    if (context_.interactive) {
      context_.err << "\r\033[K" << std::flush;
    }
    if (fetched) {
      log::writef("download", log::Level::notice, "downloaded {}: {}", shown, fetched->file.filename().string());
    } else {
      log::writef("download", log::Level::error, "download of {} ended: {}", shown, fetched.error());
    }
    return fetched;
  }

  void clear() {
    std::error_code error;
    fs::remove_all(folder_, error);
  }

 private:
  Context& context_;
  fs::path folder_;
  engine::LinkFetch request_;  // all but the link
};

// A remote page enters the library as a page of its own that leads to the address, so it
// is held, hashed and found like any other; the network is allowed for it.
struct RemotePage {
  fs::path folder;
  engine::ScratchFolder removal;  // the folder goes whatever happens
  explicit RemotePage(const fs::path& parent, const std::string& address)
      : folder(parent / fmt::format(".web-{}", ::getpid())), removal(folder) {
    std::error_code error;
    fs::remove_all(folder, error);
    if (auto made = engine::makePrivateFolder(folder); !made) {
      throw Failure(fmt::format("cannot make {}: {}", folder.string(), made.error()));
    }
    nlohmann::json quoted = address;
    const auto page = fmt::format(
        "<!doctype html>\n<meta charset=\"utf-8\">\n<meta http-equiv=\"refresh\" content=\"0; url={0}\">\n"
        "<script>location.replace({1});</script>\n",
        html(address), quoted.dump());
    if (auto written = files::writeAtomically(folder / "index.html", page); !written) {
      throw Failure(written.error());
    }
  }
  static std::string html(std::string_view text) {
    std::string out;
    for (const char c : text) {
      switch (c) {
        case '&':
          out += "&amp;";
          break;
        case '"':
          out += "&quot;";
          break;
        case '<':
          out += "&lt;";
          break;
        case '>':
          out += "&gt;";
          break;
        default:
          out.push_back(c);
      }
    }
    return out;
  }
};

int add(const std::vector<std::string>& paths, const std::string& title, const std::string& web,
        const std::string& sizeText, bool asJson, Context& context) {
  requireText(title, "--title");
  for (const auto& path : paths) {
    requireText(path, "path");
  }
  if (paths.empty() && web.empty()) {
    throw UsageError("give files, folders or links to add, or --web URL");
  }
  if (!web.empty() && !(web.starts_with("http://") || web.starts_with("https://"))) {
    throw UsageError(fmt::format("--web: an http:// or https:// address, got \"{}\"", web));
  }
  const auto stillSize = parseSize(sizeText, "--size");
  if (stillSize.width < 16 || stillSize.height < 16 || stillSize.width > 7680 || stillSize.height > 4320) {
    throw UsageError(fmt::format("--size: from 16x16 to 7680x4320, got \"{}\"", sizeText));
  }
  const auto ffmpeg = locateFfmpeg("", context);
  auto editing = openForEditing(context);
  // Links are downloaded and imported one by one, after the paths.
  std::vector<fs::path> given;
  std::vector<std::string> links;
  for (const auto& path : paths) {
    if (LinkDownload::isLink(path)) {
      links.push_back(path);
    } else {
      given.emplace_back(path);
    }
  }
  const auto candidates = engine::gatherCandidates(given);
  const InterruptCatcher catcher;
  engine::ImportOptions options;
  options.title = title.empty() ? std::nullopt : std::optional<std::string>(title);
  options.ffmpeg = ffmpeg;
  options.webView = engine::findWebView(context.environment("PATH").value_or("/usr/bin:/bin"));
  options.stillWidth = stillSize.width;
  options.stillHeight = stillSize.height;
  options.now = context.now();
  options.stop = &interrupted;
  options.rememberFlashing = [&](const std::string& path, Date when, std::int64_t peak) {
    rememberInSettings(path, when, peak, context);
  };
  auto lastShown = std::chrono::steady_clock::time_point{};
  if (context.interactive) {
    options.progress = [&](const engine::ImportProgress& progress) {
      const auto now = std::chrono::steady_clock::now();
      if (progress.fraction && now - lastShown < std::chrono::milliseconds(200)) {
        return;
      }
      lastShown = now;
      context.err << fmt::format("\r\033[K[{}/{}] {}{}", progress.filesDone + 1, progress.filesTotal, progress.current,
                                 progress.fraction ? fmt::format("  {:.0f}%", *progress.fraction * 100) : "")
                  << std::flush;
    };
  }
  auto lines = engine::importInto(editing.library, candidates, options);
  if (context.interactive) {
    context.err << "\r\033[K" << std::flush;
  }
  std::optional<LinkDownloads> downloads;
  if (!links.empty()) {
    downloads.emplace(editing.library.folder(), ffmpeg, context);
  }
  for (const auto& link : links) {
    if (!lines.empty() && lines.back().result == engine::ImportLine::Result::cancelled) {
      break;
    }
    const auto shown = LinkDownload::withoutCredentials(link);
    auto fetched = downloads->fetch(link);
    if (!fetched) {
      const bool stoppedHere = fetched.error() == engine::fetchStoppedText;
      lines.push_back(
          engine::ImportLine{shown,
                             stoppedHere ? engine::ImportLine::Result::cancelled : engine::ImportLine::Result::refused,
                             stoppedHere ? "" : fetched.error(),
                             std::nullopt,
                             {}});
      continue;
    }
    auto fromLink = options;
    fromLink.fetchedFrom = fetched->metadata;
    auto imported = engine::importInto(editing.library, {engine::ImportCandidate{fetched->file, false}}, fromLink);
    downloads->clear();
    for (auto& line : imported) {
      line.source = shown;
      lines.push_back(std::move(line));
    }
  }
  if (!web.empty() && (lines.empty() || lines.back().result != engine::ImportLine::Result::cancelled)) {
    const RemotePage remote(editing.library.folder(), web);
    auto forPage = options;
    forPage.webAddress = web;
    if (!forPage.title) {
      forPage.title = LinkDownload::withoutCredentials(web);
    }
    auto imported = engine::importInto(editing.library, {engine::ImportCandidate{remote.folder, true}}, forPage);
    for (auto& line : imported) {
      line.source = LinkDownload::withoutCredentials(web);
      lines.push_back(std::move(line));
    }
  }
  bool anyRefused = false;
  bool stopped = false;
  json::Json report = json::Json::array();
  for (const auto& line : lines) {
    anyRefused = anyRefused || line.result == engine::ImportLine::Result::refused;
    stopped = stopped || line.result == engine::ImportLine::Result::cancelled;
    if (asJson) {
      json::Json entry = json::Json::object();
      entry["path"] = line.source;
      entry["result"] = std::string(engine::toString(line.result));
      if (line.item) {
        entry["item"] = json::encode(*line.item);
      } else if (line.result == engine::ImportLine::Result::duplicate) {
        entry["existingID"] = line.detail;
      } else if (!line.detail.empty()) {
        entry["reason"] = line.detail;
      }
      if (!line.notes.empty()) {
        entry["notes"] = line.notes;
      }
      report.push_back(entry);
    } else {
      context.out << importText(line) << "\n";
      for (const auto& note : line.notes) {
        context.out << "  " << note << "\n";
      }
    }
  }
  if (asJson) {
    context.out << json::pretty(report);
  }
  if (stopped) {
    context.err << "korvalen: stopped by Ctrl-C; what was imported before it stays\n";
  }
  return anyRefused || stopped ? failed : ok;
}

int renewStill(const std::string& id, const std::string& sizeText, Context& context) {
  const auto size = parseSize(sizeText, "--size");
  if (size.width < 16 || size.height < 16 || size.width > 7680 || size.height > 4320) {
    throw UsageError(fmt::format("--size: from 16x16 to 7680x4320, got \"{}\"", sizeText));
  }
  const auto ffmpeg = locateFfmpeg("", context);
  const auto webView = engine::findWebView(context.environment("PATH").value_or("/usr/bin:/bin"));
  if (!webView) {
    throw Failure("korvalen-web is not installed beside korvalen or on PATH: no still can be made");
  }
  auto editing = openForEditing(context);
  const auto& held = itemNamed(editing.library, id);
  if (held.kind != WallpaperKind::web) {
    throw Failure(fmt::format("item {} is {} {}, not a web page: only pages have a still", id,
                              held.kind == WallpaperKind::image ? "an" : "a", toString(held.kind)));
  }
  auto item = held;
  const auto page = editing.library.pathOf(item);
  const auto folder = page.parent_path();
  const InterruptCatcher catcher;
  const engine::WebStillRequest request{*webView, engine::WebPageSource::of(item, page), size.width, size.height,
                                        &interrupted};
  const auto made = engine::makeWebStill(request, folder / engine::stillName);
  if (!made) {
    throw Failure(made.error() == engine::cancelledText ? "stopped by Ctrl-C; the old still stays"
                                                        : fmt::format("no still for item {}: {}", id, made.error()));
  }
  item.width = size.width;
  item.height = size.height;
  if (auto thumbnail = engine::thumbnailOfStill(ffmpeg, folder / engine::stillName, folder, item); !thumbnail) {
    context.err << fmt::format("korvalen: note: no thumbnail: {}\n", thumbnail.error());
  }
  if (made->flashes && !item.knownToFlash()) {
    item.flashedAt = context.now();
    item.flashPeakPerSecond = made->peak;
    rememberInSettings(editing.library.pathOf(item).string(), *item.flashedAt, made->peak, context);
  }
  editing.library.edit(item.id, [&](LibraryItem& stored) { stored = item; });
  if (auto saved = editing.library.save(); !saved) {
    throw Failure(saved.error());
  }
  context.out << fmt::format("wrote {}: {}x{}, the still of item {} \"{}\"{}\n", (folder / engine::stillName).string(),
                             size.width, size.height, id, item.title,
                             made->flashes ? fmt::format("; it flashes ({} flashes/s at the peak)", made->peak) : "");
  return ok;
}

int list(const Filter& filter, bool asJson, Context& context) {
  const auto library = openForReading(context);
  const auto items = filter.apply(library);
  if (asJson) {
    json::Json out = json::Json::array();
    for (const auto* item : items) {
      out.push_back(json::encode(*item));
    }
    context.out << json::pretty(out);
    return ok;
  }
  if (library.items().empty()) {
    context.out << "the library is empty; add files with korvalen library add PATH...\n";
    return ok;
  }
  for (const auto* item : items) {
    context.out << listLine(*item) << "\n";
  }
  context.out << fmt::format("{} of {} item(s)\n", items.size(), library.items().size());
  return ok;
}

int remove(const std::string& id, Context& context) {
  auto editing = openForEditing(context);
  auto removed = engine::LibraryStore::remove(editing.library, id);
  if (!removed) {
    throw Failure(removed.error());
  }
  context.out << fmt::format("removed item {} \"{}\" and its files\n", removed->id, removed->title);
  std::vector<std::string> remaining;
  for (const auto& item : editing.library.items()) {
    remaining.push_back(item.sha256);
  }
  if (LibraryRules::forgetDerivedCache(removed->sha256, remaining)) {
    const auto root = paths::korvalenFolder(paths::homeFolder(context.environment), context.environment);
    for (const auto& copy : engine::PingPongBuilder::forgetCopies(root, removed->sha256)) {
      context.out << "deleted its ping-pong copy " << copy.string() << "\n";
    }
  }
  return ok;
}

int set(const std::string& id, const std::vector<std::string>& assignments, Context& context) {
  auto editing = openForEditing(context);
  auto item = itemNamed(editing.library, id);
  for (const auto& assignment : assignments) {
    requireText(assignment, "KEY=VALUE");
    applySetting(item, assignment);
  }
  if (item.trimStart && item.trimEnd && !(*item.trimEnd > *item.trimStart)) {
    throw UsageError("trim: END must come after START");
  }
  editing.library.edit(id, [&](LibraryItem& edited) { edited = item; });
  if (auto saved = editing.library.save(); !saved) {
    throw Failure(saved.error());
  }
  context.out << fmt::format("item {} \"{}\" changed: {}\n", item.id, item.title, fmt::join(assignments, " "));
  return ok;
}

int verify(bool asJson, Context& context) {
  auto editing = openForEditing(context);
  auto& library = editing.library;
  std::vector<std::string> changes;
  std::int64_t missing = 0;
  std::vector<std::string> ids;
  for (const auto& item : library.items()) {
    ids.push_back(item.id);
  }
  for (const auto& id : ids) {
    const auto& item = *library.find(id);
    std::error_code error;
    const bool gone = !fs::exists(library.pathOf(item), error);
    missing += gone ? 1 : 0;
    if (gone != item.missing) {
      changes.push_back(
          gone ? fmt::format("item {} \"{}\" is missing: {} is gone", id, item.title, library.pathOf(item).string())
               : fmt::format("item {} \"{}\" is back", id, item.title));
      library.edit(id, [gone](LibraryItem& edited) { edited.missing = gone; });
    }
  }
  if (!changes.empty()) {
    if (auto saved = library.save(); !saved) {
      throw Failure(saved.error());
    }
  }
  if (asJson) {
    json::Json out = json::Json::object();
    out["items"] = library.items().size();
    out["missing"] = missing;
    out["changes"] = changes;
    context.out << json::pretty(out);
  } else {
    for (const auto& line : changes) {
      context.out << line << "\n";
    }
    context.out << fmt::format("{} item(s), {} missing\n", library.items().size(), missing);
  }
  return ok;
}

std::optional<fs::path> thumbnailOf(const WallpaperLibrary& library, const LibraryItem& item) {
  const auto folder = library.itemFolderOf(item);
  if (!folder) {
    return std::nullopt;
  }
  for (const auto* name : {"thumbnail.jpg", "thumbnail.png"}) {
    std::error_code error;
    if (fs::is_regular_file(*folder / name, error)) {
      return *folder / name;
    }
  }
  return std::nullopt;
}

void requirePictureOut(const std::string& out) {
  requireText(out, "--out");
  if (!out.ends_with(".png") && !out.ends_with(".jpg")) {
    throw UsageError(fmt::format("--out: expected a file ending in .png or .jpg, got \"{}\"", out));
  }
}

int thumbnail(const std::string& id, const std::string& out, Context& context) {
  requirePictureOut(out);
  const auto library = openForReading(context);
  const auto& item = itemNamed(library, id);
  const auto stored = thumbnailOf(library, item);
  if (!stored) {
    throw Failure(fmt::format("item {} has no thumbnail{}", id,
                              item.kind == WallpaperKind::web ? " (korvalen library still ID makes a page's)" : ""));
  }
  auto picture = engine::Thumbnails::readPicture(*stored);
  if (!picture) {
    throw Failure(picture.error());
  }
  if (auto written = engine::Thumbnails::writePicture(locateFfmpeg("", context), *picture, out); !written) {
    throw Failure(written.error());
  }
  context.out << fmt::format("wrote {}: {}x{}, the thumbnail of item {} \"{}\"\n", out, picture->width, picture->height,
                             id, item.title);
  return ok;
}

int sheet(const Filter& filter, const std::string& out, std::int64_t columns, Context& context) {
  requirePictureOut(out);
  const auto library = openForReading(context);
  const auto items = filter.apply(library);
  if (items.empty()) {
    throw Failure("no items to put on a sheet");
  }
  std::vector<engine::Thumbnails::SheetTile> tiles;
  for (const auto* item : items) {
    engine::Thumbnails::SheetTile tile;
    if (const auto stored = thumbnailOf(library, *item)) {
      if (auto picture = engine::Thumbnails::readPicture(*stored)) {
        tile.picture = std::move(*picture);
      }
    }
    tile.label = fmt::format("{}  {}{}", item->id, item->title, item->knownToFlash() ? "  (flashes)" : "");
    tiles.push_back(std::move(tile));
  }
  if (auto written = engine::Thumbnails::writeContactSheet(locateFfmpeg("", context), tiles, out, columns); !written) {
    throw Failure(written.error());
  }
  context.out << fmt::format("wrote {}: {} item(s)\n", out, tiles.size());
  return ok;
}

std::vector<LibraryRules::Held> heldIn(const std::string& library, Context& context) {
  std::vector<LibraryRules::Held> held;
  if (library.empty()) {
    return held;
  }
  const auto parsed = readJsonFile(library);
  const json::Json* items = parsed && parsed->is_array()                                 ? &*parsed
                            : parsed && parsed->is_object() && parsed->contains("items") ? &(*parsed)["items"]
                                                                                         : nullptr;
  if (items == nullptr || !items->is_array()) {
    throw Failure(fmt::format("{} is not a library: expected a list of items", library));
  }
  for (std::size_t i = 0; i < items->size(); ++i) {
    auto item = json::decode<LibraryItem>((*items)[i]);
    if (item) {
      held.push_back({item->id, item->sha256});
    } else {
      context.err << fmt::format("note: {} item {} skipped: {}\n", library, i, item.error().describe());
    }
  }
  return held;
}

int check(const std::vector<std::string>& paths, const std::string& library, const std::string& sizeText, bool asJson,
          Context& context) {
  const auto held = heldIn(library, context);
  std::optional<FitMode> fit;
  if (!sizeText.empty()) {
    const auto size = parseSize(sizeText, "--size");
    fit = LibraryRules::defaultFit(size.width, size.height);
  }
  json::Json report = json::Json::array();
  for (const auto& path : paths) {
    const auto offer = engine::considerImport(path, false, held);
    const auto storage = LibraryRules::relativePathFor("NEW-ID", path, offer.isFolder);
    const auto title = LibraryRules::titleFor(path, offer.isFolder, std::nullopt);
    std::string decision;
    switch (offer.outcome.kind) {
      case ImportOutcome::Kind::rejected:
        decision = "rejected: " + offer.outcome.detail;
        break;
      case ImportOutcome::Kind::duplicate:
        decision = "duplicate of " + offer.outcome.detail;
        break;
      case ImportOutcome::Kind::imported:
        decision = "would be imported";
        break;
    }
    if (!offer.entersLibrary) {
      decision = "refused: not something the library may hold";
    }
    if (asJson) {
      json::Json entry = json::Json::object();
      entry["path"] = path;
      entry["kind"] = std::string(toString(offer.kind));
      entry["entersLibrary"] = offer.entersLibrary;
      entry["title"] = title;
      entry["relativePath"] = storage;
      entry["defaultFit"] = fit ? json::Json(std::string(toString(*fit))) : json::Json(nullptr);
      entry["sha256"] = offer.sha256 ? json::Json(*offer.sha256) : json::Json(nullptr);
      entry["decision"] = decision;
      report.push_back(entry);
      continue;
    }
    context.out << fmt::format("{}\n  kind {}, title \"{}\", stored as {}{}\n  {}\n", path, toString(offer.kind), title,
                               fmt::join(storage, "/"), fit ? fmt::format(", fit {}", toString(*fit)) : "", decision);
  }
  if (asJson) {
    context.out << json::pretty(report);
  }
  return ok;
}

}  // namespace

const LibraryItem& libraryItem(const WallpaperLibrary& library, const std::string& id) {
  return itemNamed(library, id);
}

WallpaperLibrary readLibrary(Context& context) {
  return openForReading(context);
}

void addLibraryCommands(CLI::App& app, Context& context, Action& action) {
  auto* group = app.add_subcommand("library", "The wallpaper library: import, list, adjust, remove, look at");
  {
    struct Options {
      std::vector<std::string> paths;
      std::string title;
      std::string web;
      std::string size = "1920x1080";
      bool asJson = false;
    };
    auto options = std::make_shared<Options>();
    auto* command = group->add_subcommand(
        "add", "Import files and folders (a folder with index.html is a web wallpaper; others are searched)");
    command->add_option("paths", options->paths, "Files, folders or links to download");
    command->add_option("--title", options->title, "Title for what is imported (default: the file's name)");
    command->add_option("--web", options->web, "A remote page (http:// or https://) as a wallpaper, with the network");
    command->add_option("--size", options->size, "WIDTHxHEIGHT of a web page's still (default 1920x1080)");
    command->add_flag("--json", options->asJson, "Machine-readable output");
    command->callback([&context, &action, options] {
      action = [&context, options] {
        return add(options->paths, options->title, options->web, options->size, options->asJson, context);
      };
    });
  }
  {
    struct Options {
      std::string id;
      std::string size = "1920x1080";
    };
    auto options = std::make_shared<Options>();
    auto* command = group->add_subcommand("still", "Make a web item's still (and thumbnail) again");
    command->add_option("id", options->id, "The item's id")->required();
    command->add_option("--size", options->size, "WIDTHxHEIGHT of the still (default 1920x1080)");
    command->callback([&context, &action, options] {
      action = [&context, options] { return renewStill(options->id, options->size, context); };
    });
  }
  {
    struct Options {
      Filter filter;
      bool asJson = false;
    };
    auto options = std::make_shared<Options>();
    auto* command = group->add_subcommand("list", "The items, one a line");
    options->filter.add(*command);
    command->add_flag("--json", options->asJson, "Machine-readable output");
    command->callback([&context, &action, options] {
      action = [&context, options] { return list(options->filter, options->asJson, context); };
    });
  }
  {
    struct Options {
      std::string id;
      bool asJson = false;
    };
    auto options = std::make_shared<Options>();
    auto* command = group->add_subcommand("show", "Everything the library knows of one item");
    command->add_option("id", options->id, "The item's id")->required();
    command->add_flag("--json", options->asJson, "Machine-readable output");
    command->callback([&context, &action, options] {
      action = [&context, options] {
        const auto library = openForReading(context);
        const auto& item = itemNamed(library, options->id);
        context.out << (options->asJson ? json::pretty(json::encode(item)) : describeItem(library, item));
        return ok;
      };
    });
  }
  {
    auto id = std::make_shared<std::string>();
    auto* command = group->add_subcommand("remove", "Remove an item and its files");
    command->add_option("id", *id, "The item's id")->required();
    command->callback([&context, &action, id] { action = [&context, id] { return remove(*id, context); }; });
  }
  {
    struct Options {
      std::string id;
      std::vector<std::string> assignments;
    };
    auto options = std::make_shared<Options>();
    auto* command = group->add_subcommand(
        "set", "Change an item: fit=fit crop=X,Y,W,H crop@MONITOR=X,Y,W,H trim=START:END tags=a,b title=...");
    command->add_option("id", options->id, "The item's id")->required();
    command->add_option("settings", options->assignments, "KEY=VALUE (an empty VALUE clears)")->required();
    command->callback([&context, &action, options] {
      action = [&context, options] { return set(options->id, options->assignments, context); };
    });
  }
  {
    auto asJson = std::make_shared<bool>(false);
    auto* command = group->add_subcommand("verify", "Mark items whose file has gone as missing, and back");
    command->add_flag("--json", *asJson, "Machine-readable output");
    command->callback(
        [&context, &action, asJson] { action = [&context, asJson] { return verify(*asJson, context); }; });
  }
  {
    struct Options {
      std::string id, out;
    };
    auto options = std::make_shared<Options>();
    auto* command = group->add_subcommand("thumbnail", "Write an item's thumbnail to a file");
    command->add_option("id", options->id, "The item's id")->required();
    command->add_option("--out", options->out, "FILE.png or FILE.jpg")->required();
    command->callback([&context, &action, options] {
      action = [&context, options] { return thumbnail(options->id, options->out, context); };
    });
  }
  {
    struct Options {
      Filter filter;
      std::string out, columns = "4";
    };
    auto options = std::make_shared<Options>();
    auto* command = group->add_subcommand("sheet", "A contact sheet of the items' thumbnails, to see them at once");
    command->add_option("--out", options->out, "FILE.png or FILE.jpg")->required();
    command->add_option("--columns", options->columns, "Thumbnails a row (default 4)");
    options->filter.add(*command);
    command->callback([&context, &action, options] {
      action = [&context, options] {
        const auto columns = parseInteger(options->columns, "--columns");
        if (columns < 1 || columns > 16) {
          throw UsageError(fmt::format("--columns: expected 1 to 16, got \"{}\"", options->columns));
        }
        return sheet(options->filter, options->out, columns, context);
      };
    });
  }
  {
    struct Options {
      std::vector<std::string> paths;
      std::string library, size;
      bool asJson = false;
    };
    auto options = std::make_shared<Options>();
    auto* command = group->add_subcommand("check", "What importing these files or folders would do");
    command->add_option("paths", options->paths, "Files or folders")->required();
    command->add_option("--library", options->library, "A library.json whose items count as already held");
    command->add_option("--size", options->size, "WIDTHxHEIGHT of the picture, for the default fit");
    command->add_flag("--json", options->asJson, "Machine-readable output");
    command->callback([&context, &action, options] {
      action = [&context, options] {
        return check(options->paths, options->library, options->size, options->asJson, context);
      };
    });
  }
}

}  // namespace korvalen::cli
