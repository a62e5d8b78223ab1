#include "core/support/atomic_file.hpp"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cerrno>
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
  auto pattern = path.string() + ".tmp-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int descriptor = ::mkstemp(name.data());
  if (descriptor < 0) {
    return std::unexpected(problem("write", path, errno));
  }
  TemporaryFile temporary(descriptor, name.data());
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
  if (::fsync(temporary.descriptor()) != 0 || temporary.closeDescriptor() != 0) {
    return std::unexpected(problem("write", path, errno));
  }
  if (::rename(temporary.path().c_str(), path.c_str()) != 0) {
    return std::unexpected(problem("write", path, errno));
  }
  temporary.keep();
  return {};
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
