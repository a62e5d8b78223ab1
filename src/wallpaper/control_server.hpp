// The live wallpaper's control socket: "korvalen-wallpaper.sock" in $XDG_RUNTIME_DIR, mode
// 0600, only the user who runs the wallpaper is answered. JSON lines both ways, one reply per
// request, many clients at once, all on the event loop.
#pragma once

#include "core/support/paths.hpp"
#include "core/wallpaper/control_protocol.hpp"
#include "engine/loop/event_loop.hpp"
#include "engine/loop/unix_socket.hpp"

#include <expected>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace korvalen::wallpaper {

inline constexpr std::string_view socketName = "korvalen-wallpaper.sock";
// Where the socket is; one line when $XDG_RUNTIME_DIR is not set.
[[nodiscard]] std::expected<std::filesystem::path, std::string> socketPath(const paths::Environment& environment);

class ControlServer {
 public:
  using Handler = std::function<ControlReply(const ControlRequest&)>;
  // One line when the socket cannot be made, or another wallpaper answers on it.
  [[nodiscard]] static std::expected<std::unique_ptr<ControlServer>, std::string> start(
      engine::EventLoop& loop, const std::filesystem::path& path, Handler handler);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

 private:
  struct Client;
  ControlServer(engine::EventLoop& loop, std::unique_ptr<engine::UnixListener> listener, Handler handler);
  void accept();
  void readFrom(int fd);
  void drop(int fd);

  engine::EventLoop& loop_;
  std::unique_ptr<engine::UnixListener> listener_;
  Handler handler_;
  std::unique_ptr<engine::EventLoop::Watch> watch_;
  std::map<int, std::unique_ptr<Client>> clients_;
};

// Sends one request and waits for its reply; waits a little for a wallpaper still starting.
[[nodiscard]] std::expected<ControlReply, std::string> ask(const std::filesystem::path& path,
                                                           const ControlRequest& request);

}  // namespace korvalen::wallpaper
