// Ctrl-C during long work: while an `InterruptCatcher` lives, SIGINT sets `interrupted`
// instead of ending the process, so the work can stop cleanly and remove what it half made.
#pragma once

#include <atomic>
#include <csignal>

namespace korvalen::cli {

// A lock-free atomic is safe to touch from the handler.
inline std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

class InterruptCatcher {
 public:
  InterruptCatcher() {
    interrupted = false;
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted = true; };
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, &previous_);
  }
  ~InterruptCatcher() { ::sigaction(SIGINT, &previous_, nullptr); }
  InterruptCatcher(const InterruptCatcher&) = delete;
  InterruptCatcher& operator=(const InterruptCatcher&) = delete;

 private:
  struct sigaction previous_ {};
};

}  // namespace korvalen::cli
