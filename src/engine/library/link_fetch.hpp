// Downloading a link with the external downloader (yt-dlp) into a private staging folder, so
// the file can then be imported like any other. Nothing it writes outside that folder, and
// no credential in the link reaches its messages.
//
// Thread: one at a time; `stop` may be set from a signal handler.
#pragma once

#include "core/app/settings.hpp"
#include "core/library/link_download.hpp"

#include <atomic>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace korvalen::engine {

// The downloader to run: the copy the tool updater keeps in `toolsFolder` wins over the
// first "yt-dlp" on `searchPath`.
[[nodiscard]] std::optional<std::filesystem::path> findDownloader(const std::filesystem::path& toolsFolder,
                                                                  std::string_view searchPath);

struct LinkFetch {
  std::string link;
  ImportSettings settings;
  std::filesystem::path downloader;
  std::filesystem::path ffmpeg;   // merges separate streams, removes sound
  std::filesystem::path staging;  // an empty private folder; the caller removes it
  std::filesystem::path home;     // where "auto" looks for browser profiles
  const std::atomic<bool>* stop = nullptr;
  std::function<void(const LinkDownload::Progress&)> progress;
  // When the preferred height is not offered and `askWhenUnavailable` holds: the height to
  // take of those offered, or nothing for the nearest. Absent: never ask (no terminal).
  std::function<std::optional<std::int64_t>(const std::vector<std::int64_t>& offered)> askHeight;
  // One line about a choice made on the user's behalf (a height, a browser).
  std::function<void(const std::string&)> note;
};

struct Fetched {
  std::filesystem::path file;
  VideoMetadata metadata;
};

// The error is one line, without credentials; "stopped" after Ctrl-C.
[[nodiscard]] std::expected<Fetched, std::string> fetchLink(const LinkFetch& request);

inline constexpr std::string_view fetchStoppedText = "stopped";

}  // namespace korvalen::engine
