#include "engine/loop/unix_socket.hpp"

#include <fmt/format.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>

namespace korvalen::engine {

namespace fs = std::filesystem;

namespace {

std::expected<sockaddr_un, std::string> addressOf(const fs::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const auto& text = path.native();
  if (text.size() >= sizeof address.sun_path) {
    return std::unexpected(fmt::format("{}: the path is too long for a socket ({} bytes at most)", path.string(),
                                       sizeof address.sun_path - 1));
  }
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  return address;
}

int connectOnce(const sockaddr_un& address) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return -errno;
  }
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    ::close(fd);
    return -error;
  }
  return fd;
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

std::optional<Peer> peerOf(int fd) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    return std::nullopt;
  }
  return Peer{credentials.uid, credentials.pid};
}

std::expected<std::unique_ptr<UnixListener>, std::string> UnixListener::listen(const fs::path& path) {
  const auto address = addressOf(path);
  if (!address) {
    return std::unexpected(address.error());
  }
  std::error_code error;
  if (fs::is_socket(fs::symlink_status(path, error))) {
    const int answered = connectOnce(*address);
    if (answered >= 0) {
      Descriptor other(answered);
      const auto peer = peerOf(other.get());
      return std::unexpected(fmt::format("{} is in use by pid {}", path.string(), peer ? peer->pid : 0));
    }
    fs::remove(path, error);  // left by a run that crashed
  } else if (fs::exists(fs::symlink_status(path, error))) {
    return std::unexpected(fmt::format("{}: something that is not a socket is in the way", path.string()));
  }
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.valid()) {
    return std::unexpected(
        fmt::format("{}: no socket can be made ({})", path.string(), std::generic_category().message(errno)));
  }
  // Made private before it has a name, so nobody else can connect in between.
  ::fchmod(socket.get(), 0600);
  const mode_t before = ::umask(0177);
  const int bound = ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address);
  const int bindError = errno;
  ::umask(before);
  if (bound != 0) {
    return std::unexpected(
        fmt::format("{}: cannot listen there ({})", path.string(), std::generic_category().message(bindError)));
  }
  if (::listen(socket.get(), 16) != 0) {
    const int listenError = errno;
    fs::remove(path, error);
    return std::unexpected(
        fmt::format("{}: cannot listen there ({})", path.string(), std::generic_category().message(listenError)));
  }
  return std::unique_ptr<UnixListener>(new UnixListener(std::move(socket), path));
}

UnixListener::~UnixListener() {
  std::error_code error;
  fs::remove(path_, error);
}

std::optional<Descriptor> UnixListener::accept() {
  const int fd = ::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) {
    return std::nullopt;
  }
  return Descriptor(fd);
}

std::expected<Descriptor, std::string> connectUnix(const fs::path& path, std::chrono::milliseconds patience) {
  const auto address = addressOf(path);
  if (!address) {
    return std::unexpected(address.error());
  }
  const auto until = std::chrono::steady_clock::now() + patience;
  while (true) {
    const int fd = connectOnce(*address);
    if (fd >= 0) {
      return Descriptor(fd);
    }
    const bool starting = fd == -ENOENT || fd == -ECONNREFUSED;
    if (!starting || std::chrono::steady_clock::now() >= until) {
      return std::unexpected(
          fmt::format("nothing answers at {} ({})", path.string(), std::generic_category().message(-fd)));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

}  // namespace korvalen::engine
