#include "engine/library/library_import.hpp"

#include "core/library/library_rules.hpp"
#include "engine/file_hash.hpp"
#include "engine/flash_check.hpp"
#include "engine/library/library_store.hpp"
#include "engine/library/library_thumbnails.hpp"

#include <fmt/format.h>

#include <sys/stat.h>
#include <algorithm>

namespace korvalen::engine {
namespace fs = std::filesystem;

namespace {

constexpr std::string_view indexPage = "index.html";

bool isHidden(const fs::path& path) {
  return path.filename().string().starts_with('.');
}

bool isExecutableFile(const fs::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 0111U) != 0;
}

// What one pass of the decoder learned of a picture or video.
struct Survey {
  MediaInfo info;
  bool flashes = false;
  std::int64_t peak = 0;
  double posterSeconds = 0;
  std::optional<Picture> poster;  // made in the same pass, when it reached the poster's time
};

std::expected<Survey, std::string> survey(const fs::path& file, const MediaInfo& info, const ImportOptions& options,
                                          const std::function<void(double)>& fraction) {
  Survey result{info, false, 0, 0, std::nullopt};
  // A frame about a tenth into the clip, past an opening that shows nothing yet.
  const double target = info.duration && !info.animatedImage ? *info.duration * 0.1 : 0;
  Thumbnails::PosterChooser chooser(target);
  const auto size = Thumbnails::fitting(info.width, info.height);
  std::atomic<bool> found{false};
  std::optional<Picture> fallback;
  FlashCheck check;
  check.sampleBudget = guardSampleBudget;
  check.poster = {target, size.width, size.height, &found};
  const auto observe = [&](const DecodedFrame& frame) {
    const bool before = chooser.settled();
    chooser.observe(frame);
    if (!frame.poster.empty() && !found) {
      Picture picture;
      picture.width = size.width;
      picture.height = size.height;
      picture.bgra = frame.poster;
      if (chooser.settled() && !before) {
        result.poster = std::move(picture);
        found = true;
      } else if (!fallback) {
        fallback = std::move(picture);
      }
    }
    if (info.duration && *info.duration > 0) {
      fraction(std::clamp(frame.seconds / *info.duration, 0.0, 1.0));
    }
    return options.stop == nullptr || !options.stop->load();
  };
  auto report = checkForFlashes(file, check, nullptr, observe);
  if (!report) {
    return std::unexpected(report.error());
  }
  result.flashes = report->flashes;
  result.peak = report->peakFlashesPerSecond;
  result.posterSeconds = chooser.seconds();
  if (!result.poster) {
    result.poster = std::move(fallback);
  }
  return result;
}

std::int64_t sizeOf(const fs::path& path, bool isFolder) {
  std::error_code error;
  if (!isFolder) {
    const auto size = fs::file_size(path, error);
    return error ? 0 : static_cast<std::int64_t>(size);
  }
  std::int64_t total = 0;
  for (fs::recursive_directory_iterator entries(path, error), end; !error && entries != end; entries.increment(error)) {
    if (!entries->is_symlink(error) && entries->is_regular_file(error)) {
      total += static_cast<std::int64_t>(entries->file_size(error));
    }
  }
  return total;
}

// The host of a web address, for an item's source.
std::string hostOf(std::string_view address) {
  const auto start = address.find("://");
  auto rest = start == std::string_view::npos ? address : address.substr(start + 3);
  rest = rest.substr(0, rest.find_first_of("/?#"));
  if (const auto at = rest.rfind('@'); at != std::string_view::npos) {
    rest = rest.substr(at + 1);  // never the credentials
  }
  return std::string(rest);
}

class Importer {
 public:
  Importer(WallpaperLibrary& library, const ImportOptions& options) : library_(library), options_(options) {}

  ImportLine importOne(const ImportCandidate& candidate, const std::function<void(double)>& fraction) {
    ImportLine line{candidate.path.string(), ImportLine::Result::refused, "", std::nullopt, {}};
    const auto refuse = [&](std::string why) {
      line.detail = std::move(why);
      return line;
    };
    const auto& path = candidate.path;
    std::vector<LibraryRules::Held> held;
    held.reserve(library_.items().size());
    for (const auto& item : library_.items()) {
      held.push_back({item.id, item.sha256});
    }
    auto offer = considerImport(path, candidate.isFolder, held);
    if (offer.outcome.kind == ImportOutcome::Kind::rejected) {
      return refuse(offer.outcome.detail);
    }
    if (offer.outcome.kind == ImportOutcome::Kind::duplicate) {
      line.result = ImportLine::Result::duplicate;
      line.detail = offer.outcome.detail;
      return line;
    }
    const bool isFolder = offer.isFolder;

    LibraryItem item;
    item.kind = offer.kind;
    const auto& fetched = options_.fetchedFrom;
    item.title = LibraryRules::titleFor(path.string(), isFolder,
                                        options_.title || !fetched ? options_.title : std::optional(fetched->title));
    if (options_.webAddress) {
      item.sourceURL = options_.webAddress;
      item.allowNetwork = true;
      item.source = hostOf(*options_.webAddress);
    }
    if (fetched) {
      item.source = fetched->provider;
      item.sourceURL = fetched->sourceURL;
      item.author = fetched->author;
      item.authorURL = fetched->authorURL;
      item.licence = fetched->licence;
    }
    item.sha256 = offer.sha256.value_or("");  // the rules import nothing unhashed
    item.sizeBytes = sizeOf(path, isFolder);
    item.addedUTC = options_.now;
    std::optional<Survey> learned;
    if (item.kind == WallpaperKind::video || item.kind == WallpaperKind::image) {
      auto info = probeMedia(path);
      if (!info) {
        return refuse(fmt::format("it will not decode: {}", info.error()));
      }
      auto surveyed = survey(path, *info, options_, fraction);
      if (!surveyed) {
        if (surveyed.error() == cancelledText) {
          line.result = ImportLine::Result::cancelled;
          return line;
        }
        return refuse(fmt::format("it will not decode: {}", surveyed.error()));
      }
      learned = std::move(*surveyed);
      item.width = learned->info.width;
      item.height = learned->info.height;
      item.codec = learned->info.codec;
      if (item.kind == WallpaperKind::video) {
        item.durationSeconds = learned->info.duration;
        item.frameRate = learned->info.frameRate;
        item.hasAudio = learned->info.hasAudio;
      }
      if (learned->flashes) {
        item.flashedAt = options_.now;
        item.flashPeakPerSecond = learned->peak;
      }
    }
    item.fit = LibraryRules::defaultFit(item.width, item.height);

    item.id = library_.nextID();
    const auto parts = LibraryRules::relativePathFor(item.id, path.string(), isFolder);
    item.relativePath = fmt::format("{}", fmt::join(parts, "/"));
    auto staged = LibraryStore::stage(library_, item.id);
    if (!staged) {
      return refuse(staged.error());
    }
    if (auto done = build(*staged, path, isFolder, item, learned, line.notes); !done) {
      LibraryStore::discard(library_, item.id);
      if (done.error() == cancelledText) {
        line.result = ImportLine::Result::cancelled;
        return line;
      }
      return refuse(done.error());
    }
    if (item.kind == WallpaperKind::web && !cancelled()) {
      pictureOfPage(*staged, item, line.notes);
    }
    if (cancelled()) {
      LibraryStore::discard(library_, item.id);
      line.result = ImportLine::Result::cancelled;
      return line;
    }
    library_.add(item);
    if (auto saved = library_.save(); !saved) {
      library_.remove(item.id);
      LibraryStore::discard(library_, item.id);
      return refuse(saved.error());
    }
    // Saved: from here on the item exists, and a crash is finished by the next command.
    if (auto committed = LibraryStore::commit(library_, item.id); !committed) {
      line.detail = committed.error();
    }
    if (item.flashedAt && options_.rememberFlashing) {
      options_.rememberFlashing(fs::absolute(library_.pathOf(item)).lexically_normal().string(), options_.now,
                                item.flashPeakPerSecond);
    }
    line.result = ImportLine::Result::imported;
    line.item = std::move(item);
    return line;
  }

  [[nodiscard]] bool cancelled() const { return options_.stop != nullptr && options_.stop->load(); }

 private:
  // The item's folder as it will be: the copy and the thumbnail.
  // A page's still, measured for flashes while it was made, and its thumbnail made from it.
  // Without one the page is still imported, and the line says why.
  void pictureOfPage(const fs::path& staged, LibraryItem& item, std::vector<std::string>& notes) {
    if (!options_.webView) {
      notes.emplace_back("no still: korvalen-web is not installed beside korvalen or on PATH");
      return;
    }
    const WebStillRequest request{*options_.webView,
                                  WebPageSource::of(item, staged / fs::path(item.relativePath).filename()),
                                  options_.stillWidth, options_.stillHeight, options_.stop};
    const auto still = makeWebStill(request, staged / stillName);
    if (!still) {
      if (still.error() != cancelledText) {
        notes.push_back(fmt::format("no still: {}", still.error()));
      }
      return;
    }
    item.width = options_.stillWidth;
    item.height = options_.stillHeight;
    if (still->flashes) {
      item.flashedAt = options_.now;
      item.flashPeakPerSecond = still->peak;
      notes.push_back(fmt::format("it flashes ({} flashes/s at the peak)", still->peak));
    }
    if (auto made = thumbnailOfStill(options_.ffmpeg, staged / stillName, staged, item); !made) {
      notes.push_back(fmt::format("no thumbnail: {}", made.error()));
    }
  }

  std::expected<void, std::string> build(const fs::path& staged, const fs::path& source, bool isFolder,
                                         const LibraryItem& item, const std::optional<Survey>& learned,
                                         std::vector<std::string>& notes) {
    const auto copied =
        isFolder ? LibraryStore::copyTree(source, staged, options_.stop, &notes)
                 : LibraryStore::copyFile(source, staged / LibraryRules::lastComponent(source.string()), options_.stop);
    if (!copied) {
      return copied;
    }
    if (!learned) {
      return {};  // web pages get their picture when they are shown
    }
    // The measuring pass made the poster; decoded again only when it never reached its time
    // (a duration the file overstates).
    auto poster = learned->poster ? std::expected<Picture, std::string>(*learned->poster)
                                  : Thumbnails::posterFrame(source, learned->posterSeconds,
                                                            Thumbnails::fitting(item.width, item.height));
    if (!poster) {
      return std::unexpected(fmt::format("it will not decode: {}", poster.error()));
    }
    // Pictures that may be transparent keep it in PNG; everything else is a JPEG.
    const bool png = item.kind == WallpaperKind::image && item.codec &&
                     (*item.codec == "png" || *item.codec == "apng" || *item.codec == "gif" || *item.codec == "webp");
    return Thumbnails::writePicture(options_.ffmpeg, *poster, staged / (png ? "thumbnail.png" : "thumbnail.jpg"));
  }

  WallpaperLibrary& library_;
  const ImportOptions& options_;
};

}  // namespace

std::expected<void, std::string> thumbnailOfStill(const fs::path& ffmpeg, const fs::path& still, const fs::path& folder,
                                                  const LibraryItem& item) {
  auto picture = Thumbnails::posterFrame(still, 0, Thumbnails::fitting(item.width, item.height));
  if (!picture) {
    return std::unexpected(picture.error());
  }
  return Thumbnails::writePicture(ffmpeg, *picture, folder / "thumbnail.jpg");
}

std::expected<MediaInfo, std::string> probeMedia(const fs::path& file) {
  DecoderOptions options;
  options.queue = 1;
  options.sampleBudget = 1;  // the probe looks at one frame, and at as little of it as can be
  auto first = Thumbnails::firstFrame(file, options);
  if (!first) {
    return std::unexpected(first.error());
  }
  return std::move(first->info);
}

ImportOffer considerImport(const fs::path& path, bool folder, const std::vector<LibraryRules::Held>& held) {
  ImportOffer offer;
  std::error_code error;
  const auto status = fs::status(path, error);
  offer.exists = fs::exists(status);
  offer.isFolder = folder || fs::is_directory(status);
  offer.file = (offer.isFolder ? path / indexPage : path).string();
  const bool hasIndex = offer.isFolder && fs::is_regular_file(offer.file, error);
  offer.kind = LibraryRules::kindOf(offer.file);
  offer.entersLibrary =
      LibraryRules::entersLibrary(path.string(), offer.exists && !offer.isFolder && isExecutableFile(path));
  if (!offer.entersLibrary) {
    offer.outcome = ImportOutcome::rejected("programs, scripts and application bundles never enter the library");
    return offer;
  }
  // Only a wallpaper's content is read: a large file of another kind is refused unread.
  if (offer.exists && (!offer.isFolder || hasIndex) && offer.kind != WallpaperKind::none) {
    auto hashed = offer.isFolder ? sha256OfTree(path) : sha256OfFile(path);
    if (!hashed) {
      offer.outcome = ImportOutcome::rejected(hashed.error());
      return offer;
    }
    offer.sha256 = std::move(*hashed);
  }
  offer.outcome = LibraryRules::decideImport(offer.exists, offer.isFolder, hasIndex, offer.file, offer.sha256, held);
  return offer;
}

std::string_view toString(ImportLine::Result result) {
  switch (result) {
    case ImportLine::Result::imported:
      return "imported";
    case ImportLine::Result::duplicate:
      return "duplicate";
    case ImportLine::Result::refused:
      return "refused";
    case ImportLine::Result::cancelled:
      return "cancelled";
  }
  return "refused";
}

std::vector<ImportCandidate> gatherCandidates(const std::vector<fs::path>& paths) {
  std::vector<ImportCandidate> out;
  for (const auto& path : paths) {
    std::error_code error;
    if (!fs::is_directory(path, error) || fs::is_regular_file(path / indexPage, error)) {
      out.push_back({path, fs::is_directory(path, error)});
      continue;
    }
    std::vector<ImportCandidate> found;
    fs::recursive_directory_iterator entries(path, fs::directory_options::skip_permission_denied, error);
    for (auto entry = fs::begin(entries); !error && entry != fs::end(entries); entry.increment(error)) {
      if (isHidden(entry->path())) {
        if (entry->is_directory(error)) {
          entry.disable_recursion_pending();
        }
        continue;
      }
      if (entry->is_directory(error)) {
        if (fs::is_regular_file(entry->path() / indexPage, error)) {
          found.push_back({entry->path(), true});
          entry.disable_recursion_pending();
        }
      } else if (entry->is_regular_file(error)) {
        found.push_back({entry->path(), false});
      }
    }
    if (found.empty()) {
      out.push_back({path, true});  // refused by the rules: no index page, nothing in it
      continue;
    }
    std::sort(found.begin(), found.end(),
              [](const ImportCandidate& a, const ImportCandidate& b) { return a.path < b.path; });
    out.insert(out.end(), found.begin(), found.end());
  }
  return out;
}

std::vector<ImportLine> importInto(WallpaperLibrary& library, const std::vector<ImportCandidate>& candidates,
                                   const ImportOptions& options) {
  Importer importer(library, options);
  std::vector<ImportLine> lines;
  ImportProgress progress;
  progress.filesTotal = candidates.size();
  for (const auto& candidate : candidates) {
    if (importer.cancelled()) {
      lines.push_back({candidate.path.string(), ImportLine::Result::cancelled, "", std::nullopt, {}});
      break;
    }
    progress.current = candidate.path.filename().string();
    progress.fraction.reset();
    if (options.progress) {
      options.progress(progress);
    }
    auto line = importer.importOne(candidate, [&](double fraction) {
      progress.fraction = fraction;
      if (options.progress) {
        options.progress(progress);
      }
    });
    const bool stopped = line.result == ImportLine::Result::cancelled;
    lines.push_back(std::move(line));
    ++progress.filesDone;
    if (stopped) {
      break;
    }
  }
  return lines;
}

}  // namespace korvalen::engine
