// `library add LINK` with the real downloader (Debian's yt-dlp) against a web server on this
// machine (Python's), serving media made by the real ffmpeg.
#include "cli/cli_fixture.hpp"
#include "core/diagnostics/log.hpp"
#include "core/support/json.hpp"
#include "engine/process.hpp"
#include "support/clips.hpp"
#include "support/web_server.hpp"

#include <fmt/format.h>

#include <csignal>
#include <fstream>
#include <thread>

namespace korvalen::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::Not;
using testing::readText;

class LinkDownloads : public Cli {
 protected:
  void SetUp() override {
    ffmpeg = systemFfmpeg();
    if (!engine::findExecutable("yt-dlp", environment["PATH"])) {
      GTEST_FAIL() << "these tests need yt-dlp (scripts/setup.sh installs it)";
    }
    environment["XDG_DATA_HOME"] = (folder / "data").string();
    environment["HOME"] = (folder / "home").string();
    // Never a check of the downloader's releases on the network (the tools tests try that).
    ASSERT_EQ(run({"settings", "set", "tools.autoUpdateDownloader=false"}).status, ok);
    fs::create_directories(folder / "site");
    // A clip with sound, one with a poster-worthy picture, and an HLS stream in two heights.
    testing::makeMedia(ffmpeg, folder / "site/sea.mp4",
                       {"-f", "lavfi", "-i", "testsrc2=s=320x180:r=25:d=2", "-f", "lavfi", "-i", "sine=duration=2",
                        "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest"});
    std::ofstream(folder / "site/page.html") << "<html><body>No video here.</body></html>";
    server.emplace(folder / "site");
    ASSERT_FALSE(server->base().empty()) << server->error();
    base = server->base();
  }
  // An HLS stream in three heights, with the master playlist that offers them.
  void makeStream() {
    fs::create_directories(folder / "site/hls");
    const std::vector<std::string> arguments{"-v",
                                             "error",
                                             "-f",
                                             "lavfi",
                                             "-i",
                                             "testsrc2=s=1920x1080:r=10:d=1",
                                             "-filter_complex",
                                             "[0:v]split=3[a][b][c];[b]scale=1280:720[d];[c]scale=640:360[e]",
                                             "-map",
                                             "[a]",
                                             "-map",
                                             "[d]",
                                             "-map",
                                             "[e]",
                                             "-c:v",
                                             "libx264",
                                             "-preset",
                                             "ultrafast",
                                             "-pix_fmt",
                                             "yuv420p",
                                             "-f",
                                             "hls",
                                             "-hls_time",
                                             "1",
                                             "-hls_playlist_type",
                                             "vod",
                                             "-var_stream_map",
                                             "v:0 v:1 v:2",
                                             (folder / "site/hls/v%v.m3u8").string()};
    const auto made = engine::run(ffmpeg, arguments);
    ASSERT_TRUE(made && made->exitCode == 0) << (made ? made->error : made.error());
    std::ofstream(folder / "site/hls/master.m3u8") << "#EXTM3U\n"
                                                      "#EXT-X-STREAM-INF:BANDWIDTH=4000000,RESOLUTION=1920x1080\n"
                                                      "v0.m3u8\n"
                                                      "#EXT-X-STREAM-INF:BANDWIDTH=2000000,RESOLUTION=1280x720\n"
                                                      "v1.m3u8\n"
                                                      "#EXT-X-STREAM-INF:BANDWIDTH=800000,RESOLUTION=640x360\n"
                                                      "v2.m3u8\n";
  }

  json::Json item(const std::string& id) {
    const auto shown = run({"library", "show", id, "--json"});
    EXPECT_EQ(shown.status, ok) << shown.err;
    return json::parse(shown.out).value_or(json::Json());
  }
  [[nodiscard]] fs::path libraryFolder() const { return folder / "data/Korvalen/Library"; }
  void setting(const std::string& assignment) { ASSERT_EQ(run({"settings", "set", assignment}).status, ok); }

  // The log lines written so far, one a line, as the platform writes them.
  [[nodiscard]] std::string logged() const {
    std::string all;
    for (const auto& line : log.lines()) {
      all += log::formatLine(line) + "\n";
    }
    return all;
  }

  log::Capture log;
  fs::path ffmpeg;
  std::optional<testing::WebServer> server;
  std::string base;
};

TEST_F(LinkDownloads, ALinkIsImportedWithWhereItCameFromAndNoCredentialAnywhere) {
  const auto link = base + "/sea.mp4?token=abcdefgh12&v=1";
  const auto withSecrets = "http://mary:s3cretpw@" + base.substr(7) + "/sea.mp4?token=abcdefgh12&v=1";
  const auto added = run({"library", "add", withSecrets});
  ASSERT_EQ(added.status, ok) << added.err;
  const auto clean = base + "/sea.mp4?v=1";
  EXPECT_THAT(added.out, HasSubstr("imported " + clean + " as item 1: video \"sea\", 320x180"));
  EXPECT_THAT(logged(), HasSubstr("download default: downloading " + clean + "\n"));
  EXPECT_THAT(logged(), HasSubstr("download default: downloaded " + clean + ": sea.mp4\n"));
  auto imported = item("1");
  EXPECT_EQ(imported["source"], "127.0.0.1:" + base.substr(base.rfind(':') + 1));
  EXPECT_EQ(imported["sourceURL"], clean);
  EXPECT_EQ(imported["relativePath"], "items/1/sea.mp4");
  // includeAudio is off by default: the sound track is gone, the picture untouched.
  EXPECT_EQ(imported["hasAudio"], false);
  EXPECT_EQ(imported["codec"], "h264");
  EXPECT_FALSE(fs::exists(libraryFolder() / ".downloads"));
  const auto library = readText(libraryFolder() / "library.json");
  for (const auto* secret : {"s3cretpw", "abcdefgh12", "mary"}) {
    EXPECT_THAT(added.out + added.err + logged() + library, Not(HasSubstr(secret))) << secret;
  }
  // The same content again is a duplicate, however it comes.
  const auto again = run({"library", "add", link});
  EXPECT_EQ(again.status, ok) << again.err;
  EXPECT_THAT(again.out, HasSubstr(link.substr(0, link.find('?')) + "?v=1: already in the library as item 1"));

  // With sound asked for, the sound stays.
  fs::remove_all(folder / "data/Korvalen/Library");
  setting("import.includeAudio=true");
  ASSERT_EQ(run({"library", "add", base + "/sea.mp4"}).status, ok);
  EXPECT_EQ(item("1")["hasAudio"], true);
}

TEST_F(LinkDownloads, TheHeightPreferredOrTheNearestAndAskedOnATerminal) {
  ASSERT_NO_FATAL_FAILURE(makeStream());
  const auto stream = base + "/hls/master.m3u8";
  struct Case {
    std::int64_t preferred;
    std::int64_t height;
    std::string notice;
  };
  for (const auto& c : std::vector<Case>{
           {720, 720, ""},
           {0, 1080, ""},
           // Not offered: off a terminal, the nearest below, said in one line.
           {480, 360, "note: 480p is not offered; taking 360p (the nearest below)\n"},
           {240, 360, "note: 240p is not offered; taking 360p (nothing is offered below it)\n"},
       }) {
    fs::remove_all(libraryFolder());
    setting(fmt::format("import.preferredHeight={}", c.preferred));
    const auto added = run({"library", "add", stream});
    ASSERT_EQ(added.status, ok) << added.out << added.err;
    EXPECT_EQ(item("1")["height"], c.height) << c.preferred;
    EXPECT_EQ(added.err, c.notice);  // and no progress off a terminal
  }

  // On a terminal it asks, and takes the answer (after a wrong one), with a progress line.
  fs::remove_all(libraryFolder());
  setting("import.preferredHeight=480");
  interactive = true;
  input = "1440\n720p\n";
  const auto added = run({"library", "add", stream});
  ASSERT_EQ(added.status, ok) << added.err;
  EXPECT_THAT(added.err, HasSubstr("480p is not offered; offered: 360p, 720p, 1080p. Which height?"));
  EXPECT_THAT(added.err, HasSubstr("one of 360p, 720p, 1080p, please"));
  EXPECT_THAT(added.err, HasSubstr("% of "));
  EXPECT_EQ(item("1")["height"], 720);
}

TEST_F(LinkDownloads, APageWithAVideoElement) {
  std::ofstream(folder / "site/watch.html") << "<html><head><title>Harbour at dawn</title></head><body><video "
                                               "src=\"sea.mp4\" controls></video></body></html>";
  const auto added = run({"library", "add", base + "/watch.html"});
  ASSERT_EQ(added.status, ok) << added.out << added.err;
  const auto imported = item("1");
  EXPECT_EQ(imported["width"], 320);
  EXPECT_EQ(imported["sourceURL"], base + "/watch.html");
}

TEST_F(LinkDownloads, AFailedDownloadLeavesNothingAndSaysWhyInOneLine) {
  struct Case {
    std::string link;
    std::string reason;
  };
  for (const auto& c : std::vector<Case>{
           {base + "/none.mp4", "HTTP Error 404"},
           {base + "/page.html", "Unsupported URL"},
           {"http://127.0.0.1:9/clip.mp4", "Connection refused"},
       }) {
    const auto added = run({"library", "add", c.link});
    EXPECT_EQ(added.status, failed) << c.link;
    EXPECT_THAT(added.out, HasSubstr("refused " + c.link + ": cannot read " + c.link + ": ")) << added.out;
    EXPECT_THAT(added.out, HasSubstr(c.reason));
    EXPECT_EQ(std::count(added.out.begin(), added.out.end(), '\n'), 1) << added.out;
    EXPECT_THAT(logged(), HasSubstr("download error: download of " + c.link + " ended: cannot read"));
    EXPECT_FALSE(fs::exists(libraryFolder() / ".downloads"));
    EXPECT_FALSE(fs::exists(libraryFolder() / "items/1"));
  }
  // A server that stops halfway: read, but not downloaded.
  const auto broken = run({"library", "add", base + "/broken/sea.mp4"});
  EXPECT_EQ(broken.status, failed);
  EXPECT_THAT(broken.out,
              HasSubstr("refused " + base + "/broken/sea.mp4: cannot download " + base + "/broken/sea.mp4: "));
  EXPECT_FALSE(fs::exists(libraryFolder() / ".downloads"));
  EXPECT_FALSE(fs::exists(libraryFolder() / "items/1"));
  // Without the downloader.
  fs::create_directories(folder / "bin");
  fs::create_symlink(ffmpeg, folder / "bin/ffmpeg");
  environment["PATH"] = (folder / "bin").string();
  const auto none = run({"library", "add", base + "/sea.mp4"});
  EXPECT_EQ(none.status, failed);
  EXPECT_THAT(none.out, HasSubstr("the downloader (yt-dlp) was not found"));
}

TEST_F(LinkDownloads, SigningInWithABrowsersCookies) {
  // "auto" with no browser profile in the home folder: said, and no cookies.
  setting("import.signInBrowser=auto");
  auto added = run({"library", "add", base + "/sea.mp4"});
  ASSERT_EQ(added.status, ok) << added.out << added.err;
  EXPECT_THAT(added.err, HasSubstr("note: no browser profile found for signInBrowser auto"));
  // A named browser's cookies are asked for, and their absence is the one-line reason.
  setting("import.signInBrowser=firefox");
  added = run({"library", "add", base + "/page.html"});
  EXPECT_EQ(added.status, failed);
  EXPECT_THAT(added.out,
              HasSubstr("could not find firefox cookies database in " + environment["HOME"] + "/.mozilla/firefox"));
  // "auto" takes the first browser with a profile.
  fs::create_directories(folder / "home/.config/chromium");
  setting("import.signInBrowser=auto");
  added = run({"library", "add", base + "/page.html"});
  EXPECT_THAT(added.err, HasSubstr("note: signing in with chromium's cookies (signInBrowser is auto)"));
}

TEST_F(LinkDownloads, CtrlCStopsADownloadAndLeavesNoPartialFile) {
  testing::makeMedia(ffmpeg, folder / "site/long.mp4",
                     {"-f", "lavfi", "-i", "testsrc2=s=640x360:r=25:d=10", "-c:v", "libx264", "-preset", "ultrafast",
                      "-pix_fmt", "yuv420p"});
  const auto link = base + "/slow/long.mp4";
  auto child = engine::ChildProcess::start(
      "/usr/bin/env", {"XDG_DATA_HOME=" + environment["XDG_DATA_HOME"], "HOME=" + environment["HOME"],
                       "PATH=" + environment["PATH"], KORVALEN_EXECUTABLE, "library", "add", link});
  ASSERT_TRUE(child) << child.error();
  // Interrupt once part of the file is there.
  bool partial = false;
  for (int wait = 0; wait < 400 && !partial; ++wait) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(libraryFolder() / ".downloads", error)) {
      partial = partial || (entry.is_regular_file() && entry.file_size() > 0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  ASSERT_TRUE(partial) << "the download never started";
  ::kill(child->pid(), SIGINT);
  std::string output;
  std::string error;
  EXPECT_EQ(child->wait(output, error), failed) << error;
  EXPECT_THAT(output, HasSubstr("stopped at " + link + ": nothing of it was added"));
  EXPECT_FALSE(fs::exists(libraryFolder() / ".downloads"));
  EXPECT_FALSE(fs::exists(libraryFolder() / "items/1"));
}

}  // namespace
}  // namespace korvalen::cli
