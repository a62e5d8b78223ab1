#include "core/support/paths.hpp"

#include <pwd.h>
#include <unistd.h>
#include <cstdlib>
#include <vector>

namespace korvalen::paths {

Environment processEnvironment() {
  return [](std::string_view name) -> std::optional<std::string> {
    // Nothing in the process sets variables, so reading them from any thread is safe.
    const char* value = std::getenv(std::string(name).c_str());  // NOLINT(concurrency-mt-unsafe)
    if (value == nullptr) {
      return std::nullopt;
    }
    return std::string(value);
  };
}

std::optional<std::filesystem::path> recordedHomeFolder() {
  long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 16384U);
  passwd record{};
  passwd* found = nullptr;
  while (::getpwuid_r(::getuid(), &record, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (found != nullptr && found->pw_dir != nullptr && found->pw_dir[0] != '\0') {
    return std::filesystem::path(found->pw_dir);
  }
  return std::nullopt;
}

std::filesystem::path homeFolder(const Environment& environment, const std::optional<std::filesystem::path>& recorded) {
  if (recorded) {
    return *recorded;
  }
  if (auto home = environment("HOME"); home && !home->empty()) {
    return *home;
  }
  return "/";
}

}  // namespace korvalen::paths
