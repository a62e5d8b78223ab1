#include "engine/lock_file.hpp"

#include <fmt/format.h>

#include <fcntl.h>

#include <cerrno>
#include <system_error>

namespace korvalen::engine {

std::expected<int, std::string> openLockFile(const std::filesystem::path& path) {
  std::error_code error;
  std::filesystem::create_directories(path.parent_path(), error);
  if (error) {
    return std::unexpected(
        fmt::format("could not create the folder {}: {}", path.parent_path().string(), error.message()));
  }
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (descriptor < 0) {
    return std::unexpected(fmt::format("could not open {}: {}", path.string(), std::generic_category().message(errno)));
  }
  return descriptor;
}

}  // namespace korvalen::engine
