#include "core/support/atomic_file.hpp"

#include "support/temp_folder.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace korvalen {
namespace {

using testing::readText;
using testing::TempFolder;
using testing::writeText;

TEST(AtomicWrite, CreatesMissingFoldersAndReplacesTheFileWhole) {
  TempFolder folder;
  const auto target = folder / "a/b/c/file.json";
  ASSERT_TRUE(files::writeAtomically(target, "first").has_value());
  EXPECT_EQ(readText(target), "first");
  ASSERT_TRUE(files::writeAtomically(target, "second, longer").has_value());
  EXPECT_EQ(readText(target), "second, longer");
  EXPECT_EQ(folder.entries(), (std::vector<std::string>{"a", "a/b", "a/b/c", "a/b/c/file.json"}));
}

TEST(AtomicWrite, AFailureNamesThePathAndLeavesNothingBehind) {
  TempFolder folder;
  // A folder where the file should be: the rename cannot replace it.
  std::filesystem::create_directories(folder / "taken.json/inside");
  auto result = files::writeAtomically(folder / "taken.json", "x");
  ASSERT_FALSE(result.has_value());
  EXPECT_NE(result.error().find((folder / "taken.json").string()), std::string::npos) << result.error();
  EXPECT_EQ(result.error().find('\n'), std::string::npos);
  EXPECT_EQ(folder.entries(), (std::vector<std::string>{"taken.json", "taken.json/inside"}));
}

TEST(AtomicWrite, AFileInTheWayOfTheFolderIsReported) {
  TempFolder folder;
  writeText(folder / "plain", "old");
  auto result = files::writeAtomically(folder / "plain/sub/file.json", "x");
  ASSERT_FALSE(result.has_value());
  EXPECT_NE(result.error().find("could not create the folder"), std::string::npos) << result.error();
  EXPECT_EQ(readText(folder / "plain"), "old");
}

TEST(AtomicWrite, KeepsTheOldFileWhenTheNewOneCannotBeWritten) {
  TempFolder folder;
  const auto target = folder / "plan.json";
  writeText(target, "old plan");
  // The temporary file's name is the target's plus a suffix; a name too long for the file
  // system makes that step fail before the target is touched.
  const auto tooLong = folder / (std::string(250, 'p') + ".json");
  EXPECT_FALSE(files::writeAtomically(tooLong, "x").has_value());
  EXPECT_EQ(readText(target), "old plan");
  EXPECT_EQ(folder.entries(), std::vector<std::string>{"plan.json"});
}

// A save killed part-way leaves "<name>.tmp-XXXXXX"; the next save of the same file removes
// it, but never one that a live writer is still working on, nor another file's.
TEST(AtomicWrite, TheNextSaveSweepsStaleTemporaryFilesOfItsOwnTarget) {
  TempFolder folder;
  const auto target = folder / "plan.json";
  writeText(folder / "plan.json.tmp-AbC123", "left by a killed save");
  writeText(folder / "plan.json.tmp-live01", "a writer is working on this one");
  writeText(folder / "other.json.tmp-AbC123", "another file's");
  writeText(folder / "plan.json.tmp-toolong", "not our pattern");
  const int live = ::open((folder / "plan.json.tmp-live01").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(live, 0);
  ASSERT_EQ(::flock(live, LOCK_EX), 0);

  ASSERT_TRUE(files::writeAtomically(target, "new").has_value());
  EXPECT_EQ(folder.entries(), (std::vector<std::string>{"other.json.tmp-AbC123", "plan.json", "plan.json.tmp-live01",
                                                        "plan.json.tmp-toolong"}));
  ::close(live);
  ASSERT_TRUE(files::writeAtomically(target, "newer").has_value());
  EXPECT_EQ(folder.entries(),
            (std::vector<std::string>{"other.json.tmp-AbC123", "plan.json", "plan.json.tmp-toolong"}));
  EXPECT_EQ(readText(target), "newer");
}

TEST(AtomicRead, ReadsBytesAndReportsMissingFilesAndFolders) {
  TempFolder folder;
  writeText(folder / "bytes", std::string("a\0b", 3));
  EXPECT_EQ(*files::read(folder / "bytes"), std::string("a\0b", 3));
  auto missing = files::read(folder / "nope");
  ASSERT_FALSE(missing.has_value());
  EXPECT_NE(missing.error().find("nope"), std::string::npos);
  EXPECT_FALSE(files::read(folder.path()).has_value());
}

}  // namespace
}  // namespace korvalen
