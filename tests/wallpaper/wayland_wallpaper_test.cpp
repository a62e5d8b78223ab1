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

namespace korvalen {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

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

class WaylandWallpaper : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): before any thread
    searchPath_ = path == nullptr ? "/usr/bin:/bin" : path;
    for (const auto* needed : {"sway", "swaymsg", "grim", "foot", "setpriv"}) {
      ASSERT_TRUE(engine::findExecutable(needed, searchPath_)) << needed << " is needed (scripts/setup.sh)";
    }
    // Sway refuses to run as root: as root, it runs as nobody, in folders nobody owns.
    ::chmod(folder_.path().c_str(), 0755);
    const auto swayHome = folder_ / "sway-home";
    swayRun_ = folder_ / "sway-run";
    std::filesystem::create_directories(swayHome);
    std::filesystem::create_directories(swayRun_);
    ::chmod(swayRun_.c_str(), 0700);
    std::vector<std::string> asUser;
    if (::getuid() == 0) {
      const passwd* nobody = ::getpwnam("nobody");  // NOLINT(concurrency-mt-unsafe): before any thread
      ASSERT_NE(nobody, nullptr);
      for (const auto& owned : {swayHome, swayRun_}) {
        ASSERT_EQ(::chown(owned.c_str(), nobody->pw_uid, nobody->pw_gid), 0);
      }
      asUser = {engine::findExecutable("setpriv", searchPath_)->string(), fmt::format("--reuid={}", nobody->pw_uid),
                fmt::format("--regid={}", nobody->pw_gid), "--clear-groups"};
    }
    const auto config = folder_ / "sway.config";
    std::ofstream(config) << "output HEADLESS-1 resolution 320x240 position 0 0\n"
                             "output HEADLESS-2 resolution 320x240 position 320 0\n"
                             "output HEADLESS-3 resolution 320x240 position 640 0\n"
                             "default_border none\n";
    ::chmod(config.c_str(), 0644);
    auto arguments = asUser;
    const std::vector<std::string> rest{"/usr/bin/env",
                                        "-i",
                                        "HOME=" + swayHome.string(),
                                        "XDG_RUNTIME_DIR=" + swayRun_.string(),
                                        "WLR_BACKENDS=headless",
                                        "WLR_LIBINPUT_NO_DEVICES=1",
                                        "WLR_RENDERER=pixman",
                                        "PATH=" + searchPath_,
                                        engine::findExecutable("sway", searchPath_)->string(),
                                        "-c",
                                        config.string()};
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    const auto program = arguments.front();
    arguments.erase(arguments.begin());
    sway_ = startProcess(program, arguments);
    ASSERT_TRUE(waitUntil([&] { return socket("wayland-").has_value() && socket("sway-ipc.").has_value(); }, 10s))
        << "sway did not start: " << sway_->err;
    waylandSocket_ = *socket("wayland-");
    swaySocket_ = *socket("sway-ipc.");
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
    if (sway_) {
      sway_->child.terminate();
    }
  }

  // The socket in sway's runtime folder whose name starts with `prefix`.
  std::optional<std::filesystem::path> socket(const std::string& prefix) const {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(swayRun_, error)) {
      const auto name = entry.path().filename().string();
      if (name.starts_with(prefix) && !name.ends_with(".lock") && entry.is_socket()) {
        return entry.path();
      }
    }
    return std::nullopt;
  }

  void sway(const std::vector<std::string>& command) {
    std::vector<std::string> arguments{"-s", swaySocket_.string()};
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
      if (sway_) {
        sway_->pump();
      }
      for (auto& child : children_) {
        child->pump();
      }
      std::this_thread::sleep_for(50ms);
    }
    return true;
  }

  // The middle of an output as the compositor composes it, through grim.
  Rgb shown(const std::string& output) {
    const auto shot = folder_ / "shot.ppm";
    std::filesystem::remove(shot);
    const auto done = engine::run("/usr/bin/env", {"WAYLAND_DISPLAY=" + waylandSocket_.string(),
                                                   engine::findExecutable("grim", searchPath_)->string(), "-t", "ppm",
                                                   "-o", output, shot.string()});
    if (!done || done->exitCode != 0) {
      return {-1, -1, -1};
    }
    std::ifstream in(shot, std::ios::binary);
    std::string magic;
    int width = 0;
    int height = 0;
    int depth = 0;
    in >> magic >> width >> height >> depth;
    in.get();
    std::vector<char> pixels((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto at = static_cast<std::size_t>(((height / 2) * width + width / 2) * 3);
    if (magic != "P6" || depth != 255 || pixels.size() < at + 3) {
      return {-1, -1, -1};
    }
    return {static_cast<unsigned char>(pixels[at]), static_cast<unsigned char>(pixels[at + 1]),
            static_cast<unsigned char>(pixels[at + 2])};
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
  std::filesystem::path swayRun_;
  std::filesystem::path waylandSocket_;
  std::filesystem::path swaySocket_;
  std::unique_ptr<Running> sway_;
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
  sway({"[app_id=cover]", "fullscreen", "disable"});
  ASSERT_TRUE(waitUntil(
      [&] {
        seen = status();
        return seen.size() == 2 && seen[0]["mode"] == "running";
      },
      5s))
      << seen.dump();

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

}  // namespace
}  // namespace korvalen
