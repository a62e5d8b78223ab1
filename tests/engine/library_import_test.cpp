#include "engine/library/library_import.hpp"

#include "engine/file_hash.hpp"
#include "engine/library/library_store.hpp"
#include "engine/library/library_thumbnails.hpp"
#include "engine/ping_pong_builder.hpp"
#include "engine/process.hpp"
#include "support/clips.hpp"
#include "support/param_name.hpp"
#include "support/temp_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvalen::engine {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::TempFolder;
using testing::writeText;

// Media made by the real ffmpeg, imported into a real library folder.
class LibraryImport : public ::testing::Test {
 protected:
  void SetUp() override {
    ffmpeg = testing::ffmpegOnPath();
    options.ffmpeg = ffmpeg;
    options.now = *ISO8601::plain().parse("2026-11-22T10:00:00Z");
    options.stop = &stop;
    options.rememberFlashing = [this](const std::string& path, Date, std::int64_t peak) {
      remembered.emplace_back(path, peak);
    };
  }

  fs::path make(const std::string& name, const std::vector<std::string>& arguments) {
    const auto path = folder / ("media/" + name);
    testing::makeMedia(ffmpeg, path, arguments);
    return path;
  }

  // Two seconds of black, then bars: a poster must not be the black opening.
  fs::path fadeInClip() {
    return make("fade in.mp4", {"-f",
                                "lavfi",
                                "-i",
                                "color=black:s=320x180:r=30:d=2",
                                "-f",
                                "lavfi",
                                "-i",
                                "testsrc2=s=320x180:r=30:d=4",
                                "-f",
                                "lavfi",
                                "-i",
                                "sine=frequency=440:duration=6",
                                "-filter_complex",
                                "[0][1]concat=n=2:v=1:a=0[v]",
                                "-map",
                                "[v]",
                                "-map",
                                "2",
                                "-c:v",
                                "libx264",
                                "-preset",
                                "ultrafast",
                                "-pix_fmt",
                                "yuv420p",
                                "-c:a",
                                "aac"});
  }

  std::vector<ImportLine> import(const std::vector<fs::path>& paths) {
    return importInto(library, gatherCandidates(paths), options);
  }

  // Every file below the library folder but the lock, relative to it.
  std::vector<std::string> libraryFiles() const {
    std::vector<std::string> out;
    std::error_code error;
    for (fs::recursive_directory_iterator entries(library.folder(), error), end; !error && entries != end;
         entries.increment(error)) {
      const auto relative = entries->path().lexically_relative(library.folder()).string();
      if (relative != ".lock") {
        out.push_back(relative);
      }
    }
    std::sort(out.begin(), out.end());
    return out;
  }

  TempFolder folder;
  fs::path ffmpeg;
  WallpaperLibrary library = WallpaperLibrary::load(folder / "Library").library;
  std::atomic<bool> stop{false};
  ImportOptions options;
  std::vector<std::pair<std::string, std::int64_t>> remembered;
};

TEST_F(LibraryImport, AVideoLearnsWhatItIsAndGetsAPosterPastItsBlackOpening) {
  const auto lines = import({fadeInClip()});
  ASSERT_EQ(lines.size(), 1U);
  ASSERT_EQ(lines[0].result, ImportLine::Result::imported) << lines[0].detail;
  const auto& item = *library.find("1");
  EXPECT_EQ(item.kind, WallpaperKind::video);
  EXPECT_EQ(item.title, "fade in");
  EXPECT_EQ(item.relativePath, "items/1/fade in.mp4");
  EXPECT_EQ(item.width, 320);
  EXPECT_EQ(item.height, 180);
  ASSERT_TRUE(item.durationSeconds);
  EXPECT_NEAR(*item.durationSeconds, 6, 0.1);
  EXPECT_EQ(item.frameRate, 30);
  EXPECT_EQ(item.codec, "h264");
  EXPECT_EQ(item.hasAudio, true);
  EXPECT_EQ(item.fit, FitMode::fill);
  EXPECT_EQ(item.sha256, *sha256OfFile(folder / "media/fade in.mp4"));
  EXPECT_EQ(item.sizeBytes, static_cast<std::int64_t>(fs::file_size(folder / "media/fade in.mp4")));
  EXPECT_EQ(item.addedUTC, options.now);
  EXPECT_FALSE(item.flashedAt);
  EXPECT_TRUE(remembered.empty());
  EXPECT_THAT(libraryFiles(),
              ElementsAre("items", "items/1", "items/1/fade in.mp4", "items/1/thumbnail.jpg", "library.json"));
  // The saved library holds it, and the copy is the file.
  EXPECT_EQ(WallpaperLibrary::load(library.folder()).library.items().size(), 1U);
  EXPECT_EQ(*sha256OfFile(library.pathOf(item)), item.sha256);
  const auto poster = Thumbnails::readPicture(folder / "Library/items/1/thumbnail.jpg");
  ASSERT_TRUE(poster) << poster.error();
  EXPECT_EQ(poster->width, 320);
  EXPECT_EQ(poster->height, 180);
  DecodedFrame frame;
  frame.pixels = poster->bgra;
  frame.width = poster->width;
  frame.height = poster->height;
  EXPECT_TRUE(Thumbnails::hasContent(frame)) << "the poster is the black opening";
}

TEST_F(LibraryImport, PicturesAnimationsAndWebPages) {
  const auto portrait = make("tall.png", {"-f", "lavfi", "-i", "testsrc2=s=360x640", "-frames:v", "1"});
  const auto animation = make("spin.gif", {"-f", "lavfi", "-i", "testsrc2=s=200x150:r=10:d=1"});
  fs::create_directories(folder / "media/site/css");
  writeText(folder / "media/site/index.html", "<html><body>hello</body></html>");
  writeText(folder / "media/site/css/style.css", "body { color: red }");
  writeText(folder / "media/page.html", "<html>page</html>");
  const auto lines = import({portrait, animation, folder / "media/site", folder / "media/page.html"});
  ASSERT_EQ(lines.size(), 4U);
  for (const auto& line : lines) {
    EXPECT_EQ(line.result, ImportLine::Result::imported) << line.source << ": " << line.detail;
  }
  const auto& tall = *library.find("1");
  EXPECT_EQ(tall.kind, WallpaperKind::image);
  EXPECT_EQ(tall.fit, FitMode::fit);  // portrait pictures are shown whole
  EXPECT_EQ(tall.codec, "png");
  EXPECT_FALSE(tall.durationSeconds);
  EXPECT_FALSE(tall.hasAudio);
  const auto thumbnail = Thumbnails::readPicture(folder / "Library/items/1/thumbnail.png");
  ASSERT_TRUE(thumbnail) << thumbnail.error();
  EXPECT_EQ(thumbnail->width, 101);
  EXPECT_EQ(thumbnail->height, 180);
  EXPECT_EQ(library.find("2")->codec, "gif");
  EXPECT_TRUE(fs::exists(folder / "Library/items/2/thumbnail.png"));
  const auto& site = *library.find("3");
  EXPECT_EQ(site.kind, WallpaperKind::web);
  EXPECT_EQ(site.title, "site");
  EXPECT_EQ(site.relativePath, "items/3/index.html");
  EXPECT_EQ(testing::readText(folder / "Library/items/3/css/style.css"), "body { color: red }");
  EXPECT_EQ(site.sha256, *sha256OfTree(folder / "media/site"));
  EXPECT_EQ(library.find("4")->relativePath, "items/4/page.html");
  EXPECT_FALSE(fs::exists(folder / "Library/items/4/thumbnail.jpg"));
}

TEST_F(LibraryImport, TheSameContentTwiceIsOneItem) {
  const auto clip = fadeInClip();
  fs::copy_file(clip, folder / "media/renamed.mp4");
  ASSERT_EQ(import({clip}).at(0).result, ImportLine::Result::imported);
  const auto before = libraryFiles();
  const auto again = import({clip, folder / "media/renamed.mp4"});
  ASSERT_EQ(again.size(), 2U);
  for (const auto& line : again) {
    EXPECT_EQ(line.result, ImportLine::Result::duplicate);
    EXPECT_EQ(line.detail, "1");
  }
  EXPECT_EQ(library.items().size(), 1U);
  EXPECT_EQ(libraryFiles(), before);
}

struct Refusal {
  std::string name;
  std::string file;     // written with `content` under media/
  std::string content;  // empty: the path does not exist
  std::string reason;
};

class Refusals : public LibraryImport, public ::testing::WithParamInterface<Refusal> {};

// Each refusal leaves nothing behind: no item, no copy, no thumbnail.
TEST_P(Refusals, LeaveNothingBehind) {
  const auto path = folder / ("media/" + GetParam().file);
  if (!GetParam().content.empty()) {
    fs::create_directories(path.parent_path());
    writeText(path, GetParam().content);
  }
  const auto lines = import({path});
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].result, ImportLine::Result::refused);
  EXPECT_THAT(lines[0].detail, HasSubstr(GetParam().reason));
  EXPECT_TRUE(library.items().empty());
  EXPECT_THAT(libraryFiles(), ElementsAre());
  EXPECT_EQ(library.nextID(), "1");
}

INSTANTIATE_TEST_SUITE_P(
    Library, Refusals,
    ::testing::Values(Refusal{"Undecodable", "broken.mp4", std::string(4096, 'x'), "it will not decode: "},
                      Refusal{"NotMedia", "notes.txt", "hello", "'.txt' is not a supported wallpaper type"},
                      Refusal{"NoExtension", "README", "hello", "'' is not a supported wallpaper type"},
                      Refusal{"Missing", "gone.mp4", "", "file not found"},
                      Refusal{"InsideAnApp", "Tool.app/movie.mp4", "x", "never enter the library"},
                      Refusal{"Script", "run.sh", "echo", "never enter the library"},
                      Refusal{"PictureThatIsNot", "photo.jpg", "not a jpeg at all", "it will not decode: "}),
    testing::ByName{});

TEST_F(LibraryImport, AFolderOfMediaImportsEachFileAndRefusesTheRest) {
  make("collection/b.mp4", {"-f", "lavfi", "-i", "testsrc2=s=160x90:r=10:d=1", "-c:v", "libx264", "-preset",
                            "ultrafast", "-pix_fmt", "yuv420p"});
  make("collection/deeper/a.png", {"-f", "lavfi", "-i", "testsrc2=s=160x90", "-frames:v", "1"});
  writeText(folder / "media/collection/notes.txt", "n");
  writeText(folder / "media/collection/.hidden.mp4", "x");
  fs::create_directories(folder / "media/collection/site");
  writeText(folder / "media/collection/site/index.html", "<html></html>");
  const auto lines = import({folder / "media/collection"});
  std::vector<std::string> results;
  for (const auto& line : lines) {
    results.push_back(fs::path(line.source).filename().string() + " " + std::string(toString(line.result)));
  }
  EXPECT_THAT(results, ElementsAre("b.mp4 imported", "a.png imported", "notes.txt refused", "site imported"));
  EXPECT_EQ(library.items().size(), 3U);
  // A folder with nothing in it is refused by the rules' own words.
  fs::create_directories(folder / "media/empty");
  const auto empty = import({folder / "media/empty"});
  ASSERT_EQ(empty.size(), 1U);
  EXPECT_EQ(empty[0].detail, "folder has no index.html");
}

TEST_F(LibraryImport, AFlashingClipIsMarkedAndRemembered) {
  const auto clip = make("strobe.mp4", {"-f", "lavfi", "-i",
                                        "color=c=black:s=160x120:r=30,format=gray,geq=lum='if(lt(mod(T\\,0.2)\\,0.1)"
                                        "\\,255\\,0)'",
                                        "-t", "3", "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
  const auto lines = import({clip});
  ASSERT_EQ(lines.at(0).result, ImportLine::Result::imported) << lines[0].detail;
  const auto& item = *library.find("1");
  EXPECT_EQ(item.flashedAt, options.now);
  EXPECT_EQ(item.flashPeakPerSecond, 5);
  ASSERT_EQ(remembered.size(), 1U);
  EXPECT_EQ(remembered[0].first, fs::absolute(folder / "Library/items/1/strobe.mp4").string());
  EXPECT_EQ(remembered[0].second, 5);
}

TEST_F(LibraryImport, StoppedImportsLeaveNoHalfItem) {
  const auto clip = fadeInClip();
  stop = true;
  const auto lines = import({clip, clip});
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].result, ImportLine::Result::cancelled);
  EXPECT_TRUE(library.items().empty());
  EXPECT_THAT(libraryFiles(), ElementsAre());
  // Stopped in the middle of the measuring pass.
  stop = false;
  int frames = 0;
  options.progress = [&](const ImportProgress& progress) {
    if (progress.fraction && ++frames == 10) {
      stop = true;
    }
  };
  const auto midway = import({clip});
  EXPECT_EQ(midway.at(0).result, ImportLine::Result::cancelled);
  EXPECT_THAT(libraryFiles(), ElementsAre());
}

TEST_F(LibraryImport, RemovalDeletesTheFilesAndForgottenCopies) {
  ASSERT_EQ(import({fadeInClip()}).at(0).result, ImportLine::Result::imported);
  const auto sha = library.find("1")->sha256;
  const auto root = folder / "Korvalen";
  const auto copy = PingPong::cachePath(root, sha, 0, std::numeric_limits<double>::infinity());
  fs::create_directories(copy.parent_path());
  writeText(copy, "copy");
  writeText(PingPongBuilder::manifestURL(copy),
            json::pretty(json::encode(PingPongManifest{.sourceSha256 = sha, .sourceLengthBytes = 1})));
  const auto other = PingPong::cachePath(root, std::string(64, 'a'), 0, 1);
  writeText(other, "other");
  auto removed = LibraryStore::remove(library, "1");
  ASSERT_TRUE(removed) << removed.error();
  EXPECT_EQ(removed->id, "1");
  EXPECT_THAT(libraryFiles(), ElementsAre("items", "library.json"));
  EXPECT_TRUE(WallpaperLibrary::load(library.folder()).library.items().empty());
  EXPECT_THAT(PingPongBuilder::forgetCopies(root, sha), ElementsAre(copy));
  EXPECT_FALSE(fs::exists(copy));
  EXPECT_FALSE(fs::exists(PingPongBuilder::manifestURL(copy)));
  EXPECT_TRUE(fs::exists(other));
  EXPECT_FALSE(LibraryStore::remove(library, "1"));
}

// What a killed command leaves in the staging folders is settled by the saved library.
TEST(LibraryStore, RecoveryFinishesWhatWasSavedAndDeletesTheRest) {
  TempFolder folder;
  auto library = WallpaperLibrary::load(folder.path()).library;
  for (const std::string id : {"1", "2", "3"}) {
    LibraryItem item;
    item.id = id;
    item.kind = WallpaperKind::video;
    item.relativePath = "items/" + id + "/a.mp4";
    item.sha256 = id;
    ASSERT_TRUE(library.add(item));
  }
  ASSERT_TRUE(library.save());
  writeText(folder / "incoming/2/a.mp4", "saved, not yet moved");  // killed after the save
  writeText(folder / "incoming/7/a.mp4", "never saved");           // killed before it
  writeText(folder / "outgoing/3/a.mp4", "set aside, not forgotten");
  writeText(folder / "outgoing/8/a.mp4", "forgotten, not deleted");
  writeText(folder / "items/1/a.mp4", "settled");
  writeText(folder / "library.json.tmp-abcdef", "a save killed part-way");
  const auto lines = LibraryStore::recover(library);
  EXPECT_EQ(lines.size(), 4U);
  EXPECT_EQ(testing::readText(folder / "items/2/a.mp4"), "saved, not yet moved");
  EXPECT_EQ(testing::readText(folder / "items/3/a.mp4"), "set aside, not forgotten");
  EXPECT_THAT(folder.entries(), ElementsAre("items", "items/1", "items/1/a.mp4", "items/2", "items/2/a.mp4", "items/3",
                                            "items/3/a.mp4", "library.json"));
  EXPECT_TRUE(LibraryStore::recover(library).empty());
}

TEST(LibraryStore, TheLockIsHeldByOneAtATime) {
  TempFolder folder;
  auto held = LibraryLock::acquire(folder.path());
  ASSERT_TRUE(held) << held.error();
  EXPECT_FALSE(LibraryLock::tryAcquire(folder.path()));
  { auto moved = std::move(*held); }
  EXPECT_TRUE(LibraryLock::tryAcquire(folder.path()));
}

TEST(LibraryStore, CopiesAreWholeAndAStoppedCopyLeavesNothing) {
  TempFolder folder;
  std::string content(3 << 20, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) {
    content[i] = static_cast<char>(i * 7 % 251);
  }
  writeText(folder / "big.bin", content);
  ASSERT_TRUE(LibraryStore::copyFile(folder / "big.bin", folder / "copy.bin"));
  EXPECT_EQ(testing::readText(folder / "copy.bin"), content);
  EXPECT_FALSE(LibraryStore::copyFile(folder / "none.bin", folder / "x.bin"));
  const std::atomic<bool> stopped{true};
  fs::create_directories(folder / "tree/sub");
  writeText(folder / "tree/sub/a.txt", "a");
  ASSERT_TRUE(LibraryStore::copyTree(folder / "tree", folder / "tree-copy"));
  EXPECT_EQ(testing::readText(folder / "tree-copy/sub/a.txt"), "a");
  // Where the file system clones, a copy is done before it could be stopped.
  const auto stoppedCopy = LibraryStore::copyFile(folder / "big.bin", folder / "stopped.bin", &stopped);
  EXPECT_EQ(fs::exists(folder / "stopped.bin"), stoppedCopy.has_value());
}

TEST(FileHash, ATreeHashesByItsFilesAndTheirPlaces) {
  TempFolder folder;
  writeText(folder / "a/index.html", "x");
  writeText(folder / "a/css/s.css", "y");
  writeText(folder / "b/index.html", "x");
  writeText(folder / "b/css/s.css", "y");
  EXPECT_EQ(*sha256OfTree(folder / "a"), *sha256OfTree(folder / "b"));
  fs::rename(folder / "b/css", folder / "b/style");
  EXPECT_NE(*sha256OfTree(folder / "a"), *sha256OfTree(folder / "b"));
  writeText(folder / "a/css/s.css", "z");
  EXPECT_NE(*sha256OfTree(folder / "a"), *sha256OfFile(folder / "a/index.html"));
  EXPECT_FALSE(sha256OfTree(folder / "none"));
}

struct Fitting {
  std::string name;
  std::int64_t width, height;
  Thumbnails::Size expected;
};

class ThumbnailSizes : public ::testing::TestWithParam<Fitting> {};

TEST_P(ThumbnailSizes, KeepProportionsWithinTheBox) {
  EXPECT_EQ(Thumbnails::fitting(GetParam().width, GetParam().height), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Library, ThumbnailSizes,
                         ::testing::Values(Fitting{"Wide", 1920, 1080, {320, 180}},
                                           Fitting{"Portrait", 1080, 1920, {101, 180}},
                                           Fitting{"FourThree", 640, 480, {240, 180}},
                                           Fitting{"Cinema", 4096, 1716, {320, 134}},
                                           Fitting{"Small", 100, 50, {100, 50}}, Fitting{"Sliver", 40000, 10, {320, 1}},
                                           Fitting{"Unknown", 0, 0, {320, 180}}),
                         testing::ByName{});

DecodedFrame uniform(std::uint8_t level) {
  DecodedFrame frame;
  frame.width = 16;
  frame.height = 16;
  frame.pixels.assign(16 * 16 * 4, level);
  return frame;
}

DecodedFrame bars(double seconds) {
  auto frame = uniform(0);
  for (std::size_t at = 0; at < frame.pixels.size(); at += 4) {
    const auto level = static_cast<std::uint8_t>((at / 4) % 16 < 8 ? 40 : 220);
    frame.pixels[at] = frame.pixels[at + 1] = frame.pixels[at + 2] = level;
  }
  frame.seconds = seconds;
  return frame;
}

TEST(Poster, SkipsBlackAndFlatFramesWhenLaterOnesHaveContent) {
  EXPECT_FALSE(Thumbnails::hasContent(uniform(0)));
  EXPECT_FALSE(Thumbnails::hasContent(uniform(8)));
  EXPECT_FALSE(Thumbnails::hasContent(uniform(128)));  // a flat title card
  EXPECT_TRUE(Thumbnails::hasContent(bars(0)));
  EXPECT_FALSE(Thumbnails::hasContent(DecodedFrame{}));

  Thumbnails::PosterChooser chooser(1.0);
  for (double t = 0; t < 3; t += 0.5) {
    auto frame = t < 2 ? uniform(4) : bars(t);
    frame.seconds = t;
    chooser.observe(frame);
  }
  EXPECT_TRUE(chooser.settled());
  EXPECT_EQ(chooser.seconds(), 2.0);
  // Content before the target does not count; nothing with content after it: the target.
  Thumbnails::PosterChooser dark(1.0);
  dark.observe(bars(0.5));
  for (double t = 1; t < 3; t += 0.5) {
    auto frame = uniform(4);
    frame.seconds = t;
    dark.observe(frame);
  }
  EXPECT_FALSE(dark.settled());
  EXPECT_EQ(dark.seconds(), 1.0);
}

}  // namespace
}  // namespace korvalen::engine
