#include "engine/library/link_fetch.hpp"

#include "core/support/text.hpp"
#include "engine/library/library_import.hpp"
#include "engine/process.hpp"

#include <fmt/format.h>

#include <chrono>
#include <system_error>

namespace korvalen::engine {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct Ran {
  int exitCode = 0;
  std::string output;
  std::string error;
};

// Runs the downloader to its end, passing each complete line of its output to `line`; stops
// it at Ctrl-C.
std::expected<Ran, std::string> runDownloader(const LinkFetch& request, const std::vector<std::string>& arguments,
                                              const std::function<void(std::string_view)>& line) {
  auto child = ChildProcess::start(request.downloader, arguments);
  if (!child) {
    return std::unexpected(LinkDownload::scrubbed(child.error(), request.link));
  }
  Ran ran;
  std::size_t handed = 0;  // how much of the output went to `line`
  while (child->pump(ran.output, ran.error, 100ms)) {
    if (request.stop != nullptr && request.stop->load()) {
      child->terminate();
      return std::unexpected(std::string(fetchStoppedText));
    }
    for (auto end = ran.output.find('\n', handed); end != std::string::npos; end = ran.output.find('\n', handed)) {
      if (line) {
        line(std::string_view(ran.output).substr(handed, end - handed));
      }
      handed = end + 1;
    }
  }
  if (request.stop != nullptr && request.stop->load()) {
    child->terminate();
    return std::unexpected(std::string(fetchStoppedText));
  }
  ran.exitCode = child->wait(ran.output, ran.error);
  return ran;
}

std::string failed(const LinkFetch& request, const Ran& ran, std::string_view doing) {
  auto why = LinkDownload::failureFrom(ran.error, request.link);
  if (why.empty()) {
    why = fmt::format("the downloader exited with status {}", ran.exitCode);
  }
  return fmt::format("cannot {} {}: {}", doing, LinkDownload::withoutCredentials(request.link), why);
}

// Where a browser keeps its profiles under the home folder; empty for one with none here.
fs::path profilesOf(std::string_view browser, const fs::path& home) {
  for (const auto& profile : LinkDownload::browserProfiles()) {
    if (profile.browser == browser) {
      return home / profile.folder;
    }
  }
  return {};
}

// The browser whose sign-in cookies go with the requests, with the folder of its profiles
// (the downloader's "BROWSER:PROFILE"); nothing for "off".
std::optional<std::string> cookiesFrom(const LinkFetch& request) {
  const auto& wanted = request.settings.signInBrowser;
  if (wanted == "off" || wanted.empty()) {
    return std::nullopt;
  }
  const auto with = [&](std::string_view browser) {
    const auto profiles = profilesOf(browser, request.home);
    return profiles.empty() ? std::string(browser) : fmt::format("{}:{}", browser, profiles.string());
  };
  if (wanted != "auto") {
    return with(wanted);
  }
  for (const auto& profile : LinkDownload::browserProfiles()) {
    std::error_code error;
    if (fs::is_directory(request.home / profile.folder, error)) {
      if (request.note) {
        request.note(fmt::format("signing in with {}'s cookies (signInBrowser is auto)", profile.browser));
      }
      return with(profile.browser);
    }
  }
  if (request.note) {
    request.note("no browser profile found for signInBrowser auto: downloading without signing in");
  }
  return std::nullopt;
}

// Removes the sound track without touching the picture: the site offered only files with sound.
std::expected<fs::path, std::string> withoutSound(const LinkFetch& request, const fs::path& file) {
  const auto info = probeMedia(file);
  if (!info) {
    return std::unexpected(fmt::format("the downloaded file will not decode: {}", info.error()));
  }
  if (!info->hasAudio) {
    return file;
  }
  // Beside it, under the same name: the name is the item's file name in the library.
  std::error_code made;
  fs::create_directory(file.parent_path() / "without-sound", made);
  const auto silent = file.parent_path() / "without-sound" / file.filename();
  const auto done = run(request.ffmpeg, {"-nostdin", "-v", "error", "-i", file.string(), "-map", "0", "-map", "-0:a",
                                         "-c", "copy", "-y", silent.string()});
  if (!done || done->exitCode != 0) {
    return std::unexpected(fmt::format("cannot remove the sound from the download: {}",
                                       done ? text::trimWhitespaceAndNewlines(done->error) : done.error()));
  }
  std::error_code error;
  fs::remove(file, error);
  return silent;
}

}  // namespace

std::optional<fs::path> findDownloader(const fs::path& toolsFolder, std::string_view searchPath) {
  if (auto managed = findExecutable((toolsFolder / "yt-dlp").string(), searchPath)) {
    return managed;
  }
  return findExecutable("yt-dlp", searchPath);
}

std::expected<Fetched, std::string> fetchLink(const LinkFetch& request) {
  const auto cookies = cookiesFrom(request);
  std::vector<std::string> common{"--ignore-config", "--no-playlist", "--no-warnings"};
  if (cookies) {
    common.insert(common.end(), {"--cookies-from-browser", *cookies});
  }
  if (!request.ffmpeg.empty()) {
    common.insert(common.end(), {"--ffmpeg-location", request.ffmpeg.string()});
  }

  // What the link offers, before anything is downloaded.
  auto arguments = common;
  arguments.insert(arguments.end(), {"--dump-single-json", request.link});
  const auto described = runDownloader(request, arguments, {});
  if (!described) {
    return std::unexpected(described.error());
  }
  if (described->exitCode != 0) {
    return std::unexpected(failed(request, *described, "read"));
  }
  auto probe = LinkDownload::readProbe(described->output, request.link);
  if (!probe) {
    return std::unexpected(
        fmt::format("cannot read {}: {}", LinkDownload::withoutCredentials(request.link), probe.error()));
  }

  const auto preferred = request.settings.preferredHeight;
  auto choice = LinkDownload::chooseHeight(probe->heights, preferred);
  if (!choice.offered && preferred > 0 && choice.height > 0) {
    std::optional<std::int64_t> asked;
    if (request.settings.askWhenUnavailable && request.askHeight) {
      asked = request.askHeight(probe->heights);
    }
    if (asked) {
      choice.height = *asked;
    } else if (request.note) {
      request.note(fmt::format("{}p is not offered; taking {}p ({})", preferred, choice.height,
                               choice.height < preferred ? "the nearest below" : "nothing is offered below it"));
    }
  }

  arguments = common;
  arguments.insert(
      arguments.end(),
      {"-f", LinkDownload::formatSelector(choice.height, request.settings.includeAudio), "--newline", "--progress",
       "--progress-template", std::string(LinkDownload::progressTemplate()), "--no-mtime", "--no-part", "-o",
       (request.staging / "%(title).100B.%(ext)s").string(), "--print", "after_move:filepath", request.link});
  fs::path file;
  const auto downloaded = runDownloader(request, arguments, [&](std::string_view line) {
    if (auto progress = LinkDownload::readProgress(line)) {
      if (request.progress) {
        request.progress(*progress);
      }
    } else if (line.starts_with(request.staging.string())) {
      file = fs::path(line);
    }
  });
  if (!downloaded) {
    return std::unexpected(downloaded.error());
  }
  if (downloaded->exitCode != 0) {
    return std::unexpected(failed(request, *downloaded, "download"));
  }
  std::error_code error;
  if (file.empty() || !fs::is_regular_file(file, error)) {
    return std::unexpected(
        fmt::format("cannot download {}: the downloader made no file", LinkDownload::withoutCredentials(request.link)));
  }
  if (!request.settings.includeAudio) {
    auto silent = withoutSound(request, file);
    if (!silent) {
      return std::unexpected(silent.error());
    }
    file = *silent;
  }
  return Fetched{file, std::move(probe->metadata)};
}

}  // namespace korvalen::engine
