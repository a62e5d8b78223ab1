// The library on disk: "library.json" and the "items" tree beside it, changed so that a
// command killed at any moment leaves the previous library readable and, once the next
// command has run, no file that no item owns.
//
// Files move through two staging folders beside "items": an import builds its item in
// "incoming/<id>" and moves it into "items" only after the library that names it is saved;
// a removal moves "items/<id>" to "outgoing/<id>" before the library that forgets it is
// saved. So whatever is left in a staging folder is settled by one rule: an id the saved
// library holds goes (back) into "items", any other is deleted. Commands that change the
// library hold an exclusive lock on "Library/.lock" for as long as they work.
//
// Thread: one at a time.
#pragma once

#include "core/library/wallpaper_library.hpp"

#include <atomic>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace korvalen::engine {

class LibraryLock {
 public:
  // Waits for the lock; `waiting` is called once if another process holds it. The error is
  // one line (the folder cannot be made or the lock file opened).
  [[nodiscard]] static std::expected<LibraryLock, std::string> acquire(const std::filesystem::path& folder,
                                                                       const std::function<void()>& waiting = nullptr);
  // The lock when nobody holds it, else absent.
  [[nodiscard]] static std::optional<LibraryLock> tryAcquire(const std::filesystem::path& folder);
  ~LibraryLock();
  LibraryLock(LibraryLock&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  LibraryLock& operator=(LibraryLock&&) = delete;
  LibraryLock(const LibraryLock&) = delete;
  LibraryLock& operator=(const LibraryLock&) = delete;

 private:
  explicit LibraryLock(int descriptor) : descriptor_(descriptor) {}
  int descriptor_ = -1;
};

namespace LibraryStore {

inline constexpr std::string_view incomingFolder = "incoming";
inline constexpr std::string_view outgoingFolder = "outgoing";
inline constexpr std::string_view itemsFolder = "items";

// Settles what an interrupted command left in the staging folders, by the rule above, and
// removes what a killed save left beside "library.json". Call with the lock held and the
// library as saved. One line per folder settled.
std::vector<std::string> recover(const WallpaperLibrary& library);

// "incoming/<id>", created empty and private to the user.
[[nodiscard]] std::expected<std::filesystem::path, std::string> stage(const WallpaperLibrary& library,
                                                                      const std::string& id);
// Moves a staged item into "items" (after the library naming it was saved).
[[nodiscard]] std::expected<void, std::string> commit(const WallpaperLibrary& library, const std::string& id);
// Deletes a staged item that will not be added.
void discard(const WallpaperLibrary& library, const std::string& id);

// Removes an item and its files: its folder is set aside, the library saved without it,
// then the folder deleted. On failure nothing changes. The removed item.
[[nodiscard]] std::expected<LibraryItem, std::string> remove(WallpaperLibrary& library, const std::string& id);

// Copies a file, as a copy-on-write clone where the file system offers one, so a large
// video does not take its space twice. Stops (and removes the part copied) when `stop`
// turns true. The error is one line.
[[nodiscard]] std::expected<void, std::string> copyFile(const std::filesystem::path& from,
                                                        const std::filesystem::path& to,
                                                        const std::atomic<bool>* stop = nullptr);
// Copies a folder's tree: files, folders, and links that stay inside it (as links); each
// link leading out is left out and named in `leftOut`.
[[nodiscard]] std::expected<void, std::string> copyTree(const std::filesystem::path& from,
                                                        const std::filesystem::path& to,
                                                        const std::atomic<bool>* stop = nullptr,
                                                        std::vector<std::string>* leftOut = nullptr);

}  // namespace LibraryStore
}  // namespace korvalen::engine
