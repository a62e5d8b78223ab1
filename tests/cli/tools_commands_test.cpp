// `korvalen tools status|update` against release locations this test makes and serves from
// Python's web server: checksum files signed by keys GnuPG makes here, verified by the real
// sqv, and programs that wrap Debian's yt-dlp under another version.
#include "cli/cli_fixture.hpp"
#include "core/diagnostics/log.hpp"
#include "core/support/json.hpp"
#include "engine/file_hash.hpp"
#include "engine/process.hpp"
#include "support/clips.hpp"
#include "support/web_server.hpp"

#include <fmt/format.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <thread>

namespace korvalen::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::Not;

class Tools : public Cli {
 protected:
  void SetUp() override {
    ffmpeg = systemFfmpeg();
    for (const auto* needed : {"gpg", "sqv", "yt-dlp", "python3"}) {
      ASSERT_TRUE(engine::findExecutable(needed, environment["PATH"])) << needed << " is needed (scripts/setup.sh)";
    }
    environment["XDG_DATA_HOME"] = (folder / "data").string();
    environment["HOME"] = (folder / "home").string();
    ASSERT_NO_FATAL_FAILURE(key = makeKey("signer"));
    ASSERT_NO_FATAL_FAILURE(otherKey = makeKey("stranger"));
    fs::create_directories(folder / "site");
    server.emplace(folder / "site");
    ASSERT_FALSE(server->base().empty()) << server->error();
    base = server->base();
  }
  void TearDown() override {
    for (const auto* home : {"signer", "stranger"}) {
      (void)engine::run("/usr/bin/env", {"GNUPGHOME=" + (folder / home).string(), "gpgconf", "--kill", "gpg-agent"});
    }
  }

  // A signing key of its own in `name`'s GnuPG home; its public half, armored.
  fs::path makeKey(const std::string& name) {
    const auto home = folder / name;
    fs::create_directories(home);
    ::chmod(home.c_str(), 0700);
    const auto generated =
        gpg(name, {"--quick-gen-key", name + " <" + name + "@example.invalid>", "ed25519", "sign", "never"});
    EXPECT_EQ(generated.exitCode, 0) << generated.error;
    const auto exported = gpg(name, {"--armor", "--export"});
    EXPECT_EQ(exported.exitCode, 0) << exported.error;
    const auto file = folder / (name + ".asc");
    std::ofstream(file) << exported.output;
    return file;
  }
  engine::Finished gpg(const std::string& name, const std::vector<std::string>& arguments) {
    std::vector<std::string> all{
        "GNUPGHOME=" + (folder / name).string(), "gpg", "--batch", "--yes", "--passphrase", ""};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const auto done = engine::run("/usr/bin/env", all);
    return done ? *done : engine::Finished{-1, "", done.error()};
  }

  // A release at base/NAME: a program giving `version`, that marks when it is used and
  // otherwise is Debian's yt-dlp; its checksum file, signed by `signer`.
  std::string release(const std::string& name, const std::string& version, const std::string& signer = "signer",
                      std::size_t padding = 0) {
    const auto dir = folder / "site" / name;
    fs::create_directories(dir);
    std::ofstream(dir / "yt-dlp") << fmt::format(
        "#!/bin/sh\nif [ \"$1\" = --version ]; then echo {}; exit 0; fi\ntouch \"$(dirname \"$0\")/used\"\n"
        "exec /usr/bin/yt-dlp \"$@\"\n#{}\n",
        version, std::string(padding, 'x'));
    const auto hash = engine::sha256OfFile(dir / "yt-dlp");
    EXPECT_TRUE(hash);
    std::ofstream(dir / "SHA2-256SUMS") << "0000000000000000000000000000000000000000000000000000000000000000  other\n"
                                        << hash.value_or("") << "  yt-dlp\n";
    const auto signature =
        gpg(signer, {"--detach-sign", "-o", (dir / "SHA2-256SUMS.sig").string(), (dir / "SHA2-256SUMS").string()});
    EXPECT_EQ(signature.exitCode, 0) << signature.error;
    return base + "/" + name;
  }

  [[nodiscard]] fs::path managed() const { return folder / "data/Korvalen/tools/yt-dlp"; }
  json::Json status() {
    const auto shown = run({"tools", "status", "--json"});
    EXPECT_EQ(shown.status, ok) << shown.err;
    return json::parse(shown.out).value_or(json::Json());
  }

  log::Capture log;
  fs::path ffmpeg;
  fs::path key;
  fs::path otherKey;
  std::optional<testing::WebServer> server;
  std::string base;
};

TEST_F(Tools, AVerifiedReleaseIsInstalledAndStatusSaysWhereTheDownloaderComesFrom) {
  auto shown = status();
  EXPECT_EQ(shown["source"], "system");
  EXPECT_EQ(shown["version"], "2023.03.04");  // Debian 12's
  EXPECT_FALSE(shown.contains("lastChecked"));

  const auto location = release("r1", "2099.01.01");
  auto updated = run({"tools", "update", "--from", location, "--key", key.string()});
  ASSERT_EQ(updated.status, ok) << updated.err;
  EXPECT_EQ(updated.out, "installed yt-dlp 2099.01.01\n");
  shown = status();
  EXPECT_EQ(shown["source"], "managed");
  EXPECT_EQ(shown["path"], managed().string());
  EXPECT_EQ(shown["version"], "2099.01.01");
  EXPECT_EQ(shown["lastChecked"], "2026-11-22T10:00:00Z");
  EXPECT_EQ(shown["updateWaiting"], false);
  EXPECT_FALSE(fs::exists(folder / "data/Korvalen/tools/.update"));

  updated = run({"tools", "update", "--from", location, "--key", key.string()});
  EXPECT_EQ(updated.out, "yt-dlp 2099.01.01 is up to date\n");

  // A newer one found by a check waits; the environment names the location and key.
  environment["KORVALEN_TOOL_RELEASES"] = release("r2", "2099.02.01");
  environment["KORVALEN_TOOL_KEY"] = key.string();
  updated = run({"tools", "update", "--check"});
  EXPECT_EQ(updated.out, "yt-dlp 2099.02.01 is waiting: korvalen tools update installs it\n");
  EXPECT_EQ(status()["updateWaiting"], true);
  EXPECT_THAT(run({"tools", "status"}).out, HasSubstr("update        yt-dlp 2099.02.01 is waiting"));
  updated = run({"tools", "update"});
  EXPECT_EQ(updated.out, "installed yt-dlp 2099.02.01 (was 2099.01.01)\n");
  EXPECT_EQ(status()["version"], "2099.02.01");
}

TEST_F(Tools, AnythingWrongWithAReleaseKeepsTheCopyInUse) {
  ASSERT_EQ(run({"tools", "update", "--from", release("good", "2099.05.01"), "--key", key.string()}).status, ok);
  const auto before = engine::sha256OfFile(managed());
  ASSERT_TRUE(before);

  const auto tamperedProgram = release("program", "2099.06.01");
  std::ofstream(folder / "site/program/yt-dlp", std::ios::app) << "# changed after signing\n";
  const auto tamperedSums = release("sums", "2099.06.01");
  std::ofstream(folder / "site/sums/SHA2-256SUMS", std::ios::app) << "\n";
  const auto noEntry = release("entry", "2099.06.01");
  std::ofstream(folder / "site/entry/SHA2-256SUMS")
      << "0000000000000000000000000000000000000000000000000000000000000000  other\n";
  (void)gpg("signer", {"--detach-sign", "-o", (folder / "site/entry/SHA2-256SUMS.sig").string(),
                       (folder / "site/entry/SHA2-256SUMS").string()});
  const auto unsigned_ = release("unsigned", "2099.06.01");
  fs::remove(folder / "site/unsigned/SHA2-256SUMS.sig");
  struct Case {
    std::string location;
    std::string reason;
  };
  for (const auto& c : std::vector<Case>{
           {tamperedProgram, "does not match SHA2-256SUMS"},
           {tamperedSums, "does not verify against " + key.string()},
           {release("stranger", "2099.06.01", "stranger"), "does not verify against " + key.string()},
           {noEntry, "SHA2-256SUMS names no yt-dlp"},
           {unsigned_, "cannot fetch " + unsigned_ + "/SHA2-256SUMS.sig"},
           {release("older", "2099.04.01"), "offers yt-dlp 2099.04.01, older than the 2099.05.01 in use"},
           {base + "/missing", "cannot fetch " + base + "/missing/SHA2-256SUMS"},
           {"http://127.0.0.1:9", "cannot fetch http://127.0.0.1:9/SHA2-256SUMS"},
       }) {
    const auto updated = run({"tools", "update", "--from", c.location, "--key", key.string()});
    expectOneLineError(updated, failed, c.reason);
    EXPECT_EQ(engine::sha256OfFile(managed()).value_or(""), *before) << c.location;
    EXPECT_FALSE(fs::exists(folder / "data/Korvalen/tools/.update")) << c.location;
    EXPECT_EQ(status()["version"], "2099.05.01");
  }
  // The shipped key is the downloader's own, which signed none of these.
  expectOneLineError(run({"tools", "update", "--from", release("shipped", "2099.07.01")}), failed,
                     "does not verify against the shipped key");
  expectOneLineError(run({"tools", "update", "--from", base, "--key", (folder / "nothing.asc").string()}), 2, "--key");
}

TEST_F(Tools, ADownloadChecksForAnUpdateOnceADayAndAFailedCheckNeverBlocksIt) {
  testing::makeMedia(ffmpeg, folder / "site/sea.mp4",
                     {"-f", "lavfi", "-i", "testsrc2=s=320x180:r=25:d=1", "-c:v", "libx264", "-preset", "ultrafast",
                      "-pix_fmt", "yuv420p"});
  environment["KORVALEN_TOOL_RELEASES"] = release("r", "2099.01.01");
  environment["KORVALEN_TOOL_KEY"] = key.string();
  auto added = run({"library", "add", base + "/sea.mp4"});
  ASSERT_EQ(added.status, ok) << added.out << added.err;
  EXPECT_THAT(added.err, HasSubstr("note: installed yt-dlp 2099.01.01"));
  // The managed copy did the download.
  EXPECT_TRUE(fs::exists(folder / "data/Korvalen/tools/used"));

  // Within a day: no check. A day later, with the location gone: a note, and the download.
  fs::remove(folder / "data/Korvalen/tools/used");
  const auto logged = [&] {
    std::string all;
    for (const auto& line : log.lines()) {
      all += line.message + "\n";
    }
    return all;
  };
  const auto checks = [&] {
    const auto all = logged();
    std::size_t count = 0;
    for (auto at = all.find("for a downloader update"); at != std::string::npos;
         at = all.find("for a downloader update", at + 1)) {
      ++count;
    }
    return count;
  };
  ASSERT_EQ(checks(), 1U);
  testing::makeMedia(ffmpeg, folder / "site/lake.mp4",
                     {"-f", "lavfi", "-i", "testsrc2=s=320x180:r=25:d=1", "-c:v", "libx264", "-preset", "ultrafast",
                      "-pix_fmt", "yuv420p", "-vf", "hflip"});
  now += std::chrono::hours(2);
  ASSERT_EQ(run({"library", "add", base + "/lake.mp4"}).status, ok);
  EXPECT_EQ(checks(), 1U);
  now += std::chrono::hours(25);
  environment["KORVALEN_TOOL_RELEASES"] = "http://127.0.0.1:9";
  testing::makeMedia(ffmpeg, folder / "site/pond.mp4",
                     {"-f", "lavfi", "-i", "testsrc2=s=320x180:r=25:d=1", "-c:v", "libx264", "-preset", "ultrafast",
                      "-pix_fmt", "yuv420p", "-vf", "vflip"});
  added = run({"library", "add", base + "/pond.mp4"});
  ASSERT_EQ(added.status, ok) << added.out << added.err;
  EXPECT_EQ(checks(), 2U);
  EXPECT_THAT(added.err, HasSubstr("note: the downloader update check failed (downloading with the one there is): "
                                   "cannot fetch http://127.0.0.1:9/SHA2-256SUMS"));
  EXPECT_TRUE(fs::exists(folder / "data/Korvalen/tools/used"));
  EXPECT_THAT(added.out, HasSubstr("as item 3"));

  // Turned off, nothing is checked.
  now += std::chrono::hours(25);
  ASSERT_EQ(run({"settings", "set", "tools.autoUpdateDownloader=false"}).status, ok);
  ASSERT_EQ(run({"library", "add", base + "/sea.mp4"}).status, ok);
  EXPECT_EQ(checks(), 2U);
}

TEST_F(Tools, KilledDuringAnUpdateTheDownloaderStillWorks) {
  ASSERT_EQ(run({"tools", "update", "--from", release("good", "2099.05.01"), "--key", key.string()}).status, ok);
  // A big program, sent slowly: killed while it arrives.
  release("big", "2099.06.01", "signer", 4 * 1024 * 1024);
  auto child = engine::ChildProcess::start(
      "/usr/bin/env",
      {"XDG_DATA_HOME=" + environment["XDG_DATA_HOME"], "HOME=" + environment["HOME"], "PATH=" + environment["PATH"],
       KORVALEN_EXECUTABLE, "tools", "update", "--from", base + "/slow/big", "--key", key.string()});
  ASSERT_TRUE(child) << child.error();
  const auto arriving = folder / "data/Korvalen/tools/.update/yt-dlp";
  bool started = false;
  for (int wait = 0; wait < 400 && !started; ++wait) {
    std::error_code error;
    started = fs::exists(arriving, error) && fs::file_size(arriving, error) > 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  ASSERT_TRUE(started) << "the program never started to arrive";
  ::kill(child->pid(), SIGKILL);
  std::string output;
  std::string error;
  EXPECT_EQ(child->wait(output, error), 128 + SIGKILL);
  // The copy in use is whole and runs; the next update clears what the killed one left.
  const auto version = engine::run(managed(), {"--version"});
  ASSERT_TRUE(version);
  EXPECT_EQ(version->output, "2099.05.01\n");
  EXPECT_EQ(status()["version"], "2099.05.01");
  EXPECT_EQ(run({"tools", "update", "--from", release("next", "2099.07.01"), "--key", key.string()}).out,
            "installed yt-dlp 2099.07.01 (was 2099.05.01)\n");
  EXPECT_FALSE(fs::exists(folder / "data/Korvalen/tools/.update"));
}

}  // namespace
}  // namespace korvalen::cli
