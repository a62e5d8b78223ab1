// Working folders for media work. They hold copies of the user's videos, so only the user
// may look inside (mode 0700), whatever the umask says; scratch folders go with their owner.
#pragma once

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

namespace korvalen::engine {

// Creates `folder` (its parent must exist) readable and writable by the user alone. The
// error is the system's text.
[[nodiscard]] std::expected<void, std::string> makePrivateFolder(const std::filesystem::path& folder);

// A folder (or file) removed with everything in it when its owner goes out of scope, unless
// released first.
class ScratchFolder {
 public:
  // A new private folder "STEM-XXXXXX" under the system's temporary folder. The error is one
  // line naming where.
  [[nodiscard]] static std::expected<ScratchFolder, std::string> make(std::string_view stem);
  // Takes charge of `path`, whether it exists yet or not.
  explicit ScratchFolder(std::filesystem::path path) : path_(std::move(path)) {}
  ScratchFolder(ScratchFolder&& other) noexcept : path_(std::exchange(other.path_, {})) {}
  ScratchFolder& operator=(ScratchFolder&&) = delete;
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  ~ScratchFolder();

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  // Kept after all.
  void release() { path_.clear(); }

 private:
  std::filesystem::path path_;
};

}  // namespace korvalen::engine
