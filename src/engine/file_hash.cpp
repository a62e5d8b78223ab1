#include "engine/file_hash.hpp"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <system_error>
#include <vector>

namespace korvalen::engine {
namespace {

class Digest {
 public:
  Digest() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    ready_ = context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1;
  }
  [[nodiscard]] bool ready() const { return ready_; }
  void add(const void* bytes, std::size_t count) { EVP_DigestUpdate(context_.get(), bytes, count); }
  void add(std::string_view text) { add(text.data(), text.size()); }
  std::string hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(context_.get(), digest.data(), &length);
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
      out += fmt::format("{:02x}", digest[i]);
    }
    return out;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context_;
  bool ready_ = false;
};

}  // namespace

std::expected<std::string, std::string> sha256OfFile(const std::filesystem::path& path) {
  const auto fail = [&](int error) {
    return std::unexpected(fmt::format("could not read {}: {}", path.string(), std::generic_category().message(error)));
  };
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return fail(errno);
  }
  const std::unique_ptr<int, void (*)(int*)> closer(new int(descriptor), [](int* d) {
    ::close(*d);
    delete d;
  });
  Digest digest;
  if (!digest.ready()) {
    return std::unexpected(fmt::format("could not hash {}: OpenSSL has no SHA-256", path.string()));
  }
  std::array<unsigned char, 1 << 16> buffer{};
  while (true) {
    const auto count = ::read(descriptor, buffer.data(), buffer.size());
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      return fail(errno);
    }
    if (count == 0) {
      break;
    }
    digest.add(buffer.data(), static_cast<std::size_t>(count));
  }
  return digest.hex();
}

std::expected<std::string, std::string> sha256OfTree(const std::filesystem::path& folder) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::recursive_directory_iterator entries(folder, fs::directory_options::none, error);
  if (error) {
    return std::unexpected(fmt::format("could not read the folder {}: {}", folder.string(), error.message()));
  }
  std::vector<fs::path> found;
  for (auto entry = fs::begin(entries); entry != fs::end(entries); entry.increment(error)) {
    if (error) {
      return std::unexpected(fmt::format("could not read the folder {}: {}", folder.string(), error.message()));
    }
    if (!entry->is_symlink(error) && entry->is_regular_file(error)) {
      found.push_back(entry->path().lexically_relative(folder));
    }
  }
  std::sort(found.begin(), found.end());
  Digest digest;
  if (!digest.ready()) {
    return std::unexpected(fmt::format("could not hash {}: OpenSSL has no SHA-256", folder.string()));
  }
  for (const auto& relative : found) {
    auto hash = sha256OfFile(folder / relative);
    if (!hash) {
      return hash;
    }
    digest.add(fmt::format("{}\n{}\n{}\n", relative.generic_string(), fs::file_size(folder / relative, error), *hash));
  }
  return digest.hex();
}

}  // namespace korvalen::engine
