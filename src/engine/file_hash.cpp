#include "engine/file_hash.hpp"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <fcntl.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <memory>
#include <system_error>

namespace korvalen::engine {

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
  const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
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
    EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(count));
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  EVP_DigestFinal_ex(context.get(), digest.data(), &length);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += fmt::format("{:02x}", digest[i]);
  }
  return hex;
}

}  // namespace korvalen::engine
