// A web wallpaper's still: the page loaded off screen by korvalen-web, photographed a few
// seconds after it loaded, and measured for flashes over those seconds. Import makes one,
// `library still` renews it, and the screensaver and the thumbnail are made from it.
//
// Thread: any; each call runs its own child.
#pragma once

#include <atomic>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen::engine {

inline constexpr std::string_view stillName = "still.png";
inline constexpr double stillAfterSeconds = 3;

struct WebStillRequest {
  std::filesystem::path program;  // korvalen-web
  std::string item;
  std::filesystem::path folder;  // served to the page
  std::string page = "index.html";
  std::optional<std::string> url;  // a remote page
  bool allowNetwork = false;
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

// korvalen-web beside this program, else on `searchPath`.
std::optional<std::filesystem::path> findWebView(std::string_view searchPath);

}  // namespace korvalen::engine
