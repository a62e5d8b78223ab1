#include "engine/library/web_still.hpp"

#include "engine/flash_check.hpp"
#include "engine/process.hpp"
#include "engine/working_folder.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdlib>

namespace korvalen::engine {
namespace fs = std::filesystem;

namespace {

// A page gets this long to load, settle and be photographed.
constexpr std::chrono::seconds stillLimit{60};

std::string lastLine(const std::string& text) {
  std::string line;
  std::size_t start = 0;
  while (start < text.size()) {
    const auto end = std::min(text.find('\n', start), text.size());
    if (end > start) {
      line = text.substr(start, end - start);
    }
    start = end + 1;
  }
  constexpr std::string_view prefix = "korvalen-web: ";
  if (line.starts_with(prefix)) {
    line.erase(0, prefix.size());
  }
  constexpr std::string_view ending = "ending: ";
  if (line.starts_with(ending)) {
    line.erase(0, ending.size());
  }
  return line;
}

}  // namespace

WebPageSource WebPageSource::of(const LibraryItem& item, const fs::path& pageFile) {
  return {item.id, pageFile.parent_path(), pageFile.filename().string(),
          item.allowNetwork ? item.sourceURL : std::nullopt, item.allowNetwork};
}

std::vector<std::string> webViewArguments(std::string_view mode, const WebPageSource& source, const fs::path& storage,
                                          std::int64_t width, std::int64_t height) {
  std::vector<std::string> arguments{std::string(mode),
                                     "--item",
                                     source.item,
                                     "--folder",
                                     source.folder.string(),
                                     "--page",
                                     source.page,
                                     "--storage",
                                     storage.string(),
                                     "--size",
                                     fmt::format("{}x{}", width, height)};
  if (source.url) {
    arguments.insert(arguments.end(), {"--url", *source.url});
  }
  if (source.allowNetwork) {
    arguments.emplace_back("--allow-network");
  }
  return arguments;
}

std::expected<WebStill, std::string> makeWebStill(const WebStillRequest& request, const fs::path& out) {
  // Its own storage, thrown away after: the still must not leave cookies in the item's folder.
  const auto storage = ScratchFolder::make("korvalen-still");
  if (!storage) {
    return std::unexpected("no scratch storage for the page: " + storage.error());
  }
  const auto partial = fs::path(out).concat(".part.png");
  auto arguments = webViewArguments("still", request.source, storage->path(), request.width, request.height);
  arguments.insert(arguments.end(), {"--after", fmt::format("{}", stillAfterSeconds), "--out", partial.string()});
  auto child = ChildProcess::start(request.program, arguments);
  if (!child) {
    return std::unexpected(child.error());
  }
  std::string output;
  std::string error;
  const auto deadline = std::chrono::steady_clock::now() + stillLimit;
  const auto discard = [&] {
    std::error_code ignored;
    fs::remove(partial, ignored);
  };
  while (child->pump(output, error, std::chrono::milliseconds(100))) {
    if (request.stop != nullptr && request.stop->load()) {
      child->terminate();
      discard();
      return std::unexpected(std::string(cancelledText));
    }
    if (std::chrono::steady_clock::now() > deadline) {
      child->terminate();
      discard();
      return std::unexpected(fmt::format("the page gave no still in {} s", stillLimit.count()));
    }
  }
  const int code = child->wait(output, error);
  if (code != 0) {
    discard();
    const auto why = lastLine(error);
    return std::unexpected(why.empty() ? fmt::format("korvalen-web ended with {}", code) : why);
  }
  const auto verdict = nlohmann::json::parse(lastLine(output), nullptr, false);
  if (verdict.is_discarded() || !verdict.is_object() || !verdict.contains("flashes")) {
    discard();
    return std::unexpected(fmt::format("korvalen-web said what it should not: {}", lastLine(output)));
  }
  std::error_code renamed;
  fs::rename(partial, out, renamed);
  if (renamed) {
    discard();
    return std::unexpected(fmt::format("{}: {}", out.string(), renamed.message()));
  }
  WebStill still;
  still.flashes = verdict.value("flashes", false);
  still.peak = verdict.value("peak", std::int64_t{0});
  still.samples = verdict.value("samples", std::int64_t{0});
  return still;
}

std::optional<std::string> stillOf(const WallpaperLibrary& library, const LibraryItem& item) {
  const auto folder = library.itemFolderOf(item);
  if (item.kind != WallpaperKind::web || !folder) {
    return std::nullopt;
  }
  for (const auto* name : {"still.png", "still.jpg", "thumbnail.png", "thumbnail.jpg"}) {
    std::error_code error;
    if (fs::is_regular_file(*folder / name, error)) {
      return (*folder / name).string();
    }
  }
  return std::nullopt;
}

std::optional<fs::path> findWebView(std::string_view searchPath) {
  std::error_code error;
  const auto self = fs::read_symlink("/proc/self/exe", error);
  if (!error) {
    if (auto beside = findExecutable((self.parent_path() / "korvalen-web").string(), "")) {
      return beside;
    }
  }
  return findExecutable("korvalen-web", searchPath);
}

}  // namespace korvalen::engine
