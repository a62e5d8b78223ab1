#include "core/support/paths.hpp"
#include "core/planning/saver_plan.hpp"

#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>
#include <map>

namespace korvalen {
namespace {

paths::Environment environment(std::map<std::string, std::string> values) {
  return [values = std::move(values)](std::string_view name) -> std::optional<std::string> {
    const auto found = values.find(std::string(name));
    return found == values.end() ? std::nullopt : std::optional<std::string>(found->second);
  };
}

std::filesystem::path recordedHome() {
  const passwd* record = ::getpwuid(::getuid());
  return record != nullptr ? std::filesystem::path(record->pw_dir) : std::filesystem::path();
}

TEST(PlanLocation, TheVariableIsUsedAsItStands) {
  const auto env = environment({{"KORVALEN_SAVER_PLAN", "relative/../odd plan.json"}, {"HOME", "/elsewhere"}});
  EXPECT_EQ(SaverPlan::location(env), std::filesystem::path("relative/../odd plan.json"));
}

TEST(PlanLocation, HomeComesFromTheUserDatabaseNotFromHOME) {
  ASSERT_FALSE(recordedHome().empty()) << "this test needs a user database record";
  const auto env = environment({{"HOME", "/sandbox/home"}});
  EXPECT_EQ(paths::homeFolder(env), recordedHome());
  EXPECT_EQ(SaverPlan::location(env), recordedHome() / ".local/share/Korvalen/screensaver-plan.json");
}

struct FolderCase {
  std::map<std::string, std::string> variables;
  const char* expected;
};

class KorvalenFolder : public ::testing::TestWithParam<FolderCase> {};

TEST_P(KorvalenFolder, FollowsXdgDataHomeOnlyWhenItIsAnAbsolutePath) {
  EXPECT_EQ(paths::korvalenFolder("/home/ann", environment(GetParam().variables)),
            std::filesystem::path(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(Paths, KorvalenFolder,
                         ::testing::Values(FolderCase{{}, "/home/ann/.local/share/Korvalen"},
                                           FolderCase{{{"XDG_DATA_HOME", "/data"}}, "/data/Korvalen"},
                                           FolderCase{{{"XDG_DATA_HOME", ""}}, "/home/ann/.local/share/Korvalen"},
                                           FolderCase{{{"XDG_DATA_HOME", "data"}}, "/home/ann/.local/share/Korvalen"}));

}  // namespace
}  // namespace korvalen
