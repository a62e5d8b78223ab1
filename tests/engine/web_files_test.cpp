// What a web page's server may open, the processes a page view started, and a page folder's
// copy: real files, real links, real child processes.
#include "engine/library/library_store.hpp"
#include "engine/library/web_still.hpp"
#include "engine/process.hpp"
#include "engine/web/beneath_folder.hpp"
#include "engine/web/process_tree.hpp"
#include "support/temp_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include <unistd.h>

namespace korvalen::engine {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using testing::TempFolder;

void write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

std::string readAll(int fd) {
  std::string out;
  char buffer[256];
  for (ssize_t got = 0; (got = ::read(fd, buffer, sizeof buffer)) > 0;) {
    out.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(fd);
  return out;
}

TEST(BeneathFolder, OpensOnlyWhatLiesInsideWhateverTheNameOrLinkSays) {
  TempFolder folder;
  write(folder / "item/index.html", "page");
  write(folder / "item/art/a.png", "png");
  write(folder / "secret.txt", "secret");
  fs::create_symlink("art/a.png", folder / "item/inside-link");
  fs::create_symlink(folder / "secret.txt", folder / "item/absolute-link");
  fs::create_symlink("../secret.txt", folder / "item/relative-link");
  fs::create_symlink("..", folder / "item/up");

  const auto opened = openBeneath(folder / "item", "art/a.png");
  ASSERT_TRUE(opened) << opened.error();
  EXPECT_EQ(opened->size, 3);
  EXPECT_EQ(readAll(opened->fd), "png");
  const auto linked = openBeneath(folder / "item", "inside-link");
  ASSERT_TRUE(linked) << linked.error();
  EXPECT_EQ(readAll(linked->fd), "png");

  for (const auto* escape :
       {"../secret.txt", "absolute-link", "relative-link", "up/secret.txt", "/etc/hostname", "art/../../secret.txt"}) {
    const auto refused = openBeneath(folder / "item", escape);
    EXPECT_FALSE(refused) << escape;
    if (!refused) {
      EXPECT_THAT(refused.error(), HasSubstr("outside the folder")) << escape;
    } else {
      ::close(refused->fd);
    }
  }
  EXPECT_THAT(openBeneath(folder / "item", "art").error(), HasSubstr("not a file"));
  EXPECT_THAT(openBeneath(folder / "item", "none.js").error(), HasSubstr("none.js"));
  EXPECT_FALSE(openBeneath(folder / "gone", "index.html"));
}

TEST(ProcessTree, FindsChildrenAndGrandchildrenAndStopsThem) {
  // A shell that starts a sleeping grandchild and waits for it.
  auto child = ChildProcess::start("/bin/sh", {"-c", "sleep 30 & sleep 30 & wait"});
  ASSERT_TRUE(child) << child.error();
  std::vector<pid_t> found;
  for (int i = 0; i < 100 && found.size() < 2; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    found = descendantsOf(child->pid());
  }
  ASSERT_EQ(found.size(), 2U);
  const auto all = descendantsOf(::getpid());
  EXPECT_NE(std::find(all.begin(), all.end(), child->pid()), all.end());
  EXPECT_NE(std::find(all.begin(), all.end(), found[0]), all.end());
  const auto state = [](pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(in, line);
    return line.substr(line.rfind(')') + 2, 1);
  };
  signalEach(found, SIGSTOP);
  for (int i = 0; i < 100 && state(found[0]) != "T"; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(state(found[0]), "T");
  signalEach(found, SIGCONT);
  signalEach(found, SIGTERM);
  std::string out;
  std::string err;
  EXPECT_EQ(child->wait(out, err), 0);
  EXPECT_TRUE(descendantsOf(child->pid()).empty());
}

TEST(LibraryStore, APageFolderKeepsLinksInsideAndNamesEachLeftOut) {
  TempFolder folder;
  write(folder / "page/index.html", "page");
  write(folder / "page/js/app.js", "app");
  write(folder / "outside.txt", "out");
  fs::create_symlink("js/app.js", folder / "page/alias.js");
  fs::create_symlink(folder / "outside.txt", folder / "page/leak.txt");
  fs::create_symlink("missing.js", folder / "page/js/nowhere.js");
  std::vector<std::string> leftOut;
  const auto copied = LibraryStore::copyTree(folder / "page", folder / "copy", nullptr, &leftOut);
  ASSERT_TRUE(copied) << copied.error();
  EXPECT_EQ(std::ifstream(folder / "copy/alias.js").rdbuf() != nullptr, true);
  EXPECT_TRUE(fs::is_symlink(folder / "copy/alias.js"));
  EXPECT_EQ(fs::read_symlink(folder / "copy/alias.js"), fs::path("js/app.js"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(folder / "copy/leak.txt")));
  EXPECT_FALSE(fs::exists(fs::symlink_status(folder / "copy/js/nowhere.js")));
  ASSERT_EQ(leftOut.size(), 2U);
  std::sort(leftOut.begin(), leftOut.end());
  EXPECT_THAT(leftOut[0], HasSubstr("js/nowhere.js: a link to missing.js, which leads nowhere"));
  EXPECT_THAT(leftOut[1],
              HasSubstr("leak.txt: a link to " + (folder / "outside.txt").string() + ", outside the folder"));
}

// A remote page's address is loaded only while its item may use the network; without it the
// item's own folder is all the page has.
TEST(WebPageSource, ARemotePageLoadsItsAddressOnlyWithTheNetwork) {
  LibraryItem item;
  item.id = "7";
  item.kind = WallpaperKind::web;
  const fs::path page = "/lib/items/7/index.html";
  const auto local = WebPageSource::of(item, page);
  EXPECT_EQ(local, (WebPageSource{"7", "/lib/items/7", "index.html", std::nullopt, false}));

  item.sourceURL = "https://example.org/sky";
  EXPECT_EQ(WebPageSource::of(item, page).url, std::nullopt) << "the address needs the network";
  item.allowNetwork = true;
  const auto remote = WebPageSource::of(item, page);
  EXPECT_EQ(remote.url, "https://example.org/sky");
  EXPECT_TRUE(remote.allowNetwork);

  EXPECT_EQ(
      webViewArguments("show", remote, "/s", 640, 360),
      (std::vector<std::string>{"show", "--item", "7", "--folder", "/lib/items/7", "--page", "index.html", "--storage",
                                "/s", "--size", "640x360", "--url", "https://example.org/sky", "--allow-network"}));
  EXPECT_EQ(webViewArguments("still", local, "/t", 1920, 1080),
            (std::vector<std::string>{"still", "--item", "7", "--folder", "/lib/items/7", "--page", "index.html",
                                      "--storage", "/t", "--size", "1920x1080"}));
}

}  // namespace
}  // namespace korvalen::engine
