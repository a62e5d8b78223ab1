// What a user can hand the tool that it cannot use: numbers beyond a double, text that is
// not UTF-8, geometry beyond any screen. Each gives one line naming what was wrong, never
// an abort, and no file it could not read is rewritten.
#include "cli/arguments.hpp"
#include "cli/cli_fixture.hpp"
#include "support/param_name.hpp"

namespace korvalen::cli {
namespace {

using korvalen::testing::readText;
using korvalen::testing::writeText;

struct Hostile {
  std::string name;
  std::map<std::string, std::string> files;  // written into the folder before the run
  std::vector<std::string> arguments;        // "@name" stands for that file's path
  int status;
  std::string fragment;  // in what the tool said, on either stream
};

void PrintTo(const Hostile& hostile, std::ostream* out) {
  *out << hostile.name;
}

class HostileInput : public Cli, public ::testing::WithParamInterface<Hostile> {
 protected:
  void SetUp() override { environment["XDG_DATA_HOME"] = folder.path().string(); }
};

TEST_P(HostileInput, GetsOneLineAndLeavesEveryFileAsItWas) {
  const auto& hostile = GetParam();
  for (const auto& [name, text] : hostile.files) {
    writeText(folder / name, text);
  }
  std::vector<std::string> arguments;
  for (const auto& argument : hostile.arguments) {
    arguments.push_back(argument.starts_with("@") ? (folder / argument.substr(1)).string() : argument);
  }
  const auto outcome = run(arguments);
  EXPECT_EQ(outcome.status, hostile.status) << outcome.out << outcome.err;
  EXPECT_THAT(outcome.out + outcome.err, HasSubstr(hostile.fragment)) << outcome.out << outcome.err;
  EXPECT_THAT(outcome.err, ::testing::Not(HasSubstr("internal error")));
  if (outcome.status != ok) {
    // One line, on standard error or (for a check, whose finding is its output) alone on
    // standard output.
    const auto& said = outcome.err.empty() ? outcome.out : outcome.err;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
  }
  for (const auto& [name, text] : hostile.files) {
    EXPECT_EQ(readText(folder / name), text) << name << " was changed";
  }
}

const std::string hugeSettings = R"({"power": {"fpsCap": 1e400}})";
const std::string settingsFile = "Korvalen/settings.json";
const std::string planFile = "Korvalen/screensaver-plan.json";
const std::string content =
    R"({"kind": "video", "path": "/a.mp4", "fit": "fill", "mirrorHorizontal": false, "mirrorVertical": false,
        "trimStart": 0, "trimEnd": 0, "sharpen": 0})";
const std::string plan = R"({"version": 1, "written": "2026-01-01T00:00:00Z", "sound": false, "dim": 0,
    "saturation": 1, "rate": 1, "screens": {}, "shared": )" +
                         content;

INSTANTIATE_TEST_SUITE_P(
    Cli, HostileInput,
    ::testing::Values(
        // A number no double can hold spoils the document it is in, like a syntax error.
        Hostile{"SettingsCheck", {{settingsFile, hugeSettings}}, {"settings", "check"}, failed, "could not be read"},
        Hostile{"SettingsShow", {{settingsFile, hugeSettings}}, {"settings", "show"}, failed, "could not be read"},
        Hostile{"SettingsSetOnUnreadableFile",
                {{settingsFile, hugeSettings}},
                {"settings", "set", "power.fpsCap=30"},
                failed,
                "left "},
        Hostile{"PowerDescribe", {{settingsFile, hugeSettings}}, {"power", "describe"}, failed, "could not be read"},
        Hostile{"PolicyExplainSettings",
                {{settingsFile, hugeSettings}, {"state.json", R"({"monitors": [{"monitorId": "a"}]})"}},
                {"policy", "explain", "--state", "@state.json"},
                failed,
                "could not be read"},
        Hostile{"PolicyExplainState",
                {{"state.json", R"({"monitors": [{"monitorId": "a", "coveredFraction": -1e999}]})"}},
                {"policy", "explain", "--state", "@state.json"},
                badUsage,
                "state.json"},
        Hostile{"PlaylistFile",
                {{"day.json", R"({"name": "d", "itemIDs": ["a"], "intervalMinutes": 1e400})"}},
                {"playlist", "simulate", "--playlist", "@day.json", "--from", "2026-03-29T00:00:00Z", "--hours", "1"},
                failed,
                "day.json"},
        Hostile{"PlaylistSettings",
                {{settingsFile, hugeSettings}},
                {"playlist", "simulate", "--settings", "@" + settingsFile, "--name", "x", "--from",
                 "2026-03-29T00:00:00Z", "--hours", "1"},
                failed,
                "could not be read"},
        Hostile{"PlanShow", {{planFile, plan + R"(, "volume": 1e400})"}}, {"plan", "show"}, failed, "not a readable"},
        Hostile{"PlanPutOnUnreadablePlan",
                {{planFile, plan + R"(, "volume": 1e400})"}},
                {"plan", "set", "--volume", "0.5"},
                failed,
                "left "},
        Hostile{
            "LibraryFile",
            {{"library.json", R"([{"id": "a", "title": "t", "kind": "video", "duration": 1e400}])"}, {"clip.mp4", "x"}},
            {"library", "check", "@clip.mp4", "--library", "@library.json"},
            failed,
            "library.json"},
        Hostile{"SettingsSetHugeValue", {}, {"settings", "set", "power.fpsCap=1e400"}, badUsage, "power.fpsCap"},
        // Text that is not UTF-8 cannot go into a JSON file.
        Hostile{
            "SettingsSetBadText", {}, {"settings", "set", "import.signInBrowser=\xff"}, badUsage, "is not valid UTF-8"},
        Hostile{"SettingsSetBadKey",
                {},
                {"settings", "set", "monitorWallpapers.\xff.paused=true"},
                badUsage,
                "is not valid UTF-8"},
        Hostile{"PlanPutBadPath",
                {},
                {"plan", "put", "--shared", "--kind", "video", "--path", "/clips/\xc3("},
                badUsage,
                "--path"},
        Hostile{"PlanPutBadTitle",
                {},
                {"plan", "put", "--shared", "--kind", "video", "--path", "/a.mp4", "--title", "\xed\xa0\x80"},
                badUsage,
                "--title"},
        // Geometry no screen has is refused as it is read, naming the field.
        Hostile{"StateScreenX",
                {{"state.json",
                  R"({"screens": [{"deviceName": "a", "x": 9223372036854775807, "y": 0, "width": 10, "height": 10}],
                      "windows": []})"}},
                {"policy", "explain", "--state", "@state.json"},
                badUsage,
                "screens[0].x: 9223372036854775807 is out of range"},
        Hostile{"StateWindowEdge",
                {{"state.json",
                  R"({"screens": [{"deviceName": "a", "x": 0, "y": 0, "width": 10, "height": 10}],
                      "windows": [{"left": -9223372036854775808, "top": 0, "right": 5, "bottom": 5}]})"}},
                {"policy", "explain", "--state", "@state.json"},
                badUsage,
                "windows[0].left"}),
    korvalen::testing::ByName{});

// The net under every command: whatever escapes is one line and exit 1, never an abort.
TEST(CliNet, AnyExceptionEscapingACommandIsOneLine) {
  struct Row {
    std::function<int()> action;
    int status;
    std::string err;
  };
  const std::vector<Row> rows{
      {[]() -> int { throw UsageError("--size: expected WxH"); }, badUsage, "korvalen: --size: expected WxH\n"},
      {[]() -> int { throw Failure("gone\nfor good"); }, failed, "korvalen: gone for good\n"},
      {[]() -> int { throw std::out_of_range("vector::at"); }, failed, "korvalen: internal error: vector::at\n"},
      {[] { return static_cast<int>(json::Json::parse("{").size()); }, failed, "korvalen: internal error: "},
      {[]() -> int { throw 7; }, failed, "korvalen: internal error: an unknown exception\n"},
      {[] { return ok; }, ok, ""},
  };
  for (const auto& row : rows) {
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    Context context{in, out, err, [](std::string_view) { return std::nullopt; }, [] { return Date{}; }};
    EXPECT_EQ(runGuarded(row.action, context), row.status);
    const auto said = err.str();
    EXPECT_THAT(said, StartsWith(row.err));
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), row.status == ok ? 0 : 1) << said;
  }
}

}  // namespace
}  // namespace korvalen::cli
