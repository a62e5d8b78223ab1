// The screensaver on a real X server: Xvfb with two screens, the real korvalen executable as
// a child process, windows made and destroyed by the test, and what the server shows read
// back from it.
#include "saver/linux/desktop_host.hpp"
#include "engine/process.hpp"
#include "support/clips.hpp"
#include "support/temp_folder.hpp"

// gtest first: Xlib defines None, Bool and Status as macros.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/Xrandr.h>
#include <X11/keysym.h>
#include <signal.h>

#include "host/x11/x11_monitors.hpp"  // includes Xlib too

#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

namespace korvalen::host {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Rgb {
  int r = 0;
  int g = 0;
  int b = 0;
};

bool near(Rgb a, Rgb b) {
  return std::abs(a.r - b.r) <= 24 && std::abs(a.g - b.g) <= 24 && std::abs(a.b - b.b) <= 24;
}

std::ostream& operator<<(std::ostream& os, Rgb c) {
  return os << "rgb(" << c.r << "," << c.g << "," << c.b << ")";
}

// XScreenSaver gives a hack little time after SIGTERM. Under the sanitizers the exit itself
// (the leak check's scan) takes longer than that, so only the product's build is held to it.
#if defined(__SANITIZE_ADDRESS__)
constexpr long stopBound = 2000;
#else
constexpr long stopBound = 200;
#endif

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

constexpr Rgb red{255, 0, 0};
constexpr Rgb blue{0, 0, 255};
constexpr Rgb black{0, 0, 0};

struct DisplayCloser {
  void operator()(Display* display) const { XCloseDisplay(display); }
};

// A running korvalen and everything it has said so far.
struct Running {
  engine::ChildProcess child;
  std::string out;
  std::string err;

  // Reads what it says until `done` holds; false after `limit`.
  bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = 15s) {
    const auto until = Clock::now() + limit;
    while (!done()) {
      if (Clock::now() >= until) {
        return false;
      }
      child.pump(out, err, 50ms);
    }
    return true;
  }
  bool said(const std::string& text) {
    return waitFor([&] { return err.find(text) != std::string::npos; });
  }
  int finish() { return child.wait(out, err); }
};

class Desktop : public ::testing::Test {
 protected:
  // A fresh two-screen Xvfb for every test, on a display number it picks itself.
  static void SetUpTestSuite() {
    const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): before any thread
    const auto xvfb = engine::findExecutable("Xvfb", path == nullptr ? "/usr/bin:/bin" : path);
    ASSERT_TRUE(xvfb.has_value()) << "these tests need Xvfb on PATH (scripts/setup.sh installs xvfb)";
    auto started =
        engine::ChildProcess::start(xvfb.value_or("Xvfb"), {"-displayfd", "1", "-screen", "0", "320x240x24", "-screen",
                                                            "1", "200x150x24", "-nolisten", "tcp", "-noreset"});
    ASSERT_TRUE(started.has_value()) << started.error();
    server = std::make_unique<engine::ChildProcess>(std::move(*started));
    std::string out;
    std::string err;
    const auto until = Clock::now() + 10s;
    while (out.find('\n') == std::string::npos && Clock::now() < until) {
      server->pump(out, err, 100ms);
    }
    ASSERT_NE(out.find('\n'), std::string::npos) << "Xvfb did not start: " << err;
    displayName = ":" + out.substr(0, out.find('\n'));
    ::setenv("DISPLAY", displayName.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): before any thread
  }
  static void TearDownTestSuite() {
    if (server) {
      server->terminate();
      server.reset();
    }
  }

  void SetUp() override {
    ASSERT_TRUE(server);
    display.reset(XOpenDisplay(displayName.c_str()));
    ASSERT_NE(display, nullptr);
    ffmpeg = testing::ffmpegOnPath();
  }

  // A still colour as a 4:3 clip of a few seconds; with a tone when `tone`.
  std::string clip(const std::string& name, const std::string& colour, bool tone = false) {
    auto path = (folder / name).string();
    std::vector<std::string> arguments{"-v", "error", "-f", "lavfi", "-i", "color=c=" + colour + ":s=160x120:r=10"};
    if (tone) {
      // Stereo at 0.8 of full scale.
      arguments.insert(
          arguments.end(),
          {"-f", "lavfi", "-i", "aevalsrc=0.8*sin(440*2*PI*t)|0.8*sin(440*2*PI*t):s=48000", "-c:a", "pcm_s16le"});
    }
    arguments.insert(arguments.end(), {"-t", "4", "-c:v", "libx264", "-pix_fmt", "yuv444p", path});
    const auto made = engine::run(ffmpeg, arguments);
    EXPECT_TRUE(made && made->exitCode == 0) << (made ? made->error : made.error());
    return path;
  }

  // The tool run to its end, with the test's plan.
  engine::Finished korvalen(std::vector<std::string> arguments, std::vector<std::string> environment = {}) {
    auto all = withEnvironment(std::move(arguments), std::move(environment));
    auto finished = engine::run("/usr/bin/env", all);
    if (!finished) {
      return engine::Finished{-1, "", finished.error()};
    }
    return *finished;
  }

  Running start(std::vector<std::string> arguments, std::vector<std::string> environment = {}) {
    auto started =
        engine::ChildProcess::start("/usr/bin/env", withEnvironment(std::move(arguments), std::move(environment)));
    if (!started) {
      ADD_FAILURE() << started.error();
      std::abort();
    }
    return Running{std::move(*started), "", ""};
  }

  void put(const std::vector<std::string>& target, const std::string& clip, const std::string& fit = "fit") {
    std::vector<std::string> arguments{"plan", "put", "--kind", "video", "--path", clip, "--fit", fit};
    arguments.insert(arguments.end(), target.begin(), target.end());
    const auto done = korvalen(arguments);
    ASSERT_EQ(done.exitCode, 0) << done.error;
  }

  // What the server shows at one point of a screen (or of one window), as a screenshot would.
  Rgb shown(int x, int y, int screen = 0, std::optional<Window> window = std::nullopt) {
    XSync(display.get(), False);
    XImage* image =
        XGetImage(display.get(), window.value_or(RootWindow(display.get(), screen)), x, y, 1, 1, AllPlanes, ZPixmap);
    if (image == nullptr) {
      return {-1, -1, -1};
    }
    const auto pixel = XGetPixel(image, 0, 0);
    XDestroyImage(image);
    return {static_cast<int>((pixel >> 16) & 0xff), static_cast<int>((pixel >> 8) & 0xff),
            static_cast<int>(pixel & 0xff)};
  }

  // Waits for the server to show `colour` at a point; the last colour seen when it does not.
  ::testing::AssertionResult shows(Running& saver, Rgb colour, int x, int y, int screen = 0,
                                   std::optional<Window> window = std::nullopt, std::chrono::milliseconds limit = 15s) {
    Rgb seen;
    if (saver.waitFor([&] { return near(seen = shown(x, y, screen, window), colour); }, limit)) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "at " << x << "," << y << " the server shows " << seen.r << "," << seen.g
                                         << "," << seen.b << "\n"
                                         << saver.err;
  }

  Window makeWindow(int x, int y, unsigned width, unsigned height, int screen = 0) {
    const Window window = XCreateSimpleWindow(display.get(), RootWindow(display.get(), screen), x, y, width, height, 0,
                                              0, WhitePixel(display.get(), screen));
    XMapWindow(display.get(), window);
    XSync(display.get(), False);
    return window;
  }

  static std::string hex(Window window) {
    std::ostringstream text;
    text << "0x" << std::hex << window;
    return text.str();
  }

  [[nodiscard]] std::string plan() const { return (folder / "plan.json").string(); }

  static std::unique_ptr<engine::ChildProcess> server;
  static std::string displayName;
  std::unique_ptr<Display, DisplayCloser> display;
  testing::TempFolder folder;
  std::filesystem::path ffmpeg;

 private:
  // env's options (--chdir) first, as it takes them only before the first variable; then the
  // defaults, which the test's own variables override.
  std::vector<std::string> withEnvironment(std::vector<std::string> arguments, std::vector<std::string> environment) {
    std::vector<std::string> all;
    std::copy_if(environment.begin(), environment.end(), std::back_inserter(all),
                 [](const std::string& s) { return s.starts_with("--"); });
    all.insert(all.end(), {"KORVALEN_SAVER_PLAN=" + plan(), "SDL_AUDIODRIVER=dummy"});
    std::copy_if(environment.begin(), environment.end(), std::back_inserter(all),
                 [](const std::string& s) { return !s.starts_with("--"); });
    all.emplace_back(KORVALEN_EXECUTABLE);
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
  }
};

std::unique_ptr<engine::ChildProcess> Desktop::server;
std::string Desktop::displayName;

TEST_F(Desktop, OwnWindowShowsThePlacementAndSigtermStopsItAtOnce) {
  put({"--shared"}, clip("red.mp4", "red"));
  auto saver = start({"saver", "--window", "300x100"});
  // A 4:3 picture fitted into 300x100: 133 wide in the middle, black either side.
  ASSERT_TRUE(shows(saver, red, 150, 50));
  EXPECT_TRUE(near(shown(20, 50), black)) << shown(20, 50);
  EXPECT_TRUE(near(shown(280, 50), black));
  EXPECT_TRUE(near(shown(100, 50), red));
  EXPECT_THAT(saver.err, HasSubstr("] made, preview false"));
  EXPECT_THAT(saver.err, HasSubstr("] screen 0000-0000-00000000-0|320x240 -> red.mp4 fit=fit"));

  // XScreenSaver's way of ending a hack.
  const auto sent = Clock::now();
  ASSERT_EQ(::kill(saver.child.pid(), SIGTERM), 0);
  const int status = saver.finish();
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - sent);
  EXPECT_EQ(status, 0) << saver.err;
  EXPECT_LT(took.count(), stopBound);
  EXPECT_EQ(occurrences(saver.err, "] stopped: "), 1U) << saver.err;
  EXPECT_THAT(saver.err, HasSubstr("] stopped: stopAnimation"));
}

// The saver's own top-level window, found by its name.
Window windowNamed(Display* display, const char* name) {
  Window root = None;
  Window parent = None;
  Window* children = nullptr;
  unsigned count = 0;
  Window found = None;
  if (XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count) != 0) {
    for (unsigned i = 0; i < count && found == None; ++i) {
      char* title = nullptr;
      if (XFetchName(display, children[i], &title) != 0 && title != nullptr) {
        found = std::string_view(title) == name ? children[i] : None;
        XFree(title);
      }
    }
    XFree(children);
  }
  return found;
}

void pressKey(Display* display, Window window, KeySym key) {
  XEvent event{};
  event.xkey.type = KeyPress;
  event.xkey.display = display;
  event.xkey.window = window;
  event.xkey.root = DefaultRootWindow(display);
  event.xkey.keycode = XKeysymToKeycode(display, key);
  event.xkey.same_screen = True;
  XSendEvent(display, window, True, KeyPressMask, &event);
}

// What a window manager sends when its close button is pressed (of type WM_PROTOCOLS).
void closeWindow(Display* display, Window window, const char* type = "WM_PROTOCOLS") {
  XEvent event{};
  event.xclient.type = ClientMessage;
  event.xclient.window = window;
  event.xclient.message_type = XInternAtom(display, type, False);
  event.xclient.format = 32;
  event.xclient.data.l[0] = static_cast<long>(XInternAtom(display, "WM_DELETE_WINDOW", False));
  event.xclient.data.l[1] = CurrentTime;
  XSendEvent(display, window, False, NoEventMask, &event);
}

TEST_F(Desktop, EscapeQAndTheWindowManagersCloseEndItsOwnWindow) {
  put({"--shared"}, clip("red.mp4", "red"));
  const std::vector<std::pair<std::string, std::function<void(Display*, Window)>>> ways{
      {"Escape", [](Display* d, Window w) { pressKey(d, w, XK_Escape); }},
      {"q", [](Display* d, Window w) { pressKey(d, w, XK_q); }},
      {"close", [](Display* d, Window w) { closeWindow(d, w); }},
  };
  for (const auto& [name, end] : ways) {
    SCOPED_TRACE(name);
    auto saver = start({"saver", "--window", "120x90"});
    ASSERT_TRUE(shows(saver, red, 60, 45));
    const Window window = windowNamed(display.get(), "Korvalen");
    ASSERT_NE(window, None);
    // Another key, or another client's message, is not a reason to stop.
    pressKey(display.get(), window, XK_space);
    closeWindow(display.get(), window, "_KORVALEN_SOMETHING_ELSE");
    XSync(display.get(), False);
    EXPECT_FALSE(saver.waitFor([&] { return saver.err.find("] stopped: ") != std::string::npos; }, 300ms)) << saver.err;
    end(display.get(), window);
    XSync(display.get(), False);
    ASSERT_TRUE(saver.said("] stopped: stopAnimation")) << saver.err;
    EXPECT_EQ(saver.finish(), 0) << saver.err;
    EXPECT_EQ(occurrences(saver.err, "] stopped: stopAnimation"), 1U) << saver.err;
    EXPECT_EQ(windowNamed(display.get(), "Korvalen"), None) << "its window is taken down with it";
  }
}

TEST_F(Desktop, ForeignWindowFollowsItsSizeAndItsEnd) {
  put({"--shared"}, clip("red.mp4", "red"));
  const Window window = makeWindow(20, 10, 240, 180);
  auto saver = start({"saver", "--window-id", hex(window)});
  // 4:3 in 4:3: the whole window.
  ASSERT_TRUE(shows(saver, red, 5, 5, 0, window));
  EXPECT_TRUE(near(shown(120, 90, 0, window), red));
  EXPECT_THAT(saver.err, HasSubstr("] made, preview false"));

  // Narrowed by whoever owns it: re-placed in the new bounds, bars above and below.
  XResizeWindow(display.get(), window, 120, 180);
  ASSERT_TRUE(shows(saver, black, 60, 10, 0, window));
  EXPECT_TRUE(near(shown(60, 90, 0, window), red));
  EXPECT_TRUE(near(shown(60, 170, 0, window), black));

  XDestroyWindow(display.get(), window);
  XSync(display.get(), False);
  ASSERT_TRUE(saver.said("] stopped: left its window")) << saver.err;
  EXPECT_EQ(saver.finish(), 0) << saver.err;
}

TEST_F(Desktop, OneProcessDrivesAViewInEachWindowItIsGivenUntilTheLastIsGone) {
  put({"--shared"}, clip("red.mp4", "red"));
  // Half the screen each: too large for a preview.
  const Window left = makeWindow(0, 0, 160, 240);
  const Window right = makeWindow(160, 0, 160, 240);
  // Written as XScreenSaver writes its hacks' options: one dash.
  auto saver = start({"saver", "-window-id", hex(left), "-window-id", hex(right)});
  ASSERT_TRUE(shows(saver, red, 80, 120, 0, left));
  ASSERT_TRUE(shows(saver, red, 80, 120, 0, right));
  ASSERT_TRUE(saver.waitFor([&] { return occurrences(saver.err, "] screen ") == 2; })) << saver.err;
  EXPECT_EQ(occurrences(saver.err, "] made, preview false"), 2U) << saver.err;

  // One window gone stops its own view; the other plays on.
  XDestroyWindow(display.get(), left);
  XSync(display.get(), False);
  ASSERT_TRUE(saver.said("] stopped: left its window")) << saver.err;
  XFillRectangle(display.get(), right, DefaultGC(display.get(), 0), 0, 0, 160, 240);
  ASSERT_TRUE(shows(saver, red, 80, 120, 0, right)) << "drawn again after it was painted over";

  XDestroyWindow(display.get(), right);
  XSync(display.get(), False);
  ASSERT_TRUE(saver.waitFor([&] { return occurrences(saver.err, "] stopped: ") == 2; })) << saver.err;
  EXPECT_EQ(saver.finish(), 0) << "ends once no window is left\n" << saver.err;
  EXPECT_EQ(occurrences(saver.err, "] stopped: left its window"), 2U) << saver.err;
  EXPECT_EQ(occurrences(saver.err, "] stopped: "), 2U) << saver.err;
}

TEST_F(Desktop, XScreenSaverWindowWithRootAndASmallWindowIsThePreview) {
  put({"--shared"}, clip("blue.mp4", "blue"));
  const Window pane = makeWindow(100, 100, 80, 60);
  auto saver = start({"saver", "-root"}, {"XSCREENSAVER_WINDOW=" + hex(pane)});
  ASSERT_TRUE(shows(saver, blue, 40, 30, 0, pane));
  EXPECT_THAT(saver.err, HasSubstr("] made, preview true"));
  // Only the pane is drawn into; the rest of the screen is as it was.
  EXPECT_FALSE(near(shown(10, 10), blue));
  ::kill(saver.child.pid(), SIGINT);
  EXPECT_EQ(saver.finish(), 0);
  EXPECT_THAT(saver.err, HasSubstr("] stopped: stopAnimation"));
}

TEST_F(Desktop, APlanChangedWhileRunningIsShownWithinOnePoll) {
  put({"--shared"}, clip("red.mp4", "red"));
  const auto blueClip = clip("blue.mp4", "blue");
  auto saver = start({"saver", "--window", "160x120"});
  ASSERT_TRUE(shows(saver, red, 80, 60));
  // A plan's stamp has whole seconds: a change is told from the plan it replaces by a later one.
  const auto first = std::time(nullptr);
  while (std::time(nullptr) == first) {
    std::this_thread::sleep_for(20ms);
  }
  const auto changed = Clock::now();
  put({"--shared"}, blueClip);
  // The controller looks at the plan every 3 s; a load and a frame on top.
  ASSERT_TRUE(shows(saver, blue, 80, 60, 0, std::nullopt, 6s));
  EXPECT_LT(Clock::now() - changed, 6s);
  EXPECT_THAT(saver.err, HasSubstr("] the plan moved on"));
  saver.child.terminate();
}

// A base EDID block of a Dell ("DEL" = 0x10ac), product 0xa0c4, serial 0x4c4c3042.
void giveEdid(Display* display, int screen) {
  std::array<unsigned char, 128> edid{0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00,
                                      0x10, 0xac, 0xc4, 0xa0, 0x42, 0x30, 0x4c, 0x4c};
  XRRScreenResources* resources = XRRGetScreenResourcesCurrent(display, RootWindow(display, screen));
  ASSERT_NE(resources, nullptr);
  ASSERT_GE(resources->noutput, 1);
  XRRChangeOutputProperty(display, resources->outputs[0], XInternAtom(display, "EDID", False), XA_INTEGER, 8,
                          PropModeReplace, edid.data(), static_cast<int>(edid.size()));
  XRRFreeScreenResources(resources);
  XSync(display, False);
}

TEST_F(Desktop, TwoScreensGetTheirOwnEntriesByTheIdentifiersRandRGives) {
  giveEdid(display.get(), 1);
  const auto listed = korvalen({"screens"});
  ASSERT_EQ(listed.exitCode, 0) << listed.error;
  EXPECT_EQ(listed.output,
            "display-0|320x240  screen 0 screen 320x240+0+0\n"
            "10ac-a0c4-4c4c3042|200x150  screen 1 screen 200x150+0+0\n");

  put({"--screen", "display-0|320x240"}, clip("red.mp4", "red"), "fill");
  put({"--screen", "10ac-a0c4-4c4c3042|200x150"}, clip("blue.mp4", "blue"), "fill");
  auto saver = start({"saver", "--fullscreen"});
  ASSERT_TRUE(shows(saver, red, 160, 120, 0));
  ASSERT_TRUE(shows(saver, blue, 100, 75, 1));
  EXPECT_TRUE(near(shown(2, 2, 1), blue)) << "the view covers its whole screen";
  EXPECT_THAT(saver.err, HasSubstr("] screen 10ac-a0c4-4c4c3042|200x150 -> blue.mp4"));
  EXPECT_THAT(saver.err, HasSubstr("] screen display-0|320x240 -> red.mp4"));
  ::kill(saver.child.pid(), SIGTERM);
  EXPECT_EQ(saver.finish(), 0);
}

// SDL's disk driver writes what would have been played: 32-bit float stereo.
float loudest(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  float loudest = 0;
  float sample = 0;
  while (in.read(reinterpret_cast<char*>(&sample), sizeof sample)) {
    loudest = std::max(loudest, std::abs(sample));
  }
  return loudest;
}

TEST_F(Desktop, TheSoundTrackPlaysAtThePlansVolumeAndNotWhenOff) {
  put({"--shared"}, clip("tone.mov", "red", true));
  const auto played = folder / "played.raw";
  const std::vector<std::string> disk{"SDL_AUDIODRIVER=disk", "SDL_DISKAUDIOFILE=" + played.string()};
  ASSERT_EQ(korvalen({"plan", "set", "--sound", "on", "--volume", "0.5"}).exitCode, 0);
  auto loud = korvalen({"saver", "--window", "64x48", "--seconds", "1.5"}, disk);
  ASSERT_EQ(loud.exitCode, 0) << loud.error;
  // The 0.8 sine at half volume.
  EXPECT_NEAR(loudest(played), 0.4, 0.02) << loud.error;

  std::filesystem::remove(played);
  ASSERT_EQ(korvalen({"plan", "set", "--sound", "off"}).exitCode, 0);
  auto quiet = korvalen({"saver", "--window", "64x48", "--seconds", "1"}, disk);
  ASSERT_EQ(quiet.exitCode, 0) << quiet.error;
  EXPECT_EQ(loudest(played), 0.0F);

  // No device to play on is not a reason to stop showing the picture.
  ASSERT_EQ(korvalen({"plan", "set", "--sound", "on"}).exitCode, 0);
  auto deaf = korvalen({"saver", "--window", "64x48", "--seconds", "1"}, {"SDL_AUDIODRIVER=nosuchdriver"});
  EXPECT_EQ(deaf.exitCode, 0) << deaf.error;
  EXPECT_THAT(deaf.error, HasSubstr("no sound: "));
  EXPECT_THAT(deaf.error, HasSubstr("|320x240 -> tone.mov fit=fit"));
}

TEST_F(Desktop, WhatCannotBeShownIsOneLine) {
  struct Case {
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    int status;
    std::string fragment;
  };
  const std::vector<Case> cases{
      {{"saver", "--window-id", "zz"}, {}, 2, "--window-id: expected an X window id such as 0x2a00007, got \"zz\""},
      {{"saver", "--window-id", "0x1ffffff0"}, {}, 1, "window 0x1ffffff0: there is no such window on "},
      {{"saver", "-root"}, {"XSCREENSAVER_WINDOW=window"}, 2, "XSCREENSAVER_WINDOW: expected an X window id"},
      {{"saver", "--fullscreen", "--window", "10x10"}, {}, 2, "choose one of --window, --fullscreen"},
      {{"saver", "--window", "0x10"}, {}, 2, "--window: expected WxH"},
      {{"saver", "--window", "64x48", "--out", "x.mp4"}, {}, 2, "--size, --out and --screen are for --headless"},
      {{"saver", "--seconds", "1"}, {"DISPLAY="}, 1, "no display: neither WAYLAND_DISPLAY (Wayland) nor DISPLAY"},
      {{"saver", "--backend", "x11"}, {"DISPLAY="}, 1, "saver: no X display: DISPLAY is not set; --headless"},
      {{"saver", "--seconds", "1"}, {"DISPLAY=:9999"}, 1, "saver: no X display: :9999 cannot be opened"},
      {{"screens"}, {"DISPLAY="}, 1, "no display: neither WAYLAND_DISPLAY (Wayland) nor DISPLAY (X11) is set"},
      {{"screens", "--backend", "x11"}, {"DISPLAY="}, 1, "screens: no X display"},
  };
  for (const auto& c : cases) {
    const auto done = korvalen(c.arguments, c.environment);
    EXPECT_EQ(done.exitCode, c.status) << c.fragment << "\n" << done.error;
    EXPECT_THAT(done.error, HasSubstr(c.fragment));
    EXPECT_EQ(std::count(done.error.begin(), done.error.end(), '\n'), 1) << done.error;
  }
}

TEST_F(Desktop, TheDemoEndsWithTheSaverInAWindow) {
  auto demo = start({"demo"}, {"--chdir=" + folder.path().string()});
  ASSERT_TRUE(demo.waitFor([&] { return demo.out.find("-> dusk.mp4 fit=fill") != std::string::npos; }, 60s))
      << demo.out << demo.err;
  // 288x162 at the corner of the 320x240 screen, showing dusk-coloured gradients.
  Rgb seen;
  EXPECT_TRUE(demo.waitFor(
      [&] {
        return !near(seen = shown(144, 81), black) && !near(seen, {255, 255, 255});
      },
      5s))
      << seen;
  EXPECT_EQ(demo.finish(), 0) << demo.err;
  EXPECT_THAT(demo.out, HasSubstr("in a window: 4 s of the clip with its sound, then 3 s of the animated image"));
  EXPECT_THAT(demo.out, HasSubstr("-> life.gif fit=fit"));
  // Then the live wallpaper behind the windows, until it stops by itself.
  EXPECT_THAT(demo.out, HasSubstr("The live wallpaper behind your windows for 5 s"));
  EXPECT_THAT(demo.out, HasSubstr("playing on 1 monitor(s)"));  // the first X screen's
  EXPECT_THAT(demo.out, HasSubstr("  stopped\n"));
  EXPECT_EQ(folder.entries(), std::vector<std::string>{}) << "nothing is left behind when it was shown";
}

TEST_F(Desktop, WithoutADisplayTheDemoKeepsAVideoOfTheSaverAndWritesOverNothing) {
  {
    std::ofstream mine(folder / "korvalen-demo.mp4");
    mine << "mine";
  }
  const auto demo = korvalen({"demo"}, {"--chdir=" + folder.path().string(), "DISPLAY="});
  ASSERT_EQ(demo.exitCode, 0) << demo.error;
  const auto movie = folder / "korvalen-demo-2.mp4";
  // 7 s of the screensaver, then 5 s of the live wallpaper's two monitors.
  EXPECT_THAT(demo.output,
              HasSubstr("  wrote " + movie.string() + " (180 frames, 640x360 at 15 fps, with the clip's sound;"));
  EXPECT_THAT(demo.output, HasSubstr("[LEFT|320x180] screen LEFT|320x180 -> life.gif"));
  // The planner chose each, from an evening schedule.
  EXPECT_THAT(demo.output,
              HasSubstr("18:30 UTC: The active playlist \"Evening\" shows item 1 \"dusk\" by its schedule."));
  EXPECT_THAT(demo.output,
              HasSubstr("21:30 UTC: The active playlist \"Evening\" shows item 2 \"life\" by its schedule."));
  EXPECT_EQ(testing::readText(folder / "korvalen-demo.mp4"), "mine");
  // Its frames: the clip's gradient first, the image's cells later.
  const auto frame = [&](double at) {
    const auto png = folder / "frame.png";
    const auto cut =
        engine::run(ffmpeg, {"-v", "error", "-y", "-ss", std::to_string(at), "-i", movie.string(), "-frames:v", "1",
                             "-f", "rawvideo", "-pix_fmt", "rgb24", "-s", "4x4", png.string() + ".rgb"});
    EXPECT_TRUE(cut && cut->exitCode == 0);
    return testing::readText(png.string() + ".rgb");
  };
  const auto early = frame(1);
  const auto late = frame(6);
  ASSERT_EQ(early.size(), 48U);
  ASSERT_EQ(late.size(), 48U);
  EXPECT_NE(early, late);
  const auto brightness = [](const std::string& pixels) {
    int sum = 0;
    for (const char c : pixels) {
      sum += static_cast<unsigned char>(c);
    }
    return sum / static_cast<int>(pixels.size());
  };
  EXPECT_GT(brightness(early), 40) << "the clip, not a black screen";
  // The live wallpaper: two monitors in a band across the middle, black above and below.
  const auto wallpaper = frame(8);
  ASSERT_EQ(wallpaper.size(), 48U);
  EXPECT_GT(brightness(wallpaper.substr(12, 24)), 20) << "the monitors' band";
  EXPECT_LT(brightness(wallpaper.substr(0, 12)), 8) << "black above it";
  // At the end the right monitor shows the demo's web page by its still: blue-green glows
  // on a dark blue sky, where the left one shows the image's amber cells.
  EXPECT_THAT(demo.output, HasSubstr("[RIGHT|320x180] screen RIGHT|320x180 -> index.html"));
  const auto end = frame(11.9);
  ASSERT_EQ(end.size(), 48U);
  const auto channel = [&](std::size_t column, std::size_t colour) {
    int sum = 0;
    for (const std::size_t row : {1U, 2U}) {
      sum += static_cast<unsigned char>(end[row * 12 + column * 3 + colour]);
    }
    return sum;
  };
  EXPECT_GT(channel(3, 2), channel(3, 0) + 40) << "the page's blue on the right";
  EXPECT_GT(channel(0, 0), channel(0, 2) + 20) << "the image's amber on the left";
  // The clip's sound is in it.
  const auto sound = engine::run(ffmpeg, {"-v", "error", "-i", movie.string(), "-map", "0:a:0", "-f", "null", "-"});
  EXPECT_TRUE(sound && sound->exitCode == 0) << (sound ? sound->error : sound.error());
}

// Xvfb names its one output "screen", so a laptop's panel is only seen by its name.
TEST(BuiltInPanels, AreKnownByTheirConnectorNames) {
  for (const auto* panel : {"eDP-1", "eDP1", "EDP-2", "LVDS-1", "LVDS1", "lvds", "DSI-1", "DSI1"}) {
    EXPECT_TRUE(isBuiltInOutput(panel)) << panel;
  }
  for (const auto* other : {"HDMI-1", "DP-1", "DisplayPort-0", "DVI-D-1", "VGA-1", "screen", "", "eD", "xeDP-1"}) {
    EXPECT_FALSE(isBuiltInOutput(other)) << other;
  }
}

TEST(WindowIDs, AsXScreenSaverAndXwininfoWriteThem) {
  EXPECT_EQ(parseWindowID("0x2a00007", "w"), 0x2a00007U);
  EXPECT_EQ(parseWindowID("0X1C", "w"), 0x1cU);
  EXPECT_EQ(parseWindowID("44040199", "w"), 44040199U);
  EXPECT_EQ(parseWindowID("0x1fffffff", "w"), 0x1fffffffU);
  for (const auto* bad : {"", "0x", "0", "0x20000000", "12ab", "-5", " 0x10", "0x10 ", "99999999999999999999999"}) {
    const auto parsed = parseWindowID(bad, "--window-id");
    ASSERT_FALSE(parsed.has_value()) << bad;
    EXPECT_EQ(parsed.error(),
              std::string("--window-id: expected an X window id such as 0x2a00007, got \"") + bad + "\"");
  }
}

}  // namespace
}  // namespace korvalen::host
