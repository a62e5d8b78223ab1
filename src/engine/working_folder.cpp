#include "engine/working_folder.hpp"

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

}  // namespace korvalen::engine
