#include "core/diagnostics/log.hpp"

#include "core/diagnostics/redact.hpp"

#include <cstdio>
#include <mutex>

namespace korvalen::log {
namespace {

struct Sinks {
  std::mutex mutex;
  Capture* current = nullptr;
  std::function<void(const Line&)> backend;
};

Sinks& sinks() {
  static Sinks instance;
  return instance;
}

}  // namespace

std::string_view toString(Level level) {
  switch (level) {
    case Level::debug:
      return "debug";
    case Level::info:
      return "info";
    case Level::notice:
      return "default";
    case Level::error:
      return "error";
    case Level::fault:
      return "fault";
  }
  return "default";
}

std::string formatLine(const Line& line) {
  return fmt::format("{} {} {}: {}", subsystem, line.category, toString(line.level), line.message);
}

void write(std::string_view category, Level level, std::string_view message) {
  // Log lines quote paths, links and tool output, any of which may carry a credential.
  Line line{std::string(category), level, Redact::secrets(message)};
  auto& shared = sinks();
  std::lock_guard lock(shared.mutex);
  if (shared.current != nullptr) {
    shared.current->append(std::move(line));
    return;
  }
  if (shared.backend) {
    shared.backend(line);
    return;
  }
  const auto text = formatLine(line) + "\n";
  std::fwrite(text.data(), 1, text.size(), stderr);
}

void setBackend(std::function<void(const Line&)> backend) {
  auto& shared = sinks();
  std::lock_guard lock(shared.mutex);
  shared.backend = std::move(backend);
}

Capture::Capture() {
  auto& shared = sinks();
  std::lock_guard lock(shared.mutex);
  previous_ = shared.current;
  shared.current = this;
}

Capture::~Capture() {
  auto& shared = sinks();
  std::lock_guard lock(shared.mutex);
  shared.current = previous_;
}

std::vector<Line> Capture::lines() const {
  std::lock_guard lock(sinks().mutex);
  return lines_;
}

void Capture::append(Line line) {
  lines_.push_back(std::move(line));
}

}  // namespace korvalen::log
