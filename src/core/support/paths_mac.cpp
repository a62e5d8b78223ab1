#include "core/support/paths.hpp"

namespace korvalen::paths {

std::filesystem::path korvalenFolder(const std::filesystem::path& home, const Environment& /*environment*/) {
  return home / "Library" / "Application Support" / "Korvalen";
}

}  // namespace korvalen::paths
