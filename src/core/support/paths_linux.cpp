#include "core/support/paths.hpp"

namespace korvalen::paths {

std::filesystem::path korvalenFolder(const std::filesystem::path& home, const Environment& environment) {
  // A relative XDG_DATA_HOME is to be ignored, so a stray value cannot scatter files.
  if (auto data = environment("XDG_DATA_HOME"); data && !data->empty() && std::filesystem::path(*data).is_absolute()) {
    return std::filesystem::path(*data) / "Korvalen";
  }
  return home / ".local" / "share" / "Korvalen";
}

}  // namespace korvalen::paths
