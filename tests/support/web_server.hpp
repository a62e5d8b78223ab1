// A web server on 127.0.0.1 for the download tests: Python's, serving a folder, with two
// paths for failures: "/slow/NAME" sends NAME a little at a time (to be interrupted), and
// "/broken/NAME" promises all of NAME and stops halfway. Every request it reads is noted, so
// a test can tell that nothing reached it.
#pragma once

#include "engine/process.hpp"

#include <filesystem>
#include <optional>
#include <string>

namespace korvalen::testing {

class WebServer {
 public:
  // Starts serving `root` (a test's folder; the script is written beside it). A failed start
  // leaves `base()` empty and says why in `error()`.
  explicit WebServer(const std::filesystem::path& root);
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  // "http://127.0.0.1:PORT", without a trailing slash.
  [[nodiscard]] const std::string& base() const { return base_; }
  [[nodiscard]] const std::string& error() const { return error_; }
  // "METHOD PATH" a line, for every request read so far.
  [[nodiscard]] std::string requests() const;

 private:
  std::optional<engine::ChildProcess> server_;
  std::filesystem::path requests_;
  std::string base_;
  std::string error_;
};

}  // namespace korvalen::testing
