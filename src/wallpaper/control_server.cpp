#include "wallpaper/control_server.hpp"

#include <fmt/format.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace korvalen::wallpaper {

namespace fs = std::filesystem;

namespace {
// How long a client waits for a wallpaper that is still starting, and then for its reply.
constexpr std::chrono::milliseconds patience{3000};
constexpr int replyMilliseconds = 10000;

// Writes all of `text` to a descriptor that may be non-blocking; false when the peer is gone.
bool sendAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const auto sent = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) {
        continue;
      }
      if (errno == EAGAIN) {
        pollfd out{fd, POLLOUT, 0};
        if (::poll(&out, 1, 1000) <= 0) {
          return false;
        }
        continue;
      }
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}
}  // namespace

std::expected<fs::path, std::string> socketPath(const paths::Environment& environment) {
  const auto runtime = environment("XDG_RUNTIME_DIR");
  if (!runtime || runtime->empty()) {
    return std::unexpected(
        std::string("XDG_RUNTIME_DIR is not set: the wallpaper's control socket has no private folder to live in"));
  }
  return fs::path(*runtime) / socketName;
}

struct ControlServer::Client {
  engine::Descriptor socket;
  std::unique_ptr<engine::EventLoop::Watch> watch;
  std::string buffer;
};

ControlServer::ControlServer(engine::EventLoop& loop, std::unique_ptr<engine::UnixListener> listener, Handler handler)
    : loop_(loop), listener_(std::move(listener)), handler_(std::move(handler)) {}

ControlServer::~ControlServer() = default;

std::expected<std::unique_ptr<ControlServer>, std::string> ControlServer::start(engine::EventLoop& loop,
                                                                                const fs::path& path, Handler handler) {
  auto listener = engine::UnixListener::listen(path);
  if (!listener) {
    return std::unexpected(listener.error());
  }
  std::unique_ptr<ControlServer> server(new ControlServer(loop, std::move(*listener), std::move(handler)));
  server->watch_ = loop.watch(server->listener_->fd(), POLLIN, [raw = server.get()](short) { raw->accept(); });
  return server;
}

void ControlServer::accept() {
  for (auto socket = listener_->accept(); socket.has_value(); socket = listener_->accept()) {
    const int fd = socket->get();
    const auto peer = engine::peerOf(fd);
    if (!peer || peer->uid != ::getuid()) {
      // The socket's mode keeps others out already; this holds where the folder is shared.
      sendAll(fd, encode(ControlReply{false, "refused: this wallpaper belongs to another user", {}}) + "\n");
      continue;
    }
    auto client = std::make_unique<Client>();
    client->socket = std::move(*socket);
    client->watch = loop_.watch(fd, POLLIN, [this, fd](short) { readFrom(fd); });
    clients_[fd] = std::move(client);
  }
}

void ControlServer::readFrom(int fd) {
  const auto found = clients_.find(fd);
  if (found == clients_.end()) {
    return;
  }
  Client& client = *found->second;
  char chunk[4096];
  const auto got = ::recv(fd, chunk, sizeof chunk, 0);
  if (got <= 0) {
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
      return;
    }
    drop(fd);
    return;
  }
  client.buffer.append(chunk, static_cast<std::size_t>(got));
  std::size_t end = 0;
  while ((end = client.buffer.find('\n')) != std::string::npos) {
    const std::string line = client.buffer.substr(0, end);
    client.buffer.erase(0, end + 1);
    const auto request = parseRequest(line);
    // The handler may stop the loop or end this server (a "stop"): the reply goes first.
    const ControlReply reply = request ? handler_(*request) : ControlReply{false, request.error(), {}};
    if (!sendAll(fd, encode(reply) + "\n")) {
      drop(fd);
      return;
    }
  }
  if (client.buffer.size() > maximumLine) {
    sendAll(fd, encode(ControlReply{false, fmt::format("a request longer than {} bytes", maximumLine), {}}) + "\n");
    drop(fd);
  }
}

void ControlServer::drop(int fd) {
  clients_.erase(fd);
}

std::expected<ControlReply, std::string> ask(const fs::path& path, const ControlRequest& request) {
  auto socket = engine::connectUnix(path, patience);
  if (!socket) {
    return std::unexpected(fmt::format("no live wallpaper is running: {}", socket.error()));
  }
  const int fd = socket->get();
  if (!sendAll(fd, encode(request) + "\n")) {
    return std::unexpected(fmt::format("{}: the wallpaper closed the connection", path.string()));
  }
  std::string buffer;
  while (buffer.find('\n') == std::string::npos) {
    pollfd in{fd, POLLIN, 0};
    if (::poll(&in, 1, replyMilliseconds) <= 0) {
      return std::unexpected(fmt::format("{}: the wallpaper did not answer", path.string()));
    }
    char chunk[4096];
    const auto got = ::recv(fd, chunk, sizeof chunk, 0);
    if (got <= 0) {
      return std::unexpected(fmt::format("{}: the wallpaper closed the connection", path.string()));
    }
    buffer.append(chunk, static_cast<std::size_t>(got));
    if (buffer.size() > 16 * maximumLine) {
      return std::unexpected(fmt::format("{}: the wallpaper's reply is too long", path.string()));
    }
  }
  return parseReply(buffer.substr(0, buffer.find('\n')));
}

}  // namespace korvalen::wallpaper
