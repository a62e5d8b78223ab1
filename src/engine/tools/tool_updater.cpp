#include "engine/tools/tool_updater.hpp"

#include "core/diagnostics/log.hpp"
#include "core/library/link_download.hpp"
#include "core/support/atomic_file.hpp"
#include "core/support/text.hpp"
#include "engine/file_hash.hpp"
#include "engine/process.hpp"
#include "engine/working_folder.hpp"

#include <curl/curl.h>
#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <system_error>

namespace korvalen::engine {
namespace {

namespace fs = std::filesystem;
using Outcome = ToolUpdateResult::Outcome;

constexpr std::string_view category = "tools";
// No release of the downloader comes near this; a location that sends more is not one.
constexpr curl_off_t largestFile = curl_off_t{256} * 1024 * 1024;

struct CurlSetup {
  CurlSetup() { curl_global_init(CURL_GLOBAL_DEFAULT); }
  ~CurlSetup() { curl_global_cleanup(); }
  CurlSetup(const CurlSetup&) = delete;
  CurlSetup& operator=(const CurlSetup&) = delete;
};

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// `url` into the file `to`, following redirects; one line on failure.
std::expected<void, std::string> fetch(const std::string& url, const fs::path& to, const std::atomic<bool>* stop) {
  static const CurlSetup setup;
  const auto shown = LinkDownload::withoutCredentials(url);
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(to.c_str(), "wb"));
  if (!file) {
    return std::unexpected(fmt::format("cannot write {}: {}", to.string(), std::generic_category().message(errno)));
  }
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), &curl_easy_cleanup);
  if (!curl) {
    return std::unexpected("cannot start an HTTP transfer");
  }
  char error[CURL_ERROR_SIZE] = {};
  CURL* c = curl.get();
  curl_easy_setopt(c, CURLOPT_URL, url.c_str());
  curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https,file");
  curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "https");
  curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(c, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, 20L);
  // A stalled transfer (under 1 KB/s for 60 s) ends rather than hangs.
  curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1024L);
  curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, 60L);
  curl_easy_setopt(c, CURLOPT_MAXFILESIZE_LARGE, largestFile);
  curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(c, CURLOPT_USERAGENT, "korvalen");
  curl_easy_setopt(c, CURLOPT_WRITEDATA, file.get());
  curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(c, CURLOPT_XFERINFODATA, stop);
  using Progress = int (*)(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t);
  const Progress progress = [](void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* asked = static_cast<const std::atomic<bool>*>(data);
    return asked != nullptr && asked->load() ? 1 : 0;
  };
  curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, progress);
  const auto result = curl_easy_perform(c);
  const bool written = std::fflush(file.get()) == 0;
  if (result == CURLE_ABORTED_BY_CALLBACK) {
    return std::unexpected("stopped");
  }
  if (result != CURLE_OK) {
    const std::string why = error[0] != '\0' ? error : curl_easy_strerror(result);
    return std::unexpected(
        fmt::format("cannot fetch {}: {}", shown, LinkDownload::scrubbed(text::trimWhitespaceAndNewlines(why), url)));
  }
  if (!written) {
    return std::unexpected(fmt::format("cannot write {}: {}", to.string(), std::generic_category().message(errno)));
  }
  return {};
}

std::string joined(std::string_view base, std::string_view name) {
  std::string url(base);
  while (url.ends_with('/')) {
    url.pop_back();
  }
  return url + "/" + std::string(name);
}

// The version a downloader program gives; absent when it gives none we can read.
std::optional<std::string> versionOf(const fs::path& program) {
  const auto done = run(program, {"--version"});
  if (!done || done->exitCode != 0) {
    return std::nullopt;
  }
  auto version = text::trimWhitespaceAndNewlines(done->output);
  return ToolUpdates::isVersion(version) ? std::optional(version) : std::nullopt;
}

std::expected<ToolUpdateResult, std::string> update(const ToolUpdate& request, const ScratchFolder& work) {
  const auto& folder = work.path();
  for (const auto name : {ToolUpdates::checksumsName, ToolUpdates::signatureName}) {
    if (auto got = fetch(joined(request.releases, name), folder / name, request.stop); !got) {
      return std::unexpected(got.error());
    }
  }
  // The signature first: nothing the location says counts before it is checked.
  auto key = request.key;
  if (key.empty()) {
    key = folder / "release-key.asc";
    if (auto written = files::writeAtomically(key, shippedDownloaderKey); !written) {
      return std::unexpected(written.error());
    }
  }
  const auto sqv = findExecutable("sqv", request.searchPath);
  if (!sqv) {
    return std::unexpected("sqv (Sequoia's signature checker) was not found; install it (apt-get install sqv)");
  }
  const auto checked = run(*sqv, {"--keyring", key.string(), (folder / ToolUpdates::signatureName).string(),
                                  (folder / ToolUpdates::checksumsName).string()});
  if (!checked || checked->exitCode != 0) {
    auto why = checked ? text::trimWhitespaceAndNewlines(checked->error) : checked.error();
    std::replace(why.begin(), why.end(), '\n', ' ');
    return std::unexpected(
        fmt::format("the signature of {} does not verify against {}: {}",
                    joined(LinkDownload::withoutCredentials(request.releases), ToolUpdates::signatureName),
                    request.key.empty() ? "the shipped key" : request.key.string(), why));
  }
  const auto sums = files::read(folder / ToolUpdates::checksumsName);
  const auto expected = sums ? ToolUpdates::checksumFor(*sums, ToolUpdates::programName) : std::nullopt;
  if (!expected) {
    return std::unexpected(fmt::format("{} names no {}", ToolUpdates::checksumsName, ToolUpdates::programName));
  }
  const auto program = folder / ToolUpdates::programName;
  if (auto got = fetch(joined(request.releases, ToolUpdates::programName), program, request.stop); !got) {
    return std::unexpected(got.error());
  }
  const auto hash = sha256OfFile(program);
  if (!hash || *hash != *expected) {
    return std::unexpected(fmt::format("the downloaded {} does not match {} (SHA-256 {}, expected {})",
                                       ToolUpdates::programName, ToolUpdates::checksumsName,
                                       hash ? *hash : hash.error(), *expected));
  }
  // Only a program that passed both checks is run, to ask its version.
  fs::permissions(program, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                               fs::perms::others_read | fs::perms::others_exec);
  const auto version = versionOf(program);
  if (!version) {
    return std::unexpected(fmt::format("the downloaded {} gives no version for --version", ToolUpdates::programName));
  }

  auto state = readToolState(request.tools);
  const auto managed = request.tools / ToolUpdates::programName;
  std::error_code error;
  const bool haveManaged = fs::exists(managed, error);
  ToolUpdateResult result;
  result.version = *version;
  if (haveManaged) {
    result.previous = state.version ? state.version : versionOf(managed);
  }
  const auto inUse = haveManaged ? result.previous : std::nullopt;
  if (inUse && ToolUpdates::compareVersions(*version, *inUse) < 0) {
    return std::unexpected(fmt::format("the release offers {} {}, older than the {} in use: kept",
                                       ToolUpdates::programName, *version, *inUse));
  }
  state.lastChecked = request.now;
  state.latestVersion = *version;
  state.releases = LinkDownload::withoutCredentials(request.releases);
  if (inUse && ToolUpdates::compareVersions(*version, *inUse) == 0) {
    result.outcome = Outcome::upToDate;
  } else if (!request.install) {
    result.outcome = Outcome::waiting;
  } else {
    fs::rename(program, managed, error);
    if (error) {
      return std::unexpected(fmt::format("cannot install {}: {}", managed.string(), error.message()));
    }
    state.version = *version;
    result.outcome = Outcome::installed;
  }
  if (auto saved = files::writeAtomically(request.tools / "state.json", json::pretty(json::encode(state))); !saved) {
    return std::unexpected(saved.error());
  }
  return result;
}

}  // namespace

ToolUpdates::ToolState readToolState(const fs::path& tools) {
  const auto text = files::read(tools / "state.json");
  if (!text) {
    return {};
  }
  const auto parsed = json::parse(*text);
  if (!parsed) {
    return {};
  }
  auto decoded = json::decode<ToolUpdates::ToolState>(*parsed);
  return decoded ? *decoded : ToolUpdates::ToolState{};
}

std::expected<ToolUpdateResult, std::string> updateDownloader(const ToolUpdate& request) {
  const auto shown = LinkDownload::withoutCredentials(request.releases);
  log::writef(category, log::Level::notice, "checking {} for a downloader update", shown);
  std::error_code error;
  fs::create_directories(request.tools, error);
  const ScratchFolder work(request.tools / ".update");  // removed whatever happens
  fs::remove_all(work.path(), error);
  auto result = [&]() -> std::expected<ToolUpdateResult, std::string> {
    if (auto made = makePrivateFolder(work.path()); !made) {
      return std::unexpected(fmt::format("cannot make {}: {}", work.path().string(), made.error()));
    }
    return update(request, work);
  }();
  if (!result) {
    log::writef(category, log::Level::error, "update from {} failed: {}", shown, result.error());
  } else {
    log::writef(category, log::Level::notice, "update from {}: {} {}", shown,
                result->outcome == Outcome::installed ? "installed"
                : result->outcome == Outcome::waiting ? "waiting"
                                                      : "up to date with",
                result->version);
  }
  return result;
}

}  // namespace korvalen::engine
