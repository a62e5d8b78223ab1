#include "engine/web/process_tree.hpp"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include <signal.h>

namespace korvalen::engine {

namespace {

// The parent named in /proc/PID/stat: after the command name's closing parenthesis (the
// name itself may hold spaces and parentheses), the state, then the parent.
std::optional<pid_t> parentOf(const std::filesystem::path& statFile) {
  std::ifstream in(statFile);
  std::string line;
  if (!std::getline(in, line)) {
    return std::nullopt;
  }
  const auto close = line.rfind(')');
  if (close == std::string::npos) {
    return std::nullopt;
  }
  std::istringstream rest(line.substr(close + 1));
  std::string state;
  pid_t parent = 0;
  if (!(rest >> state >> parent)) {
    return std::nullopt;
  }
  return parent;
}

}  // namespace

std::vector<pid_t> descendantsOf(pid_t parent) {
  std::multimap<pid_t, pid_t> children;
  std::error_code error;
  for (std::filesystem::directory_iterator entries("/proc", error), end; !error && entries != end;
       entries.increment(error)) {
    const auto name = entries->path().filename().string();
    pid_t pid = 0;
    if (std::from_chars(name.data(), name.data() + name.size(), pid).ec != std::errc{} || pid <= 0) {
      continue;
    }
    if (const auto up = parentOf(entries->path() / "stat")) {
      children.emplace(*up, pid);
    }
  }
  std::vector<pid_t> out;
  std::vector<pid_t> level{parent};
  while (!level.empty()) {
    std::vector<pid_t> next;
    for (const pid_t pid : level) {
      const auto [from, to] = children.equal_range(pid);
      for (auto it = from; it != to; ++it) {
        out.push_back(it->second);
        next.push_back(it->second);
      }
    }
    level = std::move(next);
  }
  return out;
}

void signalEach(const std::vector<pid_t>& processes, int signal) {
  for (const pid_t pid : processes) {
    ::kill(pid, signal);
  }
}

}  // namespace korvalen::engine
