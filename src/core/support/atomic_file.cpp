#include "core/support/atomic_file.hpp"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <memory>
#include <system_error>
#include <vector>

namespace korvalen::files {
namespace {

std::string problem(std::string_view what, const std::filesystem::path& path, int error) {
  return fmt::format("could not {} {}: {}", what, path.string(), std::generic_category().message(error));
}

// Owns a descriptor; removes the file on the way out unless told to keep it.
class TemporaryFile {
 public:
  TemporaryFile(int descriptor, std::string path) : descriptor_(descriptor), path_(std::move(path)) {}
  ~TemporaryFile() {
    closeDescriptor();
    if (!kept_) {
      ::unlink(path_.c_str());
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  [[nodiscard]] int descriptor() const { return descriptor_; }
  [[nodiscard]] const std::string& path() const { return path_; }
  int closeDescriptor() {
    int result = 0;
    if (descriptor_ >= 0) {
      result = ::close(descriptor_);
      descriptor_ = -1;
    }
    return result;
  }
  void keep() { kept_ = true; }

 private:
  int descriptor_;
  std::string path_;
  bool kept_ = false;
};

constexpr std::string_view temporaryInfix = ".tmp-";
constexpr std::size_t temporarySuffixLength = 6;  // mkstemp's XXXXXX

bool isTemporaryOf(const std::string& name, const std::string& target) {
  return name.size() == target.size() + temporaryInfix.size() + temporarySuffixLength && name.starts_with(target) &&
         std::string_view(name).substr(target.size(), temporaryInfix.size()) == temporaryInfix;
}

}  // namespace

// A save killed part-way leaves its temporary file behind. Writers hold a lock on theirs
// for as long as they work on it, and a dead process holds none, so a temporary file of
// this target that can be locked is stale and goes.
void sweepStaleTemporaries(const std::filesystem::path& path) {
  const auto folder = path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
  const auto target = path.filename().string();
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error);
  if (error) {
    return;
  }
  for (const auto& entry : entries) {
    const auto name = entry.path().filename().string();
    if (!isTemporaryOf(name, target)) {
      continue;
    }
    const int descriptor = ::open(entry.path().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
      continue;
    }
    struct stat status {};
    if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && ::flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
      ::unlink(entry.path().c_str());
    }
    ::close(descriptor);
  }
}

namespace {

// Makes the rename itself survive a power cut, as databases do. Some file systems cannot
// sync a folder at all (EINVAL); that is no failure of ours.
std::expected<void, std::string> syncFolder(const std::filesystem::path& path) {
  const auto folder = path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
  const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) {
    return {};
  }
  const int result = ::fsync(descriptor);
  const int error = errno;
  ::close(descriptor);
  if (result != 0 && error != EINVAL && error != EROFS) {
    return std::unexpected(problem("write", path, error));
  }
  return {};
}

// A locked temporary file beside `path`; retried when a sweeper removed it between its
// creation and the lock.
std::expected<std::unique_ptr<TemporaryFile>, std::string> lockedTemporary(const std::filesystem::path& path) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    auto pattern = path.string() + std::string(temporaryInfix) + "XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int descriptor = ::mkstemp(name.data());
    if (descriptor < 0) {
      return std::unexpected(problem("write", path, errno));
    }
    auto temporary = std::make_unique<TemporaryFile>(descriptor, name.data());
    if (::flock(descriptor, LOCK_EX) != 0) {
      return std::unexpected(problem("write", path, errno));
    }
    struct stat mine {};
    struct stat there {};
    if (::fstat(descriptor, &mine) == 0 && ::stat(name.data(), &there) == 0 && mine.st_ino == there.st_ino &&
        mine.st_dev == there.st_dev) {
      return temporary;
    }
    temporary->keep();  // already gone: someone took it for stale
  }
  return std::unexpected(fmt::format("could not write {}: its temporary file kept disappearing", path.string()));
}

}  // namespace

std::expected<void, std::string> writeAtomically(const std::filesystem::path& path, std::string_view bytes) {
  if (path.empty() || !path.has_filename()) {
    return std::unexpected(fmt::format("could not write \"{}\": not a file path", path.string()));
  }
  const auto folder = path.parent_path();
  if (!folder.empty()) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
      return std::unexpected(fmt::format("could not create the folder {}: {}", folder.string(), error.message()));
    }
  }
  sweepStaleTemporaries(path);
  auto made = lockedTemporary(path);
  if (!made) {
    return std::unexpected(made.error());
  }
  TemporaryFile& temporary = **made;
  // mkstemp makes the file private; a settings or plan file is as readable as any other.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(temporary.descriptor(), static_cast<mode_t>(0666U & ~mask));

  std::size_t written = 0;
  while (written < bytes.size()) {
    const auto count = ::write(temporary.descriptor(), bytes.data() + written, bytes.size() - written);
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      return std::unexpected(problem("write", path, errno));
    }
    written += static_cast<std::size_t>(count);
  }
  if (::fsync(temporary.descriptor()) != 0) {
    return std::unexpected(problem("write", path, errno));
  }
  // Renamed while still open and locked, so no sweeper takes it for stale in between.
  if (::rename(temporary.path().c_str(), path.c_str()) != 0) {
    return std::unexpected(problem("write", path, errno));
  }
  temporary.keep();
  if (temporary.closeDescriptor() != 0) {
    return std::unexpected(problem("write", path, errno));
  }
  return syncFolder(path);
}

std::expected<std::string, std::string> read(const std::filesystem::path& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return std::unexpected(problem("read", path, errno));
  }
  TemporaryFile opened(descriptor, path.string());
  opened.keep();  // only the descriptor is ours to close
  std::string bytes;
  std::array<char, 65536> buffer{};
  while (true) {
    const auto count = ::read(descriptor, buffer.data(), buffer.size());
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      return std::unexpected(problem("read", path, errno));
    }
    if (count == 0) {
      return bytes;
    }
    bytes.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

}  // namespace korvalen::files
