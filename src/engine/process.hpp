// Child processes (ffmpeg and friends), started with an argument vector and never through a
// shell. Standard output and standard error are read together, so a child that fills one
// pipe while we wait on the other cannot deadlock. A child still running when its
// `ChildProcess` goes away is terminated and reaped: no zombies, no leaked descriptors.
// Children get a process group of their own, so a Ctrl-C at the terminal reaches only us and
// we decide how they stop (a cancelled build must not see ffmpeg fail first).
// Thread: one thread uses a `ChildProcess` at a time; `terminate` may come from another.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::engine {

class ChildProcess {
 public:
  enum class Input { none, pipe };

  // `program` is run with `arguments` (not including the program itself). Standard input is
  // /dev/null, or a pipe fed with `write`. The error is one line naming the program.
  [[nodiscard]] static std::expected<ChildProcess, std::string> start(const std::filesystem::path& program,
                                                                      const std::vector<std::string>& arguments,
                                                                      Input input = Input::none);

  // Writes all of `bytes` to the child's standard input, reading its output and error
  // meanwhile so neither side can block the other. False when the child stopped reading.
  bool write(std::string_view bytes, std::string& output, std::string& error);
  // Ends the child's standard input.
  void closeInput();

  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) = delete;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  // Waits until either stream has something, or `timeout` has passed, and appends what came.
  // False once both streams have ended. A negative timeout waits as long as it takes.
  bool pump(std::string& output, std::string& error, std::chrono::milliseconds timeout = std::chrono::milliseconds(-1));

  // Reads both streams to their end, then reaps the child. The exit code, or 128 + the
  // signal that ended it.
  int wait(std::string& output, std::string& error);

  // Asks the child to stop (SIGTERM, then SIGKILL after `grace`) and reaps it.
  void terminate(std::chrono::milliseconds grace = std::chrono::milliseconds(500));

  [[nodiscard]] pid_t pid() const { return pid_; }
  // For an event loop to watch; -1 once the stream has ended.
  [[nodiscard]] int errorDescriptor() const { return error_; }

 private:
  ChildProcess(pid_t pid, int input, int output, int error)
      : pid_(pid), input_(input), output_(output), error_(error) {}
  void closePipes();
  int reap();

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int error_ = -1;
  std::optional<int> status_;
};

struct Finished {
  int exitCode = 0;
  std::string output;
  std::string error;
};

// Runs to the end and collects both streams.
[[nodiscard]] std::expected<Finished, std::string> run(const std::filesystem::path& program,
                                                       const std::vector<std::string>& arguments);

// The first executable `name` in the ":"-separated `searchPath`; a name with a "/" is taken
// as it is when it is executable.
std::optional<std::filesystem::path> findExecutable(std::string_view name, std::string_view searchPath);

}  // namespace korvalen::engine
