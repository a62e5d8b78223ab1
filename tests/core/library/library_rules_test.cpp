#include "core/library/library_rules.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

using namespace LibraryRules;

TEST(LibraryRules, NamesKindsAndExtensions) {
  EXPECT_EQ(lastComponent("/a/b/clip.mp4"), "clip.mp4");
  EXPECT_EQ(lastComponent("C:\\Films\\Sea\\"), "Sea") << "either separator, trailing ones ignored";
  EXPECT_EQ(lastComponent("///"), "");
  EXPECT_EQ(lastComponent("plain"), "plain");
  EXPECT_EQ(kindOf("CLIP.MP4"), WallpaperKind::video);
  EXPECT_EQ(kindOf("/x/.mp4"), WallpaperKind::none) << "a leading dot is no extension";
  EXPECT_EQ(kindOf("photo.HEIC"), WallpaperKind::image);
  EXPECT_EQ(kindOf("site\\index.htm"), WallpaperKind::web);
  EXPECT_EQ(kindOf("notes.txt"), WallpaperKind::none);
  EXPECT_EQ(kindOf("folder.mp4/"), WallpaperKind::video);
  EXPECT_EQ(extensionOf("archive.tar.GZ"), "gz");
  EXPECT_EQ(extensionOf("trailing."), "");
}

TEST(LibraryRules, WhatMayEnterTheLibrary) {
  EXPECT_FALSE(entersLibrary("/Apps/Tool.app/Contents/clip.mp4", false));
  EXPECT_FALSE(entersLibrary("C:\\x\\run.workflow\\a.png", false));
  EXPECT_FALSE(entersLibrary("install.SH", false));
  EXPECT_FALSE(entersLibrary("clip.mp4", true));
  EXPECT_TRUE(entersLibrary("", false));
  EXPECT_TRUE(entersLibrary("/films/.sh", false)) << "a hidden name has no extension";
  EXPECT_TRUE(entersLibrary("/films/sea.mp4", false));
}

TEST(LibraryRules, TitlesStorageAndFit) {
  EXPECT_EQ(titleFor("/films/Sea at dusk.mov", false, std::nullopt), "Sea at dusk");
  EXPECT_EQ(titleFor("/sites/aurora.d/", true, std::nullopt), "aurora.d");
  EXPECT_EQ(titleFor("/films/noext", false, std::nullopt), "noext");
  EXPECT_EQ(titleFor("/films/trailing.", false, std::nullopt), "trailing.");
  EXPECT_EQ(titleFor("/films/a.mp4", false, ""), "") << "a given title stands, even empty";
  EXPECT_EQ(relativePathFor("ID1", "C:\\films\\sea.mp4", false), (std::vector<std::string>{"items", "ID1", "sea.mp4"}));
  EXPECT_EQ(relativePathFor("ID2", "/sites/aurora/", true), (std::vector<std::string>{"items", "ID2", "index.html"}));
  EXPECT_EQ(defaultFit(1080, 1920), FitMode::fit);
  EXPECT_EQ(defaultFit(1920, 1080), FitMode::fill);
  EXPECT_EQ(defaultFit(0, 100), FitMode::fill);
  EXPECT_EQ(defaultFit(500, 500), FitMode::fill);
}

TEST(LibraryRules, ImportDecisions) {
  const std::vector<Held> held{{"first", "ABCDEF"}, {"second", "abcdef"}};
  EXPECT_EQ(decideImport(false, true, false, "/s/index.html", std::nullopt, held),
            ImportOutcome::rejected("folder has no index.html"));
  EXPECT_EQ(decideImport(true, true, false, "/s/index.html", std::nullopt, held),
            ImportOutcome::rejected("folder has no index.html"));
  EXPECT_EQ(decideImport(false, false, false, "/a.mp4", std::nullopt, held), ImportOutcome::rejected("file not found"));
  EXPECT_EQ(decideImport(true, false, false, "/notes.TXT", std::nullopt, held),
            ImportOutcome::rejected("'.txt' is not a supported wallpaper type"));
  EXPECT_EQ(decideImport(true, false, false, "/README", std::nullopt, held),
            ImportOutcome::rejected("'' is not a supported wallpaper type"));
  EXPECT_EQ(decideImport(true, false, false, "/a.mp4", "abcDEF", held), ImportOutcome::duplicate("first"));
  EXPECT_EQ(decideImport(true, false, false, "/a.mp4", "0123", held), ImportOutcome::imported());
  EXPECT_EQ(decideImport(true, true, true, "/s/index.html", std::nullopt, held), ImportOutcome::imported());
  EXPECT_TRUE(forgetDerivedCache("ABC", {"def", "123"}));
  EXPECT_FALSE(forgetDerivedCache("ABC", {"def", "abc"}));
  EXPECT_TRUE(forgetDerivedCache("ABC", {}));
}

}  // namespace
}  // namespace korvalen
