// Opening a file inside a folder so that nothing in the name can lead out of it: no "..",
// no absolute path, no symbolic link pointing elsewhere, resolved by the kernel in one step
// (so a link swapped in meanwhile cannot win a race either).
//
// Thread: any.
#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <string>
#include <string_view>

namespace korvalen::engine {

struct OpenedFile {
  int fd = -1;  // the caller's to close
  std::int64_t size = 0;
};

// `relative` inside `folder`, for reading; a folder or anything but a regular file is
// refused. The error is one line.
[[nodiscard]] std::expected<OpenedFile, std::string> openBeneath(const std::filesystem::path& folder,
                                                                 std::string_view relative);

}  // namespace korvalen::engine
