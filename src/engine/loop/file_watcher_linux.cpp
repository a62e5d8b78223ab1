#include "engine/loop/file_watcher.hpp"

#include <fmt/format.h>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <vector>

namespace korvalen::engine {

namespace {
constexpr std::uint32_t watched =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
}

std::expected<std::unique_ptr<FileWatcher>, std::string> FileWatcher::make(EventLoop& loop, Changed changed) {
  const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) {
    return std::unexpected(fmt::format("could not watch files: {}", std::generic_category().message(errno)));
  }
  std::unique_ptr<FileWatcher> watcher(new FileWatcher(fd, std::move(changed)));
  watcher->watch_ = loop.watch(fd, POLLIN, [raw = watcher.get()](short) { raw->drain(); });
  return watcher;
}

FileWatcher::~FileWatcher() {
  watch_.reset();
  ::close(fd_);
}

std::expected<void, std::string> FileWatcher::watch(const std::filesystem::path& folder) {
  const int wd = ::inotify_add_watch(fd_, folder.c_str(), watched);
  if (wd < 0) {
    return std::unexpected(
        fmt::format("could not watch {}: {}", folder.string(), std::generic_category().message(errno)));
  }
  folders_[wd] = folder;
  return {};
}

void FileWatcher::drain() {
  alignas(inotify_event) char buffer[16384];
  for (;;) {
    const auto got = ::read(fd_, buffer, sizeof buffer);
    if (got <= 0) {
      return;
    }
    std::vector<std::pair<std::filesystem::path, std::string>> events;
    for (ssize_t offset = 0; offset < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      const auto found = folders_.find(event->wd);
      if (found == folders_.end()) {
        continue;
      }
      if ((event->mask & IN_IGNORED) != 0) {
        events.emplace_back(found->second, "");
        folders_.erase(found);
        continue;
      }
      events.emplace_back(found->second, event->len > 0 ? std::string(event->name) : std::string());
    }
    for (const auto& [folder, name] : events) {
      changed_(folder, name);
    }
  }
}

}  // namespace korvalen::engine
