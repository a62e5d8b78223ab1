#include "core/library/wallpaper_library.hpp"

#include "support/param_name.hpp"
#include "support/temp_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvalen {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::readText;
using testing::TempFolder;
using testing::writeText;

LibraryItem item(std::string id, std::string sha = "") {
  LibraryItem made;
  made.kind = WallpaperKind::video;
  made.relativePath = "items/" + id + "/clip.mp4";
  made.title = "clip " + id;
  made.sha256 = sha.empty() ? "sha-" + id : std::move(sha);
  made.id = std::move(id);
  return made;
}

std::string row(const std::string& id, const std::string& extra = "") {
  return R"({"id": ")" + id + R"(", "kind": "video", "relativePath": "items/)" + id +
         R"(/a.mp4", "title": "t", "sha256": "s)" + id + "\"" + extra + "}";
}

std::vector<std::string> ids(const WallpaperLibrary& library) {
  std::vector<std::string> out;
  for (const auto& each : library.items()) {
    out.push_back(each.id);
  }
  return out;
}

TEST(WallpaperLibrary, AMissingFileIsAnEmptyLibraryThatSavesAndReadsBack) {
  TempFolder folder;
  auto loaded = WallpaperLibrary::load(folder / "Library");
  EXPECT_TRUE(loaded.missing);
  EXPECT_FALSE(loaded.problem);
  auto& library = loaded.library;
  EXPECT_EQ(library.nextID(), "1");
  auto first = item(library.nextID());
  first.cropByMonitor["dell|1920x1080"] = CropRect{0.25, 0, 0.5, 1};
  first.durationSeconds = 20;
  first.hasAudio = true;
  ASSERT_TRUE(library.add(first));
  ASSERT_TRUE(library.add(item(library.nextID())));
  ASSERT_TRUE(library.save());

  const auto text = readText(folder / "Library/library.json");
  // Sorted keys at every level, the counter and the version beside the items.
  EXPECT_LT(text.find("\"items\""), text.find("\"nextID\": 3"));
  EXPECT_LT(text.find("\"addedUTC\""), text.find("\"aiGenerated\""));
  const auto again = WallpaperLibrary::load(folder / "Library");
  EXPECT_FALSE(again.missing);
  EXPECT_TRUE(again.dropped.empty());
  ASSERT_EQ(again.library.items().size(), 2U);
  const auto& read = again.library.items().front();
  EXPECT_EQ(read.cropByMonitor, first.cropByMonitor);
  EXPECT_EQ(read.durationSeconds, 20);
  EXPECT_EQ(read.hasAudio, true);
  EXPECT_FALSE(read.frameRate.has_value());
  EXPECT_EQ(again.library.serialize(), text);  // byte-identical when nothing changed
}

// The fast reader takes a library as saved; the plain one must agree on it, and on every
// text the fast one hands back.
TEST(WallpaperLibrary, TheFastAndThePlainReaderAgree) {
  const std::vector<std::string> texts{
      R"({"items": [], "nextID": 3, "version": 1})",
      R"({"nextID": 3, "items": [)" + row("1") + "]}",  // keys out of order: plain
      R"({"items": [{"id": "1", "id": "2", "kind": "video", "relativePath": "a", "sha256": "s", "title": "t"}]})",
      R"({"items": [{"durationSeconds": 20, "hasAudio": true, "id": "1", "kind": "video", "relativePath": "a",
                     "sha256": "s", "title": "t", "width": 1.0e3}]})",
      R"({"items": [{"id": "1", "kind": "video", "relativePath": "a", "sha256": "s", "title": "t",
                     "width": 18446744073709551615}]})",
      R"({"items": [{"id": "1", "kind": "video", "relativePath": "a", "sha256": "s", "tags": ["x", 1],
                     "title": "t"}]})",
      R"({"items": [)" + row("1") + "," + row("1") + "]}",
      R"({"items": [{"id": "1", "kind": "video", "relativePath": "a", "sha256": "s", "title": "\ud83c\udf05"}]})",
      R"({"items": [{"id": "1", "kind": "video", "relativePath": "a", "sha256": "s", "title": "\ud83c"}]})",
      R"({"items": [], "nextID": "7"})",
  };
  for (const auto& text : texts) {
    const auto fast = WallpaperLibrary::parse(text, "library.json");
    const auto plain = WallpaperLibrary::parse(text, "library.json", WallpaperLibrary::Reading::plain);
    EXPECT_EQ(fast.problem, plain.problem) << text;
    EXPECT_EQ(fast.dropped, plain.dropped) << text;
    EXPECT_EQ(fast.library.serialize(), plain.library.serialize()) << text;
  }
  TempFolder folder;
  auto library = WallpaperLibrary::load(folder.path()).library;
  auto full = item(library.nextID());
  full.crop = CropRect{0.1, 0.2, 0.3, 0.4};
  full.cropByMonitor["a|1x1"] = CropRect{0, 0, 1, 1};
  full.tags = {"x", "y"};
  full.flashedAt = full.addedUTC;
  full.trimStart = 1.25;
  full.author = "Zo\u00eb";
  library.add(full);
  const auto text = library.serialize();
  EXPECT_EQ(WallpaperLibrary::parse(text, "library.json").library.serialize(), text);
}

TEST(WallpaperLibrary, IdsAreNeverGivenTwiceEvenAfterRemovalAndReload) {
  TempFolder folder;
  auto library = WallpaperLibrary::load(folder.path()).library;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(library.add(item(library.nextID())));
  }
  ASSERT_TRUE(library.remove("3"));
  EXPECT_EQ(library.nextID(), "4");
  ASSERT_TRUE(library.remove("1"));
  ASSERT_TRUE(library.remove("2"));
  ASSERT_TRUE(library.save());
  EXPECT_EQ(WallpaperLibrary::load(folder.path()).library.nextID(), "4");
  // A hand-added numeric id past the counter moves it on; other ids do not.
  writeText(folder / "library.json",
            R"({"nextID": 2, "items": [)" + row("9") + "," + row("abc") + "," + row("007") + "]}");
  const auto edited = WallpaperLibrary::load(folder.path()).library;
  EXPECT_EQ(edited.nextID(), "10");
  EXPECT_FALSE(WallpaperLibrary::load(folder.path()).library.remove("4"));
}

TEST(WallpaperLibrary, TextThatIsNotUtf8IsNeverWritten) {
  TempFolder folder;
  auto library = WallpaperLibrary::load(folder.path()).library;
  ASSERT_TRUE(library.add(item("1")));
  ASSERT_TRUE(library.save());
  const auto before = readText(folder / "library.json");
  library.rename("1", "bad \xff title");
  const auto refused = library.save();
  ASSERT_FALSE(refused);
  EXPECT_THAT(refused.error(), HasSubstr("title"));
  EXPECT_THAT(refused.error(), HasSubstr("not valid UTF-8"));
  EXPECT_EQ(readText(folder / "library.json"), before);
}

TEST(WallpaperLibrary, AddRefusesAnIdInUse) {
  TempFolder folder;
  auto library = WallpaperLibrary::load(folder.path()).library;
  ASSERT_TRUE(library.add(item("1")));
  EXPECT_FALSE(library.add(item("1", "other")));
  EXPECT_FALSE(library.add(item("")));
  EXPECT_EQ(library.items().size(), 1U);
}

struct BadRow {
  std::string name;
  std::string row;
  std::string reason;
};

class BadRows : public ::testing::TestWithParam<BadRow> {};

// One bad row is set aside with a line naming it; the others load, and the bad row is
// written back exactly as it was.
TEST_P(BadRows, AreDroppedReportedAndKeptVerbatim) {
  TempFolder folder;
  writeText(folder / "library.json",
            R"({"nextID": 5, "version": 1, "items": [)" + row("1") + "," + GetParam().row + "," + row("3") + "]}");
  auto loaded = WallpaperLibrary::load(folder.path());
  EXPECT_FALSE(loaded.problem);
  EXPECT_THAT(ids(loaded.library), ElementsAre("1", "3"));
  ASSERT_EQ(loaded.dropped.size(), 1U);
  EXPECT_THAT(loaded.dropped.front(), HasSubstr("library.json item 2: " + GetParam().reason));

  ASSERT_TRUE(loaded.library.add(item(loaded.library.nextID())));
  ASSERT_TRUE(loaded.library.save());
  const auto again = WallpaperLibrary::load(folder.path());
  EXPECT_THAT(ids(again.library), ElementsAre("1", "3", "5"));
  EXPECT_EQ(again.library.nextID(), "6");
  ASSERT_EQ(again.dropped.size(), 1U);
  EXPECT_EQ(json::parse(readText(folder / "library.json"))->at("items").at(3), *json::parse(GetParam().row));
}

INSTANTIATE_TEST_SUITE_P(
    Library, BadRows,
    ::testing::Values(BadRow{"NoHash", R"({"id": "2", "kind": "video", "relativePath": "items/2/a.mp4", "title": "t"})",
                             "sha256: missing"},
                      BadRow{"WidthAsText", row("2", R"(, "width": "wide")"), "width"},
                      BadRow{"UnknownKind",
                             R"({"id": "2", "kind": "movie", "relativePath": "a", "title": "t", "sha256": "x"})",
                             "kind"},
                      BadRow{"OutsideTheFolder",
                             R"({"id": "2", "kind": "video", "relativePath": "../../etc/passwd", "title": "t",
                                 "sha256": "x"})",
                             "relativePath: must lie inside the library folder"},
                      BadRow{"Absolute",
                             R"({"id": "2", "kind": "video", "relativePath": "/etc/passwd", "title": "t",
                                 "sha256": "x"})",
                             "relativePath: must lie inside the library folder"},
                      BadRow{"SameIdTwice", row("1"), "id: \"1\" is already used"},
                      BadRow{"NotAnObject", "42", "expected an object"}),
    testing::ByName{});

TEST(WallpaperLibrary, AFileThatIsNoLibraryIsLeftExactlyAsItIs) {
  for (const std::string text : {"{\"items\": [", "[1, 2]", "{\"items\": {}}", "", "\xff\xfe"}) {
    TempFolder folder;
    writeText(folder / "library.json", text);
    auto loaded = WallpaperLibrary::load(folder.path());
    ASSERT_TRUE(loaded.problem) << text;
    EXPECT_THAT(*loaded.problem, HasSubstr("library.json is not a library"));
    EXPECT_TRUE(loaded.library.items().empty());
    loaded.library.add(item("1"));
    const auto refused = loaded.library.save();
    ASSERT_FALSE(refused);
    EXPECT_THAT(refused.error(), HasSubstr("left"));
    EXPECT_EQ(readText(folder / "library.json"), text);
  }
}

TEST(WallpaperLibrary, EditsChangeOneItemAndNeverItsIdentity) {
  TempFolder folder;
  auto library = WallpaperLibrary::load(folder.path()).library;
  ASSERT_TRUE(library.add(item("1")));
  ASSERT_TRUE(library.add(item("2")));
  EXPECT_TRUE(library.rename("1", "Sunset"));
  EXPECT_TRUE(library.setFit("1", FitMode::center));
  EXPECT_TRUE(library.setCrop("1", CropRect{0.1, 0.1, 0.5, 0.5}));
  EXPECT_TRUE(library.setMonitorCrop("1", "dell|1920x1080", CropRect{0, 0, 0.5, 1}));
  EXPECT_TRUE(library.setMonitorCrop("1", "lg|2560x1440", CropRect{0.5, 0, 0.5, 1}));
  EXPECT_TRUE(library.setMonitorCrop("1", "lg|2560x1440", std::nullopt));
  EXPECT_TRUE(library.setTrim("1", 2.5, std::nullopt));
  EXPECT_TRUE(library.setMirror("1", true, false));
  EXPECT_TRUE(library.edit("1", [](LibraryItem& edited) {
    edited.id = "99";
    edited.sha256 = "forged";
    edited.tags = {"calm"};
  }));
  EXPECT_FALSE(library.rename("3", "nothing"));
  EXPECT_FALSE(library.setFit("3", FitMode::fit));

  const auto& edited = *library.find("1");
  EXPECT_EQ(edited.title, "Sunset");
  EXPECT_EQ(edited.fit, FitMode::center);
  EXPECT_EQ(edited.crop, (CropRect{0.1, 0.1, 0.5, 0.5}));
  EXPECT_EQ(edited.cropByMonitor.size(), 1U);
  EXPECT_EQ(edited.trimStart, 2.5);
  EXPECT_FALSE(edited.trimEnd);
  EXPECT_TRUE(edited.mirrorHorizontal);
  EXPECT_FALSE(edited.mirrorVertical);
  EXPECT_EQ(edited.sha256, "sha-1");
  EXPECT_THAT(edited.tags, ElementsAre("calm"));
  EXPECT_EQ(library.find("2")->title, "clip 2");
  EXPECT_EQ(library.find("99"), nullptr);
}

TEST(WallpaperLibrary, ContentForPlaybackJoinsThePathAndResolvesTheTrim) {
  TempFolder folder;
  auto library = WallpaperLibrary::load(folder / "Library").library;
  auto made = item("4");
  made.cropByMonitor["dell|1920x1080"] = CropRect{0, 0, 0.5, 1};
  made.transitionID = "fade";
  made.mirrorVertical = true;
  ASSERT_TRUE(library.add(made));
  auto content = library.contentOf(*library.find("4"));
  EXPECT_EQ(content.path, (folder / "Library/items/4/clip.mp4").string());
  EXPECT_EQ(content.trimStart, 0);
  EXPECT_EQ(content.trimEnd, 0);  // the whole clip
  EXPECT_EQ(content.itemID, "4");
  EXPECT_EQ(content.transitionID, "fade");
  EXPECT_TRUE(content.mirrorVertical);
  EXPECT_EQ(content.cropByMonitor, made.cropByMonitor);
  library.setTrim("4", 1.5, 7);
  content = library.contentOf(*library.find("4"));
  EXPECT_EQ(content.trimStart, 1.5);
  EXPECT_EQ(content.trimEnd, 7);
  EXPECT_EQ(library.itemFolderOf(*library.find("4")), folder / "Library/items/4");
  auto elsewhere = item("5");
  elsewhere.relativePath = "loose.mp4";
  EXPECT_FALSE(library.itemFolderOf(elsewhere));
}

TEST(LibrarySearch, MatchesTitleTagsAndAuthorIgnoringCaseAndAccents) {
  auto found = item("1");
  found.title = "Café de Flore at Night";
  found.tags = {"Städte", "rain"};
  found.author = "Zoë Ångström";
  EXPECT_TRUE(LibrarySearch::matches(found, "cafe"));
  EXPECT_TRUE(LibrarySearch::matches(found, "CAFÉ DE"));
  EXPECT_TRUE(LibrarySearch::matches(found, "stadte"));
  EXPECT_TRUE(LibrarySearch::matches(found, "angstrom"));
  EXPECT_TRUE(LibrarySearch::matches(found, "RAIN"));
  EXPECT_TRUE(LibrarySearch::matches(found, ""));
  EXPECT_FALSE(LibrarySearch::matches(found, "snow"));
  EXPECT_FALSE(LibrarySearch::matches(found, "flore at day"));
}

}  // namespace
}  // namespace korvalen
