// Unix stream sockets for a local control channel: a listener that replaces a stale socket
// left by a crashed run but never one that still answers, the peer's user id, and a client
// connection. Descriptors are non-blocking on the listening side, close-on-exec everywhere.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace korvalen::engine {

// An open descriptor, closed when dropped.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

struct Peer {
  uid_t uid = 0;
  pid_t pid = 0;
};
// Who is at the other end of a connected Unix socket.
[[nodiscard]] std::optional<Peer> peerOf(int fd);

class UnixListener {
 public:
  // Mode 0600. A socket file nobody answers on is removed first; one that answers is left
  // alone and the error names the pid behind it ("... is in use by pid 4242").
  [[nodiscard]] static std::expected<std::unique_ptr<UnixListener>, std::string> listen(
      const std::filesystem::path& path);
  ~UnixListener();  // removes the socket file
  UnixListener(const UnixListener&) = delete;
  UnixListener& operator=(const UnixListener&) = delete;
  [[nodiscard]] int fd() const { return socket_.get(); }
  // A waiting connection (non-blocking), or nothing.
  [[nodiscard]] std::optional<Descriptor> accept();

 private:
  UnixListener(Descriptor socket, std::filesystem::path path) : socket_(std::move(socket)), path_(std::move(path)) {}
  Descriptor socket_;
  std::filesystem::path path_;
};

// Connects, trying again until `patience` has passed while there is no socket yet or nobody
// answers (a server still starting). One line naming the path when it gives up.
[[nodiscard]] std::expected<Descriptor, std::string> connectUnix(const std::filesystem::path& path,
                                                                 std::chrono::milliseconds patience);

}  // namespace korvalen::engine
