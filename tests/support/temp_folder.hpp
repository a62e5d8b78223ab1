// A real folder under the system's temporary folder for one test, removed afterwards.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace korvalen::testing {

class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
  // Every entry below the folder, as paths relative to it, sorted.
  [[nodiscard]] std::vector<std::string> entries() const;

 private:
  std::filesystem::path path_;
};

// While alive, the process's current folder is `folder`; for tests of relative paths.
class CurrentFolder {
 public:
  explicit CurrentFolder(const std::filesystem::path& folder) : previous_(std::filesystem::current_path()) {
    std::filesystem::current_path(folder);
  }
  ~CurrentFolder() { std::filesystem::current_path(previous_); }
  CurrentFolder(const CurrentFolder&) = delete;
  CurrentFolder& operator=(const CurrentFolder&) = delete;

 private:
  std::filesystem::path previous_;
};

std::string readText(const std::filesystem::path& path);
void writeText(const std::filesystem::path& path, const std::string& text);

}  // namespace korvalen::testing
