#include "engine/process.hpp"

#include <fmt/format.h>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <thread>

extern char** environ;

namespace korvalen::engine {
namespace {

std::string describe(int error) {
  return std::generic_category().message(error);
}

// Reads what is there into `into`; false at the end of the stream.
bool drain(int descriptor, std::string& into) {
  std::array<char, 1 << 16> buffer{};
  while (true) {
    const auto count = ::read(descriptor, buffer.data(), buffer.size());
    if (count > 0) {
      into.append(buffer.data(), static_cast<std::size_t>(count));
      return true;
    }
    if (count == 0) {
      return false;
    }
    if (errno != EINTR) {
      return false;
    }
  }
}

}  // namespace

std::expected<ChildProcess, std::string> ChildProcess::start(const std::filesystem::path& program,
                                                             const std::vector<std::string>& arguments, Input input) {
  std::array<int, 2> feed{-1, -1};
  std::array<int, 2> output{-1, -1};
  std::array<int, 2> error{-1, -1};
  const auto closeAll = [&] {
    for (int descriptor : {feed[0], feed[1], output[0], output[1], error[0], error[1]}) {
      if (descriptor >= 0) {
        ::close(descriptor);
      }
    }
  };
  if ((input == Input::pipe && ::pipe2(feed.data(), O_CLOEXEC) != 0) || ::pipe2(output.data(), O_CLOEXEC) != 0 ||
      ::pipe2(error.data(), O_CLOEXEC) != 0) {
    const int saved = errno;
    closeAll();
    return std::unexpected(fmt::format("could not start {}: {}", program.string(), describe(saved)));
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (input == Input::pipe) {
    posix_spawn_file_actions_adddup2(&actions, feed[0], 0);
  } else {
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, output[1], 1);
  posix_spawn_file_actions_adddup2(&actions, error[1], 2);

  std::vector<std::string> words;
  words.reserve(arguments.size() + 1);
  words.push_back(program.string());
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (auto& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);

  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);

  pid_t pid = -1;
  const int spawned = ::posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    closeAll();
    return std::unexpected(fmt::format("could not start {}: {}", program.string(), describe(spawned)));
  }
  for (int* descriptor : {&feed[0], &output[1], &error[1]}) {
    if (*descriptor >= 0) {
      ::close(*descriptor);
    }
  }
  return ChildProcess(pid, feed[1], output[0], error[0]);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(other.pid_), input_(other.input_), output_(other.output_), error_(other.error_), status_(other.status_) {
  other.pid_ = -1;
  other.input_ = -1;
  other.output_ = -1;
  other.error_ = -1;
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !status_) {
    terminate();
  }
  closePipes();
}

void ChildProcess::closePipes() {
  for (int* descriptor : {&input_, &output_, &error_}) {
    if (*descriptor >= 0) {
      ::close(*descriptor);
      *descriptor = -1;
    }
  }
}

bool ChildProcess::pump(std::string& output, std::string& error, std::chrono::milliseconds timeout) {
  std::array<pollfd, 2> watched{};
  nfds_t count = 0;
  if (output_ >= 0) {
    watched[count++] = pollfd{output_, POLLIN, 0};
  }
  if (error_ >= 0) {
    watched[count++] = pollfd{error_, POLLIN, 0};
  }
  if (count == 0) {
    return false;
  }
  const int waitFor = timeout.count() < 0 ? -1 : static_cast<int>(std::min<std::int64_t>(timeout.count(), 1 << 30));
  if (::poll(watched.data(), count, waitFor) < 0) {
    return errno == EINTR;
  }
  for (nfds_t i = 0; i < count; ++i) {
    if ((watched[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
      continue;
    }
    int& descriptor = watched[i].fd == output_ ? output_ : error_;
    if (!drain(descriptor, descriptor == output_ ? output : error)) {
      ::close(descriptor);
      descriptor = -1;
    }
  }
  return output_ >= 0 || error_ >= 0;
}

bool ChildProcess::write(std::string_view bytes, std::string& output, std::string& error) {
  // A child that exits early must give us EPIPE, not a SIGPIPE that ends this process.
  static const bool ignoringBrokenPipes = [] { return std::signal(SIGPIPE, SIG_IGN) != SIG_ERR; }();
  (void)ignoringBrokenPipes;
  std::size_t written = 0;
  while (written < bytes.size()) {
    if (input_ < 0) {
      return false;
    }
    std::array<pollfd, 3> watched{};
    nfds_t count = 0;
    watched[count++] = pollfd{input_, POLLOUT, 0};
    for (const int descriptor : {output_, error_}) {
      if (descriptor >= 0) {
        watched[count++] = pollfd{descriptor, POLLIN, 0};
      }
    }
    if (::poll(watched.data(), count, -1) < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    for (nfds_t i = 1; i < count; ++i) {
      if ((watched[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        int& descriptor = watched[i].fd == output_ ? output_ : error_;
        if (!drain(descriptor, descriptor == output_ ? output : error)) {
          ::close(descriptor);
          descriptor = -1;
        }
      }
    }
    if ((watched[0].revents & (POLLERR | POLLHUP)) != 0) {
      closeInput();
      return false;
    }
    if ((watched[0].revents & POLLOUT) != 0) {
      const auto sent = ::write(input_, bytes.data() + written, std::min<std::size_t>(bytes.size() - written, 1 << 16));
      if (sent < 0 && errno != EINTR && errno != EAGAIN) {
        closeInput();
        return false;
      }
      written += sent > 0 ? static_cast<std::size_t>(sent) : 0;
    }
  }
  return true;
}

void ChildProcess::closeInput() {
  if (input_ >= 0) {
    ::close(input_);
    input_ = -1;
  }
}

int ChildProcess::reap() {
  if (!status_) {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  return *status_;
}

int ChildProcess::wait(std::string& output, std::string& error) {
  closeInput();
  while (pump(output, error)) {
  }
  return reap();
}

void ChildProcess::terminate(std::chrono::milliseconds grace) {
  if (pid_ <= 0 || status_) {
    return;
  }
  ::kill(pid_, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + grace;
  int status = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    const pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
      closePipes();
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ::kill(pid_, SIGKILL);
  closePipes();
  reap();
}

std::expected<Finished, std::string> run(const std::filesystem::path& program,
                                         const std::vector<std::string>& arguments) {
  auto child = ChildProcess::start(program, arguments);
  if (!child) {
    return std::unexpected(child.error());
  }
  Finished finished;
  finished.exitCode = child->wait(finished.output, finished.error);
  return finished;
}

std::optional<std::filesystem::path> findExecutable(std::string_view name, std::string_view searchPath) {
  const auto executable = [](const std::filesystem::path& candidate) {
    std::error_code error;
    return std::filesystem::is_regular_file(candidate, error) && ::access(candidate.c_str(), X_OK) == 0;
  };
  if (name.empty()) {
    return std::nullopt;
  }
  if (name.find('/') != std::string_view::npos) {
    return executable(name) ? std::optional<std::filesystem::path>(name) : std::nullopt;
  }
  std::size_t start = 0;
  while (start <= searchPath.size()) {
    const auto end = std::min(searchPath.find(':', start), searchPath.size());
    const auto folder = searchPath.substr(start, end - start);
    const auto candidate = std::filesystem::path(folder.empty() ? "." : folder) / name;
    if (executable(candidate)) {
      return candidate;
    }
    start = end + 1;
  }
  return std::nullopt;
}

}  // namespace korvalen::engine
