#include "engine/web/beneath_folder.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace korvalen::engine {

namespace {

int openat2(int directory, const char* path, const open_how& how) {
  return static_cast<int>(::syscall(SYS_openat2, directory, path, &how, sizeof how));
}

}  // namespace

std::expected<OpenedFile, std::string> openBeneath(const std::filesystem::path& folder, std::string_view relative) {
  const int root = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (root < 0) {
    return std::unexpected(fmt::format("{}: {}", folder.string(), std::generic_category().message(errno)));
  }
  open_how how{};
  how.flags = O_RDONLY | O_CLOEXEC | O_NOCTTY;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
  const std::string name(relative);
  const int fd = openat2(root, name.c_str(), how);
  const int saved = errno;
  ::close(root);
  if (fd < 0) {
    return std::unexpected(
        fmt::format("{}: {}", name, saved == EXDEV ? "outside the folder" : std::generic_category().message(saved)));
  }
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    return std::unexpected(fmt::format("{}: not a file", name));
  }
  return OpenedFile{fd, static_cast<std::int64_t>(status.st_size)};
}

}  // namespace korvalen::engine
