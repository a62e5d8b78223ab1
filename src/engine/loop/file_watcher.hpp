// Tells when files in some folders are written or replaced. Folders are watched, not files:
// an atomic save renames a new file over the old one, which a watch on the old file would
// never see. One callback per event, with the folder and the file's name.
//
// Thread: the event loop's.
#pragma once

#include "engine/loop/event_loop.hpp"

#include <expected>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace korvalen::engine {

class FileWatcher {
 public:
  using Changed = std::function<void(const std::filesystem::path& folder, const std::string& name)>;
  [[nodiscard]] static std::expected<std::unique_ptr<FileWatcher>, std::string> make(EventLoop& loop, Changed changed);
  ~FileWatcher();
  FileWatcher(const FileWatcher&) = delete;
  FileWatcher& operator=(const FileWatcher&) = delete;

  // Watches `folder` for files finished writing, renamed in, created or removed. Watching
  // a folder twice is harmless, and a folder removed and made again is watched again by
  // calling this once more. One line when the folder cannot be watched.
  [[nodiscard]] std::expected<void, std::string> watch(const std::filesystem::path& folder);

 private:
  FileWatcher(int fd, Changed changed) : fd_(fd), changed_(std::move(changed)) {}
  void drain();

  int fd_ = -1;
  Changed changed_;
  std::map<int, std::filesystem::path> folders_;  // by watch descriptor
  std::unique_ptr<EventLoop::Watch> watch_;
};

}  // namespace korvalen::engine
