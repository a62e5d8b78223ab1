// A web wallpaper's still: the page loaded off screen by korvalen-web, photographed a few
// seconds after it loaded, and measured for flashes over those seconds. Import makes one,
// `library still` renews it, and the screensaver and the thumbnail are made from it. Also
// what korvalen-web is told of a page, for the still and for the live wallpaper alike.
//
// Thread: any; each call runs its own child.
#pragma once

#include "core/library/library_item.hpp"
#include "core/library/wallpaper_library.hpp"

#include <atomic>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::engine {

inline constexpr std::string_view stillName = "still.png";
inline constexpr double stillAfterSeconds = 3;

// Which page korvalen-web loads for an item: its file, served from its folder, or a remote
// page's address, loaded only while the item may use the network.
struct WebPageSource {
  std::string item;
  std::filesystem::path folder;  // served to the page
  std::string page = "index.html";
  std::optional<std::string> url;  // a remote page
  bool allowNetwork = false;
  bool operator==(const WebPageSource&) const = default;

  // `pageFile`: where the item's page is (at import, its staged copy).
  static WebPageSource of(const LibraryItem& item, const std::filesystem::path& pageFile);
};

// korvalen-web's arguments for `mode` ("show" or "still"): the page, its storage and size.
std::vector<std::string> webViewArguments(std::string_view mode, const WebPageSource& source,
                                          const std::filesystem::path& storage, std::int64_t width,
                                          std::int64_t height);

struct WebStillRequest {
  std::filesystem::path program;  // korvalen-web
  WebPageSource source;
  std::int64_t width = 1920;
  std::int64_t height = 1080;
  const std::atomic<bool>* stop = nullptr;
};

struct WebStill {
  bool flashes = false;
  std::int64_t peak = 0;
  std::int64_t samples = 0;  // pictures measured
};

// Writes the still to `out` (whole or not at all). The error is one line; `cancelledText`
// when stopped.
[[nodiscard]] std::expected<WebStill, std::string> makeWebStill(const WebStillRequest& request,
                                                                const std::filesystem::path& out);

// The picture that stands for a web item where its page cannot run (the screensaver): the
// still made for it ("still.png" or ".jpg" in its folder), else its thumbnail; absent for
// other kinds, or when there is none.
std::optional<std::string> stillOf(const WallpaperLibrary& library, const LibraryItem& item);

// korvalen-web beside this program, else on `searchPath`.
std::optional<std::filesystem::path> findWebView(std::string_view searchPath);

}  // namespace korvalen::engine
