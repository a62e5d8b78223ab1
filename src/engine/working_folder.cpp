#include "engine/working_folder.hpp"

#include <stdlib.h>
#include <sys/stat.h>
#include <cerrno>
#include <system_error>

namespace korvalen::engine {

std::expected<void, std::string> makePrivateFolder(const std::filesystem::path& folder) {
  // mkdir applies the umask, which can only take permissions away from 0700.
  if (::mkdir(folder.c_str(), S_IRWXU) != 0) {
    return std::unexpected(std::generic_category().message(errno));
  }
  return {};
}

std::expected<ScratchFolder, std::string> ScratchFolder::make(std::string_view stem) {
  std::error_code error;
  const auto temporary = std::filesystem::temp_directory_path(error);
  if (error) {
    return std::unexpected("no temporary folder: " + error.message());
  }
  auto pattern = (temporary / (std::string(stem) + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) {  // mode 0700
    return std::unexpected("cannot make a folder in " + temporary.string() + ": " +
                           std::generic_category().message(errno));
  }
  return ScratchFolder(pattern);
}

ScratchFolder::~ScratchFolder() {
  if (!path_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
}

}  // namespace korvalen::engine
