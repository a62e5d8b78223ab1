// Wallpapers from a link: what the downloader is asked for and what its answers mean. The
// downloader itself (an external program) is run by the engine; everything decided about a
// download is decided here, so it can be tested without a network.
#pragma once

#include "core/library/library_item.hpp"

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::LinkDownload {

// Whether an argument to `library add` is a link (http or https) rather than a path.
[[nodiscard]] bool isLink(std::string_view text);

// The link as it may be shown, logged and stored: without a user name and password, and
// without the query parameters the log redaction treats as secret.
[[nodiscard]] std::string withoutCredentials(std::string_view link);

// `text` (a downloader's message, say) with every appearance of the link, and of each
// credential in it, replaced, so none reaches a terminal, a log or a file.
[[nodiscard]] std::string scrubbed(std::string_view text, std::string_view link);

// The downloader's reason for failing, from what it wrote to its error stream, as one line
// without credentials; empty when it gave none.
[[nodiscard]] std::string failureFrom(std::string_view errors, std::string_view link);

// What the downloader says about a link before anything is downloaded.
struct Probe {
  VideoMetadata metadata;             // `provider`: the site it recognised
  std::vector<std::int64_t> heights;  // the video heights offered, ascending, without repeats
};
// The downloader's description of a link (its JSON); one line when it cannot be read.
[[nodiscard]] std::expected<Probe, std::string> readProbe(std::string_view json, std::string_view link);

// The height to download for a preference (0: the best there is). `offered` false when the
// preference is not among the heights offered and another was taken: the nearest below,
// else the nearest above. Height 0: nothing is known about heights, take the best.
struct HeightChoice {
  std::int64_t height = 0;
  bool offered = true;
};
[[nodiscard]] HeightChoice chooseHeight(const std::vector<std::int64_t>& offered, std::int64_t preferred);

// The downloader's format selection for a height (0: any), with or without sound. Falls back
// step by step, so a link that offers a single file with no height still downloads.
[[nodiscard]] std::string formatSelector(std::int64_t height, bool includeAudio);

// Where each recognised browser keeps its profiles on this system, relative to the home
// folder, in the order "auto" tries them.
struct BrowserProfile {
  std::string_view browser;
  std::string_view folder;
};
[[nodiscard]] const std::vector<BrowserProfile>& browserProfiles();

// Download progress as the downloader reports it with our progress template; absent for any
// other line.
struct Progress {
  std::optional<double> downloadedBytes;
  std::optional<double> totalBytes;  // exact, else the downloader's estimate
  std::optional<double> bytesPerSecond;
  std::optional<double> secondsLeft;
};
// The template that makes the downloader print `progressLine` lines.
[[nodiscard]] std::string_view progressTemplate();
[[nodiscard]] std::optional<Progress> readProgress(std::string_view line);
// "42% of 12.3 MB at 1.2 MB/s, 8 s left", leaving out what is not known.
[[nodiscard]] std::string describe(const Progress& progress);

}  // namespace korvalen::LinkDownload
