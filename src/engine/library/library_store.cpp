#include "engine/library/library_store.hpp"

#include "core/support/atomic_file.hpp"
#include "engine/lock_file.hpp"
#include "engine/working_folder.hpp"

#include <fmt/format.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <system_error>

namespace korvalen::engine {
namespace fs = std::filesystem;

namespace {

std::string systemText(int error) {
  return std::generic_category().message(error);
}

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int get() const { return descriptor_; }

 private:
  int descriptor_;
};

void removeTree(const fs::path& path) {
  std::error_code error;
  fs::remove_all(path, error);
}

}  // namespace

std::expected<LibraryLock, std::string> LibraryLock::acquire(const fs::path& folder,
                                                             const std::function<void()>& waiting) {
  auto descriptor = openLockFile(folder / ".lock");
  if (!descriptor) {
    return std::unexpected(descriptor.error());
  }
  if (::flock(*descriptor, LOCK_EX | LOCK_NB) != 0) {
    if (waiting) {
      waiting();
    }
    while (::flock(*descriptor, LOCK_EX) != 0) {
      if (errno != EINTR) {
        const int error = errno;
        ::close(*descriptor);
        return std::unexpected(fmt::format("could not lock the library in {}: {}", folder.string(), systemText(error)));
      }
    }
  }
  return LibraryLock(*descriptor);
}

std::optional<LibraryLock> LibraryLock::tryAcquire(const fs::path& folder) {
  auto descriptor = openLockFile(folder / ".lock");
  if (!descriptor) {
    return std::nullopt;
  }
  if (::flock(*descriptor, LOCK_EX | LOCK_NB) != 0) {
    ::close(*descriptor);
    return std::nullopt;
  }
  return LibraryLock(*descriptor);
}

LibraryLock::~LibraryLock() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

namespace LibraryStore {

std::vector<std::string> recover(const WallpaperLibrary& library) {
  files::sweepStaleTemporaries(library.file());
  std::vector<std::string> settled;
  for (const auto staging : {incomingFolder, outgoingFolder}) {
    const auto folder = library.folder() / staging;
    std::error_code error;
    fs::directory_iterator entries(folder, error);
    if (error) {
      continue;
    }
    std::vector<fs::path> left;
    for (const auto& entry : entries) {
      left.push_back(entry.path());
    }
    for (const auto& path : left) {
      const auto id = path.filename().string();
      const auto* item = library.find(id);
      const auto home = library.folder() / itemsFolder / id;
      if (item != nullptr && library.itemFolderOf(*item) && !fs::exists(home, error)) {
        fs::create_directories(home.parent_path(), error);
        fs::rename(path, home, error);
        if (!error) {
          settled.push_back(fmt::format("finished an interrupted {} of item {}",
                                        staging == incomingFolder ? "import" : "removal (kept)", id));
          continue;
        }
      }
      removeTree(path);
      settled.push_back(fmt::format("removed the files of an interrupted {} ({})",
                                    staging == incomingFolder ? "import" : "removal", id));
    }
    fs::remove(folder, error);  // only when empty
  }
  return settled;
}

std::expected<fs::path, std::string> stage(const WallpaperLibrary& library, const std::string& id) {
  const auto parent = library.folder() / incomingFolder;
  std::error_code error;
  fs::create_directories(parent, error);
  const auto folder = parent / id;
  removeTree(folder);
  if (error) {
    return std::unexpected(fmt::format("could not create {}: {}", parent.string(), error.message()));
  }
  if (auto made = makePrivateFolder(folder); !made) {
    return std::unexpected(fmt::format("could not create {}: {}", folder.string(), made.error()));
  }
  return folder;
}

std::expected<void, std::string> commit(const WallpaperLibrary& library, const std::string& id) {
  const auto from = library.folder() / incomingFolder / id;
  const auto to = library.folder() / itemsFolder / id;
  std::error_code error;
  fs::create_directories(to.parent_path(), error);
  if (!error) {
    fs::rename(from, to, error);
  }
  if (error) {
    return std::unexpected(fmt::format("could not move {} to {}: {}", from.string(), to.string(), error.message()));
  }
  fs::remove(from.parent_path(), error);  // only when empty
  return {};
}

void discard(const WallpaperLibrary& library, const std::string& id) {
  const auto folder = library.folder() / incomingFolder / id;
  removeTree(folder);
  std::error_code error;
  fs::remove(folder.parent_path(), error);  // only when empty
}

std::expected<LibraryItem, std::string> remove(WallpaperLibrary& library, const std::string& id) {
  const auto* found = library.find(id);
  if (found == nullptr) {
    return std::unexpected(fmt::format("no item with id \"{}\" in {}", id, library.file().string()));
  }
  const auto home = library.itemFolderOf(*found);
  const auto aside = library.folder() / outgoingFolder / id;
  std::error_code error;
  bool moved = false;
  if (home && fs::exists(*home, error)) {
    fs::create_directories(aside.parent_path(), error);
    removeTree(aside);
    fs::rename(*home, aside, error);
    if (error) {
      return std::unexpected(fmt::format("could not remove {}: {}", home->string(), error.message()));
    }
    moved = true;
  }
  LibraryItem kept = *found;
  library.remove(id);
  if (auto saved = library.save(); !saved) {
    library.add(kept);
    if (moved) {
      fs::rename(aside, *home, error);
    }
    return std::unexpected(saved.error());
  }
  if (moved) {
    removeTree(aside);
    fs::remove(aside.parent_path(), error);  // only when empty
  }
  return kept;
}

std::expected<void, std::string> copyFile(const fs::path& from, const fs::path& to, const std::atomic<bool>* stop) {
  const auto fail = [&](std::string_view what, int error) {
    ::unlink(to.c_str());
    return std::unexpected(
        fmt::format("could not {} {}: {}", what, what == "read" ? from.string() : to.string(), systemText(error)));
  };
  const Descriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (source.get() < 0) {
    return std::unexpected(fmt::format("could not read {}: {}", from.string(), systemText(errno)));
  }
  const Descriptor target(::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (target.get() < 0) {
    return std::unexpected(fmt::format("could not write {}: {}", to.string(), systemText(errno)));
  }
  // A clone shares the blocks until either copy changes (Btrfs, XFS, bcachefs).
  if (::ioctl(target.get(), FICLONE, source.get()) == 0) {
    return {};
  }
  // copy_file_range stays in the kernel, and clones too where only it can (NFS, CIFS).
  bool inKernel = true;
  while (true) {
    if (stop != nullptr && stop->load()) {
      ::unlink(to.c_str());
      return std::unexpected(std::string("cancelled"));
    }
    ssize_t copied = 0;
    if (inKernel) {
      copied = ::copy_file_range(source.get(), nullptr, target.get(), nullptr, std::size_t{64} << 20U, 0);
      if (copied < 0 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP)) {
        inKernel = false;
        continue;
      }
    } else {
      std::array<char, 1 << 16> buffer{};
      copied = ::read(source.get(), buffer.data(), buffer.size());
      for (ssize_t written = 0; copied > 0 && written < copied;) {
        const auto wrote = ::write(target.get(), buffer.data() + written, static_cast<std::size_t>(copied - written));
        if (wrote < 0 && errno != EINTR) {
          return fail("write", errno);
        }
        written += std::max<ssize_t>(wrote, 0);
      }
    }
    if (copied == 0) {
      break;
    }
    if (copied < 0 && errno != EINTR) {
      return fail(inKernel ? "write" : "read", errno);
    }
  }
  if (::fsync(target.get()) != 0 && errno != EINVAL) {
    return fail("write", errno);
  }
  return {};
}

std::expected<void, std::string> copyTree(const fs::path& from, const fs::path& to, const std::atomic<bool>* stop,
                                          std::vector<std::string>* leftOut) {
  std::error_code error;
  const auto root = fs::canonical(from, error);
  if (error) {
    return std::unexpected(fmt::format("could not read the folder {}: {}", from.string(), error.message()));
  }
  fs::create_directories(to, error);
  fs::recursive_directory_iterator entries(from, fs::directory_options::none, error);
  if (error) {
    return std::unexpected(fmt::format("could not read the folder {}: {}", from.string(), error.message()));
  }
  for (auto entry = fs::begin(entries); entry != fs::end(entries); entry.increment(error)) {
    if (error) {
      return std::unexpected(fmt::format("could not read the folder {}: {}", from.string(), error.message()));
    }
    const auto relative = entry->path().lexically_relative(from);
    const auto target = to / relative;
    if (entry->is_symlink(error)) {
      // A link inside the folder is kept as a link (the page's server follows it only that
      // far); one leading out is left out, and said.
      const auto destination = fs::weakly_canonical(entry->path(), error);
      const auto inside = destination.lexically_relative(root);
      const bool leadsNowhere = !error && !fs::exists(destination, error);
      if (error || leadsNowhere || inside.empty() || *inside.begin() == "..") {
        if (leftOut != nullptr) {
          leftOut->push_back(fmt::format("left out {}: a link to {}, {}", relative.string(),
                                         fs::read_symlink(entry->path(), error).string(),
                                         leadsNowhere ? "which leads nowhere" : "outside the folder"));
        }
        continue;
      }
      fs::create_directories(target.parent_path(), error);
      fs::create_symlink(fs::relative(destination, fs::weakly_canonical(entry->path().parent_path())), target, error);
      if (error) {
        return std::unexpected(fmt::format("could not create {}: {}", target.string(), error.message()));
      }
      continue;
    }
    if (entry->is_directory(error)) {
      if (!fs::create_directories(target, error) && error) {
        return std::unexpected(fmt::format("could not create {}: {}", target.string(), error.message()));
      }
    } else if (entry->is_regular_file(error)) {
      if (auto copied = copyFile(entry->path(), target, stop); !copied) {
        return copied;
      }
    }
  }
  return {};
}

}  // namespace LibraryStore
}  // namespace korvalen::engine
