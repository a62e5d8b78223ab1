// The processes a program started, and theirs: a web view's page runs in processes the
// toolkit starts for it, and pausing the page means stopping exactly those.
//
// Thread: any.
#pragma once

#include <sys/types.h>

#include <vector>

namespace korvalen::engine {

// Every live descendant of `parent`, children before grandchildren.
[[nodiscard]] std::vector<pid_t> descendantsOf(pid_t parent);

// Sends `signal` to each; the ones that were gone meanwhile are skipped.
void signalEach(const std::vector<pid_t>& processes, int signal);

}  // namespace korvalen::engine
