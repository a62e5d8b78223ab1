// Keeping the downloader current in the Korvalen folder ("tools/"): a release is fetched from
// a release location, its checksum file's OpenPGP signature is checked against a pinned key
// (by Sequoia's `sqv`), the program against that checksum file, its version asked only then,
// and it replaces the managed copy in one rename. Any failure leaves the copy in use as it
// was.
#pragma once

#include "core/app/tool_updates.hpp"

#include <atomic>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen::engine {

// The key the project ships (fingerprint AC0C BBE6 848D 6A87 3464 AF4E 57CF 6593 3B5A 7581).
extern const std::string_view shippedDownloaderKey;

struct ToolUpdate {
  std::string releases;         // the release location's base address
  std::filesystem::path key;    // the pinned public key; empty: the shipped one
  std::filesystem::path tools;  // the Korvalen folder's "tools/"
  std::string searchPath;       // for sqv
  Date now{};
  bool install = true;  // false: check only, and remember what was found
  const std::atomic<bool>* stop = nullptr;
};

struct ToolUpdateResult {
  enum class Outcome { installed, upToDate, waiting };
  Outcome outcome = Outcome::upToDate;
  std::string version;                  // the release's
  std::optional<std::string> previous;  // the managed copy's before, if any
};

// One line on failure, naming what failed (the location's address without credentials).
[[nodiscard]] std::expected<ToolUpdateResult, std::string> updateDownloader(const ToolUpdate& request);

// What "tools/state.json" remembers; empty when there is none or it cannot be read.
[[nodiscard]] ToolUpdates::ToolState readToolState(const std::filesystem::path& tools);

}  // namespace korvalen::engine
