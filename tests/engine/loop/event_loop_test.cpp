#include "engine/loop/event_loop.hpp"

#include "engine/loop/file_watcher.hpp"
#include "support/temp_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <thread>

namespace korvalen::engine {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::Pair;

std::unique_ptr<EventLoop> makeLoop() {
  auto loop = EventLoop::make();
  EXPECT_TRUE(loop) << loop.error();
  return std::move(*loop);
}

Date wallNow() {
  return std::chrono::time_point_cast<Date::duration>(std::chrono::system_clock::now());
}

TEST(EventLoop, ATaskPostedFromAnotherThreadWakesItAtOnce) {
  auto loop = makeLoop();
  std::thread poster([&] {
    std::this_thread::sleep_for(50ms);
    loop->post([&] { loop->quit(); });
  });
  loop->run();
  poster.join();
  EXPECT_LE(loop->wakeups(), 2U) << "it slept until the post, instead of looking again and again";
}

TEST(EventLoop, AWallClockDeadlineFiresOnceAndNotBeforeItsInstant) {
  auto loop = makeLoop();
  const auto target = wallNow() + 150ms;
  std::vector<std::pair<Date, bool>> fired;
  auto timer = loop->atWallTime(target, [&](bool clockChanged) {
    fired.emplace_back(wallNow(), clockChanged);
    loop->post([&] { loop->quit(); });
  });
  ASSERT_TRUE(timer) << timer.error();
  loop->run();
  ASSERT_EQ(fired.size(), 1U);
  EXPECT_GE(fired[0].first, target);
  EXPECT_FALSE(fired[0].second);

  // An instant already past fires at once; a deadline dropped before it falls never fires.
  int past = 0;
  int dropped = 0;
  auto late = loop->atWallTime(wallNow() - 10s, [&](bool) { ++past; });
  auto cancelled = loop->atWallTime(wallNow() + 50ms, [&](bool) { ++dropped; });
  ASSERT_TRUE(late && cancelled);
  cancelled->reset();
  auto end = loop->atWallTime(wallNow() + 200ms, [&](bool) { loop->quit(); });
  loop->run();
  EXPECT_EQ(past, 1);
  EXPECT_EQ(dropped, 0);
}

TEST(EventLoop, ADelayOnTheMonotonicClockFiresOnceItHasPassed) {
  auto loop = makeLoop();
  const auto started = std::chrono::steady_clock::now();
  std::chrono::steady_clock::duration waited{};
  auto timer = loop->after(80ms, [&] {
    waited = std::chrono::steady_clock::now() - started;
    loop->quit();
  });
  ASSERT_TRUE(timer) << timer.error();
  loop->run();
  EXPECT_GE(waited, 80ms);
}

TEST(EventLoop, AWatchMayEndItselfInsideItsCallback) {
  auto loop = makeLoop();
  int calls = 0;
  std::unique_ptr<EventLoop::Watch> self;
  auto made = loop->atWallTime(wallNow(), [&](bool) {
    ++calls;
    self.reset();
    loop->post([&] { loop->quit(); });
  });
  ASSERT_TRUE(made);
  self = std::move(*made);
  loop->run();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(self, nullptr);
}

TEST(EventLoop, ASignalIsDeliveredAsAnEvent) {
  auto loop = makeLoop();
  int received = 0;
  auto watch = loop->onSignal(SIGUSR1, [&] {
    ++received;
    loop->quit();
  });
  ASSERT_TRUE(watch) << watch.error();
  std::raise(SIGUSR1);
  loop->run();
  EXPECT_EQ(received, 1);
}

TEST(FileWatcher, SeesAFileReplacedByRenameAndOneWrittenInPlace) {
  testing::TempFolder folder;
  auto loop = makeLoop();
  std::vector<std::pair<std::string, std::string>> seen;
  auto watcher = FileWatcher::make(*loop, [&](const std::filesystem::path& where, const std::string& name) {
    seen.emplace_back(where.filename().string(), name);
  });
  ASSERT_TRUE(watcher) << watcher.error();
  std::filesystem::create_directories(folder / "watched");
  ASSERT_TRUE((*watcher)->watch(folder / "watched"));
  EXPECT_FALSE((*watcher)->watch(folder / "absent")) << "a folder that is not there is one line, not a crash";

  std::ofstream(folder / "watched/settings.json.tmp") << "{}";
  std::filesystem::rename(folder / "watched/settings.json.tmp", folder / "watched/settings.json");
  std::ofstream(folder / "watched/settings.json") << "{\"a\": 1}";
  std::ofstream(folder / "elsewhere.json") << "{}";
  auto end = loop->atWallTime(wallNow() + 100ms, [&](bool) { loop->quit(); });
  loop->run();
  EXPECT_THAT(seen, Contains(Pair("watched", "settings.json")));
  EXPECT_EQ(std::count(seen.begin(), seen.end(), std::pair<std::string, std::string>("watched", "settings.json")), 2)
      << "once renamed in, once closed after writing";
  for (const auto& [where, name] : seen) {
    EXPECT_EQ(where, "watched");
  }
}

}  // namespace
}  // namespace korvalen::engine
