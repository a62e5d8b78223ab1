#include "engine/process.hpp"

#include "support/temp_folder.hpp"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

namespace korvalen::engine {
namespace {

const std::filesystem::path shell = "/bin/sh";

std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

TEST(ChildProcess, CollectsBothStreamsAndTheExitCode) {
  const auto finished = run(shell, {"-c", "printf out; printf err >&2; exit 3"});
  ASSERT_TRUE(finished.has_value()) << finished.error();
  EXPECT_EQ(finished->exitCode, 3);
  EXPECT_EQ(finished->output, "out");
  EXPECT_EQ(finished->error, "err");
}

TEST(ChildProcess, ArgumentsReachTheChildUntouchedByAnyShell) {
  const auto finished = run("/bin/echo", {"a b", "$HOME", "'q'", "*"});
  ASSERT_TRUE(finished.has_value());
  EXPECT_EQ(finished->output, "a b $HOME 'q' *\n");
}

TEST(ChildProcess, AChildFillingBothPipesDoesNotDeadlock) {
  // 4 MiB on each stream, far beyond a pipe's buffer, written in alternation.
  const auto finished =
      run(shell, {"-c",
                  "i=0; while [ $i -lt 64 ]; do head -c 65536 /dev/zero; head -c 65536 /dev/zero >&2; "
                  "i=$((i+1)); done"});
  ASSERT_TRUE(finished.has_value());
  EXPECT_EQ(finished->output.size(), 64U * 65536U);
  EXPECT_EQ(finished->error.size(), 64U * 65536U);
}

TEST(ChildProcess, AMissingProgramIsOneLineNamingIt) {
  const auto started = ChildProcess::start("/no/such/ffmpeg", {});
  ASSERT_FALSE(started.has_value());
  EXPECT_NE(started.error().find("/no/such/ffmpeg"), std::string::npos);
  EXPECT_EQ(started.error().find('\n'), std::string::npos);
}

TEST(ChildProcess, TerminateStopsAndReapsAndLeavesNoDescriptors) {
  const auto before = openDescriptors();
  pid_t pid = -1;
  {
    auto child = ChildProcess::start(shell, {"-c", "sleep 30"});
    ASSERT_TRUE(child.has_value());
    pid = child->pid();
    child->terminate();
    std::string output;
    std::string error;
    EXPECT_EQ(child->wait(output, error), 128 + SIGTERM);
  }
  EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1) << "already reaped: no zombie";
  {
    // Dropped while running: the destructor ends it, even one that ignores SIGTERM.
    auto stubborn = ChildProcess::start(shell, {"-c", "trap '' TERM; exec sleep 30"});
    ASSERT_TRUE(stubborn.has_value());
    pid = stubborn->pid();
  }
  EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(ChildProcess, ASilentChildCanBeWaitedOnInSlicesAndIsInAGroupOfItsOwn) {
  auto child = ChildProcess::start(shell, {"-c", "sleep 0.3; printf done"});
  ASSERT_TRUE(child.has_value());
  // A Ctrl-C sent to our group must not reach it.
  EXPECT_EQ(::getpgid(child->pid()), child->pid());
  std::string output;
  std::string error;
  int slices = 0;
  while (child->pump(output, error, std::chrono::milliseconds(20))) {
    ++slices;
  }
  EXPECT_GT(slices, 1) << "pump returned while the child was still silent";
  EXPECT_EQ(output, "done");
  EXPECT_EQ(child->wait(output, error), 0);
}

TEST(FindExecutable, SearchesThePathInOrder) {
  korvalen::testing::TempFolder folder;
  std::filesystem::create_directories(folder / "a");
  std::filesystem::create_directories(folder / "b");
  korvalen::testing::writeText(folder / "a/tool", "not executable");
  korvalen::testing::writeText(folder / "b/tool", "#!/bin/sh\n");
  std::filesystem::permissions(folder / "b/tool", std::filesystem::perms::owner_all);
  const auto search = (folder / "a").string() + ":" + (folder / "b").string();
  EXPECT_EQ(findExecutable("tool", search), folder / "b/tool");
  EXPECT_EQ(findExecutable("none", search), std::nullopt);
  EXPECT_EQ(findExecutable((folder / "b/tool").string(), ""), folder / "b/tool");
  EXPECT_EQ(findExecutable((folder / "a/tool").string(), ""), std::nullopt);
}

}  // namespace
}  // namespace korvalen::engine
