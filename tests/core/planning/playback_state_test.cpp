#include "core/planning/playback_state.hpp"

#include "support/temp_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvalen {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

PlaylistProgress progress() {
  PlaylistProgress made;
  made.playlist = "Mix";
  made.seed = -42;
  made.state = PlaylistState{"b", *ISO8601::plain().parse("2026-05-01T12:00:00Z"), 1, {"a", "b", "c"}};
  return made;
}

TEST(PlaybackState, WritesAndReadsBackEveryMonitor) {
  testing::TempFolder folder;
  PlaybackState state;
  state.monitors["dell|1920x1080"] = progress();
  state.monitors["*"] = progress();
  state.monitors["*"].state = PlaylistState{std::nullopt, state.monitors["*"].state.changedAt, -1, {"a"}};
  ASSERT_TRUE(state.write(folder / "sub/playback-state.json"));
  const auto read = PlaybackState::read(folder / "sub/playback-state.json");
  EXPECT_EQ(read.state, state);
  EXPECT_TRUE(read.dropped.empty());
  EXPECT_THAT(state.serialize(), HasSubstr("\"version\": 1"));
}

TEST(PlaybackState, ReadsLenientlyDroppingOnlyWhatItCannotUse) {
  const auto read = PlaybackState::parse(R"({"monitors": {
      "good": {"playlist": "Mix", "changedAt": "2026-05-01T12:00:00Z", "position": 0, "order": ["a"], "currentID": "a"},
      "past the end": {"playlist": "Mix", "changedAt": "2026-05-01T12:00:00Z", "position": 3, "order": ["a"]},
      "no order": {"playlist": "Mix", "changedAt": "2026-05-01T12:00:00Z", "position": -1},
      "not an object": 7}, "version": 1})");
  EXPECT_EQ(read.state.monitors.size(), 1U);
  EXPECT_TRUE(read.state.monitors.contains("good"));
  EXPECT_THAT(read.dropped,
              ElementsAre(HasSubstr("monitor no order: order: missing"), HasSubstr("monitor not an object"),
                          HasSubstr("monitor past the end: position")));
}

TEST(PlaybackState, AFileThatIsNotStateIsNoState) {
  testing::TempFolder folder;
  EXPECT_TRUE(PlaybackState::read(folder / "absent.json").state.monitors.empty());
  for (const auto* text : {"", "[1, 2]", "{\"monitors\": 3}", "{\"monitors\": {\"a\": "}) {
    const auto read = PlaybackState::parse(text);
    EXPECT_TRUE(read.state.monitors.empty()) << text;
    EXPECT_EQ(read.dropped.size(), 1U) << text;
  }
}

}  // namespace
}  // namespace korvalen
