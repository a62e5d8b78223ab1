// The live wallpaper on a real Wayland compositor: Debian's sway, headless with its pixman
// renderer, run as an unprivileged user (sway refuses root), real clients (foot), the real
// korvalen executable, and what each output shows read back with grim.
#include "engine/process.hpp"
#include "support/clips.hpp"
#include "support/temp_folder.hpp"
#include "wallpaper/desktop_checks.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <thread>
#include <tuple>

namespace korvalen {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

using testing::blue;
using testing::near;
using testing::red;
using testing::Rgb;
using testing::Running;

std::string redClip() {
  static testing::TempFolder folder;
  static const std::string path = [] {
    const auto made = (folder / "red.mp4").string();
    const auto done =
        engine::run(testing::ffmpegOnPath(), {"-v", "error", "-f", "lavfi", "-i", "color=c=red:s=160x120:r=10", "-t",
                                              "4", "-c:v", "libx264", "-pix_fmt", "yuv444p", made});
    EXPECT_TRUE(done && done->exitCode == 0);
    return made;
  }();
  return path;
}

// A checkerboard of single pixels, kept exact (lossless, full chroma): blurred by any scaling,
// it turns grey.
std::string checkerClip() {
  static testing::TempFolder folder;
  static const std::string path = [] {
    const auto made = (folder / "checker.mp4").string();
    const auto done =
        engine::run(testing::ffmpegOnPath(), {"-v", "error", "-f", "lavfi", "-i", "nullsrc=s=320x240:r=10", "-vf",
                                              "geq=lum='255*mod(X+Y,2)':cb=128:cr=128", "-t", "2", "-c:v", "libx264",
                                              "-qp", "0", "-pix_fmt", "yuv444p", made});
    EXPECT_TRUE(done && done->exitCode == 0) << (done ? done->error : done.error());
    return made;
  }();
  return path;
}

// What an output shows, as grim reads it back.
struct Screenshot {
  int width = 0;
  int height = 0;
  std::vector<unsigned char> pixels;  // RGB rows
  [[nodiscard]] Rgb at(int x, int y) const {
    const auto i = static_cast<std::size_t>((y * width + x) * 3);
    return {pixels[i], pixels[i + 1], pixels[i + 2]};
  }
};

class WaylandWallpaper : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): before any thread
    searchPath_ = path == nullptr ? "/usr/bin:/bin" : path;
    for (const auto* needed : {"sway", "swaymsg", "grim", "foot", "setpriv"}) {
      ASSERT_TRUE(engine::findExecutable(needed, searchPath_)) << needed << " is needed (scripts/setup.sh)";
    }
    std::ofstream(folder_ / "sway.config") << "output HEADLESS-1 resolution 320x240 position 0 0\n"
                                              "output HEADLESS-2 resolution 320x240 position 320 0\n"
                                              "output HEADLESS-3 resolution 320x240 position 640 0\n"
                                              "default_border none\n";
    ASSERT_NO_FATAL_FAILURE(outer_ = startSway("sway", {"WLR_BACKENDS=headless"}));
    waylandSocket_ = outer_.wayland;
    swaySocket_ = outer_.ipc;
    sway({"create_output"});
    std::filesystem::create_directories(folder_ / "run");
    ::chmod((folder_ / "run").c_str(), 0700);
    std::filesystem::create_directories(folder_ / "power");
    ASSERT_EQ(korvalen({"library", "add", redClip()}).exitCode, 0);
    ASSERT_EQ(korvalen({"settings", "set", "activePlaylist=Reds",
                        R"(playlists=[{"name":"Reds","itemIDs":["1"],"intervalMinutes":60}])"})
                  .exitCode,
              0);
  }

  void TearDown() override {
    for (auto it = children_.rbegin(); it != children_.rend(); ++it) {
      (*it)->child.terminate();
    }
    children_.clear();
    for (auto* compositor : {&inner_, &outer_}) {
      if (compositor->process) {
        compositor->process->child.terminate();
      }
    }
  }

  struct Sway {
    std::unique_ptr<Running> process;
    std::filesystem::path wayland;  // its Wayland socket
    std::filesystem::path ipc;      // its command socket
  };

  // Debian's sway, configured by `NAME.config` in the test's folder, with `backend` (the
  // headless one, or the Wayland one inside another sway, whose windows are its outputs).
  // Sway refuses to run as root: as root, it runs as nobody, in folders nobody owns.
  Sway startSway(const std::string& name, const std::vector<std::string>& backend) {
    ::chmod(folder_.path().c_str(), 0755);
    const auto home = folder_ / (name + "-home");
    const auto run = folder_ / (name + "-run");
    std::filesystem::create_directories(home);
    std::filesystem::create_directories(run);
    ::chmod(run.c_str(), 0700);
    std::vector<std::string> arguments;
    if (::getuid() == 0) {
      const passwd* nobody = ::getpwnam("nobody");  // NOLINT(concurrency-mt-unsafe): before any thread
      EXPECT_NE(nobody, nullptr);
      if (nobody == nullptr) {
        return {};
      }
      for (const auto& owned : {home, run}) {
        EXPECT_EQ(::chown(owned.c_str(), nobody->pw_uid, nobody->pw_gid), 0);
      }
      arguments = {fmt::format("--reuid={}", nobody->pw_uid), fmt::format("--regid={}", nobody->pw_gid),
                   "--clear-groups"};
    }
    const auto config = folder_ / (name + ".config");
    ::chmod(config.c_str(), 0644);
    const std::vector<std::string> rest{"/usr/bin/env",
                                        "-i",
                                        "HOME=" + home.string(),
                                        "XDG_RUNTIME_DIR=" + run.string(),
                                        "WLR_LIBINPUT_NO_DEVICES=1",
                                        "WLR_RENDERER=pixman",
                                        "PATH=" + searchPath_};
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    arguments.insert(arguments.end(), backend.begin(), backend.end());
    arguments.insert(arguments.end(), {engine::findExecutable("sway", searchPath_)->string(), "-c", config.string()});
    const auto program = ::getuid() == 0 ? engine::findExecutable("setpriv", searchPath_)->string() : "/usr/bin/env";
    if (::getuid() != 0) {
      arguments.erase(arguments.begin());  // "/usr/bin/env" is the program
    }
    Sway started;
    started.process = startProcess(program, arguments);
    if (!started.process) {
      return {};
    }
    EXPECT_TRUE(
        waitUntil([&] { return socket(run, "wayland-").has_value() && socket(run, "sway-ipc.").has_value(); }, 10s))
        << name << " did not start: " << started.process->err;
    started.wayland = socket(run, "wayland-").value_or("");
    started.ipc = socket(run, "sway-ipc.").value_or("");
    return started;
  }

  // The socket in a runtime folder whose name starts with `prefix`.
  static std::optional<std::filesystem::path> socket(const std::filesystem::path& run, const std::string& prefix) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(run, error)) {
      const auto name = entry.path().filename().string();
      if (name.starts_with(prefix) && !name.ends_with(".lock") && entry.is_socket()) {
        return entry.path();
      }
    }
    return std::nullopt;
  }

  void sway(const std::vector<std::string>& command) { swayAt(swaySocket_, command); }
  void swayAt(const std::filesystem::path& ipc, const std::vector<std::string>& command) {
    std::vector<std::string> arguments{"-s", ipc.string()};
    arguments.insert(arguments.end(), command.begin(), command.end());
    const auto done = engine::run(*engine::findExecutable("swaymsg", searchPath_), arguments);
    ASSERT_TRUE(done && done->exitCode == 0) << (done ? done->output + done->error : done.error());
  }

  std::vector<std::string> environment() const {
    return {"WAYLAND_DISPLAY=" + waylandSocket_.string(),
            "DISPLAY=:99999",  // Wayland is chosen over X11
            "HOME=" + folder_.path().string(),
            "XDG_DATA_HOME=" + (folder_ / "data").string(),
            "XDG_RUNTIME_DIR=" + (folder_ / "run").string(),
            "SDL_AUDIODRIVER=dummy",
            "DBUS_SESSION_BUS_ADDRESS=disabled:",
            "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + (folder_ / "no-bus").string(),
            "KORVALEN_POWER_SUPPLY=" + (folder_ / "power").string(),
            "TZ=UTC"};
  }
  engine::Finished korvalen(const std::vector<std::string>& arguments) {
    auto all = environment();
    all.emplace_back(KORVALEN_EXECUTABLE);
    all.insert(all.end(), arguments.begin(), arguments.end());
    const auto finished = engine::run("/usr/bin/env", all);
    return finished ? *finished : engine::Finished{-1, "", finished.error()};
  }
  std::unique_ptr<Running> startProcess(const std::string& program, const std::vector<std::string>& arguments) {
    auto started = engine::ChildProcess::start(program, arguments);
    if (!started) {
      ADD_FAILURE() << started.error();
      return nullptr;
    }
    return std::make_unique<Running>(Running{std::move(*started), "", ""});
  }
  Running& wallpaper(const std::vector<std::string>& arguments = {}) {
    auto all = environment();
    all.emplace_back(KORVALEN_EXECUTABLE);
    all.emplace_back("wallpaper");
    all.insert(all.end(), arguments.begin(), arguments.end());
    children_.push_back(startProcess("/usr/bin/env", all));
    EXPECT_TRUE(children_.back()->said("playing on")) << children_.back()->err;
    return *children_.back();
  }

  Json status() {
    const auto done = korvalen({"wallpaper", "status", "--json"});
    if (done.exitCode != 0) {
      ADD_FAILURE() << done.error;
      return Json::array();
    }
    return Json::parse(done.output, nullptr, false);
  }

  bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto until = Clock::now() + limit;
    while (!done()) {
      if (Clock::now() >= until) {
        return false;
      }
      for (auto* compositor : {&outer_, &inner_}) {
        if (compositor->process) {
          compositor->process->pump();
        }
      }
      for (auto& child : children_) {
        child->pump();
      }
      std::this_thread::sleep_for(50ms);
    }
    return true;
  }

  // Waits until status lists two outputs, the first in `mode`; else what it said last.
  ::testing::AssertionResult firstOf2Is(const std::string& mode) {
    Json seen;
    if (waitUntil(
            [&] {
              seen = status();
              return seen.size() == 2 && seen[0]["mode"] == mode;
            },
            5s)) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << seen.dump();
  }

  // An output as the compositor composes it, through grim; empty when it cannot be read.
  Screenshot screenshot(const std::string& output) {
    const auto shot = folder_ / "shot.ppm";
    std::filesystem::remove(shot);
    const auto done = engine::run("/usr/bin/env", {"WAYLAND_DISPLAY=" + waylandSocket_.string(),
                                                   engine::findExecutable("grim", searchPath_)->string(), "-t", "ppm",
                                                   "-o", output, shot.string()});
    if (!done || done->exitCode != 0) {
      return {};
    }
    std::ifstream in(shot, std::ios::binary);
    std::string magic;
    Screenshot read;
    int depth = 0;
    in >> magic >> read.width >> read.height >> depth;
    in.get();
    read.pixels.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (magic != "P6" || depth != 255 || read.width <= 0 || read.height <= 0 ||
        read.pixels.size() < static_cast<std::size_t>(read.width * read.height * 3)) {
      return {};
    }
    return read;
  }
  // The middle of an output.
  Rgb shown(const std::string& output) {
    const auto shot = screenshot(output);
    return shot.pixels.empty() ? Rgb{-1, -1, -1} : shot.at(shot.width / 2, shot.height / 2);
  }
  ::testing::AssertionResult shows(Rgb colour, const std::string& output, std::chrono::milliseconds limit = 10s) {
    Rgb seen;
    if (waitUntil([&] { return near(seen = shown(output), colour); }, limit)) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << output << " shows " << seen;
  }

  testing::TempFolder folder_;
  std::string searchPath_;
  Sway outer_;
  Sway inner_;                           // inside the outer one, for outputs that come and go
  std::filesystem::path waylandSocket_;  // where the programs under test connect
  std::filesystem::path swaySocket_;
  std::vector<std::unique_ptr<Running>> children_;
};

TEST_F(WaylandWallpaper, ShowsOnEveryOutputBehindWindowsAndFollowsANewOne) {
  auto& running = wallpaper();
  EXPECT_THAT(running.err, HasSubstr("on the background layer"));
  ASSERT_TRUE(shows(red, "HEADLESS-1"));
  ASSERT_TRUE(shows(red, "HEADLESS-2"));
  auto listed = status();
  ASSERT_EQ(listed.size(), 2U) << listed.dump();
  EXPECT_EQ(listed[0]["mode"], "running");
  EXPECT_THAT(listed[0]["monitorId"].get<std::string>(), HasSubstr("|320x240"));
  // The same identifiers `screens` gives, on the same compositor.
  const auto screens = korvalen({"screens", "--json"});
  ASSERT_EQ(screens.exitCode, 0) << screens.error;
  const auto outputs = Json::parse(screens.output);
  ASSERT_EQ(outputs.size(), 2U);
  EXPECT_EQ(outputs[0]["id"], listed[0]["monitorId"]);
  EXPECT_EQ(outputs[1]["output"], "HEADLESS-2");

  // A window on the first output covers the wallpaper there, and only there.
  sway({"exec", "foot --app-id=cover sleep 600"});
  ASSERT_TRUE(waitUntil([&] { return !near(shown("HEADLESS-1"), red); }, 10s)) << "the window never covered it";
  EXPECT_TRUE(shows(red, "HEADLESS-2"));
  ASSERT_TRUE(waitUntil(
      [&] {
        auto s = status();
        return s.size() == 2 && s[0]["mode"] == "running" && s[1]["mode"] == "running";
      },
      5s))
      << status().dump();

  // Made full screen, it pauses the wallpaper on its output and not on the other; back, it
  // resumes.
  sway({"[app_id=cover]", "fullscreen", "enable"});
  Json seen;
  ASSERT_TRUE(waitUntil(
      [&] {
        seen = status();
        return seen.size() == 2 && seen[0]["mode"] == "paused";
      },
      5s))
      << seen.dump();
  EXPECT_THAT(seen[0]["reason"].get<std::string>(), HasSubstr("full"));
  EXPECT_EQ(seen[1]["mode"], "running");
  // On a workspace that is not shown, the full-screen window hides nothing: the wallpaper
  // there plays. Shown again, it pauses it again.
  sway({"workspace", "7"});
  ASSERT_TRUE(firstOf2Is("running"));
  sway({"workspace", "1"});
  ASSERT_TRUE(firstOf2Is("paused"));
  sway({"[app_id=cover]", "fullscreen", "disable"});
  ASSERT_TRUE(firstOf2Is("running"));

  // An output made while it plays gets its wallpaper too.
  sway({"create_output"});
  ASSERT_TRUE(shows(red, "HEADLESS-3"));
  ASSERT_TRUE(waitUntil([&] { return status().size() == 3; }, 5s)) << status().dump();
  EXPECT_TRUE(running.said("monitor headless-headless-HEADLESS-3|320x240"));

  // At scale 2 the output is 160x120 logical pixels and the wallpaper's buffers 320x240.
  sway({"output", "HEADLESS-2", "scale", "2"});
  ASSERT_TRUE(waitUntil(
      [&] {
        const auto s = status();
        return s.size() == 3 && s[1]["monitorId"] == "headless-headless-HEADLESS-2|320x240" &&
               s[1]["mode"] == "running";
      },
      5s))
      << status().dump();
  EXPECT_TRUE(shows(red, "HEADLESS-2"));
  EXPECT_TRUE(running.said("output HEADLESS-2: 160x120 at scale 2, pictures of 320x240")) << running.err;

  // SIGTERM: gone within a second, status 0.
  const auto asked = Clock::now();
  ASSERT_EQ(::kill(running.child.pid(), SIGTERM), 0);
  EXPECT_EQ(running.child.wait(running.out, running.err), 0) << running.err;
  EXPECT_LT(Clock::now() - asked, 1s);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "run" / "korvalen-wallpaper.sock"));
}

TEST_F(WaylandWallpaper, TheBottomLayerOnAskingAndOneLineWithoutACompositor) {
  auto& running = wallpaper({"--layer", "bottom"});
  EXPECT_THAT(running.err, HasSubstr("on the bottom layer"));
  EXPECT_TRUE(shows(red, "HEADLESS-1"));
  const auto refused = korvalen({"wallpaper", "--backend", "wayland"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.error, HasSubstr("korvalen wallpaper"));

  auto elsewhere = environment();
  elsewhere.front() = "WAYLAND_DISPLAY=" + (folder_ / "no-compositor").string();
  elsewhere.emplace_back(KORVALEN_EXECUTABLE);
  elsewhere.emplace_back("screens");
  const auto none = engine::run("/usr/bin/env", elsewhere);
  ASSERT_TRUE(none.has_value());
  EXPECT_EQ(none->exitCode, 1);
  EXPECT_THAT(none->error,
              HasSubstr("cannot connect to the Wayland compositor at " + (folder_ / "no-compositor").string()));
}

TEST_F(WaylandWallpaper, TheSaverCoversEveryOutputAboveWindowsAndEndsOnSigterm) {
  ASSERT_EQ(korvalen({"plan", "make"}).exitCode, 0);
  sway({"exec", "foot --app-id=cover sleep 600"});
  auto all = environment();
  all.emplace_back(KORVALEN_EXECUTABLE);
  all.emplace_back("saver");
  children_.push_back(startProcess("/usr/bin/env", all));
  auto& saver = *children_.back();
  ASSERT_TRUE(saver.said("on the overlay layer")) << saver.err;
  // Above the window: the plan's red, on both outputs.
  EXPECT_TRUE(shows(red, "HEADLESS-1"));
  EXPECT_TRUE(shows(red, "HEADLESS-2"));
  const auto asked = Clock::now();
  ASSERT_EQ(::kill(saver.child.pid(), SIGTERM), 0);
  EXPECT_EQ(saver.child.wait(saver.out, saver.err), 0) << saver.err;
  EXPECT_LT(Clock::now() - asked, 1s);
  // One "stopped" line for each output's view.
  std::size_t stopped = 0;
  for (auto at = saver.err.find("] stopped"); at != std::string::npos; at = saver.err.find("] stopped", at + 1)) {
    ++stopped;
  }
  EXPECT_EQ(stopped, 2U) << saver.err;
  // Into X windows it goes through X11 whatever WAYLAND_DISPLAY says.
  const auto refused = korvalen({"saver", "--window-id", "0x200002"});
  EXPECT_EQ(refused.exitCode, 1) << refused.error;
  EXPECT_THAT(refused.error, HasSubstr("no X display"));
  EXPECT_EQ(korvalen({"saver", "--backend", "wayland", "--window-id", "0x200002"}).exitCode, 2);
}

// How much neighbouring pixels differ across the middle of an output: near 255 for the
// checkerboard drawn pixel for pixel, near 0 once anything has scaled it.
int checkerContrast(const Screenshot& shot) {
  if (shot.pixels.empty()) {
    return -1;
  }
  int least = 255;
  for (int x = shot.width / 2 - 8; x < shot.width / 2 + 8; ++x) {
    least = std::min(least, std::abs(shot.at(x, shot.height / 2).g - shot.at(x + 1, shot.height / 2).g));
  }
  return least;
}

TEST_F(WaylandWallpaper, AFractionalScaleIsDrawnPixelForPixel) {
  ASSERT_EQ(korvalen({"library", "add", checkerClip()}).exitCode, 0);
  ASSERT_EQ(korvalen({"settings", "set", "activePlaylist=Checks",
                      R"(playlists=[{"name":"Checks","itemIDs":["2"],"intervalMinutes":60}])"})
                .exitCode,
            0);
  sway({"output", "HEADLESS-2", "scale", "1.5"});
  auto& running = wallpaper();
  // 320x240 pixels at 1.5 are 213x160 logical: the buffers are the output's 320x240 pixels,
  // mapped onto the surface by a viewport, not drawn at scale 2 and shrunk by the compositor.
  EXPECT_TRUE(running.said("output HEADLESS-2: 213x160 at scale 1.5, pictures of 320x240")) << running.err;
  ASSERT_EQ(korvalen({"wallpaper", "pause"}).exitCode, 0);
  // Sway's own renderer blends neighbours a little at a fractional scale (0 and 255 come back
  // near 50 and 205); a picture drawn at the logical size, or any other, loses the pattern.
  int contrast = -1;
  EXPECT_TRUE(waitUntil([&] { return (contrast = checkerContrast(screenshot("HEADLESS-2"))) > 120; }, 10s))
      << "the checkerboard is blurred: neighbours differ by " << contrast;
  // Changed while it runs, to another fractional scale and to a whole one: one new size
  // each, and the monitor keeps its identifier.
  sway({"output", "HEADLESS-2", "scale", "1.25"});
  EXPECT_TRUE(running.said("output HEADLESS-2: 256x192 at scale 1.25, pictures of 320x240")) << running.err;
  sway({"output", "HEADLESS-2", "scale", "2"});
  EXPECT_TRUE(running.said("output HEADLESS-2: 160x120 at scale 2, pictures of 320x240")) << running.err;
  EXPECT_TRUE(waitUntil([&] { return (contrast = checkerContrast(screenshot("HEADLESS-2"))) > 200; }, 10s))
      << "the checkerboard is blurred: neighbours differ by " << contrast;
  EXPECT_THAT(running.err, ::testing::Not(HasSubstr("HEADLESS-2|213x160")));
  const auto listed = status();
  ASSERT_EQ(listed.size(), 2U) << listed.dump();
  EXPECT_EQ(listed[1]["monitorId"], "headless-headless-HEADLESS-2|320x240");
}

TEST_F(WaylandWallpaper, OutputsUnpluggedAndPluggedWhileItPlays) {
  // A sway inside the headless one: its outputs are windows of the outer one, and closing
  // such a window unplugs that output.
  std::ofstream(folder_ / "inner.config") << "default_border none\n";
  ASSERT_NO_FATAL_FAILURE(
      inner_ = startSway("inner", {"WLR_BACKENDS=wayland", "WAYLAND_DISPLAY=" + outer_.wayland.string()}));
  waylandSocket_ = inner_.wayland;
  swaySocket_ = inner_.ipc;
  auto& running = wallpaper();
  ASSERT_TRUE(shows(red, "WL-1"));
  for (int round = 2; round <= 4; ++round) {
    const auto name = fmt::format("WL-{}", round);
    sway({"create_output"});
    ASSERT_TRUE(running.said(fmt::format("output {}:", name))) << running.err;
    ASSERT_TRUE(waitUntil([&] { return status().size() == 2; }, 5s)) << status().dump();
    EXPECT_TRUE(shows(red, name));
    swayAt(outer_.ipc, {fmt::format("[title=\"wlroots - {}\"]", name), "kill"});
    ASSERT_TRUE(running.said(fmt::format("output {} gone", name))) << running.err;
    ASSERT_TRUE(waitUntil([&] { return status().size() == 1; }, 5s)) << status().dump();
  }
  // The output left keeps its wallpaper, and the program its health.
  EXPECT_TRUE(shows(red, "WL-1"));
  const auto listed = status();
  ASSERT_EQ(listed.size(), 1U);
  EXPECT_EQ(listed[0]["mode"], "running");
  ASSERT_EQ(::kill(running.child.pid(), SIGTERM), 0);
  EXPECT_EQ(running.child.wait(running.out, running.err), 0) << running.err;
}

TEST_F(WaylandWallpaper, AWebPageShowsOverTheWallpapersOwnSurfaceOnEachOutput) {
  // Green for its still; blue once it has run past the still's moment: what shows is the page.
  // From then on every animation frame changes the blue a little.
  const auto folder = folder_ / "page";
  std::filesystem::create_directories(folder);
  std::ofstream(folder / "index.html") << R"(<!doctype html><body style="margin:0;background:#00ff00"><script>
let n = 0;
const frame = () => { n++; document.body.style.background = 'rgb(0,' + (n % 30) + ',255)'; requestAnimationFrame(frame); };
setTimeout(frame, 4500);
</script>)";
  const auto added = korvalen({"library", "add", folder.string(), "--size", "320x240"});
  ASSERT_EQ(added.exitCode, 0) << added.output << added.error;
  EXPECT_THAT(added.output, HasSubstr("as item 2: web"));
  ASSERT_EQ(korvalen({"settings", "set", "activePlaylist=Page",
                      R"(playlists=[{"name":"Page","itemIDs":["2"],"intervalMinutes":60}])"})
                .exitCode,
            0);
  auto& running = wallpaper();
  EXPECT_TRUE(running.said("page of item 2 started")) << running.err;
  ASSERT_TRUE(shows(blue, "HEADLESS-1", 20s)) << running.err;
  ASSERT_TRUE(shows(blue, "HEADLESS-2", 20s)) << running.err;
  // Paused, the page holds its picture; resumed, it goes on.
  ASSERT_EQ(korvalen({"wallpaper", "pause"}).exitCode, 0);
  ASSERT_TRUE(firstOf2Is("paused"));
  std::this_thread::sleep_for(1s);
  const auto held = shown("HEADLESS-1");
  std::this_thread::sleep_for(1s);
  const auto later = shown("HEADLESS-1");
  EXPECT_TRUE(near(held, blue)) << held;
  EXPECT_EQ(std::tie(held.r, held.g, held.b), std::tie(later.r, later.g, later.b)) << held << " then " << later;
  ASSERT_EQ(korvalen({"wallpaper", "resume"}).exitCode, 0);
  Rgb moving;
  EXPECT_TRUE(waitUntil(
      [&] {
        moving = shown("HEADLESS-1");
        return near(moving, blue) && moving.g != held.g;
      },
      10s))
      << "the page did not go on: " << moving;
  // Windows still go over it.
  sway({"exec", "foot --app-id=cover sleep 600"});
  ASSERT_TRUE(waitUntil([&] { return !near(shown("HEADLESS-1"), blue); }, 10s)) << "the window never covered it";
  EXPECT_TRUE(near(shown("HEADLESS-2"), blue));
}

}  // namespace
}  // namespace korvalen
